// Choice of server, retry with back-off, discovery, and the client's cache of
// the committed state and node list.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "platform/pclock.h"
#include "zel/cachedcomm.h"
#include "zel/kxconnect.h"
#include "zel/paxosclient.h"
#include "zel/paxosclient_int.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"
#include "zel/zelxfer.h"

namespace {

// Connect time-out of the attempts of a request's first round (all but the last).
constexpr int kFirstRoundConnectMs = 1000;
// A server that keeps answering discovery with "refreshed only" cannot keep the
// client going round for ever.
constexpr int kMaxDiscoverRestarts = 8;

ServerConnectFn connectFn = connectTo;

void seedOnce() {
  static bool seeded = false;
  if (seeded) return;
  seeded = true;
  srand(static_cast<unsigned int>(time(nullptr)) ^ (static_cast<unsigned int>(getpid()) << 16));
}

std::string idsToString(const std::vector<int>& ids) {
  std::string s = "[";
  for (size_t i = 0; i < ids.size(); i++) {
    if (i > 0) s += ", ";
    s += std::to_string(ids[i]);
  }
  return s + "]";
}

int fileOneVersion(const CommittedState& committed) {
  auto it = committed.fileList.find(kNodesFileId);
  return it == committed.fileList.end() ? 0 : it->second.version;
}

std::string serverText(int id) {
  auto it = GetNodeMap().find(id);
  if (it == GetNodeMap().end()) return "node " + std::to_string(id);
  return it->second.addr + ":" + std::to_string(it->second.port);
}

// Asks conn for the node-list file of entry fv and receives it.
int fxferNodesFile(Connection* conn, const FileVersion& fv) {
  const std::string name = kNodesFileName;
  int len = static_cast<int>(name.size()) + 1 + SizeVarUInt(kNodesFileId, 0) +
            SizeVarUInt(fv.version, -1) + fv.uid.getSize();
  std::string body(len, '\0');
  char* p = DumpString(&body[0], name);
  p = DumpVarUInt(p, kNodesFileId, 0);
  p = DumpVarUInt(p, fv.version, -1);
  p = fv.uid.dump(p);
  ZASSERT_T(p == &body[0] + len, "bufP - msgP == len");
  int rc = conn->send(MSG_TYPE_FXFER, body.data(), len);
  if (rc != 0) return rc;
  int type = -1;
  MsgBody reply;
  rc = ReceiveErrCheck(conn, &type, &reply);
  if (rc != 0) return rc;
  int size = -1;
  const char* end = LoadVarUInt(reply.data(), reply.end(), &size, 0);
  bool ok = type == MSG_TYPE_OK && end != nullptr && end == reply.end();
  if (!ok) {
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  return receiveNodesFile(conn, fv, size);
}

// The node-list file of the state's entry, fetched from the first server that
// delivers it.
bool pullNodesFile(const FileVersion& fv, const std::string& path) {
  for (size_t i = 0; i < serverIds.size(); i++) {
    int id = serverIds[i];
    trace(4, "pulling file %s '%s' from %s", fv.uid.toString().c_str(), path.c_str(),
          serverText(id).c_str());
    Connection* conn = nullptr;
    int rc = connectFn(id, &conn, i + 1 < serverIds.size() ? kFirstRoundConnectMs : -1);
    if (rc != 0) continue;
    rc = fxferNodesFile(conn, fv);
    releaseConnection(conn);
    if (rc == 0) return true;
    trace(3, "pulling '%s' from %s failed (err %d)", path.c_str(), serverText(id).c_str(), rc);
  }
  return false;
}

}  // namespace

const char kNodesFileName[] = "zel.nodes";

std::string stateText(int level, const CommittedState& committed) {
  if (level > traceLevel && level > traceFlags) return std::string();
  return committed.toString();
}

std::string nodesFilePath(const FileVersion& fv) {
  return committedFilePath(kNodesFileName, kNodesFileId, fv.version, fv.crc, fv.uid);
}

int receiveNodesFile(Connection* conn, const FileVersion& fv, int size) {
  // Received under the CRC-naming form of the name, so that contents that do
  // not match the state's CRC never take the expected name.
  const std::string path = nodesFilePath(fv);
  std::string target = committedFilePath(kNodesFileName, kNodesFileId, fv.version, 0, fv.uid);
  unsigned int got = 0;
  bool localErr = false;
  int rc = receiveFileCRCRename(conn, &target, size, false, &got, &localErr);
  if (rc != 0) {
    conn->setBroken();
    return rc;
  }
  if (target != path) {
    trace(1, "node list file '%s' has CRC 0x%x (expected 0x%x)", target.c_str(), got, fv.crc);
    unlink(target.c_str());
    return E_XFER_FAILED;
  }
  return 0;
}

int ServerCompare::score(int id) const {
  auto it = scores.find(id);
  return it == scores.end() ? 0 : it->second;
}

int PaxosInit() {
  seedOnce();
  serverIds.clear();
  for (const Node& n : GetNodeList()) serverIds.push_back(n.id);
  int seq = 0;
  CommittedState committed;
  int rc = loadPFDFromFile(&seq, &committed, &zelClusterId);
  if (rc == 0) {
    ServerCompare cmp;
    for (const NodeDescriptor& nd : committed.config.nodes) {
      cmp.scores[nd.id] = nd.id == zelNodeId ? 3 : (nd.listen ? 2 : 1);
    }
    for (size_t i = 1; i < serverIds.size(); i++) {
      size_t j = static_cast<size_t>(rand()) % (i + 1);
      std::swap(serverIds[i], serverIds[j]);
    }
    std::stable_sort(serverIds.begin(), serverIds.end(), cmp);
    cfgVersion = committed.cfgVersion;
    nlVersion = fileOneVersion(committed);
    std::ostringstream nl;
    if (4 <= traceLevel || 4 <= traceFlags) nl << committed.config.nodes;
    trace(4, "PaxosInit nl: '%s' nl ver: %d config ver: %d ", nl.str().c_str(), nlVersion,
          cfgVersion);
  }
  trace(4, "PaxosInit serverIds: %s", idsToString(serverIds).c_str());
  return rc;
}

void ClientRetry::reset() {
  active = true;
  stopAfterRound = false;
  firstError = 0;
  attempt = 0;
  server = -1;
  connected = false;
}

bool ClientRetry::nextTry(int err) {
  if (!active) return false;
  if (err == E_AUTH_PARAMS || err == E_CLUSTER_MISMATCH) {
    stopAfterRound = true;
    if (firstError == 0) firstError = err;
  }
  int n = static_cast<int>(serverIds.size());
  ZASSERT_T(n > 0, "n > 0");
  int round = attempt / n;
  long long d = round == 0 ? 0 : (round > 40 ? (1LL << 40) : (1LL << (round - 1)));
  if ((stopAfterRound && attempt >= n) || d >= maxRetryTime) return false;
  double delay = static_cast<double>(d) / n;
  // Under ZEL_DEADLINE a pause that would end past it ends the request instead,
  // with the error of the attempts made so far.
  long long left = PlatCommandTimeLeft();
  if (left == 0 || (left > 0 && delay * 1000 >= static_cast<double>(left))) {
    trace(3, "%s: no time left for another attempt (deadline)", name.c_str());
    return false;
  }
  if (attempt > 0) {
    trace(3, "%s %s to server %d failed with err %d: retrying (delay %.1f sec)", name.c_str(),
          connected ? "operation" : "connect", server, err, delay);
  }
  if (d > 0) PlatSleepUs(static_cast<long long>(delay * 1e6));
  server = serverIds[attempt % n];
  attempt++;
  return true;
}

ServerConnectFn SetServerConnectFnForTest(ServerConnectFn fn) {
  ServerConnectFn old = connectFn;
  connectFn = fn != nullptr ? fn : static_cast<ServerConnectFn>(connectTo);
  return old;
}

int PaxosRequest(const char* name, const PaxosAttemptFn& attempt) {
  ClientRetry retry(name);
  int err = -1;
  while (retry.nextTry(err)) {
    int n = static_cast<int>(serverIds.size());
    Connection* conn = nullptr;
    err = connectFn(retry.server, &conn, retry.attempt / n == 0 ? kFirstRoundConnectMs : -1);
    retry.connected = err == 0;
    if (err != 0) continue;
    err = attempt(conn, &retry);
    releaseConnection(conn);
    flushCacheUpdates(&retry);
  }
  if (!retry.active) return err;
  if (retry.firstError == 0 && err > 0) {
    // 801 alone does not say why: the last server's answer does.
    SetErrorCause("last server tried: %s: %s (err %d)", serverText(retry.server).c_str(),
                  errcodeToString(err), err);
  }
  return retry.firstError != 0 ? retry.firstError : E_NO_SERVER;
}

int PaxosDiscover() {
  trace(4, "DISCOVER()");
  int seq = 0, restarts = 0;
  CommittedState committed;
  int rc = PaxosRequest("discover", [&](Connection* conn, ClientRetry* retry) {
    char body[16];
    char* end = DumpVarUInt(body, nlVersion, -1);
    int err = conn->send(MSG_TYPE_DISCOVER, body, static_cast<int>(end - body));
    if (err != 0) return err;
    ZelReplyResult r;
    err = ReceiveZELReply(conn, retry, &r);
    if (err != 0) return err;
    auto file = r.committed.fileList.find(kNodesFileId);
    if (r.type != REPLY_TYPE_DISCOVER || file == r.committed.fileList.end()) {
      trace(1, "discover: unexpected reply %d '%s'", r.type, msgName(r.type));
      conn->setBroken();
      return static_cast<int>(E_BAD_MESSAGE);
    }
    std::string path = nodesFilePath(file->second);
    trace(4, "Receive zel.nodes version %d and store it under: '%s' (%d)", file->second.version,
          path.c_str(), r.nodesFileSize);
    err = receiveNodesFile(conn, file->second, r.nodesFileSize);
    if (err != 0) return err;
    Nodes nodes;
    err = readNodeList(path, &nodes);
    if (err == 0 && nodes.empty()) err = E_BAD_MESSAGE;  // would leave no server to ask
    if (err != 0) return err;
    SetNodeList(nodes, r.storeState);
    if (r.storeState) {
      retry->active = false;
      seq = r.seq;
      committed = r.committed;
      return storePFDToFile(r.seq, r.committed, zelClusterId);
    }
    if (++restarts > kMaxDiscoverRestarts) return static_cast<int>(E_NO_SERVER);
    PaxosInit();
    retry->reset();
    return 0;
  });
  trace(4, "discover() returned  seq %d %s", seq, stateText(4, committed).c_str());
  return rc;
}

void updateClientCache(int seq, const CommittedState& committed, unsigned long long clusterId) {
  auto it = committed.fileList.find(kNodesFileId);
  if (it == committed.fileList.end() || it->second.version == -1) return;
  int v = it->second.version, cv = committed.cfgVersion;
  if (cv > cfgVersion || v > nlVersion) {
    if (zelClusterId == 0) zelClusterId = clusterId;
  } else if (clusterId != 0 && zelClusterId == 0 && cv == cfgVersion && v == nlVersion) {
    zelClusterId = clusterId;
  } else {
    return;
  }
  if (storePFDToFile(seq, committed, zelClusterId) != 0 || v <= nlVersion) return;

  const FileVersion fv = it->second;
  std::string path = nodesFilePath(fv);
  if (fileExists(path)) {
    trace(5, "checkLocalNodesFile: local nodes cfg file '%s' up-to-date", path.c_str());
    return;
  }
  trace(4, "checkLocalNodesFile: cache stale; pulling %s", fv.uid.toString().c_str());
  if (!pullNodesFile(fv, path)) return;
  Nodes nodes;
  if (readNodeList(path, &nodes) == 0 && !nodes.empty()) SetNodeList(nodes, true);
}
