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

std::string u32(unsigned int v) {
  char b[4];
  DumpUInt32(b, v);
  return std::string(b, 4);
}

unsigned int crcOf(const std::string& s, unsigned int crc) {
  return partialcrc(reinterpret_cast<const unsigned char*>(s.data()), s.size(), crc);
}

}  // namespace

FakeServer::FakeServer(const Options& o) : opt_(o) {
  listenFd_ = ::socket(opt_.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_storage ss = {};
  IpAddr ip;
  IpAddr::parse(opt_.ipv6 ? "::1" : "127.0.0.1", &ip);
  socklen_t len = ip.toSockaddr(0, &ss);
  if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&ss), len) != 0 ||
      ::listen(listenFd_, 16) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&ss), &len) != 0) {
    ADD_FAILURE() << "FakeServer: socket/bind/listen failed";
    return;
  }
  IpAddr::fromSockaddr(reinterpret_cast<sockaddr*>(&ss), &ip, &port_);
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
    ADD_FAILURE() << "FakeServer port " << port_ << ": script not used up, " << script_.size()
                  << " step(s) left, next expects " << msgName(script_.front().type);
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

FakeServer& FakeServer::addStep(int type, bool matchBody, const std::string& body) {
  std::lock_guard<std::mutex> g(mu_);
  script_.push_back(Step{type, matchBody, body, {}});
  return *this;
}

FakeServer& FakeServer::addAction(Kind kind, const std::string& bytes, int ms) {
  std::lock_guard<std::mutex> g(mu_);
  if (script_.empty()) {
    ADD_FAILURE() << "FakeServer: action before any expect()";
  } else {
    script_.back().actions.push_back(Action{kind, bytes, ms});
  }
  return *this;
}

std::string FakeServer::header8(int type, unsigned int len) {
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  return u32(len) + static_cast<char>(code >> 8) + static_cast<char>(code) + std::string(2, '\0');
}

std::string FakeServer::failedBody(int code) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, code, -1));
}

FakeServer& FakeServer::reply(int type, const std::string& body) {
  return raw(header8(type, static_cast<unsigned int>(body.size())) + body);
}

FakeServer& FakeServer::replyFailed(int code) {
  return reply(MSG_TYPE_FAILED, failedBody(code));
}

FakeServer& FakeServer::truncated(int type, const std::string& body, size_t keep) {
  raw(header8(type, static_cast<unsigned int>(body.size())) + body.substr(0, keep));
  return closeConn();
}

FakeServer& FakeServer::sendFile(const std::string& data, unsigned int crcXor, size_t chunk) {
  std::string bytes;
  for (size_t off = 0; off < data.size(); off += chunk) {
    std::string piece = data.substr(off, chunk);
    bytes += header8(MSG_TYPE_FDATA, static_cast<unsigned int>(piece.size())) + piece;
  }
  unsigned int crc = finalcrc(crcOf(data, 0), data.size()) ^ crcXor;
  return raw(bytes + header8(MSG_TYPE_FCRC, 4) + u32(crc));
}

std::vector<FakeMsg> FakeServer::messagesOfType(int type) const {
  std::vector<FakeMsg> r;
  for (const FakeMsg& m : messages())
    if (m.type == type) r.push_back(m);
  return r;
}

bool FakeServer::waitDone(int ms) const {
  std::unique_lock<std::mutex> g(mu_);
  return cv_.wait_for(g, std::chrono::milliseconds(ms),
                      [this] { return script_.empty() && busy_ == 0; });
}

void FakeServer::fail(const std::string& what) {
  std::lock_guard<std::mutex> g(mu_);
  errors_.push_back(what);
}

void FakeServer::finishStep() {
  std::lock_guard<std::mutex> g(mu_);
  busy_--;
  cv_.notify_all();
}

void FakeServer::run() {
  while (!stop_) {
    struct pollfd pfd = {listenFd_, POLLIN, 0};
    if (::poll(&pfd, 1, kPollSliceMs) <= 0) continue;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    ++nConns_;
    connThreads_.emplace_back([this, fd] {
      serveConn(fd);
      ::close(fd);
    });
  }
  for (std::thread& t : connThreads_) t.join();
}

