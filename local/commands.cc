// zel-local's commands: up, add, status, stop, start, down.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "local/zellocal.h"
#include "platform/pclock.h"

namespace zellocal {

namespace {

// Bounds on every wait, generous for a loaded machine.
constexpr long long kNodeReadyMs = 15000;
constexpr long long kStopMs = 10000;
constexpr long long kInitMs = 60000;
constexpr long long kAnswerMs = 30000;
constexpr int kLogTailLines = 15;

__attribute__((format(printf, 1, 2))) void Err(const char* fmt, ...) {
  fputs("zel-local: ", stderr);
  va_list ap;
  va_start(ap, fmt);
  vfprintf(stderr, fmt, ap);
  va_end(ap);
  fputc('\n', stderr);
}

bool IsDir(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool MakeDir(const std::string& p) {
  return mkdir(p.c_str(), 0755) == 0 || (errno == EEXIST && IsDir(p));
}

// mkdir -p.
bool MakeDirs(const std::string& p) {
  for (size_t i = 1; i <= p.size(); i++) {
    if (i == p.size() || p[i] == '/') {
      if (!MakeDir(p.substr(0, i))) return false;
    }
  }
  return true;
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::string tmp = path + ".tmp";
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ok = close(fd) == 0 && ok;
  return ok && rename(tmp.c_str(), path.c_str()) == 0;
}

bool ReadFile(const std::string& path, std::string* out) {
  std::ifstream f(path, std::ios::binary);
  if (!f) return false;
  std::ostringstream ss;
  ss << f.rdbuf();
  *out = ss.str();
  return true;
}

std::string Absolute(const std::string& dir) {
  char buf[PATH_MAX];
  if (realpath(dir.c_str(), buf) != nullptr) return buf;
  return dir;
}

bool LoadLayout(const std::string& dir, Layout* l) {
  std::string abs = Absolute(dir);
  std::string text;
  if (!IsDir(abs)) {
    Err("%s: no such directory", dir.c_str());
    return false;
  }
  l->dir = abs;
  if (!ReadFile(l->confPath(), &text)) {
    Err("%s is not a zel-local repository (no zel-local.conf)", dir.c_str());
    return false;
  }
  std::string why;
  if (!ParseLayout(text, l, &why)) {
    Err("%s: %s", l->confPath().c_str(), why.c_str());
    return false;
  }
  l->dir = abs;
  return true;
}

// The pid in a node's pid file, or -1.
pid_t PidOf(const Layout& l, int id) {
  std::string text;
  if (!ReadFile(l.pidPath(id), &text)) return -1;
  char* end = nullptr;
  long v = strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || v <= 1 || v > INT_MAX) return -1;
  return static_cast<pid_t>(v);
}

// The pid of the node's running server, or -1 when none runs.
pid_t RunningPid(const Layout& l, int id) {
  pid_t pid = PidOf(l, id);
  return pid > 0 && IsNodeProcess(pid, l.nodeDir(id)) ? pid : -1;
}

struct Tools {
  std::string zeld, kxzel;
};

bool FindTools(Tools* t) {
  t->zeld = FindTool("zeld-testinstall");
  t->kxzel = FindTool("kxzel-testinstall");
  if (t->zeld.empty() || t->kxzel.empty()) {
    Err("cannot find %s beside zel-local or on PATH",
        t->zeld.empty() ? "zeld-testinstall" : "kxzel-testinstall");
    return false;
  }
  return true;
}

std::vector<std::string> ClientEnv(const Layout& l) {
  return EnvWith({"ZEL_BASE", "ZEL_PORT"},
                 {"ZEL_BASE=" + l.clientDir(), "ZEL_PORT=" + std::to_string(l.nodes[0].port)});
}

// Starts node id's server and waits until it accepts on its port. On failure the
// message carries the tail of the node's log.
bool StartNode(const Layout& l, const Tools& t, const LocalNode& n, pid_t* started) {
  if (!PortFree(n.port)) {
    Err("port %d of node %d is taken by another process", n.port, n.id);
    return false;
  }
  std::string base = l.nodeDir(n.id);
  if (!MakeDir(base) || !MakeDir(base + "/committed")) {
    Err("cannot create %s: %s", base.c_str(), strerror(errno));
    return false;
  }
  pid_t pid = -1;
  std::vector<std::string> env = EnvWith({"ZEL_BASE", "ZEL_PORT"}, {"ZEL_BASE=" + base});
  int rc =
      SpawnDetached(t.zeld, {t.zeld, "-P", std::to_string(n.port)}, env, l.logPath(n.id), &pid);
  if (rc != 0) {
    Err("cannot start %s: %s", t.zeld.c_str(), strerror(rc));
    return false;
  }
  *started = pid;
  if (!WriteFile(l.pidPath(n.id), std::to_string(pid) + "\n")) {
    Err("cannot write %s", l.pidPath(n.id).c_str());
    StopProcess(pid, kStopMs);
    return false;
  }
  long long deadline = PlatNowMs() + kNodeReadyMs;
  for (;;) {
    // Our own child: waitpid tells when it has ended (/proc may still show this
    // program for a moment after the spawn).
    int st;
    if (waitpid(pid, &st, WNOHANG) == pid) {
      Err("node %d did not come up; the end of %s:", n.id, l.logPath(n.id).c_str());
      fputs(TailOfFile(l.logPath(n.id), kLogTailLines).c_str(), stderr);
      return false;
    }
    if (PortAccepts(n.port)) break;
    if (PlatNowMs() > deadline) {
      Err("node %d does not accept connections after %lld s; the end of %s:", n.id,
          kNodeReadyMs / 1000, l.logPath(n.id).c_str());
      fputs(TailOfFile(l.logPath(n.id), kLogTailLines).c_str(), stderr);
      StopProcess(pid, kStopMs);
      return false;
    }
    usleep(20000);
  }
  fprintf(stderr, "node %d: 127.0.0.1:%d (pid %d)\n", n.id, n.port, static_cast<int>(pid));
  return true;
}

// Stops node id when it runs; true when nothing of it runs afterwards.
bool StopNode(const Layout& l, int id, bool quiet) {
  pid_t pid = RunningPid(l, id);
  if (pid < 0) {
    unlink(l.pidPath(id).c_str());
    if (!quiet) fprintf(stderr, "node %d is not running\n", id);
    return true;
  }
  if (!StopProcess(pid, kStopMs)) {
    Err("node %d (pid %d) does not stop", id, static_cast<int>(pid));
    return false;
  }
  unlink(l.pidPath(id).c_str());
  fprintf(stderr, "node %d stopped\n", id);
  return true;
}

// Every node is told to stop before any is waited for: a node finishing a
// request to a peer ends sooner when that peer goes too, and the wait is the
// slowest node's rather than the sum.
bool StopAll(const Layout& l) {
  for (const LocalNode& n : l.nodes) {
    pid_t pid = RunningPid(l, n.id);
    if (pid > 0) kill(pid, SIGTERM);
  }
  bool ok = true;
  for (const LocalNode& n : l.nodes) ok = StopNode(l, n.id, true) && ok;
  return ok;
}

// Undoes a failed up: stops the servers it started, by the pids it holds.
void StopStarted(const Layout& l, const std::vector<pid_t>& pids) {
  for (pid_t pid : pids) StopProcess(pid, kStopMs);
  for (const LocalNode& n : l.nodes) unlink(l.pidPath(n.id).c_str());
}

void ShowRun(const std::string& what, int status, const std::string& out) {
  std::string how = status < 0 ? "no end in time" : "exit status " + std::to_string(status);
  Err("%s failed (%s); its output:", what.c_str(), how.c_str());
  fputs(out.c_str(), stderr);
}

// Runs kxzel-testinstall with args until it exits 0 or the time is up.
bool WaitForAnswer(const Layout& l, const Tools& t, const std::vector<std::string>& args) {
  long long deadline = PlatNowMs() + kAnswerMs;
  std::string out;
  int status = -1;
  for (;;) {
    long long left = deadline - PlatNowMs();
    if (left <= 0) break;
    std::vector<std::string> av = {t.kxzel};
    av.insert(av.end(), args.begin(), args.end());
    if (RunCapture(t.kxzel, av, ClientEnv(l), left, &out, &status) == 0 && status == 0) return true;
    usleep(100000);
  }
  ShowRun("kxzel-testinstall " + args[0], status, out);
  return false;
}

}  // namespace

int CmdUp(const Command& c) {
  Tools t;
  if (!FindTools(&t)) return 1;
  if (!MakeDirs(c.dir)) {
    Err("cannot create %s: %s", c.dir.c_str(), strerror(errno));
    return 1;
  }
  Layout l;
  l.dir = Absolute(c.dir);
  std::string text;
  if (ReadFile(l.confPath(), &text)) {
    Layout old;
    std::string why;
    if (ParseLayout(text, &old, &why)) {
      old.dir = l.dir;
      for (const LocalNode& n : old.nodes) {
        pid_t pid = RunningPid(old, n.id);
        if (pid > 0) {
          Err("%s is in use: node %d runs (pid %d); zel-local down it first", c.dir.c_str(), n.id,
              static_cast<int>(pid));
          return 1;
        }
      }
    }
    Err("%s already holds a repository: use zel-local start, or remove it", c.dir.c_str());
    return 1;
  }
  if (DIR* d = opendir(l.dir.c_str())) {
    int entries = 0;
    while (struct dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) entries++;
    }
    closedir(d);
    if (entries > 0) {
      Err("%s is in use: it is not empty", c.dir.c_str());
      return 1;
    }
  }

