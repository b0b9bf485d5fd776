// Update requests and the configuration change: each keeps one update id across
// all its attempts, so that a retry on another server never applies it twice.
#include <sstream>
#include <string>
#include <utility>

#include "zel/paxosclient.h"
#include "zel/paxosclient_int.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelxfer.h"

namespace {

// More "uid" replies than this in one exchange is a server gone wrong.
constexpr int kMaxUidReplies = 16;

// A reply the exchange does not allow: an assertion with the debug switch on,
// else the connection is dropped with 818.
int badReply(Connection* conn, const char* cond, int type) {
  if (zelDebugAsserts) assert_failed(__FILE__, __LINE__, cond, "unexpected reply %d", type);
  trace(1, "doUpdateRequest: unexpected reply %d '%s'", type, msgName(type));
  conn->setBroken();
  return E_BAD_MESSAGE;
}

// The update id, then the fields that appendFields writes (of size bytes).
template <typename Fn>
std::string buildBody(const UpdateId& uid, int size, Fn appendFields) {
  int len = uid.getSize() + size;
  std::string body(len, '\0');
  char* p = uid.dump(&body[0]);
  p = appendFields(p);
  ZASSERT_T(p - body.data() == len, "bufP - msgP == len");
  return body;
}

int strSize(const std::string& s) {
  return static_cast<int>(s.size()) + 1;
}

// Runs the request loop for one update of type mt whose body builder is given
// the current update id.
template <typename Fn>
int runUpdate(const char* name, int mt, int* seq, CommittedState* committed,
              const std::string& localPath, long long fileSize, Fn makeBody) {
  UpdateId uid;
  return PaxosRequest(name, [&](Connection* conn, ClientRetry* retry) {
    std::string body = makeBody(uid);
    return doUpdateRequest(conn, mt, body.data(), static_cast<int>(body.size()), &uid, retry, seq,
                           committed, localPath, fileSize);
  });
}

}  // namespace

int doUpdateRequest(Connection* conn, int mt, const char* body, int len, UpdateId* uid,
                    ClientRetry* retry, int* seq, CommittedState* committed,
                    const std::string& localPath, long long fileSize) {
  const bool uidWasZero = uid->isNull();
  int rc = conn->send(mt, body, len);
  if (rc != 0) return rc;
  ZelReplyResult r;
  rc = ReceiveZELReply(conn, retry, &r);
  if (rc != 0) return rc;
  for (int n = 0; r.type == REPLY_TYPE_UID || r.type == REPLY_TYPE_UID_FPUT; n++) {
    if ((!uidWasZero && mt != MSG_TYPE_FPUT) || n == kMaxUidReplies) {
      return badReply(conn, "uidWasZero || mt == MSG_TYPE_FPUT", r.type);
    }
    *uid = r.uid;
    trace(4, "doUpdateRequest: rmt %d uid %s needFile %d", r.type, uid->toString().c_str(),
          r.needFile ? 1 : 0);
    if (r.type == REPLY_TYPE_UID_FPUT && r.needFile) {
      bool localErr = false;
      rc = sendFile(conn, localPath, fileSize, &localErr);
      if (rc != 0) {
        if (localErr) retry->active = false;
        return rc;
      }
    }
    rc = conn->send(MSG_TYPE_OK, nullptr, 0);
    if (rc != 0) return rc;
    rc = ReceiveZELReply(conn, retry, &r);
    if (rc != 0) return rc;
  }
  if (r.type != REPLY_TYPE_SEQ_COMMIT) {
    return badReply(conn, "rmt == REPLY_TYPE_SEQ_COMMIT", r.type);
  }
  *seq = r.seq;
  *committed = std::move(r.committed);
  return 0;
}

int PaxosValuePut(const std::string& name, const std::string& value, int* seq,
                  CommittedState* committed, int condVersion, int newVersion) {
  trace(4, "VPUT('%s', '%s', %d, %d)", name.c_str(), value.c_str(), condVersion, newVersion);
  int size =
      strSize(name) + strSize(value) + SizeVarUInt(condVersion, -1) + SizeVarUInt(newVersion, -1);
  int rc = runUpdate("vput", MSG_TYPE_VPUT, seq, committed, "", 0, [&](const UpdateId& uid) {
    return buildBody(uid, size, [&](char* p) {
      p = DumpString(p, name);
      p = DumpString(p, value);
      p = DumpVarUInt(p, condVersion, -1);
      return DumpVarUInt(p, newVersion, -1);
    });
  });
  trace(4, "VPUT returned %d %s", *seq, stateText(4, *committed).c_str());
  return rc;
}

