// qygeom: the library's mesh algorithms for Python, over numpy arrays.
//
// Meshes come in as arrays (vertices float32 (n, 3), triangles int32 (m, 3)) and are copied
// into a CompactMesh, so the caller's arrays are never changed. Results are numpy views of
// the arrays of a mesh that the result owns (no copy on the way out). Every long call runs
// with the GIL released; a qyUtil::Progress subclass calls the Python progress callback and
// answers the library's cancellation polls with Ctrl-C and with the callback's wishes.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "base/AppOutput.h"
#include "base/Error.h"
#include "base/Progress.h"
#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/Remap.h"
#include "model/TopoMesh.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/computeSubdivMesh.h"
#include "qyGeom/intersectRayTriangle.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshCurvature.h"
#include "qyGeom/meshOff.h"
#include "qyGeom/meshPly.h"
#include "qyGeom/meshRayIntersect.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshReadWrite.h"
#include "qyGeom/meshReduce.h"
#include "qyGeom/meshSmooth.h"
#include "qyGeom/meshStl.h"
#include "qyGeom/meshTopology.h"
#include "qyGeom/meshTriangulatePolygons.h"
#include "qyGeom/meshWriteObj.h"
#include "qyGeom/reparameterizeMesh.h"

namespace py = pybind11;
using qyGeom::CompactMesh;

namespace
{

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

std::string format(const char* fmt, ...)
{
    char buffer[1024];
    std::va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

// ---------------------------------------------------------------------------------------------
// Messages of the library for the user (qyOS::AppOutput). The module's sink keeps the error
// lines of the running call so that its exception can carry them; info lines are dropped
// unless verbose output was asked for.

std::atomic<bool> g_verbose{false};
thread_local std::string* t_capturedErrors = nullptr;

void installOutputSink()
{
    qyOS::AppOutput::getInstance().setSink(
        [](qyOS::AppOutput::Kind kind, const char* text)
        {
            if (kind == qyOS::AppOutput::ErrorMessage && t_capturedErrors)
                t_capturedErrors->append(text);
            else if (kind == qyOS::AppOutput::ErrorMessage || g_verbose.load())
                std::fputs(text, stderr);
        });
}

// Collects the error lines of the library for as long as it lives, on this thread.
class CapturedErrors
{
public:
    CapturedErrors() : m_previous(t_capturedErrors) { t_capturedErrors = &m_text; }
    ~CapturedErrors() { t_capturedErrors = m_previous; }
    CapturedErrors(const CapturedErrors&) = delete;
    CapturedErrors& operator=(const CapturedErrors&) = delete;
    // The text without its last line end.
    std::string text() const
    {
        std::string s = m_text;
        while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
            s.pop_back();
        return s;
    }

private:
    std::string m_text;
    std::string* m_previous;
};

// ---------------------------------------------------------------------------------------------
// Exceptions of the module, created when it is imported.

PyObject* g_error = nullptr;        // qygeom.Error(RuntimeError)
PyObject* g_flattenError = nullptr; // qygeom.FlattenError(qygeom.Error)
PyObject* g_cancelled = nullptr;    // qygeom.CancelledError(qygeom.Error)

[[noreturn]] void raiseError(PyObject* type, const std::string& message)
{
    PyErr_SetString(type, message.c_str());
    throw py::error_already_set();
}

// ---------------------------------------------------------------------------------------------
// Progress and cancellation.

// The library's progress object for a call from Python: reports go to the callback
// callback(caption, fraction); a callback that returns a true value cancels the call, one that
// raises cancels it and the exception is raised again when the call returns. Ctrl-C is seen by
// the cancellation polls of the calling thread, at most every 20 ms, and becomes the
// KeyboardInterrupt that Python raised for it.
class PyProgress final : public qyUtil::Progress
{
public:
    explicit PyProgress(py::object callback)
        : m_callback(callback.is_none() ? py::object() : std::move(callback)),
          m_thread(std::this_thread::get_id())
    {
        if (m_callback && !PyCallable_Check(m_callback.ptr()))
            throw py::type_error("progress must be a callable progress(caption, fraction), or "
                                 "None");
    }

    // Raises what stopped the call, if anything: the callback's or Ctrl-C's exception, or
    // CancelledError when the callback asked to stop. Call with the GIL held.
    void raiseIfStopped()
    {
        if (m_exception)
            std::rethrow_exception(m_exception);
        if (m_stop)
            raiseError(g_cancelled, "cancelled by the progress callback");
    }
    bool stopped() const { return m_stop.load(); }

protected:
    void report(const char* caption, double fraction) override
    {
        if (!m_callback || m_stop.load())
            return;
        py::gil_scoped_acquire gil;
        try
        {
            py::object answer = m_callback(caption ? caption : "", fraction);
            if (PyObject_IsTrue(answer.ptr()) == 1)
                m_stop = true;
        }
        catch (py::error_already_set&)
        {
            keep(std::current_exception());
        }
    }

    bool cancelRequested() override
    {
        if (m_stop.load())
            return true;
        // Python's own signal handler only marks the signal; PyErr_CheckSignals runs it, and
        // only on the main thread. Polls come often, so the GIL is taken at most every 20 ms.
        if (std::this_thread::get_id() != m_thread)
            return false;
        const auto now = std::chrono::steady_clock::now();
        if (now - m_lastSignalCheck < std::chrono::milliseconds(20))
            return false;
        m_lastSignalCheck = now;
        py::gil_scoped_acquire gil;
        if (PyErr_CheckSignals() != 0)
        {
            try
            {
                throw py::error_already_set();
            }
            catch (py::error_already_set&)
            {
                keep(std::current_exception());
            }
        }
        return m_stop.load();
    }

private:
    void keep(std::exception_ptr e)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_exception)
            m_exception = std::move(e);
        m_stop = true;
    }

    py::object m_callback;
    std::thread::id m_thread;
    std::chrono::steady_clock::time_point m_lastSignalCheck{};
    std::mutex m_mutex;
    std::exception_ptr m_exception;
    std::atomic<bool> m_stop{false};
};

// ---------------------------------------------------------------------------------------------
// Arrays in: checked for kind and shape, converted to the library's layout only when they
// are not in it already (float32 / int32, C order).

py::array asArray(py::handle obj, const char* name)
{
    if (py::isinstance<py::array>(obj))
        return py::reinterpret_borrow<py::array>(obj);
    try
    {
        py::array a = py::module_::import("numpy").attr("asarray")(obj);
        if (a.dtype().kind() == 'O')
            throw py::type_error("");
        return a;
    }
    catch (py::error_already_set&)
    {
    }
    catch (py::type_error&)
    {
    }
    throw py::type_error(format("%s must be a numpy array or a nested sequence of numbers, not %s",
                                name,
                                std::string(py::str(py::type::of(obj).attr("__name__"))).c_str()));
}

std::string dtypeName(const py::array& a)
{
    return std::string(py::str(a.dtype()));
}

std::string shapeText(const py::array& a)
{
    std::string s = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i)
        s += (i ? ", " : "") + std::to_string(a.shape(i));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

// Rows of `cols` numbers; cols 0 means a flat array (one number per row).
void checkShape(const py::array& a, const char* name, int cols, const char* what)
{
    const bool flat = cols == 0;
    if ((flat && a.ndim() != 1) || (!flat && (a.ndim() != 2 || a.shape(1) != cols)))
        throw py::value_error(flat ? format("%s must be a 1-dimensional array of %s, got shape %s",
                                            name, what, shapeText(a).c_str())
                                   : format("%s must have shape (n, %d) (%s), got shape %s", name,
                                            cols, what, shapeText(a).c_str()));
    if (a.shape(0) > INT_MAX / std::max(cols, 1))
        throw py::value_error(format("%s has %lld rows, more than the library's 32-bit counts "
                                     "hold",
                                     name, static_cast<long long>(a.shape(0))));
}

