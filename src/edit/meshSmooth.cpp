// Laplacian and bilateral smoothing of the selected vertices. The bilateral step follows
// Fleishman, Drori and Cohen-Or, "Bilateral Mesh Denoising" (2003), with the neighbourhood
// found by a flood over the vertex adjacency that stays inside the spatial kernel's radius.
//
// Both filters work the same way: the selected vertices are listed once into the result
// records, each record's new position is computed from the unchanged mesh alone, and the
// records are written back only when every one is done. A record depends on nothing but its
// own vertex, so the records may be shared among threads in any way and the floats are the same.
#include "qyGeom/meshSmooth.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/AppOutput.h"
#include "base/Linear.h"
#include "base/Progress.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

// Selected vertices between two cancellation polls and progress reports; also the block of
// records a thread takes at a time.
constexpr int pollStride = 1000;

// The pending result of one selected vertex: its index and its new position.
struct SmoothedVertex
{
    int vertex;
    float x, y, z;
};

// The selected vertices below numVerts (bits past the vertex count name no vertex).
int countSelected(const BitVector& selection, int numVerts)
{
    const int n = std::min(selection.size(), numVerts);
    const BitVector::Word* words = selection.getWords();
    int count = 0;
    for (int base = 0, w = 0; base < n; base += BitVector::bitsPerWord, ++w)
    {
        BitVector::Word bits = words[w];
        if (n - base < BitVector::bitsPerWord)
            bits &= (BitVector::Word(1) << (n - base)) - 1;
        count += std::popcount(bits);
    }
    return count;
}

// Writes the selected vertices' indices into the records, in ascending order.
void listSelected(const BitVector& selection, int numVerts, SmoothedVertex* records)
{
    const int n = std::min(selection.size(), numVerts);
    const BitVector::Word* words = selection.getWords();
    int k = 0;
    for (int base = 0, w = 0; base < n; base += BitVector::bitsPerWord, ++w)
    {
        BitVector::Word bits = words[w];
        if (n - base < BitVector::bitsPerWord)
            bits &= (BitVector::Word(1) << (n - base)) - 1;
        for (; bits != 0; bits &= bits - 1)
            records[k++].vertex = base + std::countr_zero(bits);
    }
}

// Runs worker(records, begin, end) over blocks of pollStride records. Each pool thread makes
// its own worker (the bilateral one carries scratch arrays) and takes the next free block
// when it is done with one, so a thread slowed by other work holds up no other. Returns false
// when the progress was cancelled; the records are then incomplete.
template <class MakeWorker> class SmoothJob final : public qyUtil::ThreadedAlg
{
public:
    SmoothJob(SmoothedVertex* records, int count, MakeWorker& makeWorker)
        : m_records(records), m_count(count), m_makeWorker(makeWorker)
    {
    }

    void execute(int task, int) override
    {
        auto worker = m_makeWorker();
        for (;;)
        {
            const int block = m_nextBlock.fetch_add(1, std::memory_order_relaxed);
            if (block >= (m_count + pollStride - 1) / pollStride || cancelled(task))
                return;
            const int begin = block * pollStride;
            const int end = std::min(m_count, begin + pollStride);
            worker(m_records, begin, end);
            updateProgress(task, double(end) / double(m_count));
        }
    }

private:
    SmoothedVertex* m_records;
    int m_count;
    MakeWorker& m_makeWorker;
    std::atomic<int> m_nextBlock{0};
};

template <class MakeWorker>
bool computePositions(SmoothedVertex* records, int count, qyUtil::Progress& progress,
                      MakeWorker makeWorker)
{
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (pool.getNumThreads() == 1 || count <= pollStride)
    {
        auto worker = makeWorker();
        for (int begin = 0; begin < count; begin += pollStride)
        {
            if (progress.cancelled())
                return false;
            progress.set(double(begin + 1) / double(count));
            worker(records, begin, std::min(count, begin + pollStride));
        }
        return true;
    }
    SmoothJob<MakeWorker> job(records, count, makeWorker);
    job.setProgress(&progress);
    pool.run(job);
    return !progress.cancelled();
}

// Copies the new positions into the mesh, frees the records and tells the mesh.
void writeBack(CompactMesh& mesh, std::unique_ptr<SmoothedVertex[]>& records, int count)
{
    float* vertices = mesh.getVerticesRaw();
    for (int i = 0; i < count; ++i)
    {
        const SmoothedVertex& r = records[std::size_t(i)];
        float* p = vertices + 3 * std::ptrdiff_t(r.vertex);
        p[0] = r.x;
        p[1] = r.y;
        p[2] = r.z;
    }
    records.reset();
    MeshModification change(&mesh, MeshModification::PositionsChanged, nullptr);
    mesh.modified(change);
}

