#include "ObjModel.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "Cli.h"
#include "qyGeom/meshTriangulatePolygons.h"

namespace qyCli
{

namespace fs = std::filesystem;

void ObjModel::addFace(const ObjCorner* c, int n, const ObjFaceState& state)
{
    if (states.empty() || !(states.back() == state))
        states.push_back(state);
    faceStates.push_back(int(states.size()) - 1);
    corners.insert(corners.end(), c, c + n);
    faceStarts.push_back(int(corners.size()));
}

std::vector<std::string> ObjModel::materialNames() const
{
    std::vector<std::string> names;
    std::vector<bool> used(states.size(), false);
    for (const int s : faceStates)
        used[std::size_t(s)] = true;
    for (std::size_t s = 0; s < states.size(); ++s)
    {
        const std::string& name = states[s].material;
        if (used[s] && !name.empty() && std::find(names.begin(), names.end(), name) == names.end())
            names.push_back(name);
    }
    return names;
}

int ObjModel::numGroups() const
{
    std::set<std::string> names;
    for (const int s : faceStates)
        names.insert(states[std::size_t(s)].group);
    return int(names.size());
}

int ObjModel::numUnreferencedVertices() const
{
    std::vector<bool> used(std::size_t(numVertices()), false);
    for (const ObjCorner& c : corners)
        used[std::size_t(c.v)] = true;
    return int(std::count(used.begin(), used.end(), false));
}

// ---------------------------------------------------------------------------------------
// Reading

namespace
{

// The longest line that the library's forgiving reader takes whole.
constexpr long libraryLineLimit = 16383;

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

struct Line
{
    const char* p;
    const char* end;
    long number;

    void skipBlanks()
    {
        while (p < end && isBlank(*p))
            ++p;
    }
    bool atEnd()
    {
        skipBlanks();
        return p == end;
    }
    std::string word()
    {
        skipBlanks();
        const char* start = p;
        while (p < end && !isBlank(*p))
            ++p;
        return std::string(start, p);
    }
    // The rest of the line without the blanks around it.
    std::string rest()
    {
        skipBlanks();
        const char* e = end;
        while (e > p && isBlank(e[-1]))
            --e;
        return std::string(p, e);
    }
};

class ObjReader
{
public:
    ObjReader(const std::string& path, ObjModel& model, ObjReadNotes& notes)
        : m_path(path), m_model(model), m_notes(notes)
    {
    }

    void read(const std::string& text);

private:
    [[noreturn]] void fail(long line, const std::string& what) const
    {
        throw Failure(format("cannot read '%s': line %ld: %s", m_path.c_str(), line, what.c_str()));
    }

    // Up to `max` numbers from the line into out; the count read. Text after them that is not
    // read (a fourth coordinate, a word) is noted.
    int numbers(Line& line, double* out, int max, int needed, const char* what);
    void face(Line& line);
    void noteExtra(long line)
    {
        if (m_notes.extraNumberLines++ == 0)
            m_notes.firstExtraNumberLine = line;
    }