// Coordinates may come as any real numbers (integers are converted); bool, complex, text and
// objects are refused.
void checkRealKind(const py::array& a, const char* name)
{
    const char kind = a.dtype().kind();
    if (kind != 'f' && kind != 'i' && kind != 'u')
        throw py::type_error(format("%s must hold real numbers (float32 is used as is), not %s",
                                    name, dtypeName(a).c_str()));
}

struct FloatRows
{
    py::array_t<float, py::array::c_style> array;
    int rows = 0;
    const float* data() const { return array.data(); }
};

FloatRows floatRows(py::handle obj, const char* name, int cols, const char* what)
{
    py::array a = asArray(obj, name);
    checkRealKind(a, name);
    checkShape(a, name, cols, what);
    FloatRows out;
    out.array = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!out.array)
        throw py::error_already_set();
    out.rows = int(a.shape(0));
    return out;
}

struct DoubleRows
{
    py::array_t<double, py::array::c_style> array;
    int rows = 0;
    const double* data() const { return array.data(); }
};

DoubleRows doubleRows(py::handle obj, const char* name, int cols, const char* what)
{
    py::array a = asArray(obj, name);
    checkRealKind(a, name);
    checkShape(a, name, cols, what);
    DoubleRows out;
    out.array = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!out.array)
        throw py::error_already_set();
    out.rows = int(a.shape(0));
    return out;
}

struct IndexRows
{
    py::array_t<std::int32_t, py::array::c_style> array;
    int rows = 0;
    int cols = 0;
    const int* data() const { return reinterpret_cast<const int*>(array.data()); }
};

// Integer rows of vertex indices. With numVertices >= 0 every index must lie in
// [0, numVertices); otherwise any 32-bit value passes.
IndexRows indexRows(py::handle obj, const char* name, int cols, int numVertices, int minCols = 0)
{
    py::array a = asArray(obj, name);
    const char kind = a.dtype().kind();
    if (kind != 'i' && kind != 'u')
        throw py::type_error(
            format("%s must hold integer vertex indices, not %s", name, dtypeName(a).c_str()));
    if (minCols > 0)
    {
        if (a.ndim() != 2 || a.shape(1) < minCols)
            throw py::value_error(format("%s must have shape (n, k) with k >= %d, got shape %s",
                                         name, minCols, shapeText(a).c_str()));
        cols = int(a.shape(1));
    }
    checkShape(a, name, cols, "vertex indices");
    IndexRows out;
    out.rows = int(a.shape(0));
    out.cols = cols;
    const std::size_t count = std::size_t(out.rows) * std::size_t(cols);
    auto badIndex = [&](std::size_t i, long long value)
    {
        if (numVertices >= 0)
            return py::value_error(format("%s[%zu, %zu] = %lld is not a vertex index (there are "
                                          "%d vertices)",
                                          name, i / std::size_t(cols), i % std::size_t(cols), value,
                                          numVertices));
        return py::value_error(format("%s[%zu, %zu] = %lld does not fit in 32 bits", name,
                                      i / std::size_t(cols), i % std::size_t(cols), value));
    };
    if (a.dtype().is(py::dtype::of<std::int32_t>()))
    {
        out.array = py::array_t<std::int32_t, py::array::c_style>::ensure(a);
        if (!out.array)
            throw py::error_already_set();
        if (numVertices >= 0)
        {
            const std::int32_t* p = out.array.data();
            for (std::size_t i = 0; i < count; ++i)
                if (p[i] < 0 || p[i] >= numVertices)
                    throw badIndex(i, p[i]);
        }
        return out;
    }
    // Other integer types are narrowed through int64 (a uint64 beyond int64 turns negative
    // and is refused like any negative index).
    auto wide = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(a);
    if (!wide)
        throw py::error_already_set();
    out.array =
        py::array_t<std::int32_t, py::array::c_style>({py::ssize_t(out.rows), py::ssize_t(cols)});
    const std::int64_t* p = wide.data();
    std::int32_t* q = out.array.mutable_data();
    const long long low = numVertices >= 0 ? 0 : INT_MIN;
    const long long high = numVertices >= 0 ? numVertices : (long long)INT_MAX + 1;
    for (std::size_t i = 0; i < count; ++i)
    {
        if (p[i] < low || p[i] >= high)
            throw badIndex(i, p[i]);
        q[i] = std::int32_t(p[i]);
    }
    return out;
}

void checkRows(int rows, int expected, const char* name, const char* of)
{
    if (rows != expected)
        throw py::value_error(
            format("%s has %d rows but there are %d %s", name, rows, expected, of));
}

// Copies a large block in pieces shared over the library's pool: copying the caller's arrays
// in is the module's main cost over the library's own call, and the page faults of the fresh
// array run on every thread. Needs no GIL.
void parallelCopy(void* dst, const void* src, std::size_t bytes)
{
    constexpr std::size_t piece = std::size_t(4) << 20;
    const std::size_t pieces = (bytes + piece - 1) / piece;
    if (pieces <= 1 || pieces > std::size_t(INT_MAX))
    {
        if (bytes > 0)
            std::memcpy(dst, src, bytes);
        return;
    }
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(pieces),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            const std::size_t from = std::size_t(begin) * piece;
            const std::size_t to = std::min(bytes, std::size_t(end) * piece);
            std::memcpy(static_cast<char*>(dst) + from, static_cast<const char*>(src) + from,
                        to - from);
        },
        nullptr, 1);
}

// The caller's mesh, read from numpy and copied into a CompactMesh.
struct MeshInput
{
    FloatRows vertices;
    IndexRows triangles;
    FloatRows normals; // rows 0 and no array when absent
    FloatRows uvs;
    bool hasNormals = false;
    bool hasUVs = false;

    MeshInput(py::handle v, py::handle t, py::handle n = py::none(), py::handle uv = py::none(),
              bool checkIndices = true)
    {
        vertices = floatRows(v, "vertices", 3, "x, y, z");
        triangles = indexRows(t, "triangles", 3, checkIndices ? vertices.rows : -1);
        if (!n.is_none())
        {
            normals = floatRows(n, "normals", 3, "x, y, z");
            checkRows(normals.rows, vertices.rows, "normals", "vertices");
            hasNormals = true;
        }
        if (!uv.is_none())
        {
            uvs = floatRows(uv, "uvs", 2, "u, v");
            checkRows(uvs.rows, vertices.rows, "uvs", "vertices");
            hasUVs = true;
        }
    }

    // Needs no GIL: only reads the arrays' memory.
    // parallel false: the plain copies that a C++ caller would write (for the benchmark).
    // withTriangles false: the per-vertex arrays only.
    void fill(CompactMesh& mesh, bool parallel = true, bool withTriangles = true) const
    {
        if (parallel)
        {
            // Fresh arrays read as zero without being written; the copy then touches each
            // page once.
            mesh.resizeVertexArray(vertices.rows);
            parallelCopy(mesh.getVerticesRaw(), vertices.data(),
                         sizeof(float) * 3 * std::size_t(vertices.rows));
            if (withTriangles)
            {
                mesh.resizeTriangleArray(triangles.rows);
                parallelCopy(mesh.getTrianglesRaw(), triangles.data(),
                             sizeof(int) * 3 * std::size_t(triangles.rows));
            }
        }
        else
        {
            mesh.copyVertices(vertices.rows,
                              reinterpret_cast<const qyGeom::MeshVertex*>(vertices.data()));
            mesh.copyTriangles(triangles.rows, triangles.data());
        }
        if (hasNormals)
        {
            mesh.allocNormalArray();
            std::memcpy(mesh.getNormalsRaw(), normals.data(),
                        sizeof(float) * 3 * std::size_t(normals.rows));
        }
        if (hasUVs)
        {
            mesh.allocUVArray();
            std::memcpy(mesh.getUVsRaw(), uvs.data(), sizeof(float) * 2 * std::size_t(uvs.rows));
        }
    }
};

