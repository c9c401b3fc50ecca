// qygeom: the library's command-line program. Without arguments it runs the demo job on a
// mesh built in the program: welding a triangle soup, normals, bounding box, adjacency,
// boundaries, components and octrees, with the library's statistics lines shown.
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

// Every triangle with its own three corners: what a naive exporter writes.
CompactMesh makeSoup(const CompactMesh& mesh)
{
    const qyGeom::MeshVertex* v = mesh.getVertices();
    const qyGeom::MeshTriangle* t = mesh.getTriangles();
    std::vector<qyGeom::MeshVertex> corners;
    corners.reserve(3 * std::size_t(mesh.getNumTriangles()));
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        for (int k = 0; k < 3; ++k)
            corners.push_back(v[t[i].v[k]]);
    std::vector<int> indices(corners.size());
    for (std::size_t i = 0; i < indices.size(); ++i)
        indices[i] = int(i);
    CompactMesh soup(int(corners.size()), corners.data());
    soup.copyTriangles(mesh.getNumTriangles(), indices.data());
    return soup;
}

int runDemo()
{
    qyGeom::debugChannel().setEnabled(true);
    qyGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stdout); });

    const CompactMesh torus = makeDefaultMesh(96, 48);
    CompactMesh mesh = makeSoup(torus);
    std::printf("Built the demo mesh: a torus of %d triangles as a soup of %d vertices.\n",
                mesh.getNumTriangles(), mesh.getNumVertices());
    std::printf("Thread pool: %d threads.\n\n", qyUtil::ThreadPool::get().getNumThreads());

    int notifications = 0;
    qyRTB::ScopedConnection counter = mesh.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification&) { ++notifications; });

    qyUtil::Progress progress;
    qyGeom::Remap remap;
    qyGeom::meshCompact(mesh, progress, remap);
    qyGeom::meshComputeNormals(mesh);
    qyGeom::meshComputeTriangleNormals(mesh);
    qyGeom::BoundingBox box;
    qyGeom::meshBoundingBox(mesh, box);

    // Derived structures come from a cache, as the library's own algorithms fetch them.
    qyGeom::SimpleMeshCache cache;
    const auto adjTris = cache.getAdjTris(mesh);
    const auto adjVertices = cache.getAdjVertices(mesh);
    const auto boundaries = cache.getBoundaries(mesh);
    const int components = qyGeom::meshComponents(mesh, *adjTris, nullptr);
    const auto octree = cache.getOctree(mesh, -1);
    const auto octreeTris = cache.getOctreeTris(mesh);

    // Every normal of a torus points away from the core circle: count those that do.
    const qyGeom::MeshVertex* v = mesh.getVertices();
    const qyGeom::MeshNormal* n = mesh.getNormals();
    int outward = 0;
    double worstLength = 0.0;
    long long halfEdges = 0;
    for (int i = 0; i < mesh.getNumVertices(); ++i)
    {
        const double r = std::hypot(v[i].x, v[i].y);
        const qyLinear::Vector fromCore(v[i].x - v[i].x / r, v[i].y - v[i].y / r, v[i].z);
        outward += qyLinear::dot(fromCore, n[i].asVector()) > 0 ? 1 : 0;
        worstLength = std::max(worstLength, std::abs(n[i].asVector().length() - 1.0));
        halfEdges += adjVertices->numVertices(i);
    }
    const long long euler = mesh.getNumVertices() - halfEdges / 2 + mesh.getNumTriangles();

    std::printf("\nWelded: %d vertices (the torus has %d), remap of %d entries onto %d.\n",
                mesh.getNumVertices(), torus.getNumVertices(), remap.getDomainSize(),
                remap.getRangeSize());
    std::printf("Vertex normals: %d of %d point outward, computed flag %s, "
                "largest deviation from unit length %.2g.\n",
                outward, mesh.getNumVertices(), mesh.getNormalsComputed() ? "set" : "clear",
                worstLength);
    std::printf("Triangle normals: %s.\n", mesh.getTriangleNormals() ? "present" : "absent");
    std::printf("Bounding box: (%.4f, %.4f, %.4f) to (%.4f, %.4f, %.4f).\n", box.minPt().x,
                box.minPt().y, box.minPt().z, box.maxPt().x, box.maxPt().y, box.maxPt().z);
    std::printf("Topology: %lld edges, %d boundary loops, %d component(s), Euler characteristic "
                "%lld (genus %lld), largest valence %d.\n",
                halfEdges / 2, boundaries->size(), components, euler, (2 - euler) / 2,
                adjVertices->getMaxValence());
    std::printf("Octree: %d voxels, %.2f voxels per triangle.\n", octree->getNumVoxels(),
                double(octreeTris->getData().getTotalSize()) / mesh.getNumTriangles());
    std::printf("Notifications sent to the mesh: %d.\n", notifications);
    qyGeom::debugChannel().setSink({});
    const bool ok = outward == mesh.getNumVertices() &&
                    mesh.getNumVertices() == torus.getNumVertices() && euler == 0 &&
                    boundaries->size() == 0 && components == 1;
    return ok ? 0 : 1;
}

void printUsage(std::FILE* out)
{
    std::fputs("usage: qygeom [--threads N] [--help]\n"
               "\n"
               "Without a command, runs the demo: welds a torus written as a triangle soup,\n"
               "computes its normals, bounding box, adjacency, boundaries, components and\n"
               "octree, and prints the library's statistics.\n"
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
