#include "io/ObjLineReader.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unordered_map>
#include <unordered_set>

#include "io/objText.h"
#include "model/CompactMesh.h"

namespace qyGeom
{

namespace
{

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool startsWith(const char* p, const char* end, const char* word, std::size_t n)
{
    return std::size_t(end - p) >= n && std::memcmp(p, word, n) == 0;
}

/// A 1-based index as read (negative counts back from `count`); 0 when the result leaves
/// the int range, so that validation rejects it.
int resolveIndex(int value, int count)
{
    if (value >= 0)
        return value;
    const long long r = static_cast<long long>(value) + count + 1;
    return r < -1 || r > 0x7fffffff ? 0 : int(r);
}

/// atoi over [p, end), with a fast path for the common short unsigned or negative index.
inline int readIndex(const char* p, const char* end)
{
    const char* q = p;
    const bool negative = q < end && *q == '-';
    q += negative;
    unsigned v = 0;
    int n = 0;
    while (q < end && n < 10 && objText::isDigit(*q))
    {
        v = v * 10 + unsigned(*q - '0');
        ++q;
        ++n;
    }
    if (n > 0 && n < 10 && (q == end || !objText::isDigit(*q)))
        return negative ? -int(v) : int(v);
    return objText::parseInt(p, end);
}

} // namespace

ObjLineReader::ObjLineReader(bool wantSubsets, bool wantMaterials, bool allowNonManifold)
    : m_wantSubsets(wantSubsets), m_wantMaterials(wantMaterials),
      m_allowNonManifold(allowNonManifold), m_keepAttributes(wantSubsets)
{
}

bool ObjLineReader::readFile(const char* path)
{
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path, "rb"), &std::fclose);
    if (!f)
        return false;
    struct stat st;
    if (fstat(fileno(f.get()), &st) == 0 && S_ISDIR(st.st_mode))
        return false;
    // Lines are parsed in place from a large block; a line that does not fit the
    // 16384-byte line buffer (16383 characters and the terminator) ends the reading after
    // its first 16383 characters, as a bounded getline would.
    constexpr std::size_t blockSize = std::size_t(1) << 20;
    std::vector<char> block(blockSize + LineBufferSize);
    std::size_t begin = 0, filled = 0;
    bool eof = false;
    for (;;)
    {
        const char* base = block.data();
        const char* nl = static_cast<const char*>(std::memchr(base + begin, '\n', filled - begin));
        if (nl)
        {
            const std::size_t len = std::size_t(nl - (base + begin));
            if (len >= LineBufferSize)
            {
                parseLine(base + begin, base + begin + LineBufferSize - 1);
                break;
            }
            parseLine(base + begin, nl);
            begin += len + 1;
            continue;
        }
        if (filled - begin >= LineBufferSize)
        {
            parseLine(base + begin, base + begin + LineBufferSize - 1);
            break;
        }
        if (eof)
        {
            parseLine(base + begin, base + filled);
            break;
        }
        std::memmove(block.data(), block.data() + begin, filled - begin);
        filled -= begin;
        begin = 0;
        const std::size_t n = std::fread(block.data() + filled, 1, block.size() - filled, f.get());
        filled += n;
        if (n == 0)
            eof = true;
    }
    switchKind(KindOther);
    return true;
}

bool ObjLineReader::readMemory(const char* data, unsigned int length)
{
    if (!data || length == 0)
        return false;
    const char* p = data;
    const char* const end = data + length;
    while (p < end)
    {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
        if (!nl)
            break; // a last piece without '\n' is not a line
        parseLine(p, nl);
        p = nl + 1;
    }
    switchKind(KindOther);
    return true;
}

void ObjLineReader::switchKind(LineKind kind)
{
    if (kind == m_kind)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (m_kind != KindOther)
    {
        const double s = std::chrono::duration<double>(now - m_kindStart).count();
        (m_kind == KindV ? timeV : m_kind == KindN ? timeN : timeT) += s;
    }
    m_kind = kind;
    m_kindStart = now;
}

const char* ObjLineReader::readNumber(const char* p, const char* end, float& out)
{
    const char* stop;
    if (!m_commaDecimal)
    {
        out = float(objText::parseDouble(p, end, &stop));
        return stop;
    }
    while (p < end && objText::isSpace(*p))
        ++p;
    char buf[310];
    std::size_t n = 0;
    while (p + n < end && n < 309 && !objText::isSpace(p[n]))
    {
        buf[n] = p[n] == ',' ? '.' : p[n];
        ++n;
    }
    out = float(objText::parseDouble(buf, buf + n, &stop));
    return p + (stop - buf);
}

