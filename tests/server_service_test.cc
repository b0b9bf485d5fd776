// The request service in process, over a memory replica: every request's
// exchange as the client library sees it, refusals and their forms, the
// exactly-once rules, files end to end, and bad input that must leave the
// server serving.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "server/rules.h"
#include "support/fakeserver.h"
#include "support/wirebodies.h"
#include "support/zeldharness.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelxfer.h"

namespace {

std::string vputBody(const UpdateId& u, const std::string& n, const std::string& v, int cond = -1,
                     int ver = -1) {
  return Encode(u) + S(n) + S(v) + V(cond, -1) + V(ver, -1);
}
std::string delBody(const UpdateId& u, const std::string& n, int cond = -1) {
  return Encode(u) + S(n) + V(cond, -1);
}
std::string fputBody(const UpdateId& u, const std::string& n, int size) {
  return Encode(u) + S(n) + V(size, -1) + V(-1, -1) + V(-1, -1);
}

struct StateReply {
  int seq = -1;
  CommittedState s;
  bool ok = false;
};
StateReply decodeState(const std::string& b, std::string* rest = nullptr) {
  StateReply r;
  const char* end = b.data() + b.size();
  const char* p = LoadVarUInt(b.data(), end, &r.seq, 0);
  p = r.s.load(p, end);
  r.ok = p != nullptr && (rest != nullptr || p == end);
  if (p != nullptr && rest != nullptr) rest->assign(p, end);
  return r;
}

// A whole update exchange as the client runs it: request, "uid", "ok", reply.
struct Update {
  Reply reply;
  UpdateId assigned;
  int uidReplies = 0;
};
Update runUpdate(Connection* c, int type, const std::function<std::string(const UpdateId&)>& body,
                 UpdateId start = UpdateId()) {
  Update u;
  u.assigned = start;
  u.reply = Exchange(c, type, body(start));
  while (u.reply.rc == 0 && u.reply.type == REPLY_TYPE_UID) {
    u.uidReplies++;
    u.assigned.load(u.reply.body.data(), u.reply.body.data() + u.reply.body.size());
    u.reply = Exchange(c, MSG_TYPE_OK, "");
  }
  return u;
}

int valueVersion(const Reply& r, const std::string& name) {
  StateReply s = decodeState(r.body);
  auto it = s.s.valueList.find(name);
  return it == s.s.valueList.end() ? 0 : it->second.version;
}

}  // namespace

TEST(ServerService, BeforeInitOnlyStatusAnswers) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  auto c = h.connect();
  ASSERT_TRUE(c);
  Reply r = Exchange(c.get(), MSG_TYPE_STATUS, "");
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.body, V(2, 0));
  for (int type : {MSG_TYPE_VGET, MSG_TYPE_FGET}) {
    EXPECT_EQ(Exchange(c.get(), type, "").rc, E_NOT_SERVER) << type;
  }
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_VPUT, vputBody(UpdateId(), "a", "b")).rc, E_NOT_SERVER);
  // A second server on the same directory is refused by the lock file.
  ZeldHarness second(h.dir());
  EXPECT_FALSE(second.started());
}