// The plain average of each record's neighbours, summed in float in adjacency order.
struct LaplacianWorker
{
    const float* vertices;
    const int* starts;
    const int* data;

    void operator()(SmoothedVertex* records, int begin, int end) const
    {
        for (int i = begin; i < end; ++i)
        {
            SmoothedVertex& r = records[i];
            const int* record = data + starts[r.vertex];
            const int k = record[0];
            float x = 0.0f, y = 0.0f, z = 0.0f;
            for (int j = 1; j <= k; ++j)
            {
                const float* q = vertices + 3 * std::ptrdiff_t(record[j]);
                x += q[0];
                y += q[1];
                z += q[2];
            }
            const float fk = float(k);
            r.x = x / fk;
            r.y = y / fk;
            r.z = z / fk;
        }
    }
};

// Finds the vertices that the adjacency connects to a centre vertex through vertices inside a
// ball around it. Visits are marked with a stamp per mesh vertex that changes for every
// centre, so nothing is cleared between centres; the stack and the list of found vertices keep
// their capacity from one centre to the next.
class NeighbourhoodCollector
{
public:
    struct Entry
    {
        int vertex;
        double distance2; // squared distance from the centre
    };

    NeighbourhoodCollector(const MeshAdjVertices& adjacency, const float* vertices, int numVerts)
        : m_starts(adjacency.getStarts()), m_data(adjacency.getData()), m_vertices(vertices),
          m_numVerts(numVerts), m_stamps(std::make_unique<std::uint32_t[]>(std::size_t(numVerts)))
    {
        m_stack.reserve(1000);
        m_found.reserve(1000);
    }

    // The vertices within sqrt(radius2) of v's position `centre` reached from v by a
    // depth-first flood that enters no vertex outside the ball, in the order they were popped.
    const std::vector<Entry>& collect(int v, const qyLinear::Point& centre, double radius2)
    {
        nextStamp();
        m_centre = centre;
        m_radius2 = radius2;
        m_found.clear();
        m_stamps[std::size_t(v)] = m_stamp;
        expand(v);
        while (!m_stack.empty())
        {
            const Entry e = m_stack.back();
            m_stack.pop_back();
            m_found.push_back(e);
            expand(e.vertex);
        }
        return m_found;
    }

private:
    // Stamps run from 1 to 0xFFFFFFFE; before they would pass it, every mark is cleared.
    void nextStamp()
    {
        if (m_stamp == 0xFFFFFFFEu)
        {
            std::fill(m_stamps.get(), m_stamps.get() + m_numVerts, 0u);
            m_stamp = 1;
        }
        else
            ++m_stamp;
    }

    // Marks every unvisited neighbour of u and pushes those inside the ball. One outside is
    // marked too, so it is never entered from another side.
    void expand(int u)
    {
        const int* record = m_data + m_starts[u];
        const int k = record[0];
        for (int j = 1; j <= k; ++j)
        {
            const int w = record[j];
            std::uint32_t& stamp = m_stamps[std::size_t(w)];
            if (stamp == m_stamp)
                continue;
            stamp = m_stamp;
            const float* q = m_vertices + 3 * std::ptrdiff_t(w);
            const double distance2 = (qyLinear::Point(q[0], q[1], q[2]) - m_centre).lengthSquared();
            if (distance2 <= m_radius2)
                m_stack.push_back({w, distance2});
        }
    }

    const int* m_starts;
    const int* m_data;
    const float* m_vertices;
    int m_numVerts;
    qyLinear::Point m_centre;
    double m_radius2 = 0.0;
    std::vector<Entry> m_stack;
    std::vector<Entry> m_found;
    std::unique_ptr<std::uint32_t[]> m_stamps; // all 0: no vertex visited yet
    std::uint32_t m_stamp = 0;
};

class BilateralWorker
{
public:
    BilateralWorker(const MeshAdjVertices& adjacency, const float* vertices, const float* normals,
                    int numVerts, double sigma)
        : m_collector(adjacency, vertices, numVerts), m_vertices(vertices), m_normals(normals),
          m_sigma2(sigma * sigma)
    {
        m_heights.reserve(1000);
    }

