#include <gtest/gtest.h>

#include <string>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "zel/zelmsg.h"

namespace {

using CliDebugTest = CliFixture;

// The body is the word, the argument count and the arguments; each node's
// non-empty answer is printed, and the last node's error is the result.
TEST_F(CliDebugTest, BodiesAnswersAndResult) {
  FakeServer a, b;
  const std::string nodes = "-n" + a.hostPort() + "," + b.hostPort();
  struct {
    std::vector<std::string> args;
    std::string body, answerA, answerB, out;
    int status;
  } cases[] = {
      {{"echo", nodes}, S("echo") + V(0, 0), "hi", "", "hi\n", 0},
      {{"trace", nodes, "zel", "5"}, S("trace") + V(2, 0) + S("zel") + S("5"), "", "t", "t\n", 0},
      {{"netdown", nodes, "1"}, S("netdown") + V(1, 0) + S("1"), "x", "", "x\n", 149},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    a.expect(MSG_TYPE_DEBUG, c.body).reply(MSG_TYPE_OK, c.answerA);
    if (c.status == 0) {
      b.expect(MSG_TYPE_DEBUG, c.body).reply(MSG_TYPE_OK, c.answerB);
    } else {
      b.expect(MSG_TYPE_DEBUG, c.body).replyFailed(22);
    }
    RunResult r = Run(c.args);
    EXPECT_EQ(r.exitStatus, c.status);
    EXPECT_EQ(r.out, BaseLine() + c.out);
    EXPECT_TRUE(a.waitDone(3000) && b.waitDone(3000));
  }
}

}  // namespace
