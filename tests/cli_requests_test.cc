#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/fakeserver.h"
#include "support/recordcheck.h"
#include "support/testutil.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"
#include "zel/zelmsg.h"

namespace {

std::string V(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}

unsigned int Crc(const std::string& d) {
  return finalcrc(partialcrc(reinterpret_cast<const unsigned char*>(d.data()), d.size(), 0),
                  d.size());
}

CommittedState State() {
  CommittedState s;
  s.cfgVersion = 1;
  s.valueList["alpha"] = ValueVersion{4, "x y"};
  s.valueList["empty"] = ValueVersion{2, ""};
  s.fileList[7] = FileVersion(3, UpdateId(1, 1, 2), 0);
  return s;
}
std::string Commit(int seq, const CommittedState& s = State()) {
  return V(seq, 0) + Encode(s);
}

// A test installation whose node list names fake servers 1 and 2.
class CliRequestsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = dir_.file("repo");
    ASSERT_EQ(0, mkdir(base_.c_str(), 0755));
    ASSERT_EQ(0, mkdir((base_ + "/committed").c_str(), 0755));
    nodes_ = "1,0,127.0.0.1," + std::to_string(a_.port()) + ",a\n2,0,127.0.0.1," +
             std::to_string(b_.port()) + ",b\n";
    WriteFile(base_ + "/zel.nodes", nodes_);
  }
  RunResult Run(std::vector<std::string> args) {
    args.insert(args.begin(), KxzelTestBin());
    RunResult r = RunCommand(args, {{"ZEL_BASE", base_}}, 30000);
    EXPECT_FALSE(r.timedOut);
    return r;
  }
  std::string Out(const std::string& s) const { return "zelBaseDir: " + base_ + "\n" + s; }

  TempDir dir_;
  FakeServer a_, b_;
  std::string base_, nodes_;
};

TEST_F(CliRequestsTest, PrintingAndExitStatuses) {
  FileIdMap files;
  files[1] = FileItem{"zel.nodes", "", 0};
  files[7] = FileItem{"data", "", 0};
  const std::string data = "payload\n", local = dir_.file("got");
  const std::string fgetReply = Commit(2) + V(7, 0) + V(data.size(), 0);
  const std::string uid = Encode(UpdateId(1, 1, 3));
  const std::string header =
      "  version  name                 value\n"
      "---------  -------------------- --------------------------------------------\n";
  struct {
    std::vector<std::string> args;
    std::function<void(FakeServer&)> script;
    int status;
    std::string out, err;
  } cases[] = {
      {{"vlist"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, Commit(5)); },
       0,
       header + "        4  alpha                \"x y\"\n        2  empty                \"\"\n",
       ""},
      {{"vget", "alpha"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, Commit(5)); },
       0,
       "vget:4:x y\n",
       ""},
      {{"vget", "empty", "-c", "9"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET, "").reply(50, Commit(5)); },
       0,
       "vget:2:\n",
       ""},
      {{"vget", "nope"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, Commit(5)); },
       149,
       "",
       "\"nope\" is undefined\n"},
      {{"vlist"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).replyFailed(806); },
       155,
       "",
       "list failed: err 806\n"},
      {{"flist", "extra"},
       [&](FakeServer& s) { s.expect(MSG_TYPE_FGET, "").reply(53, Commit(5) + Encode(files)); },
       0,
       "  version  name\n---------  --------------------\n        0  zel.nodes           \n"
       "        3  data                \n",
       ""},
      {{"fget", "data", local},
       [&](FakeServer& s) { s.expect(MSG_TYPE_FGET).reply(52, fgetReply).sendFile(data); },
       0,
       "fget:3\n",
       ""},
      {{"fget", "data", local, "-c", "3"},
       [](FakeServer& s) { s.expect(MSG_TYPE_FGET).replyFailed(806); },
       155,
       "",
       "get file failed: err 806\n"},
      {{"vput", "k", "v", "-c", "1", "-v", "2"},
       [&](FakeServer& s) {
         s.expect(MSG_TYPE_VPUT, std::string(3, '\0') + "k" + std::string(1, '\0') + "v" +
                                     std::string(1, '\0') + V(1, -1) + V(2, -1))
             .reply(REPLY_TYPE_UID, uid);
         s.expect(MSG_TYPE_OK).reply(50, Commit(6));
       },
       0,
       "",
       ""},
      {{"vput", "k", "v"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VPUT).replyFailed(805); },
       153,
       "",
       "vput failed: err 805\n"},
      {{"vdel", "k"},
       [](FakeServer& s) { s.expect(MSG_TYPE_VDEL).reply(51, V(807, -1) + Commit(6)); },
       154,
       "",
       "vdel failed: err 807\n"},
      {{"fdel", "data"},
       [](FakeServer& s) { s.expect(MSG_TYPE_FDEL).reply(50, Commit(6)); },
       0,
       "",
       ""},
      {{"fdel", "data"},
       [](FakeServer& s) { s.expect(MSG_TYPE_FDEL).reply(51, V(157, -1) + Commit(6)); },
       149,
       "",
       "fdel failed: err 157\n"},
      {{"fput", "data", local},
       [&](FakeServer& s) {
         s.expect(MSG_TYPE_FPUT).reply(REPLY_TYPE_UID_FPUT, uid + "\x01").receiveFile();
         s.expect(MSG_TYPE_OK).reply(50, Commit(6));
       },
       0,
       "",
       ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args[1 % c.args.size()]);
    c.script(a_);
    RunResult r = Run(c.args);
    EXPECT_EQ(r.exitStatus, c.status);
    EXPECT_EQ(r.out, Out(c.out));
    EXPECT_EQ(r.err, c.err);
    EXPECT_TRUE(a_.waitDone(3000));
  }
  EXPECT_EQ(ReadFile(local), data);
  auto put = a_.files();
  ASSERT_EQ(put.size(), 1u);
  EXPECT_TRUE(put[0].data == data && put[0].crcOk);
  EXPECT_EQ(b_.connections(), 0);
}