// Moves len bytes in or out, polling in slices so that stop_ is seen.
bool FakeServer::io(int fd, char* buf, size_t len, bool out) {
  for (size_t done = 0; done < len;) {
    if (stop_) return false;
    struct pollfd pfd = {fd, static_cast<short>(out ? POLLOUT : POLLIN), 0};
    if (::poll(&pfd, 1, kPollSliceMs) <= 0) continue;
    ssize_t n = out ? ::send(fd, buf + done, len - done, MSG_NOSIGNAL)
                    : ::recv(fd, buf + done, len - done, 0);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool FakeServer::readGreeting(int fd) {
  FakeGreeting gr;
  char hdr[28];
  if (!io(fd, hdr, sizeof hdr, false)) return false;
  gr.raw.assign(hdr, sizeof hdr);
  unsigned int len = 0, type = 0, v = 0;
  LoadUInt32(hdr + 20, hdr + sizeof hdr, &len);
  for (int i = 0; len != 0 && i < kMaxGreetingRecs; i++) {
    if (len < 8 || len > kMaxGreetingRec) {
      fail("bad greeting record length " + std::to_string(len));
      return false;
    }
    std::string rec(len, '\0');
    if (!io(fd, &rec[0], len, false)) return false;
    gr.raw += rec;
    const char* r = rec.data();
    const char* end = r + len;
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
    name.resize((name.size() + 3) / 4 * 4, '\0');
    recs.push_back(u32(6) + "NEXT" + u32(static_cast<unsigned int>(opt_.keyGenNumber)) + name);
  }
  char cid[8];
  DumpUInt64(cid, opt_.clusterId);
  recs.push_back(u32(9) + "NEXT" + u32(static_cast<unsigned int>(opt_.version)) +
                 std::string(cid, 8) + u32(0));
  std::string chain;
  for (size_t i = 0; i < recs.size(); i++) {
    unsigned int next = i + 1 < recs.size() ? static_cast<unsigned int>(recs[i + 1].size()) : 0;
    chain += recs[i].replace(4, 4, u32(next));
  }
  std::string ans = u32(0xF3689038) + u32(opt_.status) + u32(0) +
                    u32(static_cast<unsigned int>(recs[0].size())) + u32(0);
  return sendAll(fd, ans + chain);
}

bool FakeServer::recvMsg(int fd, ConnState* st, int* type, std::string* body) {
  char hdr[8];
  if (!io(fd, hdr, sizeof hdr, false)) return false;
  unsigned int len = 0;
  LoadUInt32(hdr, hdr + 8, &len);
  *type = ((static_cast<unsigned char>(hdr[4]) << 8) | static_cast<unsigned char>(hdr[5])) -
          kMsgCodeBias;
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
  if (len > 0 && !io(fd, &(*body)[0], len, false)) return false;
  std::lock_guard<std::mutex> g(mu_);
  msgs_.push_back(FakeMsg{*type, *body});
  return true;
}

// Returns false when the connection is to be closed.
bool FakeServer::runActions(int fd, const std::vector<Action>& acts) {
  for (const Action& a : acts) {
    if (a.kind == kRaw && !sendAll(fd, a.bytes)) return false;
    if (a.kind == kTrickle) {
      for (char c : a.bytes) {
        if (!sendAll(fd, std::string(1, c))) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(a.ms));
      }
    }
    if (a.kind == kClose) return false;
    if (a.kind == kStall) {
      auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(a.ms);
      while (!stop_ && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (a.kind != kRecvFile && a.kind != kRecvCut) continue;
    FakeFile f;
    ConnState st;
    st.first = false;
    int type = 0;
    std::string body;
    bool ok;
    while ((ok = recvMsg(fd, &st, &type, &body)) && type == MSG_TYPE_FDATA) f.data += body;
    if (a.kind == kRecvCut && !ok) {
      // The client dropped the connection instead of finishing the file.
      std::lock_guard<std::mutex> g(mu_);
      files_.push_back(f);
      return false;
    }
    if (!ok || type != MSG_TYPE_FCRC || body.size() != 4) {
      fail(std::string("no 'fcrc' after the file data, got '") + msgName(type) + "'");
      return false;
    }
    unsigned int sent = 0;
    LoadUInt32(body.data(), body.data() + 4, &sent);
    f.crcOk = sent == finalcrc(crcOf(f.data, 0), f.data.size());
    std::lock_guard<std::mutex> g(mu_);
    files_.push_back(f);
  }
  return true;
}

void FakeServer::serveConn(int fd) {
  if (!readGreeting(fd) || !sendAnswer(fd) || !opt_.rawAnswer.empty() || opt_.status) return;
  ConnState st;
  for (bool keep = true; keep && !stop_;) {
    int type = 0;
    std::string body, err;
    std::vector<Action> acts;
    bool tookStep = false;
    if (!recvMsg(fd, &st, &type, &body)) return;
    {
      std::lock_guard<std::mutex> g(mu_);
      const Step* s = script_.empty() ? nullptr : &script_.front();
      if (type == REPLY_TYPE_EOR && !(s && s->type == REPLY_TYPE_EOR)) {
        st.first = true;
        acts = {Action{kRaw, header8(REPLY_TYPE_EOR, 0), 0}};
      } else if (s == nullptr) {
        err = std::string("unexpected message '") + msgName(type) + "' (" + std::to_string(type) +
              ")";
      } else {
        if (s->type != type) {
          err = std::string("expected '") + msgName(s->type) + "', got '" + msgName(type) + "'";
        } else if (s->matchBody && s->body != body) {
          err = std::string("unexpected body of '") + msgName(type) + "'";
        }
        acts = s->actions;
        script_.pop_front();
        tookStep = err.empty();
        if (tookStep) busy_++;
      }
    }
    if (!err.empty()) {
      fail(err);
      return;
    }
    keep = runActions(fd, acts);
    if (tookStep) finishStep();
  }
}
