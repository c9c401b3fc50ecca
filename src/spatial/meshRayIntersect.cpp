// Ray casting over a mesh through a bounding-volume hierarchy: binned surface-area-heuristic
// build (Wald, "On fast construction of SAH-based bounding volume hierarchies", 2007) of a
// binary tree, collapsed into four-wide nodes whose children's boxes are tested at once;
// ordered depth-first traversal with the slab test, and the same ray/triangle arithmetic as
// intersectRayTriangle, so that the hierarchy finds exactly the hits of a loop over all
// triangles.
#include "qyGeom/meshRayIntersect.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "detail/rayTriangleKernel.h"
#include "model/CompactMesh.h"
#include "model/debugChannel.h"
#include "qyGeom/intersectRayTriangle.h"

namespace qyGeom
{
namespace
{

constexpr int numBins = 16;
constexpr int blockSize = 4;           // triangles tested at once
constexpr int maxLeafSize = 16;        // a leaf may hold more only when its centroids coincide
constexpr int minLeafSize = blockSize; // ranges that fill one block are never split
// The cost of descending one level, in tests of a block of four triangles. A leaf costs its
// number of blocks, however full the last one is.
constexpr double nodeCost = 1;
constexpr int maxDepth = 64;    // traversal stack; the build stops splitting before it
constexpr int pollStride = 200; // rays between cancellation polls of the batch

// The slab test rounds three times per bound in single precision and the inverse direction
// was rounded once more from double; widening the interval by a few more units of rounding
// keeps every box that the exact ray meets (Pharr, Jakob, Humphreys, "Physically Based
// Rendering", 3rd ed., 3.9.2).
constexpr float slabWiden = 1.0f + 16.0f * std::numeric_limits<float>::epsilon() / 2;

// The triangle test subtracts the origin from a corner, and corners from each other, in
// single precision: it answers for a ray and a triangle each moved by up to half a unit of
// rounding of those differences, so it reports hits up to about 2^-24 (|origin| + |corner| +
// edge) outside the exact triangle. Boxes are padded by four times that: the triangles' boxes
// by their coordinates' size and extent at the build, and the origin's share per ray, by
// moving the origin outward on each side of the slab. Then every hit that the test reports
// lies in the boxes on its way, and the hierarchy finds exactly the hits of a plain loop.
constexpr float padFactor = 1.0f / (1 << 22);

float area(const float* box)
{
    const float dx = box[3] - box[0], dy = box[4] - box[1], dz = box[5] - box[2];
    return dx * dy + dy * dz + dz * dx;
}

void emptyBox(float* box)
{
    box[0] = box[1] = box[2] = std::numeric_limits<float>::infinity();
    box[3] = box[4] = box[5] = -std::numeric_limits<float>::infinity();
}

void growBox(float* box, const float* other)
{
    for (int k = 0; k < 3; ++k)
    {
        box[k] = std::min(box[k], other[k]);
        box[k + 3] = std::max(box[k + 3], other[k + 3]);
    }
}

int numBlocks(int count)
{
    return (count + blockSize - 1) / blockSize;
}

struct Bin
{
    float box[6];
    int count;
};

// A limit in float that is never below the double it stands for.
inline float limitOf(double t)
{
    const float f = float(t);
    return double(f) < t ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
}

// The slab test of a ray against the four boxes of a node at once: the parameters at which
// the ray enters them, and a mask of the boxes that it meets before `limit`. NaN products
// (the origin on a slab's plane along an axis that the ray does not move in) leave the
// interval as it was: max and min return their second operand then, as the scalar form's
// comparisons do.
class Slabs
{
public:
    explicit Slabs(const Ray& ray)
    {
        const float* inv = ray.inverseDirection();
        for (int k = 0; k < 3; ++k)
        {
            m_near[k] = ray.nearIndex(k);
            m_far[k] = ray.farIndex(k);
            const float o = (&ray.origin().x)[k];
            const float pad = std::abs(o) * padFactor;
            const float outward = m_near[k] < 3 ? pad : -pad; // the near side is the minimum
            m_origNear[k] = o + outward;
            m_origFar[k] = o - outward;
            m_inverse[k] = inv[k];
        }
    }

