// zel-demo: runs the real kxzel-testinstall against a small repository server
// on the loopback interface, so a newcomer sees the tool do its job without a
// cluster. The server keeps named values in memory and answers the greeting,
// "vget", the "vput" exchange (uid, ok, seq_commit) and "eor".
#include <arpa/inet.h>
#include <ftw.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/miniserver.h"
#include "tests/support/spawn.h"
#include "zel/kxcomm.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

using miniserver::AnswerGreeting;
using miniserver::RecvMsg;
using miniserver::SendMsg;

class DemoServer {
 public:
  DemoServer() {
    lfd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (lfd_ < 0 || bind(lfd_, reinterpret_cast<sockaddr*>(&sa), len) != 0 ||
        listen(lfd_, 8) != 0 || getsockname(lfd_, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
      perror("zel-demo: listen");
      exit(1);
    }
    port_ = ntohs(sa.sin_port);
    state_.cfgVersion = 1;
    NodeDescriptor n;
    n.id = 1;
    n.slot = 0;
    n.listen = true;
    state_.config.nodes.push_back(n);
    state_.config.minNodes = 1;
    thread_ = std::thread([this] { run(); });
  }
  ~DemoServer() {
    stop_ = true;
    thread_.join();
    close(lfd_);
  }
  int port() const { return port_; }

 private:
  void run() {
    while (!stop_) {
      pollfd p = {lfd_, POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      int fd = accept(lfd_, nullptr, nullptr);
      if (fd < 0) continue;
      serve(fd);
      close(fd);
    }
  }

  std::string commit() const {
    std::string b(MaxSizeVarUInt + state_.getSize(), '\0');
    char* e = DumpVarUInt(&b[0], seq_, 0);
    e = state_.dump(e);
    b.resize(static_cast<size_t>(e - b.data()));
    return b;
  }

  // One connection: greeting, then requests until the client closes.
  void serve(int fd) {
    if (!AnswerGreeting(fd)) return;
    int type = 0;
    std::string body;
    while (RecvMsg(fd, &type, &body)) {
      bool ok = true;
      if (type == MSG_TYPE_VGET) {
        ok = SendMsg(fd, REPLY_TYPE_SEQ_COMMIT, commit());
      } else if (type == MSG_TYPE_VPUT) {
        ok = put(fd, body);
      } else if (type == REPLY_TYPE_EOR) {
        ok = SendMsg(fd, REPLY_TYPE_EOR, "");
      } else {
        ok = SendMsg(fd, MSG_TYPE_FAILED, failed(E_UNKNOWN_REQUEST));
      }
      if (!ok) return;
    }
  }

  static std::string failed(int code) {
    char b[MaxSizeVarUInt];
    return std::string(b, DumpVarUInt(b, code, -1));
  }

  // "vput": update id, name, value, condition version, new version.
  bool put(int fd, const std::string& body) {
    const char* p = body.data();
    const char* end = p + body.size();
    UpdateId uid;
    std::string name, value;
    int cond = -1, ver = -1;
    p = uid.load(p, end);
    p = LoadString(p, end, &name);
    p = LoadString(p, end, &value);
    p = LoadVarUInt(p, end, &cond, -1);
    p = LoadVarUInt(p, end, &ver, -1);
    if (p != end) return SendMsg(fd, MSG_TYPE_FAILED, failed(E_BAD_MESSAGE));
    if (uid.isNull()) {
      uid = UpdateId(1, 1, ++nextUid_);
      std::string u(3 * MaxSizeVarUInt, '\0');
      u.resize(static_cast<size_t>(uid.dump(&u[0]) - u.data()));
      int type = 0;
      std::string okBody;
      if (!SendMsg(fd, REPLY_TYPE_UID, u) || !RecvMsg(fd, &type, &okBody) || type != MSG_TYPE_OK)
        return false;
    }
    ProposedUpdate upd(uid, ValueUpdate(name, value), -1);
    int current = state_.getOldVersion(upd);
    if (cond >= 0 && cond != current)
      return SendMsg(fd, MSG_TYPE_FAILED, failed(E_ZEL_VERSION_MISMATCH));
    if (ver >= 0 && ver <= current)
      return SendMsg(fd, MSG_TYPE_FAILED, failed(E_ZEL_INVALID_VERSION));
    upd.version = ver >= 0 ? ver : current + 1;
    state_.apply(upd);
    seq_++;
    return SendMsg(fd, REPLY_TYPE_SEQ_COMMIT, commit());
  }

  int lfd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  CommittedState state_;
  int seq_ = 1;
  int nextUid_ = 0;
};

std::string clientPath() {
  if (const char* env = getenv("KXZEL_BIN")) return env;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, n > 0 ? static_cast<size_t>(n) : 0);
  dir = dir.substr(0, dir.rfind('/'));  // build/tests
  return dir.substr(0, dir.rfind('/')) + "/kxzel-testinstall";
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  return remove(path);
}

// Removes dir and everything in it, links not followed.
bool removeTree(const std::string& dir) {
  return nftw(dir.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS) == 0;
}

// The word as a shell needs it typed: quoted when it holds anything but
// letters, digits and a few safe characters.
std::string shellWord(const std::string& w) {
  if (!w.empty() && w.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                        "0123456789-_./:=,@%+") == std::string::npos) {
    return w;
  }
  std::string q = "'";
  for (char c : w) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// Runs the client with the arguments and shows the command, its output and status.
int runClient(const std::string& bin, const std::string& base,
              const std::vector<std::string>& args) {
  std::string shown = "$ kxzel-testinstall";
  for (const auto& a : args) shown += " " + shellWord(a);
  printf("%s\n", shown.c_str());
  fflush(stdout);
  // The server thread runs: the child is prepared in full and spawned.
  SpawnOptions o;
  o.argv = {bin};
  o.argv.insert(o.argv.end(), args.begin(), args.end());
  o.env = TestEnvironment({{"ZEL_BASE", base}});
  // Messages in order with the listings, even when piped.
  o.keepStdout = o.stderrToStdout = true;
  int rc = 127;
  pid_t pid = SpawnProcess(o);
  if (pid < 0) {
    perror("zel-demo: spawn");
  } else if (!WaitProcess(pid, 30000, &rc)) {
    KillProcess(pid, SIGKILL);
    rc = 128 + SIGKILL;
  }
  printf("[exit status %d]\n\n", rc);
  return rc;
}

}  // namespace