void ObjLineReader::parseLine(const char* p, const char* end)
{
    if (m_firstLine)
    {
        // A UTF-8 byte-order mark before the first line is no part of it.
        m_firstLine = false;
        p = objText::skipByteOrderMark(p, end);
    }
    while (p < end && isBlank(*p))
        ++p;
    if (p == end)
        return;
    const char c = *p;
    if (c == '#' || c == '$')
    {
        if (m_firstCommentPending)
        {
            m_firstCommentPending = false;
            m_commaDecimal = startsWith(p, end, "# CATIA OBJ File:", 17);
        }
        return;
    }
    if (c == 'v' && end - p >= 2)
    {
        float x[3];
        if (p[1] == ' ')
        {
            switchKind(KindV);
            const char* q = p + 2;
            for (float& xi : x)
                q = readNumber(q, end, xi);
            for (const float xi : x)
                m_positions.push_back(xi);
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 'n')
        {
            if (!m_keepAttributes)
            {
                return;
            }
            switchKind(KindN);
            const char* q = p + 3;
            for (float& xi : x)
                q = readNumber(q, end, xi);
            for (const float xi : x)
                m_normals.push_back(xi);
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 't')
        {
            if (!m_keepAttributes)
                return;
            switchKind(KindT);
            const char* q = p + 3;
            for (int k = 0; k < 2; ++k)
                q = readNumber(q, end, x[k]);
            m_texCoords.push_back(x[0]);
            m_texCoords.push_back(x[1]);
            return;
        }
    }
    switchKind(KindOther);
    if (c == 'f' && end - p >= 2 && p[1] == ' ')
    {
        parseFace(p + 2, end);
        return;
    }
    if (!m_wantMaterials)
        return;
    if (startsWith(p, end, "usemtl ", 7))
    {
        useMaterial(p + 7, end);
    }
    else if (startsWith(p, end, "mtllib ", 7))
    {
        const char* b = p + 7;
        const char* e = end;
        while (e > b && (e[-1] == '\r' || e[-1] == '\n'))
            --e;
        if (e - b >= 2 && *b == '"' && e[-1] == '"')
        {
            ++b;
            --e;
        }
        mtllib.assign(b, e);
    }
}

void ObjLineReader::useMaterial(const char* p, const char* end)
{
    while (p < end && objText::isSpace(*p))
        ++p;
    while (end > p && objText::isSpace(end[-1]))
        --end;
    const std::string name(p, end);
    const auto it = std::find(materialNames.begin(), materialNames.end(), name);
    if (it != materialNames.end())
    {
        m_currentMaterial = int(it - materialNames.begin());
        return;
    }
    m_currentMaterial = int(materialNames.size());
    materialNames.push_back(name);
}

void ObjLineReader::parseFace(const char* p, const char* end)
{
    m_scratch.clear();
    // One triple for the whole line: a component that a corner does not give keeps the
    // value of the previous corner.
    int pos = -1, tex = -1, nrm = -1;
    const int nPos = numPositions(), nTex = numTexCoords(), nNrm = numNormals();
    for (;;)
    {
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\r'))
            ++p;
        if (p == end)
            break;
        const char* tokenEnd = p;
        while (tokenEnd < end && *tokenEnd != ' ' && *tokenEnd != '\t' && *tokenEnd != '\r')
            ++tokenEnd;
        pos = resolveIndex(readIndex(p, tokenEnd), nPos);
        const char* slash =
            static_cast<const char*>(std::memchr(p, '/', std::size_t(tokenEnd - p)));
        if (slash)
        {
            const char* t = slash + 1;
            const char* slash2 =
                static_cast<const char*>(std::memchr(t, '/', std::size_t(tokenEnd - t)));
            const char* texEnd = slash2 ? slash2 : tokenEnd;
            if (texEnd > t)
                tex = resolveIndex(readIndex(t, texEnd), nTex);
            if (slash2)
                nrm = resolveIndex(readIndex(slash2 + 1, tokenEnd), nNrm);
        }
        m_scratch.push_back(pos);
        m_scratch.push_back(tex);
        m_scratch.push_back(nrm);
        p = tokenEnd;
    }
    const int n = int(m_scratch.size() / 3);
    if (n < 3 || m_cornerPos.size() + std::size_t(n) > std::size_t(0x7fffffff))
        return;
    for (int k = 0; k < n; ++k)
    {
        m_cornerPos.push_back(m_scratch[3 * std::size_t(k)]);
        if (m_keepAttributes)
        {
            m_cornerTex.push_back(m_scratch[3 * std::size_t(k) + 1]);
            m_cornerNormal.push_back(m_scratch[3 * std::size_t(k) + 2]);
        }
    }
    m_faceSizes.push_back(n);
    if (m_wantMaterials)
        m_faceMaterial.push_back(m_currentMaterial);
}

bool ObjLineReader::validFace(const int* corners, int n, int numPositions)
{
    for (int c = 0; c < n; ++c)
        if (corners[c] < 1 || corners[c] > numPositions)
            return false;
    if (n == 3)
    {
        const int a = corners[0], b = corners[1], c = corners[2];
        if (a == b || a == c || b == c)
        {
            std::printf("%d, %d, %d\n", a, b, c);
            return false;
        }
    }
    return true;
}

