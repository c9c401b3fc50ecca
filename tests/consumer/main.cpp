// Builds one triangle through the installed headers and library and checks its normal.
#include <cstdio>
#include <qyGeom/qyGeom.h>

int main()
{
    const qyGeom::MeshVertex v[3] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    const int t[3] = {0, 1, 2};
    qyGeom::CompactMesh mesh(3, v);
    mesh.copyTriangles(1, t);
    qyGeom::meshComputeNormals(mesh);
    const bool ok = mesh.getNormals()[0].z == 1.0f;
    std::printf("installed package: %s\n", ok ? "ok" : "wrong normal");
    return ok ? 0 : 1;
}
