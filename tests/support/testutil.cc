#include "testutil.h"

#include <dirent.h>
#include <fcntl.h>
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
  TempDir out;
  std::vector<std::string> envStrings, argCopy = argv;
  for (char** e = environ; *e != nullptr; e++) {
    if (strncmp(*e, "ZEL_", 4) != 0) envStrings.push_back(*e);
  }
  for (const auto& kv : env) envStrings.push_back(kv.first + "=" + kv.second);
  std::vector<char*> envp, args;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  for (auto& s : argCopy) args.push_back(&s[0]);
  envp.push_back(nullptr);
  args.push_back(nullptr);

  pid_t pid = fork();
  if (pid == 0) {
    // The output goes to files, so a child never blocks on a full pipe.
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(out.file("out").c_str(), O_WRONLY | O_CREAT, 0600), 1);
    dup2(open(out.file("err").c_str(), O_WRONLY | O_CREAT, 0600), 2);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  int status = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      r.timedOut = true;
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    usleep(2000);
  }
  r.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  r.out = ReadFile(out.file("out"));
  r.err = ReadFile(out.file("err"));
  return r;
}
