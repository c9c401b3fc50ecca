#include "model/CompactMesh.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "meshContents.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshAttributes;
using qyGeom::PointMesh;
using qyTest::faceIndexArrays;
using qyTest::ints;

namespace
{

// Every per-vertex array gets values derived from the array, vertex and component, so that a
// misaligned or stale entry shows.
const std::vector<std::string> allArrays = {PointMesh::VerticesName, PointMesh::NormalsName,
                                            PointMesh::UVsName,      PointMesh::STsName,
                                            PointMesh::ColoursName,  "weight"};

float stamp(int array, int vertex, int component)
{
    return float(100 * (array + 1) + 10 * vertex + component + 1);
}

CompactMesh stampedMesh(int n)
{
    CompactMesh mesh;
    mesh.resizeVertexArray(n);
    mesh.allocNormalArray();
    mesh.allocUVArray();
    mesh.allocSTArray();
    mesh.allocColourArray();
    mesh.allocAttributes("weight", 1);
    for (int a = 0; a < int(allArrays.size()); ++a)
    {
        MeshAttributes* attr = mesh.getAttributes(allArrays[std::size_t(a)]);
        const int k = attr->getNumComponents();
        for (int i = 0; i < n * k; ++i)
            attr->getFloats()[i] = stamp(a, i / k, i % k);
    }
    return mesh;
}

// Every array has n entries: the stamps below `stamped`, zeros after.
void expectStamped(const CompactMesh& mesh, int n, int stamped)
{
    ASSERT_EQ(mesh.getNumVertices(), n);
    for (int a = 0; a < int(allArrays.size()); ++a)
    {
        SCOPED_TRACE(allArrays[std::size_t(a)]);
        const MeshAttributes* attr = mesh.getAttributes(allArrays[std::size_t(a)]);
        ASSERT_NE(attr, nullptr);
        ASSERT_EQ(attr->getNumElements(), n);
        const int k = attr->getNumComponents();
        for (int i = 0; i < n * k; ++i)
            EXPECT_EQ(attr->getFloats()[i], i / k < stamped ? stamp(a, i / k, i % k) : 0.0f);
    }
}

// Something in every array of a CompactMesh.
CompactMesh fullMesh()
{
    CompactMesh mesh = stampedMesh(6);
    const int tris[] = {0, 1, 2, 2, 1, 3, 3, 4, 5};
    mesh.copyTriangles(3, tris);
    mesh.allocTriangleNormalArray();
    mesh.getTriangleNormals()[2].set(0, 0, 1);
    mesh.resizeTriStripArrays(4, 1);
    mesh.resizeTriFanArrays(3, 1);
    mesh.resizeLineArray(2);
    mesh.resizeLineStripArrays(5, 2);
    mesh.resizePolyArrays(1, 4);
    const int indices[] = {5, 4, 3};
    for (int* p : {mesh.getTriStripPoints(), mesh.getTriFanPoints(), &mesh.getLines()[0][0],
                   mesh.getLineStripPoints(), mesh.getPolyPoints()})
        std::copy(indices, indices + 3, p);
    mesh.getLineStripLengths()[0] = 2;
    mesh.getLineStripLengths()[1] = 3;
    mesh.getSelectedVertices().setBit(4);
    mesh.getSelectedTriangles().setBit(1);
    return mesh;
}

void expectSameContents(const CompactMesh& a, const CompactMesh& b)
{
    ASSERT_EQ(a.getNumAttributes(), b.getNumAttributes());
    for (int i = 0; i < a.getNumAttributes(); ++i)
    {
        const MeshAttributes &x = *a.getAttributes(i), &y = *b.getAttributes(i);
        ASSERT_EQ(x.getName(), y.getName());
        const int n = x.getNumElements() * x.getNumComponents();
        ASSERT_EQ(n, y.getNumElements() * y.getNumComponents());
        EXPECT_EQ(std::vector<float>(x.getFloats(), x.getFloats() + n),
                  std::vector<float>(y.getFloats(), y.getFloats() + n));
    }
    EXPECT_EQ(faceIndexArrays(a), faceIndexArrays(b));
    ASSERT_EQ(a.getTriangleNormals() != nullptr, b.getTriangleNormals() != nullptr);
    const int numNormals = a.getTriangleNormals() ? 3 * a.getNumTriangles() : 0;
    EXPECT_EQ(
        std::vector<float>(a.getTriangleNormalsRaw(), a.getTriangleNormalsRaw() + numNormals),
        std::vector<float>(b.getTriangleNormalsRaw(), b.getTriangleNormalsRaw() + numNormals));
    EXPECT_EQ(a.getSelectedVertices(), b.getSelectedVertices());
    EXPECT_EQ(a.getSelectedTriangles(), b.getSelectedTriangles());
}

// Counts what it hands out, so a test can see which arrays live in it.
class CountingAllocator : public qyGeom::ArrayAllocator
{
public:
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
    std::size_t outstanding = 0;
    int allocations = 0;
};

} // namespace

