#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

namespace {

using CliWireTest = CliFixture;

// Writes a state file with the library's writer, as cluster 77 and node 3.
void StoreFile(const std::string& path, const PaxosFileData& pfd) {
  ASSERT_EQ(storePaxosFile(path, pfd, 77, 3), 0);
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

// Non-empty value and file lists are printed by "show".
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
  c.config.nodes.push_back(NodeDescriptor{1, 0, 0, true});
  c.config.disks = {7};
  c.config.minNodes = 1;
  c.cfgVersion = 3;
  c.leaderId = 1;
  c.leaderVersion = 2;
  c.updateHorizon = 9;
  c.updateList[UpdateStream{4, 1}] = 12;
  c.updateList[UpdateStream{1, 2}] = 3;
  c.maxDeletedValueVersion = 2;
  c.maxDeletedFileVersion = 1;
  const std::string path = dir_.file("full.paxos");
  StoreFile(path, pfd);
  const std::string bytes = ReadFile(path);
  RunResult r = Run({"readpaxos", path});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, path + " (size " + std::to_string(bytes.size()) + "):\n" + HeaderLine(bytes) +
                       "pfd: epoch 2, slotAssignmentVersion 4\n"
                       "dblk: seq 5, mbal (5.1), bal (3.2), inp ((n1,e2),3):vu:7:('a','b'), "
                       "leaderChallengeVersion 6\n"
                       "config: minNodes: 1 version 3\n  nodes: [(N1,S0,V0,L1)]\n  disks: [D7]\n"
                       "leader: id 1 version 2\nupdates: horizon 9\n  (n1,e2): 3\n  (n4,e1): 12\n"
                       "values: None, max deleted version 2\nfiles: None, max deleted version 1\n");

  WriteFile(path, bytes.substr(0, bytes.size() - 1));
  r = Run({"readpaxos", path});
  EXPECT_EQ(std::make_tuple(r.exitStatus, r.out, r.err),
            std::make_tuple(149, std::string(), std::string("loadFromFile failed with err 214\n")));
}

// The result is the last failure among the nodes (a later success does not
// clear it); without -n the local node list is used.
TEST_F(CliWireTest, DumpAndQuitResult) {
  // Command, each node's error (0 for success), local list, exit status.
  const std::tuple<const char*, std::vector<int>, bool, int> cases[] = {
      {"dump", {149, 0}, false, 0},
      {"dump", {0, 805}, false, 153},
      {"quit", {805, 806, 0}, true, 155}};
  for (const auto& [cmd, errs, local, status] : cases) {
    FakeServer srv[3];
    std::string items, list;
    for (size_t i = 0; i < errs.size(); i++) {
      FakeServer& s = srv[i].expect(cmd[0] == 'd' ? MSG_TYPE_DUMP : MSG_TYPE_QUIT, "");
      errs[i] != 0 ? s.replyFailed(errs[i]) : s.reply(MSG_TYPE_OK, "ignored");
      items += (i ? "," : "") + srv[i].hostPort();
      list += std::to_string(i + 1) + ",0,127.0.0.1," + std::to_string(srv[i].port()) + ",n\n";
    }
    WriteFile(base_ + "/zel.nodes", local ? list : nodes_);
    RunResult r = local ? Run({cmd}) : Run({cmd, "-n", items});
    EXPECT_EQ(r.exitStatus, status) << cmd << r.err;
    EXPECT_EQ(r.out, BaseLine());
  }

  // No node: the empty-set message (after any parse messages).
  const std::string msg =
      "Not zel.nodes file and no node list specified (use '-n nodeList' option)\n";
  RunResult r = Run({"quit", "-n", "0=127.0.0.1"});
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(r.err, "Invalid node id 0 in '0=127.0.0.1'\n" + msg);
  WriteFile(base_ + "/zel.nodes", "");
  r = Run({"quit"});
  EXPECT_EQ(r.err, msg);
}

// Debug words: the body is the word, the argument count and the arguments;
// each node's non-empty answer is printed, and the last node's error is the
// result.
TEST_F(CliWireTest, DebugBodiesAnswersAndResult) {
  FakeServer a, b;
  const std::string nodes = "-n" + a.hostPort() + "," + b.hostPort();
  // Arguments, body, the answers of a and b, output, exit status (b fails with 22 unless 0).
  using Args = std::vector<std::string>;
  const std::tuple<Args, std::string, std::string, std::string, std::string, int> cases[] = {
      // clang-format off
      {{"echo", nodes}, S("echo") + V(0, 0), "hi", "", "hi\n", 0},
      {{"trace", nodes, "zel", "5"}, S("trace") + V(2, 0) + S("zel") + S("5"), "", "t", "t\n", 0},
      {{"netdown", nodes, "1"}, S("netdown") + V(1, 0) + S("1"), "x", "", "x\n", 149},
      // clang-format on
  };
  for (const auto& [args, body, answerA, answerB, out, status] : cases) {
    a.expect(MSG_TYPE_DEBUG, body).reply(MSG_TYPE_OK, answerA);
    FakeServer& sb = b.expect(MSG_TYPE_DEBUG, body);
    status == 0 ? sb.reply(MSG_TYPE_OK, answerB) : sb.replyFailed(22);
    RunResult r = Run(args);
    EXPECT_EQ(std::make_tuple(status, BaseLine() + out), std::make_tuple(r.exitStatus, r.out))
        << args[0];
    EXPECT_TRUE(a.waitDone(3000) && b.waitDone(3000));
  }
}

}  // namespace
