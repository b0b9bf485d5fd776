// The auth subcommand of the test installation against fake servers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "support/clifixture.h"
#include "support/fakeserver.h"
#include "support/seckeys.h"
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

TEST_F(CliAuthTest, EveryNodeIsAskedAndTheFirstFailureDecides) {
  struct Case {
    int third;  // the third node's error, 0 for success
    int status;
  } cases[] = {{0, 153}, {E_ZEL_VERSION_MATCH, 153}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.third);
    FakeServer s1, s2, s3;
    s1.expect(MSG_TYPE_AUTH, "").reply(MSG_TYPE_OK);
    s2.expect(MSG_TYPE_AUTH, "").replyFailed(E_ZEL_VERSION_MISMATCH);
    if (c.third == 0) {
      s3.expect(MSG_TYPE_AUTH, "").reply(MSG_TYPE_OK);
    } else {
      s3.expect(MSG_TYPE_AUTH, "").replyFailed(c.third);
    }
    RunResult r = Run({"auth", "-n", s1.hostPort() + "," + s2.hostPort() + "," + s3.hostPort()});
    EXPECT_EQ(c.status, r.exitStatus);
    std::string want = Failure(-1, "127.0.0.1", E_ZEL_VERSION_MISMATCH);
    if (c.third != 0) want += Failure(-1, "127.0.0.1", c.third);
    EXPECT_EQ(want, r.err);
    EXPECT_EQ(BaseLine(), r.out);
  }
}

TEST_F(CliAuthTest, WithoutNodesThisNodeElseLocalhost) {
  FakeServer srv;
  std::string port = std::to_string(srv.port());
  struct Case {
    std::string nodes;
    std::string want;
  } cases[] = {
      // Not a quorum node: "localhost" on the current port.
      {"1,0,10.200.0.1,,far\n", Failure(-1, "localhost", E_ZEL_VERSION_MATCH)},
      // A quorum node: itself.
      {"1,0,10.200.0.1,,far\n3,0,127.0.0.1," + port + ",self\n",
       Failure(3, "self", E_ZEL_VERSION_MATCH)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.nodes);
    WriteFile(base_ + "/zel.nodes", c.nodes);
    srv.expect(MSG_TYPE_AUTH, "").replyFailed(E_ZEL_VERSION_MATCH);
    RunResult r = Run({"auth"}, {{"ZEL_PORT", port}});
    EXPECT_EQ(155, r.exitStatus);
    EXPECT_EQ(c.want, r.err);
  }
  EXPECT_TRUE(srv.waitDone(3000));
}

TEST_F(CliAuthTest, UnreachableNodeIsReportedAndTheRestAsked) {
  std::string closedPort;
  {
    FakeServer gone;
    closedPort = std::to_string(gone.port());
  }
  FakeServer srv;
  srv.expect(MSG_TYPE_AUTH, "").reply(MSG_TYPE_OK);
  RunResult r = Run({"auth", "-n", "127.0.0.1:" + closedPort + "," + srv.hostPort()});
  EXPECT_EQ(149, r.exitStatus);
  // The connect failure is traced at level 0 first.
  std::string want = Failure(-1, "127.0.0.1", ECONNREFUSED);
  EXPECT_EQ(0u, r.err.find("ZEL: failed to connect to node 127.0.0.1:" + closedPort)) << r.err;
  ASSERT_GE(r.err.size(), want.size());
  EXPECT_EQ(want, r.err.substr(r.err.find('\n') + 1)) << r.err;
  EXPECT_TRUE(srv.waitDone(3000));
}

// The key set-up of the README, done with the tool; the real binary then
// starts with security ready and announces its generation and cluster.
TEST_F(CliAuthTest, TestInstallationWithKeysStartsSecure) {
  std::string why = SecTestSkipReason();
  if (!why.empty()) GTEST_SKIP() << why;
  TestKey k;
  ASSERT_TRUE(MakeTestKey(dir_.path(), "node", &k));
  WriteFile(base_ + "/zel.pem", ReadFile(k.bothPath));
  ASSERT_EQ(0, chmod((base_ + "/zel.pem").c_str(), 0600));
  WriteFile(base_ + "/authorized_zel_keys",
            "clusterName=test.cl\ncipherList=AUTHONLY\ncommittedKeyGenNumber=1\n"
            "committedPublicKey=\n" +
                k.pubPem);
  FakeServer::Options o;
  o.record6 = true;
  FakeServer srv(o);
  srv.expect(MSG_TYPE_AUTH, "").reply(MSG_TYPE_OK);
  RunResult r = Run({"auth", "-n", srv.hostPort()}, {{"ZEL_DEBUG", "3"}});
  EXPECT_EQ(0, r.exitStatus) << r.err;
  EXPECT_NE(std::string::npos, r.err.find("Auth: secReady 1 cipherList 'AUTHONLY' keyGenNumber 1"))
      << r.err;
  auto g = srv.greetings();
  ASSERT_EQ(1u, g.size());
  EXPECT_TRUE(g[0].hasRecord6);
  EXPECT_EQ(1, g[0].keyGenNumber);
  EXPECT_EQ("test.cl", g[0].clusterName);

  // A broken file stops the start-up before any server is asked.
  WriteFile(base_ + "/authorized_zel_keys", "clusterName=test.cl\ncommittedKeyGenNumber=x\n");
  r = Run({"auth", "-n", srv.hostPort()});
  EXPECT_EQ(149, r.exitStatus);
  EXPECT_NE(std::string::npos, r.err.find("security initialization failed (err 22)\n")) << r.err;
  EXPECT_EQ(1, srv.connections());
}

}  // namespace
