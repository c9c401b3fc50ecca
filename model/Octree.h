// Octree: a point octree whose leaves (voxels) tile a box, with a box-overlap iterator over
// its leaves. Spatial indexes of triangles and lines (OctreeTris, OctreeLines) are sets per
// voxel of this structure.
#pragma once

#include <bit>
#include <cstddef>
#include <vector>

#include "base/Reference.h"
#include "model/BoundingBox.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// An octree over a point set. The root cell is a box (see the constructor); a cell splits
/// at its centre into eight equal children while it holds more than the leaf size of points,
/// its depth is below the depth limit and it has some extent. Every split makes all eight
/// children, so the leaves tile the root cell; they are the voxels, numbered
/// 0 .. getNumVoxels() - 1 in depth-first order (child i has the upper half along x when
/// bit 0 of i is set, y for bit 1, z for bit 2), which keeps neighbouring voxels close in
/// number.
///
/// Cells are closed boxes with single-precision corners. Two neighbours share the face between
/// them exactly (the same float), so a point on that face lies in both boxes; it is counted
/// in the upper one when deciding splits.
///
/// Storage: nodes live in one flat array (children of a node are eight consecutive entries);
/// 28 bytes per node plus 4 per voxel. The points themselves are not kept.
///
/// Leaf size: 32 points by default. Measured with computeOctreeTris on a 998,000-triangle UV
/// sphere (octree as the mesh cache builds it, one thread):
///
///     leaf size   voxels   pairs/triangle   triangles/occupied voxel   Mtri/s   bytes/tri
///         8        323k        2.75                 14                  4.8       23.9
///        16        155k        2.17                 25                  8.2       14.9
///        32         78k        1.82                 39                 12.6       10.4
///        64         40k        1.57                 70                 19.2        7.9
///
/// (bytes/tri: Octree plus OctreeTris.) At 32 the pairs stay under two per triangle, the
/// room the partition reserves, at 1.5 times the speed of 16; 64 is faster again but nearly
/// doubles what a query tests in each voxel it reaches.
/// Lifetime: immutable after construction; may be read by several threads at once.
class QYGEOM_API Octree : public qy::ReferenceCount
{
public:
    /// Points a cell may hold without being split.
    static constexpr int defaultLeafSize = 32;
    /// Deepest level supported; larger depth limits are lowered to it. Single precision
    /// cannot halve most cells that often anyway.
    static constexpr int maxSupportedDepth = 30;

    /// One node: its closed box (min x, y, z, max x, y, z) and either its children (child >= 0:
    /// the eight children are nodes child .. child + 7) or, for a leaf, its voxel as
    /// child = -(voxel + 1).
    struct Node
    {
        float box[6];
        int child;
    };

    /// An octree with no voxel.
    Octree() = default;
    /// Builds the octree of numPoints points (3 floats each) inside `box`.
    /// @param cube true: the root cell is the cube centred on `box` whose side is the box's
    ///   largest extent, so every cell is a cube whatever the shape of the point set (cells
    ///   of flat or long meshes are then not slivers); false: the root cell is `box` itself.
    ///   The root's corners are rounded outwards to single precision.
    /// @param maxDepth depth limit: 0 gives a single voxel; below 0 counts as 0, above
    ///   maxSupportedDepth as maxSupportedDepth.
    /// @param leafSize a cell with more points than this splits (at least 1).
    /// Points outside the root cell (or with a NaN coordinate) do not count. No points, an
    /// empty box (any min above its max, or NaN) or a root cell whose corners are not finite
    /// in single precision give an octree with 0 voxels.
    /// Cost: O(P * depth) time, 8 bytes per point of temporaries.
    Octree(int numPoints, const float* points, const BoundingBox& box, bool cube, int maxDepth,
           int leafSize = defaultLeafSize);

    int getNumVoxels() const { return m_numVoxels; }
    int getNumNodes() const { return int(m_nodes.size()); }
    /// The depth limit in force (after clamping).
    int getMaxDepth() const { return m_maxDepth; }
    /// Depth of the deepest leaf (0: the root is the only voxel); -1 without voxels.
    int getDepth() const { return m_depth; }
    /// The root cell; the empty box when there are no voxels.
    BoundingBox getBox() const { return m_nodes.empty() ? BoundingBox() : getNodeBox(0); }

