#include "zel/cachedcomm.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "platform/psock.h"
#include "support/wiretest.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

using CachedCommTest = WireTest;

// A ConnImplementation over one end of a socket pair; *peer gets the other end.
Connection* PairConn(const CommAddr& a, int* peer) {
  int fds[2];
  EXPECT_EQ(PlatSocketPair(fds), 0);
  *peer = fds[1];
  return new ConnImplementation(fds[0], SdrSecInfo(), a);
}

TEST_F(CachedCommTest, ReusedAfterEorHandshake) {
  FakeServer srv;
  srv.expect(MSG_TYPE_VGET, "a").reply(REPLY_TYPE_SEQ_COMMIT, "1");
  srv.expect(MSG_TYPE_VGET, "b").reply(REPLY_TYPE_SEQ_COMMIT, "2");
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "a"), REPLY_TYPE_SEQ_COMMIT);
  EXPECT_EQ(outConnectionCache.size(), 1u);
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "b"), REPLY_TYPE_SEQ_COMMIT);
  ASSERT_TRUE(srv.waitDone(3000));
  EXPECT_EQ(srv.connections(), 1);
  auto msgs = srv.messages();
  ASSERT_EQ(msgs.size(), 4u);
  EXPECT_EQ(msgs[1].type, REPLY_TYPE_EOR);
  EXPECT_EQ(msgs[3].type, REPLY_TYPE_EOR);
  EXPECT_EQ(outConnectionCache.nAddGood, 2);
  EXPECT_EQ(outConnectionCache.nGetGood, 1);
  EXPECT_EQ(outConnectionCache.nGetNotFound, 1);
  std::string dump = outConnectionCache.doDump();
  EXPECT_EQ(dump.find("Cached out-connections: 1\n"), 0u) << dump;
  EXPECT_NE(dump.find("addr " + srv.hostPort() + " sock "), std::string::npos) << dump;
  EXPECT_NE(dump.find("  stats: nAddGood 2 nAddBad 0 nGetGood 1 nGetBad 0 nGetNotFound 1\n"),
            std::string::npos)
      << dump;
}

TEST_F(CachedCommTest, BrokenConnectionsAreNeverCached) {
  struct {
    const char* what;
    void (*script)(FakeServer&);
    int rc;
  } cases[] = {
      {"closed after reply",
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK).closeConn(); }, MSG_TYPE_OK},
      {"eor answered with something else",
       [](FakeServer& s) {
         s.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
         s.expect(REPLY_TYPE_EOR).reply(MSG_TYPE_OK);
       },
       MSG_TYPE_OK},
      {"oversized reply",
       [](FakeServer& s) { s.expect(MSG_TYPE_VGET).header(MSG_TYPE_OK, 8388609); }, -E_BAD_MESSAGE},
  };
  for (const auto& c : cases) {
    FakeServer srv;
    c.script(srv);
    srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "x"), c.rc) << c.what;
    EXPECT_EQ(outConnectionCache.size(), 0u) << c.what;
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "y"), MSG_TYPE_OK) << c.what;
    EXPECT_TRUE(srv.waitDone(3000));
    EXPECT_EQ(srv.connections(), 2) << c.what;
    EXPECT_EQ(outConnectionCache.nAddBad, 1) << c.what;
    outConnectionCache.clear();
    outConnectionCache.nAddBad = 0;
  }
}

TEST_F(CachedCommTest, StaleCachedConnectionIsReplaced) {
  FakeServer srv;
  srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
  // Unsolicited data after the eor makes the cached connection stale.
  srv.expect(REPLY_TYPE_EOR).reply(REPLY_TYPE_EOR).reply(REPLY_TYPE_STDOUT, "late");
  srv.expect(MSG_TYPE_VGET, "second").reply(REPLY_TYPE_UID, "u");
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "first"), MSG_TYPE_OK);
  // Let the stale bytes arrive before the next request peeks.
  for (int i = 0; i < 200; i++) {
    std::vector<int> socks;
    outConnectionCache.getSocketListFromMap(&socks);
    ASSERT_EQ(socks.size(), 1u);
    char c;
    if (::recv(socks[0], &c, 1, MSG_PEEK | MSG_DONTWAIT) == 1) break;
    usleep(5000);
  }
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "second"), REPLY_TYPE_UID);
  EXPECT_TRUE(srv.waitDone(3000));
  EXPECT_EQ(srv.connections(), 2);
}

