// Bounding box of a mesh's vertices: per-task boxes over even shares, joined afterwards.
#include "qyGeom/meshBoundingBox.h"

#include <cfloat>
#include <cstddef>
#include <vector>

#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/BitVector.h"
#include "model/BoundingBox.h"
#include "model/PointMesh.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

struct FloatBox
{
    float min[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
    float max[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};

    void extend(const float* p)
    {
        for (int k = 0; k < 3; ++k)
        {
            if (p[k] < min[k])
                min[k] = p[k];
            if (p[k] > max[k])
                max[k] = p[k];
        }
    }
    void join(const FloatBox& other)
    {
        for (int k = 0; k < 3; ++k)
        {
            if (other.min[k] < min[k])
                min[k] = other.min[k];
            if (other.max[k] > max[k])
                max[k] = other.max[k];
        }
    }
};

// The one kernel of both drivers. Floats widen to double exactly, so boxes kept in float
// and joined in double give the same extents as a double loop.
FloatBox boxOfRange(const float* verts, const BitVector::Word* selection, int begin, int end)
{
    FloatBox box;
    if (!selection)
    {
        for (std::ptrdiff_t i = begin; i < end; ++i)
            box.extend(verts + 3 * i);
        return box;
    }
    for (int i = begin; i < end; ++i)
        if (selection[unsigned(i) >> 5] & (BitVector::Word(1) << (i & 31)))
            box.extend(verts + 3 * std::ptrdiff_t(i));
    return box;
}

class BoundingBoxAlg final : public qyUtil::ThreadedAlg
{
public:
    BoundingBoxAlg(const float* verts, int numVerts, const BitVector::Word* selection)
        : m_verts(verts), m_numVerts(numVerts), m_selection(selection)
    {
    }

    void initialize(int numTasks) override { m_boxes.assign(std::size_t(numTasks), FloatBox()); }

    void execute(int task, int numTasks) override
    {
        int begin, end;
        evenShare(m_numVerts, task, numTasks, begin, end);
        m_boxes[std::size_t(task)] = boxOfRange(m_verts, m_selection, begin, end);
    }

    const std::vector<FloatBox>& boxes() const { return m_boxes; }

private:
    const float* m_verts;
    int m_numVerts;
    const BitVector::Word* m_selection;
    std::vector<FloatBox> m_boxes;
};

} // namespace

void meshBoundingBox(const PointMesh& mesh, BoundingBox& box, const BitVector* selection)
{
    qyOS::StopWatch watch;
    watch.start();
    const int numVerts = mesh.getNumVertices();
    const float* verts = mesh.getVerticesRaw();
    const BitVector::Word* words = selection ? selection->getWords() : nullptr;

    // A task whose share holds no (selected) vertex keeps its start values, which are the
    // empty box, so joining it changes nothing.
    FloatBox all;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (pool.getNumThreads() == 1)
        all = boxOfRange(verts, words, 0, numVerts);
    else
    {
        BoundingBoxAlg job(verts, numVerts, words);
        pool.run(job);
        for (const FloatBox& part : job.boxes())
            all.join(part);
    }
    box = BoundingBox({all.min[0], all.min[1], all.min[2]}, {all.max[0], all.max[1], all.max[2]});
    debugChannel().print("meshBoundingBox: %d vertices  %f s\n", numVerts, watch.stop());
}

void meshBoundingBox(const PointMesh& mesh, BoundingBox& box)
{
    meshBoundingBox(mesh, box, nullptr);
}

void meshBoundingBox(const PointMesh& mesh, double* min, double* max)
{
    BoundingBox box;
    meshBoundingBox(mesh, box, nullptr);
    for (int k = 0; k < 3; ++k)
    {
        min[k] = box.minPt()[k];
        max[k] = box.maxPt()[k];
    }
}

} // namespace qyGeom
