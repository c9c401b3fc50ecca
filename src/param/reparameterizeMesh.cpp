// Conformal flattening: the cotangent (Dirichlet) energy minus the signed area of the layout
// with two pinned boundary vertices (Lévy et al. 2002, "Least squares conformal maps";
// Desbrun, Meyer and Alliez 2002, "Intrinsic parameterizations of surface meshes").
#include "qyGeom/reparameterizeMesh.h"

#include <algorithm>
#include <cmath>

#include "base/AppOutput.h"
#include "base/Linear.h"
#include "base/Progress.h"
#include "base/StopWatch.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "model/debugChannel.h"
#include "qyGeom/ConjugateGradient.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/SparseMatrix.h"
#include "qyGeom/cutSurface.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/polygonTriangulate.h"

namespace qyGeom
{

// The two rows (u and v) of one vertex while its triangles are added, with the matrix's own
// add-or-append rule. Every entry of those rows comes from that vertex's triangles, so the rows
// are complete when its last triangle is in; they then go to the solver's matrix without the
// entries that cancelled to exactly zero (the area terms of interior edges). The sums that
// the solver forms are unchanged, as adding 0.0 changes no sum, and each step reads about a
// third fewer entries.
struct VertexRows
{
    qy::vector<SparseElement> row[2];
    int first = 0; // matrix row of row[0]

    void add(int r, int column, double value)
    {
        qy::vector<SparseElement>& entries = row[r - first];
        for (std::size_t i = entries.size(); i-- > 0;)
            if (entries[i].column == column)
            {
                entries[i].value += value;
                return;
            }
        entries.emplace_back(column, value);
    }

    void flushTo(SparseMatrix& A)
    {
        for (int k = 0; k < 2; ++k)
        {
            // One allocation of the final size per row keeps the rows packed in memory, in
            // the order the solver reads them. The columns are distinct, so appending is what
            // adding would do.
            qy::vector<SparseElement>& out = A.row(first + k);
            std::size_t count = 0;
            for (const SparseElement& e : row[k])
                count += e.value != 0.0 || e.column == first + k;
            out.reserve(out.size() + count);
            for (const SparseElement& e : row[k])
                if (e.value != 0.0 || e.column == first + k)
                    out.push_back(e);
            row[k].clear();
        }
    }
};

namespace
{

int countBoundaries(const CompactMesh& m)
{
    MeshAdjTris adjTris;
    meshAdjTris(m, adjTris);
    MeshAdjVertices adjVertices;
    meshAdjVertices(m, adjTris, adjVertices);
    MeshBoundaries boundaries;
    meshComputeBoundary(m, adjTris, adjVertices, boundaries);
    return boundaries.size();
}

// The first vertex used by a triangle of `m` with a coordinate that is infinite or NaN, or -1.
// Corners outside the vertex array are left to the degenerate-triangle test.
int firstNonFiniteCorner(const CompactMesh& m)
{
    const int numVertices = m.getNumVertices();
    const float* xyz = m.getVerticesRaw();
    const int* tris = m.getTrianglesRaw();
    int first = -1;
    for (std::size_t i = 0; i < 3 * std::size_t(m.getNumTriangles()); ++i)
    {
        const int v = tris[i];
        if (v < 0 || v >= numVertices || (first >= 0 && v >= first))
            continue;
        const float* p = xyz + 3 * std::size_t(v);
        if (!(std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2])))
            first = v;
    }
    return first;
}

// The power of two that scales the distance between the pinned points a and b (in the
// layout's plane) to about 2^20; 1 when they coincide or lie at a non-finite distance.
double solveUnit(const qyLinear::Point& a, const qyLinear::Point& b)
{
    const double distance = std::hypot(a.x - b.x, a.y - b.y);
    if (!(distance > 0.0) || !std::isfinite(distance))
        return 1.0;
    return std::ldexp(1.0, 20 - std::ilogb(distance));
}

} // namespace

struct reparameterizeMesh::Impl
{
    explicit Impl(CompactMesh& mesh_)
        : mesh(mesh_), work(mesh_), output(qyOS::AppOutput::getInstance())
    {
    }

