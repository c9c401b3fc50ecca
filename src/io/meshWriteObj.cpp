#include "qyGeom/meshWriteObj.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/AppOutput.h"
#include "base/ThreadPool.h"
#include "io/objText.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "model/TopoMesh.h"

namespace qyGeom
{

namespace
{

constexpr double powersOf10[] = {1e-4, 1e-3, 1e-2, 1e-1, 1e0, 1e1, 1e2,
                                 1e3,  1e4,  1e5,  1e6,  1e7, 1e8, 1e9};
constexpr std::uint32_t intPowersOf10[] = {1,      10,      100,      1000,      10000,
                                           100000, 1000000, 10000000, 100000000, 1000000000};

/// printf's "%g" (6 significant digits) for the common case of a float whose decimal
/// exponent lies in [-4, 5], where %g writes fixed notation. The float times a power of ten
/// of at most 10^9 is exact in double precision (24 + 21 bits), so rounding it to an
/// integer with ties to even rounds exactly as printf does. Returns the end of the text, or
/// null when the value needs the exponent form (or is not finite): the caller then uses the
/// general routine.
char* formatFloatG6(float value, char* out)
{
    const double v = value;
    if (!std::isfinite(v))
        return nullptr;
    const double a = std::fabs(v);
    if (std::signbit(v))
        *out++ = '-';
    if (a == 0)
    {
        *out++ = '0';
        return out;
    }
    if (a < 1e-4 || a >= 1e6)
        return nullptr;
    int x = -4; // decimal exponent: 10^x <= a < 10^(x+1)
    while (a >= powersOf10[x + 5])
        ++x;
    int decimals = 5 - x; // digits after the point before trailing zeros are cut
    std::uint32_t m = std::uint32_t(std::nearbyint(a * powersOf10[decimals + 4]));
    if (m == 1000000) // rounded up to the next power of ten
    {
        ++x;
        if (x > 5)
            return nullptr;
        --decimals;
        m = 100000;
    }
    const std::uint32_t scale = intPowersOf10[decimals];
    const std::uint32_t whole = m / scale;
    std::uint32_t fraction = m % scale;
    out = std::to_chars(out, out + 16, whole).ptr;
    if (fraction == 0)
        return out;
    while (fraction % 10 == 0)
    {
        fraction /= 10;
        --decimals;
    }
    *out++ = '.';
    for (int k = decimals - 1; k >= 0; --k)
    {
        out[k] = char('0' + fraction % 10);
        fraction /= 10;
    }
    return out + decimals;
}

/// The most bytes that formatFloat writes: a sign, 17 digits, the point and "e-308".
constexpr std::size_t maxFloatBytes = 32;

/// MeshWriteOptions::digits as used: 0 (the writer's own format) or 1 to 17.
int digitsOf(const MeshWriteOptions& options)
{
    return options.digits >= 1 && options.digits <= 17 ? options.digits : 0;
}

/// "%.<digits>g" of the value; with digits 0, an output stream's default float format (%g,
/// 6 significant digits). Writes at most maxFloatBytes.
char* formatFloat(float v, int digits, char* out)
{
    if (digits)
        return std::to_chars(out, out + maxFloatBytes, v, std::chars_format::general, digits).ptr;
    char* end = formatFloatG6(v, out);
    return end ? end
               : std::to_chars(out, out + maxFloatBytes, v, std::chars_format::general, 6).ptr;
}

/// Buffered text output to a file, with the number formats of the writers. The text is
/// gathered here and handed to the system in large blocks (the stream itself is unbuffered),
/// so the first failed write is seen where it happens and its errno kept; once a write has
/// failed, the rest of the text is dropped.
class TextOut
{
public:
    /// `digits`: significant digits of the numbers written, 0 for each format's default.
    TextOut(const char* path, int digits) : m_file(std::fopen(path, "wb")), m_digits(digits)
    {
        if (m_file)
            std::setvbuf(m_file, nullptr, _IONBF, 0);
        else
            m_error = errno ? errno : EIO;
    }
    ~TextOut() { close(); }
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    bool isOpen() const { return m_file != nullptr; }
    /// True once opening, a write or the close failed.
    bool failed() const { return m_error != 0; }
    /// The errno of the first failure; 0 when none.
    int error() const { return m_error; }

