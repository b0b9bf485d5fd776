#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/pclock.h"
#include "support/fakeserver.h"
#include "support/recordcheck.h"
#include "support/testutil.h"
#include "zel/cachedcomm.h"
#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

namespace {

std::string V(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}
std::string S(const std::string& s) {
  return s + std::string(1, '\0');
}
const std::string kZeroUid = std::string(3, '\0');

std::vector<std::pair<int, int>> connects;  // node id, time-out
std::vector<long long> sleeps;
int refuseWith = 0;

int RecordConnect(int id, Connection** out, int ms) {
  connects.push_back({id, ms});
  if (refuseWith != 0) return refuseWith;
  return connectTo(id, out, 2000);
}
void RecordSleep(long long us) {
  sleeps.push_back(us);
}

unsigned int Crc(const std::string& d) {
  return finalcrc(partialcrc(reinterpret_cast<const unsigned char*>(d.data()), d.size(), 0),
                  d.size());
}

CommittedState State(int cfgVer = 1) {
  CommittedState s;
  s.cfgVersion = cfgVer;
  s.valueList["k"] = ValueVersion{2, "v"};
  return s;
}
std::string Commit(int seq, const CommittedState& s = State()) {
  return V(seq, 0) + Encode(s);
}

class RequestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetZELIOForTest();
    zelCommittedDir = dir_.file("committed");
    ASSERT_EQ(mkdir(zelCommittedDir.c_str(), 0755), 0);
    zelCachedDir = dir_.path();
    zelPaxosLFDClientPath = dir_.file("zel.paxos");
    zelNodeFilePath = dir_.file("zel.nodes");
    zelClusterId = 0;
    cfgVersion = nlVersion = 0;
    KxSetTransferTimeouts(5000, 5000);
    outConnectionCache.clear();
    PlatSetSleepFn(RecordSleep);
    SetServerConnectFnForTest(RecordConnect);
    connects.clear();
    sleeps.clear();
    refuseWith = 0;
  }
  void TearDown() override {
    outConnectionCache.clear();
    PlatSetSleepFn(nullptr);
    SetServerConnectFnForTest(nullptr);
    KxSetTransferTimeouts(DefaultSendTimeoutMS, DefaultRecvTimeoutMS);
    ResetZELIOForTest();
  }
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
  std::vector<int> Counts(int type) {
    std::vector<int> c;
    for (auto& s : srv_) c.push_back(static_cast<int>(s->messagesOfType(type).size()));
    return c;
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
      {1, ECONNREFUSED, E_NO_SERVER, {D, D, D, D, D}, {1000000, 2000000, 4000000, 8000000}},
      {3,
       ECONNREFUSED,
       E_NO_SERVER,
       {T, T, D, D, D, D, D, D, D, D, D, D, D, D, D},
       {333333, 333333, 333333, 666666, 666666, 666666, 1333333, 1333333, 1333333, 2666666, 2666666,
        2666666}},
      // A cluster mismatch or unusable keys: every server once, then that error.
      {3, E_CLUSTER_MISMATCH, E_CLUSTER_MISMATCH, {T, T, D}, {}},
      {1, E_AUTH_PARAMS, E_AUTH_PARAMS, {D}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.n);
    UseServers(c.n);
    connects.clear();
    sleeps.clear();
    refuseWith = c.refuse;
    int seq = 0;
    CommittedState st;
    EXPECT_EQ(PaxosValueGet(&seq, &st), c.rc);
    ASSERT_EQ(connects.size(), c.timeouts.size());
    for (size_t i = 0; i < connects.size(); i++) {
      EXPECT_EQ(connects[i].first, static_cast<int>(i) % c.n + 1) << i;
      EXPECT_EQ(connects[i].second, c.timeouts[i]) << i;
    }
    EXPECT_EQ(sleeps, c.pauses);
  }
}

