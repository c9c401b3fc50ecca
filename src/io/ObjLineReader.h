// ObjLineReader: the forgiving, line-driven OBJ reader behind meshReadObj.
#pragma once

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "base/Memory.h"

namespace qyGeom
{

class CompactMesh;

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

/// Reads OBJ text line by line into flat arrays. It never reports a syntax error: what it
/// does not understand it skips. All state is in the object: separate readers may run on
/// separate threads.
///
/// Faces are stored back to back: face f has corners [faceStart[f], faceStart[f + 1]) in the
/// three corner arrays (position, texture and normal index). While parsing the indices are
/// 1-based, -1 for absent; after finish() they are 0-based, -1 for absent.
class ObjLineReader
{
public:
    static constexpr int LineBufferSize = 16384;

    ObjLineReader(bool wantSubsets, bool wantMaterials, bool allowNonManifold);

    /// Reads a file; false when it cannot be opened. A large regular file is parsed in
    /// pieces on the thread pool when it has more than one thread; the result is the same.
    bool readFile(const char* path);
    /// A regular file at least this large is parsed in pieces of about this many bytes.
    static constexpr std::size_t PieceBytes = std::size_t(1) << 20;
    /// Reads the lines of a memory block ended by '\n'; false for a null or empty block.
    bool readMemory(const char* data, unsigned int length);
    /// Parses one line (without its '\n').
    void parseLine(const char* p, const char* end);
    /// Validation after the last line (see the .cpp). False when the edge check runs and
    /// finds a non-manifold or inconsistently oriented edge.
    bool finish();

    /// For the read without subsets, instead of finish(): validates the faces as finish()
    /// does and builds `mesh` straight from the parsed data (positions in file order, a
    /// triangle list or, with any other face, polygons). False when nothing is left.
    bool buildPlainMesh(CompactMesh& mesh);

    int numPositions() const
    {
        return int((m_finished ? positions.size() : pending(&ObjLineReader::m_positions)) / 3);
    }
    int numTexCoords() const
    {
        return int((m_finished ? texCoords.size() : pending(&ObjLineReader::m_texCoords)) / 2);
    }
    int numNormals() const
    {
        std::size_t n = m_numNormals;
        for (const auto& piece : m_pieces)
            n += piece->m_numNormals;
        return int(n);
    }
    int numFaces() const { return int(faceStart.size()) - 1; }
    int faceSize(int f) const { return faceStart[std::size_t(f) + 1] - faceStart[std::size_t(f)]; }

    // Filled by finish() (the parse appends to the block sequences below).
    qy::RawVector<float> positions; ///< 3 per position
    qy::RawVector<float> texCoords; ///< 2 per texture coordinate
    qy::RawVector<int> faceStart{0};
    qy::RawVector<int> cornerPos;
    /// Empty for the reads without subsets (which keep no texture coordinates).
    qy::RawVector<int> cornerTex;
    /// Per face, the index in materialNames of the material in force, -1 for none (filled
    /// only when materials are wanted).
    qy::RawVector<int> faceMaterial;
    /// Material names in the order of first use.
    std::vector<std::string> materialNames;
    std::string mtllib;
    int numSetAside = 0;
    double timeV = 0, timeN = 0, timeT = 0;

private:
    enum LineKind
    {
        KindOther,
        KindV,
        KindN,
        KindT
    };
    void switchKind(LineKind kind);
    /// The parsed length of one of the sequences below, over the pieces if there are any.
    std::size_t pending(BlockSequence<float> ObjLineReader::*member) const
    {
        std::size_t n = (this->*member).size();
        for (const auto& piece : m_pieces)
            n += (*piece.*member).size();
        return n;
    }
    /// Parses the lines of [p, end) as the file reader does: a line of LineBufferSize
    /// characters or more is cut to LineBufferSize - 1 and ends the reading (true is then
    /// returned). With `last`, the piece after the last '\n' is a line too.
    bool parseLines(const char* p, const char* end, bool last);
    /// Parses an open file of about `fileSize` bytes in pieces on the thread pool and
    /// appends the pieces' results in order. False when the result could depend on the cut
    /// (see the .cpp); nothing is appended then.
    bool parsePieces(int fd, std::size_t fileSize);
    /// Takes the blocks of every sequence from `arena` from now on.
    void useArena(BlockArena* arena);
    /// The readers whose results make up this one's, in file order: the pieces of a
    /// parse in pieces, otherwise this reader.
    std::vector<const ObjLineReader*> parts() const;
    const char* readNumber(const char* p, const char* end, float& out);
    void parseFace(const char* p, const char* end);
    void useMaterial(const char* p, const char* end);
    enum FaceCheck
    {
        FaceValid,
        FaceOutOfRange,
        FaceDegenerate ///< a triangle with a repeated corner
    };
    /// Whether a face (1-based corners) survives validation, and if not, why.
    static FaceCheck checkFace(const int* corners, int n, int numPositions);
    struct PartCheck;
    /// Checks the faces of every part (in parallel), prints the degenerate triangles in file
    /// order and counts the faces set aside.
    std::vector<PartCheck> validateParts(const std::vector<const ObjLineReader*>& all);

    bool m_wantSubsets;
    bool m_wantMaterials;
    bool m_allowNonManifold;
    /// Texture coordinates (and the corners' indices of them) are kept only for
    /// the reads that use them (those with subsets).
    bool m_keepAttributes;
    bool m_finished = false;
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
    LineKind m_kind = KindOther;
    std::chrono::steady_clock::time_point m_kindStart;
    std::vector<int> m_scratch; ///< (position, texture) pairs of the current face line
    BlockSequence<float> m_positions, m_texCoords;
    /// Normals are counted, not kept: no result of the reader depends on their values or
    /// on the corners' normal indices.
    std::size_t m_numNormals = 0;
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
