// The names under which the minimal-format reader (meshWriteObj.cpp) uses the file readers'
// text layer (io/detail): number conversions as the C library's in the "C" locale, and
// whole-file reading.
#pragma once

#include "io/detail/TextSource.h"
#include "io/detail/text.h"

namespace qyGeom::objText
{

using detail::isDigit;
using detail::isSpace;
using detail::parseDouble;
using detail::parseInt;
using detail::skipByteOrderMark;

/// The bytes of a whole file.
using FileText = detail::TextSource::Whole;

/// Reads a whole regular file into `out`. False when the file cannot be opened, is not a
/// regular file (a directory, a device, a FIFO) or a read fails; `out` then holds what was
/// read.
inline bool readFile(const char* path, FileText& out)
{
    detail::TextSource source;
    return source.open(path, detail::TextSource::Files::RegularOnly) && source.readAll(out);
}

} // namespace qyGeom::objText
