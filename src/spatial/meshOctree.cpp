// Triangles and lines per octree voxel. Each pool task walks an even share of the elements in
// order and emits (voxel, element) pairs; the pairs are merged in task order and bucketed by
// voxel with one counting sort (ArrayOfSets::assignFromPairs), so every voxel lists its
// elements in increasing order whatever the thread count.
//
// Box/triangle overlap: separating-axis test after T. Akenine-Moller, "Fast 3D Triangle-Box
// Overlap Testing", Journal of Graphics Tools 6(1), 2001, with an exact bounding-box reject
// and an exact accept when a corner lies in the box placed first.
#include "qyGeom/meshOctree.h"

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/MeshElements.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

// Tasks poll for cancellation (another task's failure) and report progress this often.
constexpr int pollStride = 200;

// Boxes below are 6 floats: min x, y, z, max x, y, z.
inline bool insideBox(const float* box, const float* p)
{
    return p[0] >= box[0] && p[0] <= box[3] && p[1] >= box[1] && p[1] <= box[4] && p[2] >= box[2] &&
           p[2] <= box[5];
}

inline float min3(float a, float b, float c)
{
    const float ab = a < b ? a : b;
    return c < ab ? c : ab;
}

inline float max3(float a, float b, float c)
{
    const float ab = a > b ? a : b;
    return c > ab ? c : ab;
}

// Centre and half extents of a box; the separating axes other than the box's own are tested
// in coordinates centred on the box, which keeps the products small.
inline void centreAndHalf(const float* box, float* centre, float* half)
{
    for (int k = 0; k < 3; ++k)
    {
        centre[k] = box[k] * 0.5f + box[k + 3] * 0.5f;
        half[k] = box[k + 3] * 0.5f - box[k] * 0.5f;
    }
}

// Separation along an axis given by two projections of the element and the box radius.
inline bool separated(float pa, float pb, float radius)
{
    return (pa < pb ? pa : pb) > radius || (pa > pb ? pa : pb) < -radius;
}

// Coordinates must be finite (callers check).
bool triBoxOverlap(const float* box, const float* a, const float* b, const float* c)
{
    for (int k = 0; k < 3; ++k)
        if (max3(a[k], b[k], c[k]) < box[k] || min3(a[k], b[k], c[k]) > box[k + 3])
            return false;
    if (insideBox(box, a) || insideBox(box, b) || insideBox(box, c))
        return true;

    float centre[3], h[3], v0[3], v1[3], v2[3], e0[3], e1[3], e2[3];
    centreAndHalf(box, centre, h);
    for (int k = 0; k < 3; ++k)
    {
        v0[k] = a[k] - centre[k];
        v1[k] = b[k] - centre[k];
        v2[k] = c[k] - centre[k];
    }
    for (int k = 0; k < 3; ++k)
    {
        e0[k] = v1[k] - v0[k];
        e1[k] = v2[k] - v1[k];
        e2[k] = v0[k] - v2[k];
    }

    // The plane of the triangle against the box: the box corners nearest and farthest along
    // the normal must lie on either side. A zero normal (degenerate triangle) never
    // separates; the edge axes decide then.
    const float n[3] = {e0[1] * e1[2] - e0[2] * e1[1], e0[2] * e1[0] - e0[0] * e1[2],
                        e0[0] * e1[1] - e0[1] * e1[0]};
    float nearDot = 0.0f, farDot = 0.0f;
    for (int k = 0; k < 3; ++k)
    {
        const float lo = -h[k] - v0[k], hi = h[k] - v0[k];
        nearDot += n[k] * (n[k] > 0.0f ? lo : hi);
        farDot += n[k] * (n[k] > 0.0f ? hi : lo);
    }
    if (nearDot > 0.0f || farDot < 0.0f)
        return false;

    // Axis (box axis) x (edge). Along each, the two ends of the edge project to one value,
    // so one end and the opposite corner are enough.
    auto edgeAxes = [&](const float* e, const float* p, const float* q)
    {
        const float ax = std::fabs(e[0]), ay = std::fabs(e[1]), az = std::fabs(e[2]);
        // x: (0, -ez, ey)
        if (separated(-e[2] * p[1] + e[1] * p[2], -e[2] * q[1] + e[1] * q[2],
                      az * h[1] + ay * h[2]))
            return true;
        // y: (ez, 0, -ex)
        if (separated(e[2] * p[0] - e[0] * p[2], e[2] * q[0] - e[0] * q[2], az * h[0] + ax * h[2]))
            return true;
        // z: (-ey, ex, 0)
        return separated(-e[1] * p[0] + e[0] * p[1], -e[1] * q[0] + e[0] * q[1],
                         ay * h[0] + ax * h[1]);
    };
    return !edgeAxes(e0, v0, v2) && !edgeAxes(e1, v0, v1) && !edgeAxes(e2, v0, v1);
}

