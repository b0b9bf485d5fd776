#include "zel/cachedcomm.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>

#include "platform/psock.h"
#include "support/wiretest.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

using CachedCommTest = WireTest;

// Waits until the one cached connection has something to read (data or the
// peer's close): as long as that takes, within a bound far above any load.
bool CachedSocketReadable() {
  std::vector<int> socks;
  outConnectionCache.getSocketListFromMap(&socks);
  if (socks.size() != 1) return false;
  struct pollfd p = {socks[0], POLLIN, 0};
  return ::poll(&p, 1, 20000) == 1;
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
  EXPECT_EQ(srv.messagesOfType(REPLY_TYPE_EOR).size(), 2u);
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
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "x"), c.rc);
    EXPECT_EQ(outConnectionCache.size(), 0u);
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "y"), MSG_TYPE_OK);
    EXPECT_TRUE(srv.waitDone(3000));
    EXPECT_EQ(srv.connections(), 2);
    outConnectionCache.clear();
  }
}

// Unsolicited data after the eor, or a close, makes the cached connection
// unusable: reusing it would cost the request an attempt (the send may pass,
// the reply never comes), so a new one is made.
TEST_F(CachedCommTest, StaleOrClosedCachedConnectionIsReplaced) {
  for (bool closed : {false, true}) {
    SCOPED_TRACE(closed ? "closed" : "stale");
    outConnectionCache.clear();
    const int added = outConnectionCache.nAddGood;
    FakeServer srv;
    srv.expect(MSG_TYPE_VGET, "first").reply(MSG_TYPE_OK);
    FakeServer& eor = srv.expect(REPLY_TYPE_EOR).reply(REPLY_TYPE_EOR);
    closed ? eor.closeConn() : eor.reply(REPLY_TYPE_STDOUT, "late");
    srv.expect(MSG_TYPE_VGET, "second").reply(MSG_TYPE_OK);
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "first"), MSG_TYPE_OK);
    ASSERT_TRUE(CachedSocketReadable());
    EXPECT_EQ(Request(srv, MSG_TYPE_VGET, "second"), MSG_TYPE_OK);
    EXPECT_TRUE(srv.waitDone(3000));
    EXPECT_EQ(srv.connections(), 2);
    EXPECT_EQ(outConnectionCache.nAddGood - added, 2);
  }
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

}  // namespace
