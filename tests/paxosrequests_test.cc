#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/pclock.h"
#include "support/fakeserver.h"
#include "support/testutil.h"
#include "support/wirebodies.h"
#include "zel/cachedcomm.h"
#include "zel/kxconnect.h"
#include "zel/paxosclient.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

namespace {

const std::string kZeroUid = std::string(3, '\0');
std::vector<std::pair<int, int>> connects;  // node id, time-out
std::vector<long long> sleeps;
int refuseWith = 0;

std::vector<std::string> events;

int RecordConnect(int id, Connection** out, int ms) {
  connects.push_back({id, ms});
  events.push_back("connect " + std::to_string(id));
  return refuseWith != 0 ? refuseWith : connectTo(id, out, 2000);
}
void RecordSleep(long long us) {
  sleeps.push_back(us);
}

// The client cache's view: the seq handed over and how many connections had
// been released to the cache by then.
void RecordCacheEvent(int seq, const CommittedState&, unsigned long long) {
  events.push_back("cache " + std::to_string(seq) + " after " +
                   std::to_string(outConnectionCache.size()) + " released");
}

CommittedState State(int cfgVer = 1) {
  CommittedState s;
  s.cfgVersion = cfgVer;
  s.valueList["k"] = ValueVersion{2, "v"};
  return s;
}

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetProcessState();
    zelCommittedDir = dir_.file("committed");
    ASSERT_EQ(mkdir(zelCommittedDir.c_str(), 0755), 0);
    zelCachedDir = dir_.path();
    zelPaxosLFDClientPath = dir_.file("zel.paxos");
    zelNodeFilePath = dir_.file("zel.nodes");
    KxSetTransferTimeouts(5000, 5000);
    PlatSetSleepFn(RecordSleep);
    SetServerConnectFnForTest(RecordConnect);
    connects.clear();
    sleeps.clear();
    events.clear();
    refuseWith = 0;
  }
  void TearDown() override { ResetProcessState(); }
  // Nodes 1..n, on the servers' ports (or unused ones), in this order.
  void UseServers(int n) {
    Nodes nodes;
    for (int i = 0; i < n; i++) {
      int port = i < static_cast<int>(srv_.size()) ? srv_[i]->port() : 9;
      nodes.push_back(Node(i + 1, "n" + std::to_string(i + 1), NodeLocation("127.0.0.1", port)));
    }
    ASSERT_EQ(SetNodeList(nodes, false), 0);
    PaxosInit();
  }
  void MakeServers(int n) {
    srv_.clear();
    for (int i = 0; i < n; i++) srv_.emplace_back(new FakeServer());
    UseServers(n);
  }

  TempDir dir_;
  std::vector<std::unique_ptr<FakeServer>> srv_;
};

TEST_F(RequestTest, RetryScheduleTimeoutsAndStopRules) {
  const int T = 1000, D = -1;
  struct {
    int n, refuse, rc;
    std::vector<int> timeouts;
    std::vector<long long> pauses;
  } cases[] = {
      // clang-format off
      {1, ECONNREFUSED, E_NO_SERVER, {D, D, D, D, D}, {1000000, 2000000, 4000000, 8000000}},
      {3, ECONNREFUSED, E_NO_SERVER, {T, T, D, D, D, D, D, D, D, D, D, D, D, D, D},
       {333333, 333333, 333333, 666666, 666666, 666666, 1333333, 1333333, 1333333, 2666666, 2666666, 2666666}},
      // A cluster mismatch or unusable keys: every server once, then that error.
      {3, E_CLUSTER_MISMATCH, E_CLUSTER_MISMATCH, {T, T, D}, {}},
      {1, E_AUTH_PARAMS, E_AUTH_PARAMS, {D}, {}},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.n);
    UseServers(c.n);
    connects.clear();
    sleeps.clear();
    refuseWith = c.refuse;
    int seq = 0;
    CommittedState st;
    ClearErrorCause();
    EXPECT_EQ(PaxosValueGet(&seq, &st), c.rc);
    // 801 comes with what the last server tried said.
    EXPECT_EQ(
        c.rc == E_NO_SERVER ? "last server tried: 127.0.0.1:9: Connection refused (err 111)" : "",
        ErrorCause());
    std::vector<std::pair<int, int>> want;
    for (size_t i = 0; i < c.timeouts.size(); i++) want.push_back({i % c.n + 1, c.timeouts[i]});
    EXPECT_EQ(connects, want);
    EXPECT_EQ(sleeps, c.pauses);
  }
}

