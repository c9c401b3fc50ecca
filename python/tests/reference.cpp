// The library's own results for the module's tests: reads a mesh in the minimal format, runs
// one algorithm on it directly and prints the result, so that the tests can compare the
// module's answers with the library's.
//
//   reference weld|normals|curvature|flatten|reduce|smooth <mesh.qym> [number]
//
// Meshes print as the minimal format with 9 significant digits (float32 exact); per-vertex
// values print one vertex per line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/Progress.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/Remap.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshCurvature.h"
#include "qyGeom/meshReadWrite.h"
#include "qyGeom/meshReduce.h"
#include "qyGeom/meshSmooth.h"
#include "qyGeom/reparameterizeMesh.h"

namespace
{

void printMesh(const qyGeom::CompactMesh& mesh)
{
    std::printf("%d %d\n", mesh.getNumVertices(), mesh.getNumTriangles());
    const float* v = mesh.getVerticesRaw();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
        std::printf("%.9g %.9g %.9g\n", v[3 * i], v[3 * i + 1], v[3 * i + 2]);
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        std::printf("3 %d %d %d\n", t[3 * i], t[3 * i + 1], t[3 * i + 2]);
}

void printRows(const float* data, int rows, int cols)
{
    for (int i = 0; i < rows; ++i)
        for (int k = 0; k < cols; ++k)
            std::printf(k + 1 < cols ? "%.9g " : "%.9g\n", data[i * cols + k]);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
    {
        std::fprintf(stderr, "usage: reference <command> <mesh.qym> [number]\n");
        return 2;
    }
    const std::string command = argv[1];
    const double number = argc > 3 ? std::atof(argv[3]) : 0.0;
    qyGeom::CompactMesh mesh;
    qyGeom::meshRead(mesh, qyOS::Filename(argv[2]));
    qyUtil::Progress progress;
    if (command == "weld")
    {
        qyGeom::Remap remap;
        qyGeom::meshCompact(mesh, progress, remap);
        printMesh(mesh);
    }
    else if (command == "normals")
    {
        qyGeom::meshComputeNormals(mesh);
        printRows(mesh.getNormalsRaw(), mesh.getNumVertices(), 3);
    }
    else if (command == "curvature")
    {
        qyGeom::MeshAdjTris adjTris;
        qyGeom::MeshAdjVertices adjVertices;
        qyGeom::meshAdjTris(mesh, adjTris);
        qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
        std::vector<float> out(std::size_t(mesh.getNumVertices()));
        qyGeom::meshCurvature(mesh, adjTris, adjVertices, qyLinear::AffineMatrixFlt(),
                              qyGeom::MeshCurvature::Mean, out.data());
        printRows(out.data(), mesh.getNumVertices(), 1);
    }
    else if (command == "flatten")
    {
        qyGeom::reparameterizeMesh flattening(mesh);
        if (!flattening.flatten(progress))
        {
            std::printf("failed: %s\n", flattening.failureReason().c_str());
            return 1;
        }
        printRows(mesh.getUVsRaw(), mesh.getNumVertices(), 2);
    }
    else if (command == "reduce")
    {
        qy::vector<qyLinear::Point> removed;
        qyGeom::meshReduceToFraction(mesh, number, progress, removed);
        printMesh(mesh);
    }
    else if (command == "smooth")
    {
        qyGeom::MeshAdjTris adjTris;
        qyGeom::MeshAdjVertices adjVertices;
        qyGeom::meshAdjTris(mesh, adjTris);
        qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
        mesh.getSelectedVertices().resize(mesh.getNumVertices());
        mesh.getSelectedVertices().setAllBits();
        for (int i = 0; i < int(number); ++i)
            qyGeom::meshSmoothLaplacian(mesh, adjVertices, progress);
        printMesh(mesh);
    }
    else
    {
        std::fprintf(stderr, "unknown command '%s'\n", command.c_str());
        return 2;
    }
    return 0;
}