    /// Writes what is buffered and closes the file; false when any write or the close failed.
    bool close()
    {
        if (m_file)
        {
            flush();
            if (std::fclose(m_file) != 0 && !m_error)
                m_error = errno ? errno : EIO;
            m_file = nullptr;
        }
        return !m_error;
    }

    void put(const char* s, std::size_t n)
    {
        if (m_used + n > sizeof m_buffer)
        {
            flush();
            if (n > sizeof m_buffer)
            {
                write(s, n);
                return;
            }
        }
        std::memcpy(m_buffer + m_used, s, n);
        m_used += n;
    }
    void put(const char* s) { put(s, std::strlen(s)); }
    void put(const std::string& s) { put(s.data(), s.size()); }
    void put(char c)
    {
        if (m_used == sizeof m_buffer)
            flush();
        m_buffer[m_used++] = c;
    }
    /// An output stream's default float format (%g, 6 significant digits), or %.<digits>g.
    void putFloat(float v)
    {
        reserve(64);
        m_used = std::size_t(formatFloat(v, m_digits, m_buffer + m_used) - m_buffer);
    }
    int digits() const { return m_digits; }
    /// Room for n bytes (n at most the buffer's size) to be written at the pointer returned;
    /// commit() then takes what was written.
    char* room(std::size_t n)
    {
        reserve(n);
        return m_buffer + m_used;
    }
    void commit(const char* end) { m_used = std::size_t(end - m_buffer); }
    /// %.10g of the value, or %.<digits>g.
    void putG10(double v) { putChars(v, m_digits ? m_digits : 10); }
    void putInt(long long v)
    {
        reserve(24);
        m_used = std::size_t(std::to_chars(m_buffer + m_used, m_buffer + sizeof m_buffer, v).ptr -
                             m_buffer);
    }

private:
    template <class T> void putChars(T v, int precision)
    {
        reserve(64);
        m_used = std::size_t(std::to_chars(m_buffer + m_used, m_buffer + sizeof m_buffer, v,
                                           std::chars_format::general, precision)
                                 .ptr -
                             m_buffer);
    }
    void reserve(std::size_t n)
    {
        if (m_used + n > sizeof m_buffer)
            flush();
    }
    void flush()
    {
        if (m_used)
            write(m_buffer, m_used);
        m_used = 0;
    }
    void write(const char* s, std::size_t n)
    {
        if (!m_file || m_error)
            return;
        errno = 0;
        if (std::fwrite(s, 1, n, m_file) != n)
            m_error = errno ? errno : EIO;
    }

    FILE* m_file;
    int m_digits;
    int m_error = 0;
    std::size_t m_used = 0;
    char m_buffer[1 << 16];
};

/// Writes OBJ text to one file; indices are offset by the vertices already written.
class ObjWriter
{
public:
    ObjWriter(const qyOS::Filename& file, int digits) : m_out(file.c_str(), digits), m_file(file) {}

    bool isOpen() const { return m_out.isOpen(); }

    /// <directory>/<base name>.mtl beside the OBJ file.
    qyOS::Filename materialFile() const { return m_file.sibling(m_file.getBaseName() + ".mtl"); }

    void writeVertexData(const CompactMesh& mesh)
    {
        const int n = mesh.getNumVertices();
        writeTuples("v ", mesh.getVerticesRaw(), n, 3);
        if (mesh.getNormalsRaw())
            writeTuples("vn ", mesh.getNormalsRaw(), n, 3);
        if (mesh.getUVsRaw())
            writeTuples("vt ", mesh.getUVsRaw(), n, 2);
    }