    /// Node 0 is the root. @pre 0 <= node < getNumNodes()
    const Node& getNode(int node) const { return m_nodes[std::size_t(node)]; }
    bool isLeaf(int node) const { return getNode(node).child < 0; }
    /// The voxel of a leaf node, -1 for an inner node.
    int getNodeVoxel(int node) const
    {
        const int child = getNode(node).child;
        return child < 0 ? -child - 1 : -1;
    }
    BoundingBox getNodeBox(int node) const;

    /// The leaf node of a voxel. @pre 0 <= voxel < getNumVoxels()
    int getVoxelNode(int voxel) const { return m_voxelNodes[std::size_t(voxel)]; }
    /// The voxel's box as 6 floats: min x, y, z, max x, y, z.
    const float* getVoxelBoxRaw(int voxel) const { return getNode(getVoxelNode(voxel)).box; }
    BoundingBox getVoxelBox(int voxel) const { return getNodeBox(getVoxelNode(voxel)); }

    /// The voxel whose box holds point p (3 floats); on a face shared by several voxels, the
    /// one on the upper side. -1 when p is outside the root cell or has a NaN coordinate.
    int findVoxel(const float* p) const;

    /// Bytes held by the octree, this object included.
    int getSizeInBytes() const;

    /// The split coordinate of a cell [lo, hi] along one axis: its midpoint, kept inside the
    /// cell even where halving a subnormal rounds.
    static float splitValue(float lo, float hi)
    {
        const float mid = lo * 0.5f + hi * 0.5f;
        return mid < lo ? lo : (mid > hi ? hi : mid);
    }

private:
    struct Builder;

    std::vector<Node> m_nodes;
    std::vector<int> m_voxelNodes;
    int m_numVoxels = 0;
    int m_maxDepth = 0;
    int m_depth = -1;
};

/// A position of a traversal: a leaf node of an octree, its voxel and its box.
class OctreeIterator
{
public:
    OctreeIterator() = default;
    OctreeIterator(const Octree& octree, int node) : m_octree(&octree), m_node(node) {}

    const Octree* getOctree() const { return m_octree; }
    int getNode() const { return m_node; }
    int getVoxel() const { return m_octree->getNodeVoxel(m_node); }
    BoundingBox getBox() const { return m_octree->getNodeBox(m_node); }
    /// The box as 6 floats: min x, y, z, max x, y, z.
    const float* getBoxRaw() const { return m_octree->getNode(m_node).box; }

private:
    const Octree* m_octree = nullptr;
    int m_node = -1;
};

/// Visits every leaf of an octree whose closed box meets a closed query box (sharing only a
/// face, an edge or a corner counts), each once, in voxel order. The traversal keeps a fixed
/// stack inside the object: reset() and next() never allocate.
///
///     for (OctreeBBoxIntersectIt it(octree, box); it.valid(); it.next())
///         use(it.get().getVoxel());
///
/// A query box that is empty (any min above its max) or has a NaN coordinate meets no leaf.
/// Cost: a query that lies inside a cell reached by the previous query starts its descent
/// there, so runs of nearby queries (consecutive triangles of a mesh) skip the upper levels.
/// Lifetime: keeps a pointer to the octree.
class OctreeBBoxIntersectIt
{
public:
    explicit OctreeBBoxIntersectIt(const Octree& octree) : m_octree(&octree) {}
    OctreeBBoxIntersectIt(const Octree& octree, const BoundingBox& box) : m_octree(&octree)
    {
        reset(box);
    }

    /// Restarts the traversal with a new query box and moves to the first leaf that meets it.
    void reset(const BoundingBox& box)
    {
        const qyLinear::Point& lo = box.minPt();
        const qyLinear::Point& hi = box.maxPt();
        reset(lo.x, lo.y, lo.z, hi.x, hi.y, hi.z);
    }
    /// The same with the box given by its corners.
    void reset(double minX, double minY, double minZ, double maxX, double maxY, double maxZ);

