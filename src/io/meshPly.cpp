// PLY files: a header of elements and their typed properties, then the elements' values as
// ASCII lines or packed binary numbers in either byte order.
#include "qyGeom/meshPly.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "io/detail/MeshFormat.h"
#include "io/detail/TextOut.h"
#include "model/CompactMesh.h"

namespace qyGeom
{

namespace
{

using detail::Lines;
using detail::MeshArrays;
using detail::ReadFailure;
using detail::Words;

enum class Type : unsigned char
{
    Int8,
    UInt8,
    Int16,
    UInt16,
    Int32,
    UInt32,
    Float32,
    Float64
};

constexpr int typeSize[] = {1, 1, 2, 2, 4, 4, 4, 8};

int sizeOf(Type t)
{
    return typeSize[int(t)];
}

bool isInteger(Type t)
{
    return t != Type::Float32 && t != Type::Float64;
}

bool typeOf(std::string_view w, Type& t)
{
    static const struct
    {
        std::string_view name;
        Type type;
    } names[] = {{"char", Type::Int8},      {"int8", Type::Int8},       {"uchar", Type::UInt8},
                 {"uint8", Type::UInt8},    {"short", Type::Int16},     {"int16", Type::Int16},
                 {"ushort", Type::UInt16},  {"uint16", Type::UInt16},   {"int", Type::Int32},
                 {"int32", Type::Int32},    {"uint", Type::UInt32},     {"uint32", Type::UInt32},
                 {"float", Type::Float32},  {"float32", Type::Float32}, {"double", Type::Float64},
                 {"float64", Type::Float64}};
    for (const auto& n : names)
        if (n.name == w)
        {
            t = n.type;
            return true;
        }
    return false;
}

/// What a vertex property carries.
enum Role : int
{
    NoRole = -1,
    X,
    Y,
    Z,
    NX,
    NY,
    NZ,
    Red,
    Green,
    Blue,
    Alpha,
    U,
    V,
    NumRoles
};

Role roleOf(std::string_view name)
{
    static const struct
    {
        std::string_view name;
        Role role;
    } names[] = {{"x", X},
                 {"y", Y},
                 {"z", Z},
                 {"nx", NX},
                 {"ny", NY},
                 {"nz", NZ},
                 {"red", Red},
                 {"diffuse_red", Red},
                 {"diffuse_green", Green},
                 {"diffuse_blue", Blue},
                 {"diffuse_alpha", Alpha},
                 {"green", Green},
                 {"blue", Blue},
                 {"alpha", Alpha},
                 {"u", U},
                 {"v", V},
                 {"s", U},
                 {"t", V},
                 {"texture_u", U},
                 {"texture_v", V},
                 {"texture_s", U},
                 {"texture_t", V}};
    for (const auto& n : names)
        if (n.name == name)
            return n.role;
    return NoRole;
}

struct Property
{
    std::string name;
    Type type = Type::Float32; ///< a list's item type
    bool isList = false;
    Type countType = Type::UInt8;
    int role = NoRole; ///< vertex properties
};

struct Element
{
    std::string name;
    long long count = 0;
    std::vector<Property> properties;
    int line = 0;

