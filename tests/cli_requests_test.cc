#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "zel/zelmsg.h"

namespace {

CommittedState State() {
  CommittedState s;
  s.cfgVersion = 1;
  s.valueList["alpha"] = ValueVersion{4, "x y"};
  s.valueList["empty"] = ValueVersion{2, ""};
  s.fileList[7] = FileVersion(3, UpdateId(1, 1, 2), 0);
  return s;
}
// State() with the node list nodes at version v.
CommittedState WithNodes(const std::string& nodes, int v) {
  CommittedState s = State();
  s.fileList[1] = FileVersion(v, UpdateId(1, 1, v), Crc(nodes));
  return s;
}

// A test installation whose node list names fake servers a (1) and b (2).
class CliRequestsTest : public CliFixture {
 protected:
  void SetUp() override {
    nodes_ = Line(1, a_) + Line(2, b_);
    CliFixture::SetUp();
  }
  static std::string Line(int id, const FakeServer& s) {
    return std::to_string(id) + ",0,127.0.0.1," + std::to_string(s.port()) + ",n\n";
  }
  std::string Out(const std::string& s) const { return BaseLine() + s; }

  FakeServer a_, b_;
};

TEST_F(CliRequestsTest, PrintingAndExitStatuses) {
  FileIdMap files;
  files[1] = FileItem{"zel.nodes", "", 0};
  files[7] = FileItem{"data", "", 0};
  const std::string data = "payload\n", local = dir_.file("got"), commit = Commit(5, State());
  const std::string uid = Encode(UpdateId(1, 1, 3)), fget = commit + V(7, 0) + V(data.size(), 0);
  const std::string err1 = V(807, -1) + commit, err2 = V(157, -1) + commit;
  const std::string vlist =
      "  version  name                 value\n"
      "---------  -------------------- --------------------------------------------\n"
      "        4  alpha                \"x y\"\n        2  empty                \"\"\n";
  const std::string flist =
      "  version  name\n---------  --------------------\n"
      "        0  zel.nodes           \n        3  data                \n";
  const std::string show =
      "seq 12\nconfig: minNodes: 0 version 1\n  nodes: []\n  disks: []\nleader: id -1 version 0\n"
      "updates: horizon -1\nvalues: 2, max deleted version 0\n  alpha = version 4 \"x y\"\n"
      "  empty = version 2 \"\"\nfiles: 1, max deleted version 0\n  7 = version 3 uid "
      "((n1,e1),2)\n";
  // clang-format off
  struct {
    std::vector<std::string> args;
    std::function<void(FakeServer&)> script;
    int status;
    std::string out, err;
  } cases[] = {
      {{"vlist"}, [&](FakeServer& s) { s.expect(MSG_TYPE_VGET, "").reply(50, commit); }, 0, vlist, ""},
      {{"vget", "alpha"}, [&](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, commit); }, 0, "vget:4:x y\n", ""},
      {{"vget", "nope"}, [&](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, commit); }, 149, "", "\"nope\" is undefined\n"},
      {{"show"}, [&](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(50, Commit(12, State())); }, 0, show, ""},
      {{"flist", "extra"}, [&](FakeServer& s) { s.expect(MSG_TYPE_FGET, "").reply(53, commit + Encode(files)); }, 0, flist, ""},
      {{"fget", "data", local}, [&](FakeServer& s) { s.expect(MSG_TYPE_FGET).reply(52, fget).sendFile(data); }, 0, "fget:3\n", ""},
      {{"fget", "data", local, "-c", "3"}, [](FakeServer& s) { s.expect(MSG_TYPE_FGET).replyFailed(806); }, 155, "", "get file failed: err 806\n"},
      {{"vput", "k", "v", "-c", "1", "-v", "2"}, [&](FakeServer& s) {
         s.expect(MSG_TYPE_VPUT, std::string(3, '\0') + S("k") + S("v") + V(1, -1) + V(2, -1)).reply(54, uid);
         s.expect(MSG_TYPE_OK).reply(50, commit); }, 0, "", ""},
      {{"vput", "k", "v"}, [](FakeServer& s) { s.expect(MSG_TYPE_VPUT).replyFailed(805); }, 153, "", "vput failed: err 805\n"},
      {{"vdel", "k"}, [&](FakeServer& s) { s.expect(MSG_TYPE_VDEL).reply(51, err1); }, 154, "", "vdel failed: err 807\n"},
      {{"fdel", "data"}, [&](FakeServer& s) { s.expect(MSG_TYPE_FDEL).reply(51, err2); }, 149, "", "fdel failed: err 157\n"},
      {{"fput", "data", local}, [&](FakeServer& s) {
         s.expect(MSG_TYPE_FPUT).reply(55, uid + "\x01").receiveFile();
         s.expect(MSG_TYPE_OK).reply(50, commit); }, 0, "", ""},
  };
  // clang-format on
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
  EXPECT_EQ(b_.connections(), 0);  // 804..807 and answers end the request
}

