/// Runs the programs that the station itself needs (mkfs, 7za, tar), and ends the process when the simulated
/// machine cannot be set up. Used throughout the station; knows nobody.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace station {

/// For faults of the simulation, never for what the daemon does: prints "virtual station: <what>", with the
/// text of `error` when it is not 0, and ends the process with status 70.
[[noreturn]] void Halt(const std::string& what, int error = 0);

/// Runs a program found in PATH, without a shell, its output discarded; gives its exit code, or 128 + signal.
int RunProgram(const std::vector<std::string>& arguments, const std::string& directory = "/");

/// The same for a program that cannot fail on a sound machine: Halt if it does.
void MustRun(const std::vector<std::string>& arguments, const std::string& directory = "/");

/// The processes of a session, also those that are dead and not reaped yet.
std::vector<pid_t> ProcessesOf(pid_t session);

/// SIGKILL to all of them, again until all are dead, since a shell may start one meanwhile. Reaps none. Halts
/// when one does not die within a minute.
void KillSession(pid_t session);

/// Whole file as text, empty when it cannot be read.
std::string ReadText(const std::string& path);
/// Creates or replaces a file and its directories; Halt when that fails.
void WriteText(const std::string& path, const std::string& text);

}  // namespace station
