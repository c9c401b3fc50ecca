#include "model/MeshModification.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "meshContents.h"
#include "model/CompactMesh.h"
#include "model/Remap.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyGeom::MeshRemap;
using qyGeom::Remap;
using qyTest::faceIndexArrays;
using qyTest::setBits;

namespace
{

// A grid with vertex normals (computed or explicit) and triangle normals, all +z.
CompactMesh meshWithNormals(bool computed)
{
    CompactMesh mesh = qyTest::makeGrid(2, 1);
    mesh.allocNormalArray();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
        mesh.getNormals()[i].set(0, 0, 1);
    mesh.setNormalsComputed(computed);
    mesh.allocTriangleNormalArray();
    return mesh;
}

// Six vertices, no triangles, vertices 1, 2, 5 selected, and index runs of every kind.
CompactMesh meshWithRuns()
{
    CompactMesh mesh;
    mesh.resizeVertexArray(6);
    const int selected[] = {1, 2, 5};
    mesh.getSelectedVertices().setBits(3, selected);
    const auto fill = [](int* to, std::vector<int> values)
    { std::copy(values.begin(), values.end(), to); };
    mesh.resizeLineArray(3);
    fill(&mesh.getLines()[0][0], {0, 1, 2, 3, 4, 5});
    mesh.resizeLineStripArrays(7, 3);
    fill(mesh.getLineStripLengths(), {3, 2, 2});
    fill(mesh.getLineStripPoints(), {0, 1, 3, 2, 4, 5, 4});
    mesh.resizeTriStripArrays(4, 1);
    fill(mesh.getTriStripLengths(), {4});
    fill(mesh.getTriStripPoints(), {0, 1, 4, 5});
    mesh.resizeTriFanArrays(6, 2);
    fill(mesh.getTriFanLengths(), {3, 3});
    fill(mesh.getTriFanPoints(), {2, 0, 1, 3, 4, 5});
    mesh.resizePolyArrays(1, 4);
    fill(mesh.getPolyLengths(), {4});
    fill(mesh.getPolyPoints(), {1, 3, 5, 4});
    return mesh;
}

// Records what the modified signal of one mesh carries.
struct Observer
{
    explicit Observer(const CompactMesh& mesh)
        : connection(mesh.getModifiedSignal().connect(
              [this](const qyRTB::EntityModification& m)
              {
                  const auto& mod = dynamic_cast<const MeshModification&>(m);
                  records.push_back(&mod);
                  types.push_back(mod.getType());
                  withRemap.push_back(mod.getRemap() != nullptr);
              }))
    {
    }
    std::vector<const MeshModification*> records;
    std::vector<MeshModification::Type> types;
    std::vector<bool> withRemap;
    qyRTB::ScopedConnection connection;
};

} // namespace

TEST(MeshModification, MovingPositionsDropsComputedNormalsUnlessMarkedRewrittenOrValid)
{
    struct Case
    {
        const char* name;
        std::function<void(MeshModification&)> raise;
        bool normalsKept, triangleNormalsKept;
    };
    const Case cases[] = {
        {"nothing", [](MeshModification&) {}, false, false},
        {"normalsModified", [](MeshModification& m) { m.normalsModified(); }, true, false},
        {"normalsValid", [](MeshModification& m) { m.normalsValid(); }, true, false},
        {"triangleNormalsModified", [](MeshModification& m) { m.triangleNormalsModified(); }, false,
         true},
        {"triangleNormalsValid", [](MeshModification& m) { m.triangleNormalsValid(); }, false,
         true},
        {"uvsValid", [](MeshModification& m) { m.uvsValid(); }, false, false},
    };
    for (auto type : {MeshModification::PositionsChanged, MeshModification::Remapped})
        for (const Case& c : cases)
        {
            SCOPED_TRACE(std::string(c.name) + (type ? " remapped" : " positions"));
            CompactMesh mesh = meshWithNormals(true);
            MeshRemap none;
            MeshModification mod(&mesh, type, &none);
            c.raise(mod);
            mesh.modified(mod);
            EXPECT_EQ(mesh.getNormals() != nullptr, c.normalsKept);
            EXPECT_EQ(mesh.getTriangleNormals() != nullptr, c.triangleNormalsKept);
        }
}

TEST(MeshModification, ExplicitNormalsSurviveAndAttributeChangesKeepComputedData)
{
    for (auto type : {MeshModification::PositionsChanged, MeshModification::AttributesChanged})
    {
        SCOPED_TRACE(type);
        CompactMesh mesh = meshWithNormals(false);
        MeshModification mod(&mesh, type);
        mesh.modified(mod);
        ASSERT_NE(mesh.getNormals(), nullptr);
        EXPECT_EQ(mesh.getNormals()[5].z, 1.0f);
    }
    CompactMesh mesh = meshWithNormals(true);
    mesh.allocAttributes("curvature", 1)->setComputed(true);
    MeshModification mod(&mesh, MeshModification::AttributesChanged);
    mesh.modified(mod);
    EXPECT_TRUE(mesh.getNormalsComputed());
    EXPECT_NE(mesh.getTriangleNormals(), nullptr);
    EXPECT_NE(mesh.getAttributes("curvature"), nullptr);
}

