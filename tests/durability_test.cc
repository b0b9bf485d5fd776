// What a crash or a failing disk must not be able to do to the files this
// client writes: the steps of a replacement and their order, seen through the
// file-system seam, and the clean-up of temporary files.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "support/samples.h"
#include "support/testutil.h"
#include "zel/paxosdata.h"
#include "zel/zelfiles.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

namespace {

// Records every durability step and fails the one named by failStep.
class RecordingFs : public PlatFsOps {
 public:
  RecordingFs() { old_ = PlatSetFsOps(this); }
  ~RecordingFs() override { PlatSetFsOps(old_); }
  int fsync(int fd) override {
    return step("fsync " + pathOf(fd), [&] { return real_.fsync(fd); });
  }
  int rename(const char* from, const char* to) override {
    return step(std::string("rename ") + from + " " + to, [&] { return real_.rename(from, to); });
  }
  int syncDir(const char* dir) override {
    return step(std::string("syncdir ") + dir, [&] { return real_.syncDir(dir); });
  }
  std::vector<std::string> steps;
  std::string failStep;  // "fsync", "rename" or "syncdir"

 private:
  int step(const std::string& what, const std::function<int()>& doIt) {
    steps.push_back(what);
    if (!failStep.empty() && what.compare(0, failStep.size() + 1, failStep + " ") == 0) return EIO;
    return doIt();
  }
  static std::string pathOf(int fd) {
    char link[64], buf[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, buf, sizeof buf - 1);
    return n < 0 ? "?" : std::string(buf, static_cast<size_t>(n));
  }
  PlatFsOps real_;
  PlatFsOps* old_;
};

// One writer of each kind the client has, writing `version` of its contents.
struct Writer {
  const char* name;
  const char* file;
  std::function<int(int version)> write;
};

class DurabilityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetZELIOForTest();
    zelPaxosLFDClientPath = dir_.file("zel.paxos");
  }
  void TearDown() override { ResetZELIOForTest(); }

  std::vector<Writer> writers() {
    return {
        {"state file", "zel.paxos", [](int v) { return storePFDToFile(v, SampleState(), 0); }},
        {"node list", "zel.nodes",
         [this](int v) {
           return writeNodeList(dir_.file("zel.nodes"),
                                {Node(v, "n", NodeLocation("10.0.0.1", 1191))});
         }},
        {"disk list", "zel.disks",
         [this](int v) {
           return writeDiskList(dir_.file("zel.disks"), {{v, ZELDisk("/d", 0)}});
         }},
    };
  }
  TempDir dir_;
};

TEST_F(DurabilityTest, TemporarySyncRenameDirectorySyncInThatOrder) {
  for (const Writer& w : writers()) {
    RecordingFs fs;
    ASSERT_EQ(0, w.write(1)) << w.name;
    std::string target = dir_.file(w.file), tmp = tmpFileName(target);
    EXPECT_EQ((std::vector<std::string>{"fsync " + tmp, "rename " + tmp + " " + target,
                                        "syncdir " + dir_.path()}),
              fs.steps)
        << w.name;
  }
  EXPECT_EQ((std::vector<std::string>{"zel.disks", "zel.nodes", "zel.paxos"}),
            ListDir(dir_.path()));
}

// A failed sync or rename is a failure, leaves the old contents in place and
// no temporary file behind.
TEST_F(DurabilityTest, FailedStepIsReportedAndKeepsOldContents) {
  for (const char* step : {"fsync", "rename"}) {
    for (const Writer& w : writers()) {
      ASSERT_EQ(0, w.write(1));
      std::string before = ReadFile(dir_.file(w.file));
      RecordingFs fs;
      fs.failStep = step;
      EXPECT_EQ(EIO, w.write(2)) << w.name << " " << step;
      EXPECT_EQ(before, ReadFile(dir_.file(w.file))) << w.name << " " << step;
      EXPECT_FALSE(PathExists(tmpFileName(dir_.file(w.file)))) << w.name << " " << step;
    }
  }
}

TEST(AtomicReplaceTest, ReplacesALinkInsteadOfFollowingIt) {
  TempDir d;
  WriteFile(d.file("victim"), "precious");
  ASSERT_EQ(0, symlink(d.file("victim").c_str(), d.file("list").c_str()));
  // A link planted at the temporary name is not followed either.
  ASSERT_EQ(0, symlink(d.file("victim").c_str(), PlatTmpName(d.file("list")).c_str()));
  ASSERT_EQ(0, PlatAtomicReplace(d.file("list"), "new\n", 4, 0644));
  EXPECT_EQ("precious", ReadFile(d.file("victim")));
  EXPECT_EQ("new\n", ReadFile(d.file("list")));
  struct stat st;
  ASSERT_EQ(0, lstat(d.file("list").c_str(), &st));
  EXPECT_TRUE(S_ISREG(st.st_mode));
}

// The children below do more than exec, which is only safe while this
// process has no other thread.
bool SingleThreaded() {
  return ListDir("/proc/self/task").size() == 1;
}