    bool flatten(qyUtil::Progress& progress);
    void prepareMesh(qyUtil::Progress& progress, Remap& remap);
    void dropUnusedVertices(Remap& remap);
    int getMeshGenus(qy::vector<Boundary>& boundaries);
    bool testDegenerate(int numTriangles, const int* triangles) const;
    int getExtremeVerts(const qy::vector<Boundary>& boundaries, int extreme[2]) const;
    qyLinear::AffineMatrix determineRotMatrix(const Boundary& outer, const int extreme[2]);
    void rotateAndProject(const Boundary& outer, qy::vector<qyLinear::Point>& points,
                          const int extreme[2]);
    void buildFreeIndex(qy::vector<int>& freeIndex, const int extreme[2]) const;
    void fillHoles(const qy::vector<Boundary>& boundaries, int outer,
                   const qy::vector<int>& freeIndex, qy::vector<MeshTriangle>& holeTriangles);
    void setupTriangle(VertexRows& rows, NVector& rhs, int i, int j, int k,
                       const qyLinear::Point& Pi, const qyLinear::Point& Pj,
                       const qyLinear::Point& Pk);
    void setupVertexCG(const MeshAdjTris& adjTris, ConjugateGradient& cg, NVector& rhs, int v,
                       const qy::vector<int>& freeIndex, const qy::vector<qyLinear::Point>& points,
                       const qy::vector<MeshTriangle>& holeTriangles,
                       const qy::vector<int>& holeStart, const qy::vector<int>& holeList);
    int doCG(qy::vector<qyLinear::Point2>& uvs, int pin0, int pin1,
             const qy::vector<qyLinear::Point>& points, const qy::vector<int>& freeIndex,
             const qy::vector<MeshTriangle>& holeTriangles, qyUtil::Progress& progress);
    bool usedUvsFinite(const qy::vector<qyLinear::Point2>& uvs);
    void applyUvsToMesh(const qy::vector<qyLinear::Point2>& uvs, const Remap& remap);

    CompactMesh& mesh;
    CompactMesh work;
    SimpleMeshCache cache;
    qyOS::AppOutput& output;
    bool compactEnabled = true;
    bool cutEnabled = true;
    void setStatus(FlattenStatus status);

    /// False once a run has welded or cut work: the next run starts from a fresh copy.
    bool workIsCopy = true;

    FlattenStatus lastStatus = FlattenStatus::Ok;
    std::string failure; // describe(lastStatus), with the vertex for NonFiniteVertex
};

reparameterizeMesh::reparameterizeMesh(CompactMesh& mesh) : m_impl(std::make_unique<Impl>(mesh)) {}

reparameterizeMesh::~reparameterizeMesh() = default;

void reparameterizeMesh::enableMeshCompact(bool enable)
{
    m_impl->compactEnabled = enable;
}

void reparameterizeMesh::enableMeshCutSurface(bool enable)
{
    m_impl->cutEnabled = enable;
}

FlattenStatus reparameterizeMesh::status() const
{
    return m_impl->lastStatus;
}

const std::string& reparameterizeMesh::failureReason() const
{
    return m_impl->failure;
}

bool reparameterizeMesh::flatten(qyUtil::Progress& progress)
{
    return m_impl->flatten(progress);
}

bool reparameterizeMesh::flatten()
{
    qyUtil::Progress progress;
    return flatten(progress);
}

const char* reparameterizeMesh::describe(FlattenStatus status)
{
    switch (status)
    {
    case FlattenStatus::Ok:
        return "";
    case FlattenStatus::Cancelled:
        return "cancelled";
    case FlattenStatus::NonFiniteVertex:
        return "a coordinate is not a finite number";
    case FlattenStatus::DegenerateTriangle:
        return "a triangle repeats a corner or names a vertex that does not exist";
    case FlattenStatus::ShortBoundary:
        return "a boundary loop has fewer than three edges";
    case FlattenStatus::SeveralPieces:
        return "the Euler characteristic is above 2 (several pieces, or not a surface)";
    case FlattenStatus::NotADisk:
        return "the surface is closed or has handles, and cutting is off";
    case FlattenStatus::CutFailed:
        return "cutting the surface did not give a disk";
    case FlattenStatus::NoOuterBoundary:
        return "no boundary loop has any extent";
    case FlattenStatus::SolverFailed:
        return "the solver met negative curvature (the system is not positive definite)";
    case FlattenStatus::NonFiniteLayout:
        return "the solved layout is not finite (the vertices span too many orders of "
               "magnitude for the solver)";
    }
    return "";
}

void reparameterizeMesh::Impl::setStatus(FlattenStatus status)
{
    lastStatus = status;
    failure = describe(status);
}