    int test(const float (*bounds)[4], float limit, float* entries) const
    {
#if defined(__SSE2__)
        __m128 tNear = _mm_setzero_ps(), tFar = _mm_set1_ps(limit);
        for (int k = 0; k < 3; ++k)
        {
            const __m128 inv = _mm_set1_ps(m_inverse[k]);
            const __m128 a = _mm_mul_ps(
                _mm_sub_ps(_mm_load_ps(bounds[m_near[k]]), _mm_set1_ps(m_origNear[k])), inv);
            const __m128 b = _mm_mul_ps(
                _mm_sub_ps(_mm_load_ps(bounds[m_far[k]]), _mm_set1_ps(m_origFar[k])), inv);
            tNear = _mm_max_ps(a, tNear);
            tFar = _mm_min_ps(b, tFar);
        }
        _mm_store_ps(entries, tNear);
        return _mm_movemask_ps(_mm_cmple_ps(tNear, _mm_mul_ps(tFar, _mm_set1_ps(slabWiden))));
#else
        int mask = 0;
        for (int lane = 0; lane < 4; ++lane)
        {
            float tNear = 0.0f, tFar = limit;
            for (int k = 0; k < 3; ++k)
            {
                const float a = (bounds[m_near[k]][lane] - m_origNear[k]) * m_inverse[k];
                const float b = (bounds[m_far[k]][lane] - m_origFar[k]) * m_inverse[k];
                tNear = a > tNear ? a : tNear;
                tFar = b < tFar ? b : tFar;
            }
            entries[lane] = tNear;
            mask |= tNear <= tFar * slabWiden ? 1 << lane : 0;
        }
        return mask;
#endif
    }

private:
    int m_near[3], m_far[3];
    float m_origNear[3], m_origFar[3], m_inverse[3];
};

} // namespace

RayTracer::RayTracer(const CompactMesh& mesh)
{
    const int numTris = mesh.getNumTriangles();
    const int numVerts = mesh.getNumVertices();
    debugChannel().print("RayTracer: %d triangles\n", numTris);
    qyOS::StopWatch watch;
    watch.start();

    // Boxes and centroids of the triangles that can be hit.
    const int* tris = mesh.getTrianglesRaw();
    const float* verts = mesh.getVerticesRaw();
    std::vector<int> order;
    std::vector<float> boxes(6 * std::size_t(numTris));
    std::vector<float> centroids(3 * std::size_t(numTris));
    order.reserve(std::size_t(numTris));
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::ptrdiff_t(t);
        if (c[0] < 0 || c[0] >= numVerts || c[1] < 0 || c[1] >= numVerts || c[2] < 0 ||
            c[2] >= numVerts)
            continue;
        float* box = boxes.data() + 6 * std::ptrdiff_t(t);
        emptyBox(box);
        bool finite = true;
        for (int i = 0; i < 3; ++i)
        {
            const float* p = verts + 3 * std::ptrdiff_t(c[i]);
            for (int k = 0; k < 3; ++k)
            {
                finite = finite && std::isfinite(p[k]);
                box[k] = std::min(box[k], p[k]);
                box[k + 3] = std::max(box[k + 3], p[k]);
            }
        }
        if (!finite)
            continue;
        for (int k = 0; k < 3; ++k)
        {
            const float size = std::max(std::abs(box[k]), std::abs(box[k + 3]));
            const float pad = (size + (box[k + 3] - box[k])) * padFactor;
            box[k] -= pad;
            box[k + 3] += pad;
        }
        for (int k = 0; k < 3; ++k)
            centroids[3 * std::size_t(t) + std::size_t(k)] = 0.5f * (box[k] + box[k + 3]);
        order.push_back(t);
    }

