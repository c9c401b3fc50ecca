#include "Cli.h"

#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unistd.h>

#include "model/debugChannel.h"

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
// Ctrl-C

namespace
{

volatile std::sig_atomic_t g_interrupts = 0;

extern "C" void onInterrupt(int)
{
    g_interrupts = g_interrupts + 1;
    if (g_interrupts > 1)
    {
        // A second Ctrl-C: the user wants out now. The default action ends the process;
        // the staging folders are left behind under their hidden names.
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
    }
}

} // namespace

bool interrupted()
{
    return g_interrupts > 0;
}

void installInterruptHandler()
{
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
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

OutputFiles::~OutputFiles()
{
    if (m_committed)
        return;
    for (const Staging& s : m_staging)
    {
        std::error_code ignored;
        fs::remove_all(s.folder, ignored);
    }
}

std::string OutputFiles::stage(const std::string& finalPath)
{
    const fs::path target(finalPath);
    const fs::path dir = target.has_parent_path() ? target.parent_path() : fs::path(".");
    if (target.filename().empty())
        usageError(format("'%s' is not a file name", finalPath.c_str()));
    std::error_code ec;
    if (!fs::is_directory(dir, ec))
        throw Failure(format("cannot write '%s': no directory '%s'", finalPath.c_str(),
                             dir.string().c_str()));
    if (fs::is_directory(target, ec))
        throw Failure(format("cannot write '%s': it is a directory", finalPath.c_str()));
    std::string pattern = (dir / ".qygeom-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw Failure(
            format("cannot write in '%s': %s", dir.string().c_str(), std::strerror(errno)));
    m_staging.push_back({pattern, dir.string()});
    return (fs::path(pattern) / target.filename()).string();
}

void OutputFiles::commit()
{
    for (const Staging& s : m_staging)
    {
        std::error_code ec;
        for (const fs::directory_entry& entry : fs::directory_iterator(s.folder, ec))
        {
            const fs::path to = fs::path(s.finalDir) / entry.path().filename();
            fs::rename(entry.path(), to, ec);
            if (ec)
                throw Failure(format("cannot move the output to '%s': %s", to.string().c_str(),
                                     ec.message().c_str()));
        }
        fs::remove(s.folder, ec);
    }
    m_committed = true;
}

// ---------------------------------------------------------------------------------------
// Statistics capture

DebugCapture::DebugCapture() : m_wasEnabled(qyGeom::debugChannel().isEnabled())
{
    qyGeom::debugChannel().setSink(
        [this](const char* text)
        {
            m_text += text;
            if (m_wasEnabled)
                std::fputs(text, stderr);
        });
    qyGeom::debugChannel().setEnabled(true);
}

DebugCapture::~DebugCapture()
{
    qyGeom::debugChannel().setEnabled(m_wasEnabled);
    qyGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stderr); });
}

std::string DebugCapture::lastLineStartingWith(std::initializer_list<const char*> prefixes) const
{
    std::string found;
    std::size_t start = 0;
    while (start < m_text.size())
    {
        std::size_t end = m_text.find('\n', start);
        if (end == std::string::npos)
            end = m_text.size();
        const std::string line = m_text.substr(start, end - start);
        for (const char* prefix : prefixes)
            if (line.starts_with(prefix))
                found = line;
        start = end + 1;
    }
    while (!found.empty() && (found.back() == ' ' || found.back() == '\r'))
        found.pop_back();
    return found;
}

void refuseOverwritingInput(const std::string& input, const std::string& output)
{
    std::error_code ec;
    if (input == output || fs::equivalent(input, output, ec))
        usageError(format("the output '%s' is the input: choose another name", output.c_str()));
}

} // namespace qyCli
