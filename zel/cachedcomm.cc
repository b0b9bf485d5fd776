#include "zel/cachedcomm.h"

#include <poll.h>
#include <unistd.h>

#include <cinttypes>
#include <memory>

#include "platform/psock.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zellock.h"
#include "zel/zelmsg.h"

namespace {

int wakeupSocks[2] = {-1, -1};

unsigned long long connId(const Connection* c) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(c));
}

// Holds ZELLock slot 3 exclusively for a scope.
class CacheLock : public ZELLockHolder {
 public:
  CacheLock() : ZELLockHolder(kZelLockConnCache, LMODE_EXCLUSIVE) {}
};

}  // namespace

int CachedConnectionMap::getConnectionFromMap(const CommAddr& addr, Connection** out) {
  CacheLock l;
  return getConnection(addr, out);
}

int CachedConnectionMap::getConnectionFromMap(int sock, Connection** out) {
  CacheLock l;
  return getConnection(sock, out);
}

void CachedConnectionMap::getSocketListFromMap(std::vector<int>* out) {
  CacheLock l;
  getSocketList(out);
}

void CachedConnectionMap::addConnectionToMap(Connection* conn) {
  if (!conn->isBroken()) {
    bool good = conn->send(REPLY_TYPE_EOR, nullptr, 0) == 0;
    if (good) {
      int type = 0;
      MsgBody body;
      good = conn->receive(&type, &body) == 0 && type == REPLY_TYPE_EOR;
    }
    if (!good) conn->setBroken();
  }
  CacheLock l;
  addConnection(conn);
}

void CachedConnectionMap::dropBad(Connection* conn) {
  std::unique_ptr<Connection> doomed(conn);
  trace(4, "Bad %s-connection (%d-0x%llx), delete it.", name(), conn->getSock(), connId(conn));
  nAddBad++;
}

void CachedConnectionMap::addConnection(Connection* connP) {
  trace(6, "CachedConnectionMap::addConnection(): (0x%llx-%s-%d)", connId(connP),
        connP->getPeer().toString().c_str(), connP->getSock());
  if (connP->isBroken()) {
    dropBad(connP);
    return;
  }
  auto iter = map_.find(connP->getPeer());
  if (iter != map_.end()) {
    ZASSERT_T(iter->second.get() != connP, "iter->second != connP");
    // Another object on the same socket is not destroyed: that would close it.
    if (iter->second->getSock() == connP->getSock()) iter->second.release();
    map_.erase(iter);
  }
  map_[connP->getPeer()].reset(connP);
  nAddGood++;
  if (incoming_) wakeupListenThread();
  trace(6, "Cached %s-connection (0x%llx-%s-%d) cache size: %d", name(), connId(connP),
        connP->getPeer().toString().c_str(), connP->getSock(), static_cast<int>(map_.size()));
}

int CachedConnectionMap::getConnection(const CommAddr& addr, Connection** out) {
  *out = nullptr;
  auto it = map_.find(addr);
  if (it == map_.end()) {
    trace(7, "No cached %s-connection found for address: %s (%d)", name(), addr.toString().c_str(),
          static_cast<int>(map_.size()));
    nGetNotFound++;
    return kNoCachedConnection;
  }
  Connection* c = it->second.release();
  map_.erase(it);
  c->setFirstMessage();
  nGetGood++;
  trace(6, "Returning cached %s-connection 0x%llx for address: %s-%d (%d)", name(), connId(c),
        addr.toString().c_str(), c->getSock(), static_cast<int>(map_.size()));
  *out = c;
  return 0;
}

int CachedConnectionMap::getConnection(int sock, Connection** out) {
  *out = nullptr;
  for (auto it = map_.begin(); it != map_.end(); ++it) {
    if (it->second->getSock() != sock) continue;
    Connection* c = it->second.release();
    map_.erase(it);
    c->setFirstMessage();
    nGetGood++;
    trace(6, "Returning cached %s-connection 0x%llx for address: %s-%d (%d)", name(), connId(c),
          c->getPeer().toString().c_str(), sock, static_cast<int>(map_.size()));
    *out = c;
    return 0;
  }
  trace(7, "No cached %s-connection found for socket: %d (%d)", name(), sock,
        static_cast<int>(map_.size()));
  nGetNotFound++;
  return kNoCachedConnection;
}

