// zeld end to end: the real kxzel-testinstall against a real zeld-testinstall
// on 127.0.0.1 in temporary directories. Runs under the /tmp/zel.nodes lock:
// kxzel init commits the node list through /tmp/zel.nodes.
#ifdef ZELD_TESTINSTALL_BIN

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "classes/basic/ipaddr.h"
#include "support/seckeys.h"
#include "support/testutil.h"
#include "support/zeldproc.h"

namespace {

class ZeldE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(mkdir(sdir_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(cdir_.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((cdir_ + "/committed").c_str(), 0755), 0);
  }
  bool Start(const EnvList& env = {}) {
    bool ok = server_.start(env);
    EXPECT_TRUE(ok) << server_.log();
    return ok;
  }
  RunResult Kx(const std::vector<std::string>& args, int timeoutMs = 60000) {
    std::vector<std::string> argv = {KxzelTestBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult r = RunCommand(argv, {{"ZEL_BASE", cdir_}}, timeoutMs);
    EXPECT_FALSE(r.timedOut) << args[0];
    return r;
  }
  void Init() {
    RunResult r = Kx({"init", "-c", "77", "-n", "127.0.0.1:" + std::to_string(server_.port())});
    ASSERT_EQ(r.exitStatus, 0) << r.err << server_.log();
  }
  std::string Get(const std::string& name) {
    RunResult r = Kx({"vget", name});
    return r.exitStatus == 0 ? r.out.substr(r.out.find('\n') + 1)
                             : "exit " + std::to_string(r.exitStatus);
  }

  TempDir tmp_;
  std::string sdir_ = tmp_.file("server"), cdir_ = tmp_.file("client");
  ZeldProcess server_{ZELD_TESTINSTALL_BIN, sdir_};
};

TEST_F(ZeldE2E, ValuesWithVersionRulesAndRefusals) {
  ASSERT_TRUE(Start());
  Init();
  struct Step {
    std::vector<std::string> args;
    int exit;
    const char* value;  // what vget a shows afterwards
  } steps[] = {
      {{"vput", "a", "1"}, 0, "vget:1:1\n"},
      {{"vput", "-c", "5", "a", "2"}, 153, "vget:1:1\n"},
      {{"vput", "-v", "1", "a", "2"}, 154, "vget:1:1\n"},
      {{"vput", "-c", "1", "a", "2"}, 0, "vget:2:2\n"},
      {{"vput", "-v", "9", "a", "9"}, 0, "vget:9:9\n"},
      {{"vdel", "-c", "1", "a"}, 153, "vget:9:9\n"},
      {{"vdel", "nope"}, 149, "vget:9:9\n"},
      {{"vdel", "a"}, 0, "exit 149"},
      {{"vput", "a", "again"}, 0, "vget:10:again\n"},  // above the deleted version
  };
  for (const Step& s : steps) {
    RunResult r = Kx(s.args);
    EXPECT_EQ(r.exitStatus, s.exit) << s.args[0] << " " << s.args[1] << ": " << r.err;
    EXPECT_EQ(Get("a"), s.value) << s.args[0] << " " << s.args[1];
  }
}

TEST_F(ZeldE2E, FilesByteForByteWithRefusals) {
  ASSERT_TRUE(Start());
  Init();
  const size_t sizes[] = {0, 1048576, 1048577, 20 * 1048576};
  for (size_t n : sizes) {
    std::string src = tmp_.file("src"), dst = tmp_.file("dst" + std::to_string(n));
    std::string data = Pattern(n, static_cast<int>(n));
    WriteFile(src, data);
    std::string name = "f" + std::to_string(n);
    RunResult r = Kx({"fput", name, src});
    ASSERT_EQ(r.exitStatus, 0) << n << r.err;
    r = Kx({"fget", name, dst});
    ASSERT_EQ(r.exitStatus, 0) << n << r.err;
    EXPECT_TRUE(ReadFile(dst) == data) << n << " bytes differ";
  }
  std::string src = tmp_.file("src");
  WriteFile(src, "v2");
  struct Step {
    std::vector<std::string> args;
    int exit;
  } steps[] = {
      {{"fput", "f0", src}, 0},               // version 2
      {{"fput", "-c", "1", "f0", src}, 153},  // the condition is the old version
      {{"fput", "-v", "2", "f0", src}, 154},  // not above the current one
      {{"fget", "-c", "2", "f0", tmp_.file("x")}, 155},
      {{"fdel", "zel.nodes"}, 149},
      {{"fdel", "f1048576"}, 0},
      {{"fget", "f1048576", tmp_.file("y")}, 149},
      {{"fdel", "f1048576"}, 149},
  };
  for (const Step& s : steps) {
    RunResult r = Kx(s.args);
    EXPECT_EQ(r.exitStatus, s.exit) << s.args[0] << " " << s.args[1] << ": " << r.err;
  }
  RunResult l = Kx({"flist"});
  EXPECT_NE(l.out.find("2  f0"), std::string::npos) << l.out;
  EXPECT_EQ(l.out.find("f1048576 "), std::string::npos) << l.out;
  EXPECT_TRUE(ListDir(sdir_ + "/staging").empty());
}

TEST_F(ZeldE2E, RestartAndKillKeepAcknowledgedUpdates) {
  ASSERT_TRUE(Start());
  Init();
  std::string big = Pattern(20 * 1048576, 3);
  WriteFile(tmp_.file("big"), big);
  ASSERT_EQ(Kx({"fput", "big", tmp_.file("big")}).exitStatus, 0);
  ASSERT_EQ(Kx({"vput", "k", "0"}).exitStatus, 0);
  EXPECT_EQ(server_.stop(), 0);  // SIGTERM: a clean stop
  ASSERT_TRUE(Start());
  EXPECT_EQ(Get("k"), "vget:1:0\n");

  // kill -9 while a writer runs: every acknowledged value survives.
  std::atomic<int> acked{0};
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 1; i <= 40 && !done; i++) {
      if (Kx({"vput", "k", std::to_string(i)}).exitStatus != 0) break;
      acked = i;
    }
  });
  while (acked < 5) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  server_.kill();
  done = true;
  writer.join();
  ASSERT_TRUE(Start());
  RunResult r = Kx({"vget", "k"});
  ASSERT_EQ(r.exitStatus, 0);
  int version = 0, value = 0;
  ASSERT_EQ(sscanf(r.out.c_str() + r.out.find('\n') + 1, "vget:%d:%d", &version, &value), 2);
  EXPECT_GE(value, acked.load());
  EXPECT_EQ(version, value + 1);  // each value written once, in order

  // kill -9 during an fput: the file is whole or absent, nothing half-written.
  std::thread putter([&] { Kx({"fput", "big", tmp_.file("big")}, 60000); });
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  server_.kill();
  putter.join();  // the client gives up after its retries
  ASSERT_TRUE(Start());
  r = Kx({"fget", "big", tmp_.file("back")});
  ASSERT_EQ(r.exitStatus, 0);
  EXPECT_TRUE(ReadFile(tmp_.file("back")) == big);
  EXPECT_TRUE(ListDir(sdir_ + "/staging").empty());
}

