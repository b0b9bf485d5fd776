#include "cluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

bool connects(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
  ::close(fd);
  return ok;
}

// The environment less ZEL_* plus env.
std::vector<std::string> childEnv(const EnvList& env) {
  std::vector<std::string> out;
  for (char** e = environ; *e != nullptr; e++)
    if (strncmp(*e, "ZEL_", 4) != 0) out.push_back(*e);
  for (const auto& kv : env) out.push_back(kv.first + "=" + kv.second);
  return out;
}

// Starts argv with standard input from /dev/null and both outputs appended to
// logPath; everything is prepared before the child exists. -1 on failure.
pid_t spawnLogged(const std::vector<std::string>& argv, const EnvList& env,
                  const std::string& logPath) {
  std::vector<std::string> envStrings = childEnv(env), args = argv;
  std::vector<char*> envp, argp;
  for (auto& s : envStrings) envp.push_back(&s[0]);
  for (auto& s : args) argp.push_back(&s[0]);
  envp.push_back(nullptr);
  argp.push_back(nullptr);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argp[0], &fa, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&fa);
  return rc == 0 ? pid : -1;
}

void makeNodeDirs(const std::string& dir) {
  mkdir(dir.c_str(), 0755);
  mkdir((dir + "/committed").c_str(), 0755);
  mkdir((dir + "/cached").c_str(), 0755);
}

}  // namespace

int PickFreePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  int port = 0;
  if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&sa), len) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0)
    port = ntohs(sa.sin_port);
  if (fd >= 0) ::close(fd);
  return port;
}

bool Cluster::Available() {
  return ZeldBin()[0] != '\0';
}

const char* Cluster::StandInBin() {
  return STANDIN_ZELD_BIN;
}

const char* Cluster::ZeldBin() {
#ifdef ZELD_TESTINSTALL_BIN
  return ZELD_TESTINSTALL_BIN;
#else
  return "";
#endif
}

Cluster::Cluster(const Options& o) : opt_(o) {
  if (opt_.bin.empty()) opt_.bin = ZeldBin();
  nodes_.resize(static_cast<size_t>(o.nodes));
  for (Node& n : nodes_) n.port = PickFreePort();
  // Every node knows every node, as "init" will record them: ids from 1 in
  // order, named by the address as typed.
  std::string list;
  for (int i = 0; i < size(); i++)
    list += std::to_string(nodeId(i)) + ",0,127.0.0.1," + std::to_string(port(i)) + ",127.0.0.1\n";
  for (int i = 0; i < size(); i++) {
    nodes_[i].dir = tmp_.file("node" + std::to_string(i));
    makeNodeDirs(nodes_[i].dir);
    WriteFile(nodes_[i].dir + "/zel.nodes", list);
  }
  makeNodeDirs(clientDir());
}

Cluster::~Cluster() {
  for (int i = 0; i < size(); i++) kill9(i);
}

std::string Cluster::diskPath(int k) const {
  return tmp_.file("disk" + std::to_string(k));
}

std::string Cluster::location(int i) const {
  return "127.0.0.1:" + std::to_string(port(i));
}

std::string Cluster::nodeWords() const {
  std::string s;
  for (int i = 0; i < size(); i++) s += (i ? "," : "") + location(i);
  return s;
}

std::string Cluster::diskWords() const {
  std::string s;
  for (int k = 0; k < opt_.disks; k++) s += (k ? "," : "") + diskPath(k);
  return s;
}

void Cluster::reap(int i, int* status) {
  *status = 0;
  waitpid(nodes_[i].pid, status, 0);
  nodes_[i].pid = -1;
}

bool Cluster::running(int i) {
  Node& n = nodes_[i];
  if (n.pid < 0) return false;
  int status = 0;
  if (waitpid(n.pid, &status, WNOHANG) == 0) return true;
  n.pid = -1;
  return false;
}

bool Cluster::start(int i) {
  if (opt_.bin.empty() || running(i)) return false;
  EnvList env = {{"ZEL_BASE", nodes_[i].dir}};
  if (!opt_.debugLevel.empty()) env.push_back({"ZEL_DEBUG", opt_.debugLevel});
  env.insert(env.end(), nodes_[i].env.begin(), nodes_[i].env.end());
  nodes_[i].pid =
      spawnLogged({opt_.bin, "-P", std::to_string(port(i))}, env, nodes_[i].dir + "/zeld.log");
  if (nodes_[i].pid < 0) return false;
  auto deadline = Clock::now() + std::chrono::milliseconds(opt_.startTimeoutMs);
  while (Clock::now() < deadline) {
    if (!running(i)) return false;
    if (connects(port(i))) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  kill9(i);
  return false;
}

bool Cluster::startAll() {
  bool ok = true;
  for (int i = 0; i < size(); i++) ok = start(i) && ok;
  return ok;
}

int Cluster::stop(int i) {
  if (!running(i)) return -1;
  kill(nodes_[i].pid, SIGTERM);
  auto deadline = Clock::now() + std::chrono::milliseconds(opt_.stopTimeoutMs);
  int status = 0;
  while (Clock::now() < deadline) {
    if (waitpid(nodes_[i].pid, &status, WNOHANG) == nodes_[i].pid) {
      nodes_[i].pid = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(nodes_[i].pid, SIGKILL);
  reap(i, &status);
  return 128 + SIGKILL;
}

void Cluster::kill9(int i) {
  if (nodes_[i].pid < 0) return;
  kill(nodes_[i].pid, SIGKILL);
  int status;
  reap(i, &status);  // a killed child is reaped at once
}

bool Cluster::restart(int i) {
  stop(i);
  return start(i);
}

RunResult Cluster::kxzel(const std::vector<std::string>& args, int viaNode, int timeoutMs) const {
  std::vector<std::string> argv = {KxzelTestBin()};
  argv.insert(argv.end(), args.begin(), args.end());
  EnvList env = {{"ZEL_BASE", viaNode < 0 ? clientDir() : nodes_[viaNode].dir}};
  if (viaNode >= 0) env.push_back({"ZEL_PORT", std::to_string(port(viaNode))});
  return RunCommand(argv, env, timeoutMs);
}

RunResult Cluster::init() const {
  std::vector<std::string> args = {"init", "-c", std::to_string(opt_.clusterId), "-n", nodeWords()};
  if (opt_.disks > 0) {
    args.push_back("-d");
    args.push_back(diskWords());
  }
  return kxzel(args);
}
