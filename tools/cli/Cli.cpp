#include "Cli.h"

#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace qyCli
{

namespace fs = std::filesystem;

std::string format(const char* fmt, ...)
{
    std::va_list args;
    va_start(args, fmt);
    std::va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text(n > 0 ? std::size_t(n) : 0, '\0');
    if (n > 0)
        std::vsnprintf(text.data(), text.size() + 1, fmt, args);
    va_end(args);
    return text;
}

namespace
{
const char* g_commandName = "";
}

void setCommandName(const char* name)
{
    g_commandName = name;
}

void warning(const char* fmt, ...)
{
    std::va_list args;
    va_start(args, fmt);
    std::fprintf(stderr, "qygeom %s: warning: ", g_commandName);
    std::vfprintf(stderr, fmt, args);
    std::fputc('\n', stderr);
    va_end(args);
}

void usageError(const std::string& message)
{
    throw Failure(message, 2);
}

// ---------------------------------------------------------------------------------------
// Arguments

Args::Args(int argc, char** argv, int first)
{
    bool onlyPositional = false;
    for (int i = first; i < argc; ++i)
    {
        const std::string arg = argv[i];
        if (!onlyPositional && arg == "--")
        {
            onlyPositional = true;
            continue;
        }
        if (!onlyPositional && (arg == "--help" || arg == "-h"))
        {
            m_help = true;
            continue;
        }
        // After "--" every argument is positional: keep a marker so that option() skips it.
        m_args.push_back(onlyPositional && arg.starts_with("-") ? "\x01" + arg : arg);
    }
    m_used.assign(m_args.size(), false);
}

bool Args::flag(const char* name)
{
    bool found = false;
    for (std::size_t i = 0; i < m_args.size(); ++i)
        if (!m_used[i] && m_args[i] == name)
            found = m_used[i] = true;
    return found;
}

std::string Args::option(const char* name)
{
    const std::string prefix = std::string(name) + "=";
    std::string value;
    for (std::size_t i = 0; i < m_args.size(); ++i)
    {
        if (m_used[i])
            continue;
        if (m_args[i] == name)
        {
            if (i + 1 >= m_args.size() || m_used[i + 1])
                usageError(format("%s needs a value", name));
            m_used[i] = m_used[i + 1] = true;
            value = m_args[i + 1];
            ++i;
        }
        else if (m_args[i].starts_with(prefix))
        {
            m_used[i] = true;
            value = m_args[i].substr(prefix.size());
        }
    }
    if (!value.empty() && value[0] == '\x01')
        value.erase(0, 1);
    return value;
}

std::string Args::optionalPositional()
{
    for (std::size_t i = 0; i < m_args.size(); ++i)
    {
        if (m_used[i])
            continue;
        const std::string& a = m_args[i];
        if (a.size() > 1 && a[0] == '-' && a != "-")
            continue; // an option no accessor asked for: finish() reports it
        m_used[i] = true;
        return a[0] == '\x01' ? a.substr(1) : a;
    }
    return {};
}

std::string Args::positional(const char* what)
{
    std::string a = optionalPositional();
    if (a.empty())
        usageError(format("missing %s", what));
    return a;
}

void Args::finish() const
{
    for (std::size_t i = 0; i < m_args.size(); ++i)
        if (!m_used[i])
        {
            const std::string& a = m_args[i];
            if (a.size() > 1 && a[0] == '-')
                usageError(format("unknown option '%s'", a.c_str()));
            usageError(
                format("unexpected argument '%s'", (a[0] == '\x01' ? a.substr(1) : a).c_str()));
        }
}

// ---------------------------------------------------------------------------------------
// Ctrl-C and SIGTERM

namespace
{

// Signals received, and whether the outputs are being committed. The handler may run on
// any thread (the pool's too), so both are lock-free atomics: the handler counts first and
// then looks at the commit, the commit sets its flag first and then looks at the count, so
// a signal either cancels the commit or arrives after its point of no return.
std::atomic<int> g_signals{0};
std::atomic<int> g_committing{0};
static_assert(std::atomic<int>::is_always_lock_free);

// The staging folders of this process, for the handler to remove when a second signal
// ends the program. Slots are filled before the count grows and never reused.
constexpr int maxStagingFolders = 16;
char g_stagingFolders[maxStagingFolders][PATH_MAX];
std::atomic<bool> g_stagingLive[maxStagingFolders];
std::atomic<int> g_numStagingFolders{0};

void registerStagingFolder(const std::string& folder)
{
    const int slot = g_numStagingFolders.load();
    if (slot >= maxStagingFolders || folder.size() >= PATH_MAX)
        return; // the next run removes it if this one is killed
    std::memcpy(g_stagingFolders[slot], folder.c_str(), folder.size() + 1);
    g_stagingLive[slot] = true;
    g_numStagingFolders = slot + 1;
}

void unregisterStagingFolder(const std::string& folder)
{
    for (int i = 0; i < g_numStagingFolders.load(); ++i)
        if (folder == g_stagingFolders[i])
            g_stagingLive[i] = false;
}

// Empties and removes one staging folder with async-signal-safe calls only (the folders
// hold files, no subfolders).
void removeFolderInHandler(const char* folder)
{
    const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0)
    {
        alignas(8) static char buffer[4096];
        for (;;)
        {
            const long n = syscall(SYS_getdents64, fd, buffer, sizeof buffer);
            if (n <= 0)
                break;
            for (long at = 0; at < n;)
            {
                struct Entry
                {
                    std::uint64_t ino;
                    std::int64_t off;
                    unsigned short length;
                    unsigned char type;
                    char name[1];
                };
                const Entry* e = reinterpret_cast<const Entry*>(buffer + at);
                if (std::strcmp(e->name, ".") != 0 && std::strcmp(e->name, "..") != 0)
                    unlinkat(fd, e->name, 0);
                at += e->length;
            }
        }
        ::close(fd);
    }
    rmdir(folder);
}

extern "C" void onSignal(int sig)
{
    const int count = g_signals.fetch_add(1) + 1;
    if (g_committing.load() || count < 2)
        return; // past the point of no return, or the first signal: the run cancels itself
    // A second signal: the user wants out now. Remove what this run staged and end by the
    // signal received, so that the parent sees how the program ended.
    const int saved = errno;
    for (int i = 0; i < g_numStagingFolders.load(); ++i)
        if (g_stagingLive[i].load())
            removeFolderInHandler(g_stagingFolders[i]);
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
    raise(sig); // delivered when the handler returns
    errno = saved;
}

} // namespace