int main() {
  DemoServer server;
  char tmpl[] = "/tmp/zel-demo-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("zel-demo: mkdtemp");
    return 1;
  }
  const std::string base = tmpl;
  mkdir((base + "/committed").c_str(), 0755);
  FILE* f = fopen((base + "/zel.nodes").c_str(), "w");
  if (f == nullptr) return 1;
  fprintf(f, "1,0,127.0.0.1,%d,demo\n", server.port());
  fclose(f);
  printf(
      "A repository server for the demo listens on 127.0.0.1:%d;\n"
      "the test installation is %s (ZEL_BASE).\n\n",
      server.port(), base.c_str());

  const std::string bin = clientPath();
  const std::vector<std::vector<std::string>> steps = {
      {"vput", "greeting", "hello world"},
      {"vput", "answer", "42"},
      {"vget", "greeting"},
      {"vput", "-c", "1", "greeting", "hello again"},
      {"vput", "-c", "1", "greeting", "too late"},
      {"vlist"},
      {"vget", "nosuch"},
  };
  // The two failures are intended: a stale conditional put and an undefined name.
  const int expected[] = {0, 0, 0, 0, 153, 0, 149};
  int wrong = 0;
  for (size_t i = 0; i < steps.size(); i++) {
    if (runClient(bin, base, steps[i]) != expected[i]) wrong++;
  }
  if (!removeTree(base)) fprintf(stderr, "zel-demo: could not remove %s\n", base.c_str());
  printf(wrong == 0 ? "zel-demo: every step ended as expected\n"
                    : "zel-demo: %d step(s) ended unexpectedly\n",
         wrong);
  return wrong == 0 ? 0 : 1;
}
