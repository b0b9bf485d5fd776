// The server half of a connection: the client's greeting read back, the answer
// read by the client's own reader, framing limits and the authentication slot
// between header and body; and the bodies of "init" and "pxinit".
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "support/fakeserver.h"
#include "zel/kxserve.h"
#include "zel/paxosinit.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

struct Pair {
  int fd[2] = {-1, -1};
  Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd), 0); }
  ~Pair() {
    for (int f : fd)
      if (f >= 0) close(f);
  }
  void put(const std::string& s) {
    ASSERT_EQ(write(fd[0], s.data(), s.size()), static_cast<ssize_t>(s.size()));
  }
};

std::string u32(unsigned int v) {
  char b[4];
  DumpUInt32(b, v);
  return std::string(b, 4);
}

int authCalls = 0;
int authSeesHeaderOnly(int sock, const SdrSecInfo& info) {
  authCalls++;
  // The body has not been read yet: the next byte on the socket is its first.
  char c = 0;
  EXPECT_EQ(recv(sock, &c, 1, MSG_PEEK), 1);
  EXPECT_EQ(c, 'B');
  return info.peerKeyGenNumber == -1 ? E_AUTH_PARAMS : 0;
}

}  // namespace

TEST(KxServe, ClientGreetingAndAnswerAgree) {
  // What this library's client sends is what the server half reads.
  std::string g = kxGreetingBytes(0x1122334455667788ULL);
  ClientGreeting cg;
  ASSERT_EQ(kxParseClientGreeting(g.data(), g.data() + g.size(), &cg), 0);
  EXPECT_EQ(cg.version, kZelProtocolVersion);
  EXPECT_EQ(cg.clusterId, 0x1122334455667788ULL);
  EXPECT_FALSE(cg.hasRecord6);

  struct Case {
    bool security;
    const char* name;
  } cases[] = {{false, ""}, {true, "cl"}, {true, "a-longer-cluster-name"}};
  for (const Case& c : cases) {
    GreetingAnswer a;
    a.clusterId = 0x0102030405060708ULL;
    a.security = c.security;
    a.keyGenNumber = 7;
    a.clusterName = c.name;
    Pair p;
    p.put(kxGreetingAnswerBytes(a));
    SdrSecInfo info;
    ASSERT_EQ(kxReadGreetingAnswer(p.fd[1], 1000, &info), 0) << c.name;
    EXPECT_EQ(info.peerClusterId, a.clusterId);
    EXPECT_EQ(info.peerVersion, kZelProtocolVersion);
    EXPECT_EQ(info.peerKeyGenNumber, c.security ? 7 : -1);
    EXPECT_EQ(info.peerClusterName, c.security ? c.name : "");
  }
  GreetingAnswer rejected;
  rejected.status = 1;
  Pair p;
  p.put(kxGreetingAnswerBytes(rejected));
  SdrSecInfo info;
  EXPECT_EQ(kxReadGreetingAnswer(p.fd[1], 1000, &info), E_CONN_REJECTED);
}

TEST(KxServe, MalformedGreetingsAreErrors) {
  std::string good = kxGreetingBytes(0);
  std::string badMagic = good;
  badMagic[0] ^= 1;
  std::string longRec = good.substr(0, 20) + u32(kMaxClientGreetingRecord + 1) + u32(0);
  std::string shortRec = good.substr(0, 20) + u32(4) + u32(0);
  // A chain that never ends: each record names another of 8 bytes.
  std::string loop = good.substr(0, 20) + u32(8) + u32(0);
  for (int i = 0; i < kMaxClientGreetingRecords + 1; i++) loop += u32(1) + u32(8);
  struct Case {
    const char* what;
    std::string bytes;
    int rc;
  } cases[] = {
      {"bad magic", badMagic, E_CANT_CONNECT},
      {"record too long", longRec, E_BAD_ATTACH_LEN},
      {"record too short", shortRec, E_BAD_ATTACH_LEN},
      {"endless chain", loop, E_BAD_ATTACH_LEN},
  };
  for (const Case& c : cases) {
    ClientGreeting g;
    EXPECT_EQ(kxParseClientGreeting(c.bytes.data(), c.bytes.data() + c.bytes.size(), &g), c.rc)
        << c.what;
    Pair p;
    p.put(c.bytes);
    shutdown(p.fd[0], SHUT_WR);
    EXPECT_EQ(kxReadClientGreeting(p.fd[1], 1000, &g), c.rc) << c.what;
  }
  // Every truncation of a good greeting is an error, never a read past the end.
  for (size_t n = 0; n < good.size(); n++) {
    ClientGreeting g;
    EXPECT_NE(kxParseClientGreeting(good.data(), good.data() + n, &g), 0) << n;
  }
  // A client that sends half a greeting and stalls is cut off by the time-out.
  Pair p;
  p.put(good.substr(0, 10));
  ClientGreeting g;
  EXPECT_EQ(kxReadClientGreeting(p.fd[1], 50, &g), ETIMEDOUT);
}

