// Peer authentication on real connections: keys made at run time, the real
// security state installed into the connection layer, and a fake server that
// authenticates incoming connections with a key pair of its own.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "support/seckeys.h"
#include "support/testutil.h"
#include "support/wiretest.h"
#include "zel/kxcomm.h"
#include "zel/kxsec.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

// The fake server's side: its own transport holding ks; it checks the client's
// key against the process's authorized-keys list under the client's
// generation (1), as a server reading the same file would.
SecTransport* serverSec = nullptr;
std::mutex serverMu;
std::vector<int> serverResults;

int ServerAuth(int sock) {
  tls::SSL_CTX* ctx = serverSec->getContext(1);
  int rc = E_AUTH_FAILED;
  if (ctx != nullptr) {
    SecSession session(tls::Get(), ctx, sock);
    rc = session.accept();
    if (rc == 0) {
      std::string der, id;
      bool listed =
          session.peerPublicKey(&der) == 0 && SecKeyId(der, &id) == 0 && isAuthorizedKey(id, 1);
      if (!listed) rc = E_AUTH_FAILED;
    }
    int closeRc = session.close();
    if (rc == 0) rc = closeRc;
    serverSec->releaseContext(ctx);
  }
  std::lock_guard<std::mutex> g(serverMu);
  serverResults.push_back(rc);
  return rc;
}

std::vector<int> ServerResults() {
  std::lock_guard<std::mutex> g(serverMu);
  return serverResults;
}

std::string Entry(const std::string& name, const TestKey& k) {
  return "clusterName=" + name + "\ncipherList=AUTHONLY\ncommittedKeyGenNumber=1\n" +
         "committedPublicKey=\n" + k.pubPem;
}

class KxAuthTest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    std::string why = SecTestSkipReason();
    if (!why.empty()) GTEST_SKIP() << why;
    kc_ = SharedTestKey(0);
    ks_ = SharedTestKey(1);
    ASSERT_TRUE(kc_ && ks_);
    paths_.keys = {kc_->keyPath, kc_->certPath, "", ""};
    paths_.authKeysPath = dir_.file("authorized_zel_keys");
    oldTimeout_ = SecSetTimeoutMs(5000);
    serverSec = new SecTransport;
    ASSERT_EQ(0, serverSec->loadLibrary());
    ASSERT_EQ(0, serverSec->loadKeys({ks_->keyPath, ks_->certPath, "", ""}));
    serverSec->bindGenerations(1, -1);
    std::lock_guard<std::mutex> g(serverMu);
    serverResults.clear();
  }
  void TearDown() override {
    ShutdownSecurity();
    delete serverSec;
    serverSec = nullptr;
    if (oldTimeout_ > 0) SecSetTimeoutMs(oldTimeout_);
    WireTest::TearDown();
  }
  // Both keys listed: each end accepts the other.
  int InitBoth() {
    WriteFile(paths_.authKeysPath, Entry("home.cl", *kc_) + Entry("srv.cl", *ks_));
    return InitSecurityAt(paths_);
  }
  static FakeServer::Options ServerOpts() {
    FakeServer::Options o;
    o.record6 = true;
    o.keyGenNumber = 1;
    o.authenticateIncoming = ServerAuth;
    return o;
  }

  const TestKey* kc_ = nullptr;  // the client's pair
  const TestKey* ks_ = nullptr;  // the fake server's pair
  TempDir dir_;
  SecPaths paths_;
  int oldTimeout_ = 0;
};

TEST_F(KxAuthTest, ConnectionFromTheCacheCountsAsNew) {
  ASSERT_EQ(0, InitBoth());
  FakeServer srv(ServerOpts());
  srv.expect(MSG_TYPE_VGET, "a").reply(MSG_TYPE_OK);
  srv.expect(MSG_TYPE_VPUT, "b").reply(MSG_TYPE_OK);
  srv.expect(MSG_TYPE_VPUT, "c").reply(MSG_TYPE_OK);
  EXPECT_EQ(0, Request(srv, MSG_TYPE_VGET, "a"));
  EXPECT_TRUE(ServerResults().empty());
  // Taken back from the cache, its first message is vput: the exchange runs.
  EXPECT_EQ(0, Request(srv, MSG_TYPE_VPUT, "b"));
  EXPECT_EQ(std::vector<int>{0}, ServerResults());
  // Still authenticated the next time: no second exchange.
  EXPECT_EQ(0, Request(srv, MSG_TYPE_VPUT, "c"));
  EXPECT_EQ(std::vector<int>{0}, ServerResults());
  EXPECT_EQ(1, srv.connections());
  ASSERT_EQ(1u, outConnectionCache.size());
}

// A refused exchange fails the request before the body is sent, and the
// connection is not cached.
TEST_F(KxAuthTest, RefusedExchanges) {
  const int kDropped = -1;  // the server dropped the connection: 144, reset or pipe
  struct Case {
    const char* what;
    std::string keys;
    bool serverGen;
    int rc;
    std::vector<int> serverResults;  // {-1}: not checked
  } cases[] = {
      // Only the server's key is listed: the server refuses the client.
      {"client key unlisted", Entry("home.cl", *ks_), true, kDropped, {E_AUTH_FAILED}},
      {"server key unlisted", Entry("home.cl", *kc_), true, E_AUTH_FAILED, {-1}},
      {"server sent no generation",
       Entry("home.cl", *kc_) + Entry("srv.cl", *ks_),
       false,
       E_AUTH_PARAMS,
       {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    {
      std::lock_guard<std::mutex> g(serverMu);
      serverResults.clear();
    }
    ShutdownSecurity();
    WriteFile(paths_.authKeysPath, c.keys);
    ASSERT_EQ(0, InitSecurityAt(paths_));
    FakeServer::Options o = ServerOpts();
    o.drainMs = 0;
    if (!c.serverGen) {
      o.record6 = false;
      o.authenticateIncoming = nullptr;
    }
    FakeServer srv(o);
    int rc = Request(srv, MSG_TYPE_VPUT, "name");
    if (c.rc == kDropped) {
      EXPECT_TRUE(rc == -E_CONN_SHUTDOWN || rc == -ECONNRESET || rc == -EPIPE) << rc;
    } else {
      EXPECT_EQ(-c.rc, rc);
    }
    if (c.serverResults != std::vector<int>{-1}) {
      EXPECT_EQ(c.serverResults, ServerResults());
    }
    EXPECT_TRUE(srv.messages().empty());
    EXPECT_EQ(0u, outConnectionCache.size());
  }
}

}  // namespace
