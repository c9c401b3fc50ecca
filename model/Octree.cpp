// Octree construction: the points of a cell are bucketed by octant with a counting sort, so
// the whole build is a handful of linear passes per level over one index array.
#include "model/Octree.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>

namespace qyGeom
{
namespace
{

// The float at or below d (lo = true) or at or above it, so that the rounded box holds the
// double one; infinity when d is beyond the float range (or NaN).
float roundOut(double d, bool lo)
{
    if (!(std::fabs(d) <= double(FLT_MAX)))
        return HUGE_VALF;
    const float f = float(d);
    if (lo && double(f) > d)
        return std::nextafter(f, -HUGE_VALF);
    if (!lo && double(f) < d)
        return std::nextafter(f, HUGE_VALF);
    return f;
}

} // namespace

struct Octree::Builder
{
    Octree& tree;
    const float* points;
    int leafSize;
    std::vector<int> order; // indices of the points inside the root, bucketed per cell
    std::vector<int> scratch;

    int octant(const float* p, const float* split) const
    {
        return (p[0] >= split[0] ? 1 : 0) | (p[1] >= split[1] ? 2 : 0) | (p[2] >= split[2] ? 4 : 0);
    }

    // Cell `node` holds the points order[begin, end). Children are appended as eight
    // consecutive nodes before any of them is built, and leaves are numbered as the
    // recursion reaches them, which gives the depth-first voxel order.
    void build(int node, int begin, int end, int depth)
    {
        Node cell = tree.m_nodes[std::size_t(node)];
        const bool flat =
            cell.box[0] == cell.box[3] && cell.box[1] == cell.box[4] && cell.box[2] == cell.box[5];
        if (end - begin <= leafSize || depth >= tree.m_maxDepth || flat)
        {
            tree.m_nodes[std::size_t(node)].child = -(tree.m_numVoxels + 1);
            tree.m_voxelNodes.push_back(node);
            ++tree.m_numVoxels;
            tree.m_depth = std::max(tree.m_depth, depth);
            return;
        }

        float split[3];
        for (int k = 0; k < 3; ++k)
            split[k] = splitValue(cell.box[k], cell.box[k + 3]);
        int count[9] = {};
        for (int i = begin; i < end; ++i)
            ++count[octant(points + 3 * std::ptrdiff_t(order[std::size_t(i)]), split) + 1];
        for (int c = 0; c < 8; ++c)
            count[c + 1] += count[c];
        int fill[8];
        for (int c = 0; c < 8; ++c)
            fill[c] = begin + count[c];
        for (int i = begin; i < end; ++i)
        {
            const int p = order[std::size_t(i)];
            scratch[std::size_t(fill[octant(points + 3 * std::ptrdiff_t(p), split)]++)] = p;
        }
        std::copy(scratch.begin() + begin, scratch.begin() + end, order.begin() + begin);

        const int first = int(tree.m_nodes.size());
        tree.m_nodes[std::size_t(node)].child = first;
        for (int c = 0; c < 8; ++c)
        {
            Node child;
            for (int k = 0; k < 3; ++k)
            {
                const bool upper = (c >> k) & 1;
                child.box[k] = upper ? split[k] : cell.box[k];
                child.box[k + 3] = upper ? cell.box[k + 3] : split[k];
            }
            child.child = -1;
            tree.m_nodes.push_back(child);
        }
        for (int c = 0; c < 8; ++c)
            build(first + c, begin + count[c], begin + count[c + 1], depth + 1);
    }
};

Octree::Octree(int numPoints, const float* points, const BoundingBox& box, bool cube, int maxDepth,
               int leafSize)
    : m_maxDepth(std::clamp(maxDepth, 0, maxSupportedDepth))
{
    const qyLinear::Point& lo = box.minPt();
    const qyLinear::Point& hi = box.maxPt();
    if (numPoints <= 0 || !points || !(lo.x <= hi.x && lo.y <= hi.y && lo.z <= hi.z))
        return;

    double rootLo[3] = {lo.x, lo.y, lo.z}, rootHi[3] = {hi.x, hi.y, hi.z};
    if (cube)
    {
        const double side = std::max({hi.x - lo.x, hi.y - lo.y, hi.z - lo.z});
        for (int k = 0; k < 3; ++k)
        {
            const double centre = 0.5 * (rootLo[k] + rootHi[k]);
            rootLo[k] = centre - 0.5 * side;
            rootHi[k] = centre + 0.5 * side;
        }
    }
    Node root;
    for (int k = 0; k < 3; ++k)
    {
        root.box[k] = roundOut(rootLo[k], true);
        root.box[k + 3] = roundOut(rootHi[k], false);
        if (!std::isfinite(root.box[k]) || !std::isfinite(root.box[k + 3]))
            return;
    }
    root.child = -1;

    Builder builder{*this, points, std::max(leafSize, 1), {}, {}};
    builder.order.reserve(std::size_t(numPoints));
    for (int i = 0; i < numPoints; ++i)
    {
        const float* p = points + 3 * std::ptrdiff_t(i);
        if (p[0] >= root.box[0] && p[0] <= root.box[3] && p[1] >= root.box[1] &&
            p[1] <= root.box[4] && p[2] >= root.box[2] && p[2] <= root.box[5])
            builder.order.push_back(i);
    }
    builder.scratch.resize(builder.order.size());
    m_nodes.push_back(root);
    builder.build(0, 0, int(builder.order.size()), 0);
    m_nodes.shrink_to_fit();
    m_voxelNodes.shrink_to_fit();
}

BoundingBox Octree::getNodeBox(int node) const
{
    const float* b = getNode(node).box;
    return BoundingBox(qyLinear::Point(b[0], b[1], b[2]), qyLinear::Point(b[3], b[4], b[5]));
}

int Octree::findVoxel(const float* p) const
{
    if (m_nodes.empty())
        return -1;
    const float* root = m_nodes[0].box;
    if (!(p[0] >= root[0] && p[0] <= root[3] && p[1] >= root[1] && p[1] <= root[4] &&
          p[2] >= root[2] && p[2] <= root[5]))
        return -1;
    int node = 0;
    while (m_nodes[std::size_t(node)].child >= 0)
    {
        const Node& n = m_nodes[std::size_t(node)];
        int c = 0;
        for (int k = 0; k < 3; ++k)
            if (p[k] >= splitValue(n.box[k], n.box[k + 3]))
                c |= 1 << k;
        node = n.child + c;
    }
    return getNodeVoxel(node);
}

int Octree::getSizeInBytes() const
{
    const std::size_t bytes =
        sizeof(*this) + sizeof(Node) * m_nodes.capacity() + sizeof(int) * m_voxelNodes.capacity();
    return int(std::min<std::size_t>(bytes, INT_MAX));
}

} // namespace qyGeom