TEST_F(CliRequestsTest, ShowPrintsSequenceAndState) {
  a_.expect(MSG_TYPE_VGET).reply(50, Commit(12));
  RunResult r = Run({"show"});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out.find(Out("seq 12\nconfig: ")), 0u) << r.out;
  EXPECT_NE(r.out.find("  alpha = version 4 \"x y\"\n"), std::string::npos);
}

TEST_F(CliRequestsTest, NewerNodeListIsPulledAndBecomesLocal) {
  const std::string newNodes = nodes_ + "3,0,127.0.0.1,9,c\n";
  CommittedState s = State();
  s.fileList[1] = FileVersion(2, UpdateId(1, 1, 1), Crc(newNodes));
  NodeDescriptor first;  // node 1 listens, so a later run asks it first
  first.id = 1;
  first.listen = true;
  s.config.nodes.push_back(first);
  a_.expect(MSG_TYPE_VGET).closeConn();  // the first attempt fails
  b_.expect(MSG_TYPE_VGET).reply(50, Commit(8, s));
  a_.expect(MSG_TYPE_FXFER).reply(MSG_TYPE_OK, V(newNodes.size(), 0)).sendFile(newNodes);
  RunResult r = Run({"vget", "alpha"});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out, Out("vget:4:x y\n"));
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), newNodes);
  EXPECT_TRUE(PathExists(base_ + "/cached/zel.paxos"));

  // The same versions again (another seq) are not stored.
  const std::string stored = ReadFile(base_ + "/cached/zel.paxos");
  a_.expect(MSG_TYPE_VGET).reply(50, Commit(9, s));
  EXPECT_EQ(Run({"vget", "alpha"}).exitStatus, 0);
  EXPECT_EQ(ReadFile(base_ + "/cached/zel.paxos"), stored);
}

TEST_F(CliRequestsTest, RefreshReplacesNodeListAndRediscovers) {
  const std::string newNodes = "2,0,127.0.0.1," + std::to_string(b_.port()) + ",b\n";
  CommittedState s = State();
  s.fileList[1] = FileVersion(3, UpdateId(1, 1, 1), Crc(newNodes));
  a_.expect(MSG_TYPE_DISCOVER, V(0, -1))
      .reply(REPLY_TYPE_DISCOVER, Commit(4, s) + "\x01" + V(newNodes.size(), 0))
      .sendFile(newNodes);
  RunResult r = Run({"refresh"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), newNodes);
  EXPECT_TRUE(PathExists(base_ + "/cached/zel.paxos"));
}

// The only test that waits for the real back-off: one server, second attempt.
TEST_F(CliRequestsTest, SecondAttemptWaitsForTheBackOff) {
  WriteFile(base_ + "/zel.nodes", "1,0,127.0.0.1," + std::to_string(a_.port()) + ",a\n");
  a_.expect(MSG_TYPE_VGET).closeConn();
  a_.expect(MSG_TYPE_VGET).reply(50, Commit(5));
  auto start = std::chrono::steady_clock::now();
  RunResult r = Run({"vget", "alpha"});
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out, Out("vget:4:x y\n"));
  EXPECT_GE(secs, 0.9);
}

}  // namespace
