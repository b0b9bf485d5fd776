// Decoding of repository replies.
#include <utility>

#include "zel/paxosclient.h"
#include "zel/paxosclient_int.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

ClientCacheFn cacheFn = updateClientCache;

const char* loadByte(const char* p, const char* end, bool* out) {
  if (p == nullptr || p >= end) return nullptr;
  *out = *p != 0;
  return p + 1;
}

// Decodes body as a reply of type into *d and sets *err to the error it
// carries. False unless the body decodes exactly to its end.
bool decodeReply(int type, const char* p, const char* end, ZelReplyResult* d, int* err) {
  *err = 0;
  switch (type) {
    case REPLY_TYPE_SEQ_COMMIT:
      p = LoadVarUInt(p, end, &d->seq, 0);
      p = d->committed.load(p, end);
      break;
    case REPLY_TYPE_SEQ_COMMIT_ERROR:
      p = LoadVarUInt(p, end, err, -1);
      p = LoadVarUInt(p, end, &d->seq, 0);
      p = d->committed.load(p, end);
      break;
    case REPLY_TYPE_SEQ_COMMIT_FGET:
      p = LoadVarUInt(p, end, &d->seq, 0);
      p = d->committed.load(p, end);
      p = LoadVarUInt(p, end, &d->fileId, 0);
      p = LoadVarUInt(p, end, &d->fileSize, 0);
      break;
    case REPLY_TYPE_SEQ_COMMIT_FLIST:
      p = LoadVarUInt(p, end, &d->seq, 0);
      p = d->committed.load(p, end);
      p = d->fileIdMap.load(p, end);
      break;
    case REPLY_TYPE_UID:
      p = d->uid.load(p, end);
      break;
    case REPLY_TYPE_UID_FPUT:
      p = d->uid.load(p, end);
      p = loadByte(p, end, &d->needFile);
      break;
    case REPLY_TYPE_FAILED_NODE_VER:
      p = LoadVarUInt(p, end, err, -1);
      p = LoadVarUInt(p, end, &d->serverNlVersion, -1);
      break;
    case REPLY_TYPE_DISCOVER:
      p = LoadVarUInt(p, end, &d->seq, 0);
      p = d->committed.load(p, end);
      p = loadByte(p, end, &d->storeState);
      p = LoadVarUInt(p, end, &d->nodesFileSize, 0);
      break;
    default:
      return false;
  }
  return p != nullptr && p == end;
}

bool isRepositoryReply(int type) {
  return (type >= REPLY_TYPE_SEQ_COMMIT && type <= REPLY_TYPE_UID_FPUT) ||
         type == REPLY_TYPE_FAILED_NODE_VER || type == REPLY_TYPE_DISCOVER;
}

}  // namespace

void queueCacheUpdate(ClientRetry* retry, const ZelReplyResult& r, const Connection* conn) {
  retry->cacheUpdates.push_back(ClientCacheUpdate{r.seq, r.committed, conn->getClusterId()});
}

void flushCacheUpdates(ClientRetry* retry) {
  std::vector<ClientCacheUpdate> updates;
  updates.swap(retry->cacheUpdates);
  for (const ClientCacheUpdate& u : updates) cacheFn(u.seq, u.committed, u.clusterId);
}

ClientCacheFn SetClientCacheFnForTest(ClientCacheFn fn) {
  ClientCacheFn old = cacheFn;
  cacheFn = fn != nullptr ? fn : updateClientCache;
  return old;
}

int ReceiveZELReply(Connection* conn, ClientRetry* retry, ZelReplyResult* result) {
  int type = -1;
  MsgBody body;
  int rc = ReceiveErrCheck(conn, &type, &body);
  result->type = type;
  if (rc != 0) {
    if (rc >= E_ZEL_NOT_FOUND && rc <= E_ZEL_INVALID_VERSION && retry != nullptr) {
      retry->active = false;
    }
    return rc;
  }
  if (!isRepositoryReply(type)) {
    // Replies 56 to 60 (and anything else) never answer a client request; a
    // server must not be able to stop the client with one.
    if (zelDebugAsserts) {
      std::string what = assert_msg("unexpected reply type %d", type);
      assert_failed(__FILE__, __LINE__, what.c_str());
    }
    trace(1, "ReceiveZELReply: unexpected reply type %d '%s'", type, msgName(type));
    conn->setBroken();
    return E_BAD_MESSAGE;
  }

  ZelReplyResult d;
  d.type = type;
  int err = 0;
  bool ok = decodeReply(type, body.data(), body.end(), &d, &err);
  if (!ok) {
    trace(4, "ReceiveZELReply: malformed '%s' body (len %d)", msgName(type), body.size());
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  *result = std::move(d);

  switch (type) {
    case REPLY_TYPE_SEQ_COMMIT:
    case REPLY_TYPE_SEQ_COMMIT_ERROR:
    case REPLY_TYPE_SEQ_COMMIT_FLIST:
      if (retry == nullptr) break;
      queueCacheUpdate(retry, *result, conn);
      if (err == E_TRY_OTHERS) {
        // Keep going round the servers, but only this round.
        retry->firstError = E_TRY_OTHERS;
        retry->stopAfterRound = true;
      } else {
        retry->active = false;
      }
      break;
    case REPLY_TYPE_FAILED_NODE_VER:
      trace(4, "ReceiveZELReply: nlVersion: mine %d received %d", nlVersion,
            result->serverNlVersion);
      break;
    default:
      break;
  }
  return err;
}