TEST_F(RequestTest, ReplyErrorsDecideWhetherOthersAreAsked) {
  const std::string err819 = V(819, -1) + Commit(3);
  struct {
    const char* what;
    std::function<void(std::vector<std::unique_ptr<FakeServer>>&)> script;
    int rc;
    std::vector<int> counts;
  } cases[] = {
      {"805 ends at once",
       [](auto& s) { s[0]->expect(MSG_TYPE_VGET).replyFailed(805); },
       E_ZEL_VERSION_MISMATCH,
       {1, 0, 0}},
      {"819 from all: each once",
       [&](auto& s) {
         for (auto& x : s) x->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT_ERROR, err819);
       },
       E_TRY_OTHERS,
       {1, 1, 1}},
      {"819 then an answer",
       [&](auto& s) {
         s[0]->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT_ERROR, err819);
         s[1]->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT, Commit(4));
       },
       0,
       {1, 1, 0}},
      {"other refusal goes on",
       [](auto& s) {
         s[0]->expect(MSG_TYPE_VGET).replyFailed(152);
         s[1]->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT, Commit(4));
       },
       0,
       {1, 1, 0}},
      {"seq_commit_error ends with its code",
       [](auto& s) {
         s[0]->expect(MSG_TYPE_VGET).reply(REPLY_TYPE_SEQ_COMMIT_ERROR, V(153, -1) + Commit(3));
       },
       153,
       {1, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    MakeServers(3);
    c.script(srv_);
    int seq = 0;
    CommittedState st;
    EXPECT_EQ(PaxosValueGet(&seq, &st), c.rc);
    if (c.rc == 0) {
      EXPECT_EQ(st, State());
    }
    for (auto& s : srv_) EXPECT_TRUE(s->waitDone(3000));
    outConnectionCache.clear();
    EXPECT_EQ(Counts(MSG_TYPE_VGET), c.counts);
  }
}

TEST_F(RequestTest, ServerOrderFollowsScores) {
  Nodes nodes;
  for (int id : {4, 3, 5, 2, 1}) nodes.push_back(Node(id, "x", NodeLocation("127.0.0.1", 9)));
  ASSERT_EQ(SetNodeList(nodes, false), 0);
  EXPECT_NE(PaxosInit(), 0);  // no state file: list order
  EXPECT_EQ(serverIds, (std::vector<int>{4, 3, 5, 2, 1}));

  CommittedState s;
  s.cfgVersion = 6;
  for (int id : {3, 2, 1, 5}) {
    NodeDescriptor d;
    d.id = id;
    d.listen = id != 3;
    s.config.nodes.push_back(d);
  }
  s.fileList[1] = FileVersion(9, UpdateId(1, 1, 1), 7);
  ASSERT_EQ(storePFDToFile(1, s), 0);
  zelNodeId = 1;
  bool seen25 = false, seen52 = false;
  for (int i = 0; i < 200 && !(seen25 && seen52); i++) {
    ASSERT_EQ(PaxosInit(), 0);
    ASSERT_EQ(serverIds.size(), 5u);
    EXPECT_EQ(serverIds[0], 1);  // this node
    EXPECT_EQ(serverIds[3], 3);  // configured, not listening
    EXPECT_EQ(serverIds[4], 4);  // unknown to the configuration
    seen25 |= serverIds[1] == 2;
    seen52 |= serverIds[1] == 5;
  }
  EXPECT_TRUE(seen25 && seen52);  // equal scores in either order
  EXPECT_EQ(cfgVersion, 6);
  EXPECT_EQ(nlVersion, 9);
}

