// qyString: the string types of the interfaces and printf-style formatting into them.
#pragma once

#include <cstdarg>
#include <string>

#include "qyGeom/qyGeomExport.h"

#if defined(__GNUC__)
#define QY_PRINTF_FORMAT(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#else
#define QY_PRINTF_FORMAT(fmtIndex, firstArg)
#endif

namespace qyString
{

/// Owned, mutable text (UTF-8 bytes).
using CString = std::string;
/// Text handed across interfaces (file names, material names, messages): the same type, so
/// callers pass std::string values as they are.
using IString = std::string;

/// printf into a new string; a null or failing format yields an empty string.
QYGEOM_API CString format(const char* fmt, ...) QY_PRINTF_FORMAT(1, 2);
/// vprintf into a new string; `args` is consumed.
QYGEOM_API CString vformat(const char* fmt, std::va_list args);

} // namespace qyString
