#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"

namespace {

using CliWireTest = CliFixture;

// Writes a state file with the library's writer, as cluster 77 and node 3.
void StoreFile(const std::string& path, const PaxosFileData& pfd) {
  zelClusterId = 77;
  zelNodeId = 3;
  ASSERT_EQ(pfd.storeToFile(path), 0);
  zelClusterId = 0;
  zelNodeId = -1;
}

std::string HeaderLine(const std::string& file) {
  unsigned int crc = 0;
  LoadUInt32(file.data() + 4, file.data() + file.size(), &crc);
  char line[128];
  snprintf(line, sizeof line,
           "hdr: magic 1FABC4AD, crc %08X, len %zu, fmtVersion 1 cid 77 lastWriterId 3\n", crc,
           file.size());
  return line;
}

TEST_F(CliWireTest, ReadPaxosPrintsTheFile) {
  PaxosFileData pfd;
  pfd.epoch = 2;
  pfd.slotAssignmentVersion = 4;
  PaxosDblockSummary& s = pfd.summary;
  s.seq = 5;
  s.mbal = BallotNumber(5, 1);
  s.bal = BallotNumber(3, 2);
  s.inp = ProposedUpdate(UpdateId(1, 2, 3), ValueUpdate("a", "b"), 7);
  s.leaderChallengeVersion = 6;
  CommittedState& c = s.committed;
  NodeDescriptor n;
  n.id = 1;
  n.slot = 0;
  n.listen = true;
  c.config.nodes.push_back(n);
  c.config.disks = {7};
  c.config.minNodes = 1;
  c.cfgVersion = 3;
  c.leaderId = 1;
  c.leaderVersion = 2;
  c.updateHorizon = 9;
  c.updateList[UpdateStream{1, 2}] = 3;
  c.updateList[UpdateStream{4, 1}] = 12;
  c.valueList["a"] = ValueVersion{4, "x"};
  c.valueList["b"] = ValueVersion{1, ""};
  c.maxDeletedValueVersion = 2;
  c.fileList[5] = FileVersion(6, UpdateId(1, 2, 3), 0xDEADBEEF);
  c.maxDeletedFileVersion = 1;
  const std::string full = dir_.file("full.paxos");
  StoreFile(full, pfd);

  PaxosFileData empty;
  empty.summary.seq = 0;
  const std::string bare = dir_.file("bare.paxos");
  StoreFile(bare, empty);

  const std::string fullBytes = ReadFile(full), bareBytes = ReadFile(bare);
  struct {
    std::string path;
    std::vector<std::string> lines;
  } cases[] = {
      {full,
       {full + " (size " + std::to_string(fullBytes.size()) + "):\n", HeaderLine(fullBytes),
        "pfd: epoch 2, slotAssignmentVersion 4\n",
        "dblk: seq 5, mbal (5.1), bal (3.2), inp ((n1,e2),3):vu:7:('a','b'), "
        "leaderChallengeVersion 6\n",
        "config: minNodes: 1 version 3\n", "  nodes: [(N1,S0,V0,L1)]\n", "  disks: [D7]\n",
        "leader: id 1 version 2\n", "updates: horizon 9\n", "  (n1,e2): 3\n", "  (n4,e1): 12\n",
        "values: 2, max deleted version 2\n", "  a = version 4 \"x\"\n", "  b = version 1 \"\"\n",
        "files: 1, max deleted version 1\n", "  5 = version 6 uid ((n1,e2),3)\n"}},
      {bare,
       {bare + " (size " + std::to_string(bareBytes.size()) + "):\n", HeaderLine(bareBytes),
        "pfd: epoch 0, slotAssignmentVersion 0\n",
        "dblk: seq 0, mbal (0.0), bal (0.0), inp ((n0,e0),0):(none):-1:None, "
        "leaderChallengeVersion 0\n",
        "config: minNodes: 0 version 0\n", "  nodes: []\n", "  disks: []\n",
        "leader: id -1 version 0\n", "updates: horizon -1\n",
        "values: None, max deleted version 0\n", "files: None, max deleted version 0\n"}},
  };
  for (const auto& c : cases) {
    RunResult r = Run({"readpaxos", c.path});
    EXPECT_EQ(r.exitStatus, 0) << c.path;
    EXPECT_EQ(r.err, "");
    std::string want;
    for (const auto& l : c.lines) want += l;
    EXPECT_EQ(r.out, want);
  }
}

TEST_F(CliWireTest, ReadPaxosFailures) {
  PaxosFileData pfd;
  pfd.summary.seq = 1;
  const std::string path = dir_.file("zel.paxos");
  StoreFile(path, pfd);
  std::string bytes = ReadFile(path);
  WriteFile(dir_.file("short"), bytes.substr(0, bytes.size() - 1));
  struct {
    std::string path;
    int err;
  } cases[] = {{dir_.file("absent"), ENOENT}, {dir_.file("short"), 214}, {dir_.path(), EISDIR}};
  for (const auto& c : cases) {
    RunResult r = Run({"readpaxos", c.path});
    EXPECT_EQ(r.exitStatus, 149) << c.path;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "loadFromFile failed with err " + std::to_string(c.err) + "\n");
  }
}

