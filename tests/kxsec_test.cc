#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/loopback.h"
#include "support/seckeys.h"
#include "support/testutil.h"
#include "support/wiretest.h"
#include "transport/tlsapi.h"
#include "zel/kxcomm.h"
#include "zel/kxsec.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

std::string Bytes(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

std::string Entry(const std::string& name, int cGen, const TestKey* committed, int nGen,
                  const TestKey* fresh) {
  std::string s = "clusterName=" + name + "\ncipherList=AUTHONLY\n";
  if (cGen >= 0) s += "committedKeyGenNumber=" + std::to_string(cGen) + "\n";
  if (committed) s += "committedPublicKey=\n" + committed->pubPem;
  if (nGen >= 0) s += "newKeyGenNumber=" + std::to_string(nGen) + "\n";
  if (fresh) s += "newKeyDigest=\n" + fresh->digestHex + "\n";
  return s;
}

// The fake server authenticates with this process's own keys and list.
int ServerAuth(int sock) {
  return AuthenticateIncomingWith(sock, {1, 1, "AUTHONLY"});
}

class KxsecTest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    std::string why = SecTestSkipReason();
    if (!why.empty()) GTEST_SKIP() << why;
    k1_ = SharedTestKey(0);
    k2_ = SharedTestKey(1);
    kx_ = SharedTestKey(2);
    ASSERT_TRUE(k1_ && k2_ && kx_);
    paths_.keys = {k1_->keyPath, k1_->certPath, k2_->keyPath, k2_->certPath};
    paths_.authKeysPath = dir_.file("authorized_zel_keys");
    oldTimeout_ = SecSetTimeoutMs(5000);
  }
  void TearDown() override {
    ShutdownSecurity();
    if (oldTimeout_ > 0) SecSetTimeoutMs(oldTimeout_);
    WireTest::TearDown();
  }
  int Init(const std::string& keysFile) {
    ShutdownSecurity();
    WriteFile(paths_.authKeysPath, keysFile);
    return InitSecurityAt(paths_);
  }

  // The local committed pair, the local new pair of a key change, and a key
  // that this node does not hold.
  const TestKey *k1_ = nullptr, *k2_ = nullptr, *kx_ = nullptr;
  TempDir dir_;
  SecPaths paths_;
  int oldTimeout_ = 0;
};

PairResult RunAuthPair(const SecAuthParams& client, const SecAuthParams& server) {
  return RunPair([&](int s) { return AuthenticateOutgoingWith(s, client); },
                 [&](int s) { return AuthenticateIncomingWith(s, server); });
}

SecAuthParams P(int aGen, int cGen) {
  return {aGen, cGen, "AUTHONLY"};
}

// A listed key lets the request through. A refused exchange fails the request
// before the body is sent, and the connection is not cached.
TEST_F(KxsecTest, ExchangesOnConnections) {
  const int kRefused = -1;  // 703, or the peer dropped the connection first
  struct {
    const char* what;
    std::string keys;
    bool serverGen;
    int rc;
  } cases[] = {
      {"listed", Entry("home.cl", 1, k1_, -1, nullptr), true, 0},
      {"unlisted", Entry("home.cl", 1, kx_, -1, nullptr), true, kRefused},
      {"no generation from the server", Entry("home.cl", 1, k1_, -1, nullptr), false,
       E_AUTH_PARAMS},
  };
  paths_.keys = {k1_->bothPath, k1_->bothPath, "", ""};  // one file for both
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    outConnectionCache.clear();
    ASSERT_EQ(0, Init(c.keys));
    FakeServer::Options o;
    o.record6 = c.serverGen;
    o.authenticateIncoming = c.serverGen ? ServerAuth : nullptr;
    o.drainMs = 0;
    FakeServer srv(o);
    if (c.rc == 0) srv.expect(MSG_TYPE_VPUT, "name").reply(MSG_TYPE_OK);
    int rc = Request(srv, MSG_TYPE_VPUT, "name");
    if (c.rc == kRefused) {
      EXPECT_TRUE(rc == -E_AUTH_FAILED || rc == -E_CONN_SHUTDOWN || rc == -ECONNRESET ||
                  rc == -EPIPE)
          << rc;
    } else {
      EXPECT_EQ(-c.rc, rc);
    }
    size_t ok = c.rc == 0 ? 1 : 0;
    EXPECT_EQ(std::make_pair(ok, ok),
              std::make_pair(srv.messagesOfType(MSG_TYPE_VPUT).size(), outConnectionCache.size()));
  }
}

