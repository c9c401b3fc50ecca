// Shared pieces of the qygeom program: argument parsing, errors, the progress bar with
// Ctrl-C cancellation, and output files that appear only when a command succeeds.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <stdexcept>
#include <string>
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

/// True once the user pressed Ctrl-C (the first press cancels, a second one ends the
/// program at once).
bool interrupted();
void installInterruptHandler();

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

/// Output files written under temporary names in a private folder beside their final
/// place, and moved there by commit(). Without commit() (an error, a cancellation) the
/// temporary files are removed and nothing at the final names changes.
class OutputFiles
{
public:
    OutputFiles() = default;
    ~OutputFiles();
    OutputFiles(const OutputFiles&) = delete;
    OutputFiles& operator=(const OutputFiles&) = delete;

    /// Registers `finalPath` and returns the temporary path to write instead. The temporary
    /// file keeps the final name (inside the private folder), so that writers which derive
    /// companion files from the name (the material library of an OBJ file) name them right;
    /// companions written next to it are moved along by commit().
    std::string stage(const std::string& finalPath);
    /// Moves every file of the private folders to its final directory.
    void commit();

private:
    struct Staging
    {
        std::string folder;   // private temporary folder
        std::string finalDir; // where its files go
    };
    std::vector<Staging> m_staging;
    bool m_committed = false;
};

/// Switches the library's statistics channel on for its lifetime and keeps what it prints
/// (passing it on to standard error as before when the user asked for it with --verbose).
class DebugCapture
{
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;
    /// The last captured line that starts with one of `prefixes`, without its line end and
    /// trailing blanks; empty when none does.
    std::string lastLineStartingWith(std::initializer_list<const char*> prefixes) const;

private:
    std::string m_text;
    bool m_wasEnabled;
};

/// Fails when `output` names the same file as `input` (the input would be overwritten).
void refuseOverwritingInput(const std::string& input, const std::string& output);

} // namespace qyCli