namespace {

// "vdel" and "fdel" carry the same body: update id, name, condition version.
int deleteRequest(const char* req, const char* label, int mt, const std::string& name, int* seq,
                  CommittedState* committed, int condVersion) {
  trace(4, "%s('%s', %d)", label, name.c_str(), condVersion);
  int size = strSize(name) + SizeVarUInt(condVersion, -1);
  int rc = runUpdate(req, mt, seq, committed, "", 0, [&](const UpdateId& uid) {
    return buildBody(uid, size, [&](char* p) {
      p = DumpString(p, name);
      return DumpVarUInt(p, condVersion, -1);
    });
  });
  trace(4, "%s returned %d %s", label, *seq, stateText(4, *committed).c_str());
  return rc;
}

}  // namespace

int PaxosValueDel(const std::string& name, int* seq, CommittedState* committed, int condVersion) {
  return deleteRequest("vdel", "VDEL", MSG_TYPE_VDEL, name, seq, committed, condVersion);
}

int PaxosFilePut(const std::string& name, const std::string& localPath, int* seq,
                 CommittedState* committed, int condVersion, int newVersion) {
  trace(4, "FPUT('%s', '%s')", name.c_str(), localPath.c_str());
  long long fileSize = -1;
  int rc = getFileSize(localPath, &fileSize);
  if (rc != 0) {
    trace(4, "FPUT: get file size of '%s' failed: err %d", localPath.c_str(), rc);
    SetErrorCause("cannot read '%s': %s", localPath.c_str(), errcodeToString(rc));
    return rc;
  }
  if (fileSize > kMaxXferFileBytes) {
    // Refused before anything is sent: the request cannot announce the size.
    SetErrorCause("'%s' is too large to store (%lld bytes; at most %lld)", localPath.c_str(),
                  fileSize, kMaxXferFileBytes);
    return E_FBIG;
  }
  int size = strSize(name) + SizeVarUInt(fileSize, -1) + SizeVarUInt(condVersion, -1) +
             SizeVarUInt(newVersion, -1);
  rc = runUpdate("fput", MSG_TYPE_FPUT, seq, committed, localPath, fileSize,
                 [&](const UpdateId& uid) {
                   return buildBody(uid, size, [&](char* p) {
                     p = DumpString(p, name);
                     p = DumpVarUInt(p, fileSize, -1);
                     p = DumpVarUInt(p, condVersion, -1);
                     return DumpVarUInt(p, newVersion, -1);
                   });
                 });
  trace(4, "FPUT returned %d %s", *seq, stateText(4, *committed).c_str());
  return rc;
}

int PaxosFileDel(const std::string& name, int* seq, CommittedState* committed, int condVersion) {
  return deleteRequest("fdel", "FDEL", MSG_TYPE_FDEL, name, seq, committed, condVersion);
}

int PaxosSetConfig(const NodeList* nodes, const DiskList* disks, int minNodes, int condVersion,
                   int* seq, CommittedState* committed) {
  std::ostringstream nl, dl;
  if (nodes != nullptr) nl << *nodes;
  if (disks != nullptr) dl << *disks;
  trace(4, "CONFIG(%s, %s, %d)", nodes != nullptr ? nl.str().c_str() : "NULL",
        disks != nullptr ? dl.str().c_str() : "NULL", minNodes);
  ConfigUpdate cu;
  if (nodes != nullptr) cu.nodes = *nodes;
  if (disks != nullptr) cu.disks = *disks;
  cu.changeNodes = nodes != nullptr;
  cu.changeDisks = disks != nullptr;
  cu.minNodes = minNodes < 0 ? -1 : minNodes;  // -1 leaves the quorum size as it is
  int size = cu.getSize() + SizeVarUInt(condVersion, -1);
  int rc = runUpdate("config", MSG_TYPE_CONFIG, seq, committed, "", 0, [&](const UpdateId& uid) {
    return buildBody(uid, size, [&](char* p) {
      p = cu.dump(p);
      return DumpVarUInt(p, condVersion, -1);
    });
  });
  trace(4, "CONFIG returned %d %s", *seq, stateText(4, *committed).c_str());
  return rc;
}