bool segmentBoxOverlap(const float* box, const float* a, const float* b)
{
    for (int k = 0; k < 3; ++k)
        if ((a[k] < box[k] && b[k] < box[k]) || (a[k] > box[k + 3] && b[k] > box[k + 3]))
            return false;
    if (insideBox(box, a) || insideBox(box, b))
        return true;

    float centre[3], h[3], v[3], d[3];
    centreAndHalf(box, centre, h);
    for (int k = 0; k < 3; ++k)
    {
        v[k] = a[k] - centre[k];
        d[k] = b[k] - a[k];
    }
    // Axis (box axis) x (direction): the segment projects to one point.
    const float ax = std::fabs(d[0]), ay = std::fabs(d[1]), az = std::fabs(d[2]);
    return std::fabs(-d[2] * v[1] + d[1] * v[2]) <= az * h[1] + ay * h[2] &&
           std::fabs(d[2] * v[0] - d[0] * v[2]) <= az * h[0] + ax * h[2] &&
           std::fabs(-d[1] * v[0] + d[0] * v[1]) <= ay * h[0] + ax * h[1];
}

inline bool finite3(const float* p)
{
    return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

// The box as 6 floats, rounded to nearest; false when a coordinate is not finite or the box
// is empty.
bool floatBox(const BoundingBox& box, float* out)
{
    for (int k = 0; k < 3; ++k)
    {
        const double lo = box.minPt()[k], hi = box.maxPt()[k];
        // Converting a double beyond the float range is undefined.
        if (!(std::fabs(lo) <= double(FLT_MAX) && std::fabs(hi) <= double(FLT_MAX)))
            return false;
        out[k] = float(lo);
        out[k + 3] = float(hi);
    }
    return finite3(out) && finite3(out + 3) && out[0] <= out[3] && out[1] <= out[4] &&
           out[2] <= out[5];
}

// The two element kinds: corners of element i (false when it has an index outside the
// vertex array) and the exact overlap test.
struct TriangleElements
{
    static constexpr int numCorners = 3;
    const float* verts;
    int numVerts;
    const int* indices;

    bool corners(int i, const float** p) const
    {
        const int* tri = indices + 3 * std::ptrdiff_t(i);
        for (int k = 0; k < 3; ++k)
        {
            if (unsigned(tri[k]) >= unsigned(numVerts))
                return false;
            p[k] = verts + 3 * std::ptrdiff_t(tri[k]);
        }
        return true;
    }
    static bool overlap(const float* box, const float* const* p)
    {
        return triBoxOverlap(box, p[0], p[1], p[2]);
    }
};

struct LineElements
{
    static constexpr int numCorners = 2;
    const float* verts;
    int numVerts;
    const int* indices;

    bool corners(int i, const float** p) const
    {
        const int* line = indices + 2 * std::ptrdiff_t(i);
        for (int k = 0; k < 2; ++k)
        {
            if (unsigned(line[k]) >= unsigned(numVerts))
                return false;
            p[k] = verts + 3 * std::ptrdiff_t(line[k]);
        }
        return true;
    }
    static bool overlap(const float* box, const float* const* p)
    {
        return segmentBoxOverlap(box, p[0], p[1]);
    }
};

// What one task produced: (voxel, element) pairs as consecutive ints, and its coherent hits.
// The records of all tasks sit side by side, so the kernel works on locals and stores them
// at the end: writing the records as it goes would make the tasks share cache lines.
struct TaskRecord
{
    std::vector<int> pairs;
    int coherent = 0;
};

// The one kernel of both drivers: elements [begin, end) in order. `job` is null on the
// sequential path.
template <class Elements>
void partitionRange(const Elements& elements, const Octree& octree, int begin, int end,
                    TaskRecord& record, qyUtil::ThreadedAlgBase* job, int task)
{
    constexpr int n = Elements::numCorners;
    OctreeBBoxIntersectIt it(octree);
    const float* lastBox = nullptr;
    int lastVoxel = -1, coherent = 0;
    std::vector<int> pairs;
    pairs.swap(record.pairs);
    for (int i = begin; i < end; ++i)
    {
        if (job && (i - begin) % pollStride == 0)
        {
            if (job->cancelled(task))
                break;
            job->updateProgress(task, double(i - begin) / double(end - begin));
        }
        const float* p[n];
        if (!elements.corners(i, p))
            continue;
        bool finite = true;
        for (int c = 0; c < n; ++c)
            finite = finite && finite3(p[c]);
        if (!finite)
            continue;
        float lo[3], hi[3];
        for (int k = 0; k < 3; ++k)
        {
            lo[k] = hi[k] = p[0][k];
            for (int c = 1; c < n; ++c)
            {
                lo[k] = p[c][k] < lo[k] ? p[c][k] : lo[k];
                hi[k] = p[c][k] > hi[k] ? p[c][k] : hi[k];
            }
        }

        // Strictly inside the previous voxel: no other voxel can meet the element's box, and
        // the corners lie in this one, so the search would find exactly this voxel.
        if (lastBox && lo[0] > lastBox[0] && lo[1] > lastBox[1] && lo[2] > lastBox[2] &&
            hi[0] < lastBox[3] && hi[1] < lastBox[4] && hi[2] < lastBox[5])
        {
            pairs.push_back(lastVoxel);
            pairs.push_back(i);
            ++coherent;
            continue;
        }
        it.reset(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]);
        for (; it.valid(); it.next())
        {
            const OctreeIterator leaf = it.get();
            lastBox = leaf.getBoxRaw();
            lastVoxel = leaf.getVoxel();
            if (Elements::overlap(lastBox, p))
            {
                pairs.push_back(lastVoxel);
                pairs.push_back(i);
            }
        }
    }
    record.pairs.swap(pairs);
    record.coherent = coherent;
}

