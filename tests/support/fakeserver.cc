#include "fakeserver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "zel/paxosutils.h"
#include "zel/zelmsg.h"

namespace {

constexpr int kPollSliceMs = 20;
constexpr unsigned int kMaxFakeBody = 64u << 20;
constexpr unsigned int kMaxGreetingRec = 1u << 20;
constexpr int kMaxGreetingRecs = 32;
constexpr unsigned int kGreetingMagicFake = 0xF3689038;

std::string u32(unsigned int v) {
  char b[4];
  DumpUInt32(b, v);
  return std::string(b, 4);
}

}  // namespace

FakeServer::FakeServer() : FakeServer(Options()) {}

FakeServer::FakeServer(const Options& o) : opt_(o) {
  int family = opt_.ipv6 ? AF_INET6 : AF_INET;
  listenFd_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listenFd_ < 0) {
    ADD_FAILURE() << "FakeServer: socket failed";
    return;
  }
  int one = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  struct sockaddr_storage ss = {};
  socklen_t len;
  if (opt_.ipv6) {
    auto* s6 = reinterpret_cast<sockaddr_in6*>(&ss);
    s6->sin6_family = AF_INET6;
    s6->sin6_addr = in6addr_loopback;
    len = sizeof *s6;
  } else {
    auto* s4 = reinterpret_cast<sockaddr_in*>(&ss);
    s4->sin_family = AF_INET;
    s4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    len = sizeof *s4;
  }
  if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&ss), len) != 0 ||
      ::listen(listenFd_, 16) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
    ADD_FAILURE() << "FakeServer: bind/listen failed";
    ::close(listenFd_);
    listenFd_ = -1;
    return;
  }
  IpAddr ignored;
  IpAddr::fromSockaddr(reinterpret_cast<sockaddr*>(&ss), &ignored, &port_);
  thread_ = std::thread([this] { run(); });
}

FakeServer::~FakeServer() {
  waitDone(opt_.drainMs);
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  if (listenFd_ >= 0) ::close(listenFd_);
  std::lock_guard<std::mutex> g(mu_);
  for (const std::string& e : errors_) ADD_FAILURE() << "FakeServer port " << port_ << ": " << e;
  if (!script_.empty()) {
    const Step& s = script_.front();
    ADD_FAILURE() << "FakeServer port " << port_ << ": script not used up, " << script_.size()
                  << " step(s) left, next expects "
                  << (s.kind == Step::kExpect ? msgName(s.type)
                      : s.kind == Step::kAny  ? "any message"
                                              : "connect");
  }
}

CommAddr FakeServer::addr() const {
  CommAddr a;
  IpAddr::parse(opt_.ipv6 ? "::1" : "127.0.0.1", &a.addr);
  a.port = port_;
  return a;
}