bool reparameterizeMesh::Impl::flatten(qyUtil::Progress& progress)
{
    setStatus(FlattenStatus::Ok);
    // Every early return below gives false; a cancelled progress is the reason whatever the
    // step found, and a step that set its own reason (getMeshGenus) keeps it.
    auto fail = [&](FlattenStatus why = FlattenStatus::Ok)
    {
        if (progress.cancelled())
            setStatus(FlattenStatus::Cancelled);
        else if (why != FlattenStatus::Ok)
            setStatus(why);
        return false;
    };
    qyUtil::Progress child;
    Remap remap;
    progress.subPhase(0.025, child);
    child.setCaption("Copying Mesh");
    prepareMesh(child, remap);
    if (progress.cancelled())
        return fail();
    // A non-finite corner would make every later step meaningless (and the hole filling's
    // projection undefined): refuse it here, naming the caller's vertex.
    const int badVertex = firstNonFiniteCorner(mesh);
    if (badVertex >= 0)
    {
        setStatus(FlattenStatus::NonFiniteVertex);
        failure = "vertex " + std::to_string(badVertex) + " of a triangle: " + failure;
        return false;
    }

    progress.subPhase(0.1, child);
    child.setCaption("Finding Mesh Boundaries");
    qy::vector<Boundary> boundaries;
    int genus = getMeshGenus(boundaries);
    output.info("- - - MeshReparameterize: genus = %d\n", genus);
    if (genus < 0 || progress.cancelled())
        return fail();
    if (genus > 0 || boundaries.empty())
    {
        if (!cutEnabled)
            return fail(FlattenStatus::NotADisk);
        // The cut keeps every vertex index and appends the copies, so remap stays valid.
        CutRegion region;
        cutSurface(work, region, true, child);
        if (progress.cancelled())
            return fail();
        boundaries.clear();
        genus = getMeshGenus(boundaries);
        if (genus < 0 || progress.cancelled())
            return fail();
        if (genus != 0)
            return fail(FlattenStatus::CutFailed);
    }

    progress.subPhase(0.025, child);
    child.setCaption("Getting Extreme Vertices");
    int extreme[2] = {-1, -1};
    const int outer = getExtremeVerts(boundaries, extreme);
    if (outer < 0)
    {
        output.error("There must be a boundary for the disk, none found. No changes made.\n");
        output.info("- - - MeshReparameterize: outerBoundary = %d\n", outer);
        return fail(FlattenStatus::NoOuterBoundary);
    }
    if (progress.cancelled())
        return fail();

    progress.subPhase(0.025, child);
    child.setCaption("Creating Plane");
    qy::vector<qyLinear::Point> points;
    rotateAndProject(boundaries[std::size_t(outer)], points, extreme);
    if (progress.cancelled())
        return fail();

    progress.subPhase(0.025, child);
    qy::vector<int> freeIndex;
    buildFreeIndex(freeIndex, extreme);
    if (progress.cancelled())
        return fail();

    progress.subPhase(0.025, child);
    child.setCaption("Filling Mesh Holes");
    qy::vector<MeshTriangle> holeTriangles;
    fillHoles(boundaries, outer, freeIndex, holeTriangles);
    if (progress.cancelled())
        return fail();

    progress.subPhase(0.75, child);
    child.setCaption("Solving");
    qy::vector<qyLinear::Point2> uvs;
    const int code = doCG(uvs, extreme[0], extreme[1], points, freeIndex, holeTriangles, child);
    if (code != 0 || progress.cancelled())
        return fail(FlattenStatus::SolverFailed);
    // Nothing non-finite reaches the caller's mesh: a layout the solver could not represent
    // (vertices at wildly different scales, for one) is a failure, not a result.
    if (!usedUvsFinite(uvs))
        return fail(FlattenStatus::NonFiniteLayout);

    progress.subPhase(0.025, child);
    child.setCaption("Applying to Mesh");
    applyUvsToMesh(uvs, remap);
    child.set(1.0);
    return true;
}

void reparameterizeMesh::Impl::prepareMesh(qyUtil::Progress& progress, Remap& remap)
{
    // The remap must lead from the caller's vertices, so a second run copies the mesh again.
    if (!workIsCopy)
        work = mesh;
    workIsCopy = false;
    work.deleteUVs();
    work.deleteNormals();
    meshCompact(work, progress, remap);
    if (!compactEnabled)
    {
        const int original = countBoundaries(mesh);
        const int compacted = cache.getBoundaries(work)->size();
        output.info("prepareMesh: numBoundaries o = %d, c = %d\n", original, compacted);
        if (original != compacted)
        {
            output.info("prepareMesh: compacting changed topology, reverting\n");
            work = mesh;
            work.deleteUVs();
            work.deleteNormals();
            remap.resize(mesh.getNumVertices(), mesh.getNumVertices());
            remap.setSequential();
        }
    }
    dropUnusedVertices(remap);
}