TEST_F(ZeldE2E, CrashBetweenDecisionAndLinkRecovers) {
  ASSERT_TRUE(Start());
  Init();
  server_.stop();
  ASSERT_TRUE(Start({{"ZEL_TEST_CRASH_BEFORE_LINK", "1"}}));
  std::string data = Pattern(300000, 9);
  WriteFile(tmp_.file("src"), data);
  std::thread putter([&] { Kx({"fput", "late", tmp_.file("src")}); });
  // The server dies once the update is durable and before its file is linked.
  EXPECT_TRUE(server_.exited(30000));
  server_.kill();
  ASSERT_TRUE(Start());  // the restart links the staged file the state names
  putter.join();
  RunResult r = Kx({"fget", "late", tmp_.file("back")});
  ASSERT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_TRUE(ReadFile(tmp_.file("back")) == data);
}

TEST_F(ZeldE2E, LostReplyIsAppliedOnce) {
  ASSERT_TRUE(Start());
  Init();
  server_.stop();
  ASSERT_TRUE(Start({{"ZEL_TEST_LOSE_REPLIES", "1"}}));
  RunResult r = Kx({"vput", "once", "x"});
  EXPECT_EQ(r.exitStatus, 0) << r.err;
  EXPECT_EQ(Get("once"), "vget:1:x\n");  // retried with its id: one version
  EXPECT_NE(server_.log().find("losing the reply"), std::string::npos);
}