    const std::string& m_path;
    ObjModel& m_model;
    ObjReadNotes& m_notes;
    bool m_commaDecimal = false;
    ObjFaceState m_state;
    std::vector<ObjCorner> m_face;
    std::vector<bool> m_hasColour;
    std::vector<int> m_badFaces; // faces with a corner index that resolved below 1
};

int ObjReader::numbers(Line& line, double* out, int max, int needed, const char* what)
{
    int n = 0;
    std::string scratch;
    while (n < max)
    {
        line.skipBlanks();
        const char* p = line.p;
        if (p == line.end)
            break;
        if (m_commaDecimal)
        {
            scratch.clear();
            for (const char* q = p; q < line.end && !isBlank(*q); ++q)
                scratch += *q == ',' ? '.' : *q;
        }
        const char* s = m_commaDecimal ? scratch.data() : p;
        const char* e = m_commaDecimal ? scratch.data() + scratch.size() : line.end;
        // strtod takes a leading '+'; from_chars does not.
        const bool plus = s < e && *s == '+';
        double value = 0;
        const auto [stop, ec] = std::from_chars(s + plus, e, value);
        if (ec == std::errc::invalid_argument)
            break;
        if (ec == std::errc::result_out_of_range || !std::isfinite(value) ||
            !std::isfinite(float(value)))
            fail(line.number,
                 format("%s has a number that is not finite in single precision", what));
        out[n++] = value;
        line.p = p + (stop - s);
    }
    if (n < needed)
        fail(line.number, format("%s needs %d numbers", what, needed));
    if (!line.atEnd())
        noteExtra(line.number);
    return n;
}

void ObjReader::face(Line& line)
{
    m_face.clear();
    const int counts[3] = {m_model.numVertices(), m_model.numTexCoords(), m_model.numNormals()};
    bool below = false;
    while (!line.atEnd())
    {
        const std::string token = line.word();
        ObjCorner corner;
        int* fields[3] = {&corner.v, &corner.vt, &corner.vn};
        const char* p = token.data();
        const char* end = p + token.size();
        for (int k = 0; k < 3 && p <= end; ++k)
        {
            if (k > 0)
            {
                if (p == end)
                    break;
                if (*p != '/')
                    fail(line.number, format("'%s' is not a face corner", token.c_str()));
                ++p;
                if (p == end)
                    break; // "1/" or "1/2/": nothing follows
                if (p < end && *p == '/' && k == 1)
                    continue; // "v//n": no texture index
            }
            int index = 0;
            const auto [stop, ec] = std::from_chars(p, end, index);
            if (ec != std::errc() || (stop < end && *stop != '/'))
                fail(line.number, format("'%s' is not a face corner", token.c_str()));
            p = stop;
            if (index == 0)
                fail(line.number, "a face has the index 0 (indices count from 1)");
            // Negative indices count back from the last element read so far.
            const long long resolved =
                index > 0 ? index : static_cast<long long>(counts[k]) + index + 1;
            below = below || resolved < 1;
            *fields[k] = resolved < 1 || resolved > (1LL << 30) ? -2 : int(resolved - 1);
        }
        m_face.push_back(corner);
    }
    if (m_face.size() < 3)
    {
        ++m_notes.shortFaces;
        return;
    }
    if (below)
        m_badFaces.push_back(m_model.numFaces());
    m_model.addFace(m_face.data(), int(m_face.size()), m_state);
}

void ObjReader::read(const std::string& text)
{
    const char* p = text.data();
    const char* const end = p + text.size();
    if (text.size() >= 3 && !std::memcmp(p, "\xEF\xBB\xBF", 3))
        p += 3;
    bool firstComment = true;
    for (long number = 1; p < end; ++number)
    {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
        const char* lineEnd = nl ? nl : end;
        if (lineEnd - p > libraryLineLimit)
            m_notes.longLines.emplace_back(number, long(lineEnd - p));
        Line line{p, lineEnd, number};
        p = nl ? nl + 1 : end;
        if (line.atEnd())
            continue;
        if (*line.p == '#' || *line.p == '$')
        {
            if (firstComment)
                m_commaDecimal =
                    line.end - line.p >= 17 && !std::memcmp(line.p, "# CATIA OBJ File:", 17);
            firstComment = false;
            continue;
        }
        const std::string keyword = line.word();
        double x[7];
        if (keyword == "v")
        {
            const int n = numbers(line, x, 7, 3, "a vertex");
            m_model.positions.insert(m_model.positions.end(),
                                     {float(x[0]), float(x[1]), float(x[2])});
            const bool colour = n == 6;
            if (n != 3 && !colour)
                noteExtra(number);
            m_hasColour.push_back(colour);
            if (colour)
            {
                m_model.colours.resize(m_model.positions.size());
                std::copy(x + 3, x + 6, m_model.colours.end() - 3);
            }
        }
        else if (keyword == "vt")
        {
            const int n = numbers(line, x, 3, 1, "a texture coordinate");
            if (n == 3 && x[2] != 0)
                noteExtra(number);
            m_model.texCoords.insert(m_model.texCoords.end(),
                                     {float(x[0]), n > 1 ? float(x[1]) : 0.0f});
        }
        else if (keyword == "vn")
        {
            numbers(line, x, 3, 3, "a normal");
            m_model.normals.insert(m_model.normals.end(), {float(x[0]), float(x[1]), float(x[2])});
        }
        else if (keyword == "f" || keyword == "fo")
            face(line);
        else if (keyword == "g")
            m_state.group = line.rest();
        else if (keyword == "o")
            m_state.object = line.rest();
        else if (keyword == "s")
            m_state.smoothing = line.rest();
        else if (keyword == "usemtl")
            m_state.material = line.rest();
        else if (keyword == "mtllib")
        {
            const std::string name = line.rest();
            if (!name.empty() && std::find(m_model.libraries.begin(), m_model.libraries.end(),
                                           name) == m_model.libraries.end())
                m_model.libraries.push_back(name);
        }
        else
            ++m_notes.skippedStatements[keyword];
    }

    // Vertex colours count only when every vertex has one.
    if (!m_model.colours.empty())
    {
        const int with = int(std::count(m_hasColour.begin(), m_hasColour.end(), true));
        if (with < m_model.numVertices())
        {
            m_notes.droppedColours = with;
            m_model.colours.clear();
        }
        else
            m_model.colours.resize(m_model.positions.size());
    }

    // Faces may name vertices that come later in the file, so indices are checked at the end.
    // A face with a vertex outside the file is left out; a texture or normal index outside
    // the file is dropped from its corner.
    ObjModel& m = m_model;
    std::vector<int> starts{0};
    std::vector<ObjCorner> kept;
    std::vector<int> states;
    kept.reserve(m.corners.size());
    std::size_t bad = 0;
    for (int f = 0; f < m.numFaces(); ++f)
    {
        bool inside = !(bad < m_badFaces.size() && m_badFaces[bad] == f);
        bad += !inside;
        const std::size_t first = kept.size();
        for (int i = m.faceStarts[std::size_t(f)]; inside && i < m.faceStarts[std::size_t(f) + 1];
             ++i)
        {
            ObjCorner c = m.corners[std::size_t(i)];
            inside = c.v >= 0 && c.v < m.numVertices();
            if (c.vt != -1 && (c.vt < 0 || c.vt >= m.numTexCoords()))
            {
                c.vt = -1;
                ++m_notes.outsideAttributes;
            }
            if (c.vn != -1 && (c.vn < 0 || c.vn >= m.numNormals()))
            {
                c.vn = -1;
                ++m_notes.outsideAttributes;
            }
            kept.push_back(c);
        }
        if (!inside)
        {
            kept.resize(first);
            ++m_notes.outsideFaces;
            continue;
        }
        starts.push_back(int(kept.size()));
        states.push_back(m.faceStates[std::size_t(f)]);
    }
    m.corners.swap(kept);
    m.faceStarts.swap(starts);
    m.faceStates.swap(states);
}

} // namespace

void readObjModel(const std::string& path, ObjModel& model, ObjReadNotes& notes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw Failure(format("cannot read '%s': %s", path.c_str(), std::strerror(errno)));
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        throw Failure(format("cannot read '%s': a read failed", path.c_str()));
    if (text.size() >= 2 &&
        ((text[0] == '\xFE' && text[1] == '\xFF') || (text[0] == '\xFF' && text[1] == '\xFE')))
        throw Failure(
            format("cannot read '%s': it is UTF-16 text; save it as UTF-8 or ASCII", path.c_str()));
    if (text.find('\0') != std::string::npos)
        throw Failure(
            format("cannot read '%s': not an OBJ file (it holds NUL bytes)", path.c_str()));
    model = ObjModel();
    notes = ObjReadNotes();
    model.directory = fs::path(path).parent_path().string();
    ObjReader(path, model, notes).read(text);
}

// ---------------------------------------------------------------------------------------
// Writing

namespace
{

// Text gathered in a buffer and written in large blocks; the first failed write ends the
// command with the system's reason.
class Writer
{
public:
    Writer(std::FILE* file, const std::string& name, int digits)
        : m_file(file), m_name(name), m_digits(digits)
    {
        m_text.reserve(1 << 20);
    }
    ~Writer() = default;