TEST(TempFileTest, StaleTemporariesOfDeadProcessesGo) {
  if (!SingleThreaded()) GTEST_SKIP() << "other threads are running";
  TempDir d;
  std::string target = d.file("LOCAL");
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_GT(dead, 0);
  ASSERT_EQ(dead, waitpid(dead, nullptr, 0));
  const std::string deadTmp = target + ".tmp." + std::to_string(dead) + ".7";
  const std::string liveTmp = target + ".tmp." + std::to_string(getppid()) + ".7";
  const std::string others[] = {target + ".tmp.x.7", target + ".tmp." + std::to_string(dead),
                                d.file("OTHER.tmp." + std::to_string(dead) + ".7")};
  for (const std::string& p : {deadTmp, liveTmp}) WriteFile(p, "partial");
  for (const std::string& p : others) WriteFile(p, "not ours");
  PlatTempFile tmp;
  ASSERT_EQ(0, tmp.create(target, 0600));
  EXPECT_FALSE(PathExists(deadTmp));
  EXPECT_TRUE(PathExists(liveTmp));
  for (const std::string& p : others) EXPECT_TRUE(PathExists(p)) << p;
  // Destroyed unreleased: removed.
  std::string path = tmp.path();
  tmp.remove();
  EXPECT_FALSE(PathExists(path));
}

// A process stopped by SIGINT or SIGTERM while it holds a temporary file
// takes the file with it.
TEST(TempFileTest, StopSignalRemovesOpenTemporaries) {
  if (!SingleThreaded()) GTEST_SKIP() << "other threads are running";
  for (int sig : {SIGINT, SIGTERM}) {
    TempDir d;
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    pid_t child = fork();
    if (child == 0) {
      PlatInstallTempCleanup();
      PlatTempFile tmp;
      if (tmp.create(d.file("LOCAL"), 0644) != 0) _exit(3);
      if (write(ready[1], "x", 1) != 1) _exit(4);
      for (;;) pause();
    }
    ASSERT_GT(child, 0);
    close(ready[1]);
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1));
    close(ready[0]);
    EXPECT_EQ(1u, ListDir(d.path()).size());
    kill(child, sig);
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig);
    EXPECT_TRUE(ListDir(d.path()).empty()) << sig;
  }
}

TEST(RemoveTreeTest, RemovesExactlyTheNamedDirectory) {
  TempDir d;
  // A name with a space, next to what a shell would have split it into.
  std::string dir = d.file("repo dir");
  for (const char* sub : {"repo", "dir"}) ASSERT_EQ(0, mkdir(d.file(sub).c_str(), 0755));
  ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
  ASSERT_EQ(0, mkdir((dir + "/committed").c_str(), 0755));
  WriteFile(dir + "/committed/f", "x");
  WriteFile(d.file("outside"), "keep");
  // A link inside leads out of the tree: the link goes, not its target.
  ASSERT_EQ(0, symlink(d.path().c_str(), (dir + "/up").c_str()));
  ASSERT_EQ(0, PlatRemoveTree(dir.c_str()));
  EXPECT_EQ((std::vector<std::string>{"dir", "outside", "repo"}), ListDir(d.path()));
  EXPECT_EQ(ENOENT, PlatRemoveTree(dir.c_str()));
}

TEST(OpenRegularTest, RefusesAnythingButARegularFile) {
  TempDir d;
  WriteFile(d.file("f"), "x");
  ASSERT_EQ(0, mkfifo(d.file("fifo").c_str(), 0644));
  const std::pair<std::string, int> cases[] = {
      {d.file("f"), 0}, {d.file("fifo"), EINVAL}, {d.path(), EINVAL}, {d.file("none"), ENOENT}};
  for (const auto& [path, want] : cases) {
    PlatFd fd;
    EXPECT_EQ(want, PlatOpenRegular(path.c_str(), O_RDONLY, fd.out())) << path;
    EXPECT_EQ(want == 0, fd.get() >= 0) << path;
  }
}

TEST(LockFileTest, SecondHolderWaitsThenTimesOut) {
  TempDir d;
  std::string path = d.file("lists.lock");
  PlatLockFile first, second;
  ASSERT_EQ(0, first.lock(path, 0));
  EXPECT_EQ(ETIMEDOUT, second.lock(path, 50));
  first.unlock();
  EXPECT_EQ(0, second.lock(path, 0));
  // Never through a link, never on a FIFO.
  ASSERT_EQ(0, symlink(d.file("elsewhere").c_str(), d.file("link.lock").c_str()));
  ASSERT_EQ(0, mkfifo(d.file("fifo.lock").c_str(), 0644));
  PlatLockFile third;
  EXPECT_EQ(EINVAL, third.lock(d.file("link.lock"), 0));
  EXPECT_FALSE(PathExists(d.file("elsewhere")));
  EXPECT_EQ(EINVAL, third.lock(d.file("fifo.lock"), 0));
}

}  // namespace
