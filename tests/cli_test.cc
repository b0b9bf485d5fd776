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
      // Numbers out of range are named; nothing is created or sent for them.
      {{"vput", "a", "b", "-c", "4294967297"},
       "invalid value '4294967297' for -c (a number from -1 to 2147483646)\n"},
      {{"setup", "-c", "cert", "-n", "h:abc"}, "invalid port 'abc' in 'h:abc'\n"},
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
  // The cause follows the prescribed line.
  EXPECT_EQ("zelio initialization failed (err 811)\n'" + dir_.file("absent") + "' not found\n",
            r.err);
}

// Refused commands leave nothing behind and say what was wrong.
TEST_F(CliTest, RefusedBeforeAnythingIsCreated) {
  const std::string fresh = dir_.file("fresh");
  RunResult r = RunCommand({KxzelTestBin(), "setup"}, {{"ZEL_BASE", fresh}});
  EXPECT_EQ(std::make_tuple(1, std::string("-c paramter missing\n")),
            std::make_tuple(r.exitStatus, r.err));
  EXPECT_FALSE(PathExists(fresh));
  r = RunCommand({KxzelTestBin(), "vlist"}, {{"ZEL_BASE", base_}, {"ZEL_DEBUG", "x"}});
  EXPECT_EQ(std::make_tuple(1, std::string("invalid value 'x' for ZEL_DEBUG (a number from "
                                           "-2147483648 to 2147483647)\n")),
            std::make_tuple(r.exitStatus, r.err));
  // A missing parent: the path in the message and a failure status.
  r = RunCommand({KxzelTestBin(), "setup", "-c", "c"}, {{"ZEL_BASE", dir_.file("no/repo")}});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_EQ("cannot create '" + dir_.file("no/repo") + "': No such file or directory\n", r.err);
}

TEST(ProductCliTest, MissingProductDirectoryExitsOne) {
  if (PathExists("/var/kolt")) GTEST_SKIP() << "/var/kolt exists on this machine";
  // Said without any diagnostics level: exit 1 alone would leave the user guessing.
  RunResult r = RunCommand({KxzelBin(), "vlist"});
  EXPECT_EQ(std::make_tuple(1, std::string(), std::string("Directory /var/kolt not found.\n")),
            std::make_tuple(r.exitStatus, r.out, r.err));
}

}  // namespace
