#pragma once

#include <sys/types.h>

#include <string>

namespace vnt::rumbel {

/// The program as it would be found in PATH; as given when it names a path. Empty when there is no such executable,
/// with errno telling why.
std::string findProgram(const std::string& name);

/// The tool's side of the program that the session launched: the terminal, and the program's end. One per process,
/// because the library may end the process from a thread of its own.
namespace launched {

/// Begin looking after `pid`; gives it the terminal when standard input is one.
void adopt(pid_t pid);
/// Ends it and reaps it; for a start that failed.
void killNow();
/// At the end of the process: takes the terminal back, shows how the program ended. Returns its exit status
/// (128 + signal for a signal), or -1 when it still runs or none was launched.
int finish();
/// Passes an interrupt on to the program, as the terminal would have.
void interrupt();

} // namespace launched
} // namespace vnt::rumbel