// A refusal other than 804..807 moves on; 819 asks each server once.
TEST_F(RequestTest, ReplyErrorsDecideWhetherOthersAreAsked) {
  const std::string e819 = V(819, -1) + Commit(3, State());
  // Per server: 819, another refusal, or (0) an answer.
  const std::pair<std::vector<int>, int> cases[] = {{{819, 819, 819}, E_TRY_OTHERS},
                                                    {{819, 152, 0}, 0}};
  for (const auto& [replies, rc] : cases) {
    MakeServers(3);
    connects.clear();
    for (int i = 0; i < 3; i++) {
      FakeServer& st = srv_[i]->expect(MSG_TYPE_VGET);
      if (replies[i] == 819) st.reply(REPLY_TYPE_SEQ_COMMIT_ERROR, e819);
      if (replies[i] == 152) st.replyFailed(152);
      if (replies[i] == 0) st.reply(REPLY_TYPE_SEQ_COMMIT, Commit(4, State()));
    }
    int seq = 0;
    CommittedState st;
    EXPECT_EQ(PaxosValueGet(&seq, &st), rc);
    EXPECT_EQ(connects.size(), 3u);
  }
}

// Decoding queues the states; each goes to the client cache once its attempt's
// connection is back, before the next attempt, in the order they came.
TEST_F(RequestTest, ClientCacheUpdatedAfterEachAttemptReleasesItsConnection) {
  MakeServers(2);
  srv_[0]
      ->expect(MSG_TYPE_VGET)
      .reply(REPLY_TYPE_SEQ_COMMIT_ERROR, V(819, -1) + Commit(3, State()));
  srv_[1]->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT, Commit(4, State()));
  SetClientCacheFnForTest(RecordCacheEvent);
  events.clear();
  int seq = 0;
  CommittedState st;
  EXPECT_EQ(PaxosValueGet(&seq, &st), 0);
  EXPECT_EQ(events, (std::vector<std::string>{"connect 1", "cache 3 after 1 released", "connect 2",
                                              "cache 4 after 2 released"}));
}

TEST_F(RequestTest, ServerOrderFollowsScores) {
  Nodes nodes;
  for (int id : {4, 3, 5, 2, 1}) nodes.push_back(Node(id, "x", NodeLocation("127.0.0.1", 9)));
  ASSERT_EQ(SetNodeList(nodes, false), 0);
  EXPECT_NE(PaxosInit(), 0);  // no state file: list order
  EXPECT_EQ(serverIds, (std::vector<int>{4, 3, 5, 2, 1}));

  CommittedState s;
  s.cfgVersion = 6;
  for (int id : {3, 2, 1, 5}) s.config.nodes.push_back(NodeDescriptor{id, -1, 0, id != 3});
  s.fileList[1] = FileVersion(9, UpdateId(1, 1, 1), 7);
  ASSERT_EQ(storePFDToFile(1, s, 0), 0);
  zelNodeId = 1;
  bool seen2 = false, seen5 = false;
  for (int i = 0; i < 200 && !(seen2 && seen5); i++) {
    ASSERT_EQ(PaxosInit(), 0);
    // This node, listeners (either order), configured, unknown.
    ASSERT_EQ(serverIds.size(), 5u);
    EXPECT_TRUE(serverIds[0] == 1 && serverIds[3] == 3 && serverIds[4] == 4);
    seen2 |= serverIds[1] == 2;
    seen5 |= serverIds[1] == 5;
  }
  EXPECT_TRUE(seen2 && seen5);
  EXPECT_TRUE(cfgVersion == 6 && nlVersion == 9);
}

