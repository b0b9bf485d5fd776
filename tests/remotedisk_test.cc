// RemoteDisk against a block store served by ServePx over loopback TCP, with an
// in-memory disk behind it.
#include "server/remotedisk.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "server/pxserve.h"
#include "support/memdisk.h"
#include "support/samples.h"
#include "support/testutil.h"
#include "support/wirebodies.h"
#include "support/wiretest.h"
#include "zel/kxserve.h"
#include "zel/pxwire.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

using zeld::Disk;
using zeld::PxFiles;
using zeld::RemoteDisk;
using zeld::SlotBlock;

// How the test store misbehaves after the greeting.
enum class Mode { kServe, kStall, kGarbage, kCloseEach };

// Listens on 127.0.0.1, answers greetings and serves peer messages with ServePx,
// a thread per connection, until destroyed; every wait is bounded.
class StoreServer {
 public:
  StoreServer(Disk* disk, const PxFiles& files, Mode mode = Mode::kServe)
      : disk_(disk), files_(files), mode_(mode) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (::bind(fd_, reinterpret_cast<sockaddr*>(&sa), len) != 0 || ::listen(fd_, 8) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
      ADD_FAILURE() << "listen failed";
    }
    port_ = ntohs(sa.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~StoreServer() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  CommAddr addr() const {
    CommAddr a;
    convertCommAddr("127.0.0.1", port_, &a);
    return a;
  }
  int connections() const { return conns_; }
  int port() const { return port_; }

 private:
  bool wait(int fd) {
    while (!stop_) {
      struct pollfd p = {fd, POLLIN, 0};
      if (::poll(&p, 1, 20) > 0) return true;
    }
    return false;
  }
  void run() {
    std::vector<std::thread> served;
    while (wait(fd_)) {
      int c = ::accept(fd_, nullptr, nullptr);
      if (c < 0) continue;
      conns_++;
      served.emplace_back([this, c] { serve(c); });
    }
    for (std::thread& t : served) t.join();
  }
  void serve(int c) {
    ClientGreeting greeting;
    const std::string answer = kxGreetingAnswerBytes(GreetingAnswer());
    if (kxReadClientGreeting(c, 2000, &greeting) != 0 ||
        kxFullSend(c, answer.data(), answer.size(), 2000) != 0) {
      ::close(c);
      return;
    }
    ConnImplementation conn(c, SdrSecInfo(), CommAddr());
    conn.setTimeouts(2000, 2000);
    while (wait(c)) {
      int type = 0, len = 0;
      char* body = nullptr;
      if (conn.receive(&type, &body, &len) != 0) break;
      int rc = 0;
      if (mode_ == Mode::kServe || mode_ == Mode::kCloseEach) {
        rc = zeld::ServePx(&conn, type, body, len, disk_, files_);
      } else if (mode_ == Mode::kGarbage) {
        rc = conn.send(REPLY_TYPE_PXREAD, "\x08\x07", 2);
      }
      delete[] body;
      if (rc != 0 || mode_ == Mode::kCloseEach) break;
    }
  }

  Disk* disk_;
  PxFiles files_;
  Mode mode_;
  int fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> conns_{0};
  std::thread thread_;
};

// Slot i belongs to node i + 1.
Dblock Block(int seq, int ballot) {
  Dblock b;
  b.seq = seq;
  b.mbal = BallotNumber(ballot, 1);
  b.committed = NodesState(3);
  b.committed.valueList["a"] = ValueVersion{seq, "x"};
  return b;
}

ProposedUpdate FileInput(unsigned int crc) {
  return ProposedUpdate(UpdateId(2, 1, 9), FileUpdate("f", 5, 0, crc), 3);
}

// The slots as "slot:seq" of the present ones.
std::string Shown(const std::vector<SlotBlock>& v) {
  std::string s = std::to_string(v.size()) + ":";
  for (size_t i = 0; i < v.size(); i++)
    if (v[i].present) s += " " + std::to_string(i) + "@" + std::to_string(v[i].block.seq);
  return s;
}

class RemoteDiskTest : public WireTest {
 protected:
  RemoteDisk::Options fast() {
    RemoteDisk::Options o;
    o.connectTimeoutMs = 500;
    o.ioTimeoutMs = 300;
    return o;
  }
  MemDisk mem{"mem"};
};

TEST_F(RemoteDiskTest, WritesAndReadsEverySlot) {
  StoreServer srv(&mem, PxFiles());
  RemoteDisk d1(1, 9, srv.addr(), nullptr, fast()), d3(3, 9, srv.addr(), nullptr, fast());
  std::vector<SlotBlock> out;
  ASSERT_EQ(d1.read(&out), 0);
  EXPECT_EQ(Shown(out), "8:");
  ASSERT_EQ(d1.writeRead(1, 0, Block(4, 2), &out), 0);
  EXPECT_EQ(Shown(out), "8: 0@4");
  ASSERT_EQ(d3.writeRead(3, 2, Block(4, 3), &out), 0);
  ASSERT_EQ(d1.read(&out), 0);
  EXPECT_EQ(Shown(out), "8: 0@4 2@4");
  EXPECT_EQ(out[2].block.toString(), Block(4, 3).toString());
  EXPECT_EQ(d1.label(), "node 9");
  EXPECT_EQ(srv.connections(), 2) << "each disk keeps its connection";
}

TEST_F(RemoteDiskTest, StoreRefusalsComeBackAsCodes) {
  StoreServer srv(&mem, PxFiles());
  RemoteDisk d(2, 9, srv.addr(), nullptr, fast());
  std::vector<SlotBlock> out;
  ASSERT_EQ(d.writeRead(2, 1, Block(5, 4), &out), 0);
  struct {
    int writer, slot, seq, want;
  } cases[] = {{2, 0, 5, zeld::kErrNotOwner},
               {2, 1, 4, zeld::kErrStaleWrite},
               {2, 1, 5, 0},
               {2, 8, 5, E_INVAL},
               {-1, 1, 5, E_INVAL}};
  for (const auto& c : cases) {
    out.assign(3, SlotBlock());
    EXPECT_EQ(d.writeRead(c.writer, c.slot, Block(c.seq, 4), &out), c.want) << c.slot;
    EXPECT_EQ(out.size(), c.want == 0 ? 8u : 0u);
  }
  EXPECT_EQ(srv.connections(), 1) << "a refusal keeps the connection";
}

TEST_F(RemoteDiskTest, FileInputTravelsWithTheWrite) {
  TempDir dir;
  std::string content = "file content\n";
  WriteFile(dir.file("source"), content);
  PxFiles files;
  files.holds = [&](const ProposedUpdate& u) { return PathExists(dir.file(u.uid.uidString())); };
  files.stagingPath = [&](const ProposedUpdate& u) { return dir.file(u.uid.uidString()); };
  StoreServer srv(&mem, files);
  int asked = 0;
  auto source = [&](const ProposedUpdate&, std::string* path) {
    asked++;
    *path = dir.file("source");
    return 0;
  };
  RemoteDisk d(2, 9, srv.addr(), source, fast());
  std::vector<SlotBlock> out;

  Dblock b = Block(6, 1);
  b.inp = FileInput(Crc(content) ^ 1);  // the block names another content
  EXPECT_EQ(d.writeRead(2, 1, b, &out), E_XFER_FAILED);
  EXPECT_FALSE(PathExists(dir.file(b.inp.uid.uidString())));
  ASSERT_EQ(d.read(&out), 0);
  EXPECT_EQ(Shown(out), "8:") << "nothing written";

  b.inp = FileInput(Crc(content));
  ASSERT_EQ(d.writeRead(2, 1, b, &out), 0);
  EXPECT_EQ(Shown(out), "8: 1@6");
  EXPECT_EQ(ReadFile(dir.file(b.inp.uid.uidString())), content);
  ASSERT_EQ(d.writeRead(2, 1, b, &out), 0);  // held now: no transfer
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(srv.connections(), 1);
}

TEST_F(RemoteDiskTest, WriterWithoutTheFileGetsItsCodeBack) {
  TempDir dir;
  PxFiles files;
  files.holds = [](const ProposedUpdate&) { return false; };
  files.stagingPath = [&](const ProposedUpdate&) { return dir.file("staged"); };
  StoreServer srv(&mem, files);
  RemoteDisk none(2, 9, srv.addr(), nullptr, fast());
  RemoteDisk missing(
      2, 9, srv.addr(),
      [&](const ProposedUpdate&, std::string* p) {
        *p = dir.file("gone");
        return 0;
      },
      fast());
  RemoteDisk refusing(
      2, 9, srv.addr(), [](const ProposedUpdate&, std::string*) { return 804; }, fast());
  Dblock b = Block(6, 1);
  b.inp = FileInput(7);
  std::vector<SlotBlock> out;
  EXPECT_EQ(none.writeRead(2, 1, b, &out), E_XFER_FAILED);
  EXPECT_EQ(missing.writeRead(2, 1, b, &out), E_XFER_FAILED);
  EXPECT_EQ(refusing.writeRead(2, 1, b, &out), 804);
  ASSERT_EQ(refusing.read(&out), 0);
  EXPECT_EQ(Shown(out), "8:");
  EXPECT_EQ(srv.connections(), 3);
}

TEST_F(RemoteDiskTest, FaultyStoresAreErrorsNotHangs) {
  std::vector<SlotBlock> out;
  {
    StoreServer stall(&mem, PxFiles(), Mode::kStall);
    RemoteDisk d(1, 9, stall.addr(), nullptr, fast());
    EXPECT_EQ(d.read(&out), ETIMEDOUT);
  }
  {
    StoreServer garbage(&mem, PxFiles(), Mode::kGarbage);
    RemoteDisk d(1, 9, garbage.addr(), nullptr, fast());
    EXPECT_EQ(d.read(&out), E_BAD_MESSAGE);
    EXPECT_EQ(d.read(&out), E_BAD_MESSAGE);
    EXPECT_EQ(garbage.connections(), 2) << "a bad reply drops the connection";
  }
  int port = 0;
  {
    StoreServer gone(&mem, PxFiles());
    port = gone.port();
  }
  CommAddr a;
  ASSERT_EQ(convertCommAddr("127.0.0.1", port, &a), 0);
  RemoteDisk d(1, 9, a, nullptr, fast());
  EXPECT_EQ(d.read(&out), ECONNREFUSED);
  EXPECT_TRUE(out.empty());
}

TEST_F(RemoteDiskTest, ClosedConnectionIsReopenedOnce) {
  StoreServer srv(&mem, PxFiles(), Mode::kCloseEach);
  RemoteDisk d(1, 9, srv.addr(), nullptr, fast());
  std::vector<SlotBlock> out;
  for (int i = 0; i < 3; i++) ASSERT_EQ(d.writeRead(1, 0, Block(4 + i, 1), &out), 0) << i;
  EXPECT_EQ(Shown(out), "8: 0@6");
  EXPECT_EQ(srv.connections(), 3);
}

TEST_F(RemoteDiskTest, OtherClusterIsRefusedBeforeSending) {
  FakeServer::Options o;
  o.clusterId = 77;
  FakeServer fake(o);
  zelClusterId = 78;
  RemoteDisk d(1, 9, fake.addr(), nullptr, fast());
  std::vector<SlotBlock> out;
  EXPECT_EQ(d.read(&out), E_CLUSTER_MISMATCH);
  EXPECT_TRUE(fake.messages().empty());
}

TEST(PxServeTest, MalformedRequestsAreRefused) {
  MemDisk mem("mem");
  std::string block = Encode(Block(3, 1));
  struct {
    const char* what;
    int type;
    std::string body;
    int wantType;
    int wantCode;
  } cases[] = {
      {"read", MSG_TYPE_PXREAD, V(1, 0) + V(0, 0), REPLY_TYPE_PXREAD, 0},
      {"empty read", MSG_TYPE_PXREAD, "", MSG_TYPE_FAILED, E_BAD_MESSAGE},
      {"read with trailing byte", MSG_TYPE_PXREAD, V(1, 0) + V(0, 0) + "x", MSG_TYPE_FAILED,
       E_BAD_MESSAGE},
      {"write", MSG_TYPE_PXWRITE, V(1, 0) + V(0, 0) + block, REPLY_TYPE_PXWRITE, 0},
      {"write cut short", MSG_TYPE_PXWRITE, V(1, 0) + V(0, 0) + block.substr(3), MSG_TYPE_FAILED,
       E_BAD_MESSAGE},
      {"rdwr slot 9", MSG_TYPE_PXRDWR, V(1, 0) + V(9, 0) + block, MSG_TYPE_FAILED, E_BAD_MESSAGE},
      {"rdwr not owner", MSG_TYPE_PXRDWR, V(2, 0) + V(0, 0) + block, MSG_TYPE_FAILED,
       zeld::kErrNotOwner},
      {"not a peer message", MSG_TYPE_VGET, "", MSG_TYPE_FAILED, E_UNKNOWN_REQUEST},
  };
  for (const auto& c : cases) {
    int type = -99;
    std::string reply;
    zeld::AnswerPx(c.type, c.body.data(), static_cast<int>(c.body.size()), &mem, &type, &reply);
    EXPECT_EQ(type, c.wantType) << c.what;
    EXPECT_EQ(reply == PxFailedBody(c.wantCode), c.wantType == MSG_TYPE_FAILED) << c.what;
  }
}

}  // namespace
