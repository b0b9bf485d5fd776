// The node's file store (committed names, the id map, staging and its
// recovery) and the update id source (epochs never reused, seqs above horizons).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "server/filestore.h"
#include "server/uidsource.h"
#include "support/testutil.h"
#include "support/wirebodies.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

using namespace zeld;

namespace {

struct Store {
  TempDir dir;
  FileStore fs{dir.file("committed"), dir.file("staging"), dir.file("files")};

  // Stages data for uid as an fput would, and returns the decided update.
  ProposedUpdate stage(const std::string& name, int id, int version, const UpdateId& uid,
                       const std::string& data, std::string* path) {
    int fd = -1;
    EXPECT_EQ(fs.createStaging(uid, path, &fd), 0);
    EXPECT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    close(fd);
    return ProposedUpdate(uid, FileUpdate(name, id, 0, Crc(data)), version);
  }
  std::string read(int id, int version, const UpdateId& uid) {
    int fd = -1;
    long long size = 0;
    unsigned int crc = 0;
    if (fs.openVersion(id, version, uid, &fd, &size, &crc) != 0) return "<none>";
    std::string s(static_cast<size_t>(size), '\0');
    EXPECT_EQ(pread(fd, &s[0], s.size(), 0), static_cast<ssize_t>(s.size()));
    close(fd);
    return s;
  }
};

}  // namespace