// ---------------------------------------------------------------------------------------------
// Arrays out: views of memory owned by a shared C++ object, kept alive by the arrays.

template <class T>
py::array viewOf(const std::shared_ptr<void>& owner, const T* data, py::ssize_t rows,
                 py::ssize_t cols)
{
    std::vector<py::ssize_t> shape{rows};
    std::vector<py::ssize_t> strides{py::ssize_t(sizeof(T)) * std::max<py::ssize_t>(cols, 1)};
    if (cols > 0)
    {
        shape.push_back(cols);
        strides.push_back(sizeof(T));
    }
    if (rows == 0 || !data)
        return py::array_t<T>(shape);
    py::capsule base(new std::shared_ptr<void>(owner),
                     [](void* p) { delete static_cast<std::shared_ptr<void>*>(p); });
    return py::array_t<T>(shape, strides, data, base);
}

// A copy for data that lives in a temporary.
template <class T> py::array copyOf(const T* data, py::ssize_t rows, py::ssize_t cols)
{
    std::vector<py::ssize_t> shape{rows};
    if (cols > 0)
        shape.push_back(cols);
    py::array_t<T> out(shape);
    if (rows > 0)
        std::memcpy(out.mutable_data(), data,
                    sizeof(T) * std::size_t(rows) * std::size_t(std::max<py::ssize_t>(cols, 1)));
    return out;
}

// ---------------------------------------------------------------------------------------------
// The Python mesh record.

struct PyMesh
{
    py::object vertices, triangles, normals = py::none(), uvs = py::none();
};

PyMesh meshFromInput(const MeshInput& in)
{
    PyMesh m;
    m.vertices = in.vertices.array;
    m.triangles = in.triangles.array;
    if (in.hasNormals)
        m.normals = in.normals.array;
    if (in.hasUVs)
        m.uvs = in.uvs.array;
    return m;
}

// Views of the arrays of a mesh that the views keep alive.
PyMesh meshViews(const std::shared_ptr<CompactMesh>& mesh)
{
    std::shared_ptr<void> owner = mesh;
    PyMesh m;
    m.vertices = viewOf(owner, mesh->getVerticesRaw(), mesh->getNumVertices(), 3);
    m.triangles = viewOf(owner, mesh->getTrianglesRaw(), mesh->getNumTriangles(), 3);
    if (mesh->getNormalsRaw())
        m.normals = viewOf(owner, mesh->getNormalsRaw(), mesh->getNumVertices(), 3);
    if (mesh->getUVsRaw())
        m.uvs = viewOf(owner, mesh->getUVsRaw(), mesh->getNumVertices(), 2);
    return m;
}

// ---------------------------------------------------------------------------------------------
// Files.

std::string lowerExtension(const std::string& path)
{
    const std::size_t slash = path.find_last_of('/');
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return "";
    std::string ext = path.substr(dot + 1);
    for (char& c : ext)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

std::string formatOf(const std::string& path, const py::object& formatName)
{
    std::string ext =
        formatName.is_none() ? lowerExtension(path) : py::cast<std::string>(formatName);
    for (char& c : ext)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    if (!ext.empty() && ext[0] == '.')
        ext.erase(0, 1);
    if (ext != "obj" && ext != "qym" && ext != "ply" && ext != "stl" && ext != "off")
        throw py::value_error(format("unknown mesh format '%s' of '%s': the formats are 'obj', "
                                     "'ply', 'stl', 'off' and 'qym'",
                                     ext.c_str(), path.c_str()));
    return ext;
}

[[noreturn]] void raiseCannotOpen(const std::string& path)
{
    const int err = errno ? errno : ENOENT;
    PyErr_SetObject(err == ENOENT ? PyExc_FileNotFoundError : PyExc_OSError,
                    py::make_tuple(err, std::strerror(err), path).ptr());
    throw py::error_already_set();
}

// The OBJ parser keeps scanner state of its own: one read at a time.
std::mutex g_objReadMutex;

// Builds the mesh of a parsed OBJ file: one vertex per position when no face corner names a
// texture coordinate or normal, otherwise one per distinct (position, texture, normal) triple
// in order of first use; polygons are triangulated.
void objToMesh(const qyGeom::MeshObjFile& file, CompactMesh& mesh)
{
    std::vector<int> faceStarts{0};
    std::vector<qyGeom::MeshObjCorner> corners;
    bool withUVs = false, withNormals = false;
    for (const auto& group : file.groups)
    {
        for (int f = 0; f < group->getNumFaces(); ++f)
        {
            const qyGeom::MeshObjCorner* c = group->getFaceCorners(f);
            for (int k = 0; k < group->getFaceSize(f); ++k)
            {
                corners.push_back(c[k]);
                withUVs |= c[k].texCoord >= 0;
                withNormals |= c[k].normal >= 0;
            }
            faceStarts.push_back(int(corners.size()));
        }
    }
    const int numPositions = int(file.vertices.size());
    std::vector<int> vertexOfCorner(corners.size());
    std::vector<float> xyz, normals, uvs;
    if (!withUVs && !withNormals)
    {
        xyz.resize(3 * std::size_t(numPositions));
        for (int v = 0; v < numPositions; ++v)
        {
            xyz[3 * std::size_t(v)] = file.vertices[std::size_t(v)].x;
            xyz[3 * std::size_t(v) + 1] = file.vertices[std::size_t(v)].y;
            xyz[3 * std::size_t(v) + 2] = file.vertices[std::size_t(v)].z;
        }
        for (std::size_t i = 0; i < corners.size(); ++i)
            vertexOfCorner[i] = corners[i].vertex;
    }
    else
    {
        struct KeyHash
        {
            std::size_t operator()(const qyGeom::MeshObjCorner& c) const
            {
                return std::hash<long long>()((static_cast<long long>(c.vertex) << 32) ^
                                              (static_cast<long long>(c.texCoord) << 16) ^
                                              c.normal);
            }
        };
        std::unordered_map<qyGeom::MeshObjCorner, int, KeyHash> index;
        index.reserve(corners.size());
        for (std::size_t i = 0; i < corners.size(); ++i)
        {
            const qyGeom::MeshObjCorner& c = corners[i];
            const auto [it, added] = index.emplace(c, int(index.size()));
            vertexOfCorner[i] = it->second;
            if (!added)
                continue;
            const auto& p = file.vertices[std::size_t(c.vertex)];
            xyz.insert(xyz.end(), {p.x, p.y, p.z});
            if (withUVs)
            {
                if (c.texCoord >= 0)
                    uvs.insert(uvs.end(), {file.texCoords[std::size_t(c.texCoord)].x,
                                           file.texCoords[std::size_t(c.texCoord)].y});
                else
                    uvs.insert(uvs.end(), {0.0f, 0.0f});
            }
            if (withNormals)
            {
                if (c.normal >= 0)
                {
                    const auto& n = file.normals[std::size_t(c.normal)];
                    normals.insert(normals.end(), {n.x, n.y, n.z});
                }
                else
                    normals.insert(normals.end(), {0.0f, 0.0f, 0.0f});
            }
        }
    }
    const int numVertices = int(xyz.size() / 3);
    qyGeom::PolygonTriangulation triangulation;
    const int numFaces = int(faceStarts.size()) - 1;
    qyGeom::meshTriangulatePolygons(xyz.data(), numVertices, numFaces, faceStarts.data(),
                                    vertexOfCorner.data(), triangulation);
    std::vector<int> triangles(triangulation.triangleCorners.size());
    for (std::size_t i = 0; i < triangles.size(); ++i)
        triangles[i] = vertexOfCorner[std::size_t(triangulation.triangleCorners[i])];
    mesh.copyVertices(numVertices, reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()));
    mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
    if (withNormals)
    {
        mesh.allocNormalArray();
        std::memcpy(mesh.getNormalsRaw(), normals.data(), sizeof(float) * normals.size());
    }
    if (withUVs)
    {
        mesh.allocUVArray();
        std::memcpy(mesh.getUVsRaw(), uvs.data(), sizeof(float) * uvs.size());
    }
}

