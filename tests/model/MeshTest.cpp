#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyGeom::MeshRemap;
using qyGeom::PointMesh;
using qyGeom::Remap;

namespace
{

std::vector<int> setBits(const qyGeom::BitVector& bits)
{
    std::vector<int> out;
    for (qyGeom::BitIterator it(bits); it.valid(); it.next())
        out.push_back(it.index());
    return out;
}

// Every index array of the faces: triangles, then lengths and points of strips, fans, line
// strips and polygons, then the lines.
std::vector<std::vector<int>> faceIndexArrays(const CompactMesh& m)
{
    const auto ints = [](const int* p, int n)
    { return n > 0 ? std::vector<int>(p, p + n) : std::vector<int>(); };
    return {ints(m.getTrianglesRaw(), 3 * m.getNumTriangles()),
            ints(m.getTriStripLengths(), m.getNumTriStrips()),
            ints(m.getTriStripPoints(), m.getNumTriStripPoints()),
            ints(m.getTriFanLengths(), m.getNumTriFans()),
            ints(m.getTriFanPoints(), m.getNumTriFanPoints()),
            ints(m.getLineStripLengths(), m.getNumLineStrips()),
            ints(m.getLineStripPoints(), m.getNumLineStripPoints()),
            ints(m.getPolyLengths(), m.getNumPolys()),
            ints(m.getPolyPoints(), m.getNumPolyPoints()),
            ints(reinterpret_cast<const int*>(m.getLines()), 2 * m.getNumLines())};
}

// Every array of a mesh as numbers: faces, per-vertex arrays, triangle normals, selections.
std::vector<std::vector<double>> contents(const CompactMesh& m)
{
    std::vector<std::vector<double>> out;
    for (const std::vector<int>& face : faceIndexArrays(m))
        out.emplace_back(face.begin(), face.end());
    for (int i = 0; i < m.getNumAttributes(); ++i)
    {
        const float* values = m.getAttributes(i)->getFloats();
        out.emplace_back(values,
                         values + m.getNumVertices() * m.getAttributes(i)->getNumComponents());
    }
    const float* n = m.getTriangleNormalsRaw();
    out.emplace_back(n, n ? n + 3 * m.getNumTriangles() : n);
    for (const auto& bits : {setBits(m.getSelectedVertices()), setBits(m.getSelectedTriangles())})
        out.emplace_back(bits.begin(), bits.end());
    return out;
}

// Every per-vertex array with its component count. Entries get values derived from the
// array and the position in it, so that a misaligned or stale entry shows.
const std::pair<const char*, int> allArrays[] = {
    {PointMesh::VerticesName, 3}, {PointMesh::NormalsName, 3}, {PointMesh::UVsName, 2},
    {PointMesh::STsName, 2},      {PointMesh::ColoursName, 4}, {"weight", 1}};

float stamp(int array, int index)
{
    return float(1000 * (array + 1) + index + 1);
}

void stampArrays(CompactMesh& mesh)
{
    for (int a = 0; a < 6; ++a)
    {
        const auto [name, k] = allArrays[a];
        float* values = mesh.allocAttributes(name, k)->getFloats();
        for (int i = 0; i < mesh.getNumVertices() * k; ++i)
            values[i] = stamp(a, i);
    }
}

// Every array has n entries: the stamps of the first `stamped` vertices, zeros after.
void expectStamped(const CompactMesh& mesh, int n, int stamped)
{
    ASSERT_EQ(mesh.getNumVertices(), n);
    for (int a = 0; a < 6; ++a)
    {
        const auto [name, k] = allArrays[a];
        SCOPED_TRACE(name);
        const qyGeom::MeshAttributes* attr = mesh.getAttributes(name);
        ASSERT_TRUE(attr && attr->getNumElements() == n);
        for (int i = 0; i < n * k; ++i)
            EXPECT_EQ(attr->getFloats()[i], i < stamped * k ? stamp(a, i) : 0.0f);
    }
}

// Something in every array: six vertices (1, 2 and 5 selected) with stamped per-vertex arrays
// (the normals explicit), index runs of every kind, and three triangles with normals on
// triangles 1 and 2, triangle 1 selected.
CompactMesh fullMesh()
{
    CompactMesh mesh;
    mesh.resizeVertexArray(6);
    stampArrays(mesh);
    const int selected[] = {1, 2, 5};
    mesh.getSelectedVertices().setBits(3, selected);
    mesh.resizeLineArray(3);
    mesh.resizeLineStripArrays(7, 3);
    mesh.resizeTriStripArrays(4, 1);
    mesh.resizeTriFanArrays(6, 2);
    mesh.resizePolyArrays(1, 4);
    const std::pair<int*, std::vector<int>> runs[] = {
        {&mesh.getLines()[0][0], {0, 1, 2, 3, 4, 5}},
        {mesh.getLineStripLengths(), {3, 2, 2}},
        {mesh.getLineStripPoints(), {0, 1, 3, 2, 4, 5, 4}},
        {mesh.getTriStripLengths(), {4}},
        {mesh.getTriStripPoints(), {0, 1, 4, 5}},
        {mesh.getTriFanLengths(), {3, 3}},
        {mesh.getTriFanPoints(), {2, 0, 1, 3, 4, 5}},
        {mesh.getPolyLengths(), {4}},
        {mesh.getPolyPoints(), {1, 3, 5, 4}}};
    for (const auto& [to, values] : runs)
        std::copy(values.begin(), values.end(), to);
    const int tris[] = {0, 1, 2, 2, 1, 3, 3, 4, 5};
    mesh.copyTriangles(3, tris);
    mesh.allocTriangleNormalArray();
    mesh.getTriangleNormals()[1].set(0, 1, 0);
    mesh.getTriangleNormals()[2].set(0, 0, 1);
    mesh.getSelectedTriangles().setBit(1);
    return mesh;
}

// Logs the records of a mesh's modified signal: 'R' for a remapping without maps, else '?'.
struct Observer
{
    explicit Observer(const CompactMesh& mesh)
        : connection(mesh.getModifiedSignal().connect(
              [this](const qyRTB::EntityModification& m)
              {
                  const auto& mod = dynamic_cast<const MeshModification&>(m);
                  records.push_back(&mod);
                  log += mod.getType() == MeshModification::Remapped && !mod.getRemap() ? 'R' : '?';
              }))
    {
    }
    std::vector<const MeshModification*> records;
    std::string log;
    qyRTB::ScopedConnection connection;
};

} // namespace

