#include "server/remotedisk.h"

#include <sys/stat.h>

#include <climits>

#include "platform/pfile.h"
#include "zel/kxconnect.h"
#include "zel/paxosutils.h"
#include "zel/pxwire.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelxfer.h"

namespace zeld {

namespace {

// Files travel with an int size (up to 2 GiB).
int fileSize(const std::string& path, int* size) {
  struct stat st;
  if (PlatStat(path.c_str(), &st) != 0) return E_XFER_FAILED;
  if (!S_ISREG(st.st_mode) || st.st_size > INT_MAX) return E_XFER_FAILED;
  *size = static_cast<int>(st.st_size);
  return 0;
}

}  // namespace

RemoteDisk::RemoteDisk(int selfId, int peerId, const CommAddr& addr, PxFileSourceFn files,
                       const Options& opt)
    : RemoteDisk(
          selfId, peerId,
          [addr](CommAddr* out) {
            *out = addr;
            return 0;
          },
          std::move(files), opt) {}

RemoteDisk::RemoteDisk(int selfId, int peerId, AddrFn addr, PxFileSourceFn files,
                       const Options& opt)
    : selfId_(selfId),
      peerId_(peerId),
      addr_(std::move(addr)),
      files_(std::move(files)),
      opt_(opt) {}

RemoteDisk::~RemoteDisk() {
  drop();
}

void RemoteDisk::drop() {
  delete conn_;
  conn_ = nullptr;
}

int RemoteDisk::readFor(int seq, std::vector<SlotBlock>* out) {
  return exchange(MSG_TYPE_PXREAD, PxEncode(PxReadRequest{selfId_, seq < 0 ? 0 : seq}), nullptr,
                  out);
}

int RemoteDisk::writeRead(int writerId, int slot, const SharedBlock& b,
                          std::vector<SlotBlock>* out) {
  out->clear();
  if (slot < 0 || slot >= kPxSlots || writerId < 0) return E_INVAL;
  PxWriteRequest w;
  w.writerId = writerId;
  w.slot = slot;
  w.block = b;
  return exchange(MSG_TYPE_PXRDWR, PxEncode(w), &b.inp, out);
}

int RemoteDisk::exchange(int type, const std::string& body, const ProposedUpdate* inp,
                         std::vector<SlotBlock>* out) {
  std::lock_guard<std::mutex> g(mu_);
  out->clear();
  bool kept = conn_ != nullptr;
  bool replied = false;
  int rc = exchangeOnce(type, body, inp, out, &replied);
  // A kept connection may have been closed by the store since (a restart): one
  // fresh attempt. Writing the same block twice is harmless.
  if (rc != 0 && kept && !replied && conn_ == nullptr) {
    trace(4, "%s: kept connection failed (err %d), reconnecting", label().c_str(), rc);
    rc = exchangeOnce(type, body, inp, out, &replied);
  }
  if (rc != 0) out->clear();
  return rc;
}

int RemoteDisk::exchangeOnce(int type, const std::string& body, const ProposedUpdate* inp,
                             std::vector<SlotBlock>* out, bool* replied) {
  *replied = false;
  if (conn_ == nullptr) {
    CommAddr addr;
    int rc = addr_(&addr);
    if (rc != 0) {
      trace(3, "%s: no address (err %d)", label().c_str(), rc);
      return rc;
    }
    rc = connectTo(addr, &conn_, opt_.connectTimeoutMs);
    if (rc != 0) {
      conn_ = nullptr;
      trace(3, "%s: connect to %s failed (err %d)", label().c_str(), addr.toString().c_str(), rc);
      return rc;
    }
    conn_->setTimeouts(opt_.ioTimeoutMs, opt_.ioTimeoutMs);
  }
  int rc = conn_->send(type, body.data(), static_cast<int>(body.size()));
  int rtype = 0, len = 0;
  char* reply = nullptr;
  if (rc == 0) rc = conn_->receive(&rtype, &reply, &len);
  if (rc == 0) *replied = true;
  if (rc == 0 && rtype == REPLY_TYPE_PXRDWR_FXFER && type == MSG_TYPE_PXRDWR) {
    rc = sendInputFile(inp, reply, len);
    delete[] reply;
    reply = nullptr;
    if (rc == 0) rc = conn_->receive(&rtype, &reply, &len);
  }
  if (rc == 0) {
    int want = type == MSG_TYPE_PXREAD ? REPLY_TYPE_PXREAD : REPLY_TYPE_PXRDWR;
    PxSlots slots;
    if (rtype == MSG_TYPE_FAILED) {
      const char* e = LoadVarUInt(reply, reply + len, &rc, -1);
      if (e == nullptr || e != reply + len || rc == 0) rc = E_BAD_MESSAGE;
    } else if (rtype != want || !PxDecode(&slots, reply, len)) {
      rc = E_BAD_MESSAGE;
    } else {
      for (const PxSlot& s : slots) out->push_back(SlotBlock{s.present, s.block, s.headOnly});
    }
    if (rc == E_BAD_MESSAGE) {
      trace(1, "%s: bad reply msg %d '%s' len %d to '%s'", label().c_str(), rtype, msgName(rtype),
            len, msgName(type));
      conn_->setBroken();
    }
  }
  delete[] reply;
  if (conn_ != nullptr && conn_->isBroken()) drop();
  return rc;
}

// Answers the store's request for the content of the block's input as a node
// answers "fxfer". A request that does not name that input is a protocol error.
int RemoteDisk::sendInputFile(const ProposedUpdate* inp, const char* body, int len) {
  PxFileRequest req;
  const FileUpdate* fu = inp ? inp->getFileUpdate() : nullptr;
  if (!PxDecode(&req, body, len) || fu == nullptr || req.fileId != fu->fileId ||
      req.version != inp->version || req.uid != inp->uid) {
    trace(1, "%s: file request does not name the block's input", label().c_str());
    conn_->setBroken();
    return E_BAD_MESSAGE;
  }
  std::string path;
  int size = 0;
  int rc = files_ ? files_(*inp, &path) : E_XFER_FAILED;
  if (rc == 0) rc = fileSize(path, &size);
  if (rc != 0) {
    trace(3, "%s: cannot send file '%s' of %s (err %d)", label().c_str(), fu->name.c_str(),
          inp->uid.toString().c_str(), rc);
    std::string f = PxFailedBody(rc);
    return conn_->send(MSG_TYPE_FAILED, f.data(), static_cast<int>(f.size()));
  }
  std::string ok = PxEncode(PxFileSize{size});
  rc = conn_->send(MSG_TYPE_OK, ok.data(), static_cast<int>(ok.size()));
  if (rc == 0) rc = sendFile(conn_, path, size);
  // A file that went short or cannot be read leaves the stream unusable.
  if (rc != 0) conn_->setBroken();
  return rc;
}

}  // namespace zeld
