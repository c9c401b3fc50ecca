// Fuzz target: the strict OBJ parser, through a file, and the mesh pipeline on what it parsed.
#include <vector>

#include "fuzzPipeline.h"
#include "fuzzSupport.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/polygonTriangulate.h"

namespace
{

// The parsed file as one mesh: a vertex per `v` statement, a triangle per triangular face,
// polygons cut into triangles by polygonTriangulate. When the file has normals or texture
// coordinates, each vertex takes those of the last corner that names it (the normals are
// explicit, so the weld compares them and the UVs too).
qyGeom::CompactMesh toMesh(const qyGeom::MeshObjFile& file)
{
    std::vector<qyGeom::MeshVertex> vertices(file.vertices.size());
    for (std::size_t i = 0; i < vertices.size(); ++i)
        vertices[i].set(file.vertices[i].x, file.vertices[i].y, file.vertices[i].z);
    qyGeom::CompactMesh mesh(int(vertices.size()), vertices.data());
    if (!file.normals.empty())
        mesh.allocNormalArray();
    if (!file.texCoords.empty())
        mesh.allocUVArray();
    std::vector<int> triangles, polygon;
    std::vector<qyLinear::Point> points;
    for (const auto& group : file.groups)
        for (int f = 0; f < group->getNumFaces(); ++f)
        {
            const int n = group->getFaceSize(f);
            const qyGeom::MeshObjCorner* corners = group->getFaceCorners(f);
            for (int k = 0; k < n; ++k)
            {
                const qyGeom::MeshObjCorner& c = corners[k];
                if (c.normal >= 0 && mesh.getNormals())
                {
                    const qyLinear::VectorFlt& normal = file.normals[std::size_t(c.normal)];
                    mesh.getNormals()[c.vertex].set(normal.x, normal.y, normal.z);
                }
                if (c.texCoord >= 0 && mesh.getUVs())
                {
                    const qyLinear::Point2Flt& uv = file.texCoords[std::size_t(c.texCoord)];
                    mesh.getUVs()[c.vertex].set(uv.x, uv.y);
                }
            }
            if (n == 3)
            {
                for (int k = 0; k < 3; ++k)
                    triangles.push_back(corners[k].vertex);
                continue;
            }
            points.clear();
            for (int k = 0; k < n; ++k)
                points.emplace_back(file.vertices[std::size_t(corners[k].vertex)]);
            const int count = qyGeom::polygonTriangulate(n, points.data(), polygon);
            QYFUZZ_CHECK(count == n - 2 && int(polygon.size()) == 3 * count);
            for (const int k : polygon)
            {
                QYFUZZ_CHECK(k >= 0 && k < n);
                triangles.push_back(corners[k].vertex);
            }
        }
    mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
    return mesh;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = qyFuzz::writeTempFile(data, size, "obj");
    auto file = qy::makeReference<qyGeom::MeshObjFile>();
    const qyUtil::Error e = qyGeom::meshReadObj2(path, file);
    // Every resolved index must lie inside its list.
    for (const auto& g : file->groups)
        for (const qyGeom::MeshObjCorner& c : g->getCorners())
            if (c.vertex < 0 || std::size_t(c.vertex) >= file->vertices.size() ||
                c.texCoord >= int(file->texCoords.size()) || c.normal >= int(file->normals.size()))
                __builtin_trap();
    (void)e;
    qyFuzz::runMeshPipeline(toMesh(*file));
    return 0;
}