void reparameterizeMesh::Impl::dropUnusedVertices(Remap& remap)
{
    // Vertices that no triangle uses have no place in the layout: kept, they would count in
    // the genus and stand alone in the system. They leave the working copy and map to none,
    // so the referenced vertices are laid out exactly as without them.
    const int n = work.getNumVertices();
    const int numCorners = 3 * work.getNumTriangles();
    int* tris = work.getTrianglesRaw();
    std::vector<int> newIndex(std::size_t(n), -1);
    for (int i = 0; i < numCorners; ++i)
        if (unsigned(tris[i]) < unsigned(n))
            newIndex[std::size_t(tris[i])] = 0;
    int count = 0;
    float* xyz = work.getVerticesRaw();
    for (int v = 0; v < n; ++v)
    {
        if (newIndex[std::size_t(v)] < 0)
            continue;
        newIndex[std::size_t(v)] = count;
        std::copy(xyz + 3 * std::size_t(v), xyz + 3 * std::size_t(v) + 3,
                  xyz + 3 * std::size_t(count));
        ++count;
    }
    if (count == n)
        return;
    // Corners outside the array stay outside it, for the degenerate-triangle test.
    for (int i = 0; i < numCorners; ++i)
        if (unsigned(tris[i]) < unsigned(n))
            tris[i] = newIndex[std::size_t(tris[i])];
        else if (tris[i] >= count)
            tris[i] = tris[i] - n + count;
    work.resizeVertexArray(count);
    Remap composed(remap.getDomainSize(), count);
    for (int v = 0; v < remap.getDomainSize(); ++v)
    {
        const int w = remap(v);
        composed.set(v, unsigned(w) < unsigned(n) ? newIndex[std::size_t(w)] : -1);
    }
    remap = std::move(composed);
    MeshModification modification(&work, MeshModification::Remapped);
    work.modified(modification);
}

bool reparameterizeMesh::Impl::testDegenerate(int numTriangles, const int* triangles) const
{
    // An index outside the vertex array counts as degenerate too: no later step could use it.
    const int numVertices = work.getNumVertices();
    for (std::size_t i = 0; i < 3 * std::size_t(numTriangles); i += 3)
    {
        const int a = triangles[i], b = triangles[i + 1], c = triangles[i + 2];
        if (a == b || b == c || c == a)
            return true;
        if (a < 0 || b < 0 || c < 0 || a >= numVertices || b >= numVertices || c >= numVertices)
            return true;
    }
    return false;
}

int reparameterizeMesh::Impl::getMeshGenus(qy::vector<Boundary>& boundaries)
{
    const int numTriangles = work.getNumTriangles();
    if (testDegenerate(numTriangles, work.getTrianglesRaw()))
    {
        output.info("getMeshGenus: testDegenerate == true\n");
        setStatus(FlattenStatus::DegenerateTriangle);
        return -1;
    }
    const qy::Reference<MeshBoundaries> loops = cache.getBoundaries(work);
    const int numBoundaries = loops->size();
    output.info("getMeshGenus: numBoundaries %d \n", numBoundaries);
    if (numBoundaries < 0)
    {
        output.info("getMeshGenus: numBoundaries < 0 \n");
        setStatus(FlattenStatus::ShortBoundary);
        return -1;
    }
    int boundaryEdges = 0;
    for (int b = 0; b < numBoundaries; ++b)
    {
        if (loops->getLength(b) < 3)
        {
            output.info("getMeshGenus: boundary length < 3 \n");
            setStatus(FlattenStatus::ShortBoundary);
            return -1;
        }
        boundaryEdges += loops->getLength(b);
    }
    const int numVertices = work.getNumVertices();
    output.info("getMeshGenus: numBoundaryEdges %d \n", boundaryEdges);
    output.info("getMeshGenus: numVertices %d \n", numVertices);
    output.info("getMeshGenus: numTriangles %d \n", numTriangles);
    const int numEdges = (boundaryEdges + 3 * numTriangles) / 2;
    output.info("getMeshGenus: numEdges %d \n", numEdges);
    const int chi = numBoundaries + numVertices + numTriangles - numEdges;
    output.info("getMeshGenus: chi = %d + %d + %d - %d = %d \n", numBoundaries, numVertices,
                numTriangles, numEdges, chi);
    const int genus = (2 - chi) / 2;
    output.info("getMeshGenus: genus = ( 2 - %d ) / 2 = %d \n", chi, genus);
    if (genus < 0)
    {
        output.info("getMeshGenus: genus = %d \n", genus);
        setStatus(FlattenStatus::SeveralPieces);
        return -1;
    }
    for (int b = 0; b < numBoundaries; ++b)
    {
        const int* loop = loops->getStart(b);
        const int n = loops->getLength(b);
        Boundary edges;
        edges.reserve(std::size_t(n));
        for (int i = 0; i < n; ++i)
            edges.emplace_back(loop[i], loop[(i + 1) % n]);
        boundaries.push_back(std::move(edges));
    }
    return genus;
}