void CachedConnectionMap::getSocketList(std::vector<int>* out) {
  out->clear();
  trace(9, "CachedConnectionMap::getSocketList(), %s-connMap.size(): %d", name(),
        static_cast<int>(map_.size()));
  for (auto& e : map_) out->push_back(e.second->getSock());
}

void CachedConnectionMap::clear() {
  CacheLock l;
  map_.clear();
}

std::string CachedConnectionMap::doDump() {
  CacheLock l;
  std::string s;
  char line[512];
  snprintf(line, sizeof line, "Cached %s-connections: %d\n", name(), static_cast<int>(map_.size()));
  s += line;
  int i = 0;
  for (auto& e : map_) {
    snprintf(line, sizeof line, "%3d: connection 0x%lx addr %s sock %d authenticated %d\n", i++,
             static_cast<unsigned long>(connId(e.second.get())), e.first.toString().c_str(),
             e.second->getSock(), e.second->isAuthenticated() ? 1 : 0);
    s += line;
  }
  snprintf(line, sizeof line,
           "  stats: nAddGood %d nAddBad %d nGetGood %d nGetBad %d nGetNotFound %d\n", nAddGood,
           nAddBad, nGetGood, nGetBad, nGetNotFound);
  s += line;
  return s;
}

int listenWakeupSocksSetup() {
  if (wakeupSocks[0] >= 0) return 0;
  int rc = PlatSocketPair(wakeupSocks);
  if (rc != 0) {
    wakeupSocks[0] = wakeupSocks[1] = -1;
    trace(4, "Creating listen wakeup socket pair failed (%d)", rc);
    return rc;
  }
  trace(4, "Setup listen wakeup socket pair successful (read: %d write: %d)", wakeupSocks[0],
        wakeupSocks[1]);
  return 0;
}

int wakeupListenThread() {
  if (!useCachedConnections) return 0;
  if (wakeupSocks[1] < 0) return E_INVAL;
  size_t sent = 0;
  return PlatSend(wakeupSocks[1], "C", 1, MSG_DONTWAIT, &sent);
}

int pollInConnections(std::vector<Connection*>* out, int timeoutMs) {
  out->clear();
  int rc = listenWakeupSocksSetup();
  if (rc != 0) return rc;
  std::vector<int> socks;
  inConnectionCache.getSocketListFromMap(&socks);
  trace(7, "Polling cached connections (size:%d) %s (TO:%d-%d)", static_cast<int>(socks.size()),
        inConnectionCache.name(), timeoutMs, 0);
  std::vector<struct pollfd> pfds;
  pfds.push_back({wakeupSocks[0], POLLIN, 0});
  for (int s : socks) pfds.push_back({s, POLLIN, 0});
  int ready = 0;
  rc = PlatPoll(pfds.data(), static_cast<int>(pfds.size()), timeoutMs, &ready);
  trace(7, "Returning from polling cached connections (%d-%d-%d)", rc, ready,
        static_cast<int>(pfds.size()));
  if (rc != 0 || ready == 0) {
    trace(7, "pollInConnections:%s (%d)", rc != 0 ? "failed" : "timed out", rc);
    return rc;
  }
  if (pfds[0].revents & POLLIN) {
    char buf[64];
    size_t got = 0;
    PlatRecv(wakeupSocks[0], buf, sizeof buf, MSG_DONTWAIT, &got);
    trace(7, "Read from listen-wakeup-socket: %d byte(s)", static_cast<int>(got));
  }
  for (size_t i = 1; i < pfds.size(); i++) {
    if (pfds[i].revents == 0) continue;
    trace(7, "pollInConnection %d-%d-%d-%d", static_cast<int>(i), pfds[i].fd, pfds[i].events,
          pfds[i].revents);
    Connection* c = nullptr;
    int grc = inConnectionCache.getConnectionFromMap(pfds[i].fd, &c);
    if (grc != 0) {
      trace(4, "pollInConnections: getting cached connection from map failed (%d-%d)", grc,
            pfds[i].fd);
      continue;
    }
    char peek;
    size_t got = 0;
    if (PlatRecv(c->getSock(), &peek, 1, MSG_PEEK | MSG_DONTWAIT, &got) == 0 && got == 0) {
      trace(4, "pollInConnections: cached connection closed on peer side (%d-%s)", c->getSock(),
            c->getPeer().toString().c_str());
      delete c;
      continue;
    }
    out->push_back(c);
  }
  return 0;
}