  std::vector<int> ports;
  if (!PickPorts(c.nodes, &ports)) {
    Err("cannot find free ports on 127.0.0.1: %s", strerror(errno));
    return 1;
  }
  for (int i = 0; i < c.nodes; i++) l.nodes.push_back({i + 1, ports[static_cast<size_t>(i)]});
  l.disks = c.disks;
  std::string client = l.clientDir();
  if (!MakeDir(client) || !MakeDir(client + "/committed") || !MakeDir(client + "/cached") ||
      (c.disks > 0 && !MakeDir(l.dir + "/disks"))) {
    Err("cannot create the directories under %s: %s", c.dir.c_str(), strerror(errno));
    return 1;
  }
  for (int k = 1; k <= c.disks; k++) {
    int fd = open(l.diskPath(k).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
      Err("cannot create %s: %s", l.diskPath(k).c_str(), strerror(errno));
      return 1;
    }
    close(fd);
  }
  if (!WriteFile(l.confPath(), FormatLayout(l))) {
    Err("cannot write %s: %s", l.confPath().c_str(), strerror(errno));
    return 1;
  }
  std::vector<pid_t> started;
  for (const LocalNode& n : l.nodes) {
    pid_t pid = -1;
    bool ok = StartNode(l, t, n, &pid);
    if (pid > 0) started.push_back(pid);
    if (!ok) {
      StopStarted(l, started);
      return 1;
    }
  }

