#include "qyGeom/meshWriteObj.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "io/objText.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"

namespace qyGeom
{

namespace
{

/// Buffered text output to a file, with the number formats of the writers.
class TextOut
{
public:
    explicit TextOut(const char* path) : m_file(std::fopen(path, "wb")) {}
    ~TextOut()
    {
        if (m_file)
        {
            flush();
            std::fclose(m_file);
        }
    }
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    bool isOpen() const { return m_file != nullptr; }

    void put(const char* s, std::size_t n)
    {
        if (m_used + n > sizeof m_buffer)
        {
            flush();
            if (n > sizeof m_buffer)
            {
                std::fwrite(s, 1, n, m_file);
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
    /// An output stream's default float format: %g with 6 significant digits.
    void putFloat(float v) { putChars(v, 6); }
    /// %.10g of the value.
    void putG10(double v) { putChars(v, 10); }
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
            std::fwrite(m_buffer, 1, m_used, m_file);
        m_used = 0;
    }

    FILE* m_file;
    std::size_t m_used = 0;
    char m_buffer[1 << 16];
};

/// Writes OBJ text to one file; indices are offset by the vertices already written.
class ObjWriter
{
public:
    explicit ObjWriter(const qyOS::Filename& file) : m_out(file.c_str()), m_file(file) {}

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

    void writeTriangle(const CompactMesh& mesh, int t)
    {
        const bool normals = mesh.getNormalsRaw() != nullptr;
        const bool uvs = mesh.getUVsRaw() != nullptr;
        const int* tri = mesh.getTrianglesRaw() + 3 * std::ptrdiff_t(t);
        m_out.put("f ", 2);
        for (int k = 0; k < 3; ++k)
        {
            const long long i = static_cast<long long>(m_offset) + tri[k] + 1;
            m_out.putInt(i);
            if (normals && uvs)
            {
                m_out.put('/');
                m_out.putInt(i);
                m_out.put('/');
                m_out.putInt(i);
            }
            else if (normals)
            {
                m_out.put("//", 2);
                m_out.putInt(i);
            }
            else if (uvs)
            {
                m_out.put('/');
                m_out.putInt(i);
            }
            else
            {
                // Each index is followed by a blank, and every corner but the last by a
                // second one: "f 1  2  3 ".
                m_out.put(k < 2 ? "  " : " ");
                continue;
            }
            if (k < 2)
                m_out.put(' ');
        }
        m_out.put('\n');
    }

    void finishMesh(const CompactMesh& mesh) { m_offset += unsigned(mesh.getNumVertices()); }

    TextOut& out() { return m_out; }

private:
    void writeTuples(const char* prefix, const float* data, int n, int width)
    {
        const std::size_t prefixLength = std::strlen(prefix);
        for (int i = 0; i < n; ++i)
        {
            m_out.put(prefix, prefixLength);
            for (int k = 0; k < width; ++k)
            {
                if (k)
                    m_out.put(' ');
                m_out.putFloat(data[std::ptrdiff_t(i) * width + k]);
            }
            m_out.put('\n');
        }
    }

    TextOut m_out;
    qyOS::Filename m_file;
    unsigned m_offset = 0;
};

void writeMaterialLibrary(const qyOS::Filename& file, const qy::list<qyUtil::Color>& colors)
{
    TextOut out(file.c_str());
    if (!out.isOpen())
        return;
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
}

} // namespace

bool meshWriteObj(const CompactMesh& mesh, const qyOS::Filename& file)
{
    ObjWriter w(file);
    if (!w.isOpen())
        return false;
    w.writeVertexData(mesh);
    const int n = mesh.getNumTriangles();
    for (int t = 0; t < n; ++t)
        w.writeTriangle(mesh, t);
    w.finishMesh(mesh);
    return true;
}

bool meshWriteObj(const CompactMesh& mesh, const qy::list<qy::Reference<MeshSubset>>& subsets,
                  const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file)
{
    ObjWriter w(file);
    if (!w.isOpen())
        return false;
    const qyOS::Filename library = w.materialFile();
    w.out().put("mtllib ");
    w.out().put(library.getName());
    w.out().put('\n');
    w.writeVertexData(mesh);
    const int nTris = mesh.getNumTriangles();
    int k = 0;
    for (const qy::Reference<MeshSubset>& s : subsets)
    {
        w.out().put("usemtl mat");
        w.out().putInt(k++);
        w.out().put('\n');
        if (!s)
            continue;
        for (const int t : s->triangles())
            if (t >= 0 && t < nTris)
                w.writeTriangle(mesh, t);
    }
    w.finishMesh(mesh);
    writeMaterialLibrary(library, colors);
    return true;
}

void meshWrite(const CompactMesh& mesh, const qyOS::Filename& file)
{
    TextOut out(file.c_str());
    if (!out.isOpen())
        return;
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

void meshRead(CompactMesh& mesh, const qyOS::Filename& file)
{
    std::string text;
    if (!objText::readFile(file.c_str(), text) && text.empty())
        return;
    const char* p = text.data();
    const char* const end = p + text.size();
    // Each number needs at least one byte of the file, so the arrays only grow with data
    // that is there, whatever counts the header claims.
    auto readInt = [&](int& v)
    {
        const char* stop;
        v = objText::parseInt(p, end, &stop);
        const bool ok = stop != p;
        p = stop;
        return ok;
    };
    auto readFloat = [&](float& v)
    {
        const char* stop;
        v = float(objText::parseDouble(p, end, &stop));
        const bool ok = stop != p;
        p = stop;
        return ok;
    };
    int nv = 0, nt = 0;
    if (!readInt(nv) || !readInt(nt))
        nv = nt = 0;
    std::vector<float> xyz;
    bool ok = true;
    for (int i = 0; ok && i < nv; ++i)
    {
        float c[3];
        ok = readFloat(c[0]) && readFloat(c[1]) && readFloat(c[2]);
        if (ok)
            xyz.insert(xyz.end(), c, c + 3);
    }
    const int numVertices = int(xyz.size() / 3);
    std::vector<int> tris;
    for (int t = 0; ok && t < nt; ++t)
    {
        int count, v[3];
        ok = readInt(count) && readInt(v[0]) && readInt(v[1]) && readInt(v[2]);
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