    /// The fewest bytes an entry takes in a binary body (lists empty).
    long long minBinaryBytes() const
    {
        long long n = 0;
        for (const Property& p : properties)
            n += p.isList ? sizeOf(p.countType) : sizeOf(p.type);
        return n;
    }
    /// The fewest bytes an entry takes in an ASCII body: a character and a separator per
    /// value, a line end at least.
    long long minTextBytes() const
    {
        return std::max<long long>(1, 2 * (long long)properties.size());
    }
};

struct Header
{
    PlyEncoding encoding = PlyEncoding::Ascii;
    std::vector<Element> elements;
    const char* body = nullptr;
    int bodyLine = 0; ///< the line on which the body starts
};

Header readHeader(const char* p, const char* end, const ReadFailure& failure)
{
    Header h;
    Lines lines(p, end);
    std::string_view w;
    if (!lines.next() || !Words(lines.begin, lines.end).next(w) || w != "ply")
        failure.atLine(1, "not a PLY file (the first line is not \"ply\")");
    bool haveFormat = false;
    while (lines.next())
    {
        Words words(lines.begin, lines.end);
        const int line = lines.line();
        if (!words.next(w))
            continue;
        if (w == "comment" || w == "obj_info")
            continue;
        if (w == "end_header")
        {
            if (!haveFormat)
                failure.atLine(line, "the header has no \"format\" line");
            h.body = lines.rest();
            h.bodyLine = line + 1;
            return h;
        }
        if (w == "format")
        {
            std::string_view version;
            if (!words.next(w) || !words.next(version) || !words.done())
                failure.atLine(line, "expected \"format <encoding> 1.0\"");
            if (w == "ascii")
                h.encoding = PlyEncoding::Ascii;
            else if (w == "binary_little_endian")
                h.encoding = PlyEncoding::BinaryLittleEndian;
            else if (w == "binary_big_endian")
                h.encoding = PlyEncoding::BinaryBigEndian;
            else
                failure.atLine(line, "unknown format '%.*s'", int(w.size()), w.data());
            if (version.substr(0, 1) != "1")
                failure.atLine(line, "unknown PLY version '%.*s'", int(version.size()),
                               version.data());
            haveFormat = true;
        }
        else if (w == "element")
        {
            Element e;
            long long count;
            if (!words.next(w) || !words.integer(count) || !words.done())
                failure.atLine(line, "expected \"element <name> <count>\"");
            if (count < 0)
                failure.atLine(line, "element '%.*s' has a negative count", int(w.size()),
                               w.data());
            e.name.assign(w);
            e.count = count;
            e.line = line;
            h.elements.push_back(std::move(e));
        }
        else if (w == "property")
        {
            if (h.elements.empty())
                failure.atLine(line, "a property before the first element");
            Property prop;
            std::string_view type;
            if (!words.next(type))
                failure.atLine(line, "expected a property type");
            if (type == "list")
            {
                prop.isList = true;
                std::string_view countType;
                if (!words.next(countType) || !words.next(type))
                    failure.atLine(line, "expected \"property list <count type> <type> <name>\"");
                if (!typeOf(countType, prop.countType) || !isInteger(prop.countType))
                    failure.atLine(line, "a list count of type '%.*s'", int(countType.size()),
                                   countType.data());
            }
            if (!typeOf(type, prop.type))
                failure.atLine(line, "unknown property type '%.*s'", int(type.size()), type.data());
            if (!words.next(w) || !words.done())
                failure.atLine(line, "expected a property name and nothing after it");
            prop.name.assign(w);
            h.elements.back().properties.push_back(std::move(prop));
        }
        // Any other line is read over: some exporters wrote their banner without "comment".
    }
    failure.atLine(lines.endLine(), "the header has no \"end_header\" line");
}

/// What a colour channel of type t is divided by to scale it to [0, 1] (a division, so that
/// the channel k of a byte reads as k / 255.0f exactly).
float channelDivisor(Type t)
{
    switch (t)
    {
    case Type::UInt16:
        return 65535.0f;
    case Type::Float32:
    case Type::Float64:
        return 1.0f;
    default:
        return 255.0f;
    }
}

/// The reader's plan for the vertex and face elements.
struct Plan
{
    int vertexElement = -1, faceElement = -1;
    int faceList = -1; ///< the index list among the face element's properties
    int numVertices = 0, numFaces = 0;
    bool hasNormals = false, hasColours = false, hasAlpha = false, hasUVs = false;
    float divisor[NumRoles] = {};
};

Plan planOf(Header& h, const ReadFailure& failure)
{
    Plan plan;
    for (int i = 0; i < int(h.elements.size()); ++i)
    {
        Element& e = h.elements[std::size_t(i)];
        if (e.name == "vertex" && plan.vertexElement < 0)
            plan.vertexElement = i;
        else if (e.name == "face" && plan.faceElement < 0)
            plan.faceElement = i;
    }
    if (plan.vertexElement < 0)
        failure.fail("the header has no element \"vertex\"");
    Element& ve = h.elements[std::size_t(plan.vertexElement)];
    if (ve.count > INT_MAX)
        failure.atLine(ve.line, "%lld vertices are more than this reader takes (%d)", ve.count,
                       INT_MAX);
    bool present[NumRoles] = {};
    for (Property& p : ve.properties)
    {
        p.role = p.isList ? NoRole : roleOf(p.name);
        if (p.role != NoRole)
        {
            present[p.role] = true;
            plan.divisor[p.role] = p.role >= Red && p.role <= Alpha ? channelDivisor(p.type) : 1.0f;
        }
    }
    if (!present[X] || !present[Y] || !present[Z])
        failure.atLine(ve.line, "the vertices have no x, y and z properties");
    plan.hasNormals = present[NX] && present[NY] && present[NZ];
    plan.hasColours = present[Red] && present[Green] && present[Blue];
    plan.hasAlpha = plan.hasColours && present[Alpha];
    plan.hasUVs = present[U] && present[V];
    // Properties of an attribute that is not whole are read over.
    for (Property& p : ve.properties)
        if ((p.role >= NX && p.role <= NZ && !plan.hasNormals) ||
            (p.role >= Red && p.role <= Alpha && !plan.hasColours) || (p.role >= U && !plan.hasUVs))
            p.role = NoRole;
    plan.numVertices = int(ve.count);
    if (plan.faceElement >= 0)
    {
        const Element& fe = h.elements[std::size_t(plan.faceElement)];
        for (int i = 0; i < int(fe.properties.size()); ++i)
        {
            const Property& p = fe.properties[std::size_t(i)];
            if (p.isList && (p.name == "vertex_indices" || p.name == "vertex_index"))
                plan.faceList = i;
        }
        if (plan.faceList < 0)
            failure.atLine(fe.line, "the faces have no list \"vertex_indices\"");
        if (!isInteger(fe.properties[std::size_t(plan.faceList)].type))
            failure.atLine(fe.line, "the face indices are not integers");
        if (fe.count > INT_MAX)
            failure.atLine(fe.line, "%lld faces are more than this reader takes (%d)", fe.count,
                           INT_MAX);
        plan.numFaces = int(fe.count);
    }
    return plan;
}

/// Refuses counts that the body cannot hold, before anything is allocated.
void checkCounts(const Header& h, std::size_t bodyBytes, const ReadFailure& failure)
{
    const bool binary = h.encoding != PlyEncoding::Ascii;
    // In double: the counts fit in 63 bits and the sizes in a few, so the sum is exact
    // enough to compare with any file size.
    double need = 0;
    for (const Element& e : h.elements)
        need += double(e.count) * double(binary ? e.minBinaryBytes() : e.minTextBytes());
    if (!binary)
        need -= 1; // the last line needs no line end
    if (need > double(bodyBytes))
    {
        std::string counts;
        for (const Element& e : h.elements)
            counts += (counts.empty() ? "" : ", ") + std::to_string(e.count) + " " + e.name;
        failure.fail("the header's counts (%s) need at least %.0f bytes, but the file has %zu "
                     "after the header",
                     counts.c_str(), need, bodyBytes);
    }
}

/// The arrays of the vertices, sized once.
void allocate(const Plan& plan, MeshArrays& out)
{
    const std::size_t nv = std::size_t(plan.numVertices);
    out.xyz.resize(3 * nv);
    if (plan.hasNormals)
        out.normals.resize(3 * nv);
    if (plan.hasColours)
        out.colours.assign(4 * nv, 1.0f);
    if (plan.hasUVs)
        out.uvs.resize(2 * nv);
}

/// Where the value of each role goes: float k of the per-vertex array.
struct Target
{
    std::vector<float>* array;
    int stride, offset;
};

Target targetOf(int role, MeshArrays& out)
{
    if (role <= Z)
        return {&out.xyz, 3, role - X};
    if (role <= NZ)
        return {&out.normals, 3, role - NX};
    if (role <= Alpha)
        return {&out.colours, 4, role - Red};
    return {&out.uvs, 2, role - U};
}

// ---------------------------------------------------------------------------------------
// Binary bodies

/// A binary number of type t at p, in the file's byte order.
template <class T> T loadRaw(const char* p, bool swap)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    if (swap)
    {
        char b[sizeof v];
        std::memcpy(b, &v, sizeof v);
        std::reverse(b, b + sizeof v);
        std::memcpy(&v, b, sizeof v);
    }
    return v;
}

/// Calls fn with a value-initialised object of the C++ type of t, whose return it returns.
template <class Fn> auto withType(Type t, Fn fn)
{
    switch (t)
    {
    case Type::Int8:
        return fn(std::int8_t());
    case Type::UInt8:
        return fn(std::uint8_t());
    case Type::Int16:
        return fn(std::int16_t());
    case Type::UInt16:
        return fn(std::uint16_t());
    case Type::Int32:
        return fn(std::int32_t());
    case Type::UInt32:
        return fn(std::uint32_t());
    case Type::Float32:
        return fn(float());
    case Type::Float64:
        return fn(double());
    }
    return decltype(fn(float()))();
}

double loadValue(const char* p, Type t, bool swap)
{
    return withType(t, [&](auto type) { return double(loadRaw<decltype(type)>(p, swap)); });
}

/// A float32 value straight, without going through double (a float keeps its bits, NaN
/// payloads included).
float loadFloat(const char* p, Type t, bool swap)
{
    return t == Type::Float32 ? loadRaw<float>(p, swap) : float(loadValue(p, t, swap));
}

/// An integer value; 0 for a floating-point type.
long long loadInteger(const char* p, Type t, bool swap)
{
    return withType(t,
                    [&](auto type) -> long long
                    {
                        using T = decltype(type);
                        if constexpr (std::is_integral_v<T>)
                            return loadRaw<T>(p, swap);
                        else
                            return 0;
                    });
}

class BinaryBody
{
public:
    BinaryBody(const char* p, const char* end, bool swap, const ReadFailure& failure)
        : m_p(p), m_end(end), m_swap(swap), m_failure(failure)
    {
    }

