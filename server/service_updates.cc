// Updates: vput, vdel, fdel, config through one path, and fput, which receives
// its file into a staging file before anything is decided.
#include <fcntl.h>
#include <stdio.h>

#include <climits>
#include <vector>

#include "platform/pfile.h"
#include "server/globals.h"
#include "server/service.h"
#include "zel/paxosutils.h"
#include "zel/xferpipe.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace zeld {

namespace {

using PrepFn = int (*)(const CommittedState&, const UpdateAsk&, ProposedUpdate*);

// Files are stored up to 2 GiB - 1: sizes travel as 32-bit signed numbers.
constexpr long long kMaxFileBytes = 0x7fffffffLL;
// Stands in for the id a new file name will get, for the check on arrival.
constexpr int kUnassignedFileId = INT_MAX - 1;

std::string uidBody(const UpdateId& uid) {
  std::string b(static_cast<size_t>(uid.getSize()), '\0');
  uid.dump(&b[0]);
  return b;
}

}  // namespace

bool Service::finishUpdate(Req& r, int rc, bool announced, bool sent, const UpdateId& uid, int seq,
                           const StateRef& s) {
  if (!sent) return false;
  if (announced) {
    // The client's "ok" to the id it was given, read after the decision.
    int type = -1, len = 0;
    char* body = nullptr;
    int rrc = r.c.receive(&type, &body, &len);
    delete[] body;
    if (rrc != 0 || type != MSG_TYPE_OK) return false;
  }
  if (rc != 0) return refuse(r.c, rc);
  if (g_.loseReply()) {
    fprintf(stderr, "zeld: test switch: losing the reply to %s\n", uid.toString().c_str());
    return false;
  }
  return sendState(r.c, REPLY_TYPE_SEQ_COMMIT, seq, s);
}

bool Service::update(Req& r) {
  UpdateAsk ask;
  int size = 0;
  if (DecodeUpdate(r.type, r.p, r.end, &ask, &size) != 0) return sendFailed(r.c, E_INVAL);
  PrepFn prep = r.type == MSG_TYPE_VPUT   ? PrepareValuePut
                : r.type == MSG_TYPE_VDEL ? PrepareValueDel
                : r.type == MSG_TYPE_FDEL ? PrepareFileDel
                                          : PrepareConfig;
  if (r.type == MSG_TYPE_FDEL) ask.fileId = g_.files().lookup(ask.name);
  return decide(r, ask, prep);
}

bool Service::decide(Req& r, UpdateAsk& ask, PrepFn prep) {
  int seq = 0;
  StateRef s;
  int rc = g_.repo().snapshot(&seq, &s);
  if (rc != 0) return sendFailed(r.c, rc);
  if (!ask.uid.isNull() && s->includes(ask.uid) != 0) {
    return sendState(r.c, REPLY_TYPE_SEQ_COMMIT, seq, s);
  }
  // Checked on arrival, before an id is issued, and again in every instance.
  ProposedUpdate u;
  rc = prep(*s, ask, &u);
  if (rc != 0) return refuse(r.c, rc);

  bool announced = false, sent = true;
  auto announce = [&](const UpdateId& uid) {
    std::string b = uidBody(uid);
    announced = true;
    sent = r.c.send(REPLY_TYPE_UID, b.data(), static_cast<int>(b.size())) == 0;
  };
  // Copied in: the engine may still run it after an 819 answer.
  auto prepare = [ask, prep](const CommittedState& st, const UpdateId& uid, ProposedUpdate* pu) {
    UpdateAsk a = ask;
    a.uid = uid;
    pu->uid = uid;  // set even on refusal: an id the state includes is answered 0
    return prep(st, a, pu);
  };
  UpdateId uid = ask.uid;
  rc = g_.repo().propose(&uid, false, announce, prepare, std::string(), &seq, &s);
  return finishUpdate(r, rc, announced, sent, uid, seq, s);
}

