#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
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

// Exactly n bytes within 5 s, then nothing more waiting.
bool RecvOnly(int fd, const std::string& want) {
  timeval tv{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  std::string got(want.size() + 1, '\0');
  if (recv(fd, &got[0], want.size(), MSG_WAITALL) != static_cast<ssize_t>(want.size()))
    return false;
  return got.compare(0, want.size(), want) == 0 && recv(fd, &got[0], 1, MSG_DONTWAIT) < 0;
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
    r.plainFlows = SendAll(p.client, "hdr+body") && RecvOnly(p.server, "hdr+body") &&
                   SendAll(p.server, "reply") && RecvOnly(p.client, "reply");
  }
  return r;
}