    void read(const Header& h, const Plan& plan, MeshArrays& out)
    {
        for (int i = 0; i < int(h.elements.size()); ++i)
        {
            const Element& e = h.elements[std::size_t(i)];
            if (i == plan.vertexElement)
                readVertices(e, plan, out);
            else if (i == plan.faceElement)
                readFaces(e, plan, out);
            else
                skipElement(e);
        }
        if (m_p != m_end)
            m_failure.fail("%zu bytes after the last element (the header's counts are too "
                           "small)",
                           std::size_t(m_end - m_p));
    }

private:
    void need(std::size_t n, const Element& e, long long entry) const
    {
        if (std::size_t(m_end - m_p) < n)
            m_failure.fail("the file ends inside %s %lld of %lld", e.name.c_str(), entry + 1,
                           e.count);
    }

    static bool hasLists(const Element& e)
    {
        return std::any_of(e.properties.begin(), e.properties.end(),
                           [](const Property& p) { return p.isList; });
    }

    /// Reads over a list, or a scalar, of entry `entry`; returns its count (1 for a scalar).
    long long skipProperty(const Property& p, const Element& e, long long entry)
    {
        if (!p.isList)
        {
            need(std::size_t(sizeOf(p.type)), e, entry);
            m_p += sizeOf(p.type);
            return 1;
        }
        need(std::size_t(sizeOf(p.countType)), e, entry);
        const long long n = loadInteger(m_p, p.countType, m_swap);
        m_p += sizeOf(p.countType);
        if (n < 0)
            m_failure.fail("%s %lld has a list of negative length", e.name.c_str(), entry + 1);
        if (double(n) * sizeOf(p.type) > double(m_end - m_p))
            m_failure.fail("the file ends inside %s %lld of %lld (a list of %lld entries)",
                           e.name.c_str(), entry + 1, e.count, n);
        m_p += n * sizeOf(p.type);
        return n;
    }