TEST(ServerService, InitThenValueUpdatesWithVersionRules) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  EXPECT_EQ(h.init(), 0);  // the same init again is accepted
  auto c = h.connect();
  Reply st = Exchange(c.get(), MSG_TYPE_STATUS, "");
  EXPECT_EQ(st.body, V(4, 0));

  auto put = [&](const std::string& v, int cond, int ver) {
    return runUpdate(c.get(), MSG_TYPE_VPUT,
                     [&](const UpdateId& u) { return vputBody(u, "a", v, cond, ver); });
  };
  Update u1 = put("one", -1, -1);
  ASSERT_EQ(u1.reply.rc, 0);
  EXPECT_EQ(u1.reply.type, REPLY_TYPE_SEQ_COMMIT);
  EXPECT_EQ(u1.uidReplies, 1);
  EXPECT_EQ(valueVersion(u1.reply, "a"), 1);
  struct Case {
    const char* what;
    int cond, ver, rc, version;
  } cases[] = {
      {"condition met", 1, -1, 0, 2},
      {"condition not met", 1, -1, E_ZEL_VERSION_MISMATCH, 0},
      {"version below", -1, 2, E_ZEL_INVALID_VERSION, 0},
      {"version above", -1, 10, 0, 10},
      {"next", -1, -1, 0, 11},
  };
  for (const Case& k : cases) {
    Update u = put(k.what, k.cond, k.ver);
    EXPECT_EQ(u.reply.rc, k.rc) << k.what;
    // A refusal on arrival issues no id.
    EXPECT_EQ(u.uidReplies, k.rc == 0 ? 1 : 0) << k.what;
    if (k.rc == 0) {
      EXPECT_EQ(valueVersion(u.reply, "a"), k.version) << k.what;
    }
  }
  Update d = runUpdate(c.get(), MSG_TYPE_VDEL, [](const UpdateId& u) { return delBody(u, "a"); });
  ASSERT_EQ(d.reply.rc, 0);
  EXPECT_EQ(valueVersion(d.reply, "a"), 0);
  EXPECT_EQ(decodeState(d.reply.body).s.maxDeletedValueVersion, 11);
  d = runUpdate(c.get(), MSG_TYPE_VDEL, [](const UpdateId& u) { return delBody(u, "a"); });
  EXPECT_EQ(d.reply.rc, E_ZEL_NOT_FOUND);
  // A re-created value starts above the highest deleted version.
  EXPECT_EQ(valueVersion(put("again", -1, -1).reply, "a"), 12);
  Reply g = Exchange(c.get(), MSG_TYPE_VGET, "");
  ASSERT_EQ(g.type, REPLY_TYPE_SEQ_COMMIT);
  EXPECT_EQ(decodeState(g.body).s.valueList["a"].value, "again");
}

TEST(ServerService, ExactlyOnce) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  auto c = h.connect();
  auto body = [](const UpdateId& u) { return vputBody(u, "x", "v"); };
  Update first = runUpdate(c.get(), MSG_TYPE_VPUT, body);
  ASSERT_EQ(first.reply.rc, 0);
  int applied = h.replica()->applied();
  // The same id again, as after a lost reply: answered at once, nothing applied.
  Update again = runUpdate(c.get(), MSG_TYPE_VPUT, body, first.assigned);
  EXPECT_EQ(again.reply.rc, 0);
  EXPECT_EQ(again.uidReplies, 0);
  EXPECT_EQ(h.replica()->applied(), applied);
  EXPECT_EQ(valueVersion(again.reply, "x"), 1);

  // Ids of one stream increase; after an undecided id the stream is retired, so
  // a retry of that id is never mistaken for applied.
  Update second = runUpdate(c.get(), MSG_TYPE_VPUT, body);
  EXPECT_EQ(second.assigned.epoch, first.assigned.epoch);
  EXPECT_GT(second.assigned.seq, first.assigned.seq);
  h.replica()->failNext(E_TRY_OTHERS);
  Update lost = runUpdate(c.get(), MSG_TYPE_VPUT, body);
  EXPECT_EQ(lost.reply.rc, 0);
  EXPECT_EQ(lost.reply.type, REPLY_TYPE_SEQ_COMMIT_ERROR);
  Update next = runUpdate(c.get(), MSG_TYPE_VPUT, body);
  EXPECT_NE(next.assigned.epoch, lost.assigned.epoch);
  Update retry = runUpdate(c.get(), MSG_TYPE_VPUT, body, lost.assigned);
  ASSERT_EQ(retry.reply.rc, 0);
  EXPECT_EQ(valueVersion(retry.reply, "x"), 4);  // applied now, once
}

