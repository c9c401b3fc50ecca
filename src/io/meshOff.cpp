// OFF files: a keyword naming the vertex attributes, the counts, then one line per vertex and
// one per face.
#include "qyGeom/meshOff.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "io/detail/MeshFormat.h"
#include "io/detail/TextOut.h"
#include "io/detail/text.h"
#include "model/CompactMesh.h"

namespace qyGeom
{

namespace
{

using detail::Lines;
using detail::MeshArrays;
using detail::ReadFailure;
using detail::Words;

/// The lines of an OFF text that hold something: comments cut, blank lines skipped.
class OffLines
{
public:
    OffLines(const char* p, const char* textEnd) : m_lines(p, textEnd) {}
    bool next()
    {
        while (m_lines.next())
        {
            end = std::find(m_lines.begin, m_lines.end, '#');
            if (!Words(m_lines.begin, end).done())
            {
                begin = m_lines.begin;
                return true;
            }
        }
        return false;
    }
    int line() const { return m_lines.line(); }
    int endLine() const { return m_lines.endLine(); }
    const char* rest() const { return m_lines.rest(); }

    const char* begin = nullptr;
    const char* end = nullptr;

private:
    Lines m_lines;
};

struct Keyword
{
    bool st = false, colour = false, normal = false, homogeneous = false;
};

/// Counts the numbers of a line.
int countWords(const char* p, const char* end)
{
    Words words(p, end);
    std::string_view w;
    int n = 0;
    while (words.next(w))
        ++n;
    return n;
}

void readOff(const char* p, const char* end, MeshArrays& out, const ReadFailure& failure)
{
    p = detail::skipByteOrderMark(p, end);
    OffLines lines(p, end);
    if (!lines.next())
        failure.fail("the file is empty (no \"OFF\" keyword)");
    Words words(lines.begin, lines.end);
    std::string_view w;
    words.next(w);
    Keyword key;
    std::string_view k = w;
    auto take = [&](const char* prefix)
    {
        const std::size_t n = std::strlen(prefix);
        if (k.substr(0, n) != prefix)
            return false;
        k.remove_prefix(n);
        return true;
    };
    key.st = take("ST");
    key.colour = take("C");
    key.normal = take("N");
    key.homogeneous = take("4");
    const bool dimension = take("n");
    if (k != "OFF")
        failure.atLine(lines.line(), "not an OFF file (the keyword is '%.*s')", int(w.size()),
                       w.data());
    auto integer = [&](long long& v, const char* what)
    {
        while (words.done())
        {
            if (!lines.next())
                failure.atLine(lines.endLine(), "the file ends before the %s", what);
            words = Words(lines.begin, lines.end);
        }
        if (!words.integer(v))
            failure.atLine(lines.line(), "expected the %s", what);
    };
    if (!words.done())
    {
        std::string_view next;
        Words peek = words;
        peek.next(next);
        if (next == "BINARY")
            failure.atLine(lines.line(), "binary OFF is not read (only the ASCII form)");
    }
    if (dimension)
    {
        long long dim;
        integer(dim, "dimension");
        if (dim != 3)
            failure.atLine(lines.line(), "a dimension of %lld (only 3 is read)", dim);
    }
    long long nv, nf, ne = 0;
    integer(nv, "vertex count");
    integer(nf, "face count");
    if (!words.done())
        integer(ne, "edge count");
    if (!words.done())
        failure.atLine(lines.line(), "more than three counts");
    if (nv < 0 || nf < 0 || nv > INT_MAX || nf > INT_MAX)
        failure.atLine(lines.line(), "counts of %lld vertices and %lld faces are out of range", nv,
                       nf);
    // A vertex line takes 6 bytes at least ("0 0 0\n"), a face line 2 ("0\n").
    const double need = 6.0 * double(nv) + 2.0 * double(nf) - 1;
    const std::size_t left = std::size_t(end - lines.rest());
    if (need > double(left))
        failure.atLine(lines.line(),
                       "the header's %lld vertices and %lld faces need at least "
                       "%.0f bytes, but the file has %zu after it",
                       nv, nf, need, left);

    const std::size_t n = std::size_t(nv);
    out.xyz.resize(3 * n);
    if (key.normal)
        out.normals.resize(3 * n);
    if (key.colour)
        out.colours.assign(4 * n, 1.0f);
    if (key.st)
        out.uvs.resize(2 * n);
    const int coords = key.homogeneous ? 4 : 3;
    const int fixed = coords + (key.normal ? 3 : 0) + (key.st ? 2 : 0);
    for (std::size_t i = 0; i < n; ++i)
    {
        if (!lines.next())
            failure.atLine(lines.endLine(), "the file ends after %zu of its %lld vertices", i, nv);
        const int numbers = countWords(lines.begin, lines.end);
        const int channels = numbers - fixed;
        if (key.colour ? (channels != 3 && channels != 4) : channels != 0)
            failure.atLine(lines.line(), "a vertex of %d numbers (expected %d%s)", numbers,
                           fixed + (key.colour ? 3 : 0), key.colour ? " or one more" : "");
        Words v(lines.begin, lines.end);
        float c[4];
        auto number = [&](float& x)
        {
            if (!v.number(x))
                failure.atLine(lines.line(), "a vertex value that is not a number");
        };
        for (int j = 0; j < coords; ++j)
            number(c[j]);
        if (key.homogeneous)
            for (int j = 0; j < 3; ++j)
                c[j] /= c[3];
        std::memcpy(out.xyz.data() + 3 * i, c, 12);
        if (key.normal)
            for (int j = 0; j < 3; ++j)
                number(out.normals[3 * i + std::size_t(j)]);
        if (key.colour)
            for (int j = 0; j < channels; ++j)
                if (!v.channel(out.colours[4 * i + std::size_t(j)]))
                    failure.atLine(lines.line(), "a colour channel that is not a number");
        if (key.st)
            for (int j = 0; j < 2; ++j)
                number(out.uvs[2 * i + std::size_t(j)]);
    }
    std::vector<int> corners;
    for (long long f = 0; f < nf; ++f)
    {
        if (!lines.next())
            failure.atLine(lines.endLine(), "the file ends after %lld of its %lld faces", f, nf);
        Words v(lines.begin, lines.end);
        long long count;
        if (!v.integer(count) || count < 0)
            failure.atLine(lines.line(), "expected a face's corner count");
        corners.clear();
        // One index per word: a lying count cannot make the array outgrow the line.
        for (long long c = 0; c < count; ++c)
        {
            long long index;
            if (!v.integer(index))
                failure.atLine(lines.line(), "a face of %lld corners with %lld indices", count, c);
            if (index < 0 || index >= nv)
                failure.atLine(lines.line(),
                               "face %lld names vertex %lld, but there are %lld "
                               "vertices",
                               f + 1, index, nv);
            corners.push_back(int(index));
        }
        // The face's colour, if any, is read over.
        float colour;
        int channels = 0;
        while (v.number(colour))
            ++channels;
        if (!v.done() || channels > 4)
            failure.atLine(lines.line(), "more than a face colour after the indices");
        if (count >= 3)
            out.addFace(corners.data(), int(count));
    }
    // Text after the counted faces is left unread, as OFF readers do: files with a face
    // count one short are in circulation.
}

qyUtil::Error readMemory(CompactMesh& mesh, const char* p, const char* end,
                         const ReadFailure& failure)
{
    try
    {
        MeshArrays out;
        readOff(p, end, out, failure);
        out.build(mesh);
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

void writeOff(const CompactMesh& mesh, detail::TextOut& out)
{
    const int nv = mesh.getNumVertices();
    const float* xyz = mesh.getVerticesRaw();
    const float* normals = mesh.getNormalsRaw();
    const float* uvs = mesh.getUVsRaw();
    const MeshColour* colours = mesh.getColours();
    detail::MeshFaces faces(mesh);
    if (uvs)
        out.put("ST");
    if (colours)
        out.put('C');
    if (normals)
        out.put('N');
    out.put("OFF\n");
    out.putInt(nv);
    out.put(' ');
    out.putInt(faces.size());
    out.put(" 0\n");
    auto floats = [&](const float* v, int n)
    {
        for (int k = 0; k < n; ++k)
        {
            out.put(' ');
            out.putFloatExact(v[k]);
        }
    };
    for (int i = 0; i < nv; ++i)
    {
        out.putFloatExact(xyz[3 * std::ptrdiff_t(i)]);
        floats(xyz + 3 * std::ptrdiff_t(i) + 1, 2);
        if (normals)
            floats(normals + 3 * std::ptrdiff_t(i), 3);
        if (colours)
        {
            const MeshColour& c = colours[i];
            for (const float ch : {c.r, c.g, c.b, c.a})
            {
                // A channel without a point would read back as counting to 255.
                char text[detail::maxFloatBytes + 2];
                char* e = out.digits() ? std::to_chars(text, text + sizeof text - 2, ch,
                                                       std::chars_format::general, out.digits())
                                             .ptr
                                       : std::to_chars(text, text + sizeof text - 2, ch).ptr;
                if (!std::memchr(text, '.', std::size_t(e - text)) &&
                    !std::memchr(text, 'e', std::size_t(e - text)) &&
                    !std::memchr(text, 'n', std::size_t(e - text)))
                {
                    *e++ = '.';
                    *e++ = '0';
                }
                out.put(' ');
                out.put(text, std::size_t(e - text));
            }
        }
        if (uvs)
            floats(uvs + 2 * std::ptrdiff_t(i), 2);
        out.put('\n');
    }
    for (int f = 0; f < faces.size(); ++f)
    {
        const int* c;
        const int n = faces.corners(f, c);
        out.putInt(n);
        for (int k = 0; k < n; ++k)
        {
            out.put(' ');
            out.putInt(c[k]);
        }
        out.put('\n');
    }
}

} // namespace

qyUtil::Error meshReadOff(CompactMesh& mesh, const qyOS::Filename& file)
{
    return detail::readFileWhole(file,
                                 [&](const char* begin, const char* end, const ReadFailure& failure)
                                 { return readMemory(mesh, begin, end, failure); });
}

qyUtil::Error meshReadOff(CompactMesh& mesh, const char* data, unsigned int length)
{
    return readMemory(mesh, data, data + (data ? length : 0), ReadFailure());
}

bool meshWriteOff(const CompactMesh& mesh, const qyOS::Filename& file,
                  const MeshWriteOptions& options)
{
    return detail::writeFileChecked("meshWriteOff", file, options,
                                    [&](detail::TextOut& out) { writeOff(mesh, out); });
}

} // namespace qyGeom