    /// Writes the triangles tris[0 .. n) (indices into the mesh's triangles; those out of
    /// range are skipped).
    void writeTriangles(const CompactMesh& mesh, const int* tris, int n)
    {
        const bool normals = mesh.getNormalsRaw() != nullptr;
        const bool uvs = mesh.getUVsRaw() != nullptr;
        const int* all = mesh.getTrianglesRaw();
        const int numTris = mesh.getNumTriangles();
        const unsigned offset = m_offset;
        writeItems(n, 128,
                   [=](int i, char* out)
                   {
                       const int t = tris ? tris[i] : i;
                       if (t < 0 || t >= numTris)
                           return out;
                       return formatTriangle(all + 3 * std::ptrdiff_t(t), offset, normals, uvs,
                                             out);
                   });
    }
    void finishMesh(const CompactMesh& mesh) { m_offset += unsigned(mesh.getNumVertices()); }

    /// Vertices, then faces of a half-edge mesh; false at a face with a vertex that was not
    /// written (the vertex lines stand).
    bool writeTopoMesh(const TopoMesh& mesh)
    {
        std::vector<long long> number(std::size_t(mesh.getVertexCapacity()), -1);
        unsigned written = 0;
        for (int v = mesh.nextVertexIndex(-1); v >= 0; v = mesh.nextVertexIndex(v))
        {
            const qyLinear::Point& p = mesh.getPoint(v);
            m_out.put("v ", 2);
            m_out.putFloat(float(p.x));
            m_out.put(' ');
            m_out.putFloat(float(p.y));
            m_out.put(' ');
            m_out.putFloat(float(p.z));
            m_out.put('\n');
            number[std::size_t(v)] = static_cast<long long>(m_offset) + written + 1;
            ++written;
        }
        m_offset += written;
        const int maxSteps = mesh.getEdgeCapacity();
        for (int f = mesh.nextFaceIndex(-1); f >= 0; f = mesh.nextFaceIndex(f))
        {
            m_out.put("f ", 2);
            const int first = mesh.getFaceEdge(f);
            int e = first;
            for (int steps = 0; steps < maxSteps; ++steps)
            {
                const int v = e >= 0 && e < maxSteps ? mesh.getHalfEdge(e).vertex : -1;
                if (v < 0 || std::size_t(v) >= number.size() || number[std::size_t(v)] < 0)
                    return false;
                m_out.putInt(number[std::size_t(v)]);
                m_out.put(' ');
                e = mesh.getHalfEdge(e).next;
                if (e == first)
                    break;
            }
            m_out.put('\n');
        }
        return true;
    }

    TextOut& out() { return m_out; }

private:
    /// One face line of a triangle; at most 3 * 38 + 4 bytes.
    static char* formatTriangle(const int* tri, unsigned offset, bool normals, bool uvs, char* out)
    {
        *out++ = 'f';
        *out++ = ' ';
        for (int k = 0; k < 3; ++k)
        {
            const long long i = static_cast<long long>(offset) + tri[k] + 1;
            out = std::to_chars(out, out + 12, i).ptr;
            if (normals && uvs)
            {
                *out++ = '/';
                out = std::to_chars(out, out + 12, i).ptr;
                *out++ = '/';
                out = std::to_chars(out, out + 12, i).ptr;
            }
            else if (normals)
            {
                *out++ = '/';
                *out++ = '/';
                out = std::to_chars(out, out + 12, i).ptr;
            }
            else if (uvs)
            {
                *out++ = '/';
                out = std::to_chars(out, out + 12, i).ptr;
            }
            else
            {
                // Each index is followed by a blank, and every corner but the last by a
                // second one: "f 1  2  3 ".
                *out++ = ' ';
                if (k < 2)
                    *out++ = ' ';
                continue;
            }
            if (k < 2)
                *out++ = ' ';
        }
        *out++ = '\n';
        return out;
    }

    void writeTuples(const char* prefix, const float* data, int n, int width)
    {
        const std::size_t prefixLength = std::strlen(prefix);
        const int digits = m_out.digits();
        writeItems(n, 4 + std::size_t(width) * (maxFloatBytes + 1),
                   [=](int i, char* out)
                   {
                       std::memcpy(out, prefix, prefixLength);
                       out += prefixLength;
                       for (int k = 0; k < width; ++k)
                       {
                           if (k)
                               *out++ = ' ';
                           out = formatFloat(data[std::ptrdiff_t(i) * width + k], digits, out);
                       }
                       *out++ = '\n';
                       return out;
                   });
    }

