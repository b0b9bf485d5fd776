#include <gtest/gtest.h>

#include <stdlib.h>

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

  // An empty disk directory is a note; a port of 0 or below means none given.
  ZelSettings t;
  testing::internal::CaptureStderr();
  ASSERT_EQ(0, Parse({"kxzel", "init", "-D", "", "-P", "-3", "-c", "0"}, &t));
  EXPECT_EQ("No directory for disks specified", testing::internal::GetCapturedStderr());
  EXPECT_EQ(-3, t.portOpt);
}

// Every value that is not a number in range is refused with its text named:
// nothing is read as 0, wrapped to 32 bits or left to abort later.
TEST(OptionsTest, MalformedNumbersAreUsageErrors) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"vput", "-c", "abc"}, "invalid value 'abc' for -c (a number from -1 to 2147483646)"},
      {{"vput", "-c", "4294967297"},
       "invalid value '4294967297' for -c (a number from -1 to 2147483646)"},
      {{"vput", "-c", "-2"}, "invalid value '-2' for -c (a number from -1 to 2147483646)"},
      {{"vput", "-c", "2147483647"},
       "invalid value '2147483647' for -c (a number from -1 to 2147483646)"},
      {{"vput", "-v", "-2"}, "invalid value '-2' for -v (a number from -1 to 2147483646)"},
      {{"vput", "-v", "1x"}, "invalid value '1x' for -v (a number from -1 to 2147483646)"},
      {{"vput", "-c", " 5"}, "invalid value ' 5' for -c (a number from -1 to 2147483646)"},
      {{"vput", "-c", ""}, "invalid value '' for -c (a number from -1 to 2147483646)"},
      {{"vlist", "-P", "abc"}, "invalid value 'abc' for -P (a number from -2147483648 to 65535)"},
      {{"vlist", "-P", "65536"},
       "invalid value '65536' for -P (a number from -2147483648 to 65535)"},
      {{"init", "-f", "9999999999"},
       "invalid value '9999999999' for -f (a number from -2147483648 to 2147483647)"},
      {{"init", "-c", "-1"},
       "invalid cluster id '-1' for -c (a number from 0 to "
       "18446744073709551615)"},
      {{"init", "-c", "18446744073709551616"},
       "invalid cluster id '18446744073709551616' for -c (a number from 0 to "
       "18446744073709551615)"},
      {{"init", "-D", "rel/dir"}, "disk directory 'rel/dir' is not an absolute path"},
  };
  for (const auto& [words, want] : cases) {
    std::vector<std::string> line = {"kxzel"};
    line.insert(line.end(), words.begin(), words.end());
    ZelSettings s;
    EXPECT_EQ(-1, Parse(line, &s)) << want;
    EXPECT_EQ(want, s.usageError);
  }
  // The edges that are in range.
  ZelSettings s;
  ASSERT_EQ(0, Parse({"kxzel", "vput", "-c", "-1", "-v", "2147483646", "-P", "65535"}, &s));
  EXPECT_EQ(std::make_tuple(-1, 2147483646, 65535),
            std::make_tuple(s.condVersion, s.storeVersion, s.portOpt));
}

TEST(OptionsTest, MalformedEnvironmentIsNamed) {
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"ZEL_PORT", "abc", "invalid value 'abc' for ZEL_PORT (a number from 1 to 65535)"},
      {"ZEL_PORT", "0", "invalid value '0' for ZEL_PORT (a number from 1 to 65535)"},
      {"ZEL_PORT", "70000", "invalid value '70000' for ZEL_PORT (a number from 1 to 65535)"},
      {"ZEL_PORT", "7000", ""},
      {"ZEL_PORT", "", ""},  // empty counts as not set
      {"ZEL_DEBUG", "x",
       "invalid value 'x' for ZEL_DEBUG (a number from -2147483648 to "
       "2147483647)"},
      {"ZEL_DEBUG", "-1", ""},
      {"ZEL_TRACE", "256", "invalid value '256' for ZEL_TRACE (a number from 0 to 255)"},
      {"ZEL_TRACE", "255", ""},
  };
  for (const auto& [name, value, want] : cases) {
    setenv(name, value, 1);
    EXPECT_EQ(want, checkEnvironment()) << name << "=" << value;
    unsetenv(name);
  }
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
