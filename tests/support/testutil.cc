#include "testutil.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

TempDir::TempDir() : owner_(getpid()) {
  char tmpl[] = "/tmp/kxzel-test-XXXXXX";
  char* p = mkdtemp(tmpl);
  if (p == nullptr) abort();
  path_ = p;
}

TempDir::~TempDir() {
  if (getpid() == owner_) RemoveTree(path_);
}

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  return remove(path) == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace

bool RemoveTree(const std::string& path) {
  // Depth first, without following links: a link is removed, not its target.
  return nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) == 0 || errno == ENOENT;
}

void WriteFile(const std::string& path, const std::string& contents) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << contents;
}

std::string Pattern(size_t n, int salt) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 131 + salt) ^ (i >> 11));
  return s;
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
  // The output goes to files, so a child never blocks on a full pipe.
  SpawnOptions o;
  o.argv = argv;
  o.env = TestEnvironment(env);
  o.stdoutPath = out.file("out");
  o.stderrPath = out.file("err");
  pid_t pid = SpawnProcess(o);
  if (pid < 0) {
    r.exitStatus = 127;
    return r;
  }
  if (!WaitProcess(pid, timeoutMs, &r.exitStatus)) {
    r.timedOut = true;
    KillProcess(pid, SIGKILL);
    r.exitStatus = 128 + SIGKILL;
  }
  r.out = ReadFile(out.file("out"));
  r.err = ReadFile(out.file("err"));
  return r;
}