    void skipElement(const Element& e)
    {
        if (!hasLists(e))
        {
            // Fixed-size entries: the count check made sure that they are all there.
            m_p += std::size_t(e.count) * std::size_t(e.minBinaryBytes());
            return;
        }
        for (long long i = 0; i < e.count; ++i)
            for (const Property& p : e.properties)
                skipProperty(p, e, i);
    }

    void readVertices(const Element& e, const Plan& plan, MeshArrays& out)
    {
        struct Field
        {
            int offset;
            Type type;
            Target target;
            float divisor;
        };
        std::vector<Field> fields;
        int offset = 0;
        for (const Property& p : e.properties)
        {
            if (p.role != NoRole)
                fields.push_back({offset, p.type, targetOf(p.role, out), plan.divisor[p.role]});
            offset += p.isList ? 0 : sizeOf(p.type);
        }
        const long long n = e.count;
        if (n == 0)
            return; // and the arrays have no data to point into
        if (hasLists(e))
        {
            // Entries of their own size: each property in turn.
            for (long long i = 0; i < n; ++i)
            {
                std::size_t k = 0;
                for (const Property& p : e.properties)
                {
                    const char* const at = m_p;
                    skipProperty(p, e, i);
                    if (p.role == NoRole)
                        continue;
                    const Field& f = fields[k++];
                    (*f.target.array)[std::size_t(i) * std::size_t(f.target.stride) +
                                      std::size_t(f.target.offset)] =
                        loadFloat(at, f.type, m_swap) / f.divisor;
                }
            }
            return;
        }
        const std::size_t stride = std::size_t(e.minBinaryBytes());
        const char* const base = m_p;
        m_p += std::size_t(n) * stride;
        float* const xyz = out.xyz.data();
        // Positions first: the common float x, y, z in a row of the machine's byte order is
        // a plain copy.
        const Field* fx = &fields[0];
        for (const Field& f : fields)
            if (f.target.array == &out.xyz && f.target.offset == 0)
                fx = &f;
        const bool packedXyz =
            !m_swap && fx->type == Type::Float32 &&
            std::count_if(fields.begin(), fields.end(),
                          [&](const Field& f)
                          {
                              return f.target.array == &out.xyz && f.type == Type::Float32 &&
                                     f.offset == fx->offset + 4 * f.target.offset;
                          }) == 3;
        if (packedXyz)
            for (long long i = 0; i < n; ++i)
                std::memcpy(xyz + 3 * i, base + std::size_t(i) * stride + fx->offset, 12);
        for (const Field& f : fields)
        {
            if (packedXyz && f.target.array == &out.xyz)
                continue;
            float* const dst = f.target.array->data() + f.target.offset;
            const std::size_t s = std::size_t(f.target.stride);
            for (long long i = 0; i < n; ++i)
                dst[std::size_t(i) * s] =
                    loadFloat(base + std::size_t(i) * stride + f.offset, f.type, m_swap) /
                    f.divisor;
        }
    }

