// ObjLineReader: the forgiving, line-driven OBJ reader behind meshReadObj.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "model/MeshArray.h"

namespace qyGeom
{

namespace detail
{
class TextSource;
}

namespace detail
{
/// The memory of a GrowArray: a block of `bytes` bytes, of which the first `used` are kept,
/// moved to a block of `newBytes`. Small blocks come from malloc; large ones are mapped
/// directly, aligned for huge pages and advised for them, and grow by remapping their pages
/// (no copy). Throws std::bad_alloc.
void* resizeBlock(void* p, std::size_t bytes, std::size_t used, std::size_t newBytes);
void freeBlock(void* p, std::size_t bytes) noexcept;
/// The allocator of the blocks above, so that a mesh array can take a GrowArray's memory
/// over (GrowArray::moveInto) and keep growing in the same kind of memory.
qy::Reference<ArrayAllocator> blockAllocator();
} // namespace detail

/// A growable array of trivially copyable elements. Growing never copies a large array (see
/// resizeBlock), and appending leaves unwritten what it does not write; reserving a large
/// capacity costs address space, not memory, until it is written.
template <class T> class GrowArray
{
public:
    GrowArray() = default;
    GrowArray(const GrowArray&) = delete;
    GrowArray& operator=(const GrowArray&) = delete;
    GrowArray(GrowArray&& other) noexcept { swap(other); }
    GrowArray& operator=(GrowArray&& other) noexcept
    {
        GrowArray moved(std::move(other));
        swap(moved);
        return *this;
    }
    ~GrowArray() { detail::freeBlock(m_data, m_capacity * sizeof(T)); }

    T* data() { return m_data; }
    const T* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    T* begin() { return m_data; }
    T* end() { return m_data + m_size; }
    const T* begin() const { return m_data; }
    const T* end() const { return m_data + m_size; }
    T& operator[](std::size_t i) { return m_data[i]; }
    const T& operator[](std::size_t i) const { return m_data[i]; }
    T& back() { return m_data[m_size - 1]; }
    const T& back() const { return m_data[m_size - 1]; }

    void push_back(T v)
    {
        if (m_size == m_capacity)
            grow(m_size + 1);
        m_data[m_size++] = v;
    }
    /// Room for n more entries after the last one; the caller writes them and then sets the
    /// size with resize().
    T* extend(std::size_t n)
    {
        if (m_capacity - m_size < n)
            grow(m_size + n);
        return m_data + m_size;
    }
    /// Sets the size; entries added are not initialised.
    void resize(std::size_t n)
    {
        if (n > m_capacity)
            grow(n);
        m_size = n;
    }
    void reserve(std::size_t n)
    {
        if (n > m_capacity)
            setCapacity(n);
    }
    void clear() { m_size = 0; }
    /// Hands the contents to `out` without copying them: its elements are the bytes of this
    /// array cut into out.getElementSize() pieces (which must divide them evenly). The memory
    /// is first cut to the contents (a large block shrinks in place). This array is left
    /// empty.
    void moveInto(MeshArray& out)
    {
        const std::size_t bytes = m_size * sizeof(T);
        const std::size_t n = bytes / out.getElementSize();
        if (n > std::size_t(0x7fffffff))
            throw std::bad_alloc();
        if (m_size == 0)
        {
            out.clear();
            return;
        }
        if (m_capacity != m_size)
            setCapacity(m_size);
        out.adopt(m_data, int(n), int(n), detail::blockAllocator());
        m_data = nullptr;
        m_size = m_capacity = 0;
    }
    void swap(GrowArray& other) noexcept
    {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
    }

private:
    void grow(std::size_t need)
    {
        setCapacity(std::max({need, 2 * m_capacity, std::size_t(1024)}));
    }
    void setCapacity(std::size_t capacity)
    {
        if (capacity > std::size_t(-1) / sizeof(T))
            throw std::bad_alloc();
        m_data = static_cast<T*>(detail::resizeBlock(m_data, m_capacity * sizeof(T),
                                                     m_size * sizeof(T), capacity * sizeof(T)));
        m_capacity = capacity;
    }

    T* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

/// The faces of an OBJ text that pass validation, with the positions they index: what the
/// forgiving reader hands to the mesh builders. Faces are stored back to back: face f has
/// corners [faceStart[f], faceStart[f + 1]) in the corner arrays (position, texture index);
/// indices are 0-based, -1 for absent.
struct ObjFaces
{
    GrowArray<float> positions; ///< 3 per position
    GrowArray<float> texCoords; ///< 2 per texture coordinate
    /// One more than the faces; left empty for a list of triangles until makeFaceStarts().
    GrowArray<int> faceStart;
    int faceCount = 0, cornerCount = 0;
    GrowArray<int> cornerPos;
    /// Empty for the reads without texture coordinates.
    GrowArray<int> cornerTex;
    /// Per face, the index in materialNames of the material in force, -1 for none (filled
    /// only when materials are wanted).
    GrowArray<int> faceMaterial;
    /// Material names in the order of first use.
    std::vector<std::string> materialNames;
    std::string mtllib; ///< the last mtllib name, empty for none
    int numSetAside = 0;
    /// Seconds of the reading spent on the v, vn and vt lines. The line loop reads no clock:
    /// the reading time is shared out by the bytes of each kind of line.
    double secondsV = 0, secondsN = 0, secondsT = 0;

    int numPositions() const { return int(positions.size() / 3); }
    int numTexCoords() const { return int(texCoords.size() / 2); }
    int numFaces() const { return faceCount; }
    int numCorners() const { return cornerCount; }
    int faceSize(int f) const
    {
        return faceStart.empty() ? 3 : faceStart[std::size_t(f) + 1] - faceStart[std::size_t(f)];
    }
    /// Fills faceStart for a list of triangles, which the plain mesh build does not need.
    void makeFaceStarts()
    {
        if (faceStart.size() == std::size_t(faceCount) + 1)
            return;
        faceStart.resize(std::size_t(faceCount) + 1);
        for (std::size_t f = 0; f <= std::size_t(faceCount); ++f)
            faceStart[f] = int(3 * f);
    }
};

/// Reads OBJ text line by line. It never reports a syntax error: what it does not
/// understand it skips. All state is in the object: separate readers may run on separate
/// threads.
class ObjLineReader
{
public:
    static constexpr int LineBufferSize = 16384;
    /// A file is read from start to end in blocks of this many bytes (and a line); a regular
    /// file at least twice this large is parsed in pieces on the thread pool when it has more
    /// than one thread.
    static constexpr std::size_t BlockBytes = std::size_t(1) << 20;
    /// The size of those pieces: small enough that a piece's text and what it parses to stay
    /// in the core's cache.
    static constexpr std::size_t PieceBytes = std::size_t(256) << 10;

    /// `keepTexCoords`: read texture coordinates and the corners' indices of them;
    /// `wantMaterials`: follow usemtl and mtllib.
    ObjLineReader(bool keepTexCoords, bool wantMaterials);

    /// Reads a file (regular, a FIFO or a device; not a directory); false when it cannot be
    /// opened. Lines end at '\n'; a line of LineBufferSize bytes or more is cut to
    /// LineBufferSize - 1 and ends the reading; a last line without '\n' counts. A large
    /// regular file is parsed in pieces on the thread pool when it has more than one thread,
    /// with the same result.
    bool readFile(const char* path);
    /// Reads the lines of a memory block ended by '\n' (a last line without one is not
    /// read); false for a null or empty block.
    bool readMemory(const char* data, unsigned int length);
    /// Validates what was read and hands it out (see the .cpp); the reader is spent.
    ObjFaces finish();

private:
    enum LineKind
    {
        KindV,
        KindN,
        KindT,
        KindAll
    };
    int numPositions() const { return int(m_positions.size() / 3); }
    int numTexCoords() const { return int(m_texCoords.size() / 2); }
    /// Parses the lines of [p, end). With `last` the text after the last '\n' is a line too;
    /// with `limitLines` a line of LineBufferSize bytes or more is cut to LineBufferSize - 1
    /// and ends the reading (true is returned then).
    bool parseLines(const char* p, const char* end, bool last, bool limitLines);
    /// The line loop of parseLines from p on. With SlashFaces it returns at a face line whose
    /// first corner is a plain index, with `slashes` cleared and p at that line.
    template <bool SlashFaces>
    bool parseLineRun(const char*& p, const char* end, bool last, bool limitLines, bool& slashes);
    /// Parses one line (without its '\n').
    void parseLine(const char* p, const char* end);
    /// Parses a regular file in pieces on the thread pool and keeps the pieces' results, in
    /// order. False when the result could depend on the cuts (see the .cpp); nothing is kept
    /// then.
    bool parsePieces(const detail::TextSource& source);
    /// The same for a read without materials, with the pieces' results appended to this
    /// reader's own arrays in file order as soon as the pieces before them are in, so that
    /// the reader ends as a reading from start to end would leave it. False when the result
    /// could depend on the cuts; the reader is left empty then.
    bool parsePiecesInOrder(const detail::TextSource& source);
    /// Makes a reader used for one piece ready for the next: empty, with its capacity kept.
    void resetForPiece(bool later);
    /// How appending a piece went (see appendPiece).
    enum class Append
    {
        More,   ///< appended; the pieces after it count too
        Last,   ///< appended; it ends the reading
        Discard ///< the result could depend on the cuts: nothing of the parse counts
    };
    /// Appends the results of the next piece in file order to this reader's.
    Append appendPiece(const ObjLineReader& piece);
    /// The readers whose results make up this one's, in file order: the pieces of a
    /// parse in pieces, otherwise this reader.
    std::vector<const ObjLineReader*> parts() const;
    /// Reads `count` numbers of a v, vn or vt line into out[0 .. count).
    void readNumbers(const char* p, const char* end, int count, float* out);
    /// One number in comma-decimal mode.
    const char* readCommaNumber(const char* p, const char* end, float& out);
    void parseFace(const char* p, const char* end);
    /// Parses a face line whose corners have a '/', which starts at `line` with "f ", up to
    /// the '\n' that ends it and returns where that is; nullptr, with nothing kept, for a
    /// line that the general way of the line loop must parse (its text up to `end` may have
    /// been read). A line whose first corner is a plain index sets `slashes` to false.
    const char* parseFaceLine(const char* line, const char* end, bool& slashes);
    /// Keeps the n corners written at the end of the corner arrays as a face when they make
    /// one (at least 3 corners); lo and hi bound their position indices, texHi their texture
    /// indices.
    void addFace(const int* pos, std::size_t n, int lo, int hi, int texHi);
    void useMaterial(const char* p, const char* end);
    /// True when every face read names positions below numPositions only and no triangle
    /// repeats a corner: validation would keep every face as it is.
    bool keepsEveryFace(int numPositions) const
    {
        return m_numFaces == 0 || (m_minPos >= 0 && m_maxPos < numPositions && !m_sawDegenerate);
    }
    /// Hands this reader's arrays out as they are (see keepsEveryFace).
    void moveOut(ObjFaces& out);
    struct PartCheck;
    /// Checks the faces of every part (in parallel), prints the degenerate triangles in file
    /// order and counts the faces set aside.
    std::vector<PartCheck> validateParts(const std::vector<const ObjLineReader*>& all,
                                         int numPositions, int& numSetAside) const;
    /// Joins the faces of every part that validation keeps.
    void joinParts(const std::vector<const ObjLineReader*>& all, ObjFaces& out);

    bool m_keepTexCoords;
    bool m_wantMaterials;
    bool m_firstLine = true;
    bool m_commaDecimal = false;
    bool m_firstCommentPending = true;
    /// A reader of a piece after the first one does not know the counts before it: it
    /// notes a relative index (which would need them) instead of resolving it, and its
    /// faces before its first usemtl get InheritedMaterial.
    bool m_laterPiece = false;
    bool m_sawRelativeIndex = false;
    bool m_sawMtllib = false;
    bool m_stopped = false;
    bool m_reachesEnd = false;
    static constexpr int InheritedMaterial = -2;
    int m_currentMaterial = -1;
    /// Bytes of the lines of each kind; normals are counted, not kept: no result of the
    /// reader depends on them.
    std::size_t m_lineBytes[4] = {0, 0, 0, 0};
    double m_readSeconds = 0;
    /// The end of the text being parsed: the number parsers may read up to it.
    const char* m_readable = nullptr;
    std::vector<std::string> m_materialNames;
    std::string m_mtllib;
    GrowArray<float> m_positions, m_texCoords;
    /// The pieces of a parse in pieces, in file order (empty otherwise).
    std::vector<std::unique_ptr<ObjLineReader>> m_pieces;
    /// The faces parsed; their sizes are kept from the first face that is not a triangle on.
    /// Corner indices are kept 0-based as resolved: a position index p is stored as p - 1
    /// (so a 0 read becomes -1), a texture index t as t - 1 when t >= 1 and -1 otherwise.
    std::size_t m_numFaces = 0;
    bool m_allTriangles = true;
    int parsedFaceSize(std::size_t f) const { return m_allTriangles ? 3 : m_faceSizes[f]; }
    GrowArray<int> m_faceSizes, m_cornerPos, m_cornerTex, m_faceMaterial;
    /// What validation will find, gathered while parsing: the range of the stored position
    /// indices, the largest stored texture index and whether a triangle repeats a corner.
    int m_minPos = 0x7fffffff, m_maxPos = -1, m_maxTex = -1;
    bool m_sawDegenerate = false;
};

} // namespace qyGeom