TEST(ServerService, FilesRoundTrip) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  TempDir tmp;
  struct Case {
    const char* name;
    size_t size;
  } cases[] = {{"zel.nodes", 20},
               {"empty", 0},
               {"big", 1048577},
               {"_priv", 5},
               {"b4095", 4095},
               {"b4096", 4096},
               {"mib", 1048576},
               {"odd", 2500000},
               {"b4097", 4097},
               {"one", 1},
               {"huge", (4u << 20) + 1000},
               {"ahead", (8u << 20) + 4097}};
  for (const Case& k : cases) {
    std::string data(k.size, '\0');
    for (size_t i = 0; i < k.size; i++) data[i] = static_cast<char>(i * 7 + k.size);
    std::string src = tmp.file("src");
    WriteFile(src, data);
    auto c = h.connect();
    Reply r = Exchange(c.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), k.name, k.size));
    ASSERT_EQ(r.type, REPLY_TYPE_UID_FPUT) << k.name;
    ASSERT_EQ(r.body.back(), '\1');
    ASSERT_EQ(sendFile(c.get(), src, static_cast<int>(k.size)), 0);
    r = Exchange(c.get(), MSG_TYPE_OK, "");
    ASSERT_EQ(r.rc, 0) << k.name;
    ASSERT_EQ(r.type, REPLY_TYPE_SEQ_COMMIT) << k.name;

    int type = k.name[0] == '_' ? MSG_TYPE_FGET_PRIV : MSG_TYPE_FGET;
    r = Exchange(c.get(), type, S(k.name) + V(-1, -1));
    ASSERT_EQ(r.type, REPLY_TYPE_SEQ_COMMIT_FGET) << k.name;
    std::string rest;
    StateReply s = decodeState(r.body, &rest);
    int fileId = 0, size = 0;
    const char* p = LoadVarUInt(rest.data(), rest.data() + rest.size(), &fileId, 0);
    p = LoadVarUInt(p, rest.data() + rest.size(), &size, 0);
    ASSERT_EQ(p, rest.data() + rest.size());
    EXPECT_EQ(size, static_cast<int>(k.size));
    EXPECT_EQ(fileId == 1, std::string(k.name) == "zel.nodes");
    unsigned int crc = 0;
    std::string dst = tmp.file(std::string("dst.") + k.name);
    ASSERT_EQ(receiveFile(c.get(), dst, size, false, &crc, nullptr, true), 0);
    EXPECT_EQ(ReadFile(dst), data) << k.name;
    EXPECT_EQ(crc, s.s.fileList[fileId].crc);
    // The same version asked for conditionally: refused with "version match".
    int v = s.s.fileList[fileId].version;
    EXPECT_EQ(Exchange(c.get(), type, S(k.name) + V(v, -1)).rc, E_ZEL_VERSION_MATCH);
  }
  auto c = h.connect();
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_FGET, S("_priv") + V(-1, -1)).rc, EACCES);
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_FGET, S("nope") + V(-1, -1)).rc, E_ZEL_NOT_FOUND);
  Reply fl = Exchange(c.get(), MSG_TYPE_FGET, "");
  ASSERT_EQ(fl.type, REPLY_TYPE_SEQ_COMMIT_FLIST);
  std::string rest;
  StateReply s = decodeState(fl.body, &rest);
  FileIdMap m;
  ASSERT_EQ(m.load(rest.data(), rest.data() + rest.size()), rest.data() + rest.size());
  ZelObjectInfoList list;
  EXPECT_EQ(fillZelObjectInfoList(&list, s.s, m), 0);
  EXPECT_EQ(list.size(), sizeof cases / sizeof cases[0]);

  // Deleting the node list is refused with a final error; other files go.
  Update d =
      runUpdate(c.get(), MSG_TYPE_FDEL, [](const UpdateId& u) { return delBody(u, "zel.nodes"); });
  EXPECT_EQ(d.reply.type, REPLY_TYPE_SEQ_COMMIT_ERROR);
  d = runUpdate(c.get(), MSG_TYPE_FDEL, [](const UpdateId& u) { return delBody(u, "big"); });
  ASSERT_EQ(d.reply.rc, 0);
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_FGET, S("big") + V(-1, -1)).rc, E_ZEL_NOT_FOUND);

  // Discovery hands out the node list with the state; fxfer a named version.
  Reply dr = Exchange(c.get(), MSG_TYPE_DISCOVER, V(0, -1));
  ASSERT_EQ(dr.type, REPLY_TYPE_DISCOVER);
  s = decodeState(dr.body, &rest);
  ASSERT_EQ(rest.size(), 2u);
  EXPECT_EQ(rest[0], '\1');
  unsigned int crc = 0;
  ASSERT_EQ(receiveFile(c.get(), tmp.file("nodes"), rest[1], false, &crc, nullptr, true), 0);
  FileVersion fv = s.s.fileList[1];
  Reply fx = Exchange(c.get(), MSG_TYPE_FXFER,
                      S("zel.nodes") + V(1, 0) + V(fv.version, -1) + Encode(fv.uid));
  ASSERT_EQ(fx.type, MSG_TYPE_OK);
  ASSERT_EQ(receiveFile(c.get(), tmp.file("nodes2"), 20, false, &crc, nullptr, true), 0);
  EXPECT_EQ(ReadFile(tmp.file("nodes")), ReadFile(tmp.file("nodes2")));
  fx = Exchange(c.get(), MSG_TYPE_FXFER,
                S("zel.nodes") + V(1, 0) + V(fv.version + 5, -1) + Encode(fv.uid));
  EXPECT_NE(fx.rc, 0);
  EXPECT_EQ(ListDir(h.dir() + "/staging").size(), 0u);
}