// fget to standard output: the file and nothing else there.
TEST_F(CliRequestsTest, FgetToStandardOutputCarriesOnlyTheFile) {
  const std::string data = "line one\nline two\n";
  a_.expect(MSG_TYPE_FGET)
      .reply(52, Commit(5, State()) + V(7, 0) + V(data.size(), 0))
      .sendFile(data);
  RunResult r = Run({"fget", "data", ""});
  EXPECT_EQ(std::make_tuple(0, data, BaseLine() + "fget:3\n"),
            std::make_tuple(r.exitStatus, r.out, r.err));
}

// A file the request cannot announce is refused before anything is sent.
TEST_F(CliRequestsTest, FputOfTooLargeFileIsRefused) {
  const std::string big = dir_.file("big");
  WriteFile(big, "");
  ASSERT_EQ(0, truncate(big.c_str(), 2147483647LL));  // sparse: no disk used
  RunResult r = Run({"fput", "data", big});
  EXPECT_EQ(std::make_tuple(149, Out(""),
                            "fput failed: err 27\n'" + big +
                                "' is too large to store (2147483647 bytes; at most 2147483646)\n"),
            std::make_tuple(r.exitStatus, r.out, r.err));
  EXPECT_EQ(0, a_.connections() + b_.connections());
}

// A reply with a newer node list: the state is stored and the list pulled.
TEST_F(CliRequestsTest, NewerNodeListIsPulledAndBecomesLocal) {
  const std::string nodes = Line(1, a_) + Line(2, b_) + "3,0,127.0.0.1,9,c\n";
  a_.expect(MSG_TYPE_VGET).closeConn();  // the first attempt fails
  b_.expect(MSG_TYPE_VGET).reply(50, Commit(8, WithNodes(nodes, 2)));
  a_.expect(MSG_TYPE_FXFER, S("zel.nodes") + V(1, 0) + V(2, -1) + Encode(UpdateId(1, 1, 2)))
      .reply(MSG_TYPE_OK, V(nodes.size(), 0))
      .sendFile(nodes);
  RunResult r = Run({"vget", "alpha"});
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out, Out("vget:4:x y\n"));
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), nodes);
  EXPECT_TRUE(PathExists(base_ + "/cached/zel.paxos"));
}

// The first discovery answer only refreshes the list (naming b alone); the
// client starts over with b, whose answer is stored.
TEST_F(CliRequestsTest, RefreshRediscoversUntilAStoredAnswer) {
  const std::string list1 = Line(2, b_), list2 = Line(2, b_) + "3,0,127.0.0.1,9,c\n";
  a_.expect(MSG_TYPE_DISCOVER, V(0, -1))
      .reply(62, Commit(4, WithNodes(list1, 2)) + '\0' + V(list1.size(), 0))
      .sendFile(list1);
  b_.expect(MSG_TYPE_DISCOVER, V(0, -1))
      .reply(62, Commit(5, WithNodes(list2, 3)) + '\1' + V(list2.size(), 0))
      .sendFile(list2);
  RunResult r = Run({"refresh"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), list2);
  RunResult shown = Run({"readpaxos", base_ + "/cached/zel.paxos"});
  EXPECT_NE(shown.out.find("dblk: seq 5,"), std::string::npos) << shown.out;
}

// The only test that waits for the real back-off: one server, second attempt.
TEST_F(CliRequestsTest, SecondAttemptWaitsForTheBackOff) {
  WriteFile(base_ + "/zel.nodes", Line(1, a_));
  a_.expect(MSG_TYPE_VGET).closeConn();
  a_.expect(MSG_TYPE_VGET).reply(50, Commit(5, State()));
  auto start = std::chrono::steady_clock::now();
  RunResult r = Run({"vget", "alpha"});
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(r.exitStatus, 0);
  EXPECT_EQ(r.out, Out("vget:4:x y\n"));
  EXPECT_GE(secs, 0.9);
}

}  // namespace
