// The block store file: round trips, torn copies never read as data, and the
// write rules (owner, staleness) it shares with every disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "server/blockstore.h"
#include "server/slotcodec.h"
#include "support/testutil.h"

using namespace zeld;

namespace {

Dblock blockAt(int seq, int round, int nodeId, const NodeList& nodes) {
  Dblock b;
  b.seq = seq;
  b.committed.config.nodes = nodes;
  b.committed.config.minNodes = 1;
  b.mbal = BallotNumber(round, nodeId);
  return b;
}

NodeList twoNodes() {
  return NodeList{{1, 0, 0, true}, {2, 1, 0, true}};
}

// A store file initialised with b in slot, and open.
struct Store {
  TempDir dir;
  std::string path = dir.file("store");
  std::shared_ptr<BlockStore> s;
  std::vector<SlotBlock> out;
  explicit Store(const Dblock& b, int slot = 0) {
    EXPECT_EQ(BlockStore::Init(path, slot, b), 0);
    EXPECT_EQ(reopen(), 0);
  }
  int reopen() {
    s.reset();
    return BlockStore::Open(path, &s);
  }
};

// Flips bits of one byte of the file.
void pokeByte(const std::string& path, off_t off, char mask) {
  int fd = ::open(path.c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  char v = 0;
  ASSERT_EQ(::pread(fd, &v, 1, off), 1);
  v ^= mask;
  ASSERT_EQ(::pwrite(fd, &v, 1, off), 1);
  ::close(fd);
}

TEST(BlockStore, InitOpenWriteReadAndReopen) {
  TempDir dir;
  std::string path = dir.file("store");
  std::shared_ptr<BlockStore> s;
  EXPECT_EQ(BlockStore::Open(path, &s), 2);
  ASSERT_EQ(BlockStore::Init(path, 1, blockAt(0, 0, 0, twoNodes())), 0);
  ASSERT_EQ(BlockStore::Open(path, &s), 0);
  std::vector<SlotBlock> out;
  ASSERT_EQ(s->read(&out), 0);
  ASSERT_EQ(out.size(), static_cast<size_t>(kDiskSlots));
  for (int i = 0; i < kDiskSlots; i++) EXPECT_EQ(out[i].present, i == 1) << i;

  // Several writes alternate copies; the newest is always what is read.
  for (int round = 1; round <= 5; round++) {
    Dblock b = blockAt(0, round, 1, twoNodes());
    ASSERT_EQ(s->writeRead(1, 0, b, &out), 0);
    EXPECT_EQ(out[0].block, b);
  }
  s.reset();
  ASSERT_EQ(BlockStore::Open(path, &s), 0);
  ASSERT_EQ(s->read(&out), 0);
  EXPECT_EQ(out[0].block.mbal, BallotNumber(5, 1));
  EXPECT_TRUE(out[1].present);

  // Init of an existing store empties it.
  s.reset();
  ASSERT_EQ(BlockStore::Init(path, 2, blockAt(3, 0, 0, twoNodes())), 0);
  ASSERT_EQ(BlockStore::Open(path, &s), 0);
  ASSERT_EQ(s->read(&out), 0);
  EXPECT_FALSE(out[0].present);
  EXPECT_EQ(out[2].block.seq, 3);
}

TEST(BlockStore, DamagedNewestCopyFallsBackToThePreviousBlock) {
  // Offsets into the copy last written: in the magic, the length, the
  // generation, the checksum, and the payload.
  const off_t damage[] = {0, 5, 9, 21, kSlotHeaderBytes + 3};
  for (off_t at : damage) {
    Store st(blockAt(0, 0, 0, twoNodes()));                                      // copy 0
    ASSERT_EQ(st.s->writeRead(1, 0, blockAt(0, 7, 1, twoNodes()), &st.out), 0);  // copy 1
    st.s.reset();
    pokeByte(st.path, kSlotRegionBytes + at, '\x5a');
    ASSERT_EQ(st.reopen(), 0);
    ASSERT_EQ(st.s->read(&st.out), 0);
    ASSERT_TRUE(st.out[0].present) << at;
    EXPECT_EQ(st.out[0].block.mbal, BallotNumber(0, 0)) << at;
    // The next write goes over the damaged copy, keeping the good one.
    ASSERT_EQ(st.s->writeRead(1, 0, blockAt(0, 8, 1, twoNodes()), &st.out), 0);
    ASSERT_EQ(st.reopen(), 0);
    ASSERT_EQ(st.s->read(&st.out), 0);
    EXPECT_EQ(st.out[0].block.mbal, BallotNumber(8, 1)) << at;
  }
}

TEST(BlockStore, BothCopiesDamagedMeansAbsent) {
  Store st(blockAt(0, 0, 0, twoNodes()));
  ASSERT_EQ(st.s->writeRead(1, 0, blockAt(0, 2, 1, twoNodes()), &st.out), 0);
  st.s.reset();
  pokeByte(st.path, kSlotHeaderBytes + 1, '\x01');
  pokeByte(st.path, kSlotRegionBytes + kSlotHeaderBytes + 1, '\x01');
  ASSERT_EQ(st.reopen(), 0);
  ASSERT_EQ(st.s->read(&st.out), 0);
  EXPECT_FALSE(st.out[0].present);
}

TEST(BlockStore, WriteRules) {
  NodeList nodes = twoNodes();
  NodeList moved{{1, 0, 0, true}, {3, 1, 0, true}};  // node 3 took node 2's slot
  struct Case {
    const char* name;
    int writer, slot;
    Dblock b;
    int rc;
  } cases[] = {
      {"owner, newer ballot", 1, 0, blockAt(0, 4, 1, nodes), 0},
      {"owner, same block again", 1, 0, blockAt(0, 3, 1, nodes), 0},
      {"owner, older ballot", 1, 0, blockAt(0, 2, 1, nodes), kErrStaleWrite},
      {"not the owner", 2, 0, blockAt(0, 9, 2, nodes), kErrNotOwner},
      {"unknown node", 7, 1, blockAt(0, 9, 7, nodes), kErrNotOwner},
      {"new owner, config it brings", 3, 1, blockAt(1, 0, 0, moved), 0},
      {"new owner, config not yet seen", 3, 1, blockAt(0, 1, 3, moved), kErrNotOwner},
      {"slot out of range", 1, kDiskSlots, blockAt(0, 4, 1, nodes), 22},
  };
  for (const Case& c : cases) {
    Store st(blockAt(0, 3, 1, nodes));
    EXPECT_EQ(st.s->writeRead(c.writer, c.slot, c.b, &st.out), c.rc) << c.name;
    if (c.rc == 22) continue;
    // Refused or not, the reply reads every slot.
    ASSERT_EQ(st.out.size(), static_cast<size_t>(kDiskSlots)) << c.name;
    std::vector<SlotBlock> again;
    ASSERT_EQ(st.s->read(&again), 0);
    if (c.rc == 0) {
      EXPECT_EQ(again[c.slot].block, c.b) << c.name;
    } else {
      EXPECT_EQ(again[0].block.mbal, BallotNumber(3, 1)) << c.name;
    }
  }
}

TEST(BlockStore, OlderSeqIsStaleAndConfigWithoutSlotsLetsAnyoneWrite) {
  Store st(blockAt(4, 0, 0, twoNodes()));
  EXPECT_EQ(st.s->writeRead(1, 0, blockAt(3, 50, 1, twoNodes()), &st.out), kErrStaleWrite);
  Store open(blockAt(0, 0, 0, NodeList()));
  EXPECT_EQ(open.s->writeRead(5, 3, blockAt(0, 1, 5, NodeList()), &open.out), 0);
}

TEST(BlockStore, OversizedBlockIsRefusedAndNothingChanges) {
  Store st(blockAt(0, 0, 0, twoNodes()));
  Dblock big = blockAt(1, 0, 0, twoNodes());
  big.committed.valueList["v"].value.assign(kMaxBlockBytes, 'x');
  EXPECT_EQ(st.s->writeRead(1, 0, big, &st.out), 34);
  ASSERT_EQ(st.s->read(&st.out), 0);
  EXPECT_EQ(st.out[0].block.seq, 0);
}

TEST(SlotCodec, EveryTruncationOfACopyIsRejected) {
  Dblock b = blockAt(2, 3, 1, twoNodes());
  b.committed.valueList["name"] = ValueVersion{4, "value"};
  std::string copy;
  ASSERT_EQ(EncodeSlotCopy(b, 9, 1, &copy), 0);
  SlotHeader h;
  SharedBlock got;
  ASSERT_EQ(DecodeSlotCopy(copy.data(), copy.size(), &h, &got), 0);
  EXPECT_EQ(got, b);
  EXPECT_EQ(h.gen, 9u);
  EXPECT_EQ(h.writerId, 1);
  for (size_t n = 0; n < copy.size(); n++) {
    std::string cut = copy.substr(0, n);  // its own buffer, so ASan sees overreads
    EXPECT_NE(DecodeSlotCopy(cut.data(), cut.size(), &h, &got), 0) << n;
  }
}

}  // namespace
