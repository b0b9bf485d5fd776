#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

LoopbackPair::LoopbackPair() {
  int lfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (lfd < 0) return;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  if (bind(lfd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 && listen(lfd, 1) == 0 &&
      getsockname(lfd, reinterpret_cast<sockaddr*>(&sa), &len) == 0) {
    client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client >= 0 && connect(client, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
      server = accept(lfd, nullptr, nullptr);
    }
  }
  close(lfd);
}

LoopbackPair::~LoopbackPair() {
  if (client >= 0) close(client);
  if (server >= 0) close(server);
}

bool SendAll(int fd, const std::string& text) {
  size_t off = 0;
  while (off < text.size()) {
    ssize_t n = send(fd, text.data() + off, text.size() - off, MSG_NOSIGNAL);
    if (n <= 0) return false;
    off += static_cast<size_t>(n);
  }
  return true;
}

namespace {

// Reads exactly n bytes; what arrived before an error or the time-out.
std::string RecvExactly(int fd, size_t n, int timeoutMs) {
  std::string out;
  for (int i = 0; i < 1000 && out.size() < n; ++i) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) break;
    char buf[4096];
    size_t want = n - out.size() < sizeof buf ? n - out.size() : sizeof buf;
    ssize_t got = recv(fd, buf, want, 0);
    if (got <= 0) break;
    out.append(buf, static_cast<size_t>(got));
  }
  return out;
}

bool HasPendingByte(int fd) {
  char c;
  return recv(fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

}  // namespace

PairResult RunPair(const std::function<int(int sock)>& client,
                   const std::function<int(int sock)>& server) {
  PairResult r;
  LoopbackPair p;
  if (!p.ok()) return r;
  std::thread th([&] { r.server = server(p.server); });
  r.client = client(p.client);
  if (r.client != 0) shutdown(p.client, SHUT_RDWR);  // do not leave the server waiting
  th.join();
  if (r.client == 0 && r.server == 0) {
    r.plainFlows = SendAll(p.client, "hdr+body") && RecvExactly(p.server, 8, 5000) == "hdr+body" &&
                   SendAll(p.server, "reply") && RecvExactly(p.client, 5, 5000) == "reply" &&
                   !HasPendingByte(p.server) && !HasPendingByte(p.client);
  }
  return r;
}
