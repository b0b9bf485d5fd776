// Several zeld-testinstall nodes on 127.0.0.1 for end-to-end tests. Each node
// has its own directory (ZEL_BASE) under one temporary directory, with the node
// list that names every node; tiebreaker disks are files there too. Nodes are
// started, stopped, killed and restarted as child processes; kxzel-testinstall
// commands run against them. Every wait is bounded, and the destructor kills
// whatever still runs.
//
//   Cluster c(Cluster::Options{3, 1});
//   ASSERT_TRUE(c.startAll());
//   ASSERT_EQ(c.init().exitStatus, 0);
//   RunResult r = c.kxzel({"vput", "k", "v"});
#ifndef TESTS_SUPPORT_CLUSTER_H
#define TESTS_SUPPORT_CLUSTER_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/testutil.h"

class Cluster {
 public:
  struct Options {
    int nodes = 3;
    int disks = 0;                      // tiebreaker disk files
    unsigned long long clusterId = 77;  // given to "init"
    int startTimeoutMs = 10000;         // until a node accepts on its port
    int stopTimeoutMs = 10000;          // after SIGTERM, before SIGKILL
    std::string debugLevel;             // ZEL_DEBUG for the nodes when not empty
    std::string bin;                    // the server to run; empty: ZeldBin()
  };

  // Whether this build has a zeld-testinstall to run.
  static bool Available();
  // The test stand-in that only listens (for tests of this harness).
  static const char* StandInBin();
  static const char* ZeldBin();

  explicit Cluster(const Options& o);
  ~Cluster();
  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  int size() const { return static_cast<int>(nodes_.size()); }
  int port(int i) const { return nodes_[i].port; }
  int nodeId(int i) const { return i + 1; }
  const std::string& dir(int i) const { return nodes_[i].dir; }
  std::string clientDir() const { return tmp_.file("client"); }
  std::string diskPath(int k) const;
  std::string location(int i) const;  // "127.0.0.1:port"
  std::string nodeWords() const;      // every location, comma-separated, for -n
  std::string diskWords() const;      // every disk path, comma-separated, for -d
  // The node's standard output and error, over all its runs.
  std::string log(int i) const { return ReadFile(nodes_[i].dir + "/zeld.log"); }

  // Starts the node and waits until it accepts on its port; false when it does
  // not within the time-out (or exits): it is then killed.
  bool start(int i);
  bool startAll();
  // SIGTERM, a bounded wait, then SIGKILL. The exit status (128 + signal when
  // killed by one), or -1 when the node was not running.
  int stop(int i);
  void kill9(int i);
  // Extra environment for node i from its next start (test switches).
  void setEnv(int i, const EnvList& env) { nodes_[i].env = env; }
  bool restart(int i);
  bool running(int i);

  // kxzel-testinstall with ZEL_BASE of the client directory (or of node
  // viaNode, with ZEL_PORT of that node), output captured, time bounded.
  RunResult kxzel(const std::vector<std::string>& args, int viaNode = -1,
                  int timeoutMs = 60000) const;
  // "init" of every node, with the disks when there are any.
  RunResult init() const;

 private:
  struct Node {
    std::string dir;
    int port = 0;
    pid_t pid = -1;
    EnvList env;
  };
  void reap(int i, int* status);

  Options opt_;
  TempDir tmp_;
  std::vector<Node> nodes_;
};

// A port on 127.0.0.1 that nothing listened on a moment ago.
int PickFreePort();

#endif  // TESTS_SUPPORT_CLUSTER_H