// Replaces a mesh's polygons (PLY and OFF faces of four corners or more) by triangles,
// appended after its own triangles, split as the OBJ faces are.
void triangulatePolygons(CompactMesh& mesh)
{
    const int numPolys = mesh.getNumPolys();
    if (numPolys == 0)
        return;
    std::vector<int> faceStarts(std::size_t(numPolys) + 1, 0);
    const int* lengths = mesh.getPolyLengths();
    for (int f = 0; f < numPolys; ++f)
        faceStarts[std::size_t(f) + 1] = faceStarts[std::size_t(f)] + lengths[f];
    const int* corners = mesh.getPolyPoints();
    qyGeom::PolygonTriangulation triangulation;
    qyGeom::meshTriangulatePolygons(mesh.getVerticesRaw(), mesh.getNumVertices(), numPolys,
                                    faceStarts.data(), corners, triangulation);
    std::vector<int> triangles(mesh.getTrianglesRaw(),
                               mesh.getTrianglesRaw() + 3 * std::size_t(mesh.getNumTriangles()));
    for (const int c : triangulation.triangleCorners)
        triangles.push_back(corners[c]);
    mesh.resizePolyArrays(0, 0);
    mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
}

PyMesh readMesh(const std::string& path, const py::object& formatName)
{
    const std::string kind = formatOf(path, formatName);
    {
        std::ifstream probe(path);
        if (!probe)
            raiseCannotOpen(path);
    }
    auto mesh = std::make_shared<CompactMesh>();
    qyUtil::Error error;
    {
        py::gil_scoped_release release;
        if (kind == "obj")
        {
            qy::Reference<qyGeom::MeshObjFile> file(new qyGeom::MeshObjFile);
            {
                std::lock_guard<std::mutex> lock(g_objReadMutex);
                error = qyGeom::meshReadObj2(qyString::IString(path.c_str()), file);
            }
            if (!error)
                objToMesh(*file, *mesh);
        }
        else if (kind == "ply" || kind == "stl" || kind == "off")
        {
            const qyOS::Filename file(path.c_str());
            error = kind == "ply"   ? qyGeom::meshReadPly(*mesh, file)
                    : kind == "stl" ? qyGeom::meshReadStl(*mesh, file)
                                    : qyGeom::meshReadOff(*mesh, file);
            if (!error)
                triangulatePolygons(*mesh);
        }
        else
            qyGeom::meshRead(*mesh, qyOS::Filename(path.c_str()));
    }
    if (error)
    {
        std::string message = error.message().c_str();
        while (!message.empty() && message.back() == '\n')
            message.pop_back();
        raiseError(g_error, message);
    }
    return meshViews(mesh);
}

void writeMesh(const std::string& path, const PyMesh& m, int digits, const py::object& formatName)
{
    const std::string kind = formatOf(path, formatName);
    MeshInput in(m.vertices, m.triangles, m.normals, m.uvs);
    if ((kind == "qym" || kind == "stl") && (in.hasNormals || in.hasUVs))
        throw py::value_error(format("the '%s' format holds positions and triangles only; write "
                                     "normals and UVs as 'obj', 'ply' or 'off'",
                                     kind.c_str()));
    qyGeom::MeshWriteOptions options;
    options.digits = digits;
    CapturedErrors errors;
    bool ok = false;
    {
        py::gil_scoped_release release;
        CompactMesh mesh;
        in.fill(mesh);
        const qyOS::Filename file(path.c_str());
        if (kind == "obj")
            ok = qyGeom::meshWriteObjChecked(mesh, file, options);
        else if (kind == "ply")
            ok = qyGeom::meshWritePly(mesh, file, qyGeom::PlyEncoding::BinaryLittleEndian, options);
        else if (kind == "stl")
            ok = qyGeom::meshWriteStl(mesh, file, qyGeom::StlEncoding::Binary, options);
        else if (kind == "off")
            ok = qyGeom::meshWriteOff(mesh, file, options);
        else
            ok = qyGeom::meshWriteChecked(mesh, file, options);
    }
    if (!ok)
    {
        const std::string text = errors.text();
        PyErr_SetString(PyExc_OSError, text.empty()
                                           ? format("cannot write '%s'", path.c_str()).c_str()
                                           : text.c_str());
        throw py::error_already_set();
    }
}

// ---------------------------------------------------------------------------------------------
// Welding.

struct WeldResult
{
    CompactMesh mesh;
    qyGeom::Remap remap;
};