    // The binary tree first, each node with its own box; then the four-wide nodes that the
    // queries read, made by opening the binary tree's largest inner nodes into their children.
    struct BuildNode
    {
        float box[6];
        int first, count;
    };
    const int numPrims = int(order.size());
    std::vector<BuildNode> tree;
    tree.reserve(std::size_t(std::max(1, 2 * numPrims / minLeafSize)));
    tree.push_back(BuildNode{{0, 0, 0, 0, 0, 0}, 0, numPrims});

    struct Task
    {
        int node, begin, end, depth;
    };
    std::vector<Task> tasks;
    if (numPrims > 0)
        tasks.push_back({0, 0, numPrims, 1});
    Bin bins[numBins];
    float rightBoxes[numBins][6];
    while (!tasks.empty())
    {
        const Task task = tasks.back();
        tasks.pop_back();
        float box[6], centroidBox[6];
        emptyBox(box);
        emptyBox(centroidBox);
        for (int i = task.begin; i < task.end; ++i)
        {
            const std::size_t t = std::size_t(order[std::size_t(i)]);
            growBox(box, boxes.data() + 6 * t);
            const float* c = centroids.data() + 3 * t;
            const float point[6] = {c[0], c[1], c[2], c[0], c[1], c[2]};
            growBox(centroidBox, point);
        }
        BuildNode& node = tree[std::size_t(task.node)];
        std::copy(box, box + 6, node.box);
        node.first = task.begin;
        node.count = task.end - task.begin;
        const int count = task.end - task.begin;
        if (count <= minLeafSize || task.depth >= maxDepth - 1)
            continue;

        // Best split over all three axes: the cost of the two children's boxes weighted by
        // their triangle counts, relative to this node's box.
        int bestAxis = -1, bestBin = -1;
        double bestCost = std::numeric_limits<double>::infinity();
        const double nodeArea = std::max(double(area(box)), 1e-30);
        for (int axis = 0; axis < 3; ++axis)
        {
            const float lo = centroidBox[axis], extent = centroidBox[axis + 3] - lo;
            if (!(extent > 0))
                continue;
            const float scale = float(numBins) * (1 - 1e-6f) / extent;
            for (Bin& bin : bins)
            {
                emptyBox(bin.box);
                bin.count = 0;
            }
            for (int i = task.begin; i < task.end; ++i)
            {
                const std::size_t t = std::size_t(order[std::size_t(i)]);
                const int b =
                    std::min(numBins - 1, int((centroids[3 * t + std::size_t(axis)] - lo) * scale));
                growBox(bins[b].box, boxes.data() + 6 * t);
                ++bins[b].count;
            }
            float acc[6];
            emptyBox(acc);
            int rightCounts[numBins];
            for (int b = numBins - 1, n = 0; b > 0; --b)
            {
                growBox(acc, bins[b].box);
                n += bins[b].count;
                std::copy(acc, acc + 6, rightBoxes[b]);
                rightCounts[b] = n;
            }
            emptyBox(acc);
            for (int b = 1, n = 0; b < numBins; ++b)
            {
                growBox(acc, bins[b - 1].box);
                n += bins[b - 1].count;
                if (n == 0 || rightCounts[b] == 0)
                    continue;
                const double cost =
                    nodeCost + (double(area(acc)) * numBlocks(n) +
                                double(area(rightBoxes[b])) * numBlocks(rightCounts[b])) /
                                   nodeArea;
                if (cost < bestCost)
                {
                    bestCost = cost;
                    bestAxis = axis;
                    bestBin = b;
                }
            }
        }
        if (bestAxis < 0 || (bestCost >= double(numBlocks(count)) && count <= maxLeafSize))
            continue;

        const float lo = centroidBox[bestAxis];
        const float scale = float(numBins) * (1 - 1e-6f) / (centroidBox[bestAxis + 3] - lo);
        int* first = order.data() + task.begin;
        int* mid = std::partition(first, order.data() + task.end,
                                  [&](int t)
                                  {
                                      const float c =
                                          centroids[3 * std::size_t(t) + std::size_t(bestAxis)];
                                      return std::min(numBins - 1, int((c - lo) * scale)) < bestBin;
                                  });
        const int split = task.begin + int(mid - first);
        const int left = int(tree.size());
        tree.push_back(BuildNode{});
        tree.push_back(BuildNode{});
        tree[std::size_t(task.node)].first = left;
        tree[std::size_t(task.node)].count = 0;
        tasks.push_back({left + 1, split, task.end, task.depth + 1});
        tasks.push_back({left, task.begin, split, task.depth + 1});
    }