int reparameterizeMesh::Impl::getExtremeVerts(const qy::vector<Boundary>& boundaries,
                                              int extreme[2]) const
{
    if (boundaries.empty())
        return -1;
    const MeshVertex* verts = work.getVertices();
    int outer = -1;
    double best = 0.0;
    for (std::size_t b = 0; b < boundaries.size(); ++b)
    {
        const Boundary& loop = boundaries[b];
        if (loop.empty())
            continue;
        double lo[3], hi[3];
        int loVert[3], hiVert[3];
        for (int k = 0; k < 3; ++k)
        {
            lo[k] = hi[k] = verts[loop[0].first][k];
            loVert[k] = hiVert[k] = loop[0].first;
        }
        for (const boundaryEdge& e : loop)
        {
            for (int k = 0; k < 3; ++k)
            {
                const double x = verts[e.first][k];
                if (x < lo[k])
                {
                    lo[k] = x;
                    loVert[k] = e.first;
                }
                if (x > hi[k])
                {
                    hi[k] = x;
                    hiVert[k] = e.first;
                }
            }
        }
        double extent[3];
        for (int k = 0; k < 3; ++k)
            extent[k] = std::fabs(hi[k] - lo[k]);
        int axis = 2;
        if (extent[0] >= extent[1] && extent[0] >= extent[2])
            axis = 0;
        else if (extent[1] >= extent[0] && extent[1] >= extent[2])
            axis = 1;
        if (extent[axis] > best)
        {
            best = extent[axis];
            outer = int(b);
            extreme[0] = loVert[axis];
            extreme[1] = hiVert[axis];
        }
    }
    return outer;
}

qyLinear::AffineMatrix reparameterizeMesh::Impl::determineRotMatrix(const Boundary& outer,
                                                                    const int extreme[2])
{
    const MeshVertex* verts = work.getVertices();
    const qyLinear::Vector d = verts[extreme[0]].asPoint() - verts[extreme[1]].asPoint();
    qyLinear::Vector sum(0, 0, 0);
    const std::size_t n = outer.size();
    if (n >= 3)
    {
        for (std::size_t i = 0; i < n; ++i)
        {
            const boundaryEdge& e = outer[i];
            const boundaryEdge& before = outer[(i + n - 1) % n];
            const qyLinear::Point start = verts[e.first].asPoint();
            sum += qyLinear::cross(verts[e.second].asPoint() - start,
                                   start - verts[before.first].asPoint());
        }
    }
    const qyLinear::Normal unit(sum);
    qyLinear::Vector normal(0, 0, 1);
    if (n < 3 || !unit.isValid())
    {
        output.info("Parameterization: failed to calculateD planeNormal.  Choosing Z-axis "
                    "instead.\n");
    }
    else if (qyLinear::isParallel(unit.asVector(), d))
    {
        output.info("Parameterization: calculated planeNormal is (anti-)parallel to the vector "
                    "between the fixed vertices of the 3D-boundary.  Choosing a random "
                    "orthogonal vector instead.\n");
        normal = qyLinear::orthogonalTo(d);
    }
    else
    {
        output.info("Parameterization: calculated planeNormal is good.  Using orthogonal "
                    "component.\n");
        const double dd = d.lengthSquared();
        normal = unit.asVector();
        if (dd > 0.0)
            normal -= d * (qyLinear::dot(normal, d) / dd);
        normal /= normal.length();
    }

    // The smallest rotation taking normal to +z (Rodrigues' formula about normal x z); half a
    // turn about x when normal is -z.
    qyLinear::AffineMatrix rotation;
    const qyLinear::Vector z(0, 0, 1);
    const qyLinear::Vector k = qyLinear::cross(normal, z);
    const double c = qyLinear::dot(normal, z);
    if (c < -1.0 + 1e-12)
    {
        rotation.linear(1, 1) = -1.0;
        rotation.linear(2, 2) = -1.0;
        return rotation;
    }
    const double f = 1.0 / (1.0 + c);
    const double kx[3][3] = {{0, -k.z, k.y}, {k.z, 0, -k.x}, {-k.y, k.x, 0}};
    for (int r = 0; r < 3; ++r)
        for (int col = 0; col < 3; ++col)
        {
            double kk = 0.0;
            for (int m = 0; m < 3; ++m)
                kk += kx[r][m] * kx[m][col];
            rotation.linear(r, col) = (r == col ? 1.0 : 0.0) + kx[r][col] + kk * f;
        }
    return rotation;
}

