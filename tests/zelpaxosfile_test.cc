#include "zel/zelpaxosfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>

#include "support/recordcheck.h"
#include "support/samples.h"
#include "support/testutil.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelutils.h"

namespace {

class PaxosFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetProcessState();
    zelPaxosLFDClientPath = dir_.file("zel.paxos");
  }
  void TearDown() override { ResetProcessState(); }
  const std::string& path() const { return zelPaxosLFDClientPath; }

  TempDir dir_;
};

TEST_F(PaxosFileTest, StoreReplacesAtomically) {
  zelNodeId = 3;
  CommittedState s = SampleState();
  ASSERT_EQ(storePFDToFile(5, CommittedState(), 77), 0);
  ASSERT_EQ(storePFDToFile(6, s, 77), 0);
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{"zel.paxos"});
  PaxosHeader h;
  PaxosFileData pfd;
  unsigned long long cid = 0;
  ASSERT_EQ(loadPaxosFile(path(), &pfd, &h, &cid), 0);
  EXPECT_EQ(std::make_tuple(h.fmtVersion, h.cid, h.lastWriterId, size_t{h.len}),
            std::make_tuple(1u, 77ull, 3, ReadFile(path()).size()));
  // A failed store (the temporary name is taken by a directory) keeps the file.
  ASSERT_EQ(mkdir(tmpFileName(path()).c_str(), 0755), 0);
  EXPECT_EQ(storePFDToFile(7, CommittedState(), 77), EEXIST);
  int seq = -1;
  CommittedState back;
  ASSERT_EQ(loadPFDFromFile(&seq, &back, &cid), 0);
  EXPECT_TRUE(seq == 6 && back == s) << seq;
}

TEST_F(PaxosFileTest, ClusterIdCheck) {
  const struct {
    unsigned long long fileCid, knownCid, knownAfter;
    int want;
  } cases[] = {
      {9, 0, 9, 0},                 // the first file read sets the cluster id
      {9, 9, 9, 0},                 // same cluster
      {9, 8, 8, E_BAD_PAXOS_DATA},  // another cluster, although the file decodes
      {0, 8, 8, 0},                 // a file without cluster id is accepted
  };
  for (const auto& c : cases) {
    ASSERT_EQ(storePFDToFile(2, SampleState(), c.fileCid), 0);
    unsigned long long known = c.knownCid;
    int seq = -1;
    CommittedState back;
    EXPECT_EQ(loadPFDFromFile(&seq, &back, &known), c.want) << c.fileCid << " " << c.knownCid;
    EXPECT_EQ(std::make_pair(seq, known), std::make_pair(c.want ? -1 : 2, c.knownAfter));
  }
}

// Every truncation (the empty file included) and a flipped magic, crc or body byte.
TEST_F(PaxosFileTest, DamagedFilesFailWith214) {
  ASSERT_EQ(storePFDToFile(4, SampleState(), 5), 0);
  const std::string good = ReadFile(path());
  std::vector<std::string> bad;
  for (size_t n = 0; n < good.size(); n++) bad.push_back(good.substr(0, n));
  for (size_t pos : {size_t{0}, size_t{5}, good.size() - 1}) {
    bad.push_back(good);
    bad.back()[pos] ^= 0x40;
  }
  for (const auto& b : bad) {
    WriteFile(path(), b);
    int seq = -1;
    CommittedState back;
    unsigned long long cid = 5;
    EXPECT_EQ(loadPFDFromFile(&seq, &back, &cid), E_BAD_PAXOS_DATA) << Hex(b);
    EXPECT_EQ(seq, -1);
  }
  PaxosFileData pfd;
  unsigned long long cid = 0;
  EXPECT_EQ(loadPaxosFile(dir_.file("absent"), &pfd, nullptr, &cid), ENOENT);
  // Only a regular file is read: a directory or a FIFO is refused at once
  // (opening a FIFO for reading would wait for a writer for ever).
  EXPECT_EQ(loadPaxosFile(dir_.path(), &pfd, nullptr, &cid), E_INVAL);
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0644), 0);
  EXPECT_EQ(loadPaxosFile(dir_.file("fifo"), &pfd, nullptr, &cid), E_INVAL);
}

TEST_F(PaxosFileTest, CommittedFilePathForms) {
  zelCommittedDir = "/repo/committed";
  EXPECT_EQ(committedFilePath("f", -2, -1, 0xFFFFFFFF, UpdateId(10, 11, 12)),
            "/repo/committed/f.-2.-1.ffffffff.0a0b0c");
  ProposedUpdate fu(UpdateId(1, 2, 3), FileUpdate("data", 4, 9, 0x100), 0);
  EXPECT_EQ(committedFilePath(fu), "/repo/committed/data.4.0.100.010203");
  CommittedState s = SampleState();
  EXPECT_EQ(committedFilePath("zel.nodes", 5, s), "/repo/committed/zel.nodes.5.6.deadbeef.010203");
  EXPECT_EQ(committedFilePath("zel.disks", 2, s), "");
}

TEST(PaxosFileDeathTest, CommittedFilePathOfAnotherUpdateKind) {
  ProposedUpdate vu(UpdateId(1, 2, 3), ValueUpdate("a", "b"), 1);
  EXPECT_DEATH(committedFilePath(vu),
               "zel/zelpaxosfile:[0-9]+: assertion 'inp.updateType == "
               "ProposedUpdate::fileUpdate' failed");
}

}  // namespace
