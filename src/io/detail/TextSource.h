// TextSource: the text of a file or of a memory block, as every OBJ and MTL reader takes it:
// whole, in pieces cut at line starts (read in parallel), or block after block of whole lines.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace qyGeom::detail
{

/// A range of text.
struct TextRange
{
    const char* begin = nullptr;
    const char* end = nullptr;
    bool reachesEnd = false; ///< the range ends at the end of the text
};

/// The text a reader reads. A memory block is borrowed; a file stays open as long as the
/// source lives. Not thread-safe, except that piece() may run on several threads at once.
class TextSource
{
public:
    /// An empty source (open() makes it a file).
    TextSource() = default;
    /// The `size` bytes at `data`.
    TextSource(const char* data, std::size_t size) : m_data(data), m_size(size), m_regular(true) {}
    TextSource(const TextSource&) = delete;
    TextSource& operator=(const TextSource&) = delete;
    ~TextSource();

    enum class Files
    {
        RegularOnly, ///< regular files only; the open never waits for a FIFO's writer
        Streams      ///< also FIFOs and devices, read once from start to end; not directories
    };
    /// Opens a file; false when it cannot be opened or is not of the kind accepted.
    bool open(const char* path, Files files);

    /// A memory block or a regular file: the size is known and pieces can be read.
    bool isRegular() const { return m_regular; }
    /// The size of a memory block or of a regular file when it was opened.
    std::size_t size() const { return m_size; }

    /// The whole text, in one buffer of its own (a memory block is not copied).
    class Whole
    {
    public:
        const char* begin() const { return m_begin; }
        const char* end() const { return m_end; }
        const char* data() const { return m_begin; }
        std::size_t size() const { return std::size_t(m_end - m_begin); }
        bool empty() const { return m_begin == m_end; }

    private:
        friend class TextSource;
        std::unique_ptr<char[]> m_buffer;
        const char* m_begin = nullptr;
        const char* m_end = nullptr;
    };
    /// Reads the whole text; false when a read fails (`out` then holds what was read).
    bool readAll(Whole& out) const;

    /// Piece k of the text cut into pieces of about `bytes` bytes: the lines that start in
    /// [k * bytes, (k + 1) * bytes), a line starting after the '\n' of the one before. Piece
    /// k > 0 starts after the first '\n' at or after byte k * bytes - 1, so every line falls
    /// in exactly one piece and the cuts depend on the text alone; a line longer than a piece
    /// leaves the pieces after it empty. A file's piece is read into `buffer`, which grows
    /// for long lines. @pre isRegular(), k * bytes < size().
    TextRange piece(std::size_t k, std::size_t bytes, std::vector<char>& buffer) const;

    /// Reads pieces 0 .. numPieces - 1 (of about `bytes` bytes) on the thread pool, each task
    /// into a buffer of its own, and calls fn(task, k, piece) for every piece; a task takes
    /// the next piece when it is done with one, and none is handed out once fn has returned
    /// false. `start(numTasks)` is called first, on the calling thread. Blocks until done.
    void forEachPiece(std::size_t bytes, std::size_t numPieces,
                      const std::function<bool(int task, std::size_t k, const TextRange&)>& fn,
                      const std::function<void(int numTasks)>& start = {}) const;

    /// Where a reading block by block stands.
    struct Blocks
    {
        std::vector<char> buffer;
        std::size_t carryFrom = 0, carry = 0; ///< the start of a line read into the buffer
        bool done = false;
    };
    /// The next block of the text read from start to end: whole lines, up to and with the
    /// last '\n' that fits the buffer of `bytes` bytes; the last block (reachesEnd) runs to
    /// the end of the text, and a line that does not fit the buffer is handed out cut, as a
    /// last block too. A read that fails ends the text there. False when the text is done.
    bool nextBlock(Blocks& blocks, std::size_t bytes, TextRange& out) const;

    /// Reads up to `n` bytes of a file from where the last read stopped (start to end, once);
    /// short only at the end of the file or when a read fails. @pre a file, not a block.
    std::size_t read(char* out, std::size_t n) const;

private:
    const char* m_data = nullptr; ///< the memory block, if it is one
    int m_fd = -1;
    std::size_t m_size = 0;
    bool m_regular = false;
};

} // namespace qyGeom::detail
