// Whole-process time of `kxzel-testinstall vget NAME` against a minimal local
// server whose committed state holds 1,000 values; the client's cached state
// file holds the same state. The median of 200 runs is the counter median_us.
// The executable is found next to the bench directory, or named by KXZEL_BIN.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "zel/kxcomm.h"
#include "zel/kxserve.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

extern char** environ;

namespace {

CommittedState BenchState() {
  CommittedState s;
  s.cfgVersion = 1;
  NodeDescriptor n;
  n.id = 1;
  n.listen = true;
  s.config.nodes.push_back(n);
  s.config.minNodes = 1;
  s.fileList[1] = FileVersion(1, UpdateId(1, 1, 1), 0x1234);
  for (int i = 0; i < 1000; i++) {
    s.valueList["name" + std::to_string(i)] = ValueVersion{i + 1, "value " + std::to_string(i)};
  }
  return s;
}

// Greeting, then "vget" -> "seq_commit" and "eor" -> "eor" until the client
// closes, through the server half of the library as zeld uses it.
void serveConn(int fd, const std::string& commit) {
  ClientGreeting greeting;
  const std::string answer = kxGreetingAnswerBytes(GreetingAnswer());
  if (kxReadClientGreeting(fd, 5000, &greeting) != 0 ||
      kxFullSend(fd, answer.data(), answer.size(), 5000) != 0) {
    return;
  }
  ServerConnection conn(fd, SdrSecInfo(), CommAddr(), nullptr, 5000, 5000);
  int type = 0;
  MsgBody body;
  while (conn.receive(&type, &body) == 0) {
    bool get = type == MSG_TYPE_VGET;
    if (conn.send(get ? REPLY_TYPE_SEQ_COMMIT : REPLY_TYPE_EOR, get ? commit.data() : nullptr,
                  get ? static_cast<int>(commit.size()) : 0) != 0) {
      break;
    }
  }
  conn.release();  // the caller closes it
}

struct Server {
  int lfd = -1;
  int port = 0;
  std::atomic<bool> stop{false};
  std::thread thread;

  explicit Server(const std::string& commit) {
    lfd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    bind(lfd, reinterpret_cast<sockaddr*>(&sa), len);
    listen(lfd, 16);
    getsockname(lfd, reinterpret_cast<sockaddr*>(&sa), &len);
    port = ntohs(sa.sin_port);
    thread = std::thread([this, commit] {
      while (!stop) {
        pollfd p = {lfd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) continue;
        int fd = accept(lfd, nullptr, nullptr);
        if (fd < 0) continue;
        serveConn(fd, commit);
        close(fd);
      }
    });
  }
  ~Server() {
    stop = true;
    thread.join();
    close(lfd);
  }
};

std::string clientPath() {
  if (const char* env = getenv("KXZEL_BIN")) return env;
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  std::string dir(self, n > 0 ? static_cast<size_t>(n) : 0);
  dir = dir.substr(0, dir.rfind('/'));  // bench/
  return dir.substr(0, dir.rfind('/')) + "/kxzel-testinstall";
}

void BM_VgetProcess(benchmark::State& state) {
  const CommittedState committed = BenchState();
  std::string commit(MaxSizeVarUInt + committed.getSize(), '\0');
  char* e = DumpVarUInt(&commit[0], 5, 0);
  e = committed.dump(e);
  commit.resize(static_cast<size_t>(e - commit.data()));
  Server srv(commit);

  char tmpl[] = "/tmp/kxzel-bench-XXXXXX";
  const std::string base = std::string(mkdtemp(tmpl)) + "/repo";
  mkdir(base.c_str(), 0755);
  mkdir((base + "/committed").c_str(), 0755);
  mkdir((base + "/cached").c_str(), 0755);
  std::string nodes = "1,0,127.0.0.1," + std::to_string(srv.port) + ",a\n";
  FILE* f = fopen((base + "/zel.nodes").c_str(), "w");
  fputs(nodes.c_str(), f);
  fclose(f);
  zelPaxosLFDClientPath = base + "/cached/zel.paxos";
  storePFDToFile(5, committed, 0);

  const std::string bin = clientPath(), envBase = "ZEL_BASE=" + base;
  std::vector<char*> env;
  for (char** p = environ; *p != nullptr; p++) {
    if (strncmp(*p, "ZEL_", 4) != 0) env.push_back(*p);
  }
  env.push_back(const_cast<char*>(envBase.c_str()));
  env.push_back(nullptr);
  char* argv[] = {const_cast<char*>(bin.c_str()), const_cast<char*>("vget"),
                  const_cast<char*>("name500"), nullptr};
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
  if (const char* hold = getenv("KXZEL_BENCH_HOLD")) {
    // For profiling by hand: the server and installation stay up this long.
    fprintf(stderr, "ZEL_BASE=%s; server port %d\n", base.c_str(), srv.port);
    sleep(static_cast<unsigned int>(atoi(hold)));
  }
  double cpuUs = 0;
  std::vector<double> runs;
  for (auto _ : state) {
    pid_t pid = 0;
    int status = -1;
    struct rusage ru = {};
    auto start = std::chrono::steady_clock::now();
    if (posix_spawn(&pid, bin.c_str(), &fa, nullptr, argv, env.data()) != 0 ||
        wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("kxzel-testinstall vget failed");
      break;
    }
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(secs);
    runs.push_back(secs * 1e6);
    cpuUs += ru.ru_utime.tv_sec * 1e6 + ru.ru_utime.tv_usec + ru.ru_stime.tv_sec * 1e6 +
             ru.ru_stime.tv_usec;
  }
  if (!runs.empty()) {
    std::sort(runs.begin(), runs.end());
    state.counters["median_us"] = runs[runs.size() / 2];
    // The client's own CPU time (user + system), less sensitive to a busy machine.
    state.counters["client_cpu_us"] = cpuUs / static_cast<double>(runs.size());
  }
  posix_spawn_file_actions_destroy(&fa);
  std::string rm = "/bin/rm -rf '" + base.substr(0, base.rfind('/')) + "'";
  if (system(rm.c_str()) != 0) state.SkipWithError("clean-up failed");
}
BENCHMARK(BM_VgetProcess)->Unit(benchmark::kMicrosecond)->Iterations(200)->UseManualTime();

}  // namespace