    // A leaf's triangles go into blocks of four as the leaves are met, depth first, each
    // with its first corner and the two edges from it, subtracted in single precision as the
    // triangle test does it.
    m_numTriangles = numPrims;
    const auto emitLeaf = [&](const BuildNode& leaf) -> int
    {
        const int firstBlock = int(m_blocks.size());
        for (int i = 0; i < leaf.count; i += blockSize)
        {
            Block block{};
            for (int lane = 0; lane < blockSize; ++lane)
            {
                block.id[lane] = -1;
                if (i + lane >= leaf.count)
                    continue;
                const int tri = order[std::size_t(leaf.first + i + lane)];
                const int* c = tris + 3 * std::ptrdiff_t(tri);
                const float* p0 = verts + 3 * std::ptrdiff_t(c[0]);
                const float* p1 = verts + 3 * std::ptrdiff_t(c[1]);
                const float* p2 = verts + 3 * std::ptrdiff_t(c[2]);
                for (int k = 0; k < 3; ++k)
                {
                    block.rows[k][lane] = p0[k];
                    block.rows[3 + k][lane] = p1[k] - p0[k];
                    block.rows[6 + k][lane] = p2[k] - p0[k];
                }
                block.id[lane] = tri;
            }
            m_blocks.push_back(block);
        }
        return firstBlock;
    };
    if (numPrims > 0)
    {
        m_nodes.reserve(tree.size() / 3 + 1);
        m_blocks.reserve(std::size_t(numPrims / 2 + 1));
        const auto emit = [&](const auto& self, int treeNode) -> int
        {
            int kids[4] = {treeNode, -1, -1, -1};
            int numKids = 1;
            if (tree[std::size_t(treeNode)].count == 0)
            {
                // Open the inner child of largest area until there are four.
                kids[0] = tree[std::size_t(treeNode)].first;
                kids[1] = kids[0] + 1;
                numKids = 2;
                while (numKids < 4)
                {
                    int widest = -1;
                    for (int i = 0; i < numKids; ++i)
                        if (tree[std::size_t(kids[i])].count == 0 &&
                            (widest < 0 || area(tree[std::size_t(kids[i])].box) >
                                               area(tree[std::size_t(kids[widest])].box)))
                            widest = i;
                    if (widest < 0)
                        break;
                    const int first = tree[std::size_t(kids[widest])].first;
                    kids[widest] = first;
                    kids[numKids++] = first + 1;
                }
            }
            const int index = int(m_nodes.size());
            m_nodes.push_back(Node{});
            for (int i = 0; i < 4; ++i)
            {
                Node& node = m_nodes[std::size_t(index)];
                if (i >= numKids)
                {
                    for (int j = 0; j < 6; ++j)
                        node.bounds[j][i] = j < 3 ? std::numeric_limits<float>::infinity()
                                                  : -std::numeric_limits<float>::infinity();
                    node.child[i] = 0;
                    node.count[i] = -1;
                    continue;
                }
                const BuildNode& kid = tree[std::size_t(kids[i])];
                for (int j = 0; j < 6; ++j)
                    node.bounds[j][i] = kid.box[j];
                if (kid.count > 0)
                {
                    node.count[i] = numBlocks(kid.count);
                    node.child[i] = emitLeaf(kid);
                }
                else
                {
                    node.count[i] = 0;
                    const int inner = self(self, kids[i]);
                    m_nodes[std::size_t(index)].child[i] = inner;
                }
            }
            return index;
        };
        emit(emit, 0);
    }
    debugChannel().print("  built hierarchy: %f s (%d nodes)\n", watch.clear(),
                         int(m_nodes.size()));
}