    void put(const std::string& s)
    {
        m_text += s;
        maybeFlush();
    }
    void put(const char* s) { m_text += s; }
    void number(float v)
    {
        if (!std::isfinite(v))
            throw Failure(format("cannot write '%s': a number is not finite", m_name.c_str()));
        char buf[40];
        const std::to_chars_result r =
            m_digits ? std::to_chars(buf, buf + sizeof buf, v, std::chars_format::general, m_digits)
                     : std::to_chars(buf, buf + sizeof buf, v);
        m_text.append(buf, r.ptr);
    }
    void index(long long i)
    {
        char buf[24];
        m_text.append(buf, std::to_chars(buf, buf + sizeof buf, i).ptr);
    }
    void tuple(const char* prefix, const float* v, int n)
    {
        m_text += prefix;
        for (int k = 0; k < n; ++k)
        {
            m_text += ' ';
            number(v[k]);
        }
        m_text += '\n';
        maybeFlush();
    }
    void flush()
    {
        if (m_text.empty())
            return;
        errno = 0;
        if (std::fwrite(m_text.data(), 1, m_text.size(), m_file) != m_text.size())
            throw Failure(format("cannot write '%s': %s", m_name.c_str(),
                                 std::strerror(errno ? errno : EIO)));
        m_text.clear();
    }

private:
    void maybeFlush()
    {
        if (m_text.size() >= (1 << 20) - 4096)
            flush();
    }

