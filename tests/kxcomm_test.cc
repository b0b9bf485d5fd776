#include "zel/kxconnect.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <tuple>

#include "platform/pclock.h"
#include "platform/psock.h"
#include "support/wiretest.h"
#include "zel/kxcomm_addr.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"

namespace {

using KxCommTest = WireTest;

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
  auto gr = srv.greetings();
  ASSERT_EQ(gr.size(), 1u);
  EXPECT_EQ(std::make_tuple(gr[0].raw.size(), gr[0].version, gr[0].hasRecord6),
            std::make_tuple(size_t(64), 101, false));
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
      {"failed 819", failed(FakeServer::failedBody(819)), true, 819, F, 0, false},
      {"failed empty", failed(""), true, kBad, F, 0, true},
      {"failed cut short", failed(std::string(1, '\xff')), true, kBad, F, 0, true},
      {"length limit + 1", header(8388609u), false, kBad, C, 0, true},
      {"length 2^32 - 1", header(0xFFFFFFFFu), false, kBad, C, 0, true},
      {"length limit",
       [](FakeServer& s) { s.reply(REPLY_TYPE_SEQ_COMMIT, std::string(8388608u, 'b')); }, false, 0,
       C, 8388608, false},
      {"truncated body", [](FakeServer& s) { s.truncated(REPLY_TYPE_SEQ_COMMIT, "0123456789", 4); },
       false, E_CONN_SHUTDOWN, C, 0, true},
      {"closed", [](FakeServer& s) { s.closeConn(); }, false, E_CONN_SHUTDOWN, -1, 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FakeServer srv;
    c.script(srv.expect(MSG_TYPE_VGET));
    Conn k;
    OpenAndSend(srv, &k, MSG_TYPE_VGET, "x");
    Got g = Receive(k.c, c.errCheck);
    EXPECT_EQ(std::make_tuple(g.rc, g.type, g.len, g.nullBody, k.c->isBroken()),
              std::make_tuple(c.rc, c.type, c.len, c.len == 0, c.broken));
  }
}

// Answers: a wrong magic, a rejection, a record too long, a cut-short header.
TEST_F(KxCommTest, GreetingFailures) {
  const std::string magic("\xF3\x68\x90\x38", 4);
  struct {
    std::string answer;
    int rc;
  } cases[] = {
      {std::string("\x12\x34\x56\x78", 4) + std::string(16, '\0'), E_CANT_CONNECT},
      {"", E_CONN_REJECTED},  // status 1
      {magic + std::string(8, '\0') + std::string("\x01\x00\x10\x01", 4) + std::string(4, '\0'),
       E_BAD_ATTACH_LEN},
      {magic, E_CONN_SHUTDOWN}};
  for (const auto& c : cases) {
    FakeServer::Options o;
    o.rawAnswer = c.answer;
    o.status = c.answer.empty() ? 1 : 0;
    o.drainMs = 0;
    FakeServer srv(o);
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
  const SdrSecInfo& si = ci->secInfo();
  EXPECT_EQ(std::make_tuple(ci->getClusterId(), ci->getZelVersion(), si.peerKeyGenNumber,
                            si.hasPeerClusterName, si.peerClusterName, si.keyGenNumber),
            std::make_tuple(0x123456789abcdefULL, 77, 4, true, std::string("alpha.example"), -1));
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
  // The exchange sits between header and body, for the first message only.
  srv.expect(MSG_TYPE_VGET, "g").reply(MSG_TYPE_OK).expect(MSG_TYPE_VPUT, "p").reply(MSG_TYPE_OK);
  // A connection taken from the cache counts as new, until authenticated.
  srv.expect(MSG_TYPE_VGET, "a").reply(MSG_TYPE_OK);
  srv.expect(MSG_TYPE_VPUT, "b").reply(MSG_TYPE_OK).expect(MSG_TYPE_VPUT, "c").reply(MSG_TYPE_OK);
  authCalls = 0;
  {
    Conn k;
    ASSERT_EQ(connectTo(srv.addr(), &k.c, 2000), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VGET, "g", 1), 0);
    EXPECT_EQ(k.c->send(MSG_TYPE_VPUT, "p", 1), 0);
  }
  EXPECT_EQ(authCalls, 0);
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "a"), MSG_TYPE_OK);
  EXPECT_EQ(authCalls, 0);
  EXPECT_EQ(Request(srv, MSG_TYPE_VPUT, "b"), MSG_TYPE_OK);
  EXPECT_EQ(Request(srv, MSG_TYPE_VPUT, "c"), MSG_TYPE_OK);
  EXPECT_EQ(authCalls, 1);
  EXPECT_EQ(srv.connections(), 2);
  auto g = srv.greetings();
  ASSERT_EQ(g.size(), 2u);
  // Record 6 holds 8 + 4 + "c1.dom\0" rounded down to 4 bytes: 20.
  EXPECT_EQ(std::make_tuple(g[0].hasRecord6, g[0].keyGenNumber, g[0].clusterName, g[0].raw.size(),
                            g[0].clusterId),
            std::make_tuple(true, 3, std::string("c1.dom"), size_t(84), 0x0102030405060708ULL));
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
  PlatSetConnectFn(AlwaysInProgress);
  Conn t;
  EXPECT_EQ(connectTo(srv.addr(), &t.c, 50), ETIMEDOUT);
  EXPECT_EQ(t.c, nullptr);
}

