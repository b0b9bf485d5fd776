#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/loopback.h"
#include "support/seckeys.h"
#include "support/testutil.h"
#include "transport/tlsapi.h"
#include "zel/kxcomm.h"
#include "zel/kxsec.h"
#include "zel/zelerr.h"

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

class KxsecTest : public testing::Test {
 protected:
  void SetUp() override {
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
  }
  int Init(const std::string& keysFile) {
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

TEST_F(KxsecTest, AuthorizedPairThenPlainBytesBothWays) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr)));
  EXPECT_TRUE(zelSecReady);
  EXPECT_STREQ("AUTHONLY", zelCipherListP);
  EXPECT_EQ(1, zelGetKeyGenNumber());
  EXPECT_EQ("home", zelGetClusterName());

  // Through the greeting's view of each side.
  SdrSecInfo info;
  info.keyGenNumber = 1;
  info.peerKeyGenNumber = 1;
  PairResult r = RunPair([&](int s) { return AuthenticateOutgoing(s, info); },
                         [&](int s) { return AuthenticateIncoming(s, info); });
  EXPECT_EQ(0, r.client);
  EXPECT_EQ(0, r.server);
  EXPECT_TRUE(r.plainFlows);
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
      {"key change 1/1", change, P(1, 1), P(1, 1), 0, 0},
      {"key change 2/2", change, P(2, 2), P(2, 2), 0, 0},
      {"generation 0 takes a committed key", change, P(0, 1), P(1, 1), 0, 0},
      {"no wildcard for a new key", change, P(0, 1), P(2, 1), E_AUTH_FAILED, kAny},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ShutdownSecurity();
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
              {Bytes(kx_->digestHex), 0, false},
              {"", 0, false}};
  for (const auto& k : keys) EXPECT_EQ(k.want, isAuthorizedKey(k.key, k.gen)) << k.gen;
}

// Refused before the socket is touched: 703 for an own generation without a
// pair (2 is listed nowhere), 720 for missing parameters or other cipher lists.
TEST_F(KxsecTest, RefusedBeforeTouchingTheSocket) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr)));
  const int kNot = 0;  // that direction is not tried
  struct Case {
    SecAuthParams p;
    int out, in;
  } cases[] = {
      {P(1, 5), E_AUTH_FAILED, kNot},
      {P(5, 1), kNot, E_AUTH_FAILED},
      {P(1, 2), E_AUTH_FAILED, kNot},
      {P(1, 0), E_AUTH_FAILED, kNot},
      {{-1, 1, "AUTHONLY"}, E_AUTH_PARAMS, E_AUTH_PARAMS},
      {{1, -1, "AUTHONLY"}, E_AUTH_PARAMS, E_AUTH_PARAMS},
      {{1, 1, nullptr}, E_AUTH_PARAMS, E_AUTH_PARAMS},
      {{1, 1, "authonly"}, E_AUTH_PARAMS, E_AUTH_PARAMS},
      {{1, 1, "DEFAULT"}, E_AUTH_PARAMS, E_AUTH_PARAMS},
      {{1, 1, ""}, E_AUTH_PARAMS, E_AUTH_PARAMS},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.p.aGen) + " " + std::to_string(c.p.cGen));
    if (c.out != kNot) {
      EXPECT_EQ(c.out, AuthenticateOutgoingWith(-1, c.p));
    }
    if (c.in != kNot) {
      EXPECT_EQ(c.in, AuthenticateIncomingWith(-1, c.p));
    }
  }
  // The greeting's view: a peer that sent no generation.
  SdrSecInfo info;
  info.keyGenNumber = 1;
  EXPECT_EQ(E_AUTH_PARAMS, AuthenticateOutgoing(-1, info));
  EXPECT_EQ(E_AUTH_PARAMS, AuthenticateIncoming(-1, info));
}

TEST_F(KxsecTest, GreetingGenerationsMapToRoles) {
  ShutdownSecurity();
  zelCipherListP = "AUTHONLY";
  SdrSecInfo info;
  info.keyGenNumber = 3;      // ours
  info.peerKeyGenNumber = 7;  // the peer's
  SecAuthParams out = OutgoingAuthParams(info);
  SecAuthParams in = IncomingAuthParams(info);
  EXPECT_EQ(7, out.aGen);  // we connect: the peer accepts
  EXPECT_EQ(3, out.cGen);
  EXPECT_EQ(3, in.aGen);  // we accept
  EXPECT_EQ(7, in.cGen);
  EXPECT_STREQ("AUTHONLY", out.cipherList);
}