    std::FILE* m_file;
    const std::string& m_name;
    int m_digits;
    std::string m_text;
};

// The `mtllib` text of `name` (relative to `from`) as seen from `to`. A name that is not one
// existing file is taken as a list of file names.
std::string libraryFrom(const std::string& name, const std::string& from, const std::string& to)
{
    std::error_code ec;
    const fs::path fromDir = from.empty() ? fs::path(".") : fs::path(from);
    const fs::path toDir = to.empty() ? fs::path(".") : fs::path(to);
    if (!fs::path(name).is_absolute() && fs::equivalent(fromDir, toDir, ec))
        return name;
    auto relocate = [&](const std::string& one)
    {
        const fs::path target = fs::path(one).is_absolute() ? fs::path(one) : fromDir / one;
        std::error_code e;
        const fs::path rel = fs::relative(fs::absolute(target, e), fs::absolute(toDir, e), e);
        return e || rel.empty() ? fs::absolute(target, e).string() : rel.string();
    };
    if (fs::is_regular_file(fromDir / name, ec) || name.find_first_of(" \t") == std::string::npos)
        return relocate(name);
    std::string out;
    Line line{name.data(), name.data() + name.size(), 0};
    while (!line.atEnd())
    {
        const std::string one = relocate(line.word());
        if (!out.empty())
            out.push_back(' ');
        out.append(one);
    }
    return out;
}

} // namespace

void writeObjModel(const ObjModel& model, std::FILE* file, const std::string& shownName, int digits,
                   const std::string& outputDir)
{
    Writer w(file, shownName, digits);
    for (const std::string& library : model.libraries)
        w.put("mtllib " + libraryFrom(library, model.directory, outputDir) + "\n");
    const bool colours = model.colours.size() == model.positions.size();
    for (int v = 0; v < model.numVertices(); ++v)
    {
        const float* p = model.positions.data() + 3 * std::ptrdiff_t(v);
        if (colours)
        {
            const float* c = model.colours.data() + 3 * std::ptrdiff_t(v);
            const float line[6] = {p[0], p[1], p[2], c[0], c[1], c[2]};
            w.tuple("v", line, 6);
        }
        else
            w.tuple("v", p, 3);
    }
    for (int t = 0; t < model.numTexCoords(); ++t)
        w.tuple("vt", model.texCoords.data() + 2 * std::ptrdiff_t(t), 2);
    for (int n = 0; n < model.numNormals(); ++n)
        w.tuple("vn", model.normals.data() + 3 * std::ptrdiff_t(n), 3);

    const ObjFaceState none;
    const ObjFaceState* previous = &none;
    for (int f = 0; f < model.numFaces(); ++f)
    {
        const ObjFaceState& s = model.states[std::size_t(model.faceStates[std::size_t(f)])];
        if (&s != previous && !(s == *previous))
        {
            if (s.object != previous->object && !s.object.empty())
                w.put("o " + s.object + "\n");
            // A material can only be set at the start of a group for strict readers: a change
            // of material alone opens a group of the same name.
            if (s.group != previous->group || s.material != previous->material)
                if (!(s.group.empty() && previous->group.empty() && f == 0))
                    w.put("g " + (s.group.empty() ? std::string("default") : s.group) + "\n");
            if (s.smoothing != previous->smoothing)
                w.put("s " + (s.smoothing.empty() ? std::string("off") : s.smoothing) + "\n");
            if ((s.material != previous->material || s.group != previous->group) &&
                !s.material.empty())
                w.put("usemtl " + s.material + "\n");
        }
        previous = &s;
        w.put("f");
        for (int i = model.faceStarts[std::size_t(f)]; i < model.faceStarts[std::size_t(f) + 1];
             ++i)
        {
            const ObjCorner& c = model.corners[std::size_t(i)];
            w.put(" ");
            w.index(c.v + 1LL);
            if (c.vt >= 0 || c.vn >= 0)
            {
                w.put("/");
                if (c.vt >= 0)
                    w.index(c.vt + 1LL);
                if (c.vn >= 0)
                {
                    w.put("/");
                    w.index(c.vn + 1LL);
                }
            }
        }
        w.put("\n");
    }
    w.flush();
}

// ---------------------------------------------------------------------------------------
// Triangles

void triangulateObjModel(const ObjModel& model, bool dropRepeatedCorners, ObjTriangles& out)
{
    out = ObjTriangles();
    // The polygons go to the library together; their triangles come back in face order.
    std::vector<int> polygonStarts{0}, polygonCorners, polygonFirstCorner;
    for (int f = 0; f < model.numFaces(); ++f)
        if (model.faceSize(f) > 3)
        {
            const int first = model.faceStarts[std::size_t(f)];
            polygonFirstCorner.push_back(first);
            for (int i = first; i < model.faceStarts[std::size_t(f) + 1]; ++i)
                polygonCorners.push_back(model.corners[std::size_t(i)].v);
            polygonStarts.push_back(int(polygonCorners.size()));
        }
    qyGeom::PolygonTriangulation split;
    const int numPolygons = int(polygonStarts.size()) - 1;
    if (numPolygons > 0)
        qyGeom::meshTriangulatePolygons(model.positions.data(), model.numVertices(), numPolygons,
                                        polygonStarts.data(), polygonCorners.data(), split);
    out.polygons = numPolygons;
    out.skippedPolygons = split.skipped;
    out.polygonTriangles = int(split.triangleFaces.size());

    std::vector<int> tris;
    tris.reserve(std::size_t(model.numFaces()) * 3);
    std::size_t next = 0; // the next triangle of the polygons
    int polygon = 0;
    for (int f = 0; f < model.numFaces(); ++f)
    {
        const int first = model.faceStarts[std::size_t(f)];
        if (model.faceSize(f) == 3)
        {
            const ObjCorner* c = model.corners.data() + first;
            if (dropRepeatedCorners && (c[0].v == c[1].v || c[1].v == c[2].v || c[2].v == c[0].v))
            {
                ++out.skippedTriangles;
                continue;
            }
            for (int k = 0; k < 3; ++k)
            {
                tris.push_back(c[k].v);
                out.corners.push_back(first + k);
            }
            out.faces.push_back(f);
            continue;
        }
        // Corner i of the polygon arrays is corner i - polygonStarts[p] of the face.
        for (; next < split.triangleFaces.size() && split.triangleFaces[next] == polygon; ++next)
            for (int k = 0; k < 3; ++k)
            {
                const int i = split.triangleCorners[3 * next + std::size_t(k)];
                const int corner = first + i - polygonStarts[std::size_t(polygon)];
                tris.push_back(model.corners[std::size_t(corner)].v);
                out.corners.push_back(corner);
            }
        out.faces.resize(out.corners.size() / 3, f);
        ++polygon;
    }
    qyGeom::CompactMesh mesh(model.numVertices(),
                             reinterpret_cast<const qyGeom::MeshVertex*>(model.positions.data()));
    mesh.copyTriangles(int(tris.size() / 3), tris.data());
    out.mesh.swap(mesh);
}

void reportTriangulation(const ObjTriangles& t)
{
    if (t.polygons > 0)
        std::printf("triangulated %d polygons into %d triangles\n", t.polygons, t.polygonTriangles);
    if (t.skippedPolygons > 0)
        std::printf("left out %d polygons with fewer than three distinct corners\n",
                    t.skippedPolygons);
    if (t.skippedTriangles > 0)
        std::printf("left out %d triangles that name a vertex twice\n", t.skippedTriangles);
}

void objModelFromMesh(const qyGeom::CompactMesh& mesh, ObjModel& model)
{
    model = ObjModel();
    const float* v = mesh.getVerticesRaw();
    model.positions.assign(v, v + 3 * std::ptrdiff_t(mesh.getNumVertices()));
    const int* t = mesh.getTrianglesRaw();
    const ObjFaceState none;
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        const ObjCorner c[3] = {{t[3 * i], -1, -1}, {t[3 * i + 1], -1, -1}, {t[3 * i + 2], -1, -1}};
        model.addFace(c, 3, none);
    }
}

} // namespace qyCli
