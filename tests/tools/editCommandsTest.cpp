// Drives qygeom's editing commands and ray queries end to end on small meshes written here:
// subdivide, smooth, orient, reduce and raycast, their reports, their outputs and their refusals.
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshClosestPoint.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshWriteObj.h"
#include "runQygeom.h"
#include "testMeshes.h"

namespace
{

namespace fs = std::filesystem;
using namespace qyToolTest;

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The lines of an OBJ text that start with `keyword` and a space, split into words.
std::vector<std::vector<std::string>> statements(const std::string& text,
                                                 const std::string& keyword)
{
    std::vector<std::vector<std::string>> found;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(keyword + " "))
        {
            std::istringstream words(line.substr(keyword.size() + 1));
            found.emplace_back();
            for (std::string w; words >> w;)
                found.back().push_back(w);
        }
    return found;
}

std::vector<std::array<double, 3>> vertices(const std::string& obj)
{
    std::vector<std::array<double, 3>> out;
    for (const auto& v : statements(obj, "v"))
        out.push_back({std::stod(v[0]), std::stod(v[1]), std::stod(v[2])});
    return out;
}

// Root mean square of the vertices' z.
double rmsHeight(const std::string& obj)
{
    double sum = 0;
    const auto v = vertices(obj);
    for (const auto& p : v)
        sum += p[2] * p[2];
    return std::sqrt(sum / double(v.size()));
}

// A grid of n x n unit quads in the plane z = 0, with a material per half and, with `noise`,
// every vertex lifted by a fixed pseudo-random height in [-noise, noise].
std::string quadGrid(int n, double noise)
{
    std::ostringstream obj;
    unsigned seed = 12345;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
        {
            seed = seed * 1103515245u + 12345u;
            const double z = noise * (double((seed >> 8) % 2001) / 1000.0 - 1.0);
            obj << "v " << i << ' ' << j << ' ' << z << "\n";
        }
    for (int j = 0; j < n; ++j)
    {
        if (j == 0 || j == n / 2)
            obj << "usemtl " << (j == 0 ? "a" : "b") << "\n";
        for (int i = 0; i < n; ++i)
        {
            const int a = j * (n + 1) + i + 1;
            obj << "f " << a << ' ' << a + 1 << ' ' << a + n + 2 << ' ' << a + n + 1 << "\n";
        }
    }
    return obj.str();
}

class QygeomEdit : public ScratchFolderTest
{
protected:
    void write(const std::string& name, const std::string& text)
    {
        std::ofstream(dir / name) << text;
    }
    void write(const std::string& name, const qyGeom::CompactMesh& mesh)
    {
        ASSERT_TRUE(qyGeom::meshWriteObj(mesh, (dir / name).string().c_str()));
    }
};

} // namespace

