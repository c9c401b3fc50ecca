// What the PLY, STL and OFF readers and writers share: the failure messages with the file and
// line, the lines and words of a text, the arrays a reader fills before it builds the mesh,
// and the faces and per-vertex arrays that a writer walks.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"
#include "base/Filename.h"
#include "base/Memory.h"
#include "io/detail/TextSource.h"

namespace qyGeom
{
class CompactMesh;
}

namespace qyGeom::detail
{

/// Failures of one read, all of one form: "cannot read '<file>': line N: <what>" for text,
/// "cannot read '<file>': <what>" otherwise ("memory block" in place of '<file>'). Code 1
/// when the file cannot be opened or read, 2 when its contents are refused. Thrown inside a
/// reader, returned at its entry point.
class ReadFailure
{
public:
    explicit ReadFailure(const qyOS::Filename& file);
    ReadFailure() : m_name("memory block") {}

    [[noreturn]] void atLine(int line, const char* fmt, ...) const QY_PRINTF_FORMAT(3, 4);
    [[noreturn]] void fail(const char* fmt, ...) const QY_PRINTF_FORMAT(2, 3);
    [[noreturn]] void cannotRead(int error) const;

private:
    std::string m_name;
};

/// Opens a regular file and reads it whole; throws code 1 when that fails.
void readWholeFile(const qyOS::Filename& file, TextSource::Whole& out, const ReadFailure& failure);

/// The entry point of a reader of whole texts: reads `file` whole and hands its bytes to
/// read(begin, end, failure), or returns the error of a file that cannot be read.
template <class Read> qyUtil::Error readFileWhole(const qyOS::Filename& file, Read read)
{
    const ReadFailure failure(file);
    TextSource::Whole text;
    try
    {
        readWholeFile(file, text, failure);
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return read(text.begin(), text.end(), failure);
}

/// The lines of a text, counted from 1; a line ends at "\n", and a '\r' before it is not part
/// of the line.
class Lines
{
public:
    Lines(const char* p, const char* textEnd, int firstLine = 1)
        : m_p(p), m_end(textEnd), m_line(firstLine - 1)
    {
    }
    /// Moves to the next line; false at the end of the text.
    bool next()
    {
        if (m_p >= m_end)
            return false;
        ++m_line;
        begin = m_p;
        const void* nl = std::memchr(m_p, '\n', std::size_t(m_end - m_p));
        end = nl ? static_cast<const char*>(nl) : m_end;
        m_p = nl ? end + 1 : m_end;
        m_lineEnded = nl != nullptr;
        if (end > begin && end[-1] == '\r')
            --end;
        return true;
    }
    int line() const { return m_line; }
    /// The line on which the text ends: after a last line end, the line after it.
    int endLine() const { return m_line + (m_lineEnded || m_line == 0 ? 1 : 0); }
    /// Where the next line starts.
    const char* rest() const { return m_p; }

    const char* begin = nullptr; ///< the current line, without its line end
    const char* end = nullptr;

private:
    const char* m_p;
    const char* m_end;
    int m_line;
    bool m_lineEnded = false;
};

/// The words of a line: runs of characters other than blanks, tabs and '\r'.
class Words
{
public:
    Words(const char* p, const char* end) : m_p(p), m_end(end) {}
    /// The next word; false when the line has none left.
    bool next(std::string_view& word)
    {
        skip();
        if (m_p == m_end)
            return false;
        const char* const b = m_p;
        while (m_p < m_end && !isSeparator(*m_p))
            ++m_p;
        word = {b, std::size_t(m_p - b)};
        return true;
    }
    /// True when only separators are left.
    bool done()
    {
        skip();
        return m_p == m_end;
    }
    /// The next word as a float32, correctly rounded; false when there is no word or it is
    /// not a number as a whole.
    bool number(float& v);
    /// The next word as an integer (an optional sign and digits) within the range of long
    /// long; false when there is no word or it is not one.
    bool integer(long long& v);
    /// A ST/C/N colour channel: an integer word read as 0 to 255, a real one as 0 to 1.
    bool channel(float& v);

private:
    static bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\r'; }
    void skip()
    {
        while (m_p < m_end && isSeparator(*m_p))
            ++m_p;
    }
    const char* m_p;
    const char* m_end;
};

/// The arrays that a reader fills and then makes into a mesh. Faces of three corners go to
/// `corners` alone; the first face of another size starts `lengths` (one per face).
struct MeshArrays
{
    std::vector<float> xyz, normals, uvs, colours; ///< 3, 3, 2 and 4 floats per vertex
    std::vector<int> corners;
    std::vector<int> lengths; ///< used once a face is not a triangle
    bool polygons = false;

    int numVertices() const { return int(xyz.size() / 3); }
    void addFace(const int* c, int n)
    {
        if (n != 3 && !polygons)
        {
            polygons = true;
            lengths.assign(corners.size() / 3, 3);
        }
        if (polygons)
            lengths.push_back(n);
        corners.insert(corners.end(), c, c + n);
    }
    /// Replaces `mesh` by the vertices, their attributes (the arrays that are not empty) and
    /// the faces: triangles when every face has three corners, polygons otherwise.
    void build(CompactMesh& mesh) const;
};

/// The faces of a mesh as a writer walks them: its triangles, then its polygons.
class MeshFaces
{
public:
    explicit MeshFaces(const CompactMesh& mesh);
    int size() const { return m_numTriangles + m_numPolys; }
    /// Corner count and corners of face f (faces are walked in order, so the polygon
    /// offset is kept from one call to the next).
    int corners(int f, const int*& c)
    {
        if (f < m_numTriangles)
        {
            c = m_triangles + 3 * std::ptrdiff_t(f);
            return 3;
        }
        const int p = f - m_numTriangles;
        if (p == 0)
            m_polyOffset = 0;
        c = m_polyPoints + m_polyOffset;
        m_polyOffset += std::ptrdiff_t(m_polyLengths[p]);
        return m_polyLengths[p];
    }
    /// The most corners of a face.
    int maxCorners() const { return m_maxCorners; }

private:
    const int* m_triangles;
    const int* m_polyLengths;
    const int* m_polyPoints;
    int m_numTriangles, m_numPolys, m_maxCorners = 3;
    std::ptrdiff_t m_polyOffset = 0;
};

/// Byte order of binary numbers.
inline std::uint32_t byteSwap32(std::uint32_t v)
{
    return __builtin_bswap32(v);
}

/// A little-endian 32-bit word at p.
inline std::uint32_t loadU32LE(const char* p)
{
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    if constexpr (std::endian::native == std::endian::big)
        v = byteSwap32(v);
    return v;
}

inline void storeU32LE(char* p, std::uint32_t v)
{
    if constexpr (std::endian::native == std::endian::big)
        v = byteSwap32(v);
    std::memcpy(p, &v, 4);
}

} // namespace qyGeom::detail
