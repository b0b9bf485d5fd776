#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serial/adminfixture.h"

namespace {

using Nd = NodeDescriptor;  // id, slot, version, listen

class AdminChangeTest : public AdminFixture {
 protected:
  static std::string NodesConfig(const NodeList& nl, int cond) {
    return ConfigBody(ConfigUpdate(ConfigData{nl, {}, -1}, true, false), cond);
  }
  static std::string DisksConfig(const DiskList& dl) {
    return ConfigBody(ConfigUpdate(ConfigData{{}, dl, -1}, false, true), -1);
  }
  void Status(int i, int st) { srv(i).expect(MSG_TYPE_STATUS, "").reply(MSG_TYPE_OK, V(st, 0)); }
  // Files server 0 received from the n-th fput on.
  std::vector<std::string> PutsFrom(size_t n) {
    std::vector<std::string> all = Puts(0);
    return std::vector<std::string>(all.begin() + std::min(n, all.size()), all.end());
  }
};

TEST_F(AdminChangeTest, AddNode) {
  const std::string cur = Line(1, 0, "a") + Line(2, 1, "b");
  const std::string next = cur + Line(3, 2, "127.0.0.1");
  WriteFile(base_ + "/zel.nodes", cur);
  CommittedState state = Cfg({{1, 0}, {2, 1}});
  state.config.nodes[1].version = 3;
  ServeFile(0, "zel.nodes", cur, state);
  for (int i = 0; i < 3; i++) Status(i, 2);
  AcceptPut(0);
  srv(2).expect(MSG_TYPE_INIT).reply(MSG_TYPE_OK);
  AcceptConfig(0, NodesConfig({Nd{1, 0, 0, true}, Nd{2, 1, 3, true}, Nd{3, 2, 6, true}}, 5));
  RunResult r = Run({"chnodes", "-n", "1,2," + Loc(2)});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(r.err, "");
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(Puts(0), std::vector<std::string>{next});
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), next);
}