TEST(ServerService, BadTransfersChangeNothing) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  int applied = h.replica()->applied();
  {
    // A wrong CRC: refused with 810 after the transfer, no change, no staging file.
    auto c = h.connect();
    Reply r = Exchange(c.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), "f", 3));
    ASSERT_EQ(r.type, REPLY_TYPE_UID_FPUT);
    ASSERT_EQ(c->send(MSG_TYPE_FDATA, "abc", 3), 0);
    ASSERT_EQ(c->send(MSG_TYPE_FCRC, "\0\0\0\1", 4), 0);
    EXPECT_EQ(Exchange(c.get(), MSG_TYPE_OK, "").rc, E_XFER_FAILED);
  }
  {
    // More data than announced, then a client that goes away mid-transfer.
    auto c = h.connect();
    Exchange(c.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), "f", 2));
    ASSERT_EQ(c->send(MSG_TYPE_FDATA, "abc", 3), 0);
    EXPECT_NE(ReceiveReply(c.get()).rc, 0);
    c = h.connect();
    Exchange(c.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), "f", 10));
    ASSERT_EQ(c->send(MSG_TYPE_FDATA, "abc", 3), 0);
  }
  auto c = h.connect();
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_STATUS, "").rc, 0);  // served all along
  EXPECT_EQ(h.replica()->applied(), applied);
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_FGET, S("f") + V(-1, -1)).rc, E_ZEL_NOT_FOUND);
}

// An fput whose upload outlasts twenty other streams finds its id behind the
// update horizon, where the state counts it as applied: it is given another
// id, announced before it is decided, and the file is stored under that one.
TEST(ServerService, FputBehindTheHorizonGetsAnotherId) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  TempDir tmp;
  const std::string src = tmp.file("src");
  WriteFile(src, "late");
  auto slow = h.connect();
  Reply r = Exchange(slow.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), "late", 4));
  ASSERT_EQ(r.type, REPLY_TYPE_UID_FPUT);
  UpdateId first;
  ASSERT_NE(first.load(r.body.data(), r.body.data() + r.body.size()), nullptr);

  // Meanwhile other fputs, each on a stream of its own, push the horizon past it.
  for (int i = 0; i < kMaxUpdateStreams + 1; i++) {
    auto c = h.connect();
    std::string name = "f" + std::to_string(i);
    ASSERT_EQ(Exchange(c.get(), MSG_TYPE_FPUT, fputBody(UpdateId(), name, 4)).type,
              REPLY_TYPE_UID_FPUT);
    ASSERT_EQ(sendFile(c.get(), src, 4), 0);
    ASSERT_EQ(Exchange(c.get(), MSG_TYPE_OK, "").type, REPLY_TYPE_SEQ_COMMIT) << name;
  }
  int seq = 0;
  StateRef before;
  h.replica()->snapshot(&seq, &before);
  ASSERT_EQ(before->includes(first), 2);  // taken for applied, by the horizon alone

  ASSERT_EQ(sendFile(slow.get(), src, 4), 0);
  r = Exchange(slow.get(), MSG_TYPE_OK, "");
  ASSERT_EQ(r.type, REPLY_TYPE_UID_FPUT);
  ASSERT_EQ(r.body.back(), '\0');  // an id in place of the first, not a new transfer
  UpdateId second;
  ASSERT_NE(second.load(r.body.data(), r.body.data() + r.body.size()), nullptr);
  EXPECT_NE(second.stream(), first.stream());
  EXPECT_EQ(before->includes(second), 0);
  r = Exchange(slow.get(), MSG_TYPE_OK, "");
  ASSERT_EQ(r.type, REPLY_TYPE_SEQ_COMMIT);
  StateReply after = decodeState(r.body);
  ASSERT_TRUE(after.ok);
  EXPECT_EQ(after.s.includes(second), 1);
  EXPECT_EQ(after.seq, seq + 1);

  r = Exchange(slow.get(), MSG_TYPE_FGET, S("late") + V(-1, -1));
  ASSERT_EQ(r.type, REPLY_TYPE_SEQ_COMMIT_FGET);
  unsigned int crc = 0;
  ASSERT_EQ(receiveFile(slow.get(), tmp.file("dst"), 4, false, &crc, nullptr, true), 0);
  EXPECT_EQ(ReadFile(tmp.file("dst")), "late");
}