    /// Writes the text of items 0 .. n - 1, format(i, out) writing at most maxItemBytes at
    /// out and returning the end. Large runs are formatted on the thread pool, a batch of
    /// chunks at a time into buffers allocated once, and written in order: the text does not
    /// depend on the thread count.
    template <class Format> void writeItems(int n, std::size_t maxItemBytes, Format format)
    {
        constexpr int chunkItems = 8192;
        qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
        const int numChunks = (n + chunkItems - 1) / chunkItems;
        if (numChunks < 2 || pool.getNumThreads() < 2)
        {
            for (int i = 0; i < n; ++i)
                m_out.commit(format(i, m_out.room(maxItemBytes)));
            return;
        }
        const int batch = std::min(numChunks, 2 * pool.getNumThreads());
        const std::size_t chunkBytes = std::size_t(chunkItems) * maxItemBytes;
        const std::unique_ptr<char[]> buffer(new char[std::size_t(batch) * chunkBytes]);
        std::vector<std::size_t> used(std::size_t(batch), 0);
        for (int first = 0; first < numChunks && !m_out.failed(); first += batch)
        {
            const int count = std::min(batch, numChunks - first);
            qyUtil::runChunks(
                pool, count,
                [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
                {
                    for (int c = begin; c < end; ++c)
                    {
                        char* const start = buffer.get() + std::size_t(c) * chunkBytes;
                        char* out = start;
                        const int from = (first + c) * chunkItems;
                        const int to = std::min(n, from + chunkItems);
                        for (int i = from; i < to; ++i)
                            out = format(i, out);
                        used[std::size_t(c)] = std::size_t(out - start);
                    }
                },
                nullptr, 1);
            for (int c = 0; c < count; ++c)
                m_out.put(buffer.get() + std::size_t(c) * chunkBytes, used[std::size_t(c)]);
        }
    }

    TextOut m_out;
    qyOS::Filename m_file;
    unsigned m_offset = 0;
};

/// Writes the material library; the errno of the failure, or 0.
int writeMaterialLibrary(const qyOS::Filename& file, const qy::list<qyUtil::Color>& colors,
                         int digits)
{
    TextOut out(file.c_str(), digits);
    if (!out.isOpen())
        return out.error();
    int k = 0;
    for (const qyUtil::Color& c : colors)
    {
        out.put("newmtl mat");
        out.putInt(k++);
        out.put("\nNs 100.0\nd 1.0\nillum 2\nKd ");
        out.putFloat(c.r);
        out.put(' ');
        out.putFloat(c.g);
        out.put(' ');
        out.putFloat(c.b);
        out.put("\nKa 1.0 1.0 1.0\nKs 1.0 1.0 1.0\nKe 0.0 0.0 0.0\n\n");
    }
    out.close();
    return out.error();
}

/// Whether a writer reports only an output that did not open (the plain forms) or also a
/// write or close that failed (the checked forms, which name the function and the reason
/// on the application output).
struct Checking
{
    const char* function = nullptr; // null: unchecked