    void operator()(SmoothedVertex* records, int begin, int end)
    {
        for (int i = begin; i < end; ++i)
            smooth(records[i]);
    }

private:
    void smooth(SmoothedVertex& r)
    {
        const float* pv = m_vertices + 3 * std::ptrdiff_t(r.vertex);
        r.x = pv[0]; // kept unless the vertex moves
        r.y = pv[1];
        r.z = pv[2];
        const float* nv = m_normals + 3 * std::ptrdiff_t(r.vertex);
        const qyLinear::Normal n(qyLinear::Vector(nv[0], nv[1], nv[2]));
        if (!n.isValid())
            return;
        const qyLinear::Point p(pv[0], pv[1], pv[2]);
        const std::vector<NeighbourhoodCollector::Entry>& found =
            m_collector.collect(r.vertex, p, m_sigma2);
        if (found.empty())
            return;

        const qyLinear::Plane tangent(p, n);
        const double count = double(found.size());
        m_heights.clear();
        double sum = 0.0;
        for (const NeighbourhoodCollector::Entry& e : found)
        {
            const float* q = m_vertices + 3 * std::ptrdiff_t(e.vertex);
            const double h = tangent.eval(qyLinear::Point(q[0], q[1], q[2]));
            m_heights.push_back(h);
            sum += h;
        }
        const double mean = sum / count;
        double deviation2 = 0.0;
        for (double h : m_heights)
            deviation2 += (h - mean) * (h - mean);
        const double variance = deviation2 / count;
        // Heights all alike (a flat neighbourhood, or a ring at one level): no feature to keep
        // and no noise to remove, and the range kernel would divide by zero.
        if (variance < qyLinear::epsilonTol)
            return;

        const double twoSigma2 = 2.0 * m_sigma2;
        const double twoVariance = 2.0 * variance;
        double S = 0.0, W = 0.0;
        for (std::size_t j = 0; j < found.size(); ++j)
        {
            const double h = m_heights[j];
            const double wc = std::exp(-found[j].distance2 / twoSigma2);
            const double ws = std::exp(-h * h / twoVariance);
            S += h * wc * ws;
            W += wc * ws;
        }
        if (W < qyLinear::epsilonTol)
            return;
        const double offset = S / W;
        r.x = float(p.x + n.x() * offset);
        r.y = float(p.y + n.y() * offset);
        r.z = float(p.z + n.z() * offset);
    }

    NeighbourhoodCollector m_collector;
    const float* m_vertices;
    const float* m_normals;
    double m_sigma2;
    std::vector<double> m_heights; // of the current neighbourhood, in collection order
};

} // namespace

void meshSmoothLaplacian(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                         qyUtil::Progress& progress)
{
    const int numVerts = mesh.getNumVertices();
    assert(adjacency.getNumVertices() == numVerts);
    const int count = countSelected(mesh.getSelectedVertices(), numVerts);
    debugChannel().print("meshSmoothLaplacian: %d vertices, %d triangles, %d selected\n", numVerts,
                         mesh.getNumTriangles(), count);
    qyOS::StopWatch watch;
    watch.start();

    std::unique_ptr<SmoothedVertex[]> records =
        std::make_unique_for_overwrite<SmoothedVertex[]>(std::size_t(count));
    listSelected(mesh.getSelectedVertices(), numVerts, records.get());
    const LaplacianWorker worker{mesh.getVerticesRaw(), adjacency.getStarts(), adjacency.getData()};
    if (!computePositions(records.get(), count, progress, [&] { return worker; }))
        return;
    debugChannel().print("  averaged neighbours: %f s\n", watch.clear());

    writeBack(mesh, records, count);
    debugChannel().print("  wrote positions: %f s\n", watch.clear());
}

void meshSmoothBilateral(CompactMesh& mesh, const MeshAdjVertices& adjacency, double sigma,
                         qyUtil::Progress& progress)
{
    const int numVerts = mesh.getNumVertices();
    assert(adjacency.getNumVertices() == numVerts);
    const int count = countSelected(mesh.getSelectedVertices(), numVerts);
    debugChannel().print("meshSmoothBilateral: %d vertices, %d triangles, %d selected\n", numVerts,
                         mesh.getNumTriangles(), count);
    if (count == 0)
        return;
    const float* normals = mesh.getNormalsRaw();
    if (!normals)
    {
        qyOS::AppOutput::getInstance().error(
            "Smoothing needs vertex normals, none found. No changes made.\n");
        return;
    }
    qyOS::StopWatch watch;
    watch.start();

    std::unique_ptr<SmoothedVertex[]> records =
        std::make_unique_for_overwrite<SmoothedVertex[]>(std::size_t(count));
    listSelected(mesh.getSelectedVertices(), numVerts, records.get());
    const float* vertices = mesh.getVerticesRaw();
    if (!computePositions(
            records.get(), count, progress,
            [&] { return BilateralWorker(adjacency, vertices, normals, numVerts, sigma); }))
        return;
    debugChannel().print("  filtered heights: %f s\n", watch.clear());

    writeBack(mesh, records, count);
    debugChannel().print("  wrote positions: %f s\n", watch.clear());
}

} // namespace qyGeom