TEST(CompactMesh, ResizingKeepsEveryPerElementArrayAlignedAndZeroFillsNewEntries)
{
    CompactMesh mesh;
    mesh.resizeVertexArray(5);
    stampArrays(mesh); // the reserved names make the dedicated arrays
    ASSERT_TRUE(mesh.getNormals() && mesh.getUVs() && mesh.getSTs() && mesh.getColours());
    mesh.resizeVertexArray(3);
    expectStamped(mesh, 3, 3);
    // Growing again, inside the old storage or past it, must not bring back the entries of
    // the removed vertices.
    mesh.resizeVertexArray(5);
    expectStamped(mesh, 5, 3);
    mesh.resizeVertexArray(2);
    mesh.resizeVertexArray(200);
    expectStamped(mesh, 200, 2);
    // Copying from the mesh's own array must read it before the buffer is reused.
    mesh.copyVertices(1, mesh.getVertices() + 1);
    EXPECT_EQ(mesh.getVertices()[0].x, stamp(0, 3));
    mesh.resizeVertexArray(0);
    expectStamped(mesh, 0, 0);

    CompactMesh faces = fullMesh(); // triangle normals and selection follow the triangles
    faces.resizeTriangleArray(2);
    faces.resizeTriangleArray(4);
    const float* n = faces.getTriangleNormalsRaw();
    EXPECT_EQ(std::vector<float>(n, n + 12),
              (std::vector<float>{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(faces.getSelectedTriangles().size(), 4);
}

TEST(CompactMesh, CopyAssignmentAndSwapAreDeep)
{
    const auto full = contents(fullMesh()), cube = contents(qyTest::makeCube());
    const CompactMesh original = fullMesh();
    CompactMesh copy(original);
    EXPECT_EQ(contents(copy), full);
    copy.getVerticesRaw()[0] = -1;
    copy.getTriStripPoints()[0] = 0;
    copy.getTriangleNormals()[2].z = 0;
    copy.getSelectedTriangles().clearBits();
    EXPECT_EQ(contents(original), full);

    CompactMesh assigned = qyTest::makeCube();
    assigned.allocAttributes("other", 2);
    assigned = original;
    EXPECT_EQ(contents(assigned), full);
    CompactMesh a = qyTest::makeCube(), b = fullMesh();
    a.swap(b);
    EXPECT_TRUE(contents(a) == full && contents(b) == cube);
}

TEST(CompactMesh, ArrayAllocatorHoldsEveryArrayAndGetsItsMemoryBack)
{
    // Counts what it hands out, so the test can see which arrays live in it.
    struct CountingAllocator : qyGeom::ArrayAllocator
    {
        std::size_t outstanding = 0;
        int allocations = 0;
        void* allocate(std::size_t bytes) override
        {
            outstanding += bytes;
            ++allocations;
            return ::operator new(bytes);
        }
        void deallocate(void* p, std::size_t bytes) noexcept override
        {
            outstanding -= bytes;
            ::operator delete(p);
        }
    };
    qy::Reference<CountingAllocator> counting(new CountingAllocator);
    CompactMesh mesh = fullMesh();
    mesh.setArrayAllocator(counting);
    EXPECT_EQ(contents(mesh), contents(fullMesh()));
    // Every array is now in the allocator, sized to its contents: 6 vertices of 15 floats;
    // 34 ints of runs, 9 of triangles and 9 floats of their normals.
    EXPECT_EQ(counting->outstanding, sizeof(float) * (6 * 15 + 34 + 9 + 9));

    // New arrays come from it too.
    mesh.deleteSTs();
    const int before = counting->allocations;
    mesh.allocSTArray();
    mesh.allocAttributes("extra", 3);
    mesh.resizeTriangleArray(50); // triangles and their normals
    EXPECT_EQ(counting->allocations, before + 4);

    const auto expected = contents(mesh);
    mesh.setArrayAllocator(nullptr); // back to the default, with every array
    EXPECT_EQ(counting->outstanding, 0u);
    EXPECT_EQ(contents(mesh), expected);
}

TEST(MeshModification, MovingOrRemappingDropsComputedNormalsUnlessTheRecordVouchesForThem)
{
    using M = MeshModification;
    struct Case
    {
        const char* name;
        void (M::*mark)(); // null: nothing said
        bool computed, normalsKept, triangleNormalsKept;
    };
    const Case cases[] = {
        {"nothing said", nullptr, true, false, false},
        {"normalsModified", &M::normalsModified, true, true, false},
        {"normalsValid", &M::normalsValid, true, true, false},
        {"triangleNormalsModified", &M::triangleNormalsModified, true, false, true},
        {"triangleNormalsValid", &M::triangleNormalsValid, true, false, true},
        {"uvsValid", &M::uvsValid, true, false, false},
        {"explicit normals", nullptr, false, true, false},
    };
    for (auto type : {M::PositionsChanged, M::Remapped, M::AttributesChanged})
        for (const Case& c : cases)
        {
            SCOPED_TRACE(std::string(c.name) + ", type " + std::to_string(type));
            CompactMesh mesh = fullMesh();
            mesh.setNormalsComputed(c.computed);
            mesh.allocAttributes("curvature", 1)->setComputed(true);
            MeshRemap none;
            M mod(&mesh, type, &none);
            if (c.mark)
                (mod.*c.mark)();
            mesh.modified(mod);
            // Changed attributes leave everything the geometry determines in place.
            const bool all = type == M::AttributesChanged;
            EXPECT_EQ(mesh.getNormals() != nullptr, all || c.normalsKept);
            EXPECT_EQ(mesh.getTriangleNormals() != nullptr, all || c.triangleNormalsKept);
            // A computed named array follows the geometry like computed normals.
            EXPECT_EQ(mesh.getAttributes("curvature") != nullptr, all);
        }
}

TEST(MeshModification, RemapRenumbersSelectionsAndRunsDroppingThoseThatLoseAVertex)
{
    // Vertex 2 is deleted, 5 merged into 0; triangle 0 is deleted, 1 and 2 move down.
    Remap vertices(6, 4), triangles(3, 2);
    const int to[] = {0, 1, -1, 2, 3, 0};
    for (int i = 0; i < 6; ++i)
        vertices.set(i, to[i]);
    triangles.set(1, 0);
    triangles.set(2, 1);
    MeshRemap remap{&vertices, &triangles}, verticesOnly{&vertices, nullptr};

    CompactMesh mesh = fullMesh();
    mesh.resizeVertexArray(4); // as the algorithm that renumbered would
    mesh.resizeTriangleArray(2);
    MeshModification mod(&mesh, MeshModification::Remapped, &remap);
    mesh.modified(mod);
    EXPECT_EQ(setBits(mesh.getSelectedVertices()), (std::vector<int>{0, 1}));
    EXPECT_EQ(mesh.getSelectedVertices().size(), 4);
    EXPECT_EQ(setBits(mesh.getSelectedTriangles()), (std::vector<int>{0}));
    EXPECT_EQ(mesh.getSelectedTriangles().size(), 2);
    const std::vector<std::vector<int>> expected = {
        {0, 1, 2, 2, 1, 3}, // triangles: the algorithm's business
        {4},
        {0, 1, 3, 0}, // triangle strip
        {3},
        {2, 3, 0}, // fans: the first one lost vertex 2
        {3, 2},
        {0, 1, 2, 0, 3}, // line strips: the second one lost vertex 2
        {4},
        {1, 2, 0, 3}, // polygon
        {0, 1, 3, 0}, // lines: (2, 3) lost vertex 2
    };
    EXPECT_EQ(faceIndexArrays(mesh), expected);
    EXPECT_EQ(mesh.getLineStripStarts()[1], mesh.getLineStripPoints() + 3);

    // Runs the record marks rewritten are left alone; a sequential map changes nothing.
    Remap sequential(6, 6);
    sequential.setSequential();
    MeshRemap identity{&sequential, nullptr};
    for (MeshRemap* map : {&verticesOnly, &identity})
    {
        CompactMesh same = fullMesh();
        MeshModification record(&same, MeshModification::Remapped, map);
        if (map == &verticesOnly)
        {
            record.linesModified();
            record.lineStripsModified();
            record.stripsAndFansModified();
            record.polysModified();
        }
        same.modified(record);
        EXPECT_EQ(faceIndexArrays(same), faceIndexArrays(fullMesh()));
        const std::vector<int> selected =
            map == &identity ? std::vector<int>{1, 2, 5} : std::vector<int>{0, 1};
        EXPECT_EQ(setBits(same.getSelectedVertices()), selected);
    }
}

TEST(MeshModification, SignalCarriesEachRecordOnceAndAnnouncesAssignmentAndSwap)
{
    CompactMesh mesh = qyTest::makeGrid(1, 1);
    Observer onMesh(mesh);
    MeshModification mod(&mesh, MeshModification::AttributesChanged);
    mesh.modified(mod);
    EXPECT_EQ(onMesh.records, std::vector<const MeshModification*>{&mod});

    // Replacing all contents is a remapping without maps; self-assignment changes nothing.
    CompactMesh a = qyTest::makeCube(), b = qyTest::makeGrid(1, 1);
    Observer onA(a), onB(b);
    const CompactMesh& alias = a;
    a = alias;
    EXPECT_EQ(onA.log, "");
    a = b;
    EXPECT_EQ(onA.log + "|" + onB.log, "R|");
    a.swap(b);
    EXPECT_EQ(onA.log + "|" + onB.log, "RR|R");
    a = qyTest::makeCube();
    EXPECT_EQ(onA.log, "RRR");
}

TEST(MeshModification, DestroyedSignalFiresOnceWithTheMeshAddress)
{
    auto mesh = std::make_unique<CompactMesh>(qyTest::makeCube());
    const qyRTB::Entity* address = mesh.get();
    std::vector<const qyRTB::Entity*> destroyed;
    mesh->getDestroyedSignal().connect([&](const qyRTB::Entity* e) { destroyed.push_back(e); });
    mesh.reset();
    EXPECT_EQ(destroyed, (std::vector<const qyRTB::Entity*>{address}));
}

TEST(CompactMesh, AdoptedArraysAreTakenWithoutACopyAndGoBackToTheirAllocator)
{
    struct CountingAllocator : qyGeom::ArrayAllocator
    {
        std::size_t outstanding = 0;
        void* allocate(std::size_t bytes) override
        {
            outstanding += bytes;
            return ::operator new(bytes);
        }
        void deallocate(void* p, std::size_t bytes) noexcept override
        {
            outstanding -= bytes;
            ::operator delete(p);
        }
    };
    qy::Reference<CountingAllocator> counting(new CountingAllocator);
    // Two vertices in a block of four, one triangle in a block of two.
    qyGeom::MeshArray vertices(sizeof(qyGeom::MeshVertex)), triangles(sizeof(qyGeom::MeshTriangle));
    auto* xyz = static_cast<float*>(counting->allocate(4 * sizeof(qyGeom::MeshVertex)));
    auto* tri = static_cast<int*>(counting->allocate(2 * sizeof(qyGeom::MeshTriangle)));
    std::fill(xyz, xyz + 6, 2.5f);
    std::copy_n(std::vector<int>{0, 1, 1}.begin(), 3, tri);
    vertices.adopt(xyz, 2, 4, counting);
    triangles.adopt(tri, 1, 2, counting);
    {
        CompactMesh mesh;
        mesh.resizeVertexArray(5);
        stampArrays(mesh); // normals, UVs and the others must follow the adopted count
        mesh.allocTriangleNormalArray();
        mesh.adoptVerticesAndTriangles(vertices, triangles);
        EXPECT_TRUE(vertices.empty() && triangles.empty());
        EXPECT_EQ(mesh.getVerticesRaw(), xyz); // no copy
        EXPECT_EQ(mesh.getTrianglesRaw(), tri);
        EXPECT_EQ(mesh.getNumVertices(), 2);
        for (int i = 0; i < mesh.getNumAttributes(); ++i)
            EXPECT_EQ(mesh.getAttributes(i)->getNumElements(), 2);
        EXPECT_EQ(mesh.getNormals()[1].x, stamp(1, 3)); // kept below the new count
        EXPECT_NE(mesh.getTriangleNormals(), nullptr);
        EXPECT_EQ(mesh.getSelectedVertices().size(), 5); // selections grow, never shrink here
        EXPECT_EQ(mesh.getSelectedTriangles().size(), 1);

        // Growing inside the block zero-fills the new entries whatever the block held there;
        // growing past it takes memory from its allocator, zero-filled as always.
        mesh.resizeVertexArray(3);
        EXPECT_EQ(mesh.getVerticesRaw(), xyz);
        EXPECT_EQ(std::vector<float>(mesh.getVerticesRaw(), mesh.getVerticesRaw() + 9),
                  (std::vector<float>{2.5f, 2.5f, 2.5f, 2.5f, 2.5f, 2.5f, 0, 0, 0}));
        mesh.resizeTriangleArray(3);
        EXPECT_EQ(faceIndexArrays(mesh)[0], (std::vector<int>{0, 1, 1, 0, 0, 0, 0, 0, 0}));
        EXPECT_GT(counting->outstanding, 0u);
        // A copy in another mesh lives in that mesh's allocator.
        CompactMesh copy;
        copy = mesh;
        copy.resizeVertexArray(0);
    }
    EXPECT_EQ(counting->outstanding, 0u);

    // Sizing for overwrite keeps what is below the new size and reads as any other array.
    qyGeom::MeshArray ints(sizeof(int));
    const std::vector<int> values{4, 5, 6};
    ints.assign(3, values.data());
    ints.resizeForOverwrite(2);
    ints.resizeForOverwrite(1000);
    ints.as<int>()[999] = 7;
    EXPECT_EQ(ints.size(), 1000);
    EXPECT_EQ(std::vector<int>(ints.as<int>(), ints.as<int>() + 2), (std::vector<int>{4, 5}));
    ints.resize(1); // and a later resize zero-fills as ever
    ints.resize(3);
    EXPECT_EQ(std::vector<int>(ints.as<int>(), ints.as<int>() + 3), (std::vector<int>{4, 0, 0}));
}
