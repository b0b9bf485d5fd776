// Cache of idle open connections, one per server address, with the "eor"
// end-of-request handshake; guarded by ZELLock slot 3.
#ifndef ZEL_CACHEDCOMM_H
#define ZEL_CACHEDCOMM_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zel/kxcomm.h"
#include "zel/zelglobals.h"

constexpr int kNoCachedConnection = 112;

class CachedConnectionMap {
 public:
  explicit CachedConnectionMap(bool incoming) : incoming_(incoming) {}
  CachedConnectionMap(const CachedConnectionMap&) = delete;
  CachedConnectionMap& operator=(const CachedConnectionMap&) = delete;

  // Takes a cached connection out of the map (the caller owns it) and marks its
  // next message as the first; 112 when there is none. Locked.
  int getConnectionFromMap(const CommAddr& addr, Connection** out);
  int getConnectionFromMap(int sock, Connection** out);
  // Runs the "eor" handshake on a sound connection, then caches it if it is still
  // sound, else destroys it. Takes ownership.
  void addConnectionToMap(Connection* conn);
  // Sockets of the cached connections in address order. Locked.
  void getSocketListFromMap(std::vector<int>* out);
  void clear();
  // "Cached in-connections: N" / per-connection lines / stats.
  std::string doDump();

  // Unlocked forms; the caller holds ZELLock slot 3.
  int getConnection(const CommAddr& addr, Connection** out);
  int getConnection(int sock, Connection** out);
  void addConnection(Connection* conn);
  void getSocketList(std::vector<int>* out);

  const char* name() const { return incoming_ ? "in" : "out"; }
  size_t size() const { return map_.size(); }

  int nAddGood = 0;
  int nAddBad = 0;
  int nGetGood = 0;
  int nGetBad = 0;
  int nGetNotFound = 0;

 private:
  void dropBad(Connection* conn);

  bool incoming_;
  std::map<CommAddr, std::unique_ptr<Connection>> map_;
};

// The process-wide caches and the caching switch are declared in zel/zelglobals.h.

// The listen wake-up pair: a write to it interrupts pollInConnections.
int listenWakeupSocksSetup();
// 0 unless caching; 22 when the pair is not set up; else writes "C".
int wakeupListenThread();
// Waits up to timeoutMs for data on cached incoming connections (or a wake-up)
// and hands back those with data, taken out of the cache.
int pollInConnections(std::vector<Connection*>* out, int timeoutMs);

#endif  // ZEL_CACHEDCOMM_H