// Which keys each end accepts under which generation (k1 committed as 1, k2
// new as 2 unless a row lists others).
TEST_F(KxsecTest, PairOutcomesByListedKeysAndGenerations) {
  const int kAny = 1;  // not checked
  const std::string change = Entry("home", 1, k1_, 2, k2_);
  struct Case {
    const char* what;
    std::string file;
    SecAuthParams client, server;
    int clientRc, serverRc;
  } cases[] = {
      {"only kx listed", Entry("home", 1, kx_, -1, nullptr), P(1, 1), P(1, 1), E_AUTH_FAILED,
       E_AUTH_FAILED},
      {"kx under the client's generation", Entry("home", 1, k1_, 2, kx_), P(1, 2), P(1, 2), kAny,
       E_AUTH_FAILED},
      {"key change 1/2", change, P(1, 2), P(1, 2), 0, 0},
      {"key change 2/1", change, P(2, 1), P(2, 1), 0, 0},
      {"generation 0 takes a committed key", change, P(0, 1), P(1, 1), 0, 0},
      {"no wildcard for a new key", change, P(0, 1), P(2, 1), E_AUTH_FAILED, kAny},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(0, Init(c.file));
    PairResult r = RunAuthPair(c.client, c.server);
    EXPECT_TRUE(c.clientRc == kAny || c.clientRc == r.client) << r.client;
    EXPECT_TRUE(c.serverRc == kAny || c.serverRc == r.server) << r.server;
    EXPECT_EQ(c.clientRc == 0 && c.serverRc == 0, r.plainFlows);
  }
  EXPECT_EQ(2, zelGetKeyGenNumber());  // the new generation during a change

  const std::string k1 = Bytes(k1_->digestHex), k2 = Bytes(k2_->digestHex);
  struct {
    std::string key;
    int gen;
    bool want;
  } keys[] = {{k1, 0, true},
              {k1, 1, true},
              {k1, 2, false},
              {k2, 2, true},
              {k2, 0, false},
              {k2, 1, false},
              {Bytes(kx_->digestHex), 0, false}};
  for (const auto& k : keys) EXPECT_EQ(k.want, isAuthorizedKey(k.key, k.gen)) << k.gen;
}

// Refused before the socket is touched: 703 for an own generation without a
// pair (2 is listed nowhere), 720 for missing parameters or other cipher lists.
TEST_F(KxsecTest, RefusedBeforeTouchingTheSocket) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr)));
  using Fn = int (*)(int, const SecAuthParams&);
  const Fn out = AuthenticateOutgoingWith, in = AuthenticateIncomingWith;
  struct {
    Fn fn;
    SecAuthParams p;
    int rc;
  } cases[] = {
      {out, P(1, 5), E_AUTH_FAILED},
      {in, P(5, 1), E_AUTH_FAILED},
      {out, P(1, 2), E_AUTH_FAILED},
      {out, P(1, 0), E_AUTH_FAILED},
      {out, {-1, 1, "AUTHONLY"}, E_AUTH_PARAMS},
      {in, {1, -1, "AUTHONLY"}, E_AUTH_PARAMS},
      {out, {1, 1, nullptr}, E_AUTH_PARAMS},
      {in, {1, 1, "authonly"}, E_AUTH_PARAMS},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.rc, c.fn(-1, c.p)) << c.p.aGen << " " << c.p.cGen;
  }
}

TEST_F(KxsecTest, GreetingGenerationsMapToRoles) {
  ShutdownSecurity();
  zelCipherListP = "AUTHONLY";
  SdrSecInfo info;
  info.keyGenNumber = 3;                         // ours
  info.peerKeyGenNumber = 7;                     // the peer's
  SecAuthParams out = OutgoingAuthParams(info);  // we connect: the peer accepts
  SecAuthParams in = IncomingAuthParams(info);
  EXPECT_EQ(std::make_tuple(out.aGen, out.cGen, in.aGen, in.cGen, std::string(out.cipherList)),
            std::make_tuple(7, 3, 3, 7, std::string("AUTHONLY")));
}

