#include "zel/kxcomm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>

#include "platform/psock.h"
#include "support/wiretest.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

using KxCommTest = WireTest;

TEST(ZelMsgTest, NamesAuthFlagsAndErrorTexts) {
  struct {
    int type;
    const char* name;
    bool auth;
  } rows[] = {// clang-format off
      {-3, "refresh", false}, {-1, "failed", false}, {3, "dump", true}, {4, "init", true},
      {6, "vput", true}, {9, "fput", true}, {5, "vget", false}, {19, "auth", false},
      {8, "fget", false}, {17, "fcrc", true}, {32, "fget_priv", true},
      {60, "reply_sdterr", false}, {64, "reply_pxrdwr_fxfer", false},
      {21, "unknown", false}, {65, "unknown", false}, {-4, "unknown", false}};
  // clang-format on
  for (const auto& r : rows) {
    EXPECT_STREQ(msgName(r.type), r.name) << r.type;
    EXPECT_EQ(msgAuthRequired(r.type), r.auth) << r.type;
  }
  EXPECT_STREQ(errcodeToString(128), "Ok");
  EXPECT_STREQ(errcodeToString(143), "Unable to connect to the server");
  EXPECT_STREQ(errcodeToString(157), "Unable to contact current leader");
  EXPECT_STREQ(errcodeToString(158), "Invalid error number");
  EXPECT_STREQ(errcodeToString(-1), "Invalid error number");
  EXPECT_STREQ(errcodeToString(EIO), strerror(EIO));
}

TEST_F(KxCommTest, FramingBothWays) {
  FakeServer srv;
  std::string big(100000, 'x');
  srv.expect(MSG_TYPE_VGET, std::string("name\0", 5))
      .reply(REPLY_TYPE_SEQ_COMMIT, big)
      .reply(MSG_TYPE_OK)
      .raw(FakeServer::header8(511 - kMsgCodeBias, 0));
  Conn k;
  OpenAndSend(srv, &k, MSG_TYPE_VGET, std::string("name\0", 5));
  Got g = Receive(k.c);
  ASSERT_EQ(g.rc, 0);
  EXPECT_EQ(g.type, REPLY_TYPE_SEQ_COMMIT);
  EXPECT_TRUE(g.body == big);
  g = Receive(k.c);
  EXPECT_EQ(std::make_tuple(g.rc, g.type, g.len, g.nullBody),
            std::make_tuple(0, int(MSG_TYPE_OK), 0, true));
  g = Receive(k.c);
  EXPECT_EQ(std::make_tuple(g.rc, g.type), std::make_tuple(0, -1));  // code 511
  ASSERT_TRUE(srv.waitDone(2000));
  ASSERT_EQ(srv.greetings().size(), 1u);
  EXPECT_EQ(srv.greetings()[0].raw.size(), 64u);
  EXPECT_EQ(srv.greetings()[0].version, 101);
  EXPECT_FALSE(srv.greetings()[0].hasRecord6);
}

TEST_F(KxCommTest, ForwardsStdoutAndStderrInOrder) {
  FILE* f = tmpfile();
  ASSERT_NE(f, nullptr);
  KxSetForwardStreams(f, f);
  FakeServer srv;
  srv.expect(MSG_TYPE_STATUS)
      .reply(REPLY_TYPE_STDOUT, "one ")
      .reply(REPLY_TYPE_STDERR, std::string("two \0junk", 9))
      .reply(REPLY_TYPE_STDOUT, "")
      .reply(REPLY_TYPE_STDOUT, "three")
      .reply(REPLY_TYPE_UID, "U");
  Conn k;
  OpenAndSend(srv, &k, MSG_TYPE_STATUS, "");
  Got g = Receive(k.c, true);
  EXPECT_EQ(std::make_tuple(g.rc, g.type, g.body),
            std::make_tuple(0, int(REPLY_TYPE_UID), std::string("U")));
  rewind(f);
  char buf[64] = {};
  size_t n = fread(buf, 1, sizeof buf - 1, f);
  fclose(f);
  EXPECT_EQ(std::string(buf, n), "one two three");
}