  std::string nodeList, diskList;
  for (const LocalNode& n : l.nodes) {
    nodeList += (nodeList.empty() ? "" : ",") + std::string("127.0.0.1:") + std::to_string(n.port);
  }
  for (int k = 1; k <= l.disks; k++) diskList += (k > 1 ? "," : "") + l.diskPath(k);
  // A cluster id of its own, so that nodes of two local repositories never mix.
  unsigned long long cid =
      (static_cast<unsigned long long>(time(nullptr)) << 16 ^ static_cast<unsigned>(getpid())) | 1;
  std::vector<std::string> init = {t.kxzel, "init", "-c", std::to_string(cid), "-n", nodeList};
  if (!diskList.empty()) {
    init.push_back("-d");
    init.push_back(diskList);
  }
  std::string out;
  int status = -1;
  int rc = RunCapture(t.kxzel, init, ClientEnv(l), kInitMs, &out, &status);
  if (rc != 0 || status != 0) {
    if (rc != 0) Err("cannot run %s: %s", t.kxzel.c_str(), strerror(rc));
    if (rc == 0) ShowRun("kxzel-testinstall init", status, out);
    StopStarted(l, started);
    return 1;
  }
  if (!WaitForAnswer(l, t, {"vlist"})) {
    StopStarted(l, started);
    return 1;
  }
  fprintf(stderr, "repository up: %d node(s), %d tiebreaker disk(s), cluster id %llu\n", c.nodes,
          c.disks, cid);
  printf("%s\n", ExportLine(l).c_str());
  return 0;
}

