#include "io/detail/MeshFormat.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "io/detail/text.h"
#include "model/CompactMesh.h"

namespace qyGeom::detail
{

namespace
{

std::string vformat(const char* fmt, va_list args)
{
    char buffer[512];
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    return buffer;
}

} // namespace

ReadFailure::ReadFailure(const qyOS::Filename& file)
{
    m_name.reserve(std::strlen(file.c_str()) + 2);
    m_name += '\'';
    m_name += file.c_str();
    m_name += '\'';
}

void ReadFailure::atLine(int line, const char* fmt, ...) const
{
    va_list args;
    va_start(args, fmt);
    const std::string what = vformat(fmt, args);
    va_end(args);
    throw qyUtil::Error(2, "cannot read %s: line %d: %s", m_name.c_str(), line, what.c_str());
}

void ReadFailure::fail(const char* fmt, ...) const
{
    va_list args;
    va_start(args, fmt);
    const std::string what = vformat(fmt, args);
    va_end(args);
    throw qyUtil::Error(2, "cannot read %s: %s", m_name.c_str(), what.c_str());
}

void ReadFailure::cannotRead(int error) const
{
    throw qyUtil::Error(1, "cannot read %s: %s", m_name.c_str(), std::strerror(error));
}

void readWholeFile(const qyOS::Filename& file, TextSource::Whole& out, const ReadFailure& failure)
{
    TextSource source;
    errno = 0;
    if (!source.open(file.c_str(), TextSource::Files::RegularOnly))
        failure.cannotRead(errno ? errno : EINVAL);
    if (!source.readAll(out))
        failure.cannotRead(errno ? errno : EIO);
}

bool Words::number(float& v)
{
    std::string_view w;
    if (!next(w))
        return false;
    const char* const end = w.data() + w.size();
    return scanFloat(w.data(), end, v) == end;
}

bool Words::integer(long long& v)
{
    std::string_view w;
    if (!next(w))
        return false;
    const char* p = w.data();
    const char* const end = p + w.size();
    if (p < end && *p == '+')
        ++p;
    const std::from_chars_result r = std::from_chars(p, end, v);
    return r.ec == std::errc() && r.ptr == end;
}

bool Words::channel(float& v)
{
    std::string_view w;
    if (!next(w))
        return false;
    const char* const end = w.data() + w.size();
    if (scanFloat(w.data(), end, v) != end)
        return false;
    // An integer channel counts to 255, a real one to 1.
    if (w.find_first_of(".eEnN") == std::string_view::npos)
        v /= 255.0f;
    return true;
}

void MeshArrays::build(CompactMesh& mesh) const
{
    const int nv = numVertices();
    CompactMesh built(
        nv, reinterpret_cast<const MeshVertex*>(xyz.data()),
        normals.empty() ? nullptr : reinterpret_cast<const MeshNormal*>(normals.data()),
        uvs.empty() ? nullptr : reinterpret_cast<const MeshUV*>(uvs.data()),
        colours.empty() ? nullptr : reinterpret_cast<const MeshColour*>(colours.data()));
    if (!polygons)
        built.copyTriangles(int(corners.size() / 3), corners.data());
    else
    {
        built.resizePolyArrays(int(lengths.size()), int(corners.size()));
        std::memcpy(built.getPolyLengths(), lengths.data(), lengths.size() * sizeof(int));
        std::memcpy(built.getPolyPoints(), corners.data(), corners.size() * sizeof(int));
    }
    mesh = std::move(built);
}

MeshFaces::MeshFaces(const CompactMesh& mesh)
    : m_triangles(mesh.getTrianglesRaw()), m_polyLengths(mesh.getPolyLengths()),
      m_polyPoints(mesh.getPolyPoints()), m_numTriangles(mesh.getNumTriangles()),
      m_numPolys(mesh.getNumPolys())
{
    for (int p = 0; p < m_numPolys; ++p)
        m_maxCorners = std::max(m_maxCorners, m_polyLengths[p]);
}

} // namespace qyGeom::detail
