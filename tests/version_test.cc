// Every executable answers --version with its own name and the package version,
// and exits 0 without doing anything else.
#include <string>

#include "gtest/gtest.h"
#include "support/testutil.h"

namespace {

TEST(Version, EveryExecutableNamesItselfAndTheVersion) {
  std::vector<std::string> exes = {KxzelBin(), KxzelTestBin(), ZEL_LOCAL_BIN};
#ifdef ZELD_VERSION_BINS
  for (const char* p : {ZELD_VERSION_BINS}) exes.push_back(p);
#endif
  for (const std::string& exe : exes) {
    std::string name = exe.substr(exe.rfind('/') + 1);
    RunResult r = RunCommand({exe, "--version"}, {}, 10000);
    EXPECT_EQ(r.exitStatus, 0) << name;
    EXPECT_EQ(r.out, name + " " + ZEL_VERSION_TEXT + "\n") << name;
    EXPECT_EQ(r.err, "") << name;
  }
}

TEST(Version, OnlyTheFirstWordAsksForIt) {
  // Anywhere else it is an option like any other: kxzel refuses it.
  RunResult r = RunCommand({KxzelTestBin(), "vget", "--version"}, {}, 10000);
  EXPECT_EQ(r.exitStatus, 1);
  EXPECT_EQ(r.err.find("invalid option") != std::string::npos, true) << r.err;
}

}  // namespace