bool interrupted()
{
    return g_signals.load() > 0 && !g_committing.load();
}

void requireNotCancelled()
{
    if (interrupted())
        throw Failure("cancelled; no output written", cancelledStatus);
}

void installInterruptHandler()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGXFSZ, SIG_IGN);
}

void testHook(const char* point)
{
    const char* request = std::getenv("QYGEOM_TEST_SIGNALS");
    const std::size_t length = std::strlen(point);
    if (!request || std::strncmp(request, point, length) != 0 || request[length] != ':')
        return;
    std::string names = request + length + 1;
    std::size_t start = 0;
    while (start <= names.size())
    {
        std::size_t end = names.find(',', start);
        if (end == std::string::npos)
            end = names.size();
        const std::string name = names.substr(start, end - start);
        if (name == "INT")
            raise(SIGINT);
        else if (name == "TERM")
            raise(SIGTERM);
        start = end + 1;
    }
}

// ---------------------------------------------------------------------------------------
// Progress bar

ProgressBar::ProgressBar() : m_draw(isatty(STDERR_FILENO) != 0) {}

ProgressBar::~ProgressBar()
{
    finish();
}

void ProgressBar::finish()
{
    if (m_drawn)
    {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        m_drawn = false;
    }
}

void ProgressBar::report(const char* caption, double fraction)
{
    if (!m_draw)
        return;
    const int permille = int(fraction * 1000.0);
    const std::string text = caption ? caption : "";
    if (permille == m_lastPermille && text == m_lastCaption)
        return;
    m_lastPermille = permille;
    m_lastCaption = text;
    constexpr int width = 30;
    const int filled = std::min(width, std::max(0, permille * width / 1000));
    std::string bar(std::size_t(filled), '#');
    bar.append(std::size_t(width - filled), ' ');
    std::fprintf(stderr, "\r\033[K[%s] %3d%% %s", bar.c_str(), permille / 10, text.c_str());
    std::fflush(stderr);
    m_drawn = true;
}

bool ProgressBar::cancelRequested()
{
    return interrupted();
}

// ---------------------------------------------------------------------------------------
// Output files

namespace
{

const char stagingPrefix[] = ".qygeom-";

// The host name as it appears in staging folder names: letters, digits, dots and
// underscores, at most 32 characters.
std::string hostTag()
{
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0)
        std::strcpy(name, "localhost");
    std::string tag;
    for (const char* c = name; *c && tag.size() < 32; ++c)
        tag += std::isalnum(static_cast<unsigned char>(*c)) || *c == '.' ? *c : '_';
    return tag;
}