    bool failed(const qyOS::Filename& file, const char* reason) const
    {
        if (function)
            qyOS::AppOutput::getInstance().error("%s: cannot write '%s': %s\n", function,
                                                 file.c_str(), reason);
        return false;
    }
    bool failed(const qyOS::Filename& file, int error) const
    {
        return failed(file, std::strerror(error));
    }
};

/// Opens an OBJ writer on `file`, runs `body` (false: a face names a vertex that was not
/// written), closes the file and says whether the call succeeds under `check`.
template <class Body>
bool writeObjFile(const qyOS::Filename& file, Checking check, int digits, Body body)
{
    ObjWriter w(file, digits);
    if (!w.isOpen())
        return check.failed(file, w.out().error());
    const bool complete = body(w);
    const bool written = w.out().close();
    if (!check.function)
        return complete;
    if (!written)
        return check.failed(file, w.out().error());
    return complete || check.failed(file, "a face names a vertex that is not in the mesh");
}

bool writeCompactObj(const CompactMesh& mesh, const qyOS::Filename& file, Checking check,
                     int digits = 0)
{
    return writeObjFile(file, check, digits,
                        [&](ObjWriter& w)
                        {
                            w.writeVertexData(mesh);
                            w.writeTriangles(mesh, nullptr, mesh.getNumTriangles());
                            w.finishMesh(mesh);
                            return true;
                        });
}

bool writeSubsetsObj(const CompactMesh& mesh, const qy::list<qy::Reference<MeshSubset>>& subsets,
                     const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file,
                     Checking check, int digits = 0)
{
    qyOS::Filename library;
    const bool written = writeObjFile(file, check, digits,
                                      [&](ObjWriter& w)
                                      {
                                          library = w.materialFile();
                                          w.out().put("mtllib ");
                                          w.out().put(library.getName());
                                          w.out().put('\n');
                                          w.writeVertexData(mesh);
                                          int k = 0;
                                          for (const qy::Reference<MeshSubset>& s : subsets)
                                          {
                                              w.out().put("usemtl mat");
                                              w.out().putInt(k++);
                                              w.out().put('\n');
                                              if (s)
                                                  w.writeTriangles(mesh, s->triangles().data(),
                                                                   int(s->triangles().size()));
                                          }
                                          w.finishMesh(mesh);
                                          return true;
                                      });
    if (!written)
        return false;
    // The plain form keeps the OBJ file as its result whatever becomes of the library.
    const int error = writeMaterialLibrary(library, colors, digits);
    return error == 0 || !check.function || check.failed(library, error);
}

bool writeTopoObj(const qy::list<qy::Reference<TopoMesh>>& meshes, const qyOS::Filename& file,
                  Checking check, int digits = 0)
{
    return writeObjFile(file, check, digits,
                        [&](ObjWriter& w)
                        {
                            for (const qy::Reference<TopoMesh>& m : meshes)
                                if (!m || !w.writeTopoMesh(*m))
                                    return false;
                            return true;
                        });
}

/// Reads the whitespace-separated numbers of the minimal format one by one. Each number needs
/// at least one byte of the file, so the arrays only grow with data that is there, whatever
/// counts the header claims.
struct CountedText
{
    const char* p;
    const char* end;

