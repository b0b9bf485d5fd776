#include "spawn.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace {

int openAction(posix_spawn_file_actions_t* fa, int fd, const std::string& path, int flags) {
  return posix_spawn_file_actions_addopen(fa, fd, path.empty() ? "/dev/null" : path.c_str(), flags,
                                          0600);
}

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int statusOf(int raw) {
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

}  // namespace

pid_t SpawnProcess(const SpawnOptions& o, int* err) {
  int dummy = 0;
  if (err == nullptr) err = &dummy;
  if (o.argv.empty()) {
    *err = EINVAL;
    return -1;
  }
  std::vector<std::string> envStrings;
  for (const auto& kv : o.env) envStrings.push_back(kv.first + "=" + kv.second);
  std::vector<char*> args, envp;
  for (const std::string& a : o.argv) args.push_back(const_cast<char*>(a.c_str()));
  for (std::string& e : envStrings) envp.push_back(&e[0]);
  args.push_back(nullptr);
  envp.push_back(nullptr);

  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  const int outFlags = O_WRONLY | O_CREAT | O_TRUNC;
  int rc = openAction(&fa, 0, o.stdinPath, O_RDONLY);
  if (rc == 0 && !o.keepStdout) rc = openAction(&fa, 1, o.stdoutPath, outFlags);
  if (rc == 0) {
    bool shared = o.stderrToStdout || (!o.stderrPath.empty() && o.stderrPath == o.stdoutPath);
    rc = shared ? posix_spawn_file_actions_adddup2(&fa, 1, 2)
                : openAction(&fa, 2, o.stderrPath, outFlags);
  }
  pid_t pid = -1;
  if (rc == 0) rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  *err = rc;
  return rc == 0 ? pid : -1;
}

bool WaitProcess(pid_t pid, int timeoutMs, int* status) {
  const long long deadline = nowMs() + timeoutMs;
  for (;;) {
    int raw = 0;
    pid_t r = waitpid(pid, &raw, WNOHANG);
    if (r == pid) {
      *status = statusOf(raw);
      return true;
    }
    if (r < 0 && errno != EINTR) return false;
    if (nowMs() >= deadline) return false;
    usleep(2000);
  }
}

void KillProcess(pid_t pid, int sig) {
  if (pid <= 0) return;
  kill(pid, sig);
  if (sig != SIGKILL) return;
  int raw = 0;
  while (waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
  }
}

EnvList TestEnvironment(const EnvList& extra) {
  EnvList env;
  for (char** e = environ; *e != nullptr; e++) {
    if (strncmp(*e, "ZEL_", 4) == 0) continue;
    const char* eq = strchr(*e, '=');
    if (eq == nullptr) continue;
    env.push_back({std::string(*e, static_cast<size_t>(eq - *e)), std::string(eq + 1)});
  }
  for (const auto& kv : extra) env.push_back(kv);
  return env;
}

std::vector<pid_t> ProcessesUnder(const std::string& dir) {
  std::vector<pid_t> pids;
  DIR* d = opendir("/proc");
  if (d == nullptr) return pids;
  while (dirent* e = readdir(d)) {
    pid_t pid = atoi(e->d_name);
    if (pid <= 0) continue;
    std::string proc = "/proc/" + std::to_string(pid);
    std::string stat = slurp(proc + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z') continue;
    if (slurp(proc + "/environ").find("ZEL_BASE=" + dir) != std::string::npos) pids.push_back(pid);
  }
  closedir(d);
  return pids;
}
