// Ray casting over a mesh through a bounding-volume hierarchy: binned surface-area-heuristic
// build (Wald, "On fast construction of SAH-based bounding volume hierarchies", 2007),
// ordered depth-first traversal with the slab test, and the same ray/triangle arithmetic as
// intersectRayTriangle, so that the hierarchy finds exactly the hits of a loop over all
// triangles.
#include "qyGeom/meshRayIntersect.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

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
constexpr int maxLeafSize = 8;  // a leaf may hold more only when its centroids coincide
constexpr int minLeafSize = 2;  // ranges this small are never split
constexpr double nodeCost = 1;  // a box test against one ray/triangle test
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

struct Bin
{
    float box[6];
    int count;
};

// Entry parameter of the ray into the box, or infinity when it misses it before `limit`.
// NaN products (the origin on a slab's plane along an axis the ray does not move in) leave
// the interval as it was.
// The origin is given twice, moved outward for the near and for the far side of the slabs.
inline float entry(const float* box, const float* origNear, const float* origFar, const float* inv,
                   const int* nearIdx, const int* farIdx, float limit)
{
    float tNear = 0.0f, tFar = limit;
    for (int k = 0; k < 3; ++k)
    {
        const float a = (box[nearIdx[k]] - origNear[k]) * inv[k];
        const float b = (box[farIdx[k]] - origFar[k]) * inv[k];
        tNear = a > tNear ? a : tNear;
        tFar = b < tFar ? b : tFar;
    }
    return tNear <= tFar * slabWiden ? tNear : std::numeric_limits<float>::infinity();
}

// A limit in float that is never below the double it stands for.
inline float limitOf(double t)
{
    const float f = float(t);
    return double(f) < t ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
}

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

    const int numPrims = int(order.size());
    m_nodes.reserve(std::size_t(std::max(1, 2 * numPrims / minLeafSize)));
    m_nodes.push_back(Node{{0, 0, 0, 0, 0, 0}, 0, 0});

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
        Node& node = m_nodes[std::size_t(task.node)];
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
                const double cost = nodeCost + (double(area(acc)) * n +
                                                double(area(rightBoxes[b])) * rightCounts[b]) /
                                                   nodeArea;
                if (cost < bestCost)
                {
                    bestCost = cost;
                    bestAxis = axis;
                    bestBin = b;
                }
            }
        }
        if (bestAxis < 0 || (bestCost >= double(count) && count <= maxLeafSize))
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
        const int left = int(m_nodes.size());
        m_nodes.push_back(Node{});
        m_nodes.push_back(Node{});
        m_nodes[std::size_t(task.node)].first = left;
        m_nodes[std::size_t(task.node)].count = 0;
        tasks.push_back({left + 1, split, task.end, task.depth + 1});
        tasks.push_back({left, task.begin, split, task.depth + 1});
    }

    // Per triangle, in leaf order so that a leaf reads one contiguous run: the first corner
    // and the two edges from it, subtracted in single precision as the triangle test does it.
    m_corners.resize(9 * std::size_t(numPrims));
    m_triangleIds.assign(order.begin(), order.end());
    for (int i = 0; i < numPrims; ++i)
    {
        const int* c = tris + 3 * std::ptrdiff_t(order[std::size_t(i)]);
        const float* p0 = verts + 3 * std::ptrdiff_t(c[0]);
        const float* p1 = verts + 3 * std::ptrdiff_t(c[1]);
        const float* p2 = verts + 3 * std::ptrdiff_t(c[2]);
        float* out = m_corners.data() + 9 * std::size_t(i);
        for (int k = 0; k < 3; ++k)
        {
            out[k] = p0[k];
            out[3 + k] = p1[k] - p0[k];
            out[6 + k] = p2[k] - p0[k];
        }
    }
    // Children come in pairs from index 1 on. Moving everything one node on when needed makes
    // each pair fill one cache line: a node's two children are read with one miss.
    m_nodes.reserve(m_nodes.size() + 1);
    if (reinterpret_cast<std::uintptr_t>(m_nodes.data() + 1) % 64 != 0)
    {
        m_nodes.insert(m_nodes.begin(), Node{});
        for (Node& node : m_nodes)
            if (node.count == 0)
                ++node.first;
        m_root = 1;
    }
    debugChannel().print("  built hierarchy: %f s (%d nodes)\n", watch.clear(),
                         int(m_nodes.size()));
}