    void addFace(const int* c, long long count, long long entry, int numVertices,
                 MeshArrays& out) const
    {
        for (long long k = 0; k < count; ++k)
            if (unsigned(c[k]) >= unsigned(numVertices))
                m_failure.fail("face %lld names vertex %d, but there are %d vertices", entry + 1,
                               c[k], numVertices);
        if (count >= 3)
            out.addFace(c, int(count));
    }

    void readFaces(const Element& e, const Plan& plan, MeshArrays& out)
    {
        const Property& list = e.properties[std::size_t(plan.faceList)];
        const int nv = plan.numVertices;
        const long long n = e.count;
        long long i = 0;
        if (e.properties.size() == 1 && list.countType == Type::UInt8 && !m_swap &&
            (list.type == Type::Int32 || list.type == Type::UInt32))
        {
            // The common layout: triangles as a count byte and three 32-bit indices, copied
            // while they last.
            // As many triangles as the bytes left can hold, however many faces the header
            // claims: the array never outgrows the file.
            const long long fit = std::min<long long>(n, (m_end - m_p) / 13);
            out.corners.resize(3 * std::size_t(fit));
            int* c = out.corners.data();
            for (; i < fit && *m_p == 3; ++i, m_p += 13, c += 3)
            {
                std::memcpy(c, m_p + 1, 12);
                if ((unsigned(c[0]) >= unsigned(nv)) | (unsigned(c[1]) >= unsigned(nv)) |
                    (unsigned(c[2]) >= unsigned(nv)))
                    addFace(c, 3, i, nv, out); // reports the index
            }
            out.corners.resize(3 * std::size_t(i));
        }
        std::vector<int> corners;
        for (; i < n; ++i)
            for (int k = 0; k < int(e.properties.size()); ++k)
            {
                const Property& p = e.properties[std::size_t(k)];
                const char* const at = m_p;
                const long long count = skipProperty(p, e, i);
                if (k != plan.faceList)
                    continue;
                const char* items = at + sizeOf(p.countType);
                corners.resize(std::size_t(count));
                for (long long c = 0; c < count; ++c)
                {
                    const long long v = loadInteger(items + c * sizeOf(p.type), p.type, m_swap);
                    corners[std::size_t(c)] = v < 0 || v > INT_MAX ? INT_MAX : int(v);
                }
                addFace(corners.data(), count, i, nv, out);
            }
    }

