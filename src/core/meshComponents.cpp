// Connected components through shared vertices, by union-find over the triangle corners. A
// flood over the vertex-to-triangle sets would look at every set once per triangle of the
// set, which is quadratic in the valence; union-find is linear in practice.
#include "qyGeom/meshComponents.h"

#include <cstddef>
#include <numeric>
#include <vector>

#include "base/StopWatch.h"
#include "model/CompactMesh.h"
#include "model/TopoMesh.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

// The representative of v's set, halving the path on the way.
inline int findRoot(int* parent, int v)
{
    while (parent[v] != v)
    {
        parent[v] = parent[parent[v]];
        v = parent[v];
    }
    return v;
}

// Joins the sets of a and b under the smaller root; returns that root.
inline int unite(int* parent, int a, int b)
{
    a = findRoot(parent, a);
    b = findRoot(parent, b);
    if (a < b)
        parent[b] = a;
    else
        parent[a] = b;
    return a < b ? a : b;
}

} // namespace

int meshComponents(const CompactMesh& mesh, const MeshAdjTris&, qy::Array<int>* labels)
{
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    debugChannel().print("meshComponents(): %d triangles\n", numTris);
    qyOS::StopWatch watch;
    watch.start();

    const int* tris = mesh.getTrianglesRaw();
    auto valid = [numVerts](const int* tri)
    {
        return unsigned(tri[0]) < unsigned(numVerts) && unsigned(tri[1]) < unsigned(numVerts) &&
               unsigned(tri[2]) < unsigned(numVerts);
    };
    std::vector<int> parentArray(static_cast<std::size_t>(numVerts));
    std::iota(parentArray.begin(), parentArray.end(), 0);
    int* parent = parentArray.data();
    for (std::ptrdiff_t t = 0; t < numTris; ++t)
    {
        const int* tri = tris + 3 * t;
        if (valid(tri))
            unite(parent, unite(parent, tri[0], tri[1]), tri[2]);
    }

    // A flood from each triangle not yet reached, in triangle order, numbers the components
    // in the order of their lowest triangle: give each root its number at its first triangle.
    // The numbers are kept at the roots' places in the label array (or a local one), then
    // every vertex takes its root's; a vertex that no triangle uses is a root that was never
    // numbered, and keeps -1.
    std::vector<int> ownLabels;
    qy::Array<int>& number = labels ? *labels : ownLabels;
    number.assign(std::size_t(numVerts), -1);
    int count = 0;
    for (std::ptrdiff_t t = 0; t < numTris; ++t)
    {
        const int* tri = tris + 3 * t;
        if (!valid(tri))
            continue;
        int& n = number[std::size_t(findRoot(parent, tri[0]))];
        if (n < 0)
            n = count++;
    }
    if (labels)
        for (int v = 0; v < numVerts; ++v)
            number[std::size_t(v)] = number[std::size_t(findRoot(parent, v))];

    debugChannel().print("   %d components: %f s\n", count, watch.stop());
    return count;
}

int meshComponents(TopoMesh& mesh, qy::Array<int>* labels)
{
    debugChannel().print("meshComponents(): %d faces\n", mesh.getNumFaces());
    qyOS::StopWatch watch;
    watch.start();

    const int numSlots = mesh.getVertexCapacity();
    const int numFaceSlots = mesh.getFaceCapacity();
    const TopoMesh::HalfEdge* edges = mesh.getHalfEdges();
    std::vector<int> parentArray(static_cast<std::size_t>(numSlots));
    std::iota(parentArray.begin(), parentArray.end(), 0);
    int* parent = parentArray.data();
    for (int f = 0; f < numFaceSlots; ++f)
    {
        const int first = mesh.getFaceEdge(f);
        if (first < 0)
            continue;
        const int root = edges[first].vertex;
        for (int e = edges[first].next; e != first; e = edges[e].next)
            unite(parent, root, edges[e].vertex);
    }

    // Numbered as in the indexed form: each root at the first face that reaches it.
    std::vector<int> ownLabels;
    qy::Array<int>& number = labels ? *labels : ownLabels;
    number.assign(std::size_t(numSlots), -1);
    int count = 0;
    for (int f = 0; f < numFaceSlots; ++f)
    {
        const int first = mesh.getFaceEdge(f);
        if (first < 0)
            continue;
        int& n = number[std::size_t(findRoot(parent, edges[first].vertex))];
        if (n < 0)
            n = count++;
    }
    if (labels)
        for (int v = 0; v < numSlots; ++v)
            number[std::size_t(v)] = number[std::size_t(findRoot(parent, v))];

    debugChannel().print("   %d components: %f s\n", count, watch.stop());
    return count;
}

} // namespace qyGeom
