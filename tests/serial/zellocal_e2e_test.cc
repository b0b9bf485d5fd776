// zel-local end to end: a real repository of zeld-testinstall nodes driven by the
// real kxzel-testinstall, stopped, restarted and taken down with no process left.
// Runs under the /tmp/zel.nodes lock: zel-local up runs kxzel init.
#ifdef ZEL_LOCAL_E2E

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <regex>
#include <sstream>

#include "gtest/gtest.h"
#include "support/testutil.h"

namespace {

std::string Slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

// Live processes whose environment names a ZEL_BASE under dir. Zombies count as
// gone (and are reaped: the test is their subreaper).
std::vector<int> ProcessesUnder(const std::string& dir) {
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  std::vector<int> pids;
  DIR* d = opendir("/proc");
  if (d == nullptr) return pids;
  while (dirent* e = readdir(d)) {
    int pid = atoi(e->d_name);
    if (pid <= 0) continue;
    std::string base = "/proc/" + std::to_string(pid);
    std::string stat = Slurp(base + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] == 'Z') continue;
    std::string env = Slurp(base + "/environ");
    if (env.find("ZEL_BASE=" + dir) != std::string::npos) pids.push_back(pid);
  }
  closedir(d);
  return pids;
}

class ZelLocalE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    // Nodes outlive zel-local; as their subreaper this test can reap them.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    dir_ = tmp_.path() + "/repo";
  }
  void TearDown() override {
    Local({"down", dir_});
    for (int pid : ProcessesUnder(dir_)) kill(pid, SIGKILL);
  }

  RunResult Local(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ZEL_LOCAL_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv, {}, 120000);
  }
  RunResult Kx(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {KxzelTestBin()};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv, {{"ZEL_BASE", base_}, {"ZEL_PORT", port_}}, 60000);
  }

  TempDir tmp_;
  std::string dir_, base_, port_;
};

TEST_F(ZelLocalE2E, UpStopStartDownLeavesNothingRunning) {
  RunResult up = Local({"up", dir_, "-n", "1", "-d", "0"});
  ASSERT_EQ(up.exitStatus, 0) << up.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(up.out, m, std::regex("export ZEL_BASE=(\\S+) ZEL_PORT=(\\d+)\n")))
      << up.out;
  base_ = m[1];
  port_ = m[2];
  EXPECT_EQ(base_, dir_ + "/client");

  EXPECT_EQ(Kx({"vput", "colour", "blue"}).exitStatus, 0);
  RunResult got = Kx({"vget", "colour"});
  EXPECT_EQ(got.exitStatus, 0) << got.err;
  EXPECT_NE(got.out.find("vget:1:blue\n"), std::string::npos) << got.out;

  RunResult st = Local({"status", dir_});
  EXPECT_EQ(st.exitStatus, 0) << st.err;
  EXPECT_TRUE(std::regex_search(st.out, std::regex("\\n +1  " + port_ + " +[0-9]+ +up ")))
      << st.out;
  int pid = atoi(Slurp(dir_ + "/node1.pid").c_str());
  ASSERT_GT(pid, 1);

  // A directory in use is refused, and nothing of it is touched.
  RunResult again = Local({"up", dir_});
  EXPECT_EQ(again.exitStatus, 1);
  EXPECT_NE(again.err.find("is in use: node 1 runs"), std::string::npos) << again.err;

  EXPECT_EQ(Local({"stop", dir_, "1"}).exitStatus, 0);
  EXPECT_EQ(ProcessesUnder(dir_), std::vector<int>{});
  st = Local({"status", dir_});
  EXPECT_EQ(st.exitStatus, 3);
  EXPECT_TRUE(std::regex_search(st.out, std::regex("\\n +1  " + port_ + " +- +down "))) << st.out;

  // Its port taken by someone else: a clear refusal.
  {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(atoi(port_.c_str())));
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    RunResult taken = Local({"start", dir_, "1"});
    EXPECT_EQ(taken.exitStatus, 1);
    EXPECT_NE(taken.err.find("port " + port_ + " of node 1 is taken by another process"),
              std::string::npos)
        << taken.err;
    close(fd);
  }

  RunResult start = Local({"start", dir_, "1"});
  ASSERT_EQ(start.exitStatus, 0) << start.err;
  got = Kx({"vget", "colour"});
  EXPECT_EQ(got.exitStatus, 0) << got.err;
  EXPECT_NE(got.out.find("vget:1:blue\n"), std::string::npos) << got.out;

  RunResult down = Local({"down", dir_});
  EXPECT_EQ(down.exitStatus, 0) << down.err;
  EXPECT_EQ(ProcessesUnder(dir_), std::vector<int>{});
  EXPECT_FALSE(PathExists(dir_ + "/node1.pid"));
  // The data stays for a later start.
  EXPECT_TRUE(PathExists(dir_ + "/node1"));
}

TEST_F(ZelLocalE2E, ANodeThatDoesNotComeUpIsReportedWithItsLog) {
  // A server that cannot use its directory stops at once; up then shows its log
  // and leaves nothing running.
  std::string dir = dir_;
  RunResult up = Local({"up", dir, "-n", "1", "-d", "0"});
  ASSERT_EQ(up.exitStatus, 0) << up.err;
  ASSERT_EQ(Local({"stop", dir, "1"}).exitStatus, 0);
  // A directory where the server's lock file belongs: it cannot lock and stops.
  ASSERT_EQ(::unlink((dir + "/node1/zeld.lock").c_str()) == 0 || errno == ENOENT, true);
  ASSERT_EQ(::mkdir((dir + "/node1/zeld.lock").c_str(), 0755), 0);
  RunResult start = Local({"start", dir, "1"});
  EXPECT_EQ(start.exitStatus, 1);
  EXPECT_NE(start.err.find("node 1 did not come up; the end of " + dir + "/node1.log:"),
            std::string::npos)
      << start.err;
  EXPECT_EQ(ProcessesUnder(dir), std::vector<int>{});
}

}  // namespace

#endif  // ZEL_LOCAL_E2E
