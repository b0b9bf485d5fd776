// zel-local: a whole zel repository on this machine (zeld-testinstall nodes on
// 127.0.0.1, tiebreaker disks as files), for trying kxzel and for tests.
//
// Layout under DIR:
//   zel-local.conf      node ids and ports, disk count (written by `up`, `add`)
//   nodeK/              ZEL_BASE of node K; nodeK.log and nodeK.pid beside it
//   disks/diskK         tiebreaker disk files
//   client/             ZEL_BASE of the kxzel-testinstall that `up` prints
#ifndef LOCAL_ZELLOCAL_H
#define LOCAL_ZELLOCAL_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace zellocal {

constexpr int kMaxNodes = 8;
constexpr int kMaxDisks = 8;

struct LocalNode {
  int id = 0;
  int port = 0;
};

struct Layout {
  std::string dir;  // absolute
  int disks = 0;
  std::vector<LocalNode> nodes;

  std::string confPath() const { return dir + "/zel-local.conf"; }
  std::string nodeDir(int id) const { return dir + "/node" + std::to_string(id); }
  std::string logPath(int id) const { return nodeDir(id) + ".log"; }
  std::string pidPath(int id) const { return nodeDir(id) + ".pid"; }
  std::string diskPath(int k) const { return dir + "/disks/disk" + std::to_string(k); }
  std::string clientDir() const { return dir + "/client"; }
  const LocalNode* find(int id) const;
};

// The configuration file's text, and its reader: any malformed text is an error
// naming the line, never a crash.
std::string FormatLayout(const Layout& l);
bool ParseLayout(const std::string& text, Layout* l, std::string* err);

// One command line of zel-local.
struct Command {
  std::string verb;  // up, add, status, stop, start, down
  std::string dir;
  int node = 0;  // stop, start
  int nodes = 3;
  int disks = 1;
};
bool ParseCommand(int argc, char** argv, Command* c, std::string* err);
extern const char kUsage[];

// The line to paste so that plain kxzel-testinstall works against the repository.
std::string ExportLine(const Layout& l);
// Quotes text for a POSIX shell when it needs it.
std::string ShellQuote(const std::string& s);

// The executable NAME beside this program (/proc/self/exe), else on PATH; empty if
// neither has it.
std::string FindTool(const char* name);

// Process helpers (spawn.cc). Nothing runs between fork and exec: posix_spawn does it.
struct Child {
  pid_t pid = -1;
};
// Starts argv[0]=path in a session of its own, stdin from /dev/null, stdout and
// stderr appended to logPath, with env (NAME=VALUE entries) as its environment.
int SpawnDetached(const std::string& path, const std::vector<std::string>& args,
                  const std::vector<std::string>& env, const std::string& logPath, pid_t* pid);
// Runs a command to its end or for at most timeoutMs (then kills it), collecting its
// standard output and error; *status is the exit status, or -1 when it was killed.
int RunCapture(const std::string& path, const std::vector<std::string>& args,
               const std::vector<std::string>& env, long long timeoutMs, std::string* out,
               int* status);
// This process's environment without the given variables, plus the extra entries.
std::vector<std::string> EnvWith(const std::vector<std::string>& drop,
                                 const std::vector<std::string>& add);

// Whether pid is a live (not zombie) zeld-testinstall whose ZEL_BASE is base.
bool IsNodeProcess(pid_t pid, const std::string& base);
// Whether something accepts TCP connections on 127.0.0.1:port.
bool PortAccepts(int port);
// Whether this process could bind 127.0.0.1:port now (as a server would).
bool PortFree(int port);
// Picks n distinct free ports on 127.0.0.1.
bool PickPorts(int n, std::vector<int>* ports);
// Sends SIGTERM, waits up to waitMs, then SIGKILL; true once the process is gone.
bool StopProcess(pid_t pid, long long waitMs);
// The last n lines of a file (empty when it cannot be read).
std::string TailOfFile(const std::string& path, int n);

// The commands. Each prints its own messages and returns the exit status.
int CmdUp(const Command& c);
int CmdAdd(const Command& c);
int CmdStatus(const Command& c);
int CmdStop(const Command& c);
int CmdStart(const Command& c);
int CmdDown(const Command& c);
int RunCommand(const Command& c);

}  // namespace zellocal

#endif  // LOCAL_ZELLOCAL_H
