// Processes and ports for zel-local: spawning with everything prepared
// (posix_spawn), finding its own nodes again, stopping them.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "local/zellocal.h"
#include "platform/pclock.h"

extern char** environ;

namespace zellocal {

namespace {

std::vector<char*> Argv(const std::vector<std::string>& v) {
  std::vector<char*> out;
  for (const std::string& s : v) out.push_back(const_cast<char*>(s.c_str()));
  out.push_back(nullptr);
  return out;
}

bool ReadWhole(const std::string& path, std::string* out) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  std::ostringstream ss;
  ss << f.rdbuf();
  *out = ss.str();
  return true;
}

// A process that exists and is not a zombie. Reaps it when it is our own child.
bool Alive(pid_t pid) {
  if (pid <= 0) return false;
  int st;
  if (waitpid(pid, &st, WNOHANG) == pid) return false;
  if (kill(pid, 0) != 0 && errno == ESRCH) return false;
  std::string stat;
  if (!ReadWhole("/proc/" + std::to_string(pid) + "/stat", &stat)) return false;
  size_t close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  char state = stat[close + 2];
  return state != 'Z' && state != 'X';
}

int SpawnWith(const std::string& path, const std::vector<std::string>& args,
              const std::vector<std::string>& env, posix_spawn_file_actions_t* fa, bool setsid,
              pid_t* pid) {
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
  if (setsid) flags |= POSIX_SPAWN_SETSID;
  posix_spawnattr_setflags(&attr, flags);
  std::vector<char*> av = Argv(args);
  std::vector<char*> ev = Argv(env);
  int rc = posix_spawn(pid, path.c_str(), fa, &attr, av.data(), ev.data());
  posix_spawnattr_destroy(&attr);
  return rc;
}

}  // namespace

std::vector<std::string> EnvWith(const std::vector<std::string>& drop,
                                 const std::vector<std::string>& add) {
  std::vector<std::string> out;
  for (char** e = environ; e != nullptr && *e != nullptr; e++) {
    std::string entry = *e;
    bool dropped = false;
    for (const std::string& name : drop) {
      if (entry.compare(0, name.size() + 1, name + "=") == 0) dropped = true;
    }
    if (!dropped) out.push_back(entry);
  }
  out.insert(out.end(), add.begin(), add.end());
  return out;
}

int SpawnDetached(const std::string& path, const std::vector<std::string>& args,
                  const std::vector<std::string>& env, const std::string& logPath, pid_t* pid) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  int rc = SpawnWith(path, args, env, &fa, true, pid);
  posix_spawn_file_actions_destroy(&fa);
  return rc;
}

int RunCapture(const std::string& path, const std::vector<std::string>& args,
               const std::vector<std::string>& env, long long timeoutMs, std::string* out,
               int* status) {
  out->clear();
  *status = -1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return errno;
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
  posix_spawn_file_actions_adddup2(&fa, fds[1], 2);
  pid_t pid = -1;
  int rc = SpawnWith(path, args, env, &fa, false, &pid);
  posix_spawn_file_actions_destroy(&fa);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    return rc;
  }
  long long deadline = PlatNowMs() + timeoutMs;
  bool killed = false;
  for (;;) {
    long long left = deadline - PlatNowMs();
    if (left <= 0) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    pollfd p = {fds[0], POLLIN, 0};
    int n = poll(&p, 1, static_cast<int>(left < 1000 ? left : 1000));
    if (n < 0 && errno != EINTR) break;
    if (n <= 0) continue;
    char buf[4096];
    ssize_t got = read(fds[0], buf, sizeof buf);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;  // every writer has closed: the command has ended
    out->append(buf, static_cast<size_t>(got));
  }
  close(fds[0]);
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  if (!killed && WIFEXITED(st)) *status = WEXITSTATUS(st);
  return 0;
}

bool IsNodeProcess(pid_t pid, const std::string& base) {
  if (!Alive(pid)) return false;
  std::string proc = "/proc/" + std::to_string(pid);
  std::string cmdline, env;
  if (!ReadWhole(proc + "/cmdline", &cmdline)) return false;
  std::string argv0 = cmdline.substr(0, cmdline.find('\0'));
  size_t slash = argv0.rfind('/');
  if (argv0.substr(slash == std::string::npos ? 0 : slash + 1) != "zeld-testinstall") return false;
  // A recycled pid could be another user's server: its ZEL_BASE tells them apart.
  if (!ReadWhole(proc + "/environ", &env)) return true;
  std::string want = "ZEL_BASE=" + base;
  size_t start = 0;
  while (start < env.size()) {
    size_t end = env.find('\0', start);
    if (end == std::string::npos) end = env.size();
    if (env.compare(start, end - start, want) == 0) return true;
    start = end + 1;
  }
  return false;
}

namespace {

sockaddr_in Loopback(int port) {
  sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = htons(static_cast<uint16_t>(port));
  return sa;
}

}  // namespace

bool PortAccepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return false;
  sockaddr_in sa = Loopback(port);
  bool ok = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
    ok = true;
  } else if (errno == EINPROGRESS) {
    pollfd p = {fd, POLLOUT, 0};
    int err = 0;
    socklen_t len = sizeof err;
    ok = poll(&p, 1, 500) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0;
  }
  close(fd);
  return ok;
}

bool PortFree(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in sa = Loopback(port);
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 && listen(fd, 1) == 0;
  close(fd);
  return ok;
}

bool PickPorts(int n, std::vector<int>* ports) {
  // Hold every socket until all are bound so that the ports differ.
  std::vector<int> fds;
  bool ok = true;
  ports->clear();
  for (int i = 0; i < n && ok; i++) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = Loopback(0);
    socklen_t len = sizeof sa;
    ok = fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
         getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) == 0;
    if (fd >= 0) fds.push_back(fd);
    if (ok) ports->push_back(ntohs(sa.sin_port));
  }
  for (int fd : fds) close(fd);
  return ok;
}

bool StopProcess(pid_t pid, long long waitMs) {
  if (!Alive(pid)) return true;
  kill(pid, SIGTERM);
  for (int round = 0; round < 2; round++) {
    long long deadline = PlatNowMs() + waitMs;
    while (PlatNowMs() < deadline) {
      if (!Alive(pid)) return true;
      usleep(20000);
    }
    if (round == 0) kill(pid, SIGKILL);
  }
  return !Alive(pid);
}

std::string TailOfFile(const std::string& path, int n) {
  std::string text;
  if (!ReadWhole(path, &text)) return "";
  size_t pos = text.size();
  if (pos > 0 && text[pos - 1] == '\n') pos--;
  for (int lines = 0; pos > 0; pos--) {
    if (text[pos - 1] == '\n' && ++lines == n) break;
  }
  return text.substr(pos);
}

std::string FindTool(const char* name) {
  char self[PATH_MAX];
  ssize_t len = readlink("/proc/self/exe", self, sizeof self - 1);
  if (len > 0) {
    self[len] = '\0';
    std::string dir(self);
    dir = dir.substr(0, dir.rfind('/'));
    std::string p = dir + "/" + name;
    if (access(p.c_str(), X_OK) == 0) return p;
  }
  const char* path = getenv("PATH");
  std::string rest = path != nullptr ? path : "";
  size_t start = 0;
  while (start <= rest.size()) {
    size_t colon = rest.find(':', start);
    if (colon == std::string::npos) colon = rest.size();
    std::string dir = rest.substr(start, colon - start);
    if (!dir.empty()) {
      std::string p = dir + "/" + name;
      if (access(p.c_str(), X_OK) == 0) return p;
    }
    start = colon + 1;
  }
  return "";
}

}  // namespace zellocal