// Task k of n takes an even share of the elements and room for twice its share of pairs.
template <class Elements> class PartitionAlg final : public qyUtil::ThreadedAlg
{
public:
    PartitionAlg(const Elements& elements, int count, const Octree& octree)
        : m_elements(elements), m_count(count), m_octree(octree)
    {
    }

    void initialize(int numTasks) override { m_tasks.assign(std::size_t(numTasks), {}); }

    void execute(int task, int numTasks) override
    {
        int begin, end;
        evenShare(m_count, task, numTasks, begin, end);
        TaskRecord& record = m_tasks[std::size_t(task)];
        record.pairs.reserve(2 * (2 * std::size_t(m_count) / std::size_t(numTasks)));
        partitionRange(m_elements, m_octree, begin, end, record, this, task);
    }

    std::vector<TaskRecord>& tasks() { return m_tasks; }

private:
    Elements m_elements;
    int m_count;
    const Octree& m_octree;
    std::vector<TaskRecord> m_tasks;
};

using TriPartitionAlg = PartitionAlg<TriangleElements>;
using LinePartitionAlg = PartitionAlg<LineElements>;

// Runs the partition job (its kernel directly on a one-thread pool) and buckets the pairs by
// voxel.
template <class Alg, class Elements>
ArrayOfSets partition(const Elements& elements, int count, const Octree& octree, int& coherent,
                      int& numPairs)
{
    std::vector<TaskRecord> tasks;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (pool.getNumThreads() == 1)
    {
        tasks.resize(1);
        tasks[0].pairs.reserve(2 * (2 * std::size_t(count)));
        partitionRange(elements, octree, 0, count, tasks[0], nullptr, 0);
    }
    else
    {
        Alg job(elements, count, octree);
        pool.run(job);
        tasks = std::move(job.tasks());
    }

    std::size_t total = 0;
    coherent = 0;
    for (const TaskRecord& t : tasks)
    {
        total += t.pairs.size();
        coherent += t.coherent;
    }
    // ArrayOfSets counts members in int.
    if (total / 2 > std::size_t(INT_MAX))
        throw std::bad_alloc();
    std::vector<int> merged;
    if (tasks.size() == 1)
        merged.swap(tasks[0].pairs);
    else
    {
        merged.resize(total);
        std::size_t at = 0;
        for (TaskRecord& t : tasks)
        {
            if (!t.pairs.empty())
                std::memcpy(merged.data() + at, t.pairs.data(), t.pairs.size() * sizeof(int));
            at += t.pairs.size();
            std::vector<int>().swap(t.pairs);
        }
    }
    numPairs = int(total / 2);
    ArrayOfSets sets;
    sets.assignFromPairs(octree.getNumVoxels(), numPairs, merged.data());
    return sets;
}

} // namespace