TEST_F(KxsecTest, WithoutTheFileAuthenticationIsOff) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, InitSecurityAt(paths_));  // no file written
  testing::internal::GetCapturedStderr();
  // Connections send the plain greeting.
  EXPECT_EQ(std::make_tuple(zelSecReady, GetKxSecurity().ready, zelCipherListP == nullptr,
                            zelGetKeyGenNumber()),
            std::make_tuple(false, false, true, -1));
  SdrSecInfo info;
  EXPECT_EQ(0, AuthenticateOutgoing(-1, info));
  EXPECT_EQ(0, AuthenticateIncoming(-1, info));
}

// Each failure leaves security off and says why.
TEST_F(KxsecTest, InitFailuresLeaveSecurityOff) {
  const std::string good = Entry("home", 1, k1_, -1, nullptr);
  WriteFile(dir_.file("junk"), "not a key\n");
  const std::string absent = dir_.file("absent"), junk = dir_.file("junk");
  struct {
    std::string file;
    bool noLibrary;
    std::string key, cert;  // empty: the good pair
    int rc;
    const char* text;
  } cases[] = {
      {good, true, "", "", ELIBACC, "Auth: failed to load security library (err 79)"},
      {"clusterName=home\ncommittedKeyGenNumber=x\n", false, "", "", E_INVAL, "err 22 rc 16."},
      {good, false, absent, "", ENOENT, "Auth: failed to load private keys (err 2)"},
      {good, false, "", absent, ENOENT, "Auth: failed to load private keys (err 2)"},
      {good, false, "", k2_->certPath, E_IO, "Auth: failed to load private keys (err 5)"},
      {good, false, junk, "", E_IO, "Auth: failed to load private keys (err 5)"},
  };
  for (const auto& c : cases) {
    if (c.noLibrary) tls::SetLibraryNames("libzel-absent-ssl.so.3", "libzel-absent-crypto.so.3");
    paths_.keys.keyPath = c.key.empty() ? k1_->keyPath : c.key;
    paths_.keys.certPath = c.cert.empty() ? k1_->certPath : c.cert;
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.rc, Init(c.file));
    std::string err = testing::internal::GetCapturedStderr();
    tls::SetLibraryNames(nullptr, nullptr);
    EXPECT_FALSE(zelSecReady);
    EXPECT_NE(std::string::npos, err.find(c.text)) << err;
  }
}

TEST_F(KxsecTest, RefreshSwitchesListsAndSettings) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr) + "fips1402mode=off\n"));
  EXPECT_EQ(std::make_tuple(true, std::string("AUTHONLY"), 1, std::string("home"), false, 3),
            std::make_tuple(zelSecReady, std::string(zelCipherListP), zelGetKeyGenNumber(),
                            zelGetClusterName(), isFIPS1402(), getNistVar()));
  const ClusterInfoList* before = &zelAuthorizedKeys();
  EXPECT_TRUE(isAuthorizedKey(Bytes(k1_->digestHex), 1));

  WriteFile(paths_.authKeysPath, Entry("other", 4, kx_, -1, nullptr) +
                                     Entry("home", 4, k1_, -1, nullptr) +
                                     "nistCompliance=SP800-131A\nfips1402mode=on\n");
  EXPECT_EQ(0, RefreshSecurity());
  EXPECT_NE(before, &zelAuthorizedKeys());
  EXPECT_FALSE(isAuthorizedKey(Bytes(k1_->digestHex), 1));
  EXPECT_TRUE(isAuthorizedKey(Bytes(k1_->digestHex), 4));
  EXPECT_EQ(std::make_tuple(4, std::string("other"), true, 1),
            std::make_tuple(zelGetKeyGenNumber(), zelGetClusterName(), isFIPS1402(), getNistVar()));
  // The local pair now serves generation 4 of the first entry.
  PairResult r = RunAuthPair(P(4, 4), P(4, 4));
  EXPECT_EQ(std::make_pair(0, 0), std::make_pair(r.client, r.server));
}