void reparameterizeMesh::Impl::rotateAndProject(const Boundary& outer,
                                                qy::vector<qyLinear::Point>& points,
                                                const int extreme[2])
{
    const qyLinear::AffineMatrix rotation = determineRotMatrix(outer, extreme);
    const int numVertices = work.getNumVertices();
    const MeshVertex* verts = work.getVertices();
    points.reserve(points.size() + std::size_t(numVertices));
    for (int v = 0; v < numVertices; ++v)
        points.push_back(rotation.transformPoint(verts[v].asPoint()));
}

void reparameterizeMesh::Impl::buildFreeIndex(qy::vector<int>& freeIndex,
                                              const int extreme[2]) const
{
    const int numVertices = work.getNumVertices();
    freeIndex.assign(std::size_t(numVertices), 0);
    int next = 0;
    for (int v = 0; v < numVertices; ++v)
        freeIndex[std::size_t(v)] = (v == extreme[0] || v == extreme[1]) ? -1 : next++;
}

void reparameterizeMesh::Impl::fillHoles(const qy::vector<Boundary>& boundaries, int outer,
                                         const qy::vector<int>& /*freeIndex*/,
                                         qy::vector<MeshTriangle>& holeTriangles)
{
    const MeshVertex* verts = work.getVertices();
    qy::vector<qyLinear::Point> polygon;
    qy::vector<int> corners, triangles;
    for (std::size_t b = 0; b < boundaries.size(); ++b)
    {
        if (int(b) == outer)
            continue;
        // The loop runs along its triangles' edges; the cover runs the other way round, so the
        // polygon is the loop reversed.
        const Boundary& loop = boundaries[b];
        polygon.clear();
        corners.clear();
        for (std::size_t i = loop.size(); i-- > 0;)
        {
            corners.push_back(loop[i].first);
            polygon.push_back(verts[loop[i].first].asPoint());
        }
        const int count = polygonTriangulate(int(polygon.size()), polygon.data(), triangles);
        for (int t = 0; t < count; ++t)
        {
            MeshTriangle tri;
            for (int k = 0; k < 3; ++k)
                tri[k] = corners[std::size_t(triangles[3 * std::size_t(t) + std::size_t(k)])];
            holeTriangles.push_back(tri);
        }
    }
}

void reparameterizeMesh::Impl::setupTriangle(VertexRows& A, NVector& rhs, int i, int j, int k,
                                             const qyLinear::Point& Pi, const qyLinear::Point& Pj,
                                             const qyLinear::Point& Pk)
{
    constexpr double eps = qyLinear::epsilonTol;
    const double crossJ = qyLinear::cross(Pi - Pj, Pk - Pj).length();
    const double crossK = qyLinear::cross(Pi - Pk, Pj - Pk).length();
    if (crossJ < eps || crossK < eps)
        return;
    const double cotK = qyLinear::dot(Pj - Pk, Pi - Pk) / crossK;
    const double cotJ = qyLinear::dot(Pk - Pj, Pi - Pj) / crossJ;
    const int ru = 2 * i, rv = 2 * i + 1;
    A.add(ru, ru, cotK + cotJ);
    A.add(rv, rv, cotK + cotJ);
    if (j >= 0)
    {
        if (std::fabs(cotK) >= eps)
        {
            A.add(ru, 2 * j, -cotK);
            A.add(rv, 2 * j + 1, -cotK);
        }
        A.add(ru, 2 * j + 1, -1.0);
        A.add(rv, 2 * j, 1.0);
    }
    else
    {
        rhs[ru] += cotK * Pj.x + Pj.y;
        rhs[rv] += cotK * Pj.y - Pj.x;
    }
    if (k >= 0)
    {
        if (std::fabs(cotJ) >= eps)
        {
            A.add(ru, 2 * k, -cotJ);
            A.add(rv, 2 * k + 1, -cotJ);
        }
        A.add(ru, 2 * k + 1, 1.0);
        A.add(rv, 2 * k, -1.0);
    }
    else
    {
        rhs[ru] += cotJ * Pk.x - Pk.y;
        rhs[rv] += cotJ * Pk.y + Pk.x;
    }
}