bool Service::fput(Req& r) {
  UpdateAsk ask;
  int size = -1;
  if (DecodeUpdate(r.type, r.p, r.end, &ask, &size) != 0 || size < 0 || size > kMaxFileBytes) {
    return sendFailed(r.c, E_INVAL);
  }
  int seq = 0;
  StateRef s;
  int rc = g_.repo().snapshot(&seq, &s);
  if (rc != 0) return sendFailed(r.c, rc);
  if (!ask.uid.isNull() && s->includes(ask.uid) != 0) {
    return sendState(r.c, REPLY_TYPE_SEQ_COMMIT, seq, s);
  }
  ask.fileId = g_.files().lookup(ask.name);
  UpdateAsk early = ask;
  if (early.fileId < 0)
    early.fileId = ask.name == kNodesFileName ? kNodesFileId : kUnassignedFileId;
  ProposedUpdate u;
  rc = PrepareFilePut(*s, early, &u);
  if (rc != 0) return refuse(r.c, rc);

  // An fput gets a stream of its own: its upload may take long, and no other
  // update may wait behind it or be shadowed by it.
  bool fresh = ask.uid.isNull();
  if (fresh) {
    rc = g_.uids().newStream(&ask.uid);
    if (rc != 0) return refuse(r.c, rc);
  }
  std::string b = uidBody(ask.uid) + std::string(1, '\1');
  if (r.c.send(REPLY_TYPE_UID_FPUT, b.data(), static_cast<int>(b.size())) != 0) return false;

  std::string staging;
  int fd = -1;
  int localErr = g_.files().createStaging(ask.uid, &staging, &fd);
  // Direct, behind the receiving: the staging file is synced before the
  // proposal anyway, and filling page-cache pages would cost more than the disk.
  WriteBehind out;
  if (localErr == 0) out.start(fd, size);
  // Receives "fdata" up to "fcrc", then the client's "ok". A failure to store
  // is answered after the transfer; a peer that breaks the exchange is dropped.
  long long got = 0;
  unsigned int crc = 0, sentCrc = 0;
  bool ended = false;
  while (!ended) {
    int type = -1, len = 0;
    char* body = nullptr;
    if (r.c.receive(&type, &body, &len) != 0) {
      delete[] body;
      break;
    }
    if (type == MSG_TYPE_FDATA && got + len <= size) {
      if (localErr == 0 && len > 0) localErr = out.write(body, static_cast<size_t>(len));
      crc = partialcrc(reinterpret_cast<unsigned char*>(body), len, crc);
      got += len;
    } else if (type == MSG_TYPE_FCRC && len >= 4) {
      LoadUInt32(body, body + len, &sentCrc);
      ended = true;
    } else {
      delete[] body;
      trace(2, "fput '%s': unexpected %s (len %d) during the transfer", ask.name.c_str(),
            msgName(type), len);
      break;
    }
    delete[] body;
  }
  if (localErr == 0 && ended) localErr = out.finish();
  out.cancel();  // before the close, whatever happened
  if (localErr == 0 && ended) localErr = PlatFsync(fd);
  if (fd >= 0) PlatClose(fd);
  int type = -1, len = 0;
  char* body = nullptr;
  if (!ended || r.c.receive(&type, &body, &len) != 0 || type != MSG_TYPE_OK) {
    delete[] body;
    PlatUnlink(staging.c_str());
    return false;
  }
  delete[] body;
  crc = finalcrc(crc, static_cast<unsigned long>(got));
  if (localErr != 0 || got != size || crc != sentCrc) {
    PlatUnlink(staging.c_str());
    if (localErr != 0) return refuse(r.c, localErr);
    trace(1, "fput '%s': %lld of %d bytes, crc 0x%x (sent 0x%x)", ask.name.c_str(), got, size, crc,
          sentCrc);
    return sendFailed(r.c, E_XFER_FAILED);
  }

  ask.crc = crc;
  rc = g_.files().idFor(ask.name, *s, &ask.fileId);
  if (rc != 0) {
    PlatUnlink(staging.c_str());
    return refuse(r.c, rc);
  }
  bool announced = false, sent = true;
  auto announce = [&](const UpdateId& uid) {
    std::string nb = uidBody(uid) + std::string(1, '\0');
    announced = true;
    sent = r.c.send(REPLY_TYPE_UID_FPUT, nb.data(), static_cast<int>(nb.size())) == 0;
  };
  // A new name's id was chosen above every id known here; another node may have
  // given that id to a file since: then take one above the state's.
  bool isNew = early.fileId == kUnassignedFileId;
  FileStore* files = &g_.files();
  auto prepare = [ask, isNew, files](const CommittedState& st, const UpdateId& uid,
                                     ProposedUpdate* pu) {
    UpdateAsk a = ask;
    a.uid = uid;
    pu->uid = uid;
    if (isNew && st.fileList.count(a.fileId) != 0) {
      a.fileId = files->nextId(st);
      if (a.fileId < 0) return static_cast<int>(ENOSPC);
    }
    return PrepareFilePut(st, a, pu);
  };
  UpdateId uid = ask.uid;
  rc = g_.repo().propose(&uid, fresh, announce, prepare, staging, &seq, &s);
  // Undecided (819) is not refused: the engine may still decide it and link the file.
  if (rc != 0 && rc != E_TRY_OTHERS) PlatUnlink(staging.c_str());
  return finishUpdate(r, rc, announced, sent, uid, seq, s);
}

}  // namespace zeld
