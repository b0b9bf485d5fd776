// The connection greeting and its answer, connecting a socket, wrapping
// accepted sockets, and the simulated network cut.
#include "zel/kxcomm.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <memory>
#include <new>

#include "platform/pclock.h"
#include "platform/psock.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace {

bool simulateDisconnect = false;
CommAddr simOwnAddr;
CommAddr simLocalHostAddr;

constexpr size_t kAnswerLen = 20;
constexpr int kGreetingFixed1 = 1414;
constexpr int kGreetingFixed2 = 1203;

unsigned long long connId(const Connection* c) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(c));
}

bool simReachable(const IpAddr& a) {
  return a == simOwnAddr.addr || a == simLocalHostAddr.addr;
}

}  // namespace

std::string kxGreetingBytes(unsigned long long clusterId) {
  const KxSecurity sec = GetKxSecurity();
  size_t s = sec.ready ? ((sec.clusterName.size() + 16) & ~static_cast<size_t>(3)) : 0;
  std::string g(64 + s, '\0');
  char* p = &g[0];
  p = DumpUInt32(p, kGreetingMagic);
  p = DumpUInt32(p, 0xFFFFFFFF);
  p = DumpUInt32(p, 0xFFFFFFFF);
  p = DumpUInt32(p, kGreetingFixed1);
  p = DumpUInt32(p, kGreetingFixed2);
  p = DumpUInt32(p, 12);
  p = DumpUInt32(p, 0);
  p = DumpUInt32(p, 7);
  p = DumpUInt32(p, sec.ready ? static_cast<unsigned int>(s) : 24);
  p = DumpUInt32(p, 1);
  if (sec.ready) {
    char* rec = p;
    p = DumpUInt32(p, 6);
    p = DumpUInt32(p, 24);
    p = DumpUInt32(p, static_cast<unsigned int>(sec.keyGenNumber));
    sec.clusterName.copy(p, sec.clusterName.size());  // the zero and padding are already there
    p = rec + s;
  }
  p = DumpUInt32(p, 9);
  p = DumpUInt32(p, 0);
  p = DumpUInt32(p, kZelProtocolVersion);
  p = DumpUInt64(p, clusterId);
  p = DumpUInt32(p, 0);
  ZASSERT(p == g.data() + g.size());
  return g;
}

int kxSendGreeting(int sock, int timeoutMs, unsigned long long clusterId, SdrSecInfo* info) {
  const KxSecurity sec = GetKxSecurity();
  info->keyGenNumber = sec.ready ? sec.keyGenNumber : -1;
  std::string g = kxGreetingBytes(clusterId);
  return kxFullSend(sock, g.data(), g.size(), timeoutMs);
}

int kxReadGreetingAnswer(int sock, int timeoutMs, SdrSecInfo* info) {
  // One deadline for the whole answer, however it is cut into pieces.
  const long long deadline = PlatDeadlineAfter(timeoutMs);
  char ans[kAnswerLen];
  int rc = kxRecvUntil(sock, ans, kAnswerLen, deadline);
  if (rc != 0) return rc;
  unsigned int magic = 0, status = 0, len = 0;
  LoadUInt32(ans, ans + kAnswerLen, &magic);
  LoadUInt32(ans + 4, ans + kAnswerLen, &status);
  LoadUInt32(ans + 12, ans + kAnswerLen, &len);
  if (magic != kGreetingMagic) return E_CANT_CONNECT;
  if (status != 0) return E_CONN_REJECTED;

  SdrSecInfo learnt;
  learnt.keyGenNumber = info->keyGenNumber;
  while (len != 0) {
    // A record shorter than its own type and next length cannot continue the chain.
    if (len > kMaxGreetingRecord || len < 8) return E_BAD_ATTACH_LEN;
    std::unique_ptr<char[]> rec(new (std::nothrow) char[len]);
    if (!rec) return E_OUT_OF_MEMORY;
    rc = kxRecvUntil(sock, rec.get(), len, deadline);
    if (rc != 0) return rc;
    const char* r = rec.get();
    const char* end = r + len;
    unsigned int type = 0, next = 0, v = 0;
    LoadUInt32(r, end, &type);
    LoadUInt32(r + 4, end, &next);
    if (type == 6 && LoadUInt32(r + 8, end, &v) != nullptr) {
      learnt.peerKeyGenNumber = static_cast<int>(v);
      if (len > 12) {
        const char* name = r + 12;
        const char* nul = static_cast<const char*>(memchr(name, 0, end - name));
        learnt.peerClusterName.assign(name, nul ? nul : end);
        learnt.hasPeerClusterName = true;
      }
    } else if (type == 9 && len >= 20) {
      LoadUInt32(r + 8, end, &v);
      learnt.peerVersion = static_cast<int>(v);
      LoadUInt64(r + 12, end, &learnt.peerClusterId);
    }
    len = next;
  }
  *info = learnt;
  return 0;
}

