#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "zel/zelcmd.h"
#include "zel/zelerr.h"

namespace {

// Parses a command line given as words (the program name first).
int Parse(std::vector<std::string> words, ZelSettings* s) {
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(&w[0]);
  argv.push_back(nullptr);
  return ParseOptions(static_cast<int>(words.size()), argv.data(), s);
}

TEST(OptionsTest, DashCDependsOnSubcommand) {
  ZelSettings put, init, setup;
  ASSERT_EQ(0, Parse({"kxzel", "vput", "-c", "5", "n", "v"}, &put));
  ASSERT_EQ(0, Parse({"kxzel", "init", "-c", "18446744073709551615"}, &init));
  ASSERT_EQ(0, Parse({"kxzel", "setup", "-c", "5"}, &setup));
  EXPECT_EQ(std::make_tuple(5, 0ull, std::string()),
            std::make_tuple(put.condVersion, put.clusterId, put.certFile));
  EXPECT_EQ(std::make_tuple(-1, 18446744073709551615ull, std::string()),
            std::make_tuple(init.condVersion, init.clusterId, init.certFile));
  EXPECT_EQ(std::make_tuple(-1, 0ull, std::string("5")),
            std::make_tuple(setup.condVersion, setup.clusterId, setup.certFile));
}

TEST(OptionsTest, ValuesListsAndPermutation) {
  ZelSettings s;
  testing::internal::CaptureStderr();
  ASSERT_EQ(
      0, Parse({"prog",  "vput", "name", "-V", "-n", "a,,b", "-Vy", "value", "-p", "c",      "-d",
                "/d1,x", "-P",   "7000", "-v", "3",  "-f",   "9",   "-F",    "-D", "/dev/tb"},
               &s));
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
  EXPECT_EQ((ZelArgs{"name", "value"}), s.args);
  EXPECT_EQ((ZelArgs{"a", "", "b", "c"}), s.nodeArgs);
  EXPECT_EQ((ZelArgs{"/d1", "x"}), s.diskArgs);
  EXPECT_EQ(std::make_tuple(std::string("vput"), 2, true, true, 7000, 3, 9, std::string("/dev/tb")),
            std::make_tuple(s.subcmd, s.traceLevel, s.yOpt, s.force, s.portOpt, s.storeVersion,
                            s.fValue, s.diskDir));

  // An empty disk directory and a non-numeric port.
  ZelSettings t;
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, Parse({"kxzel", "init", "-D", "", "-P", "abc"}, &t));
  EXPECT_EQ("No directory for disks specified", testing::internal::GetCapturedStderr());
  EXPECT_EQ(0, t.portOpt);
}

TEST(OptionsTest, InvalidOptionThenFreshStart) {
  ZelSettings bad, s;
  testing::internal::CaptureStderr();
  EXPECT_EQ(-1, Parse({"kxzel", "vlist", "-x"}, &bad));
  testing::internal::GetCapturedStderr();
  // The parser starts afresh on every call.
  ASSERT_EQ(0, Parse({"kxzel", "vget", "-c", "4", "name"}, &s));
  EXPECT_EQ((ZelArgs{"name"}), s.args);
}

TEST(UsageTest, NamesProgramAndOmitsHiddenSubcommands) {
  std::string u = UsageText("/x/kxzel");
  EXPECT_EQ(0u, u.find("Usage: /x/kxzel subcommand common-options subcommand-options...\n\n"));
  EXPECT_NE(std::string::npos,
            u.find("  fdel [-c version ] name             -- deleted named file"));
  for (const char* hidden : {"readpaxos", "refresh", "show", "quit", "netdown", "config"}) {
    EXPECT_EQ(std::string::npos, u.find(std::string("\n  ") + hidden + " ")) << hidden;
  }
}

}  // namespace
