// ObjLineReader: the forgiving, line-driven OBJ reader behind meshReadObj.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "base/Memory.h"

namespace qyGeom
{

namespace detail
{
class TextSource;
}

/// Memory for the block sequences of one read: chunks handed out by bumping a pointer and
/// freed all at once with the arena. Chunks grow to 64 MiB and the large ones are advised
/// for huge pages, so the arrays of a large file cost a few page faults instead of one per
/// 4 KiB (dear in a virtual machine). Not thread-safe: each thread of a read has its own.
class BlockArena
{
public:
    BlockArena() = default;
    BlockArena(const BlockArena&) = delete;
    BlockArena& operator=(const BlockArena&) = delete;
    ~BlockArena();

    void* allocate(std::size_t bytes);

private:
    static constexpr std::size_t ChunkAlignment = std::size_t(2) << 20;
    static constexpr std::size_t MaxChunkBytes = std::size_t(64) << 20;
    struct Chunk
    {
        char* data;
        std::size_t bytes;
    };
    std::vector<Chunk> m_chunks;
    char* m_next = nullptr;
    std::size_t m_left = 0;
    std::size_t m_chunkBytes = std::size_t(1) << 20;
};

/// An append-only sequence in fixed blocks taken from an arena: appending never moves
/// earlier entries, and growing it never copies (the arrays of a large file would otherwise
/// be copied and re-faulted at every doubling).
template <class T> class BlockSequence
{
public:
    static constexpr std::size_t BlockBits = 16;
    static constexpr std::size_t BlockSize = std::size_t(1) << BlockBits;

    void setArena(BlockArena* arena) { m_arena = arena; }
    std::size_t size() const { return m_size; }
    void push_back(T v)
    {
        if (m_next == m_blockEnd)
            grow();
        *m_next++ = v;
        ++m_size;
    }
    T operator[](std::size_t i) const { return m_blocks[i >> BlockBits][i & (BlockSize - 1)]; }
    /// Calls fn(pointer, count) for the entries in order, a block at a time.
    template <class Fn> void forEachBlock(Fn fn) const
    {
        for (std::size_t b = 0, done = 0; done < m_size; ++b)
        {
            const std::size_t n = std::min(BlockSize, m_size - done);
            fn(m_blocks[b], n);
            done += n;
        }
    }
    /// Replaces every entry v by fn(v).
    template <class Fn> void transform(Fn fn)
    {
        forEachBlock(
            [&fn](T* p, std::size_t n)
            {
                for (std::size_t i = 0; i < n; ++i)
                    p[i] = fn(p[i]);
            });
    }
    /// Copies the contents to out[0 .. size()).
    void copyTo(T* out) const
    {
        forEachBlock(
            [&out](const T* p, std::size_t n)
            {
                std::copy(p, p + n, out);
                out += n;
            });
    }
    /// Empties the sequence (the arena keeps the memory).
    void clear()
    {
        m_blocks.clear();
        m_next = m_blockEnd = nullptr;
        m_size = 0;
    }

private:
    void grow()
    {
        T* block = static_cast<T*>(m_arena->allocate(BlockSize * sizeof(T)));
        m_blocks.push_back(block);
        m_next = block;
        m_blockEnd = block + BlockSize;
    }

    BlockArena* m_arena = nullptr;
    std::vector<T*> m_blocks;
    T* m_next = nullptr;
    T* m_blockEnd = nullptr;
    std::size_t m_size = 0;
};

/// The faces of an OBJ text that pass validation, with the positions they index: what the
/// forgiving reader hands to the mesh builders. Faces are stored back to back: face f has
/// corners [faceStart[f], faceStart[f + 1]) in the corner arrays (position, texture index);
/// indices are 0-based, -1 for absent.
struct ObjFaces
{
    qy::RawVector<float> positions; ///< 3 per position
    qy::RawVector<float> texCoords; ///< 2 per texture coordinate
    qy::RawVector<int> faceStart{0};
    qy::RawVector<int> cornerPos;
    /// Empty for the reads without texture coordinates.
    qy::RawVector<int> cornerTex;
    /// Per face, the index in materialNames of the material in force, -1 for none (filled
    /// only when materials are wanted).
    qy::RawVector<int> faceMaterial;
    /// Material names in the order of first use.
    std::vector<std::string> materialNames;
    std::string mtllib; ///< the last mtllib name, empty for none
    int numSetAside = 0;
    /// Seconds of the reading spent on the v, vn and vt lines. The line loop reads no clock:
    /// the reading time is shared out by the bytes of each kind of line.
    double secondsV = 0, secondsN = 0, secondsT = 0;

    int numPositions() const { return int(positions.size() / 3); }
    int numTexCoords() const { return int(texCoords.size() / 2); }
    int numFaces() const { return int(faceStart.size()) - 1; }
    int numCorners() const { return faceStart.back(); }
    int faceSize(int f) const { return faceStart[std::size_t(f) + 1] - faceStart[std::size_t(f)]; }
};

/// Reads OBJ text line by line. It never reports a syntax error: what it does not
/// understand it skips. All state is in the object: separate readers may run on separate
/// threads.
class ObjLineReader
{
public:
    static constexpr int LineBufferSize = 16384;
    /// A regular file at least twice this large is parsed in pieces of this many bytes.
    static constexpr std::size_t PieceBytes = std::size_t(1) << 20;

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
    /// Parses one line (without its '\n').
    void parseLine(const char* p, const char* end);
    /// Parses a regular file in pieces on the thread pool and keeps the pieces' results, in
    /// order. False when the result could depend on the cuts (see the .cpp); nothing is kept
    /// then.
    bool parsePieces(const detail::TextSource& source);
    /// Takes the blocks of every sequence from `arena` from now on.
    void useArena(BlockArena* arena);
    /// The readers whose results make up this one's, in file order: the pieces of a
    /// parse in pieces, otherwise this reader.
    std::vector<const ObjLineReader*> parts() const;
    const char* readNumber(const char* p, const char* end, float& out);
    void parseFace(const char* p, const char* end);
    void useMaterial(const char* p, const char* end);
    struct PartCheck;
    /// Checks the faces of every part (in parallel), prints the degenerate triangles in file
    /// order and counts the faces set aside.
    std::vector<PartCheck> validateParts(const std::vector<const ObjLineReader*>& all,
                                         int numPositions, int& numSetAside) const;

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
    std::vector<std::string> m_materialNames;
    std::string m_mtllib;
    std::vector<int> m_scratch; ///< (position, texture) pairs of the current face line
    BlockSequence<float> m_positions, m_texCoords;
    /// The pieces of a parse in pieces, in file order (empty otherwise).
    std::vector<std::unique_ptr<ObjLineReader>> m_pieces;
    /// The faces parsed; their sizes are kept from the first face that is not a triangle on.
    std::size_t m_numFaces = 0;
    bool m_allTriangles = true;
    int parsedFaceSize(std::size_t f) const { return m_allTriangles ? 3 : m_faceSizes[f]; }
    BlockSequence<int> m_faceSizes, m_cornerPos, m_cornerTex, m_faceMaterial;
    /// The memory of the sequences: this reader's own arena first, then one per thread of a
    /// parse in pieces (the pieces' sequences live in those).
    std::vector<std::unique_ptr<BlockArena>> m_arenas;
};

} // namespace qyGeom