// The removed node holds a slot: it stays, marked old, until the change
// succeeds. A refused change leaves that state; running again completes it.
TEST_F(AdminChangeTest, RemoveSlotHolderFailsThenCompletes) {
  const std::string keep = Line(1, 0, "a") + Line(2, 1, "b");
  const std::string cur = keep + Line(3, 2, "c");
  const std::string transition = keep + Line(3, 2, "c", 1);
  WriteFile(base_ + "/zel.nodes", cur);
  const CommittedState state = Cfg({{1, 0}, {2, 1}, {3, 2}});
  const std::string config = NodesConfig({Nd{1, 0, 0, true}, Nd{2, 1, 0, true}}, 5);
  ServeFile(0, "zel.nodes", cur, state);
  for (int i = 0; i < 3; i++) Status(i, 2);
  AcceptPut(0);
  srv(0).expect(MSG_TYPE_CONFIG, config).replyFailed(805);
  RunResult r = Run({"chnodes", "-n", "1,2"});
  EXPECT_EQ(r.exitStatus, 153);
  EXPECT_EQ(r.err, "config update failed: err 805\n");
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(Puts(0), std::vector<std::string>{transition});
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), transition);

  ServeFile(0, "zel.nodes", transition, state);
  for (int i = 0; i < 3; i++) Status(i, 2);
  AcceptConfig(0, config);
  AcceptPut(0);
  r = Run({"chnodes", "-n", "1,2"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  ASSERT_TRUE(AllDone());
  EXPECT_EQ(PutsFrom(1), std::vector<std::string>{keep});  // the transition is not rewritten
  EXPECT_EQ(ReadFile(base_ + "/zel.nodes"), keep);
}

// The node list stays as it is: nothing is written, the quorum is checked and
// the configuration is still submitted when it passes (or with -F).
TEST_F(AdminChangeTest, QuorumVerdicts) {
  int deadPort = 0;
  {
    FakeServer gone;
    deadPort = gone.port();
  }
  const char* head = "No %s quorum in new node set (%d of %d nodes are %s; %d are required):\n";
  auto verdict = [&](const char* kind, int n, int of, const char* word, int req) {
    char buf[160];
    snprintf(buf, sizeof(buf), head, kind, n, of, word, req);
    return std::string(buf);
  };
  auto lines = [](std::vector<const char*> words) {
    std::string s;
    for (size_t i = 0; i < words.size(); i++) {
      s += "  " + std::string(words[i]) + std::string(7 - strlen(words[i]), ' ') + "n" +
           std::to_string(i + 1) + " (127.0.0.1)\n";
    }
    return s;
  };
  const std::string fail3 = verdict("ZEL", 1, 3, "up", 2) + lines({"up", "down", "down"});
  // clang-format off
  struct {
    std::vector<int> statuses;  // -1: unreachable
    DiskList disks;
    int minNodes;
    bool force;
    std::string err;
  } cases[] = {
      {{2, 0, -1}, {}, 1, false, fail3},
      {{2, 0, -1}, {}, 1, true, fail3 + "Continuing due to -F override\n"},
      {{2, 3, 2, 0}, {}, 1, false, ""},
      {{2, 3, 0, 1}, {}, 1, false, verdict("ZEL", 2, 4, "up", 3) + lines({"up", "up", "down", "down"})},
      {{2, 0, 0}, {1}, 1, false, ""},
      {{2, 2, 0}, {1}, 3, false, verdict("ZEL", 2, 3, "up", 3) + lines({"up", "up", "down"})},
      {{4, 2, 2}, {}, 1, false, verdict("Trov", 1, 3, "joined", 2) + lines({"joined", "up", "up"})},
      {{4, 4, 0}, {}, 1, false, ""},
  };
  // clang-format on
  for (const auto& c : cases) {
    std::string list, ids;
    std::vector<std::pair<int, int>> cfg;
    for (size_t i = 0; i < c.statuses.size(); i++) {
      int id = static_cast<int>(i) + 1;
      std::string name = "n" + std::to_string(id);
      list += c.statuses[i] < 0 ? std::to_string(id) + ",0,127.0.0.1," + std::to_string(deadPort) +
                                      "," + name + "\n"
                                : Line(id, static_cast<int>(i), name);
      ids += (i > 0 ? "," : "") + std::to_string(id);
      cfg.push_back({id, static_cast<int>(i)});
    }
    SCOPED_TRACE(ids + (c.force ? " -F" : "") + " disks " + std::to_string(c.disks.size()));
    WriteFile(base_ + "/zel.nodes", list);
    ServeFile(0, "zel.nodes", list, Cfg(cfg, c.disks, c.minNodes));
    for (size_t i = 0; i < c.statuses.size(); i++) {
      if (c.statuses[i] >= 0) Status(static_cast<int>(i), c.statuses[i]);
    }
    bool passes = c.err.empty() || c.force;
    if (passes) AcceptConfig(0, NodesConfig(Cfg(cfg).config.nodes, 5));
    std::vector<std::string> args = {"chnodes", "-n", ids};
    if (c.force) args.push_back("-F");
    RunResult r = Run(args);
    EXPECT_EQ(r.exitStatus, passes ? 0 : 149);
    // The transport reports the unreachable node on a line of its own.
    std::string err = r.err;
    size_t refused =
        err.find("ZEL: failed to connect to node 127.0.0.1:" + std::to_string(deadPort));
    if (refused != std::string::npos) err.erase(refused, err.find('\n', refused) + 1 - refused);
    EXPECT_EQ(err, c.err);
    EXPECT_TRUE(AllDone());
  }
  EXPECT_TRUE(Puts(0).empty());
}

TEST_F(AdminChangeTest, ChangeDisks) {
  WriteFile(base_ + "/zel.nodes", Line(1, 0, "a") + Line(2, 1, "b"));
  const std::string cur = "1,0,/d/a\n3,0,/d/b\n";
  const std::string pxinit =
      V(1, 0) + V(4, 0) + S("/d/c") + '\0' + Encode(Dblock()) + V(8, 0) + V(1, 0);
  struct {
    std::vector<std::string> args;
    bool init;
    DiskList cfg;
    std::vector<std::string> puts;
  } cases[] = {
      // /d/b keeps slot 3 at another position; /d/c takes 4, not the free 2.
      {{"-d", "/d/b,/d/c"},
       true,
       {3, 4},
       {"1,1,/d/a\n3,0,/d/b\n4,0,/d/c\n", "3,0,/d/b\n4,0,/d/c\n"}},
      {{"-d", "/d/a,/d/b"}, false, {1, 3}, {}},
      {{}, false, {}, {"1,1,/d/a\n3,1,/d/b\n", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "none" : c.args[1]);
    size_t before = Puts(0).size();
    ServeFile(0, "zel.disks", cur, Cfg({{1, 0}, {2, 1}}, {1, 3}));
    if (c.init) srv(0).expect(MSG_TYPE_PXINIT, pxinit).reply(MSG_TYPE_OK);
    if (!c.puts.empty()) AcceptPut(0);
    AcceptConfig(0, DisksConfig(c.cfg));
    if (!c.puts.empty()) AcceptPut(0);
    std::vector<std::string> args = {"chdisks"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    RunResult r = Run(args);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, Out(c.init ? "zel shared disks to be initialized:\n4 /d/c\n" : ""));
    ASSERT_TRUE(AllDone());
    EXPECT_EQ(PutsFrom(before), c.puts);
  }
}

}  // namespace