template <bool anyHit> bool RayTracer::traverse(const Ray& ray, MeshRayHit* hit) const
{
    if (hit)
        *hit = MeshRayHit();
    if (m_nodes.empty())
        return false;
    const float orig[3] = {ray.origin().x, ray.origin().y, ray.origin().z};
    const double* dir = &ray.direction().x;
    const Slabs slab(ray);
    const double cull = detail::backfaceCullDistance();
    const Node* nodes = m_nodes.data();
    const Block* blocks = m_blocks.data();

    double best = ray.farDistance();
    int bestTri = -1;
    double bestU = 0, bestV = 0;
    float limit = limitOf(best);

    // Pending children (a node, or a leaf's first triangle and count) with the parameter at
    // which the ray enters them, so that one beginning beyond a hit found meanwhile is dropped
    // without testing its box again. A node pushes at most three.
    constexpr int stackSize = 3 * maxDepth;
    int stackChild[stackSize], stackCount[stackSize];
    float stackEntry[stackSize];
    int top = 0;
    int child = 0, count = 0; // the root node
    for (;;)
    {
        if (count > 0)
        {
            for (const Block *block = blocks + child, *end = block + count; block != end; ++block)
            {
                alignas(16) double det[4], t[4], u[4], v[4];
                int mask = detail::rayTriangleBlock(dir, orig, block->rows, det, t, u, v);
                for (; mask != 0; mask &= mask - 1)
                {
                    const int lane = std::countr_zero(unsigned(mask));
                    const double tl = t[lane];
                    if ((det[lane] < 0 && !(tl >= cull)) || !(tl > qyLinear::epsilonTol) ||
                        !(tl <= best) || !(tl < ray.farDistance()))
                        continue;
                    if (anyHit)
                        return true;
                    // Equal t: the lowest triangle number wins, as in a loop over all of them.
                    const int id = block->id[lane];
                    if (tl < best || bestTri < 0 || id < bestTri)
                    {
                        const double inv = 1.0 / det[lane];
                        best = tl;
                        bestTri = id;
                        bestU = u[lane] * inv;
                        bestV = v[lane] * inv;
                        limit = limitOf(best);
                    }
                }
            }
        }
        else
        {
            const Node& node = nodes[child];
            alignas(16) float entries[4];
            int mask = slab.test(node.bounds, limit, entries);
            // The children met, nearest first (a few of four: insertion order).
            int order[4], numHit = 0;
            for (; mask != 0; mask &= mask - 1)
            {
                const int lane = std::countr_zero(unsigned(mask));
                // Start fetching what the child holds: on incoherent rays the traversal waits
                // mostly for memory.
                if (node.count[lane] > 0)
                {
                    // The leaf's blocks, up to two of them: five cache lines.
                    const char* first = reinterpret_cast<const char*>(blocks + node.child[lane]);
                    const int bytes = int(sizeof(Block)) * std::min(node.count[lane], 2);
                    for (int offset = 0; offset < bytes; offset += 64)
                        __builtin_prefetch(first + offset);
                }
                else
                {
                    const char* first = reinterpret_cast<const char*>(nodes + node.child[lane]);
                    __builtin_prefetch(first);
                    __builtin_prefetch(first + 64);
                }
                int j = numHit++;
                for (; j > 0 && entries[order[j - 1]] > entries[lane]; --j)
                    order[j] = order[j - 1];
                order[j] = lane;
            }
            if (numHit > 0)
            {
                for (int j = numHit - 1; j > 0; --j)
                {
                    stackChild[top] = node.child[order[j]];
                    stackCount[top] = node.count[order[j]];
                    stackEntry[top++] = entries[order[j]];
                }
                child = node.child[order[0]];
                count = node.count[order[0]];
                continue;
            }
        }
        for (;;)
        {
            if (top == 0)
            {
                if (hit && bestTri >= 0)
                    *hit = MeshRayHit{bestTri, best, bestU, bestV};
                return bestTri >= 0;
            }
            --top;
            if (stackEntry[top] <= limit * slabWiden)
            {
                child = stackChild[top];
                count = stackCount[top];
                break;
            }
        }
    }
}

