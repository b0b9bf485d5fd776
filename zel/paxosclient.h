// The repository client: per-request retry state, decoding of the servers'
// replies, and the hand-off of committed states to the client's cache.
#ifndef ZEL_PAXOSCLIENT_H
#define ZEL_PAXOSCLIENT_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zel/kxcomm.h"
#include "zel/paxosdata.h"
#include "zel/zelglobals.h"

// Orders node ids by score, highest first; an id without a score has 0.
class ServerCompare {
 public:
  std::map<int, int> scores;
  int score(int id) const;
  bool operator()(int a, int b) const { return score(a) > score(b); }
};

// Orders serverIds from the local node list and the cached committed state:
// this node, listening nodes, other configured nodes, unknown ones; random
// order within a class. Sets cfgVersion and nlVersion. Returns the state
// file's load error (the list then stays in node-list order).
int PaxosInit();

// A committed state a reply brought, for the client cache.
struct ClientCacheUpdate {
  int seq = 0;
  CommittedState committed;
  unsigned long long clusterId = 0;  // of the connection it came on
};

// Retry state of one request.
class ClientRetry {
 public:
  explicit ClientRetry(const std::string& requestName) : name(requestName) {}
  // Back to the start state, keeping the name.
  void reset();
  // Whether to make one more attempt after one that ended with err; if so,
  // pauses as the round asks and sets server. 720 and 315 end the request
  // once every server has been tried.
  bool nextTry(int err);

  std::string name;             // names the request in messages
  bool active = true;           // false once the request is complete
  bool stopAfterRound = false;  // stop once every server has been tried
  int firstError = 0;           // 0 while none is recorded
  int attempt = 0;              // servers chosen so far
  int server = -1;              // node id of the current attempt
  bool connected = false;       // whether the current attempt got a connection
  // States the attempt's replies brought, in order; the request loop hands them
  // to the client cache once the attempt's connection is released, so that
  // decoding a reply never writes files or opens connections.
  std::vector<ClientCacheUpdate> cacheUpdates;
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
// retry (may be null) off when the request is complete or must not be retried,
// and queues decoded 50/51/53 states on it for the client cache.
int ReceiveZELReply(Connection* conn, ClientRetry* retry, ZelReplyResult* result);

// One attempt of a request on a connected server: sends the request, receives
// and decodes the reply, and switches retry off when the request is complete.
using PaxosAttemptFn = std::function<int(Connection* conn, ClientRetry* retry)>;
// The request loop shared by every request: attempts on serverIds in turn with
// back-off. After each attempt the connection is released and then the states
// the attempt queued go to the client cache, in order. The last attempt's error
// once the request is complete; when the attempts run out, the first recorded
// error, else 801.
int PaxosRequest(const char* name, const PaxosAttemptFn& attempt);

// Asks a server for the current node list and committed state; makes them the
// client's. A reply that only refreshed the node list starts over.
int PaxosDiscover();

// Fetches the repository's committed state (vget, vlist, show).
int PaxosValueGet(int* seq, CommittedState* committed);
// Fetches the committed state and the names of the stored files.
int PaxosFileList(int* seq, CommittedState* committed, FileIdMap* fileIdMap);
// Fetches the file name into localPath (complete and checked, or not written).
// version -1 is unconditional; otherwise the server may refuse a match (806).
int PaxosFileGet(const std::string& name, const std::string& localPath, int* seq,
                 CommittedState* committed, int* fileId, int version);

// Updates. condVersion -1: unconditional; newVersion -1: the server chooses.
// One update id is kept across every attempt, so a retry never applies twice.
int PaxosValuePut(const std::string& name, const std::string& value, int* seq,
                  CommittedState* committed, int condVersion, int newVersion);
int PaxosValueDel(const std::string& name, int* seq, CommittedState* committed, int condVersion);
int PaxosFilePut(const std::string& name, const std::string& localPath, int* seq,
                 CommittedState* committed, int condVersion, int newVersion);
int PaxosFileDel(const std::string& name, int* seq, CommittedState* committed, int condVersion);
// Proposes a new node list and/or disk list (null: unchanged) and quorum size
// (negative: unchanged).
int PaxosSetConfig(const NodeList* nodes, const DiskList* disks, int minNodes, int condVersion,
                   int* seq, CommittedState* committed);

// The update exchange on one connection: sends the body, answers "uid" and
// "uid_fput" (sending localPath of fileSize bytes when asked) with "ok", and
// ends with "seq_commit". *uid takes the identifier the server assigns.
int doUpdateRequest(Connection* conn, int mt, const char* body, int len, UpdateId* uid,
                    ClientRetry* retry, int* seq, CommittedState* committed,
                    const std::string& localPath, long long fileSize);

// Stores a server's committed state in the local state file when it is newer
// than the client's and then fetches a newer node list.
void updateClientCache(int seq, const CommittedState& committed, unsigned long long clusterId);

// Test seam: replaces the request loop's hand-off of queued states (nullptr
// restores updateClientCache); returns the previous one.
using ClientCacheFn = void (*)(int seq, const CommittedState& committed,
                               unsigned long long clusterId);
ClientCacheFn SetClientCacheFnForTest(ClientCacheFn fn);

// Test seam: replaces how request attempts connect to a server by node id
// (nullptr restores connectTo); returns the previous one.
using ServerConnectFn = int (*)(int nodeId, Connection** out, int timeoutMs);
ServerConnectFn SetServerConnectFnForTest(ServerConnectFn fn);

#endif  // ZEL_PAXOSCLIENT_H
