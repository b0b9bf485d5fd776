// A test installation for running the built command: a fresh repository
// directory with committed/, the node list in nodes_ and an empty disk list.
#ifndef TESTS_SUPPORT_CLIFIXTURE_H
#define TESTS_SUPPORT_CLIFIXTURE_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/testutil.h"

class CliFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = dir_.file("repo");
    ASSERT_EQ(0, mkdir(base_.c_str(), 0755));
    ASSERT_EQ(0, mkdir((base_ + "/committed").c_str(), 0755));
    WriteFile(base_ + "/zel.nodes", nodes_);
    WriteFile(base_ + "/zel.disks", "");
  }
  // Runs the test installation's binary with ZEL_BASE pointing here.
  RunResult Run(std::vector<std::string> args, EnvList env = {}) {
    args.insert(args.begin(), KxzelTestBin());
    env.push_back({"ZEL_BASE", base_});
    RunResult r = RunCommand(args, env, 30000);
    EXPECT_FALSE(r.timedOut);
    return r;
  }
  std::string BaseLine() const { return "zelBaseDir: " + base_ + "\n"; }

  std::string nodes_ = "1,0,127.0.0.1,,self\n";  // this host is node 1
  TempDir dir_;
  std::string base_;
};

#endif  // TESTS_SUPPORT_CLIFIXTURE_H
