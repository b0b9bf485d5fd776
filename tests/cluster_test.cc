// The multi-node harness itself, run over a stand-in server that only listens.
#include "support/cluster.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "local/zellocal.h"

namespace {

Cluster::Options StandIn(int nodes) {
  Cluster::Options o;
  o.nodes = nodes;
  o.disks = 2;
  o.bin = Cluster::StandInBin();
  o.startTimeoutMs = 5000;
  return o;
}

TEST(ClusterTest, NodesFindEachOtherOnLoopback) {
  Cluster c(StandIn(3));
  std::set<int> ports;
  std::string list;
  for (int i = 0; i < c.size(); i++) {
    ports.insert(c.port(i));
    list += std::to_string(i + 1) + ",0,127.0.0.1," + std::to_string(c.port(i)) + ",127.0.0.1\n";
  }
  EXPECT_EQ(ports.size(), 3u);
  EXPECT_EQ(ports.count(0), 0u);
  for (int i = 0; i < c.size(); i++) {
    EXPECT_EQ(ReadFile(c.dir(i) + "/zel.nodes"), list);
    EXPECT_TRUE(PathExists(c.dir(i) + "/committed") && PathExists(c.dir(i) + "/cached"));
  }
  EXPECT_EQ(c.nodeWords(), c.location(0) + "," + c.location(1) + "," + c.location(2));
  EXPECT_EQ(c.diskWords(), c.diskPath(0) + "," + c.diskPath(1));
  EXPECT_EQ(c.location(1), "127.0.0.1:" + std::to_string(c.port(1)));
}

TEST(ClusterTest, StartStopKillRestart) {
  std::set<int> ports;
  {
    Cluster c(StandIn(3));
    ASSERT_TRUE(c.startAll());
    for (int i = 0; i < 3; i++) {
      EXPECT_TRUE(c.running(i) && zellocal::PortAccepts(c.port(i))) << i;
      ports.insert(c.port(i));
    }
    EXPECT_FALSE(c.start(0)) << "already running";
    EXPECT_EQ(c.stop(0), 0) << "SIGTERM ends it cleanly";
    EXPECT_EQ(c.stop(0), -1) << "not running";
    c.kill9(1);
    EXPECT_FALSE(c.running(0) || c.running(1));
    EXPECT_FALSE(zellocal::PortAccepts(c.port(1)));
    ASSERT_TRUE(c.restart(1));
    EXPECT_TRUE(zellocal::PortAccepts(c.port(1)));
    std::string line = "standin port " + std::to_string(c.port(1)) + " base " + c.dir(1) + "\n";
    EXPECT_EQ(c.log(1), line + line) << "the log keeps every run";
  }
  for (int p : ports) EXPECT_FALSE(zellocal::PortAccepts(p)) << "left running on port " << p;
}

TEST(ClusterTest, NodeThatExitsAtOnceDoesNotStart) {
  Cluster c(StandIn(1));
  WriteFile(c.dir(0) + "/standin.exit", "exit 4");
  EXPECT_FALSE(c.start(0));
  EXPECT_FALSE(c.running(0));
}

TEST(ClusterTest, CommandsRunInTheirInstallation) {
  Cluster c(StandIn(2));
  ASSERT_TRUE(c.startAll());
  struct {
    int via;
    std::string base;
  } cases[] = {{-1, c.clientDir()}, {1, c.dir(1)}};
  for (const auto& k : cases) {
    RunResult r = c.kxzel({"dump"}, k.via, 20000);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.out.rfind("zelBaseDir: " + k.base + "\n", 0), 0u) << r.out;
  }
}

}  // namespace