std::string Loc(const FakeServer& s) {
  return "127.0.0.1:" + std::to_string(s.port());
}

TEST_F(CliWireTest, DumpResultIsThatOfTheLastNode) {
  {
    FakeServer a, b;
    a.expect(MSG_TYPE_DUMP, "").replyFailed(149);
    b.expect(MSG_TYPE_DUMP, "").reply(MSG_TYPE_OK, "ignored");
    RunResult r = Run({"dump", "-n", Loc(a) + "," + Loc(b)});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, BaseLine());
  }
  {
    FakeServer a, b;
    a.expect(MSG_TYPE_DUMP, "").reply(MSG_TYPE_OK);
    b.expect(MSG_TYPE_DUMP, "").replyFailed(805);
    RunResult r = Run({"dump", "-n", Loc(a), "-n", Loc(b)});
    EXPECT_EQ(r.exitStatus, 153) << r.err;
  }
}

TEST_F(CliWireTest, QuitLastFailureWins) {
  {
    FakeServer a, b, c;
    a.expect(MSG_TYPE_QUIT, "").replyFailed(805);
    b.expect(MSG_TYPE_QUIT, "").replyFailed(806);
    c.expect(MSG_TYPE_QUIT, "").reply(MSG_TYPE_OK);
    RunResult r = Run({"quit", "-n", Loc(a) + "," + Loc(b) + "," + Loc(c)});
    EXPECT_EQ(r.exitStatus, 155) << r.err;  // 806; the later success does not clear it
    EXPECT_EQ(r.out, BaseLine());
  }
  {
    // Without -n the local node list is used.
    FakeServer a, b;
    a.expect(MSG_TYPE_QUIT, "").replyFailed(807);
    b.expect(MSG_TYPE_QUIT, "").reply(MSG_TYPE_OK);
    WriteFile(base_ + "/zel.nodes", "1,0,127.0.0.1," + std::to_string(a.port()) +
                                        ",a\n2,0,127.0.0.1," + std::to_string(b.port()) + ",b\n");
    RunResult r = Run({"quit"});
    EXPECT_EQ(r.exitStatus, 154) << r.err;
  }

  // No node: the empty-set message (after any parse messages).
  const std::string msg =
      "Not zel.nodes file and no node list specified (use '-n nodeList' option)\n";
  WriteFile(base_ + "/zel.nodes", "");
  RunResult r = Run({"quit"});
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(r.err, msg);
  // Every item rejected: the parse messages, then the empty-set message.
  r = Run({"quit", "-n", "0=127.0.0.1"});
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(r.err, "Invalid node id 0 in '0=127.0.0.1'\n" + msg);
}

}  // namespace