// Removes the staging folders in `dir` that a killed run of this program left behind: those
// named for this host whose process is gone. A folder of a live process, of another host
// or user, or not in our naming is never touched.
void removeStaleStagingFolders(const fs::path& dir)
{
    const std::string host = hostTag();
    std::error_code ec;
    for (fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec))
    {
        const std::string name = it->path().filename().string();
        if (!name.starts_with(stagingPrefix))
            continue;
        // ".qygeom-" <pid> "-" <host> "-" XXXXXX
        std::size_t at = sizeof stagingPrefix - 1;
        long long pid = 0;
        while (at < name.size() && std::isdigit(static_cast<unsigned char>(name[at])) &&
               pid < 1LL << 40)
            pid = pid * 10 + (name[at++] - '0');
        if (at == sizeof stagingPrefix - 1 || pid <= 0 || pid >= 1LL << 31 ||
            name.size() != at + host.size() + 2 + 6 ||
            name.compare(at, host.size() + 2, "-" + host + "-") != 0)
            continue;
        struct stat st;
        if (lstat(it->path().c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
            continue;
        if (pid == getpid() || kill(pid_t(pid), 0) == 0 || errno != ESRCH)
            continue; // alive (or not ours to ask about)
        std::error_code ignored;
        fs::remove_all(it->path(), ignored);
    }
}

bool insideDev(const fs::path& dir)
{
    std::error_code ec;
    const fs::path real = fs::canonical(dir, ec);
    const std::string text = (ec ? dir : real).string();
    return text == "/dev" || text.starts_with("/dev/");
}

bool sameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The standard stream (stdout or stderr) whose file `st` is, or null.
std::FILE* standardStreamOf(const struct stat& st)
{
    struct stat out;
    if (fstat(STDOUT_FILENO, &out) == 0 && sameFile(st, out))
        return stdout;
    if (fstat(STDERR_FILENO, &out) == 0 && sameFile(st, out))
        return stderr;
    return nullptr;
}

// Writes a file's data to the disk: a full disk on a file system that allocates late, or a
// network file system, reports its error here rather than at the write.
int syncFile(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    const int error = fsync(fd) == 0 || errno == EINVAL ? 0 : errno;
    ::close(fd);
    return error;
}

} // namespace

TextFile::~TextFile()
{
    if (m_file && m_owned)
        std::fclose(m_file);
}

void TextFile::close()
{
    if (!m_file)
        return;
    errno = 0;
    int error = std::fflush(m_file) != 0 || std::ferror(m_file) ? (errno ? errno : EIO) : 0;
    if (m_owned && std::fclose(m_file) != 0 && !error)
        error = errno ? errno : EIO;
    m_file = nullptr;
    if (error)
        throw Failure(format("cannot write '%s': %s", m_name.c_str(), std::strerror(error)));
}

OutputFiles::~OutputFiles()
{
    if (m_committed)
        return;
    for (const Staging& s : m_staging)
    {
        std::error_code ignored;
        fs::remove_all(s.folder, ignored);
        unregisterStagingFolder(s.folder);
    }
}

void OutputFiles::refuseSecondWrite(const std::string& finalPath) const
{
    // Names that lead to one file: the same text, the same existing file, or the same place
    // once links and "." and ".." are resolved.
    std::error_code ec;
    const fs::path place = fs::weakly_canonical(fs::absolute(finalPath, ec), ec);
    struct stat st;
    if (stat(finalPath.c_str(), &st) == 0 && S_ISCHR(st.st_mode))
        return; // /dev/null and terminals take any number of outputs
    for (const std::string& other : m_written)
    {
        std::error_code e1, e2;
        if (other == finalPath || fs::equivalent(other, finalPath, e1) ||
            (!ec && fs::weakly_canonical(fs::absolute(other, e2), e2) == place && !e2))
            usageError(format("'%s' and '%s' name the same file; one run writes each output "
                              "once: choose another name",
                              other.c_str(), finalPath.c_str()));
    }
}