void reparameterizeMesh::Impl::setupVertexCG(const MeshAdjTris& adjTris, ConjugateGradient& cg,
                                             NVector& rhs, int v, const qy::vector<int>& freeIndex,
                                             const qy::vector<qyLinear::Point>& points,
                                             const qy::vector<MeshTriangle>& holeTriangles,
                                             const qy::vector<int>& holeStart,
                                             const qy::vector<int>& holeList)
{
    VertexRows rows;
    rows.first = 2 * freeIndex[std::size_t(v)];
    auto addTriangle = [&](const MeshTriangle& t)
    {
        const int c = t[0] == v ? 0 : (t[1] == v ? 1 : 2);
        const int a = t[(c + 1) % 3], b = t[(c + 2) % 3];
        setupTriangle(rows, rhs, freeIndex[std::size_t(v)], freeIndex[std::size_t(a)],
                      freeIndex[std::size_t(b)], points[std::size_t(v)], points[std::size_t(a)],
                      points[std::size_t(b)]);
    };
    const MeshTriangle* triangles = work.getTriangles();
    const int* tris = adjTris.triIndices(v);
    for (int i = 0; i < adjTris.numTris(v); ++i)
        addTriangle(triangles[tris[i]]);
    for (int i = holeStart[std::size_t(v)]; i < holeStart[std::size_t(v) + 1]; ++i)
        addTriangle(holeTriangles[std::size_t(holeList[std::size_t(i)])]);
    rows.flushTo(cg.A());
}

int reparameterizeMesh::Impl::doCG(qy::vector<qyLinear::Point2>& uvs, int pin0, int pin1,
                                   const qy::vector<qyLinear::Point>& points,
                                   const qy::vector<int>& freeIndex,
                                   const qy::vector<MeshTriangle>& holeTriangles,
                                   qyUtil::Progress& progress)
{
    const int numVertices = work.getNumVertices();
    const int n = 2 * numVertices - 4;
    NVector x0(n), rhs(n);
    ConjugateGradient cg(n);
    const qy::Reference<MeshAdjTris> adjTris = cache.getAdjTris(work);

    // Hole triangles by vertex, so that each vertex finds its own without a search.
    qy::vector<int> holeStart(std::size_t(numVertices) + 1, 0);
    for (const MeshTriangle& t : holeTriangles)
        for (int k = 0; k < 3; ++k)
            ++holeStart[std::size_t(t[k]) + 1];
    for (int v = 0; v < numVertices; ++v)
        holeStart[std::size_t(v) + 1] += holeStart[std::size_t(v)];
    qy::vector<int> holeList(std::size_t(holeStart.back()));
    {
        qy::vector<int> fill(holeStart.begin(), holeStart.end() - 1);
        for (std::size_t t = 0; t < holeTriangles.size(); ++t)
            for (int k = 0; k < 3; ++k)
                holeList[std::size_t(fill[std::size_t(holeTriangles[t][k])]++)] = int(t);
    }

    qyOS::DebugChannel& debug = debugChannel();
    debug.print("doCG: %d unknowns, %d hole triangles\n", n, int(holeTriangles.size()));
    qyOS::StopWatch watch;
    watch.start();
    qyUtil::Progress child;
    progress.subPhase(0.1, child);
    for (int v = 0; v < numVertices; ++v)
    {
        child.set(double(v) / numVertices);
        if (child.cancelled())
            return -1;
        if (v == pin0 || v == pin1)
            continue;
        const int f = freeIndex[std::size_t(v)];
        x0[2 * f] = points[std::size_t(v)].x;
        x0[2 * f + 1] = points[std::size_t(v)].y;
        setupVertexCG(*adjTris, cg, rhs, v, freeIndex, points, holeTriangles, holeStart, holeList);
        // A vertex on no triangle with area (unused, or only on degenerate triangles) has
        // empty rows, which would make the system singular: they become u = v = 0 instead.
        for (int r = 2 * f; r < 2 * f + 2; ++r)
        {
            SparseMatrix::Row& row = cg.A().row(r);
            if (std::all_of(row.begin(), row.end(),
                            [](const SparseElement& e) { return e.value == 0.0; }))
            {
                row.clear();
                row.emplace_back(r, 1.0);
                rhs[r] = x0[r] = 0.0;
            }
        }
    }

    debug.print("  assembled %d entries: %f s\n", cg.A().nnz(), watch.clear());

    progress.subPhase(0.8, child);
    if (cg.A().isMMatrix())
        cg.initIncompleteCholeskyPreconditioner();
    else
        cg.initDiagonalPreconditioner();
    // The solver's breakdown guards are absolute floors on p.Ap and r.z, which shrink with
    // the square of the layout's size: at the mesh's own size a large mesh stops long before
    // its relative residual is small, and the layout folds. The matrix (cotangents and the
    // area term) does not depend on the size, so the unknowns and the right-hand side are
    // measured in a unit that makes the pinned pair about 2^20 apart. The factor is a power
    // of two: every product and quotient of the solve is the exact scaled value, so only the
    // floors move, and dividing the solution by it gives back the mesh's units exactly.
    const double unit = solveUnit(points[std::size_t(pin0)], points[std::size_t(pin1)]);
    for (int i = 0; i < n; ++i)
    {
        rhs[i] *= unit;
        x0[i] *= unit;
    }
    cg.initialize(rhs, x0);
    const int reportEvery = n > 100 ? n / 20 : 0;
    for (int step = 0; step < n; ++step)
    {
        if (child.cancelled())
            return -1;
        if (step % 100 == 0)
            child.set(double(step) / n);
        if (reportEvery > 0 && step % reportEvery == 0)
            output.info("Parameterization %5.1f%% complete\n",
                        double(float(step) / float(n) * 90.0f + 5.0f));
        const ConjugateGradient::Status status =
            cg.iterate(qyLinear::epsilonTol, qyLinear::epsilonTol);
        if (!status.isDone())
            continue;
        if (status.code() == ConjugateGradient::NegativeCurvature)
        {
            output.error("Parameterization: CG FAILED - negative curvature detected in "
                         "quadratic form\n");
            child.set(1.0);
            return 1;
        }
        output.info("Parameterization: CG finished, code = %d\n", int(status.code()));
        break;
    }
    child.set(1.0);
    debug.print("  solved in %d steps, relative residual %g: %f s\n", cg.getIteration(),
                cg.getConvergenceValue(), watch.clear());

    progress.subPhase(0.1, child);
    const NVector& x = cg.x();
    uvs.reserve(std::size_t(numVertices));
    for (int v = 0; v < numVertices; ++v)
    {
        if (v % 100 == 0)
            child.set(double(v) / numVertices);
        const int f = freeIndex[std::size_t(v)];
        if (f < 0)
            uvs.emplace_back(points[std::size_t(v)].x, points[std::size_t(v)].y);
        else
            uvs.emplace_back(x[2 * f] / unit, x[2 * f + 1] / unit);
    }
    child.set(1.0);
    return 0;
}