TEST(KxServe, ReceiveLimitsAndAuthenticationSlot) {
  SdrSecInfo info;
  CommAddr peer;
  {
    Pair p;
    ServerConnection c(p.fd[1], info, peer, nullptr, 1000, 1000);
    p.fd[1] = -1;
    p.put(FakeServer::header8(MSG_TYPE_VGET, 0) +
          FakeServer::header8(MSG_TYPE_VPUT, ZEL_MAX_BODY_LENGTH + 1));
    int type = 0;
    MsgBody body;
    ASSERT_EQ(c.receive(&type, &body), 0);
    EXPECT_EQ(type, MSG_TYPE_VGET);
    EXPECT_TRUE(body.empty());
    EXPECT_EQ(c.receive(&type, &body), E_BAD_MESSAGE);
    EXPECT_TRUE(c.isBroken());
  }
  {
    // Authentication runs once, between the header and the body of the first
    // message whose type needs it; after "eor" the next message is a first one.
    Pair p;
    info.peerKeyGenNumber = 1;
    ServerConnection c(p.fd[1], info, peer, authSeesHeaderOnly, 1000, 1000);
    p.fd[1] = -1;
    authCalls = 0;
    p.put(FakeServer::header8(MSG_TYPE_VPUT, 2) + "BB" + FakeServer::header8(MSG_TYPE_VDEL, 1) +
          "B");
    int type = 0;
    MsgBody body;
    ASSERT_EQ(c.receive(&type, &body), 0);
    EXPECT_EQ(std::string(body.data(), body.size()), "BB");
    ASSERT_EQ(c.receive(&type, &body), 0);
    EXPECT_EQ(authCalls, 1);
    EXPECT_TRUE(c.isAuthenticated());
  }
  {
    // A client without key parameters: 720, its body consumed, the stream intact.
    Pair p;
    info.peerKeyGenNumber = -1;
    ServerConnection c(p.fd[1], info, peer, authSeesHeaderOnly, 1000, 1000);
    p.fd[1] = -1;
    p.put(FakeServer::header8(MSG_TYPE_FPUT, 3) + "BBB" + FakeServer::header8(REPLY_TYPE_EOR, 0));
    int type = 0;
    MsgBody body;
    EXPECT_EQ(c.receive(&type, &body), E_AUTH_PARAMS);
    EXPECT_FALSE(c.isBroken());
    c.setFirstMessage();
    ASSERT_EQ(c.receive(&type, &body), 0);
    EXPECT_EQ(type, REPLY_TYPE_EOR);
  }
  {
    // A header and a body that never comes: the per-piece time-out ends it.
    Pair p;
    ServerConnection c(p.fd[1], info, peer, nullptr, 1000, 50);
    p.fd[1] = -1;
    p.put(FakeServer::header8(MSG_TYPE_VPUT, 100) + "x");
    int type = 0;
    MsgBody body;
    EXPECT_EQ(c.receive(&type, &body), ETIMEDOUT);
  }
}

TEST(PaxosInit, BodiesRoundTripAndRejectTruncation) {
  InitRequest r;
  r.clusterId = 0xfedcba9876543210ULL;
  r.nodes = {{1, false, "n1", "127.0.0.1", 5000}, {2, true, "n2", "::1", 1191}};
  r.disks = {{1, "/tmp/d1", false}, {2, "0123456789abcdef:x", true}};
  r.block.committed.config =
      PaxosConfig(NodeList{{1, 0, 0, true}, {2, 1, 0, true}}, DiskList{1, 2}, 1);
  std::string b(static_cast<size_t>(r.getSize()), '\0');
  ASSERT_EQ(r.dump(&b[0]), b.data() + b.size());
  // The fixed layout: cluster id big-endian, then node 1 as id, old, name, address, port.
  EXPECT_EQ(b.substr(0, 8), std::string("\xfe\xdc\xba\x98\x76\x54\x32\x10", 8));
  EXPECT_EQ(b.substr(8, 16), std::string("\x02\x01\x00n1\x00"
                                         "127.0.0.1\x00",
                                         16));
  InitRequest back;
  ASSERT_EQ(back.load(b.data(), b.data() + b.size()), b.data() + b.size());
  EXPECT_EQ(back.clusterId, r.clusterId);
  EXPECT_EQ(back.nodes, r.nodes);
  EXPECT_EQ(back.disks, r.disks);
  EXPECT_EQ(back.block.committed, r.block.committed);
  for (size_t n = 0; n < b.size(); n++) {
    InitRequest t;
    EXPECT_EQ(t.load(b.data(), b.data() + n), nullptr) << n;
  }

  PxInitRequest px;
  px.disks = r.disks;
  px.block = r.block;
  px.nSlots = 8;
  px.nodeId = 2;
  std::string pb(static_cast<size_t>(px.getSize()), '\0');
  ASSERT_EQ(px.dump(&pb[0]), pb.data() + pb.size());
  PxInitRequest pback;
  ASSERT_EQ(pback.load(pb.data(), pb.data() + pb.size()), pb.data() + pb.size());
  EXPECT_EQ(pback.disks, px.disks);
  EXPECT_EQ(pback.nSlots, 8);
  EXPECT_EQ(pback.nodeId, 2);
  for (size_t n = 0; n < pb.size(); n++) {
    PxInitRequest t;
    EXPECT_EQ(t.load(pb.data(), pb.data() + n), nullptr) << n;
  }
  // A forged count larger than the input is refused before anything is reserved.
  std::string forged = b.substr(0, 8) + std::string("\xff\xff\xff\xff", 4);
  InitRequest t;
  EXPECT_EQ(t.load(forged.data(), forged.data() + forged.size()), nullptr);
}