TEST(PointMesh, ResizeVertexArrayKeepsEveryArrayAlignedAndZeroFillsNewEntries)
{
    CompactMesh mesh = stampedMesh(5);
    mesh.resizeVertexArray(3);
    expectStamped(mesh, 3, 3);
    // Growing again, inside the old storage or past it, must not bring back the entries of
    // the removed vertices 3 and 4.
    mesh.resizeVertexArray(5);
    expectStamped(mesh, 5, 3);
    mesh.resizeVertexArray(2);
    mesh.resizeVertexArray(7);
    expectStamped(mesh, 7, 2);
    mesh.resizeVertexArray(200);
    expectStamped(mesh, 200, 2);
    mesh.resizeVertexArray(0);
    expectStamped(mesh, 0, 0);
}

TEST(PointMesh, ConstructorCopiesOnlyTheGivenOptionalArrays)
{
    const qyGeom::MeshVertex v[] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}};
    const qyGeom::MeshNormal n[] = {{0, 0, 1}, {0, 1, 0}, {1, 0, 0}};
    const qyGeom::MeshUV uv[] = {{0, 0}, {1, 0}, {0, 1}};
    const CompactMesh mesh(3, v, n, uv, nullptr);
    EXPECT_EQ(mesh.getColours(), nullptr);
    EXPECT_EQ(mesh.getSTs(), nullptr);
    ASSERT_NE(mesh.getUVs(), nullptr);
    EXPECT_NE(mesh.getUVs(), uv); // copied, not borrowed
    EXPECT_EQ(mesh.getVertices()[1].x, 1.0f);
    EXPECT_EQ(mesh.getNormals()[2].x, 1.0f);
    EXPECT_EQ(mesh.getUVsRaw()[5], 1.0f);
    EXPECT_FALSE(mesh.getNormalsComputed()); // given normals are explicit data

    const qyGeom::MeshColour c[] = {{1, 0, 0, 1}, {0, 1, 0, 1}, {0, 0, 1, 0.5f}};
    const CompactMesh coloured(3, v, nullptr, nullptr, c);
    EXPECT_EQ(coloured.getNormals(), nullptr);
    EXPECT_EQ(coloured.getUVs(), nullptr);
    EXPECT_EQ(coloured.getColours()[2].a, 0.5f);
}

TEST(PointMesh, CopyVerticesReplacesPositionsAndResizesTheOtherArrays)
{
    CompactMesh mesh = stampedMesh(4);
    const qyGeom::MeshVertex v[] = {{7, 8, 9}, {1, 2, 3}};
    mesh.copyVertices(2, v);
    EXPECT_EQ(mesh.getVertices()[1].y, 2.0f);
    EXPECT_EQ(mesh.getAttributes(PointMesh::NormalsName)->getNumElements(), 2);
    EXPECT_EQ(mesh.getAttributes("weight")->getNumElements(), 2);
    // Copying from its own array must read it before the buffer is reused.
    mesh.copyVertices(1, mesh.getVertices() + 1);
    EXPECT_EQ(mesh.getNumVertices(), 1);
    EXPECT_EQ(mesh.getVertices()[0].z, 3.0f);
}