TEST_F(ZeldE2E, ConcurrentConditionalIncrements) {
  ASSERT_TRUE(Start());
  Init();
  ASSERT_EQ(Kx({"vput", "n", "0"}).exitStatus, 0);
  const int kClients = 16, kEach = 3;
  std::atomic<int> failures{0};
  std::vector<std::thread> ts;
  for (int c = 0; c < kClients; c++) {
    ts.emplace_back([&] {
      for (int done = 0, tries = 0; done < kEach && tries < 200; tries++) {
        RunResult g = Kx({"vget", "n"});
        int version = 0, value = 0;
        if (g.exitStatus != 0 ||
            sscanf(g.out.c_str() + g.out.find('\n') + 1, "vget:%d:%d", &version, &value) != 2) {
          failures++;
          return;
        }
        RunResult p = Kx({"vput", "-c", std::to_string(version), "n", std::to_string(value + 1)});
        if (p.exitStatus == 0) done++;
      }
    });
  }
  for (auto& t : ts) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(Get("n"), "vget:" + std::to_string(kClients * kEach + 1) + ":" +
                          std::to_string(kClients * kEach) + "\n");
}

TEST_F(ZeldE2E, BadClientsLeaveTheServerUp) {
  ASSERT_TRUE(Start());
  Init();
  // A second server on the same directory refuses to start.
  ZeldProcess twin(ZELD_TESTINSTALL_BIN, sdir_);
  EXPECT_FALSE(twin.start());
  EXPECT_NE(twin.log().find("another zeld is already serving"), std::string::npos);
  for (const std::string& junk : {std::string(64, 'J'), std::string("\xf3\x68\x90\x38", 4)}) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_storage ss;
    IpAddr ip;
    IpAddr::parse("127.0.0.1", &ip);
    socklen_t len = ip.toSockaddr(server_.port(), &ss);
    ASSERT_EQ(connect(s, reinterpret_cast<sockaddr*>(&ss), len), 0);
    ASSERT_EQ(write(s, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    shutdown(s, SHUT_WR);
    close(s);
  }
  EXPECT_EQ(Kx({"vput", "still", "up"}).exitStatus, 0);
  EXPECT_EQ(Get("still"), "vget:1:up\n");
}

TEST_F(ZeldE2E, AuthenticationOnAndOff) {
  std::string why = SecTestSkipReason();
  if (!why.empty()) GTEST_SKIP() << why;
  const TestKey* k = SharedTestKey(0);
  const TestKey* other = SharedTestKey(1);
  ASSERT_TRUE(k != nullptr && other != nullptr);
  std::string keys =
      "clusterName=test\ncipherList=AUTHONLY\ncommittedKeyGenNumber=1\n"
      "committedPublicKey=\n" +
      k->pubPem;
  for (const std::string& d : {sdir_, cdir_}) {
    WriteFile(d + "/authorized_zel_keys", keys);
    WriteFile(d + "/zel.pem", ReadFile(k->bothPath));
  }
  ASSERT_TRUE(Start());
  Init();
  EXPECT_EQ(Kx({"vput", "sec", "1"}).exitStatus, 0);
  EXPECT_EQ(Get("sec"), "vget:1:1\n");
  // An unlisted key is refused; so is a client with no keys at all.
  WriteFile(cdir_ + "/zel.pem", ReadFile(other->bothPath));
  RunResult r = Kx({"vput", "sec", "2"});
  EXPECT_EQ(r.exitStatus, 149);
  unlink((cdir_ + "/zel.pem").c_str());
  unlink((cdir_ + "/authorized_zel_keys").c_str());
  r = Kx({"vput", "sec", "3"});
  EXPECT_EQ(r.exitStatus, 149);
  EXPECT_EQ(Get("sec"), "vget:1:1\n");  // reads need no authentication
}

}  // namespace

#endif  // ZELD_TESTINSTALL_BIN