bool reparameterizeMesh::Impl::usedUvsFinite(const qy::vector<qyLinear::Point2>& uvs)
{
    const qy::Reference<MeshAdjTris> adjTris = cache.getAdjTris(work);
    for (std::size_t v = 0; v < uvs.size(); ++v)
        if (adjTris->numTris(int(v)) > 0 && !(std::isfinite(uvs[v].x) && std::isfinite(uvs[v].y)))
            return false;
    return true;
}

void reparameterizeMesh::Impl::applyUvsToMesh(const qy::vector<qyLinear::Point2>& uvs,
                                              const Remap& remap)
{
    // The layout is that of the vertices on triangles; a vertex that no triangle uses has no
    // place in it and gets (0, 0).
    const qy::Reference<MeshAdjTris> adjTris = cache.getAdjTris(work);
    double lo[2] = {HUGE_VAL, HUGE_VAL}, hi[2] = {-HUGE_VAL, -HUGE_VAL};
    for (std::size_t v = 0; v < uvs.size(); ++v)
        if (adjTris->numTris(int(v)) > 0)
            for (int k = 0; k < 2; ++k)
            {
                lo[k] = std::min(lo[k], uvs[v][k]);
                hi[k] = std::max(hi[k], uvs[v][k]);
            }
    const double width = hi[0] - lo[0], height = hi[1] - lo[1];
    double scale = std::min(1.0 / width, 1.0 / height);
    if (!std::isfinite(scale))
        scale = 1.0; // every UV at one point
    if (!mesh.getUVs())
        mesh.allocUVArray();
    MeshUV* out = mesh.getUVs();
    const int numVertices = mesh.getNumVertices();
    for (int v = 0; v < numVertices; ++v)
    {
        const int w = remap(v);
        if (w < 0 || std::size_t(w) >= uvs.size() || adjTris->numTris(w) == 0)
        {
            out[v].set(0.0f, 0.0f);
            continue;
        }
        const qyLinear::Point2& p = uvs[std::size_t(w)];
        out[v].set(float((p.x - lo[0]) * scale), float((p.y - lo[1]) * scale));
    }
    MeshModification modification(&mesh, MeshModification::AttributesChanged);
    modification.uvsModified();
    mesh.modified(modification);
}

} // namespace qyGeom