bool RayTracer::intersect(const Ray& ray, MeshRayHit& hit) const
{
    return traverse<false>(ray, &hit);
}

bool RayTracer::occluded(const Ray& ray) const
{
    return traverse<true>(ray, nullptr);
}

bool meshRayIntersect(const CompactMesh& mesh, const qyLinear::PointFlt& origin,
                      const qyLinear::Vector& direction, MeshRayHit& hit)
{
    const RayTracer tracer(mesh);
    return tracer.intersect(Ray(origin, direction), hit);
}

namespace
{

// Casts rays [begin, end) of a batch; `cast` answers for one ray, given its index, and
// returns 1 for a hit.
template <class Cast>
int castRange(int begin, int end, const float* origins, const double* directions, Cast cast)
{
    int hits = 0;
    for (int i = begin; i < end; ++i)
    {
        const std::ptrdiff_t k = 3 * std::ptrdiff_t(i);
        const Ray ray(qyLinear::PointFlt(origins[k], origins[k + 1], origins[k + 2]),
                      qyLinear::Vector(directions[k], directions[k + 1], directions[k + 2]));
        hits += cast(i, ray);
    }
    return hits;
}

template <class Cast>
int castBatch(const char* name, int numRays, const float* origins, const double* directions,
              Cast cast)
{
    debugChannel().print("%s: %d rays\n", name, numRays);
    qyOS::StopWatch watch;
    watch.start();
    int hits = 0;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (pool.getNumThreads() == 1)
        hits = castRange(0, numRays, origins, directions, cast);
    else
    {
        // Per-chunk counts, summed on the calling thread: chunks never share a counter.
        const int chunkSize = qyUtil::ThreadedChunkAlg::defaultChunkSize(numRays);
        std::vector<int> chunkHits(std::size_t((numRays + chunkSize - 1) / chunkSize));
        qyUtil::runChunks(
            pool, numRays,
            [&](qyUtil::ThreadedChunkAlg& job, int chunk, int begin, int end)
            {
                int n = 0;
                for (int b = begin; b < end; b += pollStride)
                {
                    if (!job.poll(chunk, b - begin, end - begin))
                        break;
                    n += castRange(b, std::min(end, b + pollStride), origins, directions, cast);
                }
                chunkHits[std::size_t(chunk)] = n;
            },
            nullptr, chunkSize);
        for (int n : chunkHits)
            hits += n;
    }
    debugChannel().print("  cast rays: %f s\n", watch.clear());
    return hits;
}

} // namespace

int meshRayIntersect(const RayTracer& tracer, int numRays, const float* origins,
                     const double* directions, MeshRayHit* hits)
{
    return castBatch("meshRayIntersect", numRays, origins, directions,
                     [&](int i, const Ray& ray) { return tracer.intersect(ray, hits[i]) ? 1 : 0; });
}

int meshRayOccluded(const RayTracer& tracer, int numRays, const float* origins,
                    const double* directions, unsigned char* occluded)
{
    return castBatch("meshRayOccluded", numRays, origins, directions,
                     [&](int i, const Ray& ray)
                     {
                         occluded[i] = tracer.occluded(ray) ? 1 : 0;
                         return int(occluded[i]);
                     });
}

} // namespace qyGeom
