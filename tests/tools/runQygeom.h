// Running the built qygeom program from the end-to-end tests: in a scratch folder of the
// test's own, with its standard streams captured, optionally disturbed (Ctrl-C at a given
// message, a signal while the outputs are written, a file-size limit, the test hook's
// signals, text on standard input).
#pragma once
#include <algorithm>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace qyToolTest
{

namespace fs = std::filesystem;

struct Outcome
{
    int status = -1; // exit status, or 128 + signal
    std::string out, err;
};

inline std::string slurp(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// What a run gets besides its arguments, and how it is disturbed.
struct Disturbance
{
    // Standard input (empty when not given).
    std::string input;
    // Sends SIGINT once standard error contains this text.
    std::string interruptAfter;
    // Sends this signal once a staging folder (".qygeom-...") appears in the directory,
    // that is while the outputs are being written.
    int signalWhileWriting = 0;
    // Writes beyond this many bytes fail with EFBIG (SIGXFSZ ignored), as on a full disk.
    long fileSizeLimit = 0;
    // QYGEOM_TEST_SIGNALS for the program's test hook.
    std::string testSignals;
};

inline Disturbance withInput(const std::string& text)
{
    Disturbance d;
    d.input = text;
    return d;
}

inline Disturbance interruptWhenStderrHas(const std::string& text)
{
    Disturbance d;
    d.interruptAfter = text;
    return d;
}

inline Disturbance signalWhileWriting(int signal)
{
    Disturbance d;
    d.signalWhileWriting = signal;
    return d;
}

inline Disturbance fileSizeLimit(long bytes)
{
    Disturbance d;
    d.fileSizeLimit = bytes;
    return d;
}

inline Disturbance testSignals(const std::string& signals)
{
    Disturbance d;
    d.testSignals = signals;
    return d;
}

inline std::vector<fs::path> stagingFolders(const fs::path& dir)
{
    std::vector<fs::path> found;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().filename().string().starts_with(".qygeom-"))
            found.push_back(it->path());
    std::sort(found.begin(), found.end());
    return found;
}

inline bool hasNewFolder(const std::vector<fs::path>& now, const std::vector<fs::path>& before)
{
    for (const fs::path& p : now)
        if (std::find(before.begin(), before.end(), p) == before.end())
            return true;
    return false;
}

// Runs qygeom with `args` in `dir`, disturbed as `how` says.
inline Outcome run(const fs::path& dir, const std::vector<std::string>& args,
                   const Disturbance& how = {})
{
    const fs::path outFile = dir / ".stdout", errFile = dir / ".stderr", inFile = dir / ".stdin";
    std::ofstream(inFile) << how.input;
    const std::vector<fs::path> oldFolders = stagingFolders(dir);
    const pid_t pid = fork();
    if (pid == 0)
    {
        if (chdir(dir.c_str()) != 0)
            _exit(127);
        const int in = open(inFile.c_str(), O_RDONLY);
        const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        if (how.fileSizeLimit > 0)
        {
            std::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{rlim_t(how.fileSizeLimit), rlim_t(how.fileSizeLimit)};
            setrlimit(RLIMIT_FSIZE, &limit);
        }
        if (!how.testSignals.empty())
            setenv("QYGEOM_TEST_SIGNALS", how.testSignals.c_str(), 1);
        std::vector<char*> argv{const_cast<char*>(QYGEOM_EXE)};
        for (const std::string& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(QYGEOM_EXE, argv.data());
        _exit(127);
    }
    Outcome result;
    int status = 0;
    if (!how.interruptAfter.empty() || how.signalWhileWriting)
    {
        bool sent = false;
        while (waitpid(pid, &status, WNOHANG) == 0)
        {
            if (!sent && (how.interruptAfter.empty()
                              ? hasNewFolder(stagingFolders(dir), oldFolders)
                              : slurp(errFile).find(how.interruptAfter) != std::string::npos))
            {
                kill(pid, how.signalWhileWriting ? how.signalWhileWriting : SIGINT);
                sent = true;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    else
        waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = slurp(outFile);
    result.err = slurp(errFile);
    for (const fs::path& p : {outFile, errFile, inFile})
        fs::remove(p);
    return result;
}

// A test with a scratch folder of its own, `dir`, made empty before and removed after.
class ScratchFolderTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        dir = fs::temp_directory_path() / ("qygeom-" + std::string(info->test_suite_name()) + "-" +
                                           std::to_string(getpid()) + "-" + info->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    fs::path dir;
};

} // namespace qyToolTest