py::tuple weld(py::handle v, py::handle t, py::handle n, py::handle uv, py::object callback)
{
    MeshInput in(v, t, n, uv, false);
    auto result = std::make_shared<WeldResult>();
    PyProgress progress(std::move(callback));
    {
        py::gil_scoped_release release;
        // The library welds the vertices; the triangles are renumbered here on their way from
        // the caller's array into the result, by the library's rule (an index outside the
        // vertex array stays as it is). This reads and writes them once, where copying them in
        // for the library to renumber in place would pass over them twice.
        CompactMesh& mesh = result->mesh;
        in.fill(mesh, true, false);
        qyGeom::DefaultMeshVertexEqualityChecker exact;
        qyGeom::meshCompact(mesh, progress, result->remap, exact);
        mesh.resizeTriangleArray(in.triangles.rows);
        const int numOld = in.vertices.rows;
        const int* map = result->remap.getMap();
        const int* from = in.triangles.data();
        int* to = mesh.getTrianglesRaw();
        const std::size_t count = 3 * std::size_t(in.triangles.rows);
        if (!map)
            parallelCopy(to, from, sizeof(int) * count);
        else
        {
            constexpr int piece = 1 << 20;
            qyUtil::runChunks(
                qyUtil::ThreadPool::get(), int((count + piece - 1) / piece),
                [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
                {
                    const std::size_t last = std::min(count, std::size_t(end) * piece);
                    for (std::size_t k = std::size_t(begin) * piece; k < last; ++k)
                    {
                        const int vertex = from[k];
                        to[k] = unsigned(vertex) < unsigned(numOld) ? map[vertex] : vertex;
                    }
                },
                nullptr, 1);
        }
    }
    progress.raiseIfStopped();
    const int numOld = in.vertices.rows;
    py::array remap;
    if (result->remap.isSequential() || numOld == 0)
    {
        py::array_t<std::int32_t> identity(numOld);
        std::int32_t* p = identity.mutable_data();
        for (int i = 0; i < numOld; ++i)
            p[i] = i;
        remap = identity;
    }
    else
        remap = viewOf(std::shared_ptr<void>(result), result->remap.getMap(), numOld, 0);
    std::shared_ptr<CompactMesh> mesh(result, &result->mesh);
    return py::make_tuple(meshViews(mesh), remap);
}

// The time of the library's weld alone on the mesh of the arrays, for the benchmark: wall and
// process CPU seconds of filling a CompactMesh as a C++ caller would (copyVertices,
// copyTriangles) and of meshCompact on it: (fill wall, weld wall, fill CPU, weld CPU).
py::tuple weldLibrarySeconds(py::handle v, py::handle t)
{
    MeshInput in(v, t, py::none(), py::none(), false);
    double seconds[4] = {0, 0, 0, 0};
    {
        py::gil_scoped_release release;
        CompactMesh mesh;
        qyGeom::Remap remap;
        qyUtil::Progress progress;
        qyGeom::DefaultMeshVertexEqualityChecker exact;
        using Clock = std::chrono::steady_clock;
        const auto t0 = Clock::now();
        const std::clock_t c0 = std::clock();
        in.fill(mesh, false);
        const auto t1 = Clock::now();
        const std::clock_t c1 = std::clock();
        qyGeom::meshCompact(mesh, progress, remap, exact);
        const auto t2 = Clock::now();
        const std::clock_t c2 = std::clock();
        seconds[0] = std::chrono::duration<double>(t1 - t0).count();
        seconds[1] = std::chrono::duration<double>(t2 - t1).count();
        seconds[2] = double(c1 - c0) / CLOCKS_PER_SEC;
        seconds[3] = double(c2 - c1) / CLOCKS_PER_SEC;
    }
    return py::make_tuple(seconds[0], seconds[1], seconds[2], seconds[3]);
}

// ---------------------------------------------------------------------------------------------
// Normals, topology, curvature.

py::array computeNormals(py::handle v, py::handle t)
{
    MeshInput in(v, t);
    auto mesh = std::make_shared<CompactMesh>();
    {
        py::gil_scoped_release release;
        in.fill(*mesh);
        qyGeom::meshComputeNormals(*mesh);
    }
    if (!mesh->getNormalsRaw())
        return py::array_t<float>(std::vector<py::ssize_t>{0, 3});
    return viewOf(std::shared_ptr<void>(mesh), mesh->getNormalsRaw(), mesh->getNumVertices(), 3);
}

struct Adjacency
{
    qyGeom::MeshAdjTris tris;
    qyGeom::MeshAdjVertices vertices;
    explicit Adjacency(const CompactMesh& mesh)
    {
        qyGeom::meshAdjTris(mesh, tris);
        qyGeom::meshAdjVertices(mesh, tris, vertices);
    }
};

py::dict topology(py::handle v, py::handle t)
{
    MeshInput in(v, t, py::none(), py::none(), false);
    auto summary = std::make_shared<qyGeom::MeshTopology>();
    {
        py::gil_scoped_release release;
        CompactMesh mesh;
        in.fill(mesh);
        Adjacency adjacency(mesh);
        qyGeom::MeshBoundaries boundaries;
        qyGeom::meshComputeBoundary(mesh, adjacency.tris, adjacency.vertices, boundaries);
        qyGeom::MeshEdges edges;
        qyGeom::meshEdges(mesh, edges);
        qyGeom::meshTopology(mesh, edges, boundaries, *summary);
    }
    const qyGeom::MeshTopology& s = *summary;
    py::list pieces;
    for (const auto& p : s.pieces)
    {
        py::dict d;
        d["vertices"] = p.vertices;
        d["triangles"] = p.triangles;
        d["edges"] = p.edges;
        d["boundary_edges"] = p.boundaryEdges;
        d["non_manifold_edges"] = p.nonManifoldEdges;
        d["boundary_loops"] = p.boundaryLoops;
        d["euler"] = p.euler;
        d["genus"] = p.genus;
        pieces.append(d);
    }
    py::dict d;
    d["vertices"] = s.vertices;
    d["referenced_vertices"] = s.referencedVertices;
    d["unreferenced_vertices"] = s.unreferencedVertices;
    d["triangles"] = s.triangles;
    d["degenerate_triangles"] = s.degenerateTriangles;
    d["invalid_triangles"] = s.invalidTriangles;
    d["edges"] = s.edges;
    d["boundary_edges"] = s.boundaryEdges;
    d["non_manifold_edges"] = s.nonManifoldEdges;
    d["boundary_loops"] = s.boundaryLoops;
    d["euler"] = s.euler;
    d["genus"] = s.genus();
    d["pieces"] = pieces;
    std::shared_ptr<void> owner = summary;
    d["vertex_piece"] = viewOf(owner, s.vertexPiece.data(), py::ssize_t(s.vertexPiece.size()), 0);
    d["triangle_piece"] =
        viewOf(owner, s.trianglePiece.data(), py::ssize_t(s.trianglePiece.size()), 0);
    return d;
}

qyGeom::MeshCurvature curvatureKind(const std::string& kind)
{
    if (kind == "mean")
        return qyGeom::MeshCurvature::Mean;
    if (kind == "gaussian")
        return qyGeom::MeshCurvature::Gaussian;
    if (kind == "min_principal")
        return qyGeom::MeshCurvature::MinPrincipal;
    if (kind == "max_principal")
        return qyGeom::MeshCurvature::MaxPrincipal;
    throw py::value_error(format("unknown curvature kind '%s': the kinds are 'mean', "
                                 "'gaussian', 'min_principal' and 'max_principal'",
                                 kind.c_str()));
}

py::array curvature(py::handle v, py::handle t, const std::string& kindName, py::handle n)
{
    const qyGeom::MeshCurvature kind = curvatureKind(kindName);
    MeshInput in(v, t, n);
    py::array_t<float> out(in.vertices.rows);
    float* result = out.mutable_data();
    {
        py::gil_scoped_release release;
        CompactMesh mesh;
        in.fill(mesh);
        Adjacency adjacency(mesh);
        qyGeom::meshCurvature(mesh, adjacency.tris, adjacency.vertices, qyLinear::AffineMatrixFlt(),
                              kind, result);
    }
    return out;
}

// ---------------------------------------------------------------------------------------------
// Flattening.

const char* flattenStatusName(qyGeom::FlattenStatus status)
{
    using S = qyGeom::FlattenStatus;
    switch (status)
    {
    case S::Ok:
        return "ok";
    case S::Cancelled:
        return "cancelled";
    case S::NonFiniteVertex:
        return "non_finite_vertex";
    case S::DegenerateTriangle:
        return "degenerate_triangle";
    case S::ShortBoundary:
        return "short_boundary";
    case S::SeveralPieces:
        return "several_pieces";
    case S::NotADisk:
        return "not_a_disk";
    case S::CutFailed:
        return "cut_failed";
    case S::NoOuterBoundary:
        return "no_outer_boundary";
    case S::SolverFailed:
        return "solver_failed";
    case S::NonFiniteLayout:
        return "non_finite_layout";
    }
    return "unknown";
}

py::array flatten(py::handle v, py::handle t, bool cut, bool compact, py::object callback)
{
    // Indices are checked by the flattening itself (DegenerateTriangle), so that its reason
    // reaches the caller.
    MeshInput in(v, t, py::none(), py::none(), false);
    auto mesh = std::make_shared<CompactMesh>();
    PyProgress progress(std::move(callback));
    bool ok = false;
    qyGeom::FlattenStatus status = qyGeom::FlattenStatus::Ok;
    std::string reason;
    {
        py::gil_scoped_release release;
        in.fill(*mesh);
        qyGeom::reparameterizeMesh flattening(*mesh);
        flattening.enableMeshCutSurface(cut);
        flattening.enableMeshCompact(compact);
        ok = flattening.flatten(progress);
        status = flattening.status();
        reason = flattening.failureReason();
    }
    progress.raiseIfStopped();
    if (!ok || !mesh->getUVsRaw())
    {
        py::object error = py::reinterpret_borrow<py::object>(g_flattenError)(
            reason.empty() ? std::string("the mesh could not be flattened") : reason);
        error.attr("status") = flattenStatusName(status);
        PyErr_SetObject(g_flattenError, error.ptr());
        throw py::error_already_set();
    }
    return viewOf(std::shared_ptr<void>(mesh), mesh->getUVsRaw(), mesh->getNumVertices(), 2);
}

// ---------------------------------------------------------------------------------------------
// Reduction.

py::tuple reduce(py::handle v, py::handle t, double amount, bool byTolerance, py::object callback)
{
    if (std::isnan(amount))
        throw py::value_error(byTolerance ? "tolerance must be a number"
                                          : "fraction must be a number");
    MeshInput in(v, t);
    auto mesh = std::make_shared<CompactMesh>();
    PyProgress progress(std::move(callback));
    qy::vector<qyLinear::Point> removed;
    double maxDistance = 0;
    {
        py::gil_scoped_release release;
        in.fill(*mesh);
        if (byTolerance)
            maxDistance = qyGeom::meshReduceWithTolerance(*mesh, amount, progress, removed);
        else
            qyGeom::meshReduceToFraction(*mesh, amount, progress, removed);
    }
    progress.raiseIfStopped();
    static_assert(sizeof(qyLinear::Point) == 3 * sizeof(double));
    py::array points =
        copyOf(reinterpret_cast<const double*>(removed.data()), py::ssize_t(removed.size()), 3);
    const PyMesh out = meshViews(mesh);
    if (byTolerance)
        return py::make_tuple(out.vertices, out.triangles, points, maxDistance);
    return py::make_tuple(out.vertices, out.triangles, points);
}

// ---------------------------------------------------------------------------------------------
// Subdivision.

py::tuple subdivide(py::handle v, py::handle f, int levels, py::object callback)
{
    if (levels < 1)
        throw py::value_error(format("levels must be 1 or more, got %d", levels));
    FloatRows vertices = floatRows(v, "vertices", 3, "x, y, z");
    IndexRows faces = indexRows(f, "faces", 0, vertices.rows, 3);
    const double quads = double(faces.rows) * faces.cols * std::pow(4.0, levels - 1);
    if (quads * 4.0 > double(INT_MAX))
        throw py::value_error(format("%d levels would make %.3g quads, more than 32-bit indices "
                                     "hold",
                                     levels, quads));
    PyProgress progress(std::move(callback));
    std::vector<float> xyz;
    std::vector<int> quadCorners;
    int refused = 0;
    {
        py::gil_scoped_release release;
        auto mesh = std::make_unique<qyGeom::TopoMesh>();
        const float* p = vertices.data();
        for (int i = 0; i < vertices.rows; ++i)
            mesh->allocVertex(p[3 * i], p[3 * i + 1], p[3 * i + 2]);
        for (int i = 0; i < faces.rows; ++i)
            if (!mesh->allocFace(faces.cols, faces.data() + std::size_t(i) * faces.cols))
                ++refused;
        if (refused == 0)
        {
            mesh->meshTwin();
            for (int level = 1; level <= levels && !progress.cancelled(); ++level)
            {
                progress.setCaption("Subdividing");
                progress.set(double(level - 1) / levels);
                std::unique_ptr<qyGeom::TopoMesh> next(qyGeom::computeSubdivMesh(*mesh, 1));
                if (!next)
                    break;
                mesh = std::move(next);
            }
            progress.set(1.0);
            std::vector<int> vertexOf(std::size_t(mesh->getVertexCapacity()), -1);
            int count = 0;
            for (qyGeom::TopoMeshVertex vx = mesh->firstVertex(); vx; vx = vx.nextInList())
            {
                vertexOf[std::size_t(vx.getIndex())] = count++;
                const qyLinear::Point& at = vx.point();
                xyz.insert(xyz.end(), {float(at.x), float(at.y), float(at.z)});
            }
            quadCorners.reserve(4 * std::size_t(mesh->getNumFaces()));
            for (qyGeom::TopoMeshFace fc = mesh->firstFace(); fc; fc = fc.nextInList())
            {
                qyGeom::TopoMeshEdge e = fc.edge();
                for (int k = 0; k < 4; ++k, e = e.next())
                    quadCorners.push_back(vertexOf[std::size_t(e.vertex().getIndex())]);
            }
        }
    }
    if (refused > 0)
        throw py::value_error(format("%d faces name a vertex twice, so they are not polygons "
                                     "of a surface",
                                     refused));
    progress.raiseIfStopped();
    return py::make_tuple(copyOf(xyz.data(), py::ssize_t(xyz.size() / 3), 3),
                          copyOf(quadCorners.data(), py::ssize_t(quadCorners.size() / 4), 4));
}

// ---------------------------------------------------------------------------------------------
// Smoothing.

py::array smooth(py::handle v, py::handle t, int iterations, const std::string& method,
                 py::object sigmaArg, py::handle n, py::handle selected, py::object callback)
{
    if (method != "laplacian" && method != "bilateral")
        throw py::value_error(format("unknown smoothing method '%s': the methods are "
                                     "'laplacian' and 'bilateral'",
                                     method.c_str()));
    if (iterations < 0)
        throw py::value_error(format("iterations must be 0 or more, got %d", iterations));
    const bool bilateral = method == "bilateral";
    double sigma = 0;
    if (bilateral)
    {
        if (sigmaArg.is_none())
            throw py::value_error("bilateral smoothing needs sigma, the neighbourhood radius");
        sigma = py::cast<double>(sigmaArg);
        if (!std::isfinite(sigma) || sigma == 0)
            throw py::value_error("sigma must be a finite non-zero radius");
    }
    else if (!sigmaArg.is_none())
        throw py::value_error("sigma applies to bilateral smoothing only");
    MeshInput in(v, t, n);
    // The selection: a boolean mask over the vertices or a list of vertex indices.
    std::vector<int> chosen;
    bool all = selected.is_none();
    if (!all)
    {
        py::array a = asArray(selected, "selected");
        if (a.dtype().kind() == 'b')
        {
            checkShape(a, "selected", 0, "one bool per vertex");
            checkRows(int(a.shape(0)), in.vertices.rows, "selected", "vertices");
            auto mask = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(a);
            for (int i = 0; i < in.vertices.rows; ++i)
                if (mask.data()[i])
                    chosen.push_back(i);
        }
        else
        {
            IndexRows idx =
                indexRows(a.reshape({a.size(), py::ssize_t(1)}), "selected", 1, in.vertices.rows);
            chosen.assign(idx.data(), idx.data() + idx.rows);
        }
    }
    auto mesh = std::make_shared<CompactMesh>();
    PyProgress progress(std::move(callback));
    {
        py::gil_scoped_release release;
        in.fill(*mesh);
        Adjacency adjacency(*mesh);
        qyGeom::BitVector& selection = mesh->getSelectedVertices();
        selection.resize(mesh->getNumVertices());
        selection.clearBits();
        if (all)
        {
            // Vertices without neighbours would average to 0 / 0: they stay where they are.
            for (int i = 0; i < mesh->getNumVertices(); ++i)
                if (adjacency.vertices.numVertices(i) > 0)
                    selection.setBit(i);
        }
        else
            selection.setBits(int(chosen.size()), chosen.data());
        for (int i = 0; i < iterations && !progress.stopped(); ++i)
        {
            qyUtil::Progress step;
            progress.subPhase(1.0 / iterations, step);
            if (bilateral && !in.hasNormals)
                qyGeom::meshComputeNormals(*mesh);
            if (bilateral)
                qyGeom::meshSmoothBilateral(*mesh, adjacency.vertices, sigma, step);
            else
                qyGeom::meshSmoothLaplacian(*mesh, adjacency.vertices, step);
        }
    }
    progress.raiseIfStopped();
    return viewOf(std::shared_ptr<void>(mesh), mesh->getVerticesRaw(), mesh->getNumVertices(), 3);
}

// ---------------------------------------------------------------------------------------------
// Orientation.

py::tuple orient(py::handle v, py::handle t)
{
    MeshInput in(v, t);
    auto mesh = std::make_shared<CompactMesh>();
    bool oriented = false;
    {
        py::gil_scoped_release release;
        in.fill(*mesh);
        qyGeom::MeshAdjTris adjTris;
        qyGeom::meshAdjTris(*mesh, adjTris);
        oriented = qyGeom::meshMakeOriented(*mesh, adjTris);
    }
    return py::make_tuple(
        viewOf(std::shared_ptr<void>(mesh), mesh->getTrianglesRaw(), mesh->getNumTriangles(), 3),
        oriented);
}

// ---------------------------------------------------------------------------------------------
// Ray casting.

class PyRayTracer
{
public:
    PyRayTracer(py::handle v, py::handle t)
    {
        MeshInput in(v, t);
        py::gil_scoped_release release;
        CompactMesh mesh;
        in.fill(mesh);
        m_tracer = qy::Reference<qyGeom::RayTracer>(new qyGeom::RayTracer(mesh));
    }

    int numTriangles() const { return m_tracer->getNumTriangles(); }

    py::tuple intersect(py::handle o, py::handle d) const
    {
        FloatRows origins = floatRows(o, "origins", 3, "x, y, z");
        DoubleRows directions = doubleRows(d, "directions", 3, "x, y, z");
        checkRows(directions.rows, origins.rows, "directions", "origins");
        const int n = origins.rows;
        py::array_t<std::int32_t> triangle(n);
        py::array_t<double> t(n);
        py::array_t<double> uv(std::vector<py::ssize_t>{n, 2});
        std::int32_t* tri = triangle.mutable_data();
        double* tp = t.mutable_data();
        double* uvp = uv.mutable_data();
        {
            py::gil_scoped_release release;
            std::vector<qyGeom::MeshRayHit> hits(static_cast<std::size_t>(n));
            qyGeom::meshRayIntersect(*m_tracer, n, origins.data(), directions.data(), hits.data());
            for (int i = 0; i < n; ++i)
            {
                const qyGeom::MeshRayHit& h = hits[std::size_t(i)];
                tri[i] = h.triangle;
                const bool hit = h.triangle >= 0;
                tp[i] = hit ? h.t : std::numeric_limits<double>::infinity();
                uvp[2 * i] = hit ? h.u : 0.0;
                uvp[2 * i + 1] = hit ? h.v : 0.0;
            }
        }
        return py::make_tuple(triangle, t, uv);
    }

    py::array occluded(py::handle o, py::handle d) const
    {
        FloatRows origins = floatRows(o, "origins", 3, "x, y, z");
        DoubleRows directions = doubleRows(d, "directions", 3, "x, y, z");
        checkRows(directions.rows, origins.rows, "directions", "origins");
        const int n = origins.rows;
        py::array_t<bool> out(n);
        static_assert(sizeof(bool) == sizeof(unsigned char));
        unsigned char* p = reinterpret_cast<unsigned char*>(out.mutable_data());
        {
            py::gil_scoped_release release;
            qyGeom::meshRayOccluded(*m_tracer, n, origins.data(), directions.data(), p);
        }
        return out;
    }

private:
    qy::Reference<qyGeom::RayTracer> m_tracer;
};

} // namespace