// Each reading of this clock is 600 ms after the one before.
long long fakeNowMs = 0;
long long SteppingClock() {
  return fakeNowMs += 600;
}

// A reply trickled a byte at a time: every byte comes well within the receive
// time-out of 1 s, the whole message cannot (by the clock seam, the deadline
// passes at the second wait).
TEST_F(KxCommTest, ReceiveDeadlineCoversTheWholeMessage) {
  FakeServer srv;
  const std::string reply = FakeServer::header8(MSG_TYPE_OK, 64) + std::string(64, 'x');
  srv.expect(MSG_TYPE_VGET).trickle(reply, 10);
  Conn k;
  OpenAndSend(srv, &k, MSG_TYPE_VGET, "x");
  KxSetTransferTimeouts(-1, 1000);
  PlatSetNowFn(SteppingClock);
  Got g = Receive(k.c);
  PlatSetNowFn(nullptr);
  EXPECT_EQ(std::make_tuple(g.rc, g.len, k.c->isBroken()), std::make_tuple(ETIMEDOUT, 0, true));
}

// Node 1 is a fake server on 127.0.0.1, node 3 one on ::1, node 2 does not resolve.
class NodeAddrTest : public WireTest {
 protected:
  NodeAddrTest() : v6_(V6()) {}
  static FakeServer::Options V6() {
    FakeServer::Options o;
    o.ipv6 = true;
    return o;
  }
  void SetUp() override {
    WireTest::SetUp();
    Nodes nodes = {Node(1, "four", NodeLocation("127.0.0.1", v4_.port())),
                   Node(3, "six", NodeLocation("::1", v6_.port()))};
    ASSERT_EQ(SetNodeList(nodes, false), 0);
    // A list file may name a host that stopped resolving since it was read.
    GetNodeMap()[2] = NodeLocation("nohost.invalid", 1191);
  }
  void TearDown() override { WireTest::TearDown(); }
  // Connects to the node and closes the connection again.
  int Reach(int nodeId) {
    Connection* c = nullptr;
    int rc = connectTo(nodeId, &c, 2000);
    EXPECT_EQ(rc == 0, c != nullptr);
    delete c;
    return rc;
  }

  FakeServer v4_;
  FakeServer v6_;
};

TEST_F(NodeAddrTest, ByNodeIdAndSimulatedDisconnect) {
  v4_.expect(MSG_TYPE_STATUS, "q").reply(MSG_TYPE_OK, "answer");
  int type = -5;
  MsgBody body;
  ASSERT_EQ(SendReceive(1, MSG_TYPE_STATUS, "q", 1, &type, &body, 2000), 0);
  EXPECT_EQ(std::string(body.data(), static_cast<size_t>(body.size())), "answer");
  EXPECT_EQ(SendReceive(9, MSG_TYPE_STATUS, "q", 1, &type, &body, 2000), E_INVAL);
  EXPECT_EQ(Reach(9), E_INVAL);
  EXPECT_NE(Reach(2), 0);
  EXPECT_EQ(Reach(3), 0);

  // A disconnected node still reaches its own address and localhost.
  zelPort = 1191;
  zelAddr = "127.0.0.1";
  setSimulateNetworkDisconnect(true);
  EXPECT_EQ(Reach(1), 0);     // own address and localhost
  EXPECT_EQ(Reach(3), E_IO);  // ::1 is neither
  zelAddr = "::1";
  setSimulateNetworkDisconnect(true);
  EXPECT_EQ(Reach(3), 0);  // now the own address
  EXPECT_EQ(Reach(1), 0);  // still localhost
}

TEST(SplitHostPortTest, Forms) {
  struct {
    const char* text;
    const char* host;
    int port;
  } cases[] = {
      {"[::1]", "::1", 1191},    {"[::1]:1200", "::1", 1200},         {"[::1]x", "::1", 0},
      {"nodeA", "nodeA", 1191},  {"10.1.2.3:99", "10.1.2.3", 99},     {"fe80::1", "fe80:", 1},
      {"hostA:abc", "hostA", 0}, {"[fe80::1]:1300", "fe80::1", 1300},
  };
  for (const auto& c : cases) {
    std::string host;
    int port = -5;
    splitHostPort(c.text, &host, &port);
    EXPECT_EQ(host + ":" + std::to_string(port), c.host + (":" + std::to_string(c.port))) << c.text;
  }
}

TEST(CommAddrTest, ConvertAndText) {
  CommAddr a;
  ASSERT_EQ(convertCommAddr("127.0.0.1", 1191, &a), E_OK);
  EXPECT_TRUE(a.addr.isV4Mapped());
  EXPECT_EQ(a.toString(), "127.0.0.1:1191");
  CommAddr b;
  ASSERT_EQ(convertCommAddr("::1", 7, &b), E_OK);
  EXPECT_EQ(b.toString(), "[::1]:7");
  EXPECT_EQ(convertCommAddr("127.0.0.1", 0, &b), E_INVAL);
  EXPECT_NE(convertCommAddr("no-such-host.invalid", 1191, &b), E_OK);
  ASSERT_EQ(b.fromString("[::1]:1200"), E_OK);
  EXPECT_EQ(b.port, 1200);
}

}  // namespace
