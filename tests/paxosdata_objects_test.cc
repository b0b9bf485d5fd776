#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "zel/paxosdata.h"
#include "zel/zelerr.h"
#include "zel/zellock.h"

namespace {

TEST(ZelObjectInfoTest, GoldenBytesAndText) {
  ZelObjectInfoList all;
  all.add(ZelObjectInfo(2, 3, "n", ""));
  all.add(ZelObjectInfo(2, 0, "n", "v"));
  all.add(ZelObjectInfo(1, -1, "f", ""));
  ExpectGolden(all, "03 02 04 6E 00 00 02 01 6E 00 76 00 01 00 66 00");
  EXPECT_EQ(all.toString(), "[(2, v3, n, ), (2, v0, n, v), (1, v-1, f)]");
}

TEST(FileIdMapTest, GoldenBytes) {
  FileIdMap m;
  m[1] = FileItem{"zel.nodes", "x", 3};
  m[200] = FileItem{"b", "", 0};
  ExpectGolden(m, "02 01 7A 65 6C 2E 6E 6F 64 65 73 00 78 00 03 80 48 62 00 00 00");
}

TEST(FillZelObjectInfoListTest, FilesThenValues) {
  CommittedState s;
  s.fileList[2] = FileVersion(4, UpdateId(1, 1, 1), 0);
  s.fileList[1] = FileVersion(3, UpdateId(1, 1, 2), 0);
  s.valueList["b"] = ValueVersion{2, "vb"};
  s.valueList["a"] = ValueVersion{1, ""};
  FileIdMap m;
  for (int id : {1, 2}) m[id] = FileItem{id == 1 ? "one" : "two", "", 0};
  ZelObjectInfoList l;
  l.add(ZelObjectInfo(2, 1, "stale", ""));
  EXPECT_EQ(fillZelObjectInfoList(&l, s, m), 0);
  EXPECT_EQ(l.toString(), "[(1, v3, one), (1, v4, two), (2, v1, a, ), (2, v2, b, vb)]");
  m.erase(2);
  EXPECT_EQ(fillZelObjectInfoList(&l, s, m), E_INVAL);
}

TEST(ZelFxFerMapTest, AddReplacesAndLooksUp) {
  ZELLockInit();
  ZelFxFerMap m;
  ZelFxFerKey k{1, 2};
  EXPECT_EQ(m.add(k, FileVersion(1, UpdateId(), 10)), 0);
  EXPECT_EQ(m.add(k, FileVersion(2, UpdateId(), 20)), 1);
  FileVersion fv;
  EXPECT_EQ(m.getFxFerInfo(k, &fv), 1);
  EXPECT_EQ(fv, FileVersion(2, UpdateId(), 20));
  EXPECT_EQ(m.getFxFerInfo(ZelFxFerKey{2, 1}, &fv), 0);
  EXPECT_DEATH(m.getFxFerInfo(k, nullptr), "assertion 'zelFxFerInfoP != NULL' failed");
}

}  // namespace
