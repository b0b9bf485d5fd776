#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/clifixture.h"

namespace {

using CliTest = CliFixture;

// Each usage error: its message, the usage text (under this program's name) and
// status 1.
TEST_F(CliTest, UsageErrors) {
  const std::string bin = KxzelTestBin();
  const std::string usageStart = "Usage: " + bin + " subcommand common-options";
  struct {
    std::vector<std::string> args;
    std::string err;
  } cases[] = {
      // clang-format off
      {{}, ""},
      {{"vget"}, "name parameter missing\n\n"},
      {{"vput", "a"}, "name or value parameter missing\n\n"},
      {{"fget", "a", "b", "c"}, "Too many arguments\n\n"},
      {{"vdel", "a", "b"}, "missing or extraneous arguments\n"},
      {{"chnodes", "extra"}, "-n option missing\n"},
      {{"bogus"}, "Unknown subcommand: 'bogus'"},
      {{"vput", "a", "b", "-c"}, bin + ": option requires an argument -- 'c'\ninvalid option\n"},
      // clang-format on
  };
  for (const auto& c : cases) {
    RunResult r = Run(c.args);
    EXPECT_EQ(std::make_tuple(1, true, c.err),
              std::make_tuple(r.exitStatus, r.out.rfind(usageStart, 0) == 0, r.err));
  }
}

TEST_F(CliTest, StartUpFailures) {
  RunResult r = Run({"fput", "name", dir_.file("missing")});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_EQ("'" + dir_.file("missing") + "' does not exist\n", r.err);

  WriteFile(base_ + "/zel.nodes", "");
  r = Run({"vlist"});
  EXPECT_EQ(156, r.exitStatus);
  EXPECT_EQ("zel node list missing or empty\n", r.err);

  r = RunCommand({KxzelTestBin(), "vlist"}, {{"ZEL_BASE", dir_.file("absent")}});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_EQ("zelBaseDir: " + dir_.file("absent") + "\n", r.out);
  EXPECT_EQ("zelio initialization failed (err 811)\n", r.err);
}

TEST(ProductCliTest, MissingProductDirectoryExitsOne) {
  if (PathExists("/var/kolt")) GTEST_SKIP() << "/var/kolt exists on this machine";
  RunResult r = RunCommand({KxzelBin(), "vlist"}, {{"ZEL_DEBUG", "1"}});
  EXPECT_EQ(1, r.exitStatus);
  EXPECT_EQ("", r.out);
  EXPECT_NE(std::string::npos, r.err.find("Directory /var/kolt not found.\n\n")) << r.err;
}

}  // namespace
