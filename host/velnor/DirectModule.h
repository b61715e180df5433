// The in-process host as a module of its own, velnor-direct.so: the client program links only
// what a call through the daemon needs, so that its start-up stays that of a C program, and
// loads the module (which brings the plug-in's libraries along) only for --direct or when no
// daemon answers. The two meet at one C function: the module keeps its own C++ runtime, which is
// not the client's, so nothing C++ crosses between them, and the module catches whatever is
// thrown inside it.
#pragma once

#include <string>
#include <string_view>

namespace velnor::host {

// The module's entry point: runs the command line that the program was given (argv[0] the
// program, as main receives it) in this process, as the host, and answers the exit status.
// The program has checked already that it parses and that it runs as root.
extern "C" {
using DirectEntry = int (*)(int argc, char** argv);
}
inline constexpr const char* kDirectEntrySymbol = "velnor_run_direct";
inline constexpr std::string_view kDirectModuleName = "velnor-direct.so";

// Loads the module that belongs with the running program (in a build folder the one built
// there, else the one installed at fromProgramFolder, relative to the program's folder) and
// runs the command line through it; the exit status. When the module cannot be loaded or lacks
// its entry point, says so on standard error and answers the plug-in's unavailable status.
int runThroughDirectModule(std::string_view fromProgramFolder, int argc, char** argv);

}  // namespace velnor::host