TEST_F(KxsecTest, WithoutTheFileAuthenticationIsOff) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, InitSecurityAt(paths_));  // no file written
  testing::internal::GetCapturedStderr();
  EXPECT_FALSE(zelSecReady);
  EXPECT_FALSE(GetKxSecurity().ready);  // connections send the plain greeting
  EXPECT_EQ(nullptr, zelCipherListP);
  EXPECT_EQ(-1, zelGetKeyGenNumber());
  SdrSecInfo info;
  EXPECT_EQ(0, AuthenticateOutgoing(-1, info));
  EXPECT_EQ(0, AuthenticateIncoming(-1, info));
}

TEST_F(KxsecTest, MissingLibraryIsAClearErrorWhenConfigured) {
  tls::SetLibraryNames("libzel-absent-ssl.so.3", "libzel-absent-crypto.so.3");
  testing::internal::CaptureStderr();
  int rc = Init(Entry("home", 1, k1_, -1, nullptr));
  std::string err = testing::internal::GetCapturedStderr();
  tls::SetLibraryNames(nullptr, nullptr);
  EXPECT_EQ(ELIBACC, rc);
  EXPECT_FALSE(zelSecReady);
  EXPECT_NE(std::string::npos, err.find("Auth: failed to load security library (err 79)")) << err;
}

TEST_F(KxsecTest, BadFileOrMissingKeysLeaveSecurityOff) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(E_INVAL, Init("clusterName=home\ncommittedKeyGenNumber=x\n"));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(zelSecReady);
  EXPECT_NE(std::string::npos, err.find("err 22 rc 16.")) << err;

  ShutdownSecurity();
  paths_.keys.keyPath = dir_.file("absent.key");
  testing::internal::CaptureStderr();
  EXPECT_EQ(ENOENT, Init(Entry("home", 1, k1_, -1, nullptr)));
  err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(zelSecReady);
  EXPECT_NE(std::string::npos, err.find("Auth: failed to load private keys (err 2)")) << err;
}

TEST_F(KxsecTest, RefreshSwitchesListsAndSettings) {
  ASSERT_EQ(0, Init(Entry("home", 1, k1_, -1, nullptr) + "fips1402mode=off\n"));
  EXPECT_FALSE(isFIPS1402());
  EXPECT_EQ(3, getNistVar());
  const ClusterInfoList* before = &zelAuthorizedKeys();
  EXPECT_TRUE(isAuthorizedKey(Bytes(k1_->digestHex), 1));

  WriteFile(paths_.authKeysPath, Entry("other", 4, kx_, -1, nullptr) +
                                     Entry("home", 4, k1_, -1, nullptr) +
                                     "nistCompliance=SP800-131A\nfips1402mode=on\n");
  EXPECT_EQ(0, RefreshSecurity());
  EXPECT_NE(before, &zelAuthorizedKeys());
  EXPECT_FALSE(isAuthorizedKey(Bytes(k1_->digestHex), 1));
  EXPECT_TRUE(isAuthorizedKey(Bytes(k1_->digestHex), 4));
  EXPECT_EQ(4, zelGetKeyGenNumber());
  EXPECT_EQ("other", zelGetClusterName());
  EXPECT_TRUE(isFIPS1402());
  EXPECT_EQ(1, getNistVar());
  // The local pair now serves generation 4 of the first entry.
  PairResult r = RunAuthPair(P(4, 4), P(4, 4));
  EXPECT_EQ(0, r.client);
  EXPECT_EQ(0, r.server);
}

TEST(KxsecPathsTest, NamesAroundTheKey) {
  struct Case {
    const char* key;
    const char* cert;
    const char* newKey;
    const char* newCert;
    const char* authKeys;
  } cases[] = {
      {"/var/kolt/ssl/id_rsa_committed", "/var/kolt/ssl/id_rsa_committed.cert",
       "/var/kolt/ssl/id_rsa_new", "/var/kolt/ssl/id_rsa_new.cert",
       "/var/kolt/ssl/authorized_zel_keys"},
      {"/tmp/repo/zel.pem", "/tmp/repo/zel.pem", "/tmp/repo/zel.new.pem", "/tmp/repo/zel.new.pem",
       "/tmp/repo/authorized_zel_keys"},
      {"/a.b/key", "/a.b/key", "/a.b/key.new", "/a.b/key.new", "/a.b/authorized_zel_keys"},
      {"key", "cert", "key.new", "cert.new", "authorized_zel_keys"},
  };
  for (const Case& c : cases) {
    SecPaths p = SecPathsForKey(c.key, c.cert);
    EXPECT_EQ(c.newKey, p.keys.newKeyPath);
    EXPECT_EQ(c.newCert, p.keys.newCertPath);
    EXPECT_EQ(c.authKeys, p.authKeysPath);
  }
}

}  // namespace