TEST_F(CachedCommTest, CachedConnectionClosedByPeerIsReusedAndFails) {
  FakeServer srv;
  srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
  srv.expect(REPLY_TYPE_EOR).reply(REPLY_TYPE_EOR).closeConn();
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "first"), MSG_TYPE_OK);
  ASSERT_TRUE(srv.waitDone(3000));
  Connection* c = nullptr;
  ASSERT_EQ(connectTo(srv.addr(), &c, 2000), 0);
  EXPECT_EQ(srv.connections(), 1);  // the closed one was taken from the cache
  int type = 0, len = 0;
  char* body = nullptr;
  c->send(MSG_TYPE_VGET, "x", 1);
  EXPECT_EQ(c->receive(&type, &body, &len), E_CONN_SHUTDOWN);
  EXPECT_TRUE(c->isBroken());
  outConnectionCache.addConnectionToMap(c);
  EXPECT_EQ(outConnectionCache.size(), 0u);
}

TEST_F(CachedCommTest, TakenFromCacheCountsAsFirstMessageAgain) {
  FakeServer::Options o;
  o.clusterId = 9;
  FakeServer srv(o);
  srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "a"), MSG_TYPE_OK);
  ASSERT_EQ(outConnectionCache.size(), 1u);
  zelClusterId = 8;  // learnt meanwhile: the reused connection must be checked again
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "b"), -E_CLUSTER_MISMATCH);
  EXPECT_EQ(outConnectionCache.size(), 0u);
}

TEST_F(CachedCommTest, NotCachingDestroysWithoutEor) {
  useCachedConnections = false;
  FakeServer srv;
  srv.expect(MSG_TYPE_VGET).reply(MSG_TYPE_OK);
  EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "a"), MSG_TYPE_OK);
  EXPECT_EQ(outConnectionCache.size(), 0u);
  EXPECT_TRUE(srv.waitDone(3000));
  EXPECT_TRUE(srv.messagesOfType(REPLY_TYPE_EOR).empty());
}

TEST_F(CachedCommTest, SecondConnectionForAddressReplacesFirst) {
  CommAddr a;
  ASSERT_TRUE(IpAddr::parse("10.0.0.1", &a.addr));
  a.port = 1191;
  int peer1 = -1, peer2 = -1;
  Connection* c1 = PairConn(a, &peer1);
  Connection* c2 = PairConn(a, &peer2);
  outConnectionCache.addConnection(c1);
  outConnectionCache.addConnection(c2);
  EXPECT_EQ(outConnectionCache.size(), 1u);
  char ch;
  EXPECT_EQ(::recv(peer1, &ch, 1, MSG_DONTWAIT), 0);  // c1 destroyed: its socket closed
  Connection* got = nullptr;
  ASSERT_EQ(outConnectionCache.getConnectionFromMap(a, &got), 0);
  EXPECT_EQ(got, c2);
  EXPECT_EQ(outConnectionCache.getConnectionFromMap(a, &got), kNoCachedConnection);
  delete c2;
  ::close(peer1);
  ::close(peer2);
}

TEST_F(CachedCommTest, PollInConnectionsReturnsThoseWithData) {
  CommAddr a, b;
  ASSERT_TRUE(IpAddr::parse("10.0.0.1", &a.addr));
  ASSERT_TRUE(IpAddr::parse("10.0.0.2", &b.addr));
  int pa = -1, pb = -1;
  Connection* ca = PairConn(a, &pa);
  Connection* cb = PairConn(b, &pb);
  ASSERT_EQ(listenWakeupSocksSetup(), 0);
  inConnectionCache.addConnection(ca);  // each add wakes the poller
  inConnectionCache.addConnection(cb);
  std::vector<int> socks;
  inConnectionCache.getSocketListFromMap(&socks);
  EXPECT_EQ(socks, (std::vector<int>{ca->getSock(), cb->getSock()}));
  ASSERT_EQ(::send(pb, "m", 1, 0), 1);
  std::vector<Connection*> ready;
  for (int i = 0; i < 5 && ready.empty(); i++) ASSERT_EQ(pollInConnections(&ready, 1000), 0);
  ASSERT_EQ(ready.size(), 1u);
  EXPECT_EQ(ready[0], cb);
  EXPECT_EQ(inConnectionCache.size(), 1u);
  delete cb;
  ::close(pa);
  ::close(pb);
}

}  // namespace