bool ObjLineReader::buildPlainMesh(CompactMesh& mesh)
{
    const int nPos = numPositions();
    const std::size_t nFaces = m_faceSizes.size();
    std::vector<unsigned char> keep(nFaces);
    std::size_t keptFaces = 0, keptCorners = 0;
    std::vector<int> face;
    for (std::size_t f = 0, c = 0; f < nFaces; ++f)
    {
        const int n = m_faceSizes[f];
        face.resize(std::size_t(n));
        for (int k = 0; k < n; ++k)
            face[std::size_t(k)] = m_cornerPos[c + std::size_t(k)];
        c += std::size_t(n);
        keep[f] = validFace(face.data(), n, nPos);
        if (keep[f])
        {
            ++keptFaces;
            keptCorners += std::size_t(n);
        }
        else
        {
            ++numSetAside;
        }
    }
    if (nPos == 0 || keptFaces == 0)
        return false;
    CompactMesh built;
    built.resizeVertexArray(nPos);
    m_positions.copyTo(built.getVerticesRaw());
    const bool triangles = keptCorners == 3 * keptFaces;
    int* out;
    int* lengths = nullptr;
    if (triangles)
    {
        built.resizeTriangleArray(int(keptFaces));
        out = built.getTrianglesRaw();
    }
    else
    {
        built.resizePolyArrays(int(keptFaces), int(keptCorners));
        out = built.getPolyPoints();
        lengths = built.getPolyLengths();
    }
    for (std::size_t f = 0, c = 0; f < nFaces; ++f)
    {
        const int n = m_faceSizes[f];
        if (keep[f])
        {
            for (int k = 0; k < n; ++k)
                *out++ = m_cornerPos[c + std::size_t(k)] - 1;
            if (lengths)
                *lengths++ = n;
        }
        c += std::size_t(n);
    }
    mesh = std::move(built);
    return true;
}

bool ObjLineReader::finish()
{
    const int nPos = numPositions(), nTex = numTexCoords(), nNrm = numNormals();
    m_positions.moveTo(positions);
    m_normals.moveTo(normals);
    m_texCoords.moveTo(texCoords);
    m_cornerPos.moveTo(cornerPos);
    m_cornerTex.moveTo(cornerTex);
    m_cornerNormal.moveTo(cornerNormal);

    m_faceMaterial.moveTo(faceMaterial);
    m_finished = true;
    {
        std::vector<int> sizes;
        m_faceSizes.moveTo(sizes);
        faceStart.resize(sizes.size() + 1);
        faceStart[0] = 0;
        for (std::size_t f = 0; f < sizes.size(); ++f)
            faceStart[f + 1] = faceStart[f] + sizes[f];
    }
    const int nFaces = int(faceStart.size()) - 1;
    // Compact the face arrays in place, leaving out the set-aside faces.
    std::size_t out = 0;
    int kept = 0;
    for (int f = 0; f < nFaces; ++f)
    {
        const std::size_t b = std::size_t(faceStart[std::size_t(f)]);
        const std::size_t e = std::size_t(faceStart[std::size_t(f) + 1]);
        if (!validFace(cornerPos.data() + b, int(e - b), nPos))
        {
            ++numSetAside;
            continue;
        }
        const std::size_t start = out;
        for (std::size_t c = b; c < e; ++c, ++out)
        {
            cornerPos[out] = cornerPos[c] - 1;
            if (!m_keepAttributes)
                continue;
            const int t = cornerTex[c], nn = cornerNormal[c];
            cornerTex[out] = t >= 1 && t <= nTex ? t - 1 : -1;
            cornerNormal[out] = nn >= 1 && nn <= nNrm ? nn - 1 : -1;
        }
        faceStart[std::size_t(kept)] = int(start);
        if (m_wantMaterials)
            faceMaterial[std::size_t(kept)] = faceMaterial[std::size_t(f)];
        ++kept;
    }
    faceStart[std::size_t(kept)] = int(out);
    faceStart.resize(std::size_t(kept) + 1);
    cornerPos.resize(out);
    if (m_keepAttributes)
    {
        cornerTex.resize(out);
        cornerNormal.resize(out);
    }
    if (m_wantMaterials)
        faceMaterial.resize(std::size_t(kept));

    if (!m_allowNonManifold)
    {
        // Each undirected edge may be used by two faces at most, each directed edge once.
        std::unordered_map<unsigned long long, int> undirected;
        std::unordered_set<unsigned long long> directed;
        auto key = [](int a, int b)
        { return (static_cast<unsigned long long>(unsigned(a)) << 32) | unsigned(b); };
        for (int f = 0; f < kept; ++f)
        {
            const int b = faceStart[std::size_t(f)], e = faceStart[std::size_t(f) + 1];
            for (int c = b; c < e; ++c)
            {
                const int v0 = cornerPos[std::size_t(c)];
                const int v1 = cornerPos[std::size_t(c + 1 < e ? c + 1 : b)];
                if (++undirected[key(std::min(v0, v1), std::max(v0, v1))] > 2)
                    return false;
                if (!directed.insert(key(v0, v1)).second)
                    return false;
            }
        }
    }
    return true;
}

} // namespace qyGeom
