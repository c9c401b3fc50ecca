// The program's commands. Each is a thin layer over the library's public functions: it
// reads its arguments, calls the library, and reports.
#pragma once

#include "Cli.h"

namespace qyCli
{

struct Command
{
    const char* name;
    const char* synopsis; // arguments, as shown in the usage line
    const char* summary;  // one line for the command list
    const char* details;  // the rest of the command's help text
    int (*run)(Args& args);
};

/// Every command, in the order of the help text.
const Command* commands(int& count);
const Command* findCommand(const char* name);
void printCommandHelp(const Command& command, std::FILE* out);

int runDemo(Args& args);
int runInfo(Args& args);
int runCheck(Args& args);
int runWeld(Args& args);
int runNormals(Args& args);
int runFlatten(Args& args);
int runCurvature(Args& args);
int runConvert(Args& args);
int runSubdivide(Args& args);
int runSmooth(Args& args);
int runOrient(Args& args);
int runRaycast(Args& args);
int runReduce(Args& args);

} // namespace qyCli
