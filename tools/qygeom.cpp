// qygeom: the library's command-line program. Each command is a thin layer over the public
// API; without a command it runs the demo, the typical request on a built-in mesh.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "base/AppOutput.h"
#include "base/ThreadPool.h"
#include "cli/Cli.h"
#include "cli/Commands.h"
#include "cli/MeshFiles.h"
#include "model/debugChannel.h"

namespace
{

void printUsage(std::FILE* out)
{
    std::fputs("usage: qygeom [options] [COMMAND [ARGS]]\n"
               "\n"
               "Geometry algorithms on mesh files: OBJ (.obj) and the minimal counted\n"
               "format (.qym). Without a command, runs the demo.\n"
               "\n"
               "commands:\n",
               out);
    int count = 0;
    const qyCli::Command* list = qyCli::commands(count);
    for (int i = 0; i < count; ++i)
        std::fprintf(out, "  %-10s %s\n", list[i].name, list[i].summary);
    std::fputs("\n"
               "options (before or after the command):\n"
               "  --threads N   size of the thread pool (default: QYGEOM_THREADS or all cores)\n"
               "  --precision N significant digits of the numbers written (1 to 9; default:\n"
               "                the shortest text that reads back to the same float32)\n"
               "  --verbose     the library's statistics, timing lines and messages on standard\n"
               "                error\n"
               "  --help        this text; 'qygeom COMMAND --help' explains a command\n"
               "  --version     the program's version\n"
               "\n"
               "Outputs are written under temporary names and appear only when the whole\n"
               "command succeeds; a failed write leaves the old file as it was. Ctrl-C or\n"
               "SIGTERM before that moment cancels (status 130) and writes nothing; a second\n"
               "one ends the program at once. An output that is a symbolic link keeps the\n"
               "link and replaces its target; a character device or FIFO (/dev/null,\n"
               "/dev/stdout, a pipe) is written directly; other special files are refused.\n"
               "\n"
               "Polygon faces are read by every command and triangulated where a command\n"
               "needs triangles; texture coordinates, normals, groups and materials are\n"
               "carried to the output. Exit status: 0 done, 1 error, 2 usage error, 3 written\n"
               "but short of the goal (flatten: a layout that is not one-to-one; orient: a\n"
               "piece that cannot be oriented), 130 cancelled.\n",
               out);
}

// Takes the global options out of argv wherever they stand; returns false on a bad value.
bool takeGlobalOptions(int& argc, char** argv)
{
    int kept = 1;
    for (int i = 1; i < argc; ++i)
    {
        const char* arg = argv[i];
        if (!std::strcmp(arg, "--verbose") || !std::strcmp(arg, "-v"))
        {
            qyGeom::debugChannel().setEnabled(true);
            continue;
        }
        const bool threadsEq = !std::strncmp(arg, "--threads=", 10);
        if (threadsEq || !std::strcmp(arg, "--threads"))
        {
            const char* value = threadsEq ? arg + 10 : (i + 1 < argc ? argv[++i] : nullptr);
            char* end = nullptr;
            const long n = value ? std::strtol(value, &end, 10) : 0;
            if (!value || end == value || *end || n < 1 || n > 1024)
            {
                std::fprintf(stderr, "qygeom: --threads needs a number from 1 to 1024\n");
                return false;
            }
            qyUtil::ThreadPool::get().setNumThreads(int(n));
            continue;
        }
        const bool precisionEq = !std::strncmp(arg, "--precision=", 12);
        if (precisionEq || !std::strcmp(arg, "--precision"))
        {
            const char* value = precisionEq ? arg + 12 : (i + 1 < argc ? argv[++i] : nullptr);
            char* end = nullptr;
            const long n = value ? std::strtol(value, &end, 10) : 0;
            if (!value || end == value || *end || n < 1 || n > 9)
            {
                std::fprintf(stderr, "qygeom: --precision needs a number from 1 to 9 (9 digits "
                                     "keep every float32; the default writes the shortest text "
                                     "that does)\n");
                return false;
            }
            qyCli::setOutputDigits(int(n));
            continue;
        }
        if (!std::strcmp(arg, "--"))
        {
            // Everything after "--" belongs to the command.
            for (; i < argc; ++i)
                argv[kept++] = argv[i];
            break;
        }
        argv[kept++] = argv[i];
    }
    argc = kept;
    return true;
}

// QYGEOM_THREADS sizes the pool when it holds a number from 1 to 1024; the library ignores
// any other value, and the program says so.
void checkThreadsVariable()
{
    const char* value = std::getenv("QYGEOM_THREADS");
    if (!value)
        return;
    char* end = nullptr;
    const long n = std::strtol(value, &end, 10);
    if (end == value || *end || n < 1 || n > 1024)
        std::fprintf(stderr,
                     "qygeom: warning: QYGEOM_THREADS='%s' is not a number from 1 to 1024; "
                     "using %d threads\n",
                     value, qyUtil::ThreadPool::get().getNumThreads());
}

} // namespace

int main(int argc, char** argv)
{
    checkThreadsVariable();
    if (!takeGlobalOptions(argc, argv))
        return 2;
    // The library's statistics and user messages go to standard error, so that standard
    // output holds only the command's own report; the messages only with --verbose, as the
    // commands report outcomes and failures themselves.
    qyGeom::debugChannel().setSink([](const char* text) { std::fputs(text, stderr); });
    const bool verbose = qyGeom::debugChannel().isEnabled();
    qyOS::AppOutput::getInstance().setSink(
        [verbose](qyOS::AppOutput::Kind, const char* text)
        {
            if (verbose)
                std::fputs(text, stderr);
        });
    qyCli::installInterruptHandler();

    const char* name = argc > 1 ? argv[1] : "demo";
    if (!std::strcmp(name, "--version"))
    {
        std::printf("qygeom %s\n", QYGEOM_VERSION);
        return 0;
    }
    if (!std::strcmp(name, "--help") || !std::strcmp(name, "-h") || !std::strcmp(name, "help"))
    {
        if (argc > 2 && qyCli::findCommand(argv[2]))
            qyCli::printCommandHelp(*qyCli::findCommand(argv[2]), stdout);
        else
            printUsage(stdout);
        return 0;
    }
    const qyCli::Command* command = qyCli::findCommand(name);
    if (!command)
    {
        std::fprintf(stderr, "qygeom: unknown command '%s' (see qygeom --help)\n", name);
        return 2;
    }
    qyCli::setCommandName(command->name);
    try
    {
        qyCli::Args args(argc, argv, argc > 1 ? 2 : 1);
        if (args.wantsHelp())
        {
            qyCli::printCommandHelp(*command, stdout);
            return 0;
        }
        return command->run(args);
    }
    catch (const qyCli::Failure& failure)
    {
        std::fprintf(stderr, "qygeom %s: %s\n", command->name, failure.what());
        if (failure.status == 2)
            std::fprintf(stderr, "(see qygeom %s --help)\n", command->name);
        return failure.status;
    }
    catch (const std::bad_alloc&)
    {
        std::fprintf(stderr, "qygeom %s: out of memory\n", command->name);
        return 1;
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "qygeom %s: %s\n", command->name, e.what());
        return 1;
    }
}
