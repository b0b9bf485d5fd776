// Version rules and conditions of updates, checked against a state.
#include <gtest/gtest.h>

#include <climits>

#include "server/rules.h"
#include "zel/zelerr.h"

using namespace zeld;

namespace {

CommittedState sample() {
  CommittedState s;
  s.valueList["a"] = ValueVersion{3, "x"};
  s.maxDeletedValueVersion = 7;
  s.fileList[1] = FileVersion(2, UpdateId(1, 1, 1), 0x11);
  s.fileList[5] = FileVersion(4, UpdateId(1, 2, 1), 0x22);
  s.maxDeletedFileVersion = 9;
  s.config = PaxosConfig(NodeList{{1, 0, 0, true}}, DiskList{}, 1);
  s.cfgVersion = 2;
  return s;
}

UpdateAsk ask(const std::string& name, int cond, int ver, int fileId = -1) {
  UpdateAsk a;
  a.uid = UpdateId(1, 3, 10);
  a.name = name;
  a.cond = cond;
  a.newVersion = ver;
  a.fileId = fileId;
  return a;
}

}  // namespace

TEST(ServerRules, ValuePutVersions) {
  struct Case {
    const char* name;
    int cond, ver, rc, want;
  } cases[] = {
      {"a", -1, -1, 0, 8},    // existing: above old and above every deleted version
      {"new", -1, -1, 0, 8},  // new object starts above the highest deleted version
      {"a", 3, -1, 0, 8},
      {"a", 2, -1, E_ZEL_VERSION_MISMATCH, 0},
      {"new", 0, -1, 0, 8},  // condition 0: must not exist
      {"a", 0, -1, E_ZEL_VERSION_MISMATCH, 0},
      {"a", -1, 20, 0, 20},
      {"a", -1, 7, E_ZEL_INVALID_VERSION, 0},
      {"new", -1, 8, 0, 8},
      {"", -1, -1, E_INVAL, 0},
  };
  CommittedState s = sample();
  for (const Case& c : cases) {
    ProposedUpdate u;
    int rc = PrepareValuePut(s, ask(c.name, c.cond, c.ver), &u);
    EXPECT_EQ(rc, c.rc) << c.name << " cond " << c.cond << " ver " << c.ver;
    if (rc == 0) {
      EXPECT_EQ(u.version, c.want) << c.name;
      CommittedState t = s;
      t.apply(u);  // never trips the state's own checks
      EXPECT_EQ(t.valueList[c.name].version, c.want);
    }
  }
}

TEST(ServerRules, DeletionsAndConfig) {
  CommittedState s = sample();
  struct Case {
    const char* what;
    int rc, version;
  };
  ProposedUpdate u;
  Case cases[] = {
      {"vdel a", PrepareValueDel(s, ask("a", -1, -1), &u), 4},
      {"vdel a cond", PrepareValueDel(s, ask("a", 3, -1), &u), 4},
      {"vdel a bad cond", PrepareValueDel(s, ask("a", 1, -1), &u), -1},
      {"vdel absent", PrepareValueDel(s, ask("zz", -1, -1), &u), -1},
      {"fdel 5", PrepareFileDel(s, ask("f", -1, -1, 5), &u), 5},
      {"fdel unknown id", PrepareFileDel(s, ask("f", -1, -1, -1), &u), -1},
      {"fdel zel.nodes", PrepareFileDel(s, ask("zel.nodes", -1, -1, 1), &u), -1},
  };
  int want[] = {0, 0, E_ZEL_VERSION_MISMATCH, E_ZEL_NOT_FOUND, 0, E_ZEL_NOT_FOUND, EPERM};
  for (size_t i = 0; i < sizeof want / sizeof want[0]; i++) {
    EXPECT_EQ(cases[i].rc, want[i]) << cases[i].what;
  }
  ASSERT_EQ(PrepareFileDel(s, ask("f", 4, -1, 5), &u), 0);
  CommittedState t = s;
  t.apply(u);
  EXPECT_EQ(t.fileList.count(5), 0u);
  EXPECT_EQ(t.maxDeletedFileVersion, 9);

  UpdateAsk c = ask("", 2, -1);
  c.config = ConfigUpdate(ConfigData{NodeList{{1, 0, 0, true}, {2, 1, 0, true}}, DiskList{}, 2},
                          true, false);
  ASSERT_EQ(PrepareConfig(s, c, &u), 0);
  EXPECT_EQ(u.version, 3);
  t = s;
  t.apply(u);
  EXPECT_EQ(t.config.nodes.size(), 2u);
  c.cond = 1;
  EXPECT_EQ(PrepareConfig(s, c, &u), E_ZEL_VERSION_MISMATCH);
}

