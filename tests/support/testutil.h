// Helpers shared by the tests: temporary directories, files, and running the
// built executables as child processes.
#ifndef TESTS_SUPPORT_TESTUTIL_H
#define TESTS_SUPPORT_TESTUTIL_H

#include <sys/types.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "platform/pfile.h"
#include "support/spawn.h"
#include "zel/zelutils.h"

// While it lives, the file system refuses direct I/O (O_DIRECT), through the
// file-system seam.
class RefuseDirect : public PlatFsOps {
 public:
  RefuseDirect() { old_ = PlatSetFsOps(this); }
  ~RefuseDirect() override { PlatSetFsOps(old_); }
  int setDirect(int fd, bool on) override { return on ? EINVAL : PlatFsOps::setDirect(fd, on); }

 private:
  PlatFsOps* old_;
};

// A fresh directory under /tmp, removed with everything in it on destruction
// (by the process that made it: a forked child leaves it alone).
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
  pid_t owner_;
};

// Removes path and everything under it, without a shell; false when anything stays.
bool RemoveTree(const std::string& path);

void WriteFile(const std::string& path, const std::string& contents);
// The whole file, or "<missing>" when it cannot be read.
std::string ReadFile(const std::string& path);
// n bytes of a pattern that differs with salt and has no short period.
std::string Pattern(size_t n, int salt);
bool PathExists(const std::string& path);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> ListDir(const std::string& path);

struct RunResult {
  int exitStatus = -1;  // exit status, or 128 + signal number
  bool timedOut = false;
  std::string out;
  std::string err;
};

// Runs argv[0] with the arguments, the current environment less ZEL_* plus env,
// no standard input, and a bounded time (then it is killed).
RunResult RunCommand(const std::vector<std::string>& argv, const EnvList& env = {},
                     int timeoutMs = 60000);

// A local interface enumeration that finds 127.0.0.1 only.
inline int OnlyLoopbackAddrs(IpAddrArray* out) {
  IpAddr a;
  IpAddr::parse("127.0.0.1", &a);
  out->push_back(a);
  return 0;
}

// Paths of the built executables.
inline const char* KxzelBin() {
  return KXZEL_BIN;
}
inline const char* KxzelTestBin() {
  return KXZEL_TESTINSTALL_BIN;
}

#endif  // TESTS_SUPPORT_TESTUTIL_H