TEST(ServerFiles, CommittedNamesRoundTrip) {
  struct Case {
    std::string name;
    int id;
    FileVersion fv;
    const char* text;
  } cases[] = {
      {"zel.nodes", 1, FileVersion(3, UpdateId(10, 11, 12), 0x2a), "zel.nodes.1.3.2a.0a0b0c"},
      {"a.b.c", 7, FileVersion(0, UpdateId(1, 2, 200), 0xffffffff), "a.b.c.7.0.ffffffff.01028048"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(CommittedFileName(c.name, c.id, c.fv), c.text);
    std::string name;
    int id = 0;
    FileVersion fv;
    ASSERT_TRUE(ParseCommittedFileName(c.text, &name, &id, &fv)) << c.text;
    EXPECT_EQ(name, c.name);
    EXPECT_EQ(id, c.id);
    EXPECT_EQ(fv, c.fv);
  }
  for (const char* bad : {"x", "a.1.2.3", "a.0.1.2.010203", "a.1.-1.2.010203", "a.1.1.zz.010203",
                          "a.1.1.2.0102", "a.1.01.2.010203", ".1.1.2.010203"}) {
    std::string name;
    int id = 0;
    FileVersion fv;
    EXPECT_FALSE(ParseCommittedFileName(bad, &name, &id, &fv)) << bad;
  }
}

TEST(ServerFiles, IdsAreStableAndDurable) {
  Store st;
  ASSERT_EQ(st.fs.open(), 0);
  CommittedState s;
  s.fileList[9] = FileVersion(1, UpdateId(1, 1, 1), 0);  // an id the map does not know
  int a = 0, b = 0, n = 0;
  ASSERT_EQ(st.fs.idFor("a", s, &a), 0);
  ASSERT_EQ(st.fs.idFor("b", s, &b), 0);
  ASSERT_EQ(st.fs.idFor("zel.nodes", s, &n), 0);
  EXPECT_EQ(a, 10);  // above every id of the map and of the state
  EXPECT_EQ(b, 11);
  EXPECT_EQ(n, 1);
  FileStore again(st.dir.file("committed"), st.dir.file("staging"), st.dir.file("files"));
  ASSERT_EQ(again.open(), 0);
  EXPECT_EQ(again.lookup("a"), 10);
  EXPECT_EQ(again.lookup("b"), 11);
  EXPECT_EQ(again.lookup("c"), -1);
  EXPECT_EQ(again.idMap().getFileName(1), "zel.nodes");

  WriteFile(st.dir.file("files"), "\x05garbage");
  FileStore bad(st.dir.file("committed"), st.dir.file("staging"), st.dir.file("files"));
  EXPECT_EQ(bad.open(), E_BAD_PAXOS_DATA);
}

TEST(ServerFiles, CommitKeepsCurrentAndPreviousVersion) {
  Store st;
  ASSERT_EQ(st.fs.open(), 0);
  std::string path;
  UpdateId u1(1, 5, 1), u2(1, 6, 2), u3(1, 7, 3);
  ASSERT_EQ(st.fs.commit(path, st.stage("f", 2, 1, u1, "one", &path)), 0);
  ASSERT_EQ(st.fs.commit(path, st.stage("f", 2, 2, u2, "two", &path)), 0);
  EXPECT_EQ(st.read(2, 1, u1), "one");
  ASSERT_EQ(st.fs.commit(path, st.stage("f", 2, 3, u3, "", &path)), 0);
  EXPECT_EQ(st.read(2, 1, u1), "<none>");
  EXPECT_EQ(st.read(2, 2, u2), "two");
  EXPECT_EQ(st.read(2, 3, u3), "");
  EXPECT_EQ(st.read(2, 3, u2), "<none>");  // the version and the writer must both match
  EXPECT_EQ(ListDir(st.dir.file("staging")).size(), 0u);
  st.fs.forget(2);
  EXPECT_EQ(ListDir(st.dir.file("committed")), std::vector<std::string>{"f.2.3.ffffffff.010703"});

  // A restarted store indexes the copies it finds, names included.
  FileStore again(st.dir.file("committed"), st.dir.file("staging"), st.dir.file("other-map"));
  ASSERT_EQ(again.open(), 0);
  EXPECT_EQ(again.lookup("f"), 2);
}

TEST(ServerFiles, ReconcileLinksDecidedAndDropsAbandoned) {
  Store st;
  ASSERT_EQ(st.fs.open(), 0);
  int id = 0;
  CommittedState s;
  ASSERT_EQ(st.fs.idFor("kept", s, &id), 0);
  std::string decided, abandoned, corrupt;
  UpdateId u1(1, 5, 1), u2(1, 6, 2), u3(1, 7, 3);
  ProposedUpdate p1 = st.stage("kept", id, 1, u1, "decided data", &decided);
  st.stage("lost", id + 1, 1, u2, "abandoned", &abandoned);
  ProposedUpdate p3 = st.stage("kept2", id, 1, u3, "bytes", &corrupt);
  s.apply(p1);  // decided before the crash, never linked
  WriteFile(st.dir.file("staging/stray"), "x");
  ASSERT_EQ(st.fs.reconcile(s), 0);
  EXPECT_EQ(st.read(id, 1, u1), "decided data");
  EXPECT_EQ(ListDir(st.dir.file("staging")).size(), 0u);
  (void)p3;
}

TEST(ServerUids, EpochsAreNeverReused) {
  TempDir dir;
  CommittedState s;
  UpdateId a, b, c;
  {
    UidSource u(dir.file("epoch"));
    ASSERT_EQ(u.open(3, s), 0);
    ASSERT_EQ(u.nextMain(&a), 0);
    ASSERT_EQ(u.nextMain(&b), 0);
    EXPECT_EQ(a.node, 3);
    EXPECT_EQ(a.epoch, b.epoch);
    EXPECT_LT(a.seq, b.seq);
    ASSERT_EQ(u.newStream(&c), 0);
    EXPECT_NE(c.epoch, a.epoch);
    EXPECT_GT(c.seq, b.seq);
    ASSERT_EQ(u.retireMain(), 0);
    UpdateId d;
    ASSERT_EQ(u.nextMain(&d), 0);
    EXPECT_NE(d.epoch, a.epoch);
    EXPECT_NE(d.epoch, c.epoch);
  }
  // A restart (the state lost nothing of these ids) starts above the whole block.
  UidSource u(dir.file("epoch"));
  ASSERT_EQ(u.open(3, s), 0);
  UpdateId e;
  ASSERT_EQ(u.nextMain(&e), 0);
  EXPECT_GT(e.epoch, c.epoch + kEpochBlock - 2);

  WriteFile(dir.file("epoch"), "12x\n");
  UidSource bad(dir.file("epoch"));
  EXPECT_EQ(bad.open(3, s), E_BAD_PAXOS_DATA);
}

TEST(ServerUids, NewStreamsStartAboveTheHorizon) {
  TempDir dir;
  CommittedState s;
  // 20 streams of another node, then a 21st: the horizon rises to 40.
  for (int i = 0; i < 21; i++) s.addUpdate(UpdateId(9, i + 1, 40 + i));
  ASSERT_EQ(s.updateHorizon, 40);
  s.addUpdate(UpdateId(3, 2000, 100));  // this node, an epoch above anything stored
  UidSource u(dir.file("epoch"));
  ASSERT_EQ(u.open(3, s), 0);
  UpdateId a;
  ASSERT_EQ(u.newStream(&a), 0);
  EXPECT_GT(a.epoch, 2000);
  EXPECT_EQ(s.includes(a), 0);
  ASSERT_EQ(u.nextMain(&a), 0);
  EXPECT_EQ(s.includes(a), 0);
  // Ids the state shows later keep the counter above them.
  CommittedState t = s;
  t.addUpdate(UpdateId(9, 99, 500));
  u.observe(t);
  ASSERT_EQ(u.nextMain(&a), 0);
  EXPECT_GT(a.seq, 500);
}