TEST_F(RequestTest, UpdateBodiesAndExchange) {
  const std::string uid = Encode(UpdateId(1, 2, 3));
  struct {
    int type;
    std::string body;
    std::function<int(int*, CommittedState*)> call;
  } cases[] = {
      {MSG_TYPE_VPUT, kZeroUid + S("n") + S("val") + V(-1, -1) + V(-1, -1),
       [](int* q, CommittedState* s) { return PaxosValuePut("n", "val", q, s, -1, -1); }},
      {MSG_TYPE_VPUT, kZeroUid + S("n") + S("") + V(5, -1) + V(7, -1),
       [](int* q, CommittedState* s) { return PaxosValuePut("n", "", q, s, 5, 7); }},
      {MSG_TYPE_VDEL, kZeroUid + S("n") + V(5, -1),
       [](int* q, CommittedState* s) { return PaxosValueDel("n", q, s, 5); }},
      {MSG_TYPE_FDEL, kZeroUid + S("f") + V(-1, -1),
       [](int* q, CommittedState* s) { return PaxosFileDel("f", q, s, -1); }},
      // Quorum size only: both change flags clear, empty lists.
      {MSG_TYPE_CONFIG,
       kZeroUid + std::string(2, '\0') + Encode(NodeList()) + Encode(DiskList()) + V(3, -1) +
           V(-1, -1),
       [](int* q, CommittedState* s) { return PaxosSetConfig(nullptr, nullptr, 3, -1, q, s); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    MakeServers(1);
    srv_[0]->expect(c.type, c.body).reply(REPLY_TYPE_UID, uid);
    srv_[0]->expect(MSG_TYPE_OK, "").reply(REPLY_TYPE_SEQ_COMMIT, Commit(8));
    int seq = 0;
    CommittedState st;
    EXPECT_EQ(c.call(&seq, &st), 0);
    EXPECT_EQ(seq, 8);
    EXPECT_EQ(st, State());
  }
}

TEST_F(RequestTest, RetriedUpdateCarriesTheAssignedId) {
  MakeServers(2);
  const std::string uid = Encode(UpdateId(4, 5, 6)), rest = S("n") + S("v") + V(-1, -1) + V(-1, -1);
  srv_[0]->expect(MSG_TYPE_VPUT, kZeroUid + rest).reply(REPLY_TYPE_UID, uid);
  srv_[0]->expect(MSG_TYPE_OK).closeConn();
  srv_[1]->expect(MSG_TYPE_VPUT, uid + rest).reply(REPLY_TYPE_SEQ_COMMIT, Commit(2));
  int seq = 0;
  CommittedState st;
  EXPECT_EQ(PaxosValuePut("n", "v", &seq, &st, -1, -1), 0);
  EXPECT_EQ(seq, 2);
}

TEST_F(RequestTest, FilePutSendsContentsOnlyWhenAsked) {
  const std::string data(3000, 'q'), path = dir_.file("local");
  WriteFile(path, data);
  const std::string uid = Encode(UpdateId(1, 1, 9));
  for (bool need : {true, false}) {
    SCOPED_TRACE(need);
    MakeServers(1);
    auto& st =
        srv_[0]->expect(MSG_TYPE_FPUT, kZeroUid + S("f") + V(3000, -1) + V(2, -1) + V(-1, -1));
    st.reply(REPLY_TYPE_UID_FPUT, uid + std::string(1, need ? '\1' : '\0'));
    if (need) st.receiveFile();
    srv_[0]->expect(MSG_TYPE_OK).reply(REPLY_TYPE_SEQ_COMMIT, Commit(5));
    int seq = 0;
    CommittedState cs;
    EXPECT_EQ(PaxosFilePut("f", path, &seq, &cs, 2, -1), 0);
    ASSERT_TRUE(srv_[0]->waitDone(3000));
    auto files = srv_[0]->files();
    ASSERT_EQ(files.size(), need ? 1u : 0u);
    if (need) {
      EXPECT_TRUE(files[0].data == data && files[0].crcOk);
    }
  }
  MakeServers(1);
  int seq = 0;
  CommittedState cs;
  EXPECT_EQ(PaxosFilePut("f", dir_.file("absent"), &seq, &cs, -1, -1), ENOENT);
  EXPECT_EQ(srv_[0]->connections(), 0);
}

TEST_F(RequestTest, FileGetAndList) {
  const std::string data = "file contents\n", out = dir_.file("out");
  const std::string fget = V(3, 0) + Encode(State()) + V(7, 0) + V(data.size(), 0);
  struct {
    std::string name;
    int version, type;
  } cases[] = {{"_x", -1, MSG_TYPE_FGET_PRIV},
               {"genKeyA", 0, MSG_TYPE_FGET_PRIV},
               {"a_genKey", 4, MSG_TYPE_FGET}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    unlink(out.c_str());
    MakeServers(2);
    // A corrupted transfer is not kept; the next server delivers.
    srv_[0]
        ->expect(c.type, S(c.name) + V(c.version, -1))
        .reply(REPLY_TYPE_SEQ_COMMIT_FGET, fget)
        .sendFile(data, 1);
    srv_[1]
        ->expect(c.type, S(c.name) + V(c.version, -1))
        .reply(REPLY_TYPE_SEQ_COMMIT_FGET, fget)
        .sendFile(data);
    int seq = 0, fid = 0;
    CommittedState st;
    EXPECT_EQ(PaxosFileGet(c.name, out, &seq, &st, &fid, c.version), 0);
    EXPECT_EQ(fid, 7);
    EXPECT_EQ(ReadFile(out), data);
  }
  MakeServers(1);
  FileIdMap m;
  m[7] = FileItem{"f", "", 0};
  srv_[0]->expect(MSG_TYPE_FGET, "").reply(REPLY_TYPE_SEQ_COMMIT_FLIST, Commit(6) + Encode(m));
  int seq = 0;
  CommittedState st;
  FileIdMap got;
  EXPECT_EQ(PaxosFileList(&seq, &st, &got), 0);
  EXPECT_EQ(got, m);
  EXPECT_EQ(seq, 6);
}

TEST_F(RequestTest, ClientCacheStoresNewerStatesAndPullsNodeList) {
  MakeServers(1);
  cfgVersion = 3;
  nlVersion = 4;
  const std::string nodesText = "7,0,127.0.0.1,1234,seven\n";
  auto withFile = [&](int cv, int v) {
    CommittedState s = State(cv);
    s.fileList[1] = FileVersion(v, UpdateId(2, 1, 5), Crc(nodesText));
    return s;
  };
  struct {
    int cv, v;
    unsigned long long cid, known;
    bool stored;
    unsigned long long cidAfter;
  } cases[] = {
      {3, 4, 0, 0, false, 0},  // nothing new
      {2, 4, 9, 0, false, 0},  // older
      {3, 4, 9, 0, true, 9},   // same, but the cluster id is learnt
      {4, 4, 9, 8, true, 8},   // newer configuration; the known id stays
      {3, 3, 9, 0, false, 0},  // older node list
  };
  for (const auto& c : cases) {
    unlink(zelPaxosLFDClientPath.c_str());
    zelClusterId = c.known;
    updateClientCache(5, withFile(c.cv, c.v), c.cid);
    EXPECT_EQ(PathExists(zelPaxosLFDClientPath), c.stored) << c.cv << "/" << c.v;
    EXPECT_EQ(zelClusterId, c.cidAfter);
  }
  zelClusterId = 0;
  CommittedState newer = withFile(3, 5);
  srv_[0]
      ->expect(MSG_TYPE_FXFER, S("zel.nodes") + V(1, 0) + V(5, -1) + Encode(UpdateId(2, 1, 5)))
      .reply(MSG_TYPE_OK, V(nodesText.size(), 0))
      .sendFile(nodesText);
  updateClientCache(6, newer, 0);
  EXPECT_EQ(ReadFile(committedFilePath("zel.nodes", 1, newer)), nodesText);
  ASSERT_EQ(GetNodeList().size(), 1u);
  EXPECT_EQ(GetNodeList()[0].name, "seven");
  EXPECT_EQ(ReadFile(zelNodeFilePath), nodesText);
}

TEST_F(RequestTest, DiscoverStartsOverAfterARefreshOnlyReply) {
  MakeServers(2);
  // The first answer names only the second server and asks for a restart.
  const std::string list1 = "2,0,127.0.0.1," + std::to_string(srv_[1]->port()) + ",b\n";
  const std::string list2 = list1 + "3,0,127.0.0.1,9,c\n";
  auto reply = [&](const std::string& list, int v, bool store) {
    CommittedState s = State();
    s.fileList[1] = FileVersion(v, UpdateId(1, 1, v), Crc(list));
    return V(4, 0) + Encode(s) + std::string(1, store ? '\1' : '\0') + V(list.size(), 0);
  };
  srv_[0]
      ->expect(MSG_TYPE_DISCOVER, V(0, -1))
      .reply(REPLY_TYPE_DISCOVER, reply(list1, 2, false))
      .sendFile(list1);
  srv_[1]
      ->expect(MSG_TYPE_DISCOVER, V(0, -1))
      .reply(REPLY_TYPE_DISCOVER, reply(list2, 3, true))
      .sendFile(list2);
  EXPECT_EQ(PaxosDiscover(), 0);
  EXPECT_EQ(ReadFile(zelNodeFilePath), list2);
  int seq = 0;
  CommittedState st;
  EXPECT_EQ(loadPFDFromFile(&seq, &st), 0);
  EXPECT_EQ(seq, 4);
  EXPECT_EQ(st.fileList.at(1).version, 3);
}

}  // namespace
