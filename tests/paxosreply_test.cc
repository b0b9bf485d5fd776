#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/recordcheck.h"
#include "support/samples.h"
#include "support/wirebodies.h"
#include "support/wiretest.h"
#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

constexpr unsigned long long kServerCid = 42;

FileIdMap IdMap() {
  FileIdMap m;
  m[1] = FileItem{"zel.nodes", "", 0};
  m[7] = FileItem{"data", "x", 2};
  return m;
}

// "seq/cid;" per client-cache update (the state must be the sample one).
std::string cacheLog;
void RecordCache(int seq, const CommittedState& s, unsigned long long cid) {
  cacheLog +=
      std::to_string(seq) + (s == SampleState() ? "/" : "/bad state/") + std::to_string(cid) + ";";
}

struct Outcome {
  int rc = -1;
  ZelReplyResult res;
  ClientRetry retry{"test"};
  bool broken = false;
  bool cached = false;
};

class PaxosReplyTest : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    SetClientCacheFnForTest(RecordCache);
    cacheLog.clear();
  }
  void TearDown() override {
    SetClientCacheFnForTest(nullptr);
    WireTest::TearDown();
  }

  // Sends a request to a fake server that answers with rawReply, decodes the
  // answer, then hands the connection to the cache as a request would.
  Outcome Exchange(const std::string& rawReply) {
    FakeServer::Options o;
    o.clusterId = kServerCid;
    FakeServer srv(o);
    srv.expect(MSG_TYPE_VGET).raw(rawReply);
    Outcome out;
    out.retry.firstError = E_CLUSTER_MISMATCH;
    Connection* c = nullptr;
    EXPECT_EQ(connectTo(srv.addr(), &c, 2000), 0);
    if (c == nullptr) return out;
    EXPECT_EQ(c->send(MSG_TYPE_VGET, nullptr, 0), 0);
    out.rc = ReceiveZELReply(c, &out.retry, &out.res);
    out.broken = c->isBroken();
    outConnectionCache.addConnectionToMap(c);
    out.cached = outConnectionCache.size() == 1;
    // States are only queued by decoding (a cache call there would log twice).
    for (const ClientCacheUpdate& u : out.retry.cacheUpdates)
      RecordCache(u.seq, u.committed, u.clusterId);
    outConnectionCache.clear();
    return out;
  }
};

std::string Msg(int type, const std::string& body) {
  return FakeServer::header8(type, static_cast<unsigned int>(body.size())) + body;
}

// The decoded fields that differ from their defaults.
std::string Fields(const ZelReplyResult& r) {
  std::ostringstream os;
  os << "type=" << r.type << " seq=" << r.seq;
  if (r.committed == SampleState()) os << " state";
  if (r.fileIdMap == IdMap()) os << " map";
  if (!r.uid.isNull()) os << " uid=" << r.uid;
  if (r.needFile) os << " needFile";
  if (r.fileId != 0 || r.fileSize != 0) os << " file=" << r.fileId << "/" << r.fileSize;
  if (r.storeState) os << " store";
  if (r.nodesFileSize != 0) os << " nodes=" << r.nodesFileSize;
  if (r.serverNlVersion != -1) os << " nl=" << r.serverNlVersion;
  return os.str();
}

