#include "support/zeldproc.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/testutil.h"

bool ZeldProcess::start(const EnvList& extra) {
  if (pid_ > 0) return false;
  std::string portFile = dir_ + "/zeld.port";
  unlink(portFile.c_str());
  EnvList env = TestEnvironment(extra);
  env.push_back({"ZEL_BASE", dir_});
  SpawnOptions o;
  o.argv = {bin_, "-P", std::to_string(port_)};
  o.env = env;
  o.stdoutPath = dir_ + "/zeld.log." + std::to_string(++starts_);
  o.stderrToStdout = true;
  pid_ = SpawnProcess(o);
  if (pid_ < 0) return false;
  for (int i = 0; i < 500; i++) {
    std::string p = ReadFile(portFile);
    if (p != "<missing>" && !p.empty() && p.back() == '\n') {
      port_ = atoi(p.c_str());
      return true;
    }
    int status = 0;
    if (WaitProcess(pid_, 0, &status)) {
      pid_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill();
  return false;
}

int ZeldProcess::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  int status = 0;
  if (!WaitProcess(pid_, 20000, &status)) {
    kill();
    return -1;
  }
  pid_ = -1;
  return status;
}

bool ZeldProcess::exited(int ms) {
  int status = 0;
  if (pid_ <= 0) return true;
  if (!WaitProcess(pid_, ms, &status)) return false;
  pid_ = -1;
  return true;
}

void ZeldProcess::kill() {
  if (pid_ <= 0) return;
  KillProcess(pid_, SIGKILL);
  pid_ = -1;
}

std::string ZeldProcess::log() const {
  std::string all;
  for (int i = 1; i <= starts_; i++) all += ReadFile(dir_ + "/zeld.log." + std::to_string(i));
  return all;
}
