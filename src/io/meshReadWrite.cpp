// The minimal counted mesh format: a vertex and face count, one line per vertex, one line
// per face.
#include "qyGeom/meshReadWrite.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <vector>

#include "io/detail/TextOut.h"
#include "io/detail/TextSource.h"
#include "io/detail/text.h"
#include "model/CompactMesh.h"
#include "model/TopoMesh.h"

namespace qyGeom
{

namespace
{

using detail::Checking;
using detail::digitsOf;
using detail::TextOut;

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
        v = detail::parseInt(p, end, &stop);
        const bool ok = stop != p;
        p = stop;
        return ok;
    }
    bool readDouble(double& v)
    {
        const char* stop;
        v = detail::parseDouble(p, end, &stop);
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

/// Reads a whole regular file into `out`. False when the file cannot be opened, is not a
/// regular file (a directory, a device, a FIFO) or a read fails; `out` then holds what was
/// read.
bool readWholeFile(const char* path, detail::TextSource::Whole& out)
{
    detail::TextSource source;
    return source.open(path, detail::TextSource::Files::RegularOnly) && source.readAll(out);
}

} // namespace

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
    detail::TextSource::Whole text;
    if (!readWholeFile(file.c_str(), text) && text.empty())
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

void meshRead(TopoMesh& mesh, const qyOS::Filename& file)
{
    detail::TextSource::Whole text;
    if (!readWholeFile(file.c_str(), text) && text.empty())
        return;
    mesh.clear();
    CountedText in{text.data(), text.data() + text.size()};
    int nv = 0, nf = 0;
    if (!in.readInt(nv) || !in.readInt(nf))
        nv = nf = 0;
    // Room for what the header announces, as far as the text can hold it (a vertex takes at
    // least 6 characters, a face at least 8), with three half-edges a face: one allocation
    // instead of growth, and no huge one for a header that lies.
    const std::size_t chars = text.size();
    const int reserveVertices = int(std::min<std::size_t>(std::size_t(std::max(nv, 0)), chars / 6));
    const int reserveFaces =
        int(std::min<std::size_t>({std::size_t(std::max(nf, 0)), chars / 8, INT_MAX / 3}));
    mesh.reserve(reserveVertices, 3 * reserveFaces, reserveFaces);
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