TEST(PointMesh, AllocKeepsAnExistingArrayDeleteRemovesItAndANewOneIsExplicitZeros)
{
    CompactMesh mesh = stampedMesh(3);
    mesh.allocNormalArray();
    mesh.allocUVArray();
    mesh.allocSTArray();
    mesh.allocColourArray();
    expectStamped(mesh, 3, 3);

    mesh.deleteNormals();
    mesh.deleteUVs();
    mesh.deleteSTs();
    mesh.deleteColours();
    EXPECT_EQ(mesh.getNormalsRaw(), nullptr);
    EXPECT_EQ(mesh.getUVsRaw(), nullptr);
    std::set<std::string> names;
    mesh.getAttributeNames(names);
    EXPECT_EQ(names, (std::set<std::string>{"vertices", "weight"}));

    mesh.setNormalsComputed(true); // no normal array: nothing to flag
    mesh.allocNormalArray();
    ASSERT_NE(mesh.getNormals(), nullptr);
    EXPECT_EQ(std::vector<float>(mesh.getNormalsRaw(), mesh.getNormalsRaw() + 9),
              std::vector<float>(9, 0.0f));
    EXPECT_FALSE(mesh.getNormalsComputed());
}

TEST(PointMesh, AttributesAreFoundByNameAndIndexWithPositionsFirst)
{
    CompactMesh mesh = stampedMesh(2);
    ASSERT_EQ(mesh.getNumAttributes(), 6);
    EXPECT_EQ(mesh.getAttributes(0)->getName(), PointMesh::VerticesName);
    EXPECT_EQ(mesh.getAttributes(0)->getFloats(), mesh.getVerticesRaw());
    EXPECT_EQ(mesh.getAttributes(PointMesh::NormalsName)->getFloats(), mesh.getNormalsRaw());
    EXPECT_EQ(mesh.getAttributes(PointMesh::UVsName)->getUVs(), mesh.getUVs());
    EXPECT_EQ(mesh.getAttributes("missing"), nullptr);

    // Reserved names keep their component count, even while their array is absent.
    EXPECT_EQ(mesh.allocAttributes(PointMesh::UVsName, 3), nullptr);
    EXPECT_EQ(mesh.allocAttributes(PointMesh::VerticesName, 2), nullptr);
    mesh.deleteColours();
    EXPECT_EQ(mesh.allocAttributes(PointMesh::ColoursName, 3), nullptr);
    EXPECT_EQ(mesh.getColours(), nullptr);
    EXPECT_NE(mesh.allocAttributes(PointMesh::ColoursName, 4), nullptr);
    EXPECT_EQ(mesh.allocAttributes("weight", 2), nullptr); // exists with 1 component
    EXPECT_EQ(mesh.allocAttributes("weight", 1), mesh.getAttributes("weight"));
    EXPECT_EQ(mesh.allocAttributes("bad", 5), nullptr);
    EXPECT_EQ(mesh.getNumAttributes(), 6);

    mesh.deleteAttributes(PointMesh::VerticesName); // positions cannot be removed
    mesh.deleteAttributes("weight");
    EXPECT_EQ(mesh.getNumAttributes(), 5);
    EXPECT_EQ(mesh.getVertices()[1].x, stamp(0, 1, 0));
}

