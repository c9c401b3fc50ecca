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
#include "io/detail/TextOut.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "model/TopoMesh.h"

namespace qyGeom
{

namespace
{

using detail::Checking;
using detail::digitsOf;
using detail::formatFloat;
using detail::maxFloatBytes;
using detail::TextOut;

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

} // namespace qyGeom
