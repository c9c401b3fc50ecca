// ObjLineReader: the forgiving, line-driven OBJ reader behind meshReadObj.
#pragma once

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace qyGeom
{

class CompactMesh;

/// An append-only sequence in fixed blocks: appending never moves earlier entries, and
/// growing it never copies (the arrays of a large file would otherwise be copied and
/// re-faulted at every doubling).
template <class T> class BlockSequence
{
public:
    static constexpr std::size_t BlockBits = 16;
    static constexpr std::size_t BlockSize = std::size_t(1) << BlockBits;

    std::size_t size() const { return m_size; }
    void push_back(T v)
    {
        if ((m_size & (BlockSize - 1)) == 0 && (m_size >> BlockBits) == m_blocks.size())
            m_blocks.emplace_back(new T[BlockSize]);
        m_blocks[m_size >> BlockBits][m_size & (BlockSize - 1)] = v;
        ++m_size;
    }
    T operator[](std::size_t i) const { return m_blocks[i >> BlockBits][i & (BlockSize - 1)]; }
    /// Replaces every entry v by fn(v).
    template <class Fn> void transform(Fn fn)
    {
        for (std::size_t i = 0; i < m_size; ++i)
        {
            T& v = m_blocks[i >> BlockBits][i & (BlockSize - 1)];
            v = fn(v);
        }
    }
    /// Copies the contents to out[0 .. size()).
    void copyTo(T* out) const
    {
        for (std::size_t b = 0, done = 0; done < m_size; ++b)
        {
            const std::size_t n = std::min(BlockSize, m_size - done);
            std::copy(m_blocks[b].get(), m_blocks[b].get() + n, out + done);
            done += n;
        }
    }
    /// Appends the contents to `out` and empties the sequence.
    void moveAppendTo(std::vector<T>& out)
    {
        for (std::size_t b = 0, done = 0; done < m_size; ++b)
        {
            const std::size_t n = std::min(BlockSize, m_size - done);
            out.insert(out.end(), m_blocks[b].get(), m_blocks[b].get() + n);
            m_blocks[b].reset();
            done += n;
        }
        m_blocks.clear();
        m_size = 0;
    }

private:
    std::vector<std::unique_ptr<T[]>> m_blocks;
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
        return int((m_finished ? normals.size() : pending(&ObjLineReader::m_normals)) / 3);
    }
    int numFaces() const { return int(faceStart.size()) - 1; }
    int faceSize(int f) const { return faceStart[std::size_t(f) + 1] - faceStart[std::size_t(f)]; }

    // Filled by finish() (the parse appends to the block sequences below).
    std::vector<float> positions; ///< 3 per position
    std::vector<float> normals;   ///< 3 per normal
    std::vector<float> texCoords; ///< 2 per texture coordinate
    std::vector<int> faceStart{0};
    std::vector<int> cornerPos;
    /// Empty for the reads without subsets (which keep no texture coordinates or normals).
    std::vector<int> cornerTex, cornerNormal;
    /// Per face, the index in materialNames of the material in force, -1 for none (filled
    /// only when materials are wanted).
    std::vector<int> faceMaterial;
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
    /// Whether a face survives validation; prints a degenerate triangle.
    static bool validFace(const int* corners, int n, int numPositions);

    bool m_wantSubsets;
    bool m_wantMaterials;
    bool m_allowNonManifold;
    /// Texture coordinates and normals (and the corners' indices of them) are kept only for
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
    std::vector<int> m_scratch; ///< corner triples of the current face line
    BlockSequence<float> m_positions, m_normals, m_texCoords;
    /// The pieces of a parse in pieces, in file order (empty otherwise).
    std::vector<std::unique_ptr<ObjLineReader>> m_pieces;
    /// The faces parsed; their sizes are kept from the first face that is not a triangle on.
    std::size_t m_numFaces = 0;
    bool m_allTriangles = true;
    int parsedFaceSize(std::size_t f) const { return m_allTriangles ? 3 : m_faceSizes[f]; }
    BlockSequence<int> m_faceSizes, m_cornerPos, m_cornerTex, m_cornerNormal, m_faceMaterial;
};

} // namespace qyGeom