    bool readInt(int& v)
    {
        const char* stop;
        v = objText::parseInt(p, end, &stop);
        const bool ok = stop != p;
        p = stop;
        return ok;
    }
    bool readDouble(double& v)
    {
        const char* stop;
        v = objText::parseDouble(p, end, &stop);
        const bool ok = stop != p;
        p = stop;
        return ok;
    }
    bool readFloat(float& v)
    {
        double d;
        const bool ok = readDouble(d);
        v = float(d);
        return ok;
    }
};

} // namespace

bool meshWriteObj(const CompactMesh& mesh, const qyOS::Filename& file)
{
    return writeCompactObj(mesh, file, {});
}

bool meshWriteObj(const CompactMesh& mesh, const qy::list<qy::Reference<MeshSubset>>& subsets,
                  const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file)
{
    return writeSubsetsObj(mesh, subsets, colors, file, {});
}

bool meshWriteObj(const TopoMesh& mesh, const qyOS::Filename& file)
{
    return writeObjFile(file, {}, 0, [&](ObjWriter& w) { return w.writeTopoMesh(mesh); });
}

bool meshWriteObj(const qy::list<qy::Reference<TopoMesh>>& meshes, const qyOS::Filename& file)
{
    return writeTopoObj(meshes, file, {});
}

bool meshWriteObjChecked(const CompactMesh& mesh, const qyOS::Filename& file)
{
    return writeCompactObj(mesh, file, {"meshWriteObjChecked"});
}

bool meshWriteObjChecked(const CompactMesh& mesh,
                         const qy::list<qy::Reference<MeshSubset>>& subsets,
                         const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file)
{
    return writeSubsetsObj(mesh, subsets, colors, file, {"meshWriteObjChecked"});
}

bool meshWriteObjChecked(const TopoMesh& mesh, const qyOS::Filename& file)
{
    return writeObjFile(file, {"meshWriteObjChecked"}, 0,
                        [&](ObjWriter& w) { return w.writeTopoMesh(mesh); });
}

bool meshWriteObjChecked(const CompactMesh& mesh, const qyOS::Filename& file,
                         const MeshWriteOptions& options)
{
    return writeCompactObj(mesh, file, {"meshWriteObjChecked"}, digitsOf(options));
}

bool meshWriteObjChecked(const CompactMesh& mesh,
                         const qy::list<qy::Reference<MeshSubset>>& subsets,
                         const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file,
                         const MeshWriteOptions& options)
{
    return writeSubsetsObj(mesh, subsets, colors, file, {"meshWriteObjChecked"}, digitsOf(options));
}

bool meshWriteObjChecked(const TopoMesh& mesh, const qyOS::Filename& file,
                         const MeshWriteOptions& options)
{
    return writeObjFile(file, {"meshWriteObjChecked"}, digitsOf(options),
                        [&](ObjWriter& w) { return w.writeTopoMesh(mesh); });
}

bool meshWriteObjChecked(const qy::list<qy::Reference<TopoMesh>>& meshes,
                         const qyOS::Filename& file, const MeshWriteOptions& options)
{
    return writeTopoObj(meshes, file, {"meshWriteObjChecked"}, digitsOf(options));
}

bool meshWriteObjChecked(const qy::list<qy::Reference<TopoMesh>>& meshes,
                         const qyOS::Filename& file)
{
    return writeTopoObj(meshes, file, {"meshWriteObjChecked"});
}

namespace
{

void writeMinimal(TopoMesh& mesh, TextOut& out)
{
    out.putInt(mesh.getNumVertices());
    out.put(' ');
    out.putInt(mesh.getNumFaces());
    out.put('\n');
    std::vector<int> number(std::size_t(mesh.getVertexCapacity()), -1);
    int written = 0;
    for (int v = mesh.nextVertexIndex(-1); v >= 0; v = mesh.nextVertexIndex(v))
    {
        const qyLinear::Point& p = mesh.getPoint(v);
        out.putG10(p.x);
        out.put(' ');
        out.putG10(p.y);
        out.put(' ');
        out.putG10(p.z);
        out.put('\n');
        number[std::size_t(v)] = written++;
    }
    std::vector<int> corners;
    const int maxSteps = mesh.getEdgeCapacity();
    for (int f = mesh.nextFaceIndex(-1); f >= 0; f = mesh.nextFaceIndex(f))
    {
        corners.clear();
        const int first = mesh.getFaceEdge(f);
        int e = first;
        for (int steps = 0; steps < maxSteps && e >= 0; ++steps)
        {
            const int v = mesh.getHalfEdge(e).vertex;
            corners.push_back(v >= 0 && std::size_t(v) < number.size() ? number[std::size_t(v)]
                                                                       : -1);
            e = mesh.getHalfEdge(e).next;
            if (e == first)
                break;
        }
        out.putInt(int(corners.size()));
        for (const int c : corners)
        {
            out.put(' ');
            out.putInt(c);
        }
        out.put('\n');
    }
}

void writeMinimal(const CompactMesh& mesh, TextOut& out)
{
    const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
    out.putInt(nv);
    out.put(' ');
    out.putInt(nt);
    out.put('\n');
    const float* xyz = mesh.getVerticesRaw();
    for (int i = 0; i < nv; ++i)
    {
        for (int k = 0; k < 3; ++k)
        {
            if (k)
                out.put(' ');
            out.putG10(double(xyz[3 * std::ptrdiff_t(i) + k]));
        }
        out.put('\n');
    }
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < nt; ++t)
    {
        out.put("3", 1);
        for (int k = 0; k < 3; ++k)
        {
            out.put(' ');
            out.putInt(tris[3 * std::ptrdiff_t(t) + k]);
        }
        out.put('\n');
    }
}

/// The minimal format of `mesh` into `file`; false (reported under `check`) when the file
/// did not open, or, when checked, a write or the close failed.
template <class Mesh>
bool writeMinimalFile(Mesh& mesh, const qyOS::Filename& file, Checking check, int digits = 0)
{
    TextOut out(file.c_str(), digits);
    if (!out.isOpen())
        return check.failed(file, out.error());
    writeMinimal(mesh, out);
    return out.close() || !check.function || check.failed(file, out.error());
}

} // namespace

void meshWrite(TopoMesh& mesh, const qyOS::Filename& file)
{
    writeMinimalFile(mesh, file, {});
}

void meshWrite(const CompactMesh& mesh, const qyOS::Filename& file)
{
    writeMinimalFile(mesh, file, {});
}

bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file)
{
    return writeMinimalFile(mesh, file, {"meshWriteChecked"});
}

bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file)
{
    return writeMinimalFile(mesh, file, {"meshWriteChecked"});
}

bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file, const MeshWriteOptions& options)
{
    return writeMinimalFile(mesh, file, {"meshWriteChecked"}, digitsOf(options));
}

bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file,
                      const MeshWriteOptions& options)
{
    return writeMinimalFile(mesh, file, {"meshWriteChecked"}, digitsOf(options));
}

void meshRead(CompactMesh& mesh, const qyOS::Filename& file)
{
    objText::FileText text;
    if (!objText::readFile(file.c_str(), text) && text.empty())
        return;
    CountedText in{text.data(), text.data() + text.size()};
    int nv = 0, nt = 0;
    if (!in.readInt(nv) || !in.readInt(nt))
        nv = nt = 0;
    std::vector<float> xyz;
    bool ok = true;
    for (int i = 0; ok && i < nv; ++i)
    {
        float c[3];
        ok = in.readFloat(c[0]) && in.readFloat(c[1]) && in.readFloat(c[2]);
        if (ok)
            xyz.insert(xyz.end(), c, c + 3);
    }
    const int numVertices = int(xyz.size() / 3);
    std::vector<int> tris;
    for (int t = 0; ok && t < nt; ++t)
    {
        int count, v[3];
        ok = in.readInt(count) && in.readInt(v[0]) && in.readInt(v[1]) && in.readInt(v[2]);
        if (!ok)
            break;
        bool inside = true;
        for (const int i : v)
            inside = inside && i >= 0 && i < numVertices;
        if (inside)
            tris.insert(tris.end(), v, v + 3);
    }
    CompactMesh built(numVertices, reinterpret_cast<const MeshVertex*>(xyz.data()));
    built.copyTriangles(int(tris.size() / 3), tris.data());
    mesh = std::move(built);
}

} // namespace qyGeom

namespace qyGeom
{

void meshRead(TopoMesh& mesh, const qyOS::Filename& file)
{
    objText::FileText text;
    if (!objText::readFile(file.c_str(), text) && text.empty())
        return;
    mesh.clear();
    CountedText in{text.data(), text.data() + text.size()};
    int nv = 0, nf = 0;
    if (!in.readInt(nv) || !in.readInt(nf))
        nv = nf = 0;
    int numVertices = 0;
    bool ok = true;
    for (; ok && numVertices < nv; ++numVertices)
    {
        double c[3];
        ok = in.readDouble(c[0]) && in.readDouble(c[1]) && in.readDouble(c[2]);
        if (!ok)
            break;
        mesh.allocVertex(c[0], c[1], c[2]);
    }
    std::vector<int> corners;
    for (int f = 0; ok && f < nf; ++f)
    {
        int n = 0;
        ok = in.readInt(n);
        corners.clear();
        bool inside = n >= 3;
        // The corners are read one by one, so a huge count only reads what is there.
        for (int k = 0; ok && k < n; ++k)
        {
            int v;
            ok = in.readInt(v);
            if (ok)
            {
                inside = inside && v >= 0 && v < numVertices;
                corners.push_back(v);
            }
        }
        if (ok && inside)
            mesh.allocFace(int(corners.size()), corners.data());
    }
    mesh.meshTwin();
    mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
}

} // namespace qyGeom
