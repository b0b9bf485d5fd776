#include "zel/zelfiles.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "support/testutil.h"

namespace {

TEST(ZelFilesTest, PathSplitting) {
  struct {
    const char* path;
    const char* file;
    const char* dir;
  } cases[] = {{"/x/y/z", "z", "/x/y"}, {"z", "", "."},      {"/z", "z", "/"},
               {"a/b/", "", "a"},       {"/x/y/", "", "/x"}, {"", "", "."}};
  for (const auto& c : cases) {
    EXPECT_EQ(ParseFileNameFromPath(c.path), c.file) << c.path;
    EXPECT_EQ(ParseDirFromPath(c.path), c.dir) << c.path;
  }
}

TEST(ZelFilesTest, RenamePolicies) {
  TempDir d;
  std::string src = d.file("src"), dst = d.file("dst");
  // Replace: the new copy wins.
  WriteFile(src, "new");
  WriteFile(dst, "old");
  EXPECT_EQ(renameReplaceIfTargetExists(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(PathExists(src));
  // Skip: the first copy wins and the source goes.
  WriteFile(src, "newer");
  EXPECT_EQ(renameSkipIfTargetExists(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(PathExists(src));
  // A directory target is not skipped: the rename is attempted and fails.
  WriteFile(src, "y");
  ASSERT_EQ(mkdir(d.file("dir").c_str(), 0755), 0);
  EXPECT_EQ(renameSkipIfTargetExists(src, d.file("dir")), EISDIR);
  EXPECT_TRUE(PathExists(src));
  EXPECT_EQ(renameReplaceIfTargetExists(d.file("missing"), dst), ENOENT);
}

}  // namespace