// One reply each: what receive (or ReceiveErrCheck for "failed" replies) returns
// and whether the connection is left broken.
TEST_F(KxCommTest, ReceiveOutcomes) {
  using Script = std::function<void(FakeServer&)>;
  auto failed = [](const std::string& b) -> Script {
    return [b](FakeServer& s) { s.reply(REPLY_TYPE_STDOUT, "").reply(MSG_TYPE_FAILED, b); };
  };
  auto header = [](unsigned int len) -> Script {
    return [len](FakeServer& s) { s.header(REPLY_TYPE_SEQ_COMMIT, len); };
  };
  const int F = MSG_TYPE_FAILED, C = REPLY_TYPE_SEQ_COMMIT, kBad = E_BAD_MESSAGE;
  struct {
    const char* what;
    Script script;
    bool errCheck;
    int rc, type, len;
    bool broken;
  } cases[] = {
      {"failed 01", failed(std::string(1, '\x01')), true, 0, F, 0, false},
      {"failed 00", failed(std::string(1, '\0')), true, -1, F, 0, false},
      {"failed 152", failed(FakeServer::failedBody(152)), true, 152, F, 0, false},
      {"failed 819", failed(FakeServer::failedBody(819)), true, 819, F, 0, false},
      {"failed empty", failed(""), true, kBad, F, 0, true},
      {"failed cut short", failed(std::string(1, '\xff')), true, kBad, F, 0, true},
      {"length limit + 1", header(8388609u), false, kBad, C, 0, true},
      {"length 2^31", header(0x80000000u), false, kBad, C, 0, true},
      {"length 2^32 - 1", header(0xFFFFFFFFu), false, kBad, C, 0, true},
      {"length limit",
       [](FakeServer& s) { s.reply(REPLY_TYPE_SEQ_COMMIT, std::string(8388608u, 'b')); }, false, 0,
       C, 8388608, false},
      {"truncated body", [](FakeServer& s) { s.truncated(REPLY_TYPE_SEQ_COMMIT, "0123456789", 4); },
       false, E_CONN_SHUTDOWN, C, 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FakeServer srv;
    c.script(srv.expect(MSG_TYPE_VGET));
    Conn k;
    OpenAndSend(srv, &k, MSG_TYPE_VGET, "x");
    Got g = Receive(k.c, c.errCheck);
    EXPECT_EQ(g.rc, c.rc);
    EXPECT_EQ(g.type, c.type);
    EXPECT_EQ(g.len, c.len);
    EXPECT_EQ(g.nullBody, c.len == 0);
    EXPECT_EQ(k.c->isBroken(), c.broken);
  }
  // A peer that closes instead of answering.
  FakeServer srv;
  srv.expect(MSG_TYPE_VGET).closeConn();
  Conn k;
  OpenAndSend(srv, &k, MSG_TYPE_VGET, "");
  Got g = Receive(k.c);
  EXPECT_EQ(g.rc, E_CONN_SHUTDOWN);
  EXPECT_TRUE(g.nullBody);
  EXPECT_TRUE(k.c->isBroken());
}

TEST_F(KxCommTest, GreetingFailures) {
  FakeServer::Options badMagic;
  badMagic.badMagic = true;
  FakeServer::Options rejected;
  rejected.status = 1;
  FakeServer::Options hugeRecord;
  hugeRecord.rawAnswer = std::string("\xF3\x68\x90\x38", 4) + std::string(8, '\0') +
                         std::string("\x01\x00\x10\x01", 4) + std::string(4, '\0');
  FakeServer::Options shortAnswer;
  shortAnswer.rawAnswer = std::string("\xF3\x68\x90\x38", 4);
  struct {
    FakeServer::Options* o;
    int rc;
  } cases[] = {{&badMagic, E_CANT_CONNECT},
               {&rejected, E_CONN_REJECTED},
               {&hugeRecord, E_BAD_ATTACH_LEN},
               {&shortAnswer, E_CONN_SHUTDOWN}};
  for (const auto& c : cases) {
    c.o->drainMs = 0;
    FakeServer srv(*c.o);
    if (c.rc == E_CONN_SHUTDOWN) srv.onConnect().closeConn();
    Conn k;
    EXPECT_EQ(connectTo(srv.addr(), &k.c, 2000), c.rc);
    EXPECT_EQ(k.c, nullptr);
  }
}

TEST_F(KxCommTest, GreetingAnswerRecordsAreLearnt) {
  FakeServer::Options o;
  o.clusterId = 0x123456789abcdefULL;
  o.version = 77;
  o.record6 = true;
  o.keyGenNumber = 4;
  o.clusterName = "alpha.example";
  o.extraRecords = {{42, std::string(12, 'z')}};
  FakeServer srv(o);
  Conn k;
  ASSERT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
  auto* ci = static_cast<ConnImplementation*>(k.c);
  EXPECT_EQ(ci->getClusterId(), 0x123456789abcdefULL);
  EXPECT_EQ(ci->getZelVersion(), 77);
  EXPECT_EQ(ci->secInfo().peerKeyGenNumber, 4);
  EXPECT_TRUE(ci->secInfo().hasPeerClusterName);
  EXPECT_EQ(ci->secInfo().peerClusterName, "alpha.example");
  EXPECT_EQ(ci->secInfo().keyGenNumber, -1);
}

int authCalls = 0;
int TestAuthOut(int sock, const SdrSecInfo&) {
  authCalls++;
  size_t n = 0;
  return PlatSend(sock, "A", 1, 0, &n);
}
int TestAuthIn(int sock) {
  char c = 0;
  return (::recv(sock, &c, 1, 0) == 1 && c == 'A') ? 0 : -1;
}

TEST_F(KxCommTest, SecurityGreetingAndAuthenticationOnFirstMessageOnly) {
  KxSecurity sec;
  sec.ready = true;
  sec.keyGenNumber = 3;
  sec.clusterName = "c1.dom";
  sec.authenticateOutgoing = TestAuthOut;
  SetKxSecurity(sec);
  zelClusterId = 0x0102030405060708ULL;
  FakeServer::Options o;
  o.authenticateIncoming = TestAuthIn;
  FakeServer srv(o);
  // First message needs auth: the exchange sits between header and body.
  srv.expect(MSG_TYPE_VPUT, "body")
      .reply(MSG_TYPE_OK)
      .expect(MSG_TYPE_VPUT, "again")
      .reply(MSG_TYPE_OK);
  // First message needs none: no exchange even for a later vput.
  srv.expect(MSG_TYPE_VGET, "g").reply(MSG_TYPE_OK).expect(MSG_TYPE_VPUT, "p").reply(MSG_TYPE_OK);
  authCalls = 0;
  {
    Conn k;
    ASSERT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VPUT, "body", 4), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VPUT, "again", 5), 0);
    EXPECT_TRUE(k.c->isAuthenticated());
  }
  EXPECT_EQ(authCalls, 1);
  {
    Conn k;
    ASSERT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VGET, "g", 1), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VPUT, "p", 1), 0);
    ASSERT_TRUE(srv.waitDone(3000));
  }
  EXPECT_EQ(authCalls, 1);
  auto g = srv.greetings();
  ASSERT_EQ(g.size(), 2u);
  EXPECT_TRUE(g[0].hasRecord6);
  EXPECT_EQ(g[0].keyGenNumber, 3);
  EXPECT_EQ(g[0].clusterName, "c1.dom");
  EXPECT_EQ(g[0].raw.size(), 64u + 20u);  // (6 + 16) rounded down to 4
  EXPECT_EQ(g[0].clusterId, 0x0102030405060708ULL);
}