    const char* m_p;
    const char* m_end;
    bool m_swap;
    const ReadFailure& m_failure;
};

// ---------------------------------------------------------------------------------------
// ASCII bodies

void readAsciiBody(const Header& h, const Plan& plan, const char* end, MeshArrays& out,
                   const ReadFailure& failure)
{
    Lines lines(h.body, end, h.bodyLine);
    std::vector<int> corners;
    auto nextLine = [&](const Element& e, long long entry)
    {
        while (lines.next())
            if (!Words(lines.begin, lines.end).done())
                return;
        failure.atLine(lines.endLine(),
                       "the file ends after %lld of the %lld entries of element "
                       "'%s'",
                       entry, e.count, e.name.c_str());
    };
    for (int ei = 0; ei < int(h.elements.size()); ++ei)
    {
        const Element& e = h.elements[std::size_t(ei)];
        const bool isVertex = ei == plan.vertexElement, isFace = ei == plan.faceElement;
        std::vector<Target> targets;
        for (const Property& p : e.properties)
            targets.push_back(isVertex && p.role != NoRole ? targetOf(p.role, out)
                                                           : Target{nullptr, 0, 0});
        for (long long i = 0; i < e.count; ++i)
        {
            nextLine(e, i);
            Words words(lines.begin, lines.end);
            for (int k = 0; k < int(e.properties.size()); ++k)
            {
                const Property& p = e.properties[std::size_t(k)];
                if (!p.isList)
                {
                    float v;
                    if (!words.number(v))
                        failure.atLine(lines.line(), "expected a number for property '%s'",
                                       p.name.c_str());
                    const Target& t = targets[std::size_t(k)];
                    if (t.array)
                        (*t.array)[std::size_t(i) * std::size_t(t.stride) + std::size_t(t.offset)] =
                            v / plan.divisor[p.role];
                    continue;
                }
                long long count;
                if (!words.integer(count) || count < 0)
                    failure.atLine(lines.line(), "expected the length of list '%s'",
                                   p.name.c_str());
                const bool isIndices = isFace && k == plan.faceList;
                if (isIndices)
                    corners.clear();
                // Each value is read from the line, so a lying length cannot allocate more
                // than the line holds.
                for (long long c = 0; c < count; ++c)
                {
                    long long v = 0;
                    float f;
                    const bool ok = isInteger(p.type) ? words.integer(v) : words.number(f);
                    if (!ok)
                        failure.atLine(lines.line(), "list '%s' has fewer than its %lld values",
                                       p.name.c_str(), count);
                    if (!isIndices)
                        continue;
                    if (v < 0 || v >= plan.numVertices)
                        failure.atLine(lines.line(),
                                       "face %lld names vertex %lld, but there are "
                                       "%d vertices",
                                       i + 1, v, plan.numVertices);
                    corners.push_back(int(v));
                }
                if (isIndices && count >= 3)
                    out.addFace(corners.data(), int(count));
            }
            if (!words.done())
                failure.atLine(lines.line(), "more values than the %zu properties of element '%s'",
                               e.properties.size(), e.name.c_str());
        }
    }
    while (lines.next())
        if (!Words(lines.begin, lines.end).done())
            failure.atLine(lines.line(), "text after the last element (the header's counts are "
                                         "too small)");
}

qyUtil::Error readPly(CompactMesh& mesh, const char* p, const char* end, const ReadFailure& failure)
{
    try
    {
        Header h = readHeader(p, end, failure);
        const Plan plan = planOf(h, failure);
        checkCounts(h, std::size_t(end - h.body), failure);
        MeshArrays out;
        allocate(plan, out);
        if (h.encoding == PlyEncoding::Ascii)
            readAsciiBody(h, plan, end, out, failure);
        else
        {
            const bool bigFile = h.encoding == PlyEncoding::BinaryBigEndian;
            const bool swap = bigFile != (std::endian::native == std::endian::big);
            BinaryBody(h.body, end, swap, failure).read(h, plan, out);
        }
        out.build(mesh);
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

// ---------------------------------------------------------------------------------------
// Writing

std::uint8_t toByte(float c)
{
    const float v = std::nearbyint(std::clamp(c, 0.0f, 1.0f) * 255.0f);
    return std::uint8_t(v == v ? v : 0.0f);
}

template <class T> void putBinary(detail::TextOut& out, T v, bool swap)
{
    char b[sizeof v];
    std::memcpy(b, &v, sizeof v);
    if (swap)
        std::reverse(b, b + sizeof v);
    out.put(b, sizeof v);
}

void writePly(const CompactMesh& mesh, detail::TextOut& out, PlyEncoding encoding)
{
    const int nv = mesh.getNumVertices();
    const float* xyz = mesh.getVerticesRaw();
    const float* normals = mesh.getNormalsRaw();
    const float* uvs = mesh.getUVsRaw();
    const MeshColour* colours = mesh.getColours();
    detail::MeshFaces faces(mesh);
    const bool wideCount = faces.maxCorners() > 255;
    out.put("ply\nformat ");
    out.put(encoding == PlyEncoding::Ascii                ? "ascii"
            : encoding == PlyEncoding::BinaryLittleEndian ? "binary_little_endian"
                                                          : "binary_big_endian");
    out.put(" 1.0\nelement vertex ");
    out.putInt(nv);
    out.put("\nproperty float x\nproperty float y\nproperty float z\n");
    if (normals)
        out.put("property float nx\nproperty float ny\nproperty float nz\n");
    if (colours)
        out.put("property uchar red\nproperty uchar green\nproperty uchar blue\n"
                "property uchar alpha\n");
    if (uvs)
        out.put("property float s\nproperty float t\n");
    out.put("element face ");
    out.putInt(faces.size());
    out.put(wideCount ? "\nproperty list uint int vertex_indices\nend_header\n"
                      : "\nproperty list uchar int vertex_indices\nend_header\n");
    const int numFaces = faces.size();
    if (encoding == PlyEncoding::Ascii)
    {
        for (int i = 0; i < nv; ++i)
        {
            auto floats = [&](const float* v, int n)
            {
                for (int k = 0; k < n; ++k)
                {
                    if (k || v != xyz + 3 * std::ptrdiff_t(i))
                        out.put(' ');
                    out.putFloatExact(v[k]);
                }
            };
            floats(xyz + 3 * std::ptrdiff_t(i), 3);
            if (normals)
                floats(normals + 3 * std::ptrdiff_t(i), 3);
            if (colours)
            {
                const MeshColour& c = colours[i];
                for (const float ch : {c.r, c.g, c.b, c.a})
                {
                    out.put(' ');
                    out.putInt(toByte(ch));
                }
            }
            if (uvs)
                floats(uvs + 2 * std::ptrdiff_t(i), 2);
            out.put('\n');
        }
        for (int f = 0; f < numFaces; ++f)
        {
            const int* c;
            const int n = faces.corners(f, c);
            out.putInt(n);
            for (int k = 0; k < n; ++k)
            {
                out.put(' ');
                out.putInt(c[k]);
            }
            out.put('\n');
        }
        return;
    }
    const bool swap =
        (encoding == PlyEncoding::BinaryBigEndian) != (std::endian::native == std::endian::big);
    if (!swap && !normals && !colours && !uvs)
    {
        // Positions alone are the mesh's own array.
        out.put(reinterpret_cast<const char*>(xyz), 12 * std::size_t(nv));
    }
    else
        for (int i = 0; i < nv; ++i)
        {
            for (int k = 0; k < 3; ++k)
                putBinary(out, xyz[3 * std::ptrdiff_t(i) + k], swap);
            if (normals)
                for (int k = 0; k < 3; ++k)
                    putBinary(out, normals[3 * std::ptrdiff_t(i) + k], swap);
            if (colours)
            {
                const MeshColour& c = colours[i];
                const char rgba[4] = {char(toByte(c.r)), char(toByte(c.g)), char(toByte(c.b)),
                                      char(toByte(c.a))};
                out.put(rgba, 4);
            }
            if (uvs)
                for (int k = 0; k < 2; ++k)
                    putBinary(out, uvs[2 * std::ptrdiff_t(i) + k], swap);
        }
    for (int f = 0; f < numFaces; ++f)
    {
        const int* c;
        const int n = faces.corners(f, c);
        if (n == 3 && !swap && !wideCount)
        {
            char* p = out.room(13);
            p[0] = 3;
            std::memcpy(p + 1, c, 12);
            out.commit(p + 13);
            continue;
        }
        if (wideCount)
            putBinary(out, std::uint32_t(n), swap);
        else
            out.put(char(n));
        for (int k = 0; k < n; ++k)
            putBinary(out, c[k], swap);
    }
}

} // namespace

qyUtil::Error meshReadPly(CompactMesh& mesh, const qyOS::Filename& file)
{
    return detail::readFileWhole(file,
                                 [&](const char* begin, const char* end, const ReadFailure& failure)
                                 { return readPly(mesh, begin, end, failure); });
}

qyUtil::Error meshReadPly(CompactMesh& mesh, const char* data, unsigned int length)
{
    return readPly(mesh, data, data + (data ? length : 0), ReadFailure());
}

bool meshWritePly(const CompactMesh& mesh, const qyOS::Filename& file, PlyEncoding encoding,
                  const MeshWriteOptions& options)
{
    return detail::writeFileChecked("meshWritePly", file, options,
                                    [&](detail::TextOut& out) { writePly(mesh, out, encoding); });
}

} // namespace qyGeom
