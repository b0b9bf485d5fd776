#include "testutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>

extern char** environ;

TempDir::TempDir() {
  char tmpl[] = "/tmp/kxzel-test-XXXXXX";
  char* p = mkdtemp(tmpl);
  if (p == nullptr) abort();
  path_ = p;
}

TempDir::~TempDir() {
  std::string cmd = "/bin/rm -rf '" + path_ + "'";
  int rc = system(cmd.c_str());
  (void)rc;
}

void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << contents;
}

std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return "<missing>";
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

bool PathExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* d = opendir(path.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    std::string n = e->d_name;
    if (n != "." && n != "..") names.push_back(n);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

RunResult RunCommand(const std::vector<std::string>& argv, const EnvList& env, int timeoutMs) {
  RunResult r;
  int outp[2], errp[2];
  if (pipe(outp) < 0 || pipe(errp) < 0) abort();

  std::vector<std::string> envStrings;
  for (char** e = environ; *e != nullptr; e++) {
    if (strncmp(*e, "ZEL_", 4) != 0) envStrings.push_back(*e);
  }
  for (const auto& kv : env) envStrings.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp, args;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  envp.push_back(nullptr);
  std::vector<std::string> argCopy = argv;
  for (auto& s : argCopy) args.push_back(&s[0]);
  args.push_back(nullptr);

  pid_t pid = fork();
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(outp[1], 1);
    dup2(errp[1], 2);
    close(outp[0]);
    close(errp[0]);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  close(outp[1]);
  close(errp[1]);

  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  struct pollfd fds[2] = {{outp[0], POLLIN, 0}, {errp[0], POLLIN, 0}};
  int open = 2;
  while (open > 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) {
      r.timedOut = true;
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds, 2, static_cast<int>(left)) <= 0) continue;
    for (int i = 0; i < 2; i++) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        (i == 0 ? r.out : r.err).append(buf, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        open--;
      }
    }
  }
  for (auto& f : fds)
    if (f.fd >= 0) close(f.fd);
  int status = 0;
  waitpid(pid, &status, 0);
  r.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return r;
}