TEST_F(KxCommTest, ClusterIdMismatchOnFirstSend) {
  struct {
    unsigned long long mine, theirs;
    int rc;
  } cases[] = {{5, 6, E_CLUSTER_MISMATCH}, {5, 5, 0}, {0, 6, 0}, {5, 0, 0}};
  for (const auto& c : cases) {
    FakeServer::Options o;
    o.clusterId = c.theirs;
    FakeServer srv(o);
    if (c.rc == 0) srv.expect(MSG_TYPE_VGET);
    zelClusterId = c.mine;
    Conn k;
    ASSERT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VGET, "v", 1), c.rc);
    EXPECT_EQ(k.c->isBroken(), c.rc != 0);
    if (c.rc == 0) {
      EXPECT_TRUE(srv.waitDone(3000));
    }
  }
}

int seamCalls = 0;
int AlwaysInProgress(int, const struct sockaddr*, socklen_t) {
  seamCalls++;
  return EINPROGRESS;
}
int FirstInProgress(int fd, const struct sockaddr* sa, socklen_t len) {
  if (seamCalls++ == 0) {
    ::connect(fd, sa, len);
    return EINPROGRESS;
  }
  return ::connect(fd, sa, len) < 0 ? errno : 0;
}

TEST_F(KxCommTest, ConnectThroughSeamInProgressAndTimeOut) {
  FakeServer srv;
  seamCalls = 0;
  PlatSetConnectFn(FirstInProgress);
  Conn k;
  EXPECT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
  EXPECT_GE(seamCalls, 2);
  seamCalls = 0;
  PlatSetConnectFn(AlwaysInProgress);
  Conn t;
  EXPECT_EQ(connectTo(srv.addr(), &t.c, 50), ETIMEDOUT);
  EXPECT_EQ(t.c, nullptr);
  EXPECT_GE(seamCalls, 1);
  PlatSetConnectFn(nullptr);
  // A closed port is refused.
  CommAddr gone = srv.addr();
  {
    FakeServer other;
    gone = other.addr();
  }
  Conn r;
  EXPECT_EQ(connectTo(gone, &r.c, 2000), ECONNREFUSED);
}

TEST_F(KxCommTest, SimulatedDisconnectAllowsOnlyOwnAndLocalHost) {
  FakeServer srv;
  CommAddr other;
  ASSERT_TRUE(IpAddr::parse("10.9.8.7", &other.addr));
  SetSimulateNetworkDisconnectAddrs(true, other, other);
  Conn k;
  EXPECT_EQ(connectTo(srv.addr(), &k.c, 2000), E_IO);
  CommAddr own = srv.addr();
  own.port = 1;  // only the address bytes count
  SetSimulateNetworkDisconnectAddrs(true, own, other);
  EXPECT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
}

TEST_F(KxCommTest, SendReceiveByHostAndIpv6) {
  FakeServer::Options o;
  o.ipv6 = true;
  FakeServer srv(o);
  srv.expect(MSG_TYPE_VGET, "q").reply(REPLY_TYPE_SEQ_COMMIT, "answer");
  int type = 0, len = 0;
  char* body = nullptr;
  ASSERT_EQ(SendReceive("::1", srv.port(), MSG_TYPE_VGET, "q", 1, &type, &body, &len, 2000), 0);
  EXPECT_EQ(std::make_tuple(type, std::string(body, len)),
            std::make_tuple(int(REPLY_TYPE_SEQ_COMMIT), std::string("answer")));
  delete[] body;
  EXPECT_EQ(SendReceive("localhost", 0, MSG_TYPE_VGET, "q", 1, &type, &body, &len, 2000), E_INVAL);
}

}  // namespace