TEST(ServerService, MalformedInputLeavesTheServerUp) {
  ZeldHarness h("", MemReplicaFactory(), 300);
  ASSERT_TRUE(h.started());
  ASSERT_EQ(h.init(), 0);
  struct Case {
    const char* what;
    int type;
    std::string body;
  } cases[] = {
      {"unknown type", 40, ""},
      {"vput truncated", MSG_TYPE_VPUT, Encode(UpdateId()) + "a"},
      {"vput trailing bytes", MSG_TYPE_VPUT, vputBody(UpdateId(), "a", "b") + "x"},
      {"vput empty name", MSG_TYPE_VPUT, vputBody(UpdateId(), "", "b")},
      {"fput negative size", MSG_TYPE_FPUT, fputBody(UpdateId(), "f", -1)},
      {"fget bad name", MSG_TYPE_FGET, S("a/b") + V(-1, -1)},
      {"config garbage", MSG_TYPE_CONFIG, Encode(UpdateId()) + "\x01\x01\xff"},
      {"init garbage", MSG_TYPE_INIT, "\x01\x02"},
      {"pxinit descriptor", MSG_TYPE_PXINIT, ""},
      {"debug unknown word", MSG_TYPE_DEBUG, S("explode") + V(0, 0)},
      {"discover garbage", MSG_TYPE_DISCOVER, "\xff\xff"},
  };
  auto c = h.connect();
  for (const Case& k : cases) {
    Reply r = Exchange(c.get(), k.type, k.body);
    EXPECT_TRUE(r.rc != 0 || r.type == REPLY_TYPE_SEQ_COMMIT_ERROR) << k.what;
    EXPECT_NE(r.rc, E_CONN_SHUTDOWN) << k.what;
  }
  Reply e = Exchange(c.get(), MSG_TYPE_DEBUG, S("echo") + V(2, 0) + S("hello") + S("there"));
  EXPECT_EQ(e.body, "hello there");
  // Raw garbage instead of a greeting, an oversized body, and a stalled client:
  // each connection is dropped on its own, the others go on.
  auto stalled = h.connect();
  ASSERT_EQ(stalled->send(MSG_TYPE_VPUT, nullptr, 0), 0);
  {
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_storage ss;
    IpAddr ip;
    IpAddr::parse("127.0.0.1", &ip);
    socklen_t len = ip.toSockaddr(h.port(), &ss);
    ASSERT_EQ(::connect(s, reinterpret_cast<sockaddr*>(&ss), len), 0);
    std::string junk(100, 'J');
    ASSERT_EQ(::write(s, junk.data(), junk.size()), 100);
    char b;
    EXPECT_LE(::read(s, &b, 1), 0);  // closed without an answer
    ::close(s);
  }
  auto big = h.connect();
  std::string hdr = FakeServer::header8(MSG_TYPE_VPUT, ZEL_MAX_BODY_LENGTH + 1);
  ASSERT_EQ(kxFullSend(big->getSock(), hdr.data(), 8, 1000), 0);
  EXPECT_NE(ReceiveReply(big.get()).rc, 0);
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_STATUS, "").body, V(4, 0));
  EXPECT_NE(ReceiveReply(stalled.get()).rc, 0);  // its time-out came
}

TEST(ServerService, InitRefusals) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  InitRequest r;
  r.clusterId = 5;
  r.nodes = {{1, false, "n1", "127.0.0.1", h.port() + 1}};  // not this server
  r.block.committed.config = PaxosConfig(NodeList{{1, 0, 0, true}}, DiskList{}, 1);
  std::string b(static_cast<size_t>(r.getSize()), '\0');
  r.dump(&b[0]);
  auto c = h.connect();
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_INIT, b).rc, E_NOT_SERVER);
  ASSERT_EQ(h.init(5), 0);
  EXPECT_EQ(h.init(6), EEXIST);  // another configuration needs a fresh directory
  // A client of another cluster is turned away at the greeting.
  EXPECT_EQ(h.connect(9), nullptr);
  EXPECT_NE(h.connect(5), nullptr);
}

TEST(ServerService, StopsOnQuitAfterAnswering) {
  ZeldHarness h;
  ASSERT_TRUE(h.started());
  auto c = h.connect();
  EXPECT_EQ(Exchange(c.get(), MSG_TYPE_QUIT, "").rc, 0);
  h.stop();  // returns: every connection was closed
  EXPECT_EQ(h.connect(), nullptr);
}
