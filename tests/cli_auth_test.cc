// The auth subcommand of the test installation against fake servers.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

class CliAuthTest : public CliFixture {
 protected:
  CliAuthTest() { nodes_ = "1,0,10.200.0.1,,far\n"; }  // this host is no quorum node
};

std::string Failure(int id, const std::string& name, int err) {
  return "authentication refresh for node " + std::to_string(id) + " (" + name + ") failed (err " +
         std::to_string(err) + ")\n";
}

// Every node is asked, an unreachable one too; the first failure decides.
TEST_F(CliAuthTest, EveryNodeIsAskedAndTheFirstFailureDecides) {
  std::string closed;
  {
    FakeServer gone;
    closed = gone.hostPort();
  }
  FakeServer s1, s3;
  s1.expect(MSG_TYPE_AUTH, "").replyFailed(E_ZEL_VERSION_MISMATCH);
  s3.expect(MSG_TYPE_AUTH, "").reply(MSG_TYPE_OK);
  RunResult r = Run({"auth", "-n", s1.hostPort() + "," + closed + "," + s3.hostPort()});
  EXPECT_EQ(153, r.exitStatus);
  EXPECT_EQ(BaseLine(), r.out);
  // The transport's connect failure has a line of its own.
  std::string err = r.err;
  size_t at = err.find("ZEL: failed to connect to node " + closed);
  ASSERT_NE(std::string::npos, at) << err;
  err.erase(at, err.find('\n', at) + 1 - at);
  EXPECT_EQ(
      Failure(-1, "127.0.0.1", E_ZEL_VERSION_MISMATCH) + Failure(-1, "127.0.0.1", ECONNREFUSED),
      err);
  EXPECT_TRUE(s3.waitDone(3000));
}

TEST_F(CliAuthTest, WithoutNodesThisNodeElseLocalhost) {
  FakeServer srv;
  std::string port = std::to_string(srv.port());
  // The local node list, the expected report.
  const std::pair<std::string, std::string> cases[] = {
      // Not a quorum node: "localhost" on the current port.
      {"1,0,10.200.0.1,,far\n", Failure(-1, "localhost", E_ZEL_VERSION_MATCH)},
      // A quorum node: itself.
      {"1,0,10.200.0.1,,far\n3,0,127.0.0.1," + port + ",self\n",
       Failure(3, "self", E_ZEL_VERSION_MATCH)},
  };
  for (const auto& [nodes, want] : cases) {
    WriteFile(base_ + "/zel.nodes", nodes);
    srv.expect(MSG_TYPE_AUTH, "").replyFailed(E_ZEL_VERSION_MATCH);
    RunResult r = Run({"auth"}, {{"ZEL_PORT", port}});
    EXPECT_EQ(std::make_tuple(r.exitStatus, r.err), std::make_tuple(155, want)) << nodes;
  }
  EXPECT_TRUE(srv.waitDone(3000));
}

}  // namespace