TEST_F(PaxosReplyTest, EachReplyType) {
  const std::string sb = Encode(SampleState());
  const std::string uid = Encode(UpdateId(1, 2, 3));
  struct {
    std::string bytes;
    int rc;
    bool active;
    int firstError;  // starts at 315
    int cacheSeq;    // -1: no cache update (the server's cluster id is 42)
    std::string fields;
  } cases[] = {
      // clang-format off
      {Msg(50, V(7, 0) + sb), 0, false, 315, 7, "type=50 seq=7 state"},
      {Msg(51, V(153, -1) + V(8, 0) + sb), 153, false, 315, 8, "type=51 seq=8 state"},
      // 819: go on with the other servers of this round, 819 as the first error.
      {Msg(51, V(819, -1) + V(9, 0) + sb), 819, true, 819, 9, "type=51 seq=9 state"},
      {Msg(52, V(3, 0) + sb + V(4, 0) + V(1000, 0)), 0, true, 315, -1,
       "type=52 seq=3 state file=4/1000"},
      {Msg(53, V(2, 0) + sb + Encode(IdMap())), 0, false, 315, 2, "type=53 seq=2 state map"},
      {Msg(54, uid), 0, true, 315, -1, "type=54 seq=-1 uid=((n1,e2),3)"},
      {Msg(55, uid + "\x01"), 0, true, 315, -1, "type=55 seq=-1 uid=((n1,e2),3) needFile"},
      {Msg(55, uid + std::string(1, '\0')), 0, true, 315, -1, "type=55 seq=-1 uid=((n1,e2),3)"},
      {Msg(61, V(149, -1) + V(5, -1)), 149, true, 315, -1, "type=61 seq=-1 nl=5"},
      {Msg(62, V(4, 0) + sb + "\x01" + V(300, 0)), 0, true, 315, -1,
       "type=62 seq=4 state store nodes=300"},
      // Generic failures: 804 to 807 end the request, others leave it to the retry.
      {Msg(-1, FakeServer::failedBody(803)), 803, true, 315, -1, "type=-1 seq=-1"},
      {Msg(-1, FakeServer::failedBody(804)), 804, false, 315, -1, "type=-1 seq=-1"},
      {Msg(-1, FakeServer::failedBody(807)), 807, false, 315, -1, "type=-1 seq=-1"},
      {Msg(-1, FakeServer::failedBody(808)), 808, true, 315, -1, "type=-1 seq=-1"},
      {Msg(59, "") + Msg(50, V(1, 0) + sb), 0, false, 315, 1, "type=50 seq=1 state"},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Hex(c.bytes.substr(0, 12)));
    cacheLog.clear();
    Outcome o = Exchange(c.bytes);
    EXPECT_EQ(
        std::make_tuple(o.rc, Fields(o.res), o.retry.active, o.retry.firstError,
                        o.retry.stopAfterRound, o.broken, o.cached, cacheLog),
        std::make_tuple(c.rc, c.fields, c.active, c.firstError, c.firstError == E_TRY_OTHERS, false,
                        true, c.cacheSeq < 0 ? "" : std::to_string(c.cacheSeq) + "/42;"));
  }
}

TEST_F(PaxosReplyTest, MalformedBodiesBreakTheConnection) {
  const std::string sb = Encode(SampleState());
  const std::string full50 = V(7, 0) + sb;
  const std::string uid = Encode(UpdateId(1, 2, 3));
  struct {
    const char* label;
    std::string bytes;
  } cases[] = {
      {"seq_commit cut short", Msg(50, full50.substr(0, full50.size() - 1))},
      {"seq_commit trailing byte", Msg(50, full50 + "\x01")},
      {"seq_commit_error without state", Msg(51, V(153, -1))},
      {"seq_commit_fget without numbers", Msg(52, full50)},
      {"seq_commit_flist cut map", Msg(53, full50 + Encode(IdMap()).substr(0, 5))},
      {"uid_fput without flag", Msg(55, uid)},
      {"failed_node_ver without version", Msg(61, V(149, -1))},
      {"reply_discover without number", Msg(62, full50 + "\x01")},
      {"unknown type", Msg(70, "")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    cacheLog.clear();
    Outcome o = Exchange(c.bytes);
    EXPECT_EQ(
        std::make_tuple(o.rc, o.broken, o.cached, o.retry.active, o.retry.firstError, cacheLog),
        std::make_tuple(E_BAD_MESSAGE, true, false, true, E_CLUSTER_MISMATCH, std::string()));
  }
}

TEST(PaxosReplyDeathTest, UnexpectedTypeAssertsWithDebugAsserts) {
  EXPECT_DEATH(
      {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        std::string m = FakeServer::header8(REPLY_TYPE_PXWRITE, 0);
        ASSERT_EQ(write(fds[1], m.data(), m.size()), static_cast<ssize_t>(m.size()));
        ConnImplementation conn(fds[0], SdrSecInfo(), CommAddr());
        zelDebugAsserts = true;
        ZelReplyResult r;
        ReceiveZELReply(&conn, nullptr, &r);
      },
      "zel/paxosreply:[0-9]+: assertion 'unexpected reply type 57' failed");
}

}  // namespace