PYBIND11_MODULE(qygeom, m)
{
    m.doc() = R"doc(Mesh algorithms of libGeometryAlg over numpy arrays.

Meshes are numpy arrays: vertices float32 (n, 3), triangles int32 (m, 3) of vertex
indices, normals float32 (n, 3) and UVs float32 (n, 2) where present. Arrays of another
floating (or integer) type, or not in C order, are converted with a copy; arrays already in
the layout are read in place. Inputs are never changed: every call copies the mesh into the
library's own mesh and returns new arrays (views of that result, no further copy).

Long calls release the GIL, take progress=callable(caption: str, fraction: float) (return
True to cancel), and stop on Ctrl-C with KeyboardInterrupt.)doc";

    installOutputSink();

    static py::exception<std::exception> error(m, "Error", PyExc_RuntimeError);
    g_error = error.ptr();
    static py::exception<std::exception> flattenError(m, "FlattenError", g_error);
    g_flattenError = flattenError.ptr();
    static py::exception<std::exception> cancelled(m, "CancelledError", g_error);
    g_cancelled = cancelled.ptr();
    py::register_exception_translator(
        [](std::exception_ptr p)
        {
            try
            {
                if (p)
                    std::rethrow_exception(p);
            }
            catch (const qyUtil::Error& e)
            {
                PyErr_SetString(g_error, e.what());
            }
        });

    py::class_<PyMesh>(m, "Mesh", R"doc(A triangle mesh as numpy arrays.

vertices: float32 (n, 3); triangles: int32 (m, 3); normals: float32 (n, 3) or None;
uvs: float32 (n, 2) or None. The constructor checks and converts its arguments (a copy
only when the dtype or order differs).)doc")
        .def(py::init([](py::handle v, py::handle t, py::handle n, py::handle uv)
                      { return meshFromInput(MeshInput(v, t, n, uv)); }),
             py::arg("vertices"), py::arg("triangles"), py::arg("normals") = py::none(),
             py::arg("uvs") = py::none())
        .def_readwrite("vertices", &PyMesh::vertices, "float32 (n, 3) positions")
        .def_readwrite("triangles", &PyMesh::triangles, "int32 (m, 3) vertex indices")
        .def_readwrite("normals", &PyMesh::normals, "float32 (n, 3) normals, or None")
        .def_readwrite("uvs", &PyMesh::uvs, "float32 (n, 2) texture coordinates, or None")
        .def("__repr__",
             [](const PyMesh& mesh)
             {
                 auto rows = [](const py::object& a) {
                     return a.is_none() ? std::string("None")
                                        : std::string(py::str(a.attr("shape")));
                 };
                 return "Mesh(vertices=" + rows(mesh.vertices) +
                        ", triangles=" + rows(mesh.triangles) + ", normals=" + rows(mesh.normals) +
                        ", uvs=" + rows(mesh.uvs) + ")";
             });

    m.def("read", &readMesh, py::arg("path"), py::arg("format") = py::none(),
          R"doc(Reads a mesh file; the format comes from the extension unless `format` is given.

'obj': the strict OBJ parser. Without texture or normal indices on the faces there is one
vertex per 'v' line, in file order; otherwise one vertex per distinct (v, vt, vn) triple of
the face corners, in order of first use, with its UV and normal ((0, 0) and (0, 0, 0) for a
corner that has none). Polygons are triangulated.
'ply', 'stl', 'off': positions, and the normals and texture coordinates that PLY and OFF
files hold (vertex colours are not carried); polygons are triangulated, and STL corners are
welded exactly into vertices numbered by first use.
'qym': the library's minimal format (positions and triangles).
Raises FileNotFoundError/OSError when the file cannot be opened and qygeom.Error with the
parser's message for a malformed file.)doc");

    m.def(
        "write", &writeMesh, py::arg("path"), py::arg("mesh"), py::arg("digits") = 0,
        py::arg("format") = py::none(),
        R"doc(Writes a Mesh as 'obj', 'ply' (binary) or 'off', with its normals and UVs, or as 'stl'
(binary) or 'qym', which hold positions and triangles only.

digits: significant digits of every number (0: the format's own, 6 for OBJ and 10 for qym;
9 keeps every float32). Raises OSError with the library's message when writing fails.)doc");

    m.def("weld", &weld, py::arg("vertices"), py::arg("triangles"), py::arg("normals") = py::none(),
          py::arg("uvs") = py::none(), py::arg("progress") = py::none(),
          R"doc(Welds exactly coincident vertices. Returns (Mesh, remap).

Vertices equal in x, y and z (and in normal and UV when normals are given) become one; the
result's vertices come out sorted by position. remap: int32 (n,), the new index of every
old vertex (so mesh.vertices[remap] == vertices). Triangles are renumbered, none removed.
Indices outside the vertex array are left as they are. Runs to the end once started (it is
not cancellable); the inputs are copied once into the library's mesh.)doc");

    m.def(
        "_weld_library_seconds", &weldLibrarySeconds, py::arg("vertices"), py::arg("triangles"),
        "Benchmark helper: (fill wall, weld wall, fill CPU, weld CPU) seconds of the library's own "
        "weld of the arrays.");

    m.def("normals", &computeNormals, py::arg("vertices"), py::arg("triangles"),
          R"doc(Per-vertex unit normals, float32 (n, 3): the normalised sum of the unit normals of
the triangles around each vertex; (0, 0, 1) for a vertex without triangles.)doc");

    m.def("topology", &topology, py::arg("vertices"), py::arg("triangles"),
          R"doc(Topology summary as a dict: counts of vertices, edges and triangles (with the
degenerate and invalid ones), boundary and non-manifold edges, boundary loops, Euler
characteristic, genus (-1 when not a surface), 'pieces' (a dict per piece) and the piece of
every vertex and triangle ('vertex_piece', 'triangle_piece', -1 for none). Triangles with
indices outside the vertex array are counted as invalid, not refused.)doc");

    m.def("curvature", &curvature, py::arg("vertices"), py::arg("triangles"),
          py::arg("kind") = "mean", py::arg("normals") = py::none(),
          R"doc(Discrete per-vertex curvature, float32 (n,): kind 'mean' (signed, 1/r on a
sphere with outward normals), 'gaussian', 'min_principal' or 'max_principal'. Border
vertices take the mean of their interior neighbours.)doc");

    m.def("flatten", &flatten, py::arg("vertices"), py::arg("triangles"), py::arg("cut") = true,
          py::arg("compact") = true, py::arg("progress") = py::none(),
          R"doc(Conformal flattening: UVs float32 (n, 2) in the unit square.

cut: a closed mesh or one with handles may be cut to a disk; compact: weld a copy first.
Raises qygeom.FlattenError with the library's reason (and .status, e.g. 'not_a_disk',
'several_pieces', 'degenerate_triangle') when the mesh cannot be flattened.)doc");

    m.def(
        "reduce_to_fraction",
        [](py::handle v, py::handle t, double fraction, py::object progress)
        { return reduce(v, t, fraction, false, std::move(progress)); },
        py::arg("vertices"), py::arg("triangles"), py::arg("fraction"),
        py::arg("progress") = py::none(),
        R"doc(Removes the flattest interior vertices until `fraction` of them are left (or no
more can go). Returns (vertices, triangles, removed) with removed float64 (k, 3), the
positions taken out. Border vertices are kept.)doc");

    m.def(
        "reduce_to_tolerance",
        [](py::handle v, py::handle t, double tolerance, py::object progress)
        { return reduce(v, t, tolerance, true, std::move(progress)); },
        py::arg("vertices"), py::arg("triangles"), py::arg("tolerance"),
        py::arg("progress") = py::none(),
        R"doc(Removes interior vertices while every removed one stays within `tolerance` of
the reduced surface. Returns (vertices, triangles, removed, max_distance).)doc");

    m.def("subdivide", &subdivide, py::arg("vertices"), py::arg("faces"), py::arg("levels") = 1,
          py::arg("progress") = py::none(),
          R"doc(Catmull-Clark subdivision. faces: int (m, k), k >= 3 (triangles, quads ...).
Returns (vertices float32 (n, 3), quads int32 (q, 4)); vertices are computed in double
precision and rounded to float32 (a copy). Faces that name a vertex twice raise ValueError.
Cancellation (callback or Ctrl-C) takes effect between levels.)doc");

    m.def("smooth", &smooth, py::arg("vertices"), py::arg("triangles"), py::arg("iterations") = 1,
          py::arg("method") = "laplacian", py::arg("sigma") = py::none(),
          py::arg("normals") = py::none(), py::arg("selected") = py::none(),
          py::arg("progress") = py::none(),
          R"doc(Smooths the vertices; returns the new vertices float32 (n, 3).

method 'laplacian': each step moves a vertex to the average of its neighbours (open borders
shrink). 'bilateral': feature-preserving steps along the normals (recomputed every step
unless `normals` are given) within radius `sigma`. selected: a bool mask or vertex indices
(default: every vertex that has a neighbour).)doc");

    m.def("orient", &orient, py::arg("vertices"), py::arg("triangles"),
          R"doc(Makes the triangle winding consistent, each connected region following its
lowest-numbered triangle. Returns (triangles int32 (m, 3), oriented: bool); when the mesh is
not orientable the triangles flipped on the way stay flipped and oriented is False.)doc");

    py::class_<PyRayTracer>(m, "RayTracer",
                            R"doc(A bounding-volume hierarchy over a mesh's triangles, for many ray
casts. Keeps its own copy of the triangles.)doc")
        .def(py::init<py::handle, py::handle>(), py::arg("vertices"), py::arg("triangles"))
        .def_property_readonly("num_triangles", &PyRayTracer::numTriangles)
        .def("intersect", &PyRayTracer::intersect, py::arg("origins"), py::arg("directions"),
             R"doc(Nearest hits of the rays origin + t direction (t > 0); origins float32 (r, 3),
directions float64 (r, 3) (other float types are converted). Returns (triangle int32 (r,),
-1 for a miss; t float64 (r,), inf for a miss; uv float64 (r, 2), the barycentric
coordinates of the triangle's corners 1 and 2).)doc")
        .def("occluded", &PyRayTracer::occluded, py::arg("origins"), py::arg("directions"),
             "bool (r,): whether each ray hits any triangle.");

    m.def(
        "ray_cast",
        [](py::handle v, py::handle t, py::handle o, py::handle d)
        { return PyRayTracer(v, t).intersect(o, d); },
        py::arg("vertices"), py::arg("triangles"), py::arg("origins"), py::arg("directions"),
        "RayTracer(vertices, triangles).intersect(origins, directions) in one call.");

    m.def(
        "set_num_threads", [](int n) { qyUtil::ThreadPool::get().setNumThreads(n); }, py::arg("n"),
        "Sets the library's thread pool size (0: the default).");
    m.def(
        "get_num_threads", []() { return qyUtil::ThreadPool::get().getNumThreads(); },
        "The library's thread pool size.");
    m.def(
        "set_verbose", [](bool on) { g_verbose = on; }, py::arg("on"),
        "Prints the library's information messages on standard error (off by default).");
}
