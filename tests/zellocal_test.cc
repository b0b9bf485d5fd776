// zel-local's own logic: its command line, its configuration file, the export
// line, ports and log tails. The whole tool against real servers is in
// tests/serial/zellocal_e2e_test.cc.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "gtest/gtest.h"
#include "local/zellocal.h"
#include "support/testutil.h"

namespace zellocal {
namespace {

Command Parse(std::vector<std::string> words, bool* ok, std::string* err) {
  words.insert(words.begin(), "zel-local");
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  Command c;
  *ok = ParseCommand(static_cast<int>(argv.size()), argv.data(), &c, err);
  return c;
}

TEST(ZelLocalCommandLine, AcceptsEachCommandWithItsArguments) {
  struct Case {
    std::vector<std::string> words;
    std::string verb, dir;
    int node, nodes, disks;
  } cases[] = {
      {{"up", "/tmp/r"}, "up", "/tmp/r", 0, 3, 1},
      {{"up", "r", "-n", "1", "-d", "0"}, "up", "r", 0, 1, 0},
      {{"up", "-n", "8", "r", "-d", "8"}, "up", "r", 0, 8, 8},
      {{"status", "r"}, "status", "r", 0, 3, 1},
      {{"stop", "r", "2"}, "stop", "r", 2, 3, 1},
      {{"start", "r", "12"}, "start", "r", 12, 3, 1},
      {{"down", "r"}, "down", "r", 0, 3, 1},
      {{"add", "r"}, "add", "r", 0, 3, 1},
  };
  for (const Case& k : cases) {
    bool ok = false;
    std::string err;
    Command c = Parse(k.words, &ok, &err);
    ASSERT_TRUE(ok) << k.words[0] << ": " << err;
    EXPECT_EQ(std::make_tuple(c.verb, c.dir, c.node, c.nodes, c.disks),
              std::make_tuple(k.verb, k.dir, k.node, k.nodes, k.disks))
        << k.words[0];
  }
}

TEST(ZelLocalCommandLine, RefusesWithAReason) {
  struct Case {
    std::vector<std::string> words;
    std::string err;
  } cases[] = {
      {{}, "no command"},
      {{"launch", "r"}, "unknown command 'launch'"},
      {{"up"}, "missing arguments"},
      {{"up", "a", "b"}, "too many arguments"},
      {{"stop", "r"}, "missing arguments"},
      {{"stop", "r", "0"}, "bad node id '0'"},
      {{"stop", "r", "1x"}, "bad node id '1x'"},
      {{"start", "r", "-1"}, "unknown option '-1'"},
      {{"up", "r", "-n"}, "option -n needs a value"},
      {{"up", "r", "-n", "0"}, "-n takes a node count from 1 to 8"},
      {{"up", "r", "-n", "9"}, "-n takes a node count from 1 to 8"},
      {{"up", "r", "-n", "99999999999999"}, "-n takes a node count from 1 to 8"},
      {{"up", "r", "-d", "9"}, "-d takes a disk count from 0 to 8"},
      {{"up", "r", "-d", ""}, "-d takes a disk count from 0 to 8"},
      {{"down", "r", "-n", "2"}, "-n and -d belong to up"},
      {{"add", "r", "2"}, "too many arguments"},
      {{"up", "r", "-x"}, "unknown option '-x'"},
      {{"up", ""}, "empty directory name"},
  };
  for (const Case& k : cases) {
    bool ok = true;
    std::string err;
    Parse(k.words, &ok, &err);
    EXPECT_FALSE(ok) << k.err;
    EXPECT_EQ(err, k.err);
  }
}

TEST(ZelLocalLayout, RoundTripsThroughItsFile) {
  Layout l;
  l.disks = 2;
  l.nodes = {{1, 40001}, {2, 40002}, {5, 1191}};
  Layout back;
  std::string err;
  ASSERT_TRUE(ParseLayout(FormatLayout(l), &back, &err)) << err;
  EXPECT_EQ(back.disks, 2);
  ASSERT_EQ(back.nodes.size(), 3u);
  for (size_t i = 0; i < 3; i++) {
    EXPECT_EQ(back.nodes[i].id, l.nodes[i].id);
    EXPECT_EQ(back.nodes[i].port, l.nodes[i].port);
  }
  EXPECT_EQ(back.find(5)->port, 1191);
  EXPECT_EQ(back.find(3), nullptr);
}

TEST(ZelLocalLayout, RefusesDamagedFiles) {
  struct Case {
    const char* text;
    const char* err;
  } cases[] = {
      {"", "no node or no disk count"},
      {"disks 1\n", "no node or no disk count"},
      {"node 1 4000\n", "no node or no disk count"},
      {"disks 1\ndisks 1\nnode 1 4000\n", "line 2: bad disk count 'disks 1'"},
      {"disks 9\nnode 1 4000\n", "line 1: bad disk count 'disks 9'"},
      {"disks -1\nnode 1 4000\n", "line 1: bad disk count 'disks -1'"},
      {"disks 1\nnode 0 4000\n", "line 2: bad node line 'node 0 4000'"},
      {"disks 1\nnode 1 65536\n", "line 2: bad node line 'node 1 65536'"},
      {"disks 1\nnode 1\n", "line 2: bad node line 'node 1'"},
      {"disks 1\nnode 1 4000 x\n", "line 2: unknown line 'node 1 4000 x'"},
      {"disks 1\nnode 1 4000\nnode 1 4001\n", "line 3: node id or port given twice"},
      {"disks 1\nnode 1 4000\nnode 2 4000\n", "line 3: node id or port given twice"},
      {"disks 1\nnodes 1 4000\n", "line 2: unknown line 'nodes 1 4000'"},
      {"disks 1\n\x01\xff\n", "line 2: unknown line '\x01\xff'"},
  };
  for (const Case& k : cases) {
    Layout l;
    std::string err;
    EXPECT_FALSE(ParseLayout(k.text, &l, &err)) << k.text;
    EXPECT_EQ(err, k.err) << k.text;
  }
  std::string many = "disks 0\n";
  for (int i = 1; i <= 17; i++)
    many += "node " + std::to_string(i) + " " + std::to_string(4000 + i) + "\n";
  Layout l;
  std::string err;
  EXPECT_FALSE(ParseLayout(many, &l, &err));
  EXPECT_EQ(err, "line 18: too many nodes");
}

TEST(ZelLocalExport, QuotesDirectoriesTheShellWouldSplit) {
  Layout l;
  l.nodes = {{1, 40001}};
  struct Case {
    const char* dir;
    const char* line;
  } cases[] = {
      {"/tmp/r", "export ZEL_BASE=/tmp/r/client ZEL_PORT=40001"},
      {"/tmp/a b", "export ZEL_BASE='/tmp/a b/client' ZEL_PORT=40001"},
      {"/tmp/it's", "export ZEL_BASE='/tmp/it'\\''s/client' ZEL_PORT=40001"},
      {"/tmp/$HOME", "export ZEL_BASE='/tmp/$HOME/client' ZEL_PORT=40001"},
  };
  for (const Case& k : cases) {
    l.dir = k.dir;
    EXPECT_EQ(ExportLine(l), k.line);
    // The shell reads the quoted word back as the directory.
    RunResult r = ::RunCommand({"/bin/sh", "-c", ExportLine(l) + "; printf %s \"$ZEL_BASE\""});
    EXPECT_EQ(r.out, std::string(k.dir) + "/client");
  }
}

TEST(ZelLocalFiles, TailKeepsTheLastLines) {
  TempDir d;
  struct Case {
    const char* text;
    int n;
    const char* tail;
  } cases[] = {
      {"a\nb\nc\n", 2, "b\nc\n"}, {"a\nb\nc", 2, "b\nc"}, {"a\nb\n", 5, "a\nb\n"}, {"", 3, ""},
      {"only\n", 1, "only\n"},
  };
  for (const Case& k : cases) {
    WriteFile(d.file("log"), k.text);
    EXPECT_EQ(TailOfFile(d.file("log"), k.n), k.tail) << k.text;
  }
  EXPECT_EQ(TailOfFile(d.file("absent"), 3), "");
}

TEST(ZelLocalPorts, PicksDistinctFreePortsAndSeesThemTaken) {
  std::vector<int> ports;
  ASSERT_TRUE(PickPorts(6, &ports));
  EXPECT_EQ(std::set<int>(ports.begin(), ports.end()).size(), 6u);
  int port = ports[0];
  EXPECT_TRUE(PortFree(port));
  EXPECT_FALSE(PortAccepts(port));

  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = htons(static_cast<uint16_t>(port));
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
  ASSERT_EQ(listen(fd, 4), 0);
  EXPECT_FALSE(PortFree(port));
  EXPECT_TRUE(PortAccepts(port));
  close(fd);
}

TEST(ZelLocalProcesses, CapturesOutputAndBoundsTheWait) {
  std::string out;
  int status = 0;
  ASSERT_EQ(RunCapture("/bin/sh", {"sh", "-c", "echo out; echo err >&2; exit 7"}, EnvWith({}, {}),
                       10000, &out, &status),
            0);
  EXPECT_EQ(status, 7);
  EXPECT_EQ(out, "out\nerr\n");

  ASSERT_EQ(RunCapture("/bin/sh", {"sh", "-c", "printf %s \"$ZEL_BASE\""},
                       EnvWith({"ZEL_BASE"}, {"ZEL_BASE=/x"}), 10000, &out, &status),
            0);
  EXPECT_EQ(out, "/x");

  // A command that never ends is killed at the bound.
  ASSERT_EQ(RunCapture("/bin/sleep", {"sleep", "30"}, EnvWith({}, {}), 200, &out, &status), 0);
  EXPECT_EQ(status, -1);

  EXPECT_NE(RunCapture("/nonexistent/tool", {"tool"}, EnvWith({}, {}), 1000, &out, &status), 0);
}

TEST(ZelLocalProcesses, KnowsItsOwnNodesOnly) {
  // A process that is not a zeld-testinstall is never taken for a node, so a
  // recycled pid in a stale pid file is left alone.
  pid_t pid = -1;
  TempDir d;
  ASSERT_EQ(SpawnDetached("/bin/sleep", {"sleep", "30"}, EnvWith({}, {"ZEL_BASE=" + d.path()}),
                          d.file("log"), &pid),
            0);
  EXPECT_FALSE(IsNodeProcess(pid, d.path()));
  EXPECT_FALSE(IsNodeProcess(999999999, d.path()));
  EXPECT_TRUE(StopProcess(pid, 2000));
  EXPECT_TRUE(StopProcess(pid, 2000));  // already gone
}

}  // namespace
}  // namespace zellocal
