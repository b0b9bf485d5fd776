#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "support/loopback.h"
#include "support/recordcheck.h"
#include "support/seckeys.h"
#include "support/testutil.h"
#include "transport/sectransport.h"
#include "transport/tlsapi.h"
#include "zel/zelerr.h"

namespace {

// Two key pairs and a transport for each, bound to generation 1.
class TransportTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string why = SecTestSkipReason();
    if (!why.empty()) GTEST_SKIP() << why;
    ASSERT_TRUE(SharedTestKey(0) && SharedTestKey(1) && SharedTestKey(2));
    ka_ = *SharedTestKey(0);
    kb_ = *SharedTestKey(1);
    ASSERT_EQ(0, ta_.loadLibrary());
    ASSERT_EQ(0, tb_.loadLibrary());
    ASSERT_EQ(0, ta_.loadKeys({ka_.keyPath, ka_.certPath, "", ""}));
    ASSERT_EQ(0, tb_.loadKeys({kb_.bothPath, kb_.bothPath, "", ""}));  // one file for both
    ta_.bindGenerations(1, -1);
    tb_.bindGenerations(1, -1);
    oldTimeout_ = SecSetTimeoutMs(5000);
  }
  void TearDown() override {
    if (oldTimeout_ > 0) SecSetTimeoutMs(oldTimeout_);
  }

  TempDir dir_;
  TestKey ka_, kb_;
  SecTransport ta_, tb_;
  int oldTimeout_ = 0;
};

// One end of a handshake: its result, the close result and the peer's key id.
struct Side {
  int handshake = -1;
  int close = -1;
  std::string peerId;
  bool blocking = false;  // the socket is blocking again afterwards
};

int RunSide(tls::SSL_CTX* ctx, int fd, bool asServer, Side* side) {
  {
    SecSession ss(tls::Get(), ctx, fd);
    side->handshake = asServer ? ss.accept() : ss.connect();
    std::string der;
    if (side->handshake == 0 && ss.peerPublicKey(&der) == 0) SecKeyId(der, &side->peerId);
    side->close = ss.close();
  }
  side->blocking = (fcntl(fd, F_GETFL) & O_NONBLOCK) == 0;
  return side->handshake == 0 ? side->close : side->handshake;
}

TEST_F(TransportTest, HandshakeShowsPeerKeysThenPlainBytesFlow) {
  tls::SSL_CTX* sctx = tb_.getContext(1);
  tls::SSL_CTX* cctx = ta_.getContext(1);
  ASSERT_TRUE(sctx && cctx);
  Side c, s;
  PairResult r = RunPair([&](int fd) { return RunSide(cctx, fd, false, &c); },
                         [&](int fd) { return RunSide(sctx, fd, true, &s); });
  ta_.releaseContext(cctx);
  tb_.releaseContext(sctx);
  EXPECT_EQ(0, c.handshake);
  EXPECT_EQ(0, s.handshake);
  EXPECT_EQ(0, c.close);
  EXPECT_EQ(0, s.close);
  EXPECT_EQ(kb_.digestHex, HexLower(c.peerId));  // the client sees the server's key
  EXPECT_EQ(ka_.digestHex, HexLower(s.peerId));
  EXPECT_TRUE(c.blocking);
  EXPECT_TRUE(r.plainFlows);
}

// A peer that says nothing, talks nonsense or hangs up ends the step with an
// error: the time-out is small here.
TEST_F(TransportTest, BadPeersEndInAnErrorNotAHang) {
  SecSetTimeoutMs(200);
  tls::SSL_CTX* ctx = ta_.getContext(1);
  ASSERT_NE(nullptr, ctx);
  struct Case {
    const char* name;
    std::string peerSends;  // empty: nothing
    bool peerCloses;
    bool asServer;
    int want;
  } cases[] = {
      {"silent client", "", false, true, ETIMEDOUT},
      {"silent server", "", false, false, ETIMEDOUT},
      {"garbage client", "GET / HTTP/1.0\r\n\r\n", false, true, E_AUTH_FAILED},
      {"garbage server", "HTTP/1.0 400 Bad request\r\n\r\n", false, false, E_AUTH_FAILED},
      {"server alert", std::string("\x15\x03\x03\x00\x02\x02\x28", 7), false, false, E_AUTH_FAILED},
      {"client hangs up", "", true, true, E_CONN_SHUTDOWN},
      {"server hangs up", "", true, false, E_CONN_SHUTDOWN},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    LoopbackPair p;
    ASSERT_TRUE(p.ok());
    int mine = k.asServer ? p.server : p.client;
    int peer = k.asServer ? p.client : p.server;
    if (!k.peerSends.empty()) {
      ASSERT_TRUE(SendAll(peer, k.peerSends));
    }
    if (k.peerCloses) shutdown(peer, SHUT_WR);
    SecSession s(tls::Get(), ctx, mine);
    EXPECT_EQ(k.want, k.asServer ? s.accept() : s.connect());
    EXPECT_EQ(0, s.close());  // nothing to close after a failed handshake
    std::string der;
    EXPECT_EQ(E_AUTH_FAILED, s.peerPublicKey(&der));
  }
  ta_.releaseContext(ctx);
}

TEST_F(TransportTest, ContextsPerGeneration) {
  const TestKey& kn = *SharedTestKey(2);
  SecTransport t;
  ASSERT_EQ(0, t.loadLibrary());
  ASSERT_EQ(0, t.loadKeys({ka_.keyPath, ka_.certPath, kn.keyPath, kn.certPath}));
  EXPECT_TRUE(t.hasNewKey());
  EXPECT_EQ(nullptr, t.getContext(1));  // nothing bound yet
  t.bindGenerations(3, 4);
  tls::SSL_CTX* c3 = t.getContext(3);
  tls::SSL_CTX* c4 = t.getContext(4);
  EXPECT_NE(nullptr, c3);
  EXPECT_NE(nullptr, c4);
  EXPECT_NE(c3, c4);
  EXPECT_EQ(nullptr, t.getContext(0));
  EXPECT_EQ(nullptr, t.getContext(5));
  EXPECT_EQ(nullptr, t.getContext(-1));
  t.releaseContext(c3);
  t.releaseContext(c4);

  // The new pair is optional: a missing file leaves only the committed one.
  ASSERT_EQ(0, t.loadKeys({ka_.keyPath, ka_.certPath, dir_.file("none"), dir_.file("none")}));
  EXPECT_FALSE(t.hasNewKey());
  EXPECT_EQ(nullptr, t.getContext(4));
  tls::SSL_CTX* c = t.getContext(3);
  EXPECT_NE(nullptr, c);
  t.releaseContext(c);
}

TEST_F(TransportTest, KeyLoadingErrors) {
  WriteFile(dir_.file("junk"), "not a key\n");
  struct Case {
    std::string key, cert;
    int want;
  } cases[] = {
      {dir_.file("missing"), ka_.certPath, ENOENT},
      {ka_.keyPath, dir_.file("missing"), ENOENT},
      {ka_.keyPath, kb_.certPath, E_IO},  // the pair does not match
      {dir_.file("junk"), ka_.certPath, E_IO},
      {ka_.keyPath, dir_.file("junk"), E_IO},
  };
  SecTransport t;
  ASSERT_EQ(0, t.loadLibrary());
  for (const Case& k : cases) {
    EXPECT_EQ(k.want, t.loadKeys({k.key, k.cert, "", ""})) << k.key << " " << k.cert;
  }
}

}  // namespace