TEST(ServerRules, FilePutNamesAndIds) {
  CommittedState s = sample();
  struct Case {
    const char* name;
    int fileId, cond, ver, rc, want;
  } cases[] = {
      {"f", 5, -1, -1, 0, 10},
      {"f", 5, 4, -1, 0, 10},
      {"f", 5, 3, -1, E_ZEL_VERSION_MISMATCH, 0},
      {"g", 6, -1, -1, 0, 10},
      {"g", 6, -1, 9, E_ZEL_INVALID_VERSION, 0},
      {"zel.nodes", 1, -1, -1, 0, 10},
      {"zel.nodes", 6, -1, -1, E_INVAL, 0},  // the node list is file id 1 and nothing else
      {"other", 1, -1, -1, E_INVAL, 0},
      {"a/b", 6, -1, -1, E_INVAL, 0},
      {"..", 6, -1, -1, E_INVAL, 0},
      {"f", 0, -1, -1, E_INVAL, 0},
  };
  for (const Case& c : cases) {
    ProposedUpdate u;
    UpdateAsk a = ask(c.name, c.cond, c.ver, c.fileId);
    a.crc = 0xabc;
    int rc = PrepareFilePut(s, a, &u);
    EXPECT_EQ(rc, c.rc) << c.name << " id " << c.fileId;
    if (rc == 0) {
      EXPECT_EQ(u.version, c.want);
      CommittedState t = s;
      t.apply(u);
      EXPECT_EQ(t.fileList[c.fileId], FileVersion(c.want, a.uid, 0xabc));
    }
  }
}

TEST(ServerRules, LimitsAreRefusedNotAsserted) {
  CommittedState s;
  s.valueList["max"] = ValueVersion{INT_MAX, ""};
  ProposedUpdate u;
  EXPECT_EQ(PrepareValuePut(s, ask("max", -1, -1), &u), E_ZEL_INVALID_VERSION);
  EXPECT_EQ(PrepareValueDel(s, ask("max", -1, -1), &u), E_ZEL_INVALID_VERSION);
  EXPECT_EQ(PrepareValuePut(s, ask(std::string(kMaxNameBytes + 1, 'n'), -1, -1), &u), E_INVAL);
  // A state that would outgrow one reply body.
  UpdateAsk big = ask("big", -1, -1);
  big.value.assign(kMaxStateBytes, 'v');
  EXPECT_EQ(PrepareValuePut(s, big, &u), EFBIG);
}

TEST(ServerRules, ConfigValidity) {
  struct Case {
    const char* what;
    ConfigData c;
    bool ok;
  } cases[] = {
      {"one node", {NodeList{{1, 0, 0, true}}, DiskList{}, 1}, true},
      {"duplicate id", {NodeList{{1, 0, 0, true}, {1, 1, 0, true}}, DiskList{}, 1}, false},
      {"duplicate slot", {NodeList{{1, 0, 0, true}, {2, 0, 0, true}}, DiskList{}, 1}, false},
      {"slot out of range", {NodeList{{1, 8, 0, true}}, DiskList{}, 1}, false},
      {"no slot", {NodeList{{1, -1, 0, true}}, DiskList{1, 2}, 1}, true},
      {"duplicate disk", {NodeList{{1, 0, 0, true}}, DiskList{1, 1}, 1}, false},
      {"minNodes above count", {NodeList{{1, 0, 0, true}}, DiskList{}, 2}, false},
  };
  for (const Case& c : cases) EXPECT_EQ(ValidConfig(c.c), c.ok) << c.what;
  ConfigData nine;
  for (int i = 0; i < 9; i++) nine.nodes.push_back({i + 1, -1, 0, true});
  nine.minNodes = 1;
  EXPECT_FALSE(ValidConfig(nine));
}