void computeOctreeTris(const CompactMesh& mesh, const Octree& octree, OctreeTris& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int voxels = octree.getNumVoxels();
    if (voxels < 1)
        return;
    const int numTris = mesh.getNumTriangles();
    const TriangleElements elements{mesh.getVerticesRaw(), mesh.getNumVertices(),
                                    mesh.getTrianglesRaw()};
    int coherent = 0, numPairs = 0;
    OctreeTris result(partition<TriPartitionAlg>(elements, numTris, octree, coherent, numPairs));
    out.swap(result);
    const double seconds = watch.stop();
    debugChannel().print("OctreeTris:  Partitioned %d triangles into %d voxels in %.3f seconds.\n"
                         "             (%.2f coherence, %.2f voxels/tri, %.0f tri/sec)\n",
                         numTris, voxels, seconds, float(coherent) / float(numTris),
                         float(numPairs) / float(numTris), float(numTris) / float(seconds));
}

void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int voxels = octree.getNumVoxels();
    if (voxels < 1)
        return;
    const int numLines = mesh.getNumLines();
    const LineElements elements{mesh.getVerticesRaw(), mesh.getNumVertices(),
                                reinterpret_cast<const int*>(mesh.getLines())};
    int coherent = 0, numPairs = 0;
    OctreeLines result(partition<LinePartitionAlg>(elements, numLines, octree, coherent, numPairs));
    out.swap(result);
    const double seconds = watch.stop();
    debugChannel().print("OctreeLines:  Partitioned %d lines into %d voxels in %.3f seconds.\n"
                         "             (%.2f coherence, %.2f duplication, %.0f tri/sec)\n",
                         numLines, voxels, seconds, float(coherent) / float(numLines),
                         float(numPairs) / float(numLines), float(numLines) / float(seconds));
}

void meshTriBoundingBox(const MeshVertex* vertices, const MeshTriangle& triangle, BoundingBox& box)
{
    for (int k = 0; k < 3; ++k)
        box.extend(vertices[triangle[k]].asPoint());
}

bool intersects(const BoundingBox& box, const float* p0, const float* p1, const float* p2)
{
    float b[6];
    return floatBox(box, b) && finite3(p0) && finite3(p1) && finite3(p2) &&
           triBoxOverlap(b, p0, p1, p2);
}

bool intersects(const BoundingBox& box, const float* p0, const float* p1)
{
    float b[6];
    return floatBox(box, b) && finite3(p0) && finite3(p1) && segmentBoxOverlap(b, p0, p1);
}

} // namespace qyGeom
