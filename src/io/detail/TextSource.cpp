#include "io/detail/TextSource.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Memory.h"
#include "base/ThreadPool.h"

namespace qyGeom::detail
{

namespace
{

/// Reads up to n bytes at `offset` (at the file position when offset is -1); short only at
/// the end of the file or on an error.
std::size_t readFully(int fd, char* out, std::size_t n, off_t offset)
{
    std::size_t done = 0;
    while (done < n)
    {
        const ssize_t got = offset < 0 ? ::read(fd, out + done, n - done)
                                       : ::pread(fd, out + done, n - done, offset + off_t(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += std::size_t(got);
    }
    return done;
}

} // namespace

TextSource::~TextSource()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool TextSource::open(const char* path, Files files)
{
    // Non-blocking when only regular files are wanted, so that a FIFO named in a file cannot
    // stall the reader.
    const int flags = O_RDONLY | O_CLOEXEC | (files == Files::RegularOnly ? O_NONBLOCK : 0);
    const int fd = ::open(path, flags);
    if (fd < 0)
        return false;
    struct stat st;
    const bool statted = fstat(fd, &st) == 0;
    const bool regular = statted && S_ISREG(st.st_mode);
    if ((files == Files::RegularOnly && !regular) || (statted && S_ISDIR(st.st_mode)))
    {
        ::close(fd);
        return false;
    }
    m_fd = fd;
    m_regular = regular;
    m_size = regular ? std::size_t(st.st_size) : 0;
    return true;
}

bool TextSource::readAll(Whole& out) const
{
    if (m_data)
    {
        out.m_begin = m_data;
        out.m_end = m_data + m_size;
        return true;
    }
    // The size is a hint: the file may change while it is read, so the buffer grows when
    // the size was too small.
    std::size_t capacity = m_size + 1, size = 0;
    out.m_buffer.reset(new char[capacity]);
    qy::adviseHugePages(out.m_buffer.get(), capacity);
    bool ok = true;
    for (;;)
    {
        if (size == capacity)
        {
            std::unique_ptr<char[]> grown(new char[2 * capacity]);
            std::memcpy(grown.get(), out.m_buffer.get(), size);
            out.m_buffer = std::move(grown);
            capacity *= 2;
        }
        const ssize_t n = ::read(m_fd, out.m_buffer.get() + size, capacity - size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
        {
            ok = n == 0;
            break;
        }
        size += std::size_t(n);
    }
    out.m_begin = out.m_buffer.get();
    out.m_end = out.m_begin + size;
    return ok;
}

TextRange TextSource::piece(std::size_t k, std::size_t bytes, std::vector<char>& buffer) const
{
    constexpr std::size_t none = std::size_t(-1);
    const std::size_t from = k == 0 ? 0 : k * bytes - 1;
    const std::size_t cut = (k + 1) * bytes - 1 - from; // where the next piece's search starts
    const char* text = m_data ? m_data + from : nullptr;
    std::size_t filled = m_data ? m_size - from : 0;
    // Offsets in the text read, after the first '\n' at or after `at`; none when not read yet.
    auto lineAfter = [&](std::size_t at)
    {
        const void* nl = at < filled ? std::memchr(text + at, '\n', filled - at) : nullptr;
        return nl ? std::size_t(static_cast<const char*>(nl) - text) + 1 : none;
    };
    std::size_t start = k == 0 ? 0 : none, stop = none;
    if (m_data)
    {
        start = k == 0 ? 0 : lineAfter(0);
        stop = lineAfter(cut);
    }
    else
    {
        // The piece and a page more, which usually holds the end of its last line: the text
        // read beyond the piece is read twice. A longer line grows the buffer below.
        if (buffer.size() < bytes + 4096)
            buffer.resize(bytes + 4096);
        for (;;)
        {
            const std::size_t want = buffer.size() - filled;
            const std::size_t got =
                readFully(m_fd, buffer.data() + filled, want, off_t(from + filled));
            filled += got;
            text = buffer.data();
            start = k == 0 ? 0 : lineAfter(0);
            stop = lineAfter(cut);
            if (got < want || (start != none && stop != none))
                break;
            buffer.resize(buffer.size() * 2);
        }
    }
    TextRange r;
    r.begin = text + (start == none ? filled : start);
    r.reachesEnd = stop == none;
    r.end = std::max(r.begin, text + (stop == none ? filled : stop));
    return r;
}

void TextSource::forEachPiece(
    std::size_t bytes, std::size_t numPieces,
    const std::function<bool(int task, std::size_t k, const TextRange&)>& fn,
    const std::function<void(int numTasks)>& start) const
{
    class Job final : public qyUtil::ThreadedAlg
    {
    public:
        Job(const TextSource& source, std::size_t bytes, std::size_t numPieces,
            const std::function<bool(int, std::size_t, const TextRange&)>& fn,
            const std::function<void(int)>& start)
            : m_source(source), m_bytes(bytes), m_numPieces(numPieces), m_fn(fn), m_start(start)
        {
        }
        void initialize(int numTasks) override
        {
            if (m_start)
                m_start(numTasks);
        }
        void execute(int task, int) override
        {
            std::vector<char> buffer;
            for (;;)
            {
                const std::size_t k = m_next.fetch_add(1, std::memory_order_relaxed);
                if (k >= m_numPieces || cancelled(task))
                    return;
                if (!m_fn(task, k, m_source.piece(k, m_bytes, buffer)))
                    m_next.store(m_numPieces, std::memory_order_relaxed);
            }
        }

    private:
        const TextSource& m_source;
        std::size_t m_bytes, m_numPieces;
        const std::function<bool(int, std::size_t, const TextRange&)>& m_fn;
        const std::function<void(int)>& m_start;
        std::atomic<std::size_t> m_next{0};
    };
    Job job(*this, bytes, numPieces, fn, start);
    qyUtil::ThreadPool::get().run(job);
}

std::size_t TextSource::read(char* out, std::size_t n) const
{
    return readFully(m_fd, out, n, -1);
}

bool TextSource::nextBlock(Blocks& blocks, std::size_t bytes, TextRange& out) const
{
    if (blocks.done)
        return false;
    if (m_data)
    {
        blocks.done = true;
        out = {m_data, m_data + m_size, true};
        return true;
    }
    if (blocks.buffer.size() < bytes)
        blocks.buffer.resize(bytes);
    char* const b = blocks.buffer.data();
    std::memmove(b, b + blocks.carryFrom, blocks.carry);
    const std::size_t want = blocks.buffer.size() - blocks.carry;
    const std::size_t filled = blocks.carry + readFully(m_fd, b + blocks.carry, want, -1);
    const void* nl = filled == blocks.buffer.size() ? memrchr(b, '\n', filled) : nullptr;
    if (!nl)
    {
        // The end of the text, or a line longer than the buffer: the rest goes out as it is.
        blocks.done = true;
        out = {b, b + filled, true};
        return true;
    }
    blocks.carryFrom = std::size_t(static_cast<const char*>(nl) - b) + 1;
    blocks.carry = filled - blocks.carryFrom;
    out = {b, b + blocks.carryFrom, false};
    return true;
}

} // namespace qyGeom::detail
