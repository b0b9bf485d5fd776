// Reaching servers: connections by address through the outgoing cache, by node
// id through the local node map, and SendReceive.
#include "zel/kxconnect.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <new>

#include "platform/psock.h"
#include "zel/cachedcomm.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

unsigned long long connId(const Connection* c) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(c));
}

// A cached connection is reused only when nothing at all can be read from it:
// data waiting means a stale exchange, and end of file a server that closed it
// (reusing that one would cost the request an attempt).
bool cachedConnectionUsable(Connection* c, const std::string& addrText) {
  char peek[32];
  size_t got = 0;
  int rc = PlatRecv(c->getSock(), peek, sizeof peek, MSG_PEEK | MSG_DONTWAIT, &got);
  if (rc == EAGAIN || rc == EWOULDBLOCK) return true;
  trace(5, "cached connection (sock %d-0x%llx) to node %s %s", c->getSock(), connId(c),
        addrText.c_str(), rc != 0 ? "failed" : (got == 0 ? "closed by the peer" : "stale"));
  return false;
}

}  // namespace

int connectTo(const CommAddr& addr, Connection** out, int timeoutMs) {
  std::string addrText = addr.toString();
  trace(5, "connecting to node %s (timeout %d)", addrText.c_str(), timeoutMs);
  *out = nullptr;
  Connection* cached = nullptr;
  if (outConnectionCache.getConnectionFromMap(addr, &cached) == 0) {
    if (cachedConnectionUsable(cached, addrText)) {
      trace(5, "reusing connection (sock %d-0x%llx) to node %s", cached->getSock(), connId(cached),
            addrText.c_str());
      cached->setClientClusterId(zelClusterId);
      *out = cached;
      return 0;
    }
    delete cached;
  }
  if (SimulatedUnreachable(addr.addr)) {
    trace(1, "connectTo simulateNetworkDisconnect addr %s", addrText.c_str());
    return E_IO;
  }
  int sock = -1;
  int rc = PlatSocket(addr.addr.isV4Mapped() ? AF_INET : AF_INET6, SOCK_STREAM, &sock);
  if (rc != 0) {
    trace(0, "ZEL: failed to connect to node %s (sock %d err %d)", addrText.c_str(), sock, rc);
    return rc;
  }
  PlatSetRecvBuf(sock, kSockRecvBufBytes);
  SdrSecInfo info;
  rc = kxConnectSocket(sock, addr, timeoutMs < 0 ? kDefaultConnectTimeoutMS : timeoutMs,
                       zelClusterId, &info);
  if (rc != 0) {
    trace(0, "ZEL: failed to connect to node %s (sock %d err %d)", addrText.c_str(), sock, rc);
    ::close(sock);
    return rc;
  }
  Connection* c = new (std::nothrow) ConnImplementation(sock, info, addr, zelClusterId);
  if (c == nullptr) {
    ::close(sock);
    return E_OUT_OF_MEMORY;
  }
  trace(5, "connected to node %s (sock %d-0x%llx)", addrText.c_str(), sock, connId(c));
  *out = c;
  return 0;
}

void releaseConnection(Connection* conn) {
  if (useCachedConnections) {
    outConnectionCache.addConnectionToMap(conn);
  } else {
    delete conn;
  }
}

int SendReceive(const CommAddr& addr, int type, const char* body, int length, int* replyType,
                MsgBody* reply, int timeoutMs) {
  reply->reset();
  Connection* conn = nullptr;
  int rc = connectTo(addr, &conn, timeoutMs);
  if (rc != 0) {
    trace(4, "SendReceive: connect to %s failed (err %d)", addr.toString().c_str(), rc);
    return rc;
  }
  rc = conn->send(type, body, length);
  if (rc != 0) {
    trace(4, "SendReceive: send to %s failed (err %d)", addr.toString().c_str(), rc);
  } else {
    rc = ReceiveErrCheck(conn, replyType, reply);
  }
  releaseConnection(conn);
  return rc;
}

int SendReceive(const std::string& host, int port, int type, const char* body, int length,
                int* replyType, MsgBody* reply, int timeoutMs) {
  CommAddr addr;
  int rc = convertCommAddr(host, port, &addr);
  if (rc != 0) {
    trace(1, "SendReceive: unknown host '%s'", host.c_str());
    return rc;
  }
  return SendReceive(addr, type, body, length, replyType, reply, timeoutMs);
}

int connectTo(int nodeId, Connection** out, int timeoutMs) {
  *out = nullptr;
  const NodeLocMap& nodeMap = GetNodeMap();
  auto it = nodeMap.find(nodeId);
  if (it == nodeMap.end()) {
    trace(1, "connectTo: unknown targetId %d", nodeId);
    return E_INVAL;
  }
  CommAddr addr;
  int rc = convertCommAddr(it->second.addr, it->second.port, &addr);
  if (rc != 0) {
    trace(1, "connectTo: unknown host '%s'", it->second.addr.c_str());
    return rc;
  }
  return connectTo(addr, out, timeoutMs);
}

int SendReceive(int nodeId, int type, const char* body, int length, int* replyType, MsgBody* reply,
                int timeoutMs) {
  reply->reset();
  const NodeLocMap& nodeMap = GetNodeMap();
  auto it = nodeMap.find(nodeId);
  if (it == nodeMap.end()) {
    trace(1, "SendReceive: unknown targetId %d", nodeId);
    return E_INVAL;
  }
  return SendReceive(it->second.addr, it->second.port, type, body, length, replyType, reply,
                     timeoutMs);
}

void setSimulateNetworkDisconnect(bool on) {
  // An address that does not resolve stays all zeros and so matches nothing real.
  CommAddr own, localHost;
  convertCommAddr(zelAddr, zelPort, &own);
  convertCommAddr("localhost", zelPort, &localHost);
  SetSimulateNetworkDisconnectAddrs(on, own, localHost);
}