TEST(MeshModification, VertexRemapRenumbersSelectionAndRunsDroppingThoseThatLoseAVertex)
{
    // Vertex 2 is deleted, 5 merged into 0.
    Remap vertices(6, 4);
    const int to[] = {0, 1, -1, 2, 3, 0};
    for (int i = 0; i < 6; ++i)
        vertices.set(i, to[i]);
    MeshRemap remap{&vertices, nullptr};

    CompactMesh mesh = meshWithRuns();
    mesh.resizeVertexArray(4); // as the algorithm that renumbered would
    MeshModification mod(&mesh, MeshModification::Remapped, &remap);
    mesh.modified(mod);
    EXPECT_EQ(setBits(mesh.getSelectedVertices()), (std::vector<int>{0, 1}));
    EXPECT_EQ(mesh.getSelectedVertices().size(), 4);
    const std::vector<std::vector<int>> expected = {
        {},                            // triangles
        {4},          {0, 1, 3, 0},    // triangle strip
        {3},          {2, 3, 0},       // fans: the first one lost vertex 2
        {3, 2},       {0, 1, 2, 0, 3}, // line strips: the second one lost vertex 2
        {4},          {1, 2, 0, 3},    // polygon
        {0, 1, 3, 0},                  // lines: (2, 3) lost vertex 2
    };
    EXPECT_EQ(faceIndexArrays(mesh), expected);
    EXPECT_EQ(mesh.getLineStripStarts()[1], mesh.getLineStripPoints() + 3);

    // Runs the record marks rewritten are left alone; a sequential map changes nothing.
    CompactMesh rewritten = meshWithRuns();
    MeshModification flagged(&rewritten, MeshModification::Remapped, &remap);
    flagged.linesModified();
    flagged.lineStripsModified();
    flagged.stripsAndFansModified();
    flagged.polysModified();
    rewritten.modified(flagged);
    EXPECT_EQ(faceIndexArrays(rewritten), faceIndexArrays(meshWithRuns()));
    EXPECT_EQ(setBits(rewritten.getSelectedVertices()), (std::vector<int>{0, 1}));

    Remap sequential(6, 6);
    sequential.setSequential();
    MeshRemap identity{&sequential, nullptr};
    CompactMesh unchanged = meshWithRuns();
    MeshModification same(&unchanged, MeshModification::Remapped, &identity);
    unchanged.modified(same);
    EXPECT_EQ(faceIndexArrays(unchanged), faceIndexArrays(meshWithRuns()));
    EXPECT_EQ(setBits(unchanged.getSelectedVertices()), (std::vector<int>{1, 2, 5}));
}

TEST(MeshModification, TriangleRemapRenumbersTheTriangleSelection)
{
    CompactMesh mesh = qyTest::makeGrid(2, 1);
    const int selected[] = {1, 2, 3};
    mesh.getSelectedTriangles().setBits(3, selected);
    Remap triangles(4, 2); // 0 -> 1, 2 -> 0, 1 and 3 deleted
    triangles.set(0, 1);
    triangles.set(2, 0);
    mesh.resizeTriangleArray(2);
    MeshRemap remap{nullptr, &triangles};
    MeshModification mod(&mesh, MeshModification::Remapped, &remap);
    mesh.modified(mod);
    EXPECT_EQ(mesh.getSelectedTriangles().size(), 2);
    EXPECT_EQ(setBits(mesh.getSelectedTriangles()), (std::vector<int>{0}));
}

TEST(MeshModification, ModifiedSignalCarriesEachRecordOnce)
{
    qyTest::RecordingMesh mesh(qyTest::makeGrid(1, 1));
    Observer observer(mesh);
    MeshModification mod(&mesh, MeshModification::AttributesChanged);
    mod.uvsModified();
    mesh.modified(mod);
    ASSERT_EQ(observer.records.size(), 1u);
    EXPECT_EQ(observer.records[0], &mod);
    EXPECT_EQ(mod.getEntity(), static_cast<const qyRTB::Entity*>(&mesh));
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].flags, unsigned(MeshModification::UVsModified));
}

TEST(MeshModification, AssignmentAndSwapAnnounceARemappingWithoutMaps)
{
    using Types = std::vector<MeshModification::Type>;
    const MeshModification::Type remapped = MeshModification::Remapped;
    CompactMesh a = qyTest::makeCube(), b = qyTest::makeGrid(1, 1);
    Observer onA(a), onB(b);
    const CompactMesh& alias = a;
    a = alias; // nothing changes, nothing is announced
    EXPECT_TRUE(onA.types.empty());

    a = b;
    EXPECT_EQ(onA.types, Types{remapped});
    EXPECT_TRUE(onB.types.empty());

    a.swap(b);
    EXPECT_EQ(onA.types, (Types{remapped, remapped}));
    EXPECT_EQ(onB.types, Types{remapped});

    a = qyTest::makeCube();
    EXPECT_EQ(onA.types, (Types{remapped, remapped, remapped}));
    EXPECT_EQ(a.getNumVertices(), 8);
    EXPECT_EQ(onA.withRemap, std::vector<bool>(3, false));
    EXPECT_EQ(onB.withRemap, std::vector<bool>(1, false));
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
