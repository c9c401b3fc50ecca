// qygeom: the library's command-line program. Without arguments it runs the demo job on a
// mesh built in the program: vertex and triangle normals and the bounding box, with the
// library's statistics lines shown.
#include "qyGeom/qyGeom.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

namespace
{

using qyGeom::CompactMesh;

// A torus of nu x nv quads split into triangles: closed, genus one, every vertex of
// valence six, so a known answer for each statistic the demo prints.
CompactMesh makeDefaultMesh(int nu, int nv)
{
    const double pi = std::numbers::pi, major = 1.0, minor = 0.35;
    std::vector<qyGeom::MeshVertex> vertices;
    vertices.reserve(std::size_t(nu) * std::size_t(nv));
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            const double u = 2 * pi * i / nu, v = 2 * pi * j / nv;
            const double ring = major + minor * std::cos(v);
            vertices.push_back(
                {float(ring * std::cos(u)), float(ring * std::sin(u)), float(minor * std::sin(v))});
        }
    std::vector<int> triangles;
    triangles.reserve(6 * std::size_t(nu) * std::size_t(nv));
    auto at = [&](int i, int j) { return (i % nu) * nv + (j % nv); };
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
        {
            const int a = at(i, j), b = at(i + 1, j), c = at(i + 1, j + 1), d = at(i, j + 1);
            triangles.insert(triangles.end(), {a, b, c, a, c, d});
        }
    CompactMesh mesh(int(vertices.size()), vertices.data());
    mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
    return mesh;
}

int runDemo()
{
    qyGeom::debugChannel().setEnabled(true);
    qyGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stdout); });

    CompactMesh mesh = makeDefaultMesh(96, 48);
    std::printf("Built the demo mesh: a torus of %d vertices and %d triangles.\n",
                mesh.getNumVertices(), mesh.getNumTriangles());
    std::printf("Thread pool: %d threads.\n\n", qyUtil::ThreadPool::get().getNumThreads());

    int notifications = 0;
    qyRTB::ScopedConnection counter = mesh.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification&) { ++notifications; });

    qyGeom::meshComputeNormals(mesh);
    qyGeom::meshComputeTriangleNormals(mesh);
    qyGeom::BoundingBox box;
    qyGeom::meshBoundingBox(mesh, box);

    // Every normal of a torus points away from the core circle: count those that do.
    const qyGeom::MeshVertex* v = mesh.getVertices();
    const qyGeom::MeshNormal* n = mesh.getNormals();
    int outward = 0;
    double worstLength = 0.0;
    for (int i = 0; i < mesh.getNumVertices(); ++i)
    {
        const double r = std::hypot(v[i].x, v[i].y);
        const qyLinear::Vector fromCore(v[i].x - v[i].x / r, v[i].y - v[i].y / r, v[i].z);
        outward += qyLinear::dot(fromCore, n[i].asVector()) > 0 ? 1 : 0;
        worstLength = std::max(worstLength, std::abs(n[i].asVector().length() - 1.0));
    }

    std::printf("\nVertex normals: %d of %d point outward, computed flag %s, "
                "largest deviation from unit length %.2g.\n",
                outward, mesh.getNumVertices(), mesh.getNormalsComputed() ? "set" : "clear",
                worstLength);
    std::printf("Triangle normals: %s.\n", mesh.getTriangleNormals() ? "present" : "absent");
    std::printf("Bounding box: (%.4f, %.4f, %.4f) to (%.4f, %.4f, %.4f).\n", box.minPt().x,
                box.minPt().y, box.minPt().z, box.maxPt().x, box.maxPt().y, box.maxPt().z);
    std::printf("Notifications sent to the mesh: %d.\n", notifications);
    qyGeom::debugChannel().setSink({});
    return outward == mesh.getNumVertices() ? 0 : 1;
}

void printUsage(std::FILE* out)
{
    std::fputs("usage: qygeom [--threads N] [--help]\n"
               "\n"
               "Without a command, runs the demo: builds a torus, computes its vertex and\n"
               "triangle normals and its bounding box, and prints the library's statistics.\n"
               "\n"
               "options:\n"
               "  --threads N  size of the thread pool (default: QYGEOM_THREADS or all cores)\n"
               "  --help       this text\n",
               out);
}

} // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h"))
        {
            printUsage(stdout);
            return 0;
        }
        if (!std::strcmp(argv[i], "--threads") && i + 1 < argc)
        {
            char* end = nullptr;
            const long n = std::strtol(argv[++i], &end, 10);
            if (end == argv[i] || *end || n < 1 || n > 1024)
            {
                std::fprintf(stderr, "qygeom: --threads needs a number from 1 to 1024\n");
                return 2;
            }
            qyUtil::ThreadPool::get().setNumThreads(int(n));
            continue;
        }
        std::fprintf(stderr, "qygeom: unknown argument '%s' (see qygeom --help)\n", argv[i]);
        return 2;
    }
    return runDemo();
}