// "auth" re-reads the keys while other connections are in their handshakes or
// checking a key: each sees the keys before or after a refresh, never a list or
// context being rebuilt. Both files authorize k1 under 1 and, at the end of a
// long list, k2 under 5, so every check and handshake must pass.
TEST_F(KxsecTest, RefreshWhileHandshaking) {
  std::string tail;
  for (int i = 0; i < 60; i++) tail += Entry("c" + std::to_string(i), 3, kx_, -1, nullptr);
  tail += Entry("last", 5, k2_, -1, nullptr);
  const std::string files[2] = {Entry("home", 1, k1_, -1, nullptr) + tail,
                                Entry("home", 1, k1_, -1, nullptr) + "fips1402mode=off\n" + tail};
  ASSERT_EQ(0, Init(files[0]));
  const std::string greeting = kxGreetingBytes(0);
  const std::string k2 = Bytes(k2_->digestHex);
  const int noSocket = AuthenticateIncomingWith(-1, P(1, 1));

  std::atomic<bool> handshaking{true}, checking{true};
  std::atomic<int> refreshes{0}, badChecks{0}, badGreetings{0};
  std::vector<PairResult> results;
  std::thread checker([&] {
    // Until the handshakes are done, and through a few refreshes at least.
    for (int i = 0; (handshaking || refreshes < 10) && i < 2000000; i++) {
      if (!isAuthorizedKey(k2, 5)) badChecks++;
      if (AuthenticateIncomingWith(-1, P(1, 1)) != noSocket) badChecks++;
      if (i % 64 == 0 && kxGreetingBytes(0) != greeting) badGreetings++;
    }
    checking = false;
  });
  std::thread handshakes([&] {
    SdrSecInfo info;
    info.keyGenNumber = 1;
    info.peerKeyGenNumber = 1;
    for (int i = 0; i < 200 && (i < 20 || refreshes < 10); i++) {
      results.push_back(RunPair([&](int s) { return AuthenticateOutgoing(s, info); },
                                [&](int s) { return AuthenticateIncoming(s, info); }));
    }
    handshaking = false;
  });
  int failedRefreshes = 0;
  for (int i = 0; handshaking || checking; i++) {
    WriteFile(paths_.authKeysPath, files[i % 2]);
    if (RefreshSecurity() != 0) failedRefreshes++;
    refreshes++;
  }
  checker.join();
  handshakes.join();
  EXPECT_GE(refreshes.load(), 10);
  EXPECT_EQ(std::make_tuple(0, 0, 0),
            std::make_tuple(failedRefreshes, badChecks.load(), badGreetings.load()));
  for (const PairResult& r : results) {
    EXPECT_EQ(std::make_tuple(0, 0, true), std::make_tuple(r.client, r.server, r.plainFlows));
  }
}

// A peer that says nothing, talks nonsense or hangs up ends the exchange with an
// error, not a hang: the time-out is small here.
TEST_F(KxsecTest, BadPeersEndInAnErrorNotAHang) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr)));
  SecSetTimeoutMs(200);
  struct {
    const char* name;
    std::string peerSends;
    bool peerCloses, asServer;
    int want;
  } cases[] = {
      {"silent server", "", false, false, ETIMEDOUT},
      {"garbage client", "GET / HTTP/1.0\r\n\r\n", false, true, E_AUTH_FAILED},
      {"server alert", std::string("\x15\x03\x03\x00\x02\x02\x28", 7), false, false, E_AUTH_FAILED},
      {"client hangs up", "", true, true, E_CONN_SHUTDOWN},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.name);
    LoopbackPair p;
    ASSERT_TRUE(p.ok());
    int peer = k.asServer ? p.client : p.server;
    if (!k.peerSends.empty()) {
      ASSERT_TRUE(SendAll(peer, k.peerSends));
    }
    if (k.peerCloses) shutdown(peer, SHUT_WR);
    EXPECT_EQ(k.want, k.asServer ? AuthenticateIncomingWith(p.server, P(1, 1))
                                 : AuthenticateOutgoingWith(p.client, P(1, 1)));
  }
}

TEST(KxsecPathsTest, NamesAroundTheKey) {
  struct {
    const char *key, *cert, *newKey, *newCert, *authKeys;
  } cases[] = {
      {"/var/kolt/ssl/id_rsa_committed", "/var/kolt/ssl/id_rsa_committed.cert",
       "/var/kolt/ssl/id_rsa_new", "/var/kolt/ssl/id_rsa_new.cert",
       "/var/kolt/ssl/authorized_zel_keys"},
      {"/tmp/repo/zel.pem", "/tmp/repo/zel.pem", "/tmp/repo/zel.new.pem", "/tmp/repo/zel.new.pem",
       "/tmp/repo/authorized_zel_keys"},
  };
  for (const auto& c : cases) {
    SecPaths p = SecPathsForKey(c.key, c.cert);
    EXPECT_EQ(std::make_tuple(p.keys.newKeyPath, p.keys.newCertPath, p.authKeysPath),
              std::make_tuple(c.newKey, c.newCert, c.authKeys));
  }
}

}  // namespace
