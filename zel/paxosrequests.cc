// Read requests: the committed state with its values, the file list, and one file.
#include <string>
#include <utility>

#include "zel/paxosclient.h"
#include "zel/paxosclient_int.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"
#include "zel/zelxfer.h"

namespace {

// A reply that decoded but is not the one the request waits for.
int unexpectedReply(Connection* conn, const char* what, int type) {
  trace(1, "%s: unexpected reply %d '%s'", what, type, msgName(type));
  conn->setBroken();
  return E_BAD_MESSAGE;
}

}  // namespace

int PaxosValueGet(int* seq, CommittedState* committed) {
  trace(4, "VGET()");
  int rc = PaxosRequest("vget", [&](Connection* conn, ClientRetry* retry) {
    int err = conn->send(MSG_TYPE_VGET, nullptr, 0);
    if (err != 0) return err;
    ZelReplyResult r;
    err = ReceiveZELReply(conn, retry, &r);
    if (err != 0) return err;
    if (r.type != REPLY_TYPE_SEQ_COMMIT) return unexpectedReply(conn, "vget", r.type);
    *seq = r.seq;
    *committed = std::move(r.committed);
    return 0;
  });
  trace(4, "vget() returned %d %s", *seq, stateText(4, *committed).c_str());
  return rc;
}

int PaxosFileList(int* seq, CommittedState* committed, FileIdMap* fileIdMap) {
  trace(4, "FLIST()");
  // A file get without a name asks for the list.
  int rc = PaxosRequest("flist", [&](Connection* conn, ClientRetry* retry) {
    int err = conn->send(MSG_TYPE_FGET, nullptr, 0);
    if (err != 0) return err;
    ZelReplyResult r;
    err = ReceiveZELReply(conn, retry, &r);
    if (err != 0) return err;
    if (r.type != REPLY_TYPE_SEQ_COMMIT_FLIST) return unexpectedReply(conn, "flist", r.type);
    *seq = r.seq;
    *committed = std::move(r.committed);
    *fileIdMap = std::move(r.fileIdMap);
    return 0;
  });
  trace(4, "flist() returned %d %s", *seq, stateText(4, *committed).c_str());
  return rc;
}

int PaxosFileGet(const std::string& name, const std::string& localPath, int* seq,
                 CommittedState* committed, int* fileId, int version) {
  trace(4, "FGET('%s', '%s')", name.c_str(), localPath.c_str());
  const bool priv = isFilePrivate(name);
  int rc = PaxosRequest("fget", [&](Connection* conn, ClientRetry* retry) {
    int len = static_cast<int>(name.size()) + 1 + SizeVarUInt(version, -1);
    std::string body(len, '\0');
    char* p = DumpString(&body[0], name);
    p = DumpVarUInt(p, version, -1);
    ZASSERT_T(p - body.data() == len, "bufP - msgP == len");
    int err = conn->send(priv ? MSG_TYPE_FGET_PRIV : MSG_TYPE_FGET, body.data(), len);
    if (err != 0) return err;
    ZelReplyResult r;
    err = ReceiveZELReply(conn, retry, &r);
    if (err != 0) return err;
    if (r.type != REPLY_TYPE_SEQ_COMMIT_FGET) return unexpectedReply(conn, "fget", r.type);
    trace(4, "Receive '%s' and store it under: '%s' (%d)", name.c_str(), localPath.c_str(),
          r.fileSize);
    unsigned int crc = 0;
    bool giveUp = false;
    err = receiveFile(conn, localPath, r.fileSize, priv, &crc, &giveUp, false);
    if (err != 0) {
      // The rest of the transfer may still be on its way.
      conn->setBroken();
      if (giveUp) retry->active = false;
      return err;
    }
    queueCacheUpdate(retry, r, conn);
    retry->active = false;
    *seq = r.seq;
    *fileId = r.fileId;
    *committed = std::move(r.committed);
    return 0;
  });
  trace(4, "fget() returned fid %d seq %d %s", *fileId, *seq, stateText(4, *committed).c_str());
  return rc;
}