int kxConnectSocket(int sock, const CommAddr& addr, int timeoutMs, unsigned long long clusterId,
                    SdrSecInfo* info) {
  int rc = PlatSetNonBlocking(sock, true);
  if (rc != 0) return rc;
  struct sockaddr_storage ss;
  socklen_t slen = addr.addr.toSockaddr(addr.port, &ss);
  long long deadline = PlatDeadlineAfter(timeoutMs);
  for (;;) {
    rc = PlatConnect(sock, reinterpret_cast<struct sockaddr*>(&ss), slen);
    if (rc == 0 || rc == EISCONN) break;
    if (rc != EINPROGRESS && rc != EALREADY && rc != EAGAIN) return ECONNREFUSED;
    long long left = deadline - PlatNowMs();
    if (left <= 0) return ETIMEDOUT;
    struct pollfd pfd = {sock, POLLOUT, 0};
    int ready = 0;
    rc = PlatPoll(&pfd, 1, static_cast<int>(left), &ready);
    if (rc != 0) return rc;
    if (ready == 0) return ETIMEDOUT;
  }
  rc = PlatSetNoDelay(sock);
  if (rc != 0) return rc;
  rc = kxSendGreeting(sock, timeoutMs, clusterId, info);
  if (rc != 0) return rc;
  return kxReadGreetingAnswer(sock, timeoutMs, info);
}

int wrapSocket(int sock, const SdrSecInfo& info, Connection** out) {
  *out = nullptr;
  struct sockaddr_storage ss;
  socklen_t slen;
  int rc = PlatGetPeerName(sock, &ss, &slen);
  if (rc != 0) {
    ::close(sock);
    return rc;
  }
  CommAddr peer;
  IpAddr::fromSockaddr(reinterpret_cast<struct sockaddr*>(&ss), &peer.addr, &peer.port);
  if (simulateDisconnect && !simReachable(peer.addr)) {
    trace(1, "wrapSocket simulateNetworkDisconnect peerAddr %s myCommAddr %s localHostAddr %s",
          peer.toString().c_str(), simOwnAddr.toString().c_str(),
          simLocalHostAddr.toString().c_str());
    ::close(sock);
    return E_IO;
  }
  Connection* c = new (std::nothrow) ConnImplementation(sock, info, peer);
  if (c == nullptr) {
    ::close(sock);
    return E_OUT_OF_MEMORY;
  }
  trace(5, "wrapping socket %d from node %s-0x%llx", sock, peer.toString().c_str(), connId(c));
  *out = c;
  return 0;
}

void SetSimulateNetworkDisconnectAddrs(bool on, const CommAddr& ownAddr,
                                       const CommAddr& localHostAddr) {
  simOwnAddr = ownAddr;
  simLocalHostAddr = localHostAddr;
  simulateDisconnect = on;
}

bool GetSimulateNetworkDisconnect() {
  return simulateDisconnect;
}

bool SimulatedUnreachable(const IpAddr& a) {
  return simulateDisconnect && !simReachable(a);
}
