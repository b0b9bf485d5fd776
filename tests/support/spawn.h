// Starting executables from tests (and from the tour) without doing anything
// between fork and exec: everything (arguments, environment, redirections) is
// prepared first and the child is made with posix_spawn and file actions, which
// is safe in a process that runs threads (fake servers, the TLS layer).
#ifndef TESTS_SUPPORT_SPAWN_H
#define TESTS_SUPPORT_SPAWN_H

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

using EnvList = std::vector<std::pair<std::string, std::string>>;

struct SpawnOptions {
  std::vector<std::string> argv;  // argv[0] is the program's path
  EnvList env;                    // the child's whole environment
  std::string stdinPath;          // "" for /dev/null
  std::string stdoutPath;         // created or truncated; "" for /dev/null
  std::string stderrPath;         // likewise; the same path as stdout shares it
  bool keepStdout = false;        // the child writes to this process's stdout
  bool stderrToStdout = false;    // stderr goes wherever stdout goes
};

// The pid of the started child, or -1 with *err (when given) set to the error.
pid_t SpawnProcess(const SpawnOptions& o, int* err = nullptr);
// Waits up to timeoutMs for pid to end; true and *status (the exit status, or
// 128 + the signal number) when it did. The child is reaped.
bool WaitProcess(pid_t pid, int timeoutMs, int* status);
// Sends sig and, for SIGKILL, reaps the child (bounded: a killed child ends).
void KillProcess(pid_t pid, int sig);

// This process's environment less the ZEL_* variables, plus extra.
EnvList TestEnvironment(const EnvList& extra = {});

// Live processes (zombies left out) whose environment names a ZEL_BASE under dir.
std::vector<pid_t> ProcessesUnder(const std::string& dir);

#endif  // TESTS_SUPPORT_SPAWN_H
