// Shared pieces of the qygeom program: argument parsing, errors, the progress bar with
// Ctrl-C cancellation, and output files that appear only when a command succeeds.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/Progress.h"

namespace qyCli
{

/// A failure reported to the user as one line on standard error; `status` is the exit code.
struct Failure : std::runtime_error
{
    Failure(const std::string& message, int exitStatus = 1)
        : std::runtime_error(message), status(exitStatus)
    {
    }
    int status;
};

/// printf-style formatting into a std::string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// The command that runs, for warning lines ("qygeom <command>: warning: ...").
void setCommandName(const char* name);
/// Prints "qygeom <command>: warning: <text>" on standard error.
void warning(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// Throws a usage error (exit status 2).
[[noreturn]] void usageError(const std::string& message);

/// The arguments of one command: flags, options with a value and positional arguments,
/// in any order. Every accessor consumes what it reads; finish() rejects what is left.
class Args
{
public:
    Args(int argc, char** argv, int first);

    bool flag(const char* name);
    /// The value of `--name VALUE` or `--name=VALUE`; empty when absent.
    std::string option(const char* name);
    /// The next positional argument; `what` names it in the error when it is missing.
    std::string positional(const char* what);
    /// A positional argument that may be missing.
    std::string optionalPositional();
    /// Fails on any argument that no accessor took.
    void finish() const;
    bool wantsHelp() const { return m_help; }

private:
    std::vector<std::string> m_args;
    std::vector<bool> m_used;
    bool m_help = false;
};

/// Exit status of a run cancelled by Ctrl-C or SIGTERM (128 + SIGINT, as shells report).
constexpr int cancelledStatus = 130;

/// True once the user pressed Ctrl-C or the program got SIGTERM, before its outputs were
/// committed. The first signal cancels; a second one before the commit ends the program at
/// once, by that signal, after removing the staging folders. From the commit on, signals are
/// ignored: the command finishes and reports success.
bool interrupted();
/// Fails with "cancelled; no output written" (status 130) when interrupted() is true.
void requireNotCancelled();
/// Installs the SIGINT and SIGTERM handlers, and ignores SIGXFSZ so that a write past the
/// file size limit fails with an error the program reports instead of ending it.
void installInterruptHandler();

/// Test hook: when the environment variable QYGEOM_TEST_SIGNALS is "<point>:<signals>"
/// (signals a comma-separated list of INT and TERM, e.g. "written:INT,TERM"), raises those
/// signals to the program itself, in order, when it reaches `point`. The points are those
/// of OutputFiles::commit(): "written" (outputs written, nothing committed), "committing"
/// (past the point of no return, nothing moved yet) and "committed".
void testHook(const char* point);

/// The progress object handed to the library: draws a bar with the caption on standard
/// error when that is a terminal, and answers cancellation from Ctrl-C.
class ProgressBar : public qyUtil::Progress
{
public:
    ProgressBar();
    ~ProgressBar() override;
    /// Clears the bar's line.
    void finish();

protected:
    void report(const char* caption, double fraction) override;
    bool cancelRequested() override;

private:
    bool m_draw;
    int m_lastPermille = -1;
    std::string m_lastCaption;
    bool m_drawn = false;
};

/// A text output of the program's own writers (CSV, SVG), from OutputFiles::openText().
/// close() checks that every byte was written; without it the file is closed quietly (the
/// run is failing anyway).
class TextFile
{
public:
    TextFile(std::FILE* file, std::string name, bool owned)
        : m_file(file), m_name(std::move(name)), m_owned(owned)
    {
    }
    ~TextFile();
    TextFile(TextFile&& other) noexcept
        : m_file(std::exchange(other.m_file, nullptr)), m_name(std::move(other.m_name)),
          m_owned(other.m_owned)
    {
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;
    TextFile& operator=(TextFile&&) = delete;

    std::FILE* get() const { return m_file; }
    /// Flushes and closes; fails with "cannot write '<name>': <reason>" when a write or the
    /// close failed.
    void close();

private:
    std::FILE* m_file;
    std::string m_name;
    bool m_owned; // false for the program's standard output or error
};

/// Output files written under temporary names in a private folder beside their final
/// place, and moved there by commit(). Without commit() (an error, a cancellation) the
/// temporary files are removed and nothing at the final names changes.
///
/// The private folders are named ".qygeom-<pid>-<host>-XXXXXX". One left behind by a
/// program that was killed is removed by the next run that writes into that directory,
/// once no process of that pid is alive on this host.
///
/// What a final name may be:
/// - missing or a regular file: staged beside it and replaced on commit;
/// - a symbolic link to a regular file: the link is kept and its target replaced, staged
///   beside the target (a link to a missing file is refused);
/// - a character device or a FIFO (/dev/null, a terminal, a pipe; /dev/stdout when that is
///   one): written directly, unstaged, where the output allows it (see stage()); the file
///   that the program's standard output or error goes to is written through that stream by
///   openText();
/// - anything else (a directory, a socket, a block device) is refused, and nothing is ever
///   staged inside /dev.
class OutputFiles
{
public:
    enum class Direct
    {
        Refuse, // the output has companion files and must be staged
        Allow   // a character device or FIFO is written directly
    };

    OutputFiles() = default;
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    /// Registers `finalPath` and returns the path to write instead. The temporary file
    /// keeps the final name (inside the private folder), so that writers which derive
    /// companion files from the name (the material library of an OBJ file) name them right;
    /// companions written next to it are moved along by commit(). With Direct::Allow, a
    /// character device or FIFO is returned as it is.
    std::string stage(const std::string& finalPath, Direct direct = Direct::Refuse);
    /// Opens `finalPath` for text as stage() would, or, with Direct::Allow, the program's own
    /// standard output or error when `finalPath` names the file that it goes to.
    TextFile openText(const std::string& finalPath, Direct direct = Direct::Allow);
    /// Gives up the output staged for `finalPath`: it is not written, and the name is free.
    void discard(const std::string& finalPath);
    /// The final name that a file of the private folders goes to.
    std::string finalNameOf(const std::string& temporaryPath) const;
    /// Flushes every staged file to the disk and moves it to its final place, or fails
    /// (nothing moved) when that cannot be done or the run was interrupted. The move is the
    /// point of no return: signals from there on no longer cancel the run.
    void commit();

private:
    struct Staging
    {
        std::string folder;    // private temporary folder
        std::string finalDir;  // where its files go
        std::string finalName; // the staged file's final name (a link's target for a link)
        std::string userName;  // the name as the user gave it
        std::string shownDir; // companions' directory in messages: the user's, or a link's target's
    };
    /// Fails when `finalPath` is a file that this run already writes.
    void refuseSecondWrite(const std::string& finalPath) const;

    std::vector<Staging> m_staging;
    std::vector<std::string> m_written; // every final name, as given
    bool m_committed = false;
};

/// Fails when `output` names the same file as `input` (the input would be overwritten).
void refuseOverwritingInput(const std::string& input, const std::string& output);

} // namespace qyCli
