// Replicated zeld end to end: the real kxzel-testinstall against several
// zeld-testinstall processes on 127.0.0.1 with tiebreaker disk files. Nodes
// are killed and restarted; what was acknowledged must stay, applied once.
#ifdef ZELD_TESTINSTALL_BIN

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>

#include <mutex>
#include <random>
#include <regex>

#include "support/cluster.h"
#include "support/linearize.h"
#include "support/seckeys.h"
#include "support/testutil.h"

namespace {

// Nodes answer 819 this soon without a quorum, so refusals come quickly.
const EnvList kQuickRefusal = {{"ZEL_TEST_REQUEST_MS", "1500"}};

class ZeldCluster : public ::testing::Test {
 protected:
  void Up(int nodes, int disks, int initNodes = -1, int initDisks = -1) {
    Cluster::Options o;
    o.nodes = nodes;
    o.disks = disks;
    c_.reset(new Cluster(o));
    for (int i = 0; i < nodes; i++) c_->setEnv(i, kQuickRefusal);
    ASSERT_TRUE(c_->startAll());
    std::string n, d;
    for (int i = 0; i < (initNodes < 0 ? nodes : initNodes); i++)
      n += (i ? "," : "") + c_->location(i);
    for (int k = 0; k < (initDisks < 0 ? disks : initDisks); k++)
      d += (k ? "," : "") + c_->diskPath(k);
    std::vector<std::string> args = {"init", "-c", "77", "-n", n};
    if (!d.empty()) args.insert(args.end(), {"-d", d});
    RunResult r = c_->kxzel(args);
    ASSERT_EQ(r.exitStatus, 0) << r.err << c_->log(0);
  }
  int Put(const std::string& name, const std::string& value, int via = -1) {
    return c_->kxzel({"vput", name, value}, via).exitStatus;
  }
  // "version:value", or "exit N".
  std::string Get(const std::string& name, int via = -1) {
    RunResult r = c_->kxzel({"vget", name}, via);
    if (r.exitStatus != 0) return "exit " + std::to_string(r.exitStatus);
    std::string line = r.out.substr(r.out.rfind("vget:") + 5);
    return line.substr(0, line.find('\n'));
  }
  std::unique_ptr<Cluster> c_;
};

TEST_F(ZeldCluster, ThreeNodesWithoutDisksNeedTwoUp) {
  Up(3, 0);
  ASSERT_EQ(Put("a", "one"), 0);
  c_->kill9(0);
  EXPECT_EQ(Put("a", "two"), 0);
  EXPECT_EQ(Get("a"), "2:two");
  c_->kill9(1);
  EXPECT_EQ(Put("a", "three"), 157);
  EXPECT_EQ(Get("a"), "exit 157");
  // The refused update had its id: it stays queued and is decided once a quorum
  // is back, before or after the next one (its outcome was unknown to its client).
  ASSERT_TRUE(c_->restart(0));
  EXPECT_EQ(Put("a", "four"), 0);
  std::string got = Get("a");
  EXPECT_TRUE(got == "3:four" || got == "4:four") << got;
}

TEST_F(ZeldCluster, TwoNodesAndATiebreakerSurviveEitherNodeDown) {
  Up(2, 1);
  for (int down = 0; down < 2; down++) {
    c_->kill9(down);
    std::string v = "v" + std::to_string(down);
    EXPECT_EQ(Put("k", v), 0) << "node " << down << " down";
    EXPECT_EQ(Get("k"), std::to_string(down + 1) + ":" + v);
    ASSERT_TRUE(c_->restart(down));
  }
}

TEST_F(ZeldCluster, AStoppedNodeCatchesUpValuesAndFiles) {
  Up(3, 1);
  c_->stop(2);
  for (int i = 0; i < 50; i++) ASSERT_EQ(Put("n" + std::to_string(i % 10), std::to_string(i)), 0);
  TempDir t;
  for (int f = 0; f < 3; f++) {
    std::string path = t.file("in" + std::to_string(f));
    WriteFile(path, Pattern((1 << 20) + f, f));
    ASSERT_EQ(c_->kxzel({"fput", "file" + std::to_string(f), path}).exitStatus, 0);
  }
  ASSERT_TRUE(c_->restart(2));
  // It catches up by itself (an idle node polls) and fetches the files it
  // lacks from the others; then only it and the tiebreaker are left.
  auto fetched = [&] {
    int n = 0;
    for (const std::string& f : ListDir(c_->dir(2) + "/committed")) n += f.rfind("file", 0) == 0;
    return n == 3;
  };
  for (int i = 0; i < 100 && !fetched(); i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(fetched()) << c_->log(2);
  c_->kill9(0);
  c_->kill9(1);
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(Get("n" + std::to_string(i)), "5:" + std::to_string(40 + i));
  for (int f = 0; f < 3; f++) {
    std::string out = t.file("out" + std::to_string(f));
    RunResult r = c_->kxzel({"fget", "file" + std::to_string(f), out});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(ReadFile(out) == Pattern((1 << 20) + f, f)) << "file" << f;
  }
}

TEST_F(ZeldCluster, PeersAuthenticateWhenAuthenticationIsOn) {
  std::string why = SecTestSkipReason();
  if (!why.empty()) GTEST_SKIP() << why;
  const TestKey* k = SharedTestKey(0);
  ASSERT_TRUE(k != nullptr);
  Cluster::Options o;
  o.nodes = 3;
  c_.reset(new Cluster(o));
  // One key for the cluster: every node presents it to the others' stores.
  std::string keys =
      "clusterName=test\ncipherList=AUTHONLY\ncommittedKeyGenNumber=1\n"
      "committedPublicKey=\n" +
      k->pubPem;
  std::vector<std::string> dirs = {c_->clientDir()};
  for (int i = 0; i < 3; i++) {
    dirs.push_back(c_->dir(i));
    c_->setEnv(i, kQuickRefusal);
  }
  for (const std::string& d : dirs) {
    WriteFile(d + "/authorized_zel_keys", keys);
    WriteFile(d + "/zel.pem", ReadFile(k->bothPath));
  }
  ASSERT_TRUE(c_->startAll());
  std::string n = c_->location(0) + "," + c_->location(1) + "," + c_->location(2);
  RunResult r = c_->kxzel({"init", "-c", "77", "-n", n});
  ASSERT_EQ(r.exitStatus, 0) << r.err << c_->log(0);
  ASSERT_EQ(Put("sec", "1", 0), 0) << c_->log(0);
  // Agreement without node 1 needs nodes 2 and 3 to reach each other's stores.
  c_->kill9(0);
  EXPECT_EQ(Put("sec", "2", 1), 0) << c_->log(1) << c_->log(2);
  EXPECT_EQ(Get("sec", 2), "2:2");
}

TEST_F(ZeldCluster, HealthShowsEveryNodeAndWhetherAQuorumIsUp) {
  Up(3, 1);
  // With a tiebreaker one node is enough, and a write then goes through.
  struct Stage {
    int kill;
    std::string states;
    int exitStatus;
  } stages[] = {
      {-1, "joined joined joined", 0},
      {0, "down joined joined", 0},
      {1, "down down joined", 0},
      {2, "down down down", 157},
  };
  std::regex node("node:(\\d):127\\.0\\.0\\.1:127\\.0\\.0\\.1:(\\d+):(\\w+):(-|[0-9.]+)\n");
  for (const Stage& st : stages) {
    if (st.kill >= 0) c_->kill9(st.kill);
    RunResult r = c_->kxzel({"health", "-y"});
    std::string states;
    int id = 1;
    for (std::sregex_iterator i(r.out.begin(), r.out.end(), node), e; i != e; ++i, ++id) {
      EXPECT_EQ((*i)[1], std::to_string(id));
      EXPECT_EQ((*i)[2], std::to_string(c_->port(id - 1)));
      EXPECT_EQ((*i)[4] == "-", (*i)[3] == "down") << r.out;
      states += (states.empty() ? "" : " ") + (*i)[3].str();
    }
    EXPECT_EQ(states, st.states) << r.out;
    // Right after init only the cached configuration names the disk.
    EXPECT_NE(r.out.find("\ndisk:1::-\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.exitStatus, st.exitStatus) << r.err;
    if (st.exitStatus == 0) {
      EXPECT_EQ(Put("h", st.states), 0) << st.states;
    } else {
      EXPECT_NE(r.err.find("No quorum: 0 of 3 nodes are up; 1 are required"), std::string::npos)
          << r.err;
    }
  }
}

TEST_F(ZeldCluster, ALostReplyRetriedOnAnotherNodeIsAppliedOnce) {
  Up(3, 0);
  ASSERT_EQ(Put("x", "first"), 0);
  c_->setEnv(0, {{"ZEL_TEST_LOSE_REPLIES", "1"}});
  c_->stop(0);
  ASSERT_TRUE(c_->start(0));
  ASSERT_EQ(Put("x", "second", 0), 0);
  EXPECT_NE(c_->log(0).find("losing the reply"), std::string::npos) << "the reply was not lost";
  EXPECT_EQ(Get("x"), "2:second");
}

TEST_F(ZeldCluster, KillingTheProposerAtEachPointAppliesTheUpdateOnce) {
  Up(3, 0);
  ASSERT_EQ(Put("v", "start"), 0);
  int version = 1;
  for (const char* point : {"phase1", "phase2", "decided", "applied"}) {
    SCOPED_TRACE(point);
    c_->setEnv(0, {{"ZEL_TEST_CRASH_AT", point}});
    c_->stop(0);
    ASSERT_TRUE(c_->start(0));
    int rc = Put("v", point, 0);
    EXPECT_FALSE(c_->running(0)) << "the crash point was not reached";
    c_->setEnv(0, kQuickRefusal);
    ASSERT_TRUE(c_->restart(0));
    // The client went on through another node with the same update id.
    ASSERT_EQ(rc, 0);
    version++;
    std::string want = std::to_string(version) + ":" + point;
    for (int via = 0; via < 3; via++) EXPECT_EQ(Get("v", via), want) << "through node " << via;
  }
}

TEST_F(ZeldCluster, NodesAndDisksChangeWhileAWriterLoops) {
  Up(4, 2, 3, 1);
  std::atomic<bool> stop{false};
  std::atomic<int> writes{0}, failures{0};
  std::thread writer([&] {
    for (int i = 0; !stop && i < 2000; i++) {
      int rc = Put("w", std::to_string(i));
      writes++;
      if (rc != 0) failures++;
    }
  });
  std::string three = c_->location(0) + "," + c_->location(1) + "," + c_->location(2);
  RunResult r = c_->kxzel({"chnodes", "-n", three + "," + c_->location(3)});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  r = c_->kxzel({"chdisks", "-d", c_->diskPath(1)});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  // Replace node 3 by node 4.
  r = c_->kxzel({"chnodes", "-n", c_->location(0) + "," + c_->location(1) + "," + c_->location(3)});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  stop = true;
  writer.join();
  EXPECT_GT(writes.load(), 0);
  EXPECT_EQ(failures.load(), 0) << "of " << writes.load();
  r = c_->kxzel({"lsnodes"});
  EXPECT_NE(r.out.find(c_->location(3)), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find(c_->location(2)), std::string::npos) << r.out;
  r = c_->kxzel({"lsdisks"});
  EXPECT_NE(r.out.find(c_->diskPath(1)), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find(c_->diskPath(0)), std::string::npos) << r.out;
  // A client that knows one old node learns the new list by discovery.
  TempDir late;
  ASSERT_EQ(mkdir(late.file("committed").c_str(), 0755), 0);
  WriteFile(late.file("zel.nodes"), "1,0,127.0.0.1," + std::to_string(c_->port(0)) + ",n1\n");
  // Node 1 may still be fetching the new list (it answers 819 until then), and
  // this client knows no other node: it asks again, as an administrator would.
  for (int i = 0; i < 20; i++) {
    r = RunCommand({KxzelTestBin(), "refresh"}, {{"ZEL_BASE", late.path()}});
    if (r.exitStatus != 157) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_NE(ReadFile(late.file("zel.nodes")).find(std::to_string(c_->port(3))), std::string::npos)
      << ReadFile(late.file("zel.nodes"));
  // The removed node is not needed; the added one serves.
  c_->kill9(2);
  c_->kill9(0);
  EXPECT_EQ(Put("after", "change"), 0);
  EXPECT_EQ(Get("after", 3), "1:change");
}

long long NowUs() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

TEST_F(ZeldCluster, HistoriesUnderNodeKillsAreLinearizable) {
  Up(3, 0);
  unsigned seed = static_cast<unsigned>(NowUs());
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mutex mu;
  std::vector<lin::Op> history;
  std::atomic<bool> stop{false};
  auto client = [&](int id) {
    std::mt19937 rng(seed + static_cast<unsigned>(id));
    for (int i = 0; !stop; i++) {
      lin::Op op;
      op.client = id;
      op.name = "k" + std::to_string(rng() % 2);
      int via = static_cast<int>(rng() % 3);
      int pick = static_cast<int>(rng() % 3);
      std::vector<std::string> args;
      if (pick == 0) {
        op.kind = lin::Op::kGet;
        args = {"vget", op.name};
      } else {
        op.kind = pick == 1 ? lin::Op::kPut : lin::Op::kCondPut;
        op.value = std::to_string(id) + "." + std::to_string(i);
        op.expected = static_cast<int>(rng() % 4);
        if (pick == 1)
          args = {"vput", op.name, op.value};
        else
          args = {"vput", "-c", std::to_string(op.expected), op.name, op.value};
      }
      op.invoke = NowUs();
      RunResult r = c_->kxzel(args, via, 30000);
      long long done = NowUs();
      if (op.kind == lin::Op::kGet) {
        size_t at = r.out.rfind("vget:");
        if (r.exitStatus == 152) {
          op.outcome = lin::Op::kAbsent;
        } else if (r.exitStatus == 0 && at != std::string::npos) {
          std::string line = r.out.substr(at + 5);
          line = line.substr(0, line.find('\n'));
          op.version = atoi(line.c_str());
          op.value = line.substr(line.find(':') + 1);
        } else {
          continue;  // a read that failed says nothing
        }
        op.complete = done;
      } else if (r.exitStatus == 0 || r.exitStatus == 153) {
        op.outcome = r.exitStatus == 0 ? lin::Op::kOk : lin::Op::kRefused;
        op.complete = done;
      } else {
        op.outcome = lin::Op::kUnknown;
      }
      std::lock_guard<std::mutex> g(mu);
      history.push_back(op);
    }
  };
  std::vector<std::thread> clients;
  for (int id = 0; id < 3; id++) clients.emplace_back(client, id);
  std::mt19937 rng(seed);
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(8);
  while (std::chrono::steady_clock::now() < until) {
    int victim = static_cast<int>(rng() % 3);
    c_->kill9(victim);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    ASSERT_TRUE(c_->restart(victim));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
  stop = true;
  for (std::thread& t : clients) t.join();
  int ok = 0;
  for (const lin::Op& op : history) ok += op.outcome != lin::Op::kUnknown;
  EXPECT_GT(ok, 30) << "too few operations completed";
  lin::Verdict v = lin::CheckLinearizable(history);
  EXPECT_EQ(v.kind, lin::Verdict::kLinearizable) << v.name << ": " << v.explanation;
}

}  // namespace

#endif  // ZELD_TESTINSTALL_BIN