// Each update: exact body, "uid", "ok", "seq_commit".
TEST_F(RequestTest, UpdateBodiesAndExchange) {
  const std::string path = dir_.file("local"), uid = Encode(UpdateId(1, 2, 3));
  WriteFile(path, "abc");
  struct {
    int type;
    std::string body;
    std::function<int(int*, CommittedState*)> call;
    int uidType = REPLY_TYPE_UID;
  } cases[] = {
      // clang-format off
      {MSG_TYPE_VPUT, S("n") + S("val") + V(5, -1) + V(-1, -1), [](int* q, CommittedState* s) { return PaxosValuePut("n", "val", q, s, 5, -1); }},
      {MSG_TYPE_VDEL, S("n") + V(5, -1), [](int* q, CommittedState* s) { return PaxosValueDel("n", q, s, 5); }},
      {MSG_TYPE_FDEL, S("f") + V(-1, -1), [](int* q, CommittedState* s) { return PaxosFileDel("f", q, s, -1); }},
      // Quorum size only: both change flags clear, empty lists.
      {MSG_TYPE_CONFIG, std::string(2, '\0') + Encode(NodeList()) + Encode(DiskList()) + V(3, -1) + V(-1, -1),
       [](int* q, CommittedState* s) { return PaxosSetConfig(nullptr, nullptr, 3, -1, q, s); }},
      // The server has the contents already: only "ok" follows.
      {MSG_TYPE_FPUT, S("f") + V(3, -1) + V(2, -1) + V(-1, -1),
       [&](int* q, CommittedState* s) { return PaxosFilePut("f", path, q, s, 2, -1); }, REPLY_TYPE_UID_FPUT},
      // clang-format on
  };
  for (const auto& c : cases) {
    MakeServers(1);
    std::string u = uid + (c.uidType == REPLY_TYPE_UID_FPUT ? std::string(1, '\0') : "");
    srv_[0]->expect(c.type, kZeroUid + c.body).reply(c.uidType, u);
    srv_[0]->expect(MSG_TYPE_OK, "").reply(REPLY_TYPE_SEQ_COMMIT, Commit(8, State()));
    int seq = 0;
    CommittedState st;
    EXPECT_TRUE(c.call(&seq, &st) == 0 && seq == 8 && st == State()) << c.type;
  }
  // A local file that is not there: no server is asked.
  connects.clear();
  int seq = 0;
  CommittedState st;
  EXPECT_EQ(PaxosFilePut("f", dir_.file("absent"), &seq, &st, -1, -1), ENOENT);
  EXPECT_TRUE(connects.empty());
}

TEST_F(RequestTest, RetriedUpdateCarriesTheAssignedId) {
  MakeServers(2);
  const std::string uid = Encode(UpdateId(4, 5, 6)), rest = S("n") + S("v") + V(-1, -1) + V(-1, -1);
  srv_[0]->expect(MSG_TYPE_VPUT, kZeroUid + rest).reply(REPLY_TYPE_UID, uid);
  srv_[0]->expect(MSG_TYPE_OK).closeConn();
  srv_[1]->expect(MSG_TYPE_VPUT, uid + rest).reply(REPLY_TYPE_SEQ_COMMIT, Commit(2, State()));
  int seq = 0;
  CommittedState st;
  EXPECT_EQ(PaxosValuePut("n", "v", &seq, &st, -1, -1), 0);
  EXPECT_EQ(seq, 2);
}

// Private names use "fget_priv"; a corrupted transfer leaves no file and the
// next server is asked.
TEST_F(RequestTest, PrivateFileGetAndBadTransfer) {
  const std::string data = "file contents\n", out = dir_.file("out"), body = S("_x") + V(4, -1);
  const std::string reply = V(3, 0) + Encode(State()) + V(7, 0) + V(data.size(), 0);
  MakeServers(2);
  srv_[0]
      ->expect(MSG_TYPE_FGET_PRIV, body)
      .reply(REPLY_TYPE_SEQ_COMMIT_FGET, reply)
      .sendFile(data, 1);
  srv_[1]->expect(MSG_TYPE_FGET_PRIV, body).reply(REPLY_TYPE_SEQ_COMMIT_FGET, reply).sendFile(data);
  int seq = 0, fid = 0;
  CommittedState st;
  EXPECT_EQ(PaxosFileGet("_x", out, &seq, &st, &fid, 4), 0);
  EXPECT_TRUE(fid == 7 && ReadFile(out) == data);
  EXPECT_EQ(ListDir(dir_.path()), (std::vector<std::string>{"committed", "out"}));
}

// Stored only when the configuration or node list is newer, or the cluster id
// is first learnt.
TEST_F(RequestTest, ClientCacheStoresOnlyNewerStates) {
  cfgVersion = 3;
  nlVersion = 4;
  // Configuration and node-list versions, cluster id in the reply and known
  // before; whether stored, and the cluster id after.
  using Id = unsigned long long;
  const std::tuple<int, int, Id, Id, bool, Id> cases[] = {
      {3, 4, 0, 0, false, 0}, {2, 4, 9, 0, false, 0}, {3, 3, 9, 0, false, 0},
      {3, 4, 9, 0, true, 9},  {4, 4, 9, 8, true, 8},
  };
  for (const auto& [cv, v, cid, known, stored, cidAfter] : cases) {
    unlink(zelPaxosLFDClientPath.c_str());
    zelClusterId = known;
    CommittedState s = State(cv);
    s.fileList[1] = FileVersion(v, UpdateId(2, 1, 5), 1);
    updateClientCache(5, s, cid);
    EXPECT_EQ(std::make_pair(PathExists(zelPaxosLFDClientPath), zelClusterId),
              std::make_pair(stored, cidAfter))
        << cv << "/" << v;
  }
}

}  // namespace