std::string FakeServer::hostPort() const {
  return (opt_.ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
}

FakeServer::Step& FakeServer::lastStep() {
  if (script_.empty()) {
    ADD_FAILURE() << "FakeServer: action before any expect()";
    script_.push_back(Step{Step::kAny, 0, false, {}, {}});
  }
  return script_.back();
}

FakeServer& FakeServer::expect(int type) {
  std::lock_guard<std::mutex> g(mu_);
  script_.push_back(Step{Step::kExpect, type, false, {}, {}});
  return *this;
}

FakeServer& FakeServer::expect(int type, const std::string& body) {
  std::lock_guard<std::mutex> g(mu_);
  script_.push_back(Step{Step::kExpect, type, true, body, {}});
  return *this;
}

FakeServer& FakeServer::expectAny() {
  std::lock_guard<std::mutex> g(mu_);
  script_.push_back(Step{Step::kAny, 0, false, {}, {}});
  return *this;
}

FakeServer& FakeServer::onConnect() {
  std::lock_guard<std::mutex> g(mu_);
  script_.push_back(Step{Step::kConnect, 0, false, {}, {}});
  return *this;
}

std::string FakeServer::header8(int type, unsigned int len) {
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  std::string h = u32(len);
  h += static_cast<char>(code >> 8);
  h += static_cast<char>(code);
  h += std::string(2, '\0');
  return h;
}

std::string FakeServer::failedBody(int code) {
  char b[MaxSizeVarUInt];
  char* e = DumpVarUInt(b, code, -1);
  return std::string(b, e);
}

FakeServer& FakeServer::raw(const std::string& bytes) {
  std::lock_guard<std::mutex> g(mu_);
  lastStep().actions.push_back(Action{Action::kRaw, bytes, 0, 0, 0});
  return *this;
}

FakeServer& FakeServer::reply(int type, const std::string& body) {
  return raw(header8(type, static_cast<unsigned int>(body.size())) + body);
}

FakeServer& FakeServer::replyFailed(int code) {
  return reply(MSG_TYPE_FAILED, failedBody(code));
}

FakeServer& FakeServer::replyCorrupt(int type, const std::string& body) {
  std::string b = body;
  for (char& c : b) c = static_cast<char>(~c);
  return reply(type, b);
}

FakeServer& FakeServer::header(int type, unsigned int len) {
  return raw(header8(type, len));
}

FakeServer& FakeServer::truncated(int type, const std::string& body, size_t keep) {
  raw(header8(type, static_cast<unsigned int>(body.size())) + body.substr(0, keep));
  return closeConn();
}

FakeServer& FakeServer::closeConn() {
  std::lock_guard<std::mutex> g(mu_);
  lastStep().actions.push_back(Action{Action::kClose, {}, 0, 0, 0});
  return *this;
}

FakeServer& FakeServer::stall(int ms) {
  std::lock_guard<std::mutex> g(mu_);
  lastStep().actions.push_back(Action{Action::kStall, {}, ms, 0, 0});
  return *this;
}

FakeServer& FakeServer::receiveFile() {
  std::lock_guard<std::mutex> g(mu_);
  lastStep().actions.push_back(Action{Action::kRecvFile, {}, 0, 0, 0});
  return *this;
}

FakeServer& FakeServer::sendFile(const std::string& data, unsigned int crcXor, size_t chunk) {
  std::lock_guard<std::mutex> g(mu_);
  lastStep().actions.push_back(Action{Action::kSendFile, data, 0, crcXor, chunk ? chunk : 1});
  return *this;
}

std::vector<FakeMsg> FakeServer::messages() const {
  std::lock_guard<std::mutex> g(mu_);
  return msgs_;
}

std::vector<FakeMsg> FakeServer::messagesOfType(int type) const {
  std::lock_guard<std::mutex> g(mu_);
  std::vector<FakeMsg> r;
  for (const FakeMsg& m : msgs_)
    if (m.type == type) r.push_back(m);
  return r;
}

std::vector<FakeGreeting> FakeServer::greetings() const {
  std::lock_guard<std::mutex> g(mu_);
  return greetings_;
}

std::vector<FakeFile> FakeServer::files() const {
  std::lock_guard<std::mutex> g(mu_);
  return files_;
}

bool FakeServer::waitDone(int ms) const {
  std::unique_lock<std::mutex> g(mu_);
  return cv_.wait_for(g, std::chrono::milliseconds(ms),
                      [this] { return script_.empty() && !busy_; });
}

void FakeServer::fail(const std::string& what) {
  std::lock_guard<std::mutex> g(mu_);
  errors_.push_back(what);
}

void FakeServer::run() {
  while (!stop_) {
    struct pollfd pfd = {listenFd_, POLLIN, 0};
    if (::poll(&pfd, 1, kPollSliceMs) <= 0) continue;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    int connNo = ++nConns_;
    serveConn(fd, connNo);
    ::close(fd);
  }
}

bool FakeServer::recvAll(int fd, char* buf, size_t len) {
  size_t done = 0;
  while (done < len) {
    if (stop_) return false;
    struct pollfd pfd = {fd, POLLIN, 0};
    int n = ::poll(&pfd, 1, kPollSliceMs);
    if (n <= 0) continue;
    ssize_t got = ::recv(fd, buf + done, len - done, 0);
    if (got <= 0) return false;
    done += static_cast<size_t>(got);
  }
  return true;
}

bool FakeServer::sendAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    if (stop_) return false;
    struct pollfd pfd = {fd, POLLOUT, 0};
    int n = ::poll(&pfd, 1, kPollSliceMs);
    if (n <= 0) continue;
    ssize_t put = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (put <= 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

bool FakeServer::readGreeting(int fd) {
  FakeGreeting gr;
  char hdr[28];
  if (!recvAll(fd, hdr, sizeof hdr)) return false;
  gr.raw.assign(hdr, sizeof hdr);
  unsigned int len = 0;
  LoadUInt32(hdr + 20, hdr + sizeof hdr, &len);
  for (int i = 0; len != 0 && i < kMaxGreetingRecs; i++) {
    if (len < 8 || len > kMaxGreetingRec) {
      fail("bad greeting record length " + std::to_string(len));
      return false;
    }
    std::string rec(len, '\0');
    if (!recvAll(fd, &rec[0], len)) return false;
    gr.raw += rec;
    const char* r = rec.data();
    const char* end = r + len;
    unsigned int type = 0, v = 0;
    LoadUInt32(r, end, &type);
    LoadUInt32(r + 4, end, &len);
    if (type == 6 && rec.size() >= 12) {
      gr.hasRecord6 = true;
      LoadUInt32(r + 8, end, &v);
      gr.keyGenNumber = static_cast<int>(v);
      gr.clusterName = std::string(rec.c_str() + 12);
    } else if (type == 9 && rec.size() >= 20) {
      LoadUInt32(r + 8, end, &v);
      gr.version = static_cast<int>(v);
      LoadUInt64(r + 12, end, &gr.clusterId);
    }
  }
  std::lock_guard<std::mutex> g(mu_);
  greetings_.push_back(gr);
  return true;
}

bool FakeServer::sendAnswer(int fd) {
  if (!opt_.rawAnswer.empty()) return sendAll(fd, opt_.rawAnswer);
  std::vector<std::string> recs;
  for (const auto& e : opt_.extraRecords) recs.push_back(u32(e.first) + "NEXT" + e.second);
  if (opt_.record6) {
    std::string name = opt_.clusterName + '\0';
    while (name.size() % 4) name += '\0';
    recs.push_back(u32(6) + "NEXT" + u32(static_cast<unsigned int>(opt_.keyGenNumber)) + name);
  }
  char cid[8];
  DumpUInt64(cid, opt_.clusterId);
  recs.push_back(u32(9) + "NEXT" + u32(static_cast<unsigned int>(opt_.version)) +
                 std::string(cid, 8) + u32(0));
  std::string chain;
  for (size_t i = 0; i < recs.size(); i++) {
    unsigned int next = i + 1 < recs.size() ? static_cast<unsigned int>(recs[i + 1].size()) : 0;
    recs[i].replace(4, 4, u32(next));
    chain += recs[i];
  }
  std::string ans = u32(opt_.badMagic ? 0x12345678 : kGreetingMagicFake) + u32(opt_.status) +
                    u32(0) + u32(static_cast<unsigned int>(recs[0].size())) + u32(0);
  return sendAll(fd, ans + chain);
}

bool FakeServer::recvMsg(int fd, int connNo, ConnState* st, int* type, std::string* body) {
  char hdr[8];
  if (!recvAll(fd, hdr, sizeof hdr)) return false;
  unsigned int len = 0;
  LoadUInt32(hdr, hdr + 8, &len);
  int code = (static_cast<unsigned char>(hdr[4]) << 8) | static_cast<unsigned char>(hdr[5]);
  *type = code - kMsgCodeBias;
  if (st->first && !st->authenticated && opt_.authenticateIncoming != nullptr &&
      msgAuthRequired(*type)) {
    if (opt_.authenticateIncoming(fd) != 0) return false;
    st->authenticated = true;
  }
  st->first = false;
  if (len > kMaxFakeBody) {
    fail("message body too long: " + std::to_string(len));
    return false;
  }
  body->assign(len, '\0');
  if (len > 0 && !recvAll(fd, &(*body)[0], len)) return false;
  std::lock_guard<std::mutex> g(mu_);
  msgs_.push_back(FakeMsg{connNo, *type, *body});
  return true;
}

// Returns false when the connection is to be closed.
bool FakeServer::runActions(int fd, int connNo, const std::vector<Action>& acts) {
  for (const Action& a : acts) {
    switch (a.kind) {
      case Action::kRaw:
        if (!sendAll(fd, a.bytes)) return false;
        break;
      case Action::kClose:
        return false;
      case Action::kStall: {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(a.ms);
        while (!stop_ && std::chrono::steady_clock::now() < until)
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
        break;
      }
      case Action::kRecvFile: {
        FakeFile f;
        ConnState st;
        st.first = false;
        unsigned int crc = 0;
        for (;;) {
          int type = 0;
          std::string body;
          if (!recvMsg(fd, connNo, &st, &type, &body)) {
            fail("connection lost during file reception");
            return false;
          }
          if (type == MSG_TYPE_FDATA) {
            f.data += body;
            crc = partialcrc(reinterpret_cast<const unsigned char*>(body.data()), body.size(), crc);
            continue;
          }
          if (type != MSG_TYPE_FCRC || body.size() != 4) {
            fail(std::string("unexpected '") + msgName(type) + "' during file reception");
            return false;
          }
          LoadUInt32(body.data(), body.data() + 4, &f.crcSent);
          f.crcOk = f.crcSent == finalcrc(crc, f.data.size());
          break;
        }
        std::lock_guard<std::mutex> g(mu_);
        files_.push_back(f);
        break;
      }
      case Action::kSendFile: {
        unsigned int crc = 0;
        for (size_t off = 0; off < a.bytes.size(); off += a.chunk) {
          std::string piece = a.bytes.substr(off, a.chunk);
          crc = partialcrc(reinterpret_cast<const unsigned char*>(piece.data()), piece.size(), crc);
          if (!sendAll(fd,
                       header8(MSG_TYPE_FDATA, static_cast<unsigned int>(piece.size())) + piece))
            return false;
        }
        crc = finalcrc(crc, a.bytes.size()) ^ a.crcXor;
        if (!sendAll(fd, header8(MSG_TYPE_FCRC, 4) + u32(crc))) return false;
        break;
      }
    }
  }
  return true;
}

void FakeServer::serveConn(int fd, int connNo) {
  if (opt_.greeting) {
    if (!readGreeting(fd) || !sendAnswer(fd)) return;
    if (opt_.status != 0 || opt_.badMagic) return;
  }
  std::vector<Action> acts;
  {
    std::lock_guard<std::mutex> g(mu_);
    if (!script_.empty() && script_.front().kind == Step::kConnect) {
      acts = script_.front().actions;
      script_.pop_front();
      busy_ = true;
    }
  }
  bool keep = acts.empty() || runActions(fd, connNo, acts);
  {
    std::lock_guard<std::mutex> g(mu_);
    busy_ = false;
    cv_.notify_all();
  }
  ConnState st;
  while (keep && !stop_) {
    int type = 0;
    std::string body;
    if (!recvMsg(fd, connNo, &st, &type, &body)) return;
    bool autoEor = false;
    std::string err;
    acts.clear();
    {
      std::lock_guard<std::mutex> g(mu_);
      bool expectsEor = !script_.empty() && script_.front().kind == Step::kExpect &&
                        script_.front().type == REPLY_TYPE_EOR;
      if (type == REPLY_TYPE_EOR && opt_.autoEor && !expectsEor) {
        autoEor = true;
      } else if (script_.empty() || script_.front().kind == Step::kConnect) {
        err = std::string("unexpected message '") + msgName(type) + "' (" + std::to_string(type) +
              ")";
      } else {
        const Step& s = script_.front();
        if (s.kind == Step::kExpect && s.type != type) {
          err = std::string("expected '") + msgName(s.type) + "', got '" + msgName(type) + "'";
          script_.pop_front();  // reported once, here
        } else if (s.kind == Step::kExpect && s.matchBody && s.body != body) {
          err = std::string("unexpected body of '") + msgName(type) + "'";
          script_.pop_front();
        } else {
          acts = s.actions;
          script_.pop_front();
          busy_ = true;
        }
      }
    }
    if (!err.empty()) {
      fail(err);
      return;
    }
    if (autoEor) {
      st.first = true;
      keep = sendAll(fd, header8(REPLY_TYPE_EOR, 0));
      continue;
    }
    keep = runActions(fd, connNo, acts);
    std::lock_guard<std::mutex> g(mu_);
    busy_ = false;
    cv_.notify_all();
  }
}