template <bool anyHit> bool RayTracer::traverse(const Ray& ray, MeshRayHit* hit) const
{
    const float orig[3] = {ray.origin().x, ray.origin().y, ray.origin().z};
    const double* dir = &ray.direction().x;
    const float* inv = ray.inverseDirection();
    const int nearIdx[3] = {ray.nearIndex(0), ray.nearIndex(1), ray.nearIndex(2)};
    const int farIdx[3] = {ray.farIndex(0), ray.farIndex(1), ray.farIndex(2)};
    float origNear[3], origFar[3];
    for (int k = 0; k < 3; ++k)
    {
        const float pad = std::abs(orig[k]) * padFactor;
        const float outward = nearIdx[k] < 3 ? pad : -pad; // the near side is the minimum
        origNear[k] = orig[k] + outward;
        origFar[k] = orig[k] - outward;
    }
    const double cull = detail::backfaceCullDistance();
    if (hit)
        *hit = MeshRayHit();
    if (m_triangleIds.empty())
        return false;
    const Node* nodes = m_nodes.data();
    const float* corners = m_corners.data();
    const int* ids = m_triangleIds.data();

    double best = ray.farDistance();
    int bestTri = -1;
    double bestU = 0, bestV = 0;
    float limit = limitOf(best);
    constexpr float miss = std::numeric_limits<float>::infinity();

    // Pending nodes with the parameter at which the ray enters them, so that a node beginning
    // beyond a hit found meanwhile is dropped without testing its box again.
    int stack[maxDepth];
    float stackEntry[maxDepth];
    int top = 0;
    int current = m_root;
    if (entry(nodes[current].box, origNear, origFar, inv, nearIdx, farIdx, limit) == miss)
        return false;
    for (;;)
    {
        const Node& node = nodes[current];
        if (node.count > 0)
        {
            for (int i = node.first, end = node.first + node.count; i < end; ++i)
            {
                const float* p = corners + 9 * std::ptrdiff_t(i);
                const double e1[3] = {p[3], p[4], p[5]}, e2[3] = {p[6], p[7], p[8]};
                double det, t, u, v;
                if (!detail::rayTriangleEdges(dir, orig, p, e1, e2, true, det, t, u, v) ||
                    (det < 0 && !(t >= cull)) || !(t > qyLinear::epsilonTol) || !(t <= best))
                    continue;
                if (!(t < ray.farDistance()))
                    continue;
                if (anyHit)
                    return true;
                // Equal t: the lowest triangle number wins, as in a loop over all of them.
                if (t < best || bestTri < 0 || ids[i] < bestTri)
                {
                    best = t;
                    bestTri = ids[i];
                    bestU = u;
                    bestV = v;
                    limit = limitOf(best);
                }
            }
        }
        else
        {
            const int left = node.first, right = node.first + 1;
            const float tLeft =
                entry(nodes[left].box, origNear, origFar, inv, nearIdx, farIdx, limit);
            const float tRight =
                entry(nodes[right].box, origNear, origFar, inv, nearIdx, farIdx, limit);
            if (tLeft != miss && tRight != miss)
            {
                const bool leftFirst = tLeft <= tRight;
                stackEntry[top] = leftFirst ? tRight : tLeft;
                stack[top++] = leftFirst ? right : left;
                current = leftFirst ? left : right;
                continue;
            }
            if (tLeft != miss || tRight != miss)
            {
                current = tLeft != miss ? left : right;
                continue;
            }
        }
        // Pop, skipping the nodes that begin beyond the nearest hit found since they were
        // pushed.
        for (;;)
        {
            if (top == 0)
            {
                if (hit)
                {
                    hit->triangle = bestTri;
                    hit->t = bestTri >= 0 ? best : 0;
                    hit->u = bestU;
                    hit->v = bestV;
                }
                return bestTri >= 0;
            }
            current = stack[--top];
            if (stackEntry[top] <= limit * slabWiden)
                break;
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
