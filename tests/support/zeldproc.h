// A real zeld-testinstall as a child process: its own repository directory,
// 127.0.0.1, an ephemeral port on first start and the same port on restarts,
// readiness from its port file, every wait bounded, killed at destruction.
#ifndef TESTS_SUPPORT_ZELDPROC_H
#define TESTS_SUPPORT_ZELDPROC_H

#include <sys/types.h>

#include <string>

#include "support/spawn.h"

class ZeldProcess {
 public:
  ZeldProcess(const std::string& zeldBin, const std::string& dir) : bin_(zeldBin), dir_(dir) {}
  ~ZeldProcess() { kill(); }
  ZeldProcess(const ZeldProcess&) = delete;
  ZeldProcess& operator=(const ZeldProcess&) = delete;

  // Starts the server (port 0 on the first start: any free one) and waits up to
  // 10 s until it serves. extra: more environment (test switches).
  bool start(const EnvList& extra = {});
  // SIGTERM and a bounded wait; the exit status, or -1 when it had to be killed.
  int stop();
  void kill();  // SIGKILL, reaped
  // Waits up to ms for the process to end on its own; true (and reaped) when it did.
  bool exited(int ms);
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  const std::string& dir() const { return dir_; }
  std::string log() const;

 private:
  std::string bin_, dir_;
  pid_t pid_ = -1;
  int port_ = 0;
  int starts_ = 0;
};

#endif  // TESTS_SUPPORT_ZELDPROC_H
