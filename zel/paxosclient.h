// The repository client: per-request retry state, decoding of the servers'
// replies, and the hand-off of committed states to the client's cache.
#ifndef ZEL_PAXOSCLIENT_H
#define ZEL_PAXOSCLIENT_H

#include <string>

#include "zel/kxcomm.h"
#include "zel/paxosdata.h"

// Configuration and node-list versions of the committed state the client holds
// (set by PaxosInit; 0 until then).
extern int cfgVersion;
extern int nlVersion;

// Retry state of one request.
class ClientRetry {
 public:
  explicit ClientRetry(const std::string& requestName) : name(requestName) {}
  // Back to the start state, keeping the name.
  void reset();

  std::string name;             // names the request in messages
  bool active = true;           // false once the request is complete
  bool stopAfterRound = false;  // stop once every server has been tried
  int firstError = 0;           // 0 while none is recorded
  int attempt = 0;              // servers chosen so far
  int server = -1;              // node id of the current attempt
  bool connected = false;       // whether the current attempt got a connection
};

// Everything a repository reply can hand back; which fields are filled depends
// on type.
struct ZelReplyResult {
  int type = -1;             // reply type received; -1 before any
  int seq = -1;              // 50, 51, 52, 53, 62
  CommittedState committed;  // 50, 51, 52, 53, 62
  FileIdMap fileIdMap;       // 53
  UpdateId uid;              // 54, 55
  bool needFile = false;     // 55: the server wants the file's contents
  int fileId = 0;            // 52
  int fileSize = 0;          // 52: handed to the file reception
  bool storeState = false;   // 62: store the state (else the node list was only refreshed)
  int nodesFileSize = 0;     // 62: handed to the node-list file reception
  int serverNlVersion = -1;  // 61
};

// Receives one reply on conn (generic handling included) and decodes it into
// *result. Returns 0, the error a reply carries, or the receive error; 818 (and
// conn marked broken) for a body that does not decode completely or a type that
// is not a repository reply, in which case only result->type is set. Switches
// retry (may be null) off when the request is complete or must not be retried.
// Hands decoded 50/51/53 states to the cache. The body is always freed.
int ReceiveZELReply(Connection* conn, ClientRetry* retry, ZelReplyResult* result);

// Stores a server's committed state in the local state file when it is newer
// than the client's and then fetches a newer node list.
void updateClientCache(int seq, const CommittedState& committed, unsigned long long clusterId);

// Test seam: replaces the cache hand-off of ReceiveZELReply (nullptr restores
// updateClientCache); returns the previous one.
using ClientCacheFn = void (*)(int seq, const CommittedState& committed,
                               unsigned long long clusterId);
ClientCacheFn SetClientCacheFnForTest(ClientCacheFn fn);

#endif  // ZEL_PAXOSCLIENT_H