TEST_F(QygeomEdit, SubdivideWritesQuadsMovesCornersByTheRulesAndCarriesUvsAndMaterials)
{
    // One textured quad: four quads, nine vertices; a corner of valence 2 on the boundary
    // moves to E1/8 + E2/8 + 3S/4, and the texture coordinates split at the midpoints.
    write("quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                      "usemtl red\nf 1/1 2/2 3/3 4/4\n");
    Outcome r = run(dir, {"subdivide", "quad.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(has(r.out, "4 vertices, 1 faces before; 9 vertices, 4 quads after")) << r.out;
    std::string out = slurp(dir / "out.obj");
    const auto quadVertices = vertices(out);
    EXPECT_EQ(quadVertices.size(), 9u);
    EXPECT_NE(
        std::find(quadVertices.begin(), quadVertices.end(), std::array<double, 3>{0.125, 0.125, 0}),
        quadVertices.end());
    std::set<std::pair<std::string, std::string>> uvs;
    for (const auto& vt : statements(out, "vt"))
        uvs.emplace(vt[0], vt[1]);
    EXPECT_EQ(uvs.size(), 9u);
    EXPECT_EQ(uvs.count({"0.5", "0.5"}), 1u);
    // One and two levels: quads whose texture corners tile the unit square in quarters and
    // sixteenths, each counter-clockwise like its face.
    for (int levels = 1; levels <= 2; ++levels)
    {
        SCOPED_TRACE(levels);
        r = run(dir, {"subdivide", "quad.obj", "out.obj", "--levels", std::to_string(levels)});
        ASSERT_EQ(r.status, 0) << r.err;
        out = slurp(dir / "out.obj");
        const auto vt = statements(out, "vt");
        const auto faces = statements(out, "f");
        EXPECT_EQ(faces.size(), levels == 1 ? 4u : 16u);
        EXPECT_EQ(statements(out, "usemtl").size(), 1u);
        for (const auto& f : faces)
        {
            ASSERT_EQ(f.size(), 4u);
            const auto uvOf = [&](const std::string& corner)
            {
                const std::size_t slash = corner.find('/');
                EXPECT_NE(slash, std::string::npos) << corner;
                const auto& t = vt[std::stoul(corner.substr(slash + 1)) - 1];
                return std::array<double, 2>{std::stod(t[0]), std::stod(t[1])};
            };
            double area = 0;
            for (std::size_t k = 0; k < 4; ++k)
            {
                const auto a = uvOf(f[k]), b = uvOf(f[(k + 1) % 4]);
                area += 0.5 * (a[0] * b[1] - b[0] * a[1]);
            }
            EXPECT_EQ(area, levels == 1 ? 0.25 : 1.0 / 16.0);
        }
    }

    // A closed cube of quads: 24 quads after one level, 96 after two; a triangle mesh
    // becomes all quads.
    write("cube.obj", "v -1 -1 -1\nv 1 -1 -1\nv 1 1 -1\nv -1 1 -1\nv -1 -1 1\nv 1 -1 1\n"
                      "v 1 1 1\nv -1 1 1\nvn 0 0 1\n"
                      "f 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n");
    r = run(dir, {"subdivide", "cube.obj", "out.obj", "--levels", "2"});
    ASSERT_EQ(r.status, 0) << r.err;
    out = slurp(dir / "out.obj");
    EXPECT_EQ(statements(out, "f").size(), 96u);
    EXPECT_EQ(vertices(out).size(), 98u);
    EXPECT_EQ(statements(out, "vn").size(), 98u); // normals of the new surface
    EXPECT_TRUE(has(r.out, "normals recomputed")) << r.out;

    write("ball.obj", qyTest::makeIcosphere(1));
    r = run(dir, {"subdivide", "ball.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    out = slurp(dir / "out.obj");
    EXPECT_EQ(statements(out, "f").size(), 3u * 80u);
    for (const auto& f : statements(out, "f"))
        EXPECT_EQ(f.size(), 4u);

    // A keyhole polygon passes through two positions twice; it is subdivided whole, one quad
    // per corner.
    write("keyhole.obj", "v 0 0 0\nv 3 0 0\nv 3 3 0\nv 0 3 0\nv 1 1 0\nv 2 1 0\nv 2 2 0\n"
                         "v 1 2 0\nv 0 0 0\nv 1 1 0\nf 1 2 3 4 9 5 8 7 6 10\n");
    r = run(dir, {"subdivide", "keyhole.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(has(r.out, "2 face corners repeat a position of the same face")) << r.out;
    EXPECT_TRUE(has(r.out, "10 vertices, 1 faces before; 21 vertices, 10 quads after")) << r.out;

    // A triangle soup is one surface once its coincident corners are joined.
    write("soup.obj", qyTest::makeTriangleSoup(qyTest::makeCube()));
    r = run(dir, {"subdivide", "soup.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "36 vertices, 12 faces before; 38 vertices, 36 quads after")) << r.out;

    for (const char* bad : {"0", "11", "two"})
    {
        r = run(dir, {"subdivide", "cube.obj", "bad.obj", "--levels", bad});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_TRUE(has(r.err, "--levels needs a whole number from 1 to 10")) << r.err;
    }
    EXPECT_FALSE(fs::exists(dir / "bad.obj"));
}

TEST_F(QygeomEdit, SmoothingBringsANoisyPlaneCloserToThePlaneAndKeepsTheFaces)
{
    write("noisy.obj", quadGrid(16, 0.1));
    const double before = rmsHeight(slurp(dir / "noisy.obj"));
    ASSERT_GT(before, 0.03);
    for (const std::vector<std::string>& filter :
         {std::vector<std::string>{"--laplacian", "--iterations", "3"},
          std::vector<std::string>{"--bilateral", "2", "--iterations", "3"}})
    {
        SCOPED_TRACE(filter[0]);
        std::vector<std::string> args{"smooth", "noisy.obj", "out.obj"};
        args.insert(args.end(), filter.begin(), filter.end());
        const Outcome r = run(dir, args);
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_TRUE(has(r.out, "moved 289 of 289 vertices")) << r.out;
        const std::string out = slurp(dir / "out.obj");
        EXPECT_LT(rmsHeight(out), 0.5 * before);
        // Still the same quads with their materials.
        EXPECT_EQ(statements(out, "f").size(), 256u);
        for (const auto& f : statements(out, "f"))
            EXPECT_EQ(f.size(), 4u);
        EXPECT_EQ(statements(out, "usemtl").size(), 2u);
    }

    // A flat plane stays put under the bilateral filter, and a sigma below every edge finds
    // no neighbour: the report says nothing moved.
    write("flat.obj", quadGrid(4, 0));
    Outcome r = run(dir, {"smooth", "flat.obj", "out.obj", "--bilateral", "0.5"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "moved 0 of 25 vertices")) << r.out;
    EXPECT_TRUE(has(r.out, "no vertex moved")) << r.out;

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{}, std::vector<std::string>{"--laplacian", "--bilateral", "1"},
          std::vector<std::string>{"--bilateral", "-1"},
          std::vector<std::string>{"--bilateral", "nan"},
          std::vector<std::string>{"--laplacian", "--iterations", "0"}})
    {
        std::vector<std::string> args{"smooth", "noisy.obj", "bad.obj"};
        args.insert(args.end(), bad.begin(), bad.end());
        r = run(dir, args);
        EXPECT_EQ(r.status, 2) << r.err;
    }
    EXPECT_FALSE(fs::exists(dir / "bad.obj"));

    // Ctrl-C while smoothing: status 130, nothing written.
    write("big.obj", qyTest::makeGrid(200, 200));
    r = run(dir,
            {"--verbose", "smooth", "big.obj", "big-out.obj", "--bilateral", "3", "--iterations",
             "200"},
            interruptWhenStderrHas("meshCompact:"));
    EXPECT_EQ(r.status, 130) << r.err;
    EXPECT_TRUE(has(r.err, "cancelled; no output written")) << r.err;
    EXPECT_FALSE(fs::exists(dir / "big-out.obj"));
}

TEST_F(QygeomEdit, OrientFixesTheWindingCountsFlipsAndFindsAMoebiusBandNonOrientable)
{
    // A grid with every third triangle turned over.
    qyGeom::CompactMesh grid = qyTest::makeGrid(6, 6);
    int turned = 0;
    int* t = grid.getTrianglesRaw();
    for (int i = 3; i < grid.getNumTriangles(); i += 3, ++turned)
        std::swap(t[3 * i + 1], t[3 * i + 2]);
    write("grid.obj", grid);
    Outcome r = run(dir, {"orient", "grid.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "orientable: yes\n")) << r.out;
    EXPECT_TRUE(has(r.out, "flipped " + std::to_string(turned) + " of 72 triangles (" +
                               std::to_string(turned) + " faces)"))
        << r.out;
    qyGeom::CompactMesh result;
    ASSERT_TRUE(qyGeom::meshReadObj(result, qyOS::Filename((dir / "out.obj").c_str())));
    qyGeom::MeshAdjTris adj;
    qyGeom::meshAdjTris(result, adj);
    EXPECT_TRUE(qyGeom::meshOriented(result, adj));

    r = run(dir, {"orient", "out.obj", "again.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "already consistently oriented")) << r.out;

    // A closed surface turned inside out is turned back to face outward.
    const qyGeom::CompactMesh ball = qyTest::makeIcosphere(1);
    qyGeom::CompactMesh inside = ball;
    int* in = inside.getTrianglesRaw();
    for (int i = 0; i < inside.getNumTriangles(); ++i)
        std::swap(in[3 * i + 1], in[3 * i + 2]);
    write("inside.obj", inside);
    write("ball.obj", ball);
    r = run(dir, {"orient", "inside.obj", "out.obj"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "flipped 80 of 80 triangles (80 faces)")) << r.out;
    EXPECT_TRUE(has(r.out, "1 closed piece faced inward and was turned to face outward\n"))
        << r.out;
    EXPECT_EQ(statements(slurp(dir / "out.obj"), "f"), statements(slurp(dir / "ball.obj"), "f"));

    // --reverse turns every face, keeping its first corner, and negates the normals.
    write("tri.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nvn 0 0 1\n"
                     "f 1//1 2//1 4//1 3//1\n");
    r = run(dir, {"orient", "tri.obj", "out.obj", "--reverse"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string reversed = slurp(dir / "out.obj");
    EXPECT_TRUE(has(reversed, "f 1//1 3//1 4//1 2//1\n")) << reversed;
    EXPECT_TRUE(has(reversed, "vn 0 0 -1\n")) << reversed;

    // A Moebius band beside an inconsistent grid: the grid is fixed, the band is written
    // as it was, and the run says so with status 3.
    qyGeom::CompactMesh band = qyTest::makeMoebiusBand(8);
    std::vector<float> xyz(band.getVerticesRaw(),
                           band.getVerticesRaw() + 3 * band.getNumVertices());
    std::vector<int> tris(band.getTrianglesRaw(),
                          band.getTrianglesRaw() + 3 * band.getNumTriangles());
    const int offset = band.getNumVertices();
    for (int v = 0; v < grid.getNumVertices(); ++v)
        xyz.insert(xyz.end(), {grid.getVerticesRaw()[3 * v] + 10.0f,
                               grid.getVerticesRaw()[3 * v + 1], grid.getVerticesRaw()[3 * v + 2]});
    for (int i = 0; i < 3 * grid.getNumTriangles(); ++i)
        tris.push_back(t[i] + offset);
    write("both.obj", qyTest::makeMesh(xyz, tris));
    r = run(dir, {"orient", "both.obj", "out.obj"});
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_TRUE(has(r.out, "orientable: no\n")) << r.out;
    EXPECT_TRUE(has(r.out, "flipped " + std::to_string(turned) + " of 88 triangles")) << r.out;
    EXPECT_EQ(r.err, "qygeom orient: warning: 1 of 2 pieces (16 triangles) cannot be given one "
                     "consistent winding (a Moebius band or a non-manifold edge); they are "
                     "written as they were\n");
    const std::string out = slurp(dir / "out.obj");
    const auto faces = statements(out, "f");
    ASSERT_EQ(faces.size(), 88u);
    for (int i = 0; i < band.getNumTriangles(); ++i)
        EXPECT_EQ(faces[std::size_t(i)],
                  (std::vector<std::string>{std::to_string(tris[3 * i] + 1),
                                            std::to_string(tris[3 * i + 1] + 1),
                                            std::to_string(tris[3 * i + 2] + 1)}));
}

TEST_F(QygeomEdit, RaycastPrintsTheNearestHitOfEachRayCheckedByHand)
{
    // Face 1: the unit square at z = 0 facing +z; face 2: a triangle at z = 1 over its lower
    // left half, also facing +z.
    write("two.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 0 0 1\nv 1 0 1\nv 0 1 1\n"
                     "f 1 2 3 4\nf 5 6 7\n");
    Outcome r = run(dir, {"raycast", "two.obj", "--from", "0.25,0.25,5", "--dir", "0,0,-2"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "1 hit 4 0.25 0.25 1 2 front\n");
    EXPECT_EQ(r.err, "");

    // Many rays, from a file or standard input: numbered by their line; from below the
    // square is seen from its back; a ray that passes by misses.
    const std::string rays = "# x y z dx dy dz\n"
                             "0.75 0.75 5 0 0 -1\n"
                             "\n"
                             "0.25,0.25,-1, 0,0,1\n"
                             "3 3 3 0 0 -1\n";
    write("rays.txt", rays);
    const std::string expected = "2 hit 5 0.75 0.75 0 1 front\n"
                                 "4 hit 1 0.25 0.25 0 1 back\n"
                                 "5 miss\n";
    r = run(dir, {"raycast", "two.obj", "--rays", "rays.txt"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, expected);
    r = run(dir, {"raycast", "two.obj", "--rays", "-"}, withInput(rays));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, expected);

    // A bad ray line stops the run before anything is printed; so do bad options.
    write("bad.txt", "0 0 5 0 0 -1\n0 0 5 0 0\n");
    r = run(dir, {"raycast", "two.obj", "--rays", "bad.txt"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "qygeom raycast: bad.txt: line 2: a ray is six finite numbers X Y Z DX DY "
                     "DZ\n");
    write("zero.txt", "0 0 5 0 0 0\n");
    r = run(dir, {"raycast", "two.obj", "--rays", "zero.txt"});
    EXPECT_EQ(r.err, "qygeom raycast: zero.txt: line 1: the direction has no length\n");
    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--from", "0,0,1"},
          std::vector<std::string>{"--from", "0,0", "--dir", "0,0,1"},
          std::vector<std::string>{"--from", "0,0,1", "--dir", "0,0,0"},
          std::vector<std::string>{"--from", "0,0,1", "--dir", "0,0,1", "--rays", "rays.txt"}})
    {
        std::vector<std::string> args{"raycast", "two.obj"};
        args.insert(args.end(), bad.begin(), bad.end());
        r = run(dir, args);
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(QygeomEdit, ReduceCountsBeforeAndAfterAndKeepsRemovedVerticesWithinTheTolerance)
{
    // Every input vertex lies within the tolerance of the reduced surface, as measured here
    // independently of the program's own report; boundary vertices all stay.
    const qyGeom::CompactMesh cap = qyTest::makeHemisphere(12, 32);
    write("cap.obj", cap);
    Outcome r = run(dir, {"reduce", "cap.obj", "out.obj", "--tolerance", "0.01"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    qyGeom::CompactMesh reduced;
    ASSERT_TRUE(qyGeom::meshReadObj(reduced, qyOS::Filename((dir / "out.obj").c_str())));
    EXPECT_LT(reduced.getNumVertices(), cap.getNumVertices() * 3 / 4);
    EXPECT_TRUE(has(r.out, "reduced " + std::to_string(cap.getNumVertices()) + " vertices, " +
                               std::to_string(cap.getNumTriangles()) + " triangles to " +
                               std::to_string(reduced.getNumVertices()) + " vertices, " +
                               std::to_string(reduced.getNumTriangles()) + " triangles"))
        << r.out;
    qyGeom::SimpleMeshCache cache;
    double largest = 0;
    for (int v = 0; v < cap.getNumVertices(); ++v)
    {
        qyGeom::MeshClosestPointResult found;
        ASSERT_TRUE(
            qyGeom::meshClosestPoint(reduced, cache, cap.getVertices()[v].asPoint(), found));
        largest = std::max(largest, found.distance);
    }
    EXPECT_LE(largest, 0.01);
    EXPECT_GT(largest, 0.0);
    const std::size_t at = r.out.find("the removed vertices lie within ");
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NEAR(std::stod(r.out.substr(at + 32)), largest, 1e-6);
    qyGeom::MeshAdjTris adj;
    qyGeom::meshAdjTris(reduced, adj);
    EXPECT_TRUE(qyGeom::meshOriented(reduced, adj));

    // To a fraction: a closed sphere keeps the share asked for, all triangles.
    write("ball.obj", qyTest::makeIcosphere(3));
    r = run(dir, {"reduce", "ball.obj", "out.obj", "--fraction", "0.25"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "reduced 642 vertices, 1280 triangles to 160 vertices, 316 triangles "
                           "(482 vertices removed)"))
        << r.out;
    EXPECT_EQ(statements(slurp(dir / "out.obj"), "f").size(), 316u);

    // A surface whose triangles disagree in winding is given one first.
    qyGeom::CompactMesh mixed = qyTest::makeIcosphere(2);
    int* t = mixed.getTrianglesRaw();
    for (int i = 1; i < mixed.getNumTriangles(); i += 3)
        std::swap(t[3 * i + 1], t[3 * i + 2]);
    write("mixed.obj", mixed);
    r = run(dir, {"reduce", "mixed.obj", "out.obj", "--fraction", "0.5"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, "turned triangles to give the surface one consistent winding\n"))
        << r.out;
    EXPECT_TRUE(has(r.out, "reduced 162 vertices, 320 triangles to 81 vertices, 158 triangles"))
        << r.out;

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{}, std::vector<std::string>{"--fraction", "1.5"},
          std::vector<std::string>{"--tolerance", "-1"},
          std::vector<std::string>{"--fraction", "0.5", "--tolerance", "1"}})
    {
        std::vector<std::string> args{"reduce", "ball.obj", "bad.obj"};
        args.insert(args.end(), bad.begin(), bad.end());
        EXPECT_EQ(run(dir, args).status, 2);
    }
    EXPECT_FALSE(fs::exists(dir / "bad.obj"));
}