std::string OutputFiles::stage(const std::string& finalPath, Direct direct)
{
    refuseSecondWrite(finalPath);
    m_written.push_back(finalPath);
    fs::path target(finalPath);
    if (target.filename().empty())
        usageError(format("'%s' is not a file name", finalPath.c_str()));
    const char* name = finalPath.c_str();
    struct stat st;
    if (lstat(name, &st) == 0)
    {
        if (S_ISLNK(st.st_mode))
        {
            // Written through: the link stays and its target gets the new file.
            std::error_code ec;
            target = fs::canonical(target, ec);
            if (ec || stat(target.c_str(), &st) != 0)
                throw Failure(
                    format("cannot write '%s': it is a symbolic link to a missing file", name));
        }
        if (S_ISDIR(st.st_mode))
            throw Failure(format("cannot write '%s': it is a directory", name));
        if ((S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode)) && direct == Direct::Allow)
            return finalPath;
        if (!S_ISREG(st.st_mode))
            throw Failure(format("cannot write '%s': it is not a regular file", name));
        if (standardStreamOf(st))
            throw Failure(format("cannot write '%s': the program's own output goes to it", name));
    }
    const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::error_code ec;
    if (!fs::is_directory(dir, ec))
        throw Failure(format("cannot write '%s': no directory '%s'", name, dir.string().c_str()));
    if (insideDev(dir))
        throw Failure(format("cannot write '%s': in /dev only devices are written", name));
    removeStaleStagingFolders(dir);
    std::string pattern =
        (dir / (stagingPrefix + std::to_string(getpid()) + "-" + hostTag() + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data()))
        throw Failure(
            format("cannot write in '%s': %s", dir.string().c_str(), std::strerror(errno)));
    registerStagingFolder(pattern);
    const bool link = target != fs::path(finalPath);
    m_staging.push_back({pattern, dir.string(), target.filename().string(), finalPath,
                         (link ? dir : fs::path(finalPath).parent_path()).string()});
    return (fs::path(pattern) / target.filename()).string();
}

TextFile OutputFiles::openText(const std::string& finalPath, Direct direct)
{
    struct stat st;
    if (direct == Direct::Allow && stat(finalPath.c_str(), &st) == 0)
        if (std::FILE* stream = standardStreamOf(st))
        {
            refuseSecondWrite(finalPath);
            m_written.push_back(finalPath);
            return TextFile(stream, finalPath, false);
        }
    const std::string path = stage(finalPath, direct);
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file)
        throw Failure(format("cannot write '%s': %s", finalPath.c_str(), std::strerror(errno)));
    return TextFile(file, finalPath, true);
}

void OutputFiles::discard(const std::string& finalPath)
{
    for (std::size_t i = 0; i < m_staging.size(); ++i)
        if (m_staging[i].userName == finalPath)
        {
            std::error_code ignored;
            fs::remove_all(m_staging[i].folder, ignored);
            unregisterStagingFolder(m_staging[i].folder);
            m_staging.erase(m_staging.begin() + std::ptrdiff_t(i));
            break;
        }
    std::erase(m_written, finalPath);
}

std::string OutputFiles::finalNameOf(const std::string& temporaryPath) const
{
    const fs::path temporary(temporaryPath);
    for (const Staging& s : m_staging)
        if (temporary.parent_path() == fs::path(s.folder))
            return temporary.filename() == s.finalName
                       ? s.userName
                       : (fs::path(s.shownDir) / temporary.filename()).string();
    return temporaryPath;
}

void OutputFiles::commit()
{
    // Everything that can fail is done before the point of no return.
    struct Move
    {
        fs::path from, to;
        std::string shownName;
    };
    std::vector<Move> moves;
    for (const Staging& s : m_staging)
    {
        std::error_code ec;
        for (const fs::directory_entry& entry : fs::directory_iterator(s.folder, ec))
        {
            const std::string file = entry.path().filename().string();
            Move move{entry.path(), fs::path(s.finalDir) / file,
                      finalNameOf(entry.path().string())};
            struct stat st;
            if (file != s.finalName && lstat(move.to.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
                throw Failure(
                    format("cannot write '%s': it is not a regular file", move.shownName.c_str()));
            if (const int error = syncFile(entry.path().string()))
                throw Failure(
                    format("cannot write '%s': %s", move.shownName.c_str(), std::strerror(error)));
            moves.push_back(std::move(move));
        }
        if (ec)
            throw Failure(
                format("cannot write in '%s': %s", s.finalDir.c_str(), ec.message().c_str()));
    }
    testHook("written");
    g_committing = 1;
    if (g_signals.load() > 0)
    {
        g_committing = 0;
        requireNotCancelled();
    }
    testHook("committing");
    for (const Move& move : moves)
    {
        std::error_code ec;
        fs::rename(move.from, move.to, ec);
        if (ec)
            throw Failure(format("cannot move the output to '%s': %s", move.shownName.c_str(),
                                 ec.message().c_str()));
    }
    m_committed = true;
    for (const Staging& s : m_staging)
    {
        std::error_code ignored;
        fs::remove(s.folder, ignored);
        unregisterStagingFolder(s.folder);
        // The renames reach the disk with the directory.
        const int fd = open(s.finalDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0)
        {
            fsync(fd);
            ::close(fd);
        }
    }
    testHook("committed");
}

void refuseOverwritingInput(const std::string& input, const std::string& output)
{
    std::error_code ec;
    if (input == output || fs::equivalent(input, output, ec))
        usageError(format("the output '%s' is the input: choose another name", output.c_str()));
}

} // namespace qyCli