TEST(CompactMesh, TrianglesResizeWithTheirNormalsAndSelection)
{
    CompactMesh mesh;
    const int tris[] = {0, 1, 2, 2, 1, 3, 3, 4, 5};
    mesh.copyTriangles(3, tris);
    EXPECT_EQ(ints(mesh.getTrianglesRaw(), 9), ints(tris, 9));
    EXPECT_EQ(mesh.getTriangles()[1][2], 3);
    EXPECT_EQ(mesh.getTriangleNormals(), nullptr);
    EXPECT_EQ(mesh.getSelectedTriangles().size(), 3);

    mesh.allocTriangleNormalArray();
    for (int t = 0; t < 3; ++t)
        mesh.getTriangleNormals()[t].set(float(t), 0, 1);
    mesh.resizeTriangleArray(2);
    mesh.resizeTriangleArray(4);
    EXPECT_EQ(ints(mesh.getTrianglesRaw(), 12),
              (std::vector<int>{0, 1, 2, 2, 1, 3, 0, 0, 0, 0, 0, 0}));
    const float* n = mesh.getTriangleNormalsRaw();
    EXPECT_EQ(std::vector<float>(n, n + 12),
              (std::vector<float>{0, 0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(mesh.getSelectedTriangles().size(), 4);
    mesh.deleteTriangleNormals();
    EXPECT_EQ(mesh.getTriangleNormalsRaw(), nullptr);
}

TEST(CompactMesh, RunArraysTakeTheirCountsInTheDocumentedOrder)
{
    CompactMesh mesh;
    mesh.resizeTriStripArrays(7, 2); // points, strips
    mesh.resizeTriFanArrays(5, 1);   // points, fans
    mesh.resizePolyArrays(2, 8);     // polygons, points
    mesh.resizeLineArray(3);
    mesh.resizeLineStripArrays(6, 3); // points, strips
    EXPECT_EQ(std::vector<int>({mesh.getNumTriStripPoints(), mesh.getNumTriStrips(),
                                mesh.getNumTriFanPoints(), mesh.getNumTriFans(), mesh.getNumPolys(),
                                mesh.getNumPolyPoints(), mesh.getNumLines(),
                                mesh.getNumLineStripPoints(), mesh.getNumLineStrips()}),
              (std::vector<int>{7, 2, 5, 1, 2, 8, 3, 6, 3}));

    const int lengths[] = {2, 3, 1};
    std::copy(lengths, lengths + 3, mesh.getLineStripLengths());
    int* const* starts = mesh.getLineStripStarts();
    const int firsts[] = {0, 2, 5};
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(starts[i] - mesh.getLineStripPoints(), firsts[i]);
}

TEST(CompactMesh, CopyAssignmentAndSwapAreDeep)
{
    const CompactMesh original = fullMesh();
    CompactMesh copy(original);
    expectSameContents(copy, original);
    copy.getVerticesRaw()[0] = -1;
    copy.getTrianglesRaw()[0] = 5;
    copy.getTriStripPoints()[0] = 0;
    copy.getTriangleNormals()[2].z = 0;
    copy.getSelectedTriangles().clearBits();
    copy.deleteNormals();
    expectSameContents(original, fullMesh());

    CompactMesh assigned = qyTest::makeCube();
    assigned.allocAttributes("other", 2);
    assigned = original;
    expectSameContents(assigned, original);
    EXPECT_EQ(assigned.getAttributes("other"), nullptr);
    assigned.getLineStripLengths()[0] = 1;
    EXPECT_EQ(original.getLineStripLengths()[0], 2);

    CompactMesh cube = qyTest::makeCube(), full = fullMesh();
    cube.swap(full);
    expectSameContents(cube, original);
    expectSameContents(full, qyTest::makeCube());
}

TEST(CompactMesh, SizeInBytesGrowsWithContent)
{
    CompactMesh mesh;
    std::vector<int> sizes = {mesh.getSizeInBytes()};
    mesh.resizeVertexArray(100);
    sizes.push_back(mesh.getSizeInBytes());
    mesh.allocUVArray();
    sizes.push_back(mesh.getSizeInBytes());
    mesh.resizeTriangleArray(100);
    sizes.push_back(mesh.getSizeInBytes());
    mesh.allocTriangleNormalArray();
    sizes.push_back(mesh.getSizeInBytes());
    mesh.resizeLineStripArrays(100, 10);
    sizes.push_back(mesh.getSizeInBytes());
    for (std::size_t i = 1; i < sizes.size(); ++i)
        EXPECT_GT(sizes[i], sizes[i - 1]) << "step " << i;
}

TEST(CompactMesh, ArrayAllocatorHoldsEveryArrayAndGetsItsMemoryBack)
{
    qy::Reference<CountingAllocator> counting(new CountingAllocator);
    {
        CompactMesh mesh = fullMesh();
        mesh.setArrayAllocator(counting);
        expectSameContents(mesh, fullMesh());

        // Every array, per-vertex and per-face, is now in the allocator, sized to its contents:
        // 6 vertices of 15 floats; 43 ints or floats of faces (see fullMesh).
        EXPECT_EQ(counting->outstanding, sizeof(float) * (6 * 15 + 43));

        // New arrays come from it too, and so do the arrays of a copy.
        mesh.deleteSTs();
        const int before = counting->allocations;
        mesh.allocSTArray();
        mesh.allocAttributes("extra", 3);
        mesh.resizeTriangleArray(50); // triangles and their normals
        EXPECT_EQ(counting->allocations, before + 4);
        const std::size_t meshBytes = counting->outstanding;
        const CompactMesh copy(mesh);
        const std::size_t copyBytes = counting->outstanding - meshBytes;
        EXPECT_GT(copyBytes, 0u);

        mesh.setArrayAllocator(nullptr); // back to the default: only the copy is left
        EXPECT_EQ(counting->outstanding, copyBytes);
        expectSameContents(mesh, copy);
    }
    EXPECT_EQ(counting->outstanding, 0u);
}