int CmdAdd(const Command& c) {
  Layout l;
  if (!LoadLayout(c.dir, &l)) return 1;
  if (static_cast<int>(l.nodes.size()) >= kMaxNodes) {
    Err("%s already has %d nodes, the most a repository takes", c.dir.c_str(), kMaxNodes);
    return 1;
  }
  Tools t;
  if (!FindTools(&t)) return 1;
  LocalNode n;
  for (const LocalNode& o : l.nodes) n.id = std::max(n.id, o.id);
  n.id++;
  if (access(l.nodeDir(n.id).c_str(), F_OK) == 0) {
    Err("%s is in the way: it is not a node of zel-local.conf; remove it first",
        l.nodeDir(n.id).c_str());
    return 1;
  }
  // A stopped node's port is free now but stays that node's.
  for (int tries = 0; tries < 20 && n.port == 0; tries++) {
    std::vector<int> ports;
    if (!PickPorts(1, &ports)) {
      Err("cannot find a free port on 127.0.0.1: %s", strerror(errno));
      return 1;
    }
    n.port = ports[0];
    for (const LocalNode& o : l.nodes) {
      if (o.port == n.port) n.port = 0;
    }
  }
  if (n.port == 0) {
    Err("cannot find a free port on 127.0.0.1 that no node of %s uses", c.dir.c_str());
    return 1;
  }
  // Recorded before it starts, so that stop and down find it whatever happens next.
  Layout grown = l;
  grown.nodes.push_back(n);
  if (!WriteFile(l.confPath(), FormatLayout(grown))) {
    Err("cannot write %s: %s", l.confPath().c_str(), strerror(errno));
    return 1;
  }
  pid_t pid = -1;
  if (!StartNode(grown, t, n, &pid)) {
    // StartNode has stopped or reaped whatever it started.
    unlink(grown.pidPath(n.id).c_str());
    rmdir((grown.nodeDir(n.id) + "/committed").c_str());
    rmdir(grown.nodeDir(n.id).c_str());
    if (!WriteFile(l.confPath(), FormatLayout(l))) {
      Err("cannot write %s: %s", l.confPath().c_str(), strerror(errno));
    }
    return 1;
  }
  std::string all;
  for (const LocalNode& o : grown.nodes) {
    all += (all.empty() ? "" : ",") + std::string("127.0.0.1:") + std::to_string(o.port);
  }
  fprintf(stderr,
          "node %d runs, not yet initialised; chnodes makes it a quorum node, for example:\n"
          "  kxzel-testinstall chnodes -n %s\n",
          n.id, all.c_str());
  printf("127.0.0.1:%d\n", n.port);
  return 0;
}

int CmdStatus(const Command& c) {
  Layout l;
  if (!LoadLayout(c.dir, &l)) return 1;
  int down = 0;
  printf("node  port   pid      state  directory\n");
  for (const LocalNode& n : l.nodes) {
    pid_t pid = RunningPid(l, n.id);
    const char* state = pid < 0 ? "down" : PortAccepts(n.port) ? "up" : "starting";
    if (pid < 0) down++;
    printf("%4d  %-5d  %-7s  %-5s  %s\n", n.id, n.port, pid < 0 ? "-" : std::to_string(pid).c_str(),
           state, l.nodeDir(n.id).c_str());
  }
  for (int k = 1; k <= l.disks; k++) printf("disk %d  %s\n", k, l.diskPath(k).c_str());
  printf("%s\n", ExportLine(l).c_str());
  return down == 0 ? 0 : 3;
}

int CmdStop(const Command& c) {
  Layout l;
  if (!LoadLayout(c.dir, &l)) return 1;
  if (l.find(c.node) == nullptr) {
    Err("%s has no node %d", c.dir.c_str(), c.node);
    return 1;
  }
  return StopNode(l, c.node, false) ? 0 : 1;
}

int CmdStart(const Command& c) {
  Layout l;
  if (!LoadLayout(c.dir, &l)) return 1;
  const LocalNode* n = l.find(c.node);
  if (n == nullptr) {
    Err("%s has no node %d", c.dir.c_str(), c.node);
    return 1;
  }
  pid_t pid = RunningPid(l, c.node);
  if (pid > 0) {
    Err("node %d is already running (pid %d)", c.node, static_cast<int>(pid));
    return 1;
  }
  Tools t;
  if (!FindTools(&t)) return 1;
  pid_t started = -1;
  return StartNode(l, t, *n, &started) ? 0 : 1;
}

int CmdDown(const Command& c) {
  Layout l;
  if (!LoadLayout(c.dir, &l)) return 1;
  return StopAll(l) ? 0 : 1;
}

int RunCommand(const Command& c) {
  if (c.verb == "up") return CmdUp(c);
  if (c.verb == "add") return CmdAdd(c);
  if (c.verb == "status") return CmdStatus(c);
  if (c.verb == "stop") return CmdStop(c);
  if (c.verb == "start") return CmdStart(c);
  if (c.verb == "down") return CmdDown(c);
  return 1;
}

}  // namespace zellocal
