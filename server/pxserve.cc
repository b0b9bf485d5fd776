// The store side of the peer messages: decode, ask the local disk, encode.
#include "server/pxserve.h"

#include <poll.h>

#include <vector>

#include "platform/pfile.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelxfer.h"

namespace zeld {

namespace {

void refuse(int code, int* replyType, std::string* reply) {
  *replyType = MSG_TYPE_FAILED;
  *reply = PxFailedBody(code);
}

// The disk's slots as sent to a reader at seq; false when the disk handed back
// a wrong count.
bool toWire(const std::vector<SlotBlock>& in, int seq, PxSlots* out) {
  if (in.size() != static_cast<size_t>(kPxSlots)) return false;
  for (size_t i = 0; i < in.size(); i++) {
    (*out)[i].present = in[i].present;
    if (in[i].present) (*out)[i].block = in[i].block;
  }
  PxOmitStates(out, seq);
  return true;
}

void answerSlots(int rc, const std::vector<SlotBlock>& slots, int seq, int okType, int* replyType,
                 std::string* reply) {
  PxSlots wire;
  if (rc != 0) return refuse(rc, replyType, reply);
  if (!toWire(slots, seq, &wire)) {
    trace(1, "block store returned %d slots", static_cast<int>(slots.size()));
    return refuse(E_INTERNAL, replyType, reply);
  }
  *replyType = okType;
  *reply = PxEncode(wire);
}

int send(Connection* conn, int type, const std::string& body) {
  return conn->send(type, body.empty() ? nullptr : body.data(), static_cast<int>(body.size()));
}

// Receives the writer's answer to "reply_pxrdwr_fxfer": the file into path.
// 0 with the file in place; a code to refuse the write with (*fatal clear); or,
// with *fatal set, a transfer error after which the stream cannot be trusted.
int receiveInputFile(Connection* conn, const FileUpdate& fu, const std::string& path, bool* fatal) {
  *fatal = true;
  int type = 0, len = 0;
  char* body = nullptr;
  int rc = conn->receive(&type, &body, &len);
  if (rc != 0) return rc;
  PxFileSize size;
  int code = 0;
  bool ok = false;
  if (type == MSG_TYPE_OK) {
    ok = PxDecode(&size, body, len);
  } else if (type == MSG_TYPE_FAILED) {
    const char* e = LoadVarUInt(body, body + len, &code, -1);
    ok = e != nullptr && e == body + len;
  }
  delete[] body;
  if (!ok) {
    trace(1, "pxrdwr: writer answered msg %d '%s' to the file request", type, msgName(type));
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  *fatal = false;
  if (type == MSG_TYPE_FAILED) return code == 0 ? E_XFER_FAILED : code;
  unsigned int crc = 0;
  bool localErr = false;
  rc = receiveFile(conn, path, size.size, false, &crc, &localErr, true);
  if (rc == E_XFER_FAILED && !localErr) return E_XFER_FAILED;  // bad CRC, stream intact
  if (rc != 0) {
    *fatal = true;
    return rc;
  }
  if (crc != fu.crc) {
    trace(1, "pxrdwr: file '%s' has crc 0x%x, the input names 0x%x", fu.name.c_str(), crc, fu.crc);
    PlatUnlink(path.c_str());
    return E_XFER_FAILED;
  }
  return 0;
}

// Whether the writer has closed its end: its process may have died and come
// back, and a block from its earlier life must not land after its new life
// read the disks. (A request already being written is not taken back.)
bool writerGone(Connection* conn) {
  if (conn == nullptr || conn->getSock() < 0) return false;
  struct pollfd p = {conn->getSock(), POLLRDHUP, 0};
  return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

// The reply to a decoded "pxwrite" or "pxrdwr".
void answerWrite(int type, const PxWriteRequest& w, Disk* disk, int* replyType,
                 std::string* reply) {
  std::vector<SlotBlock> slots;
  trace(6, "%s from node %d slot %d seq %d", msgName(type), w.writerId, w.slot, w.block.seq);
  int rc = disk->writeRead(w.writerId, w.slot, w.block, &slots);
  if (type == MSG_TYPE_PXRDWR)
    return answerSlots(rc, slots, w.block.seq, REPLY_TYPE_PXRDWR, replyType, reply);
  if (rc != 0) return refuse(rc, replyType, reply);
  *replyType = REPLY_TYPE_PXWRITE;
  reply->clear();
}

}  // namespace

bool PxNeedsFile(const ProposedUpdate& u, const PxFiles& files) {
  if (u.getFileUpdate() == nullptr) return false;
  return !files.holds || !files.holds(u);
}

void AnswerPx(int type, const char* body, int len, Disk* disk, int* replyType, std::string* reply) {
  if (type == MSG_TYPE_PXREAD) {
    PxReadRequest r;
    if (!PxDecode(&r, body, len)) return refuse(E_BAD_MESSAGE, replyType, reply);
    trace(6, "pxread from node %d at seq %d", r.readerId, r.seq);
    std::vector<SlotBlock> slots;
    return answerSlots(disk->read(&slots), slots, r.seq, REPLY_TYPE_PXREAD, replyType, reply);
  }
  if (type != MSG_TYPE_PXWRITE && type != MSG_TYPE_PXRDWR)
    return refuse(E_UNKNOWN_REQUEST, replyType, reply);
  PxWriteRequest w;
  if (!PxDecode(&w, body, len)) return refuse(E_BAD_MESSAGE, replyType, reply);
  answerWrite(type, w, disk, replyType, reply);
}

int ServePx(Connection* conn, int type, const char* body, int len, Disk* disk,
            const PxFiles& files) {
  int replyType = MSG_TYPE_FAILED;
  std::string reply;
  PxWriteRequest w;
  bool isWrite = type == MSG_TYPE_PXWRITE || type == MSG_TYPE_PXRDWR;
  if (!isWrite || !PxDecode(&w, body, len)) {
    AnswerPx(type, body, len, disk, &replyType, &reply);
    return send(conn, replyType, reply);
  }
  if (PxNeedsFile(w.block.inp, files)) {
    const FileUpdate& fu = *w.block.inp.getFileUpdate();
    std::string path = files.stagingPath ? files.stagingPath(w.block.inp) : std::string();
    if (type == MSG_TYPE_PXWRITE || path.empty()) {
      trace(3, "%s: file '%s' of %s not held", msgName(type), fu.name.c_str(),
            w.block.inp.uid.toString().c_str());
      return send(conn, MSG_TYPE_FAILED, PxFailedBody(E_XFER_FAILED));
    }
    PxFileRequest want{fu.name, fu.fileId, w.block.inp.version, w.block.inp.uid};
    int rc = send(conn, REPLY_TYPE_PXRDWR_FXFER, PxEncode(want));
    if (rc != 0) return rc;
    bool fatal = false;
    rc = receiveInputFile(conn, fu, path, &fatal);
    if (fatal) return rc;
    if (rc != 0) return send(conn, MSG_TYPE_FAILED, PxFailedBody(rc));
  }
  if (writerGone(conn)) {
    trace(2, "%s from node %d dropped: its connection is closed", msgName(type), w.writerId);
    return E_CONN_SHUTDOWN;
  }
  answerWrite(type, w, disk, &replyType, &reply);
  return send(conn, replyType, reply);
}

}  // namespace zeld