    bool valid() const { return m_node >= 0; }
    /// The current leaf. @pre valid()
    OctreeIterator get() const { return OctreeIterator(*m_octree, m_node); }
    /// Moves to the next leaf that meets the query box (or becomes invalid).
    void next() { advance(); }

private:
    // Children of a cell that meet the query box, as a bit mask over the eight child
    // indices. The cell is known to meet it, so each axis only needs the query against the
    // split coordinate.
    unsigned childMask(const Octree::Node& node) const
    {
        unsigned mask = 0xffu;
        static constexpr unsigned lowHalf[3] = {0x55u, 0x33u, 0x0fu};
        for (int k = 0; k < 3; ++k)
        {
            const double split = Octree::splitValue(node.box[k], node.box[k + 3]);
            const unsigned low = m_min[k] <= split ? lowHalf[k] : 0u;
            const unsigned high = m_max[k] >= split ? (~lowHalf[k] & 0xffu) : 0u;
            mask &= low | high;
        }
        return mask;
    }
    void advance()
    {
        m_node = -1;
        while (m_top > 0)
        {
            Frame& frame = m_stack[m_top - 1];
            if (frame.mask == 0)
            {
                --m_top;
                continue;
            }
            const int i = std::countr_zero(frame.mask);
            frame.mask &= frame.mask - 1;
            const int node = frame.firstChild + i;
            const Octree::Node& n = m_octree->getNode(node);
            if (n.child < 0)
            {
                m_node = node;
                return;
            }
            m_stack[m_top++] = {n.child, childMask(n)};
        }
    }

    bool strictlyInside(const float* box) const
    {
        return m_min[0] > box[0] && m_min[1] > box[1] && m_min[2] > box[2] && m_max[0] < box[3] &&
               m_max[1] < box[4] && m_max[2] < box[5];
    }

    struct Frame
    {
        int firstChild;
        unsigned mask;
    };

    const Octree* m_octree;
    double m_min[3] = {0, 0, 0};
    double m_max[3] = {0, 0, 0};
    int m_node = -1;
    int m_top = 0;
    Frame m_stack[Octree::maxSupportedDepth + 1];
    // Cells from the root down to where the last traversal began to branch; a query close
    // to the previous one starts there instead of at the root.
    int m_path[Octree::maxSupportedDepth + 1];
    int m_pathLength = 0;
};

inline void OctreeBBoxIntersectIt::reset(double minX, double minY, double minZ, double maxX,
                                         double maxY, double maxZ)
{
    m_min[0] = minX;
    m_min[1] = minY;
    m_min[2] = minZ;
    m_max[0] = maxX;
    m_max[1] = maxY;
    m_max[2] = maxZ;
    m_node = -1;
    m_top = 0;
    if (m_octree->getNumNodes() == 0)
        return;
    for (int k = 0; k < 3; ++k)
        if (!(m_min[k] <= m_max[k]))
            return;

    // Start from the deepest cell of the previous path that holds the query box strictly
    // inside: every leaf that meets the box lies below it (a leaf elsewhere is on the other
    // side of some split plane of that cell's ancestors).
    int depth = m_pathLength - 1;
    while (depth > 0 && !strictlyInside(m_octree->getNode(m_path[depth]).box))
        --depth;
    if (depth <= 0)
    {
        const float* root = m_octree->getNode(0).box;
        for (int k = 0; k < 3; ++k)
            if (!(m_min[k] <= root[k + 3] && m_max[k] >= root[k]))
            {
                m_pathLength = 0;
                return;
            }
        depth = 0;
        m_path[0] = 0;
    }

    // Down while a single child meets the box; the path ends at the deepest cell holding all
    // the leaves that meet it.
    int node = m_path[depth];
    for (;;)
    {
        const Octree::Node& n = m_octree->getNode(node);
        if (n.child < 0)
        {
            m_pathLength = depth + 1;
            m_node = node;
            return;
        }
        const unsigned mask = childMask(n);
        if (mask & (mask - 1))
        {
            m_pathLength = depth + 1;
            m_stack[m_top++] = {n.child, mask};
            advance();
            return;
        }
        node = n.child + std::countr_zero(mask);
        m_path[++depth] = node;
    }
}

} // namespace qyGeom
