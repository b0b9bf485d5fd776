// Reads: values, the file list, files, the node list for discovery, and file
// transfers between nodes.

#include "platform/pfile.h"
#include "server/globals.h"
#include "server/service.h"
#include "zel/paxosutils.h"
#include "zel/xferpipe.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelutils.h"
#include "zel/zelxfer.h"

namespace zeld {

namespace {

std::string varUInt(long long v, int bias) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, v, bias));
}

// An open committed copy, closed on scope exit.
struct OpenFile {
  int fd = -1;
  long long size = 0;
  unsigned int crc = 0;
  ~OpenFile() {
    if (fd >= 0) PlatClose(fd);
  }
};

// The copy of fileId that the latest state names, with that state. A newer
// version may be applied between snapshot and open (the previous one is kept,
// but two in a row are not), so a few fresh snapshots are tried.
int openCurrent(Globals& g, int fileId, int* seq, StateRef* s, OpenFile* f) {
  int rc = ENOENT;
  for (int attempt = 0; attempt < 3 && rc == ENOENT; attempt++) {
    rc = g.repo().snapshot(seq, s);
    if (rc != 0) return rc;
    auto it = (*s)->fileList.find(fileId);
    if (it == (*s)->fileList.end()) return E_ZEL_NOT_FOUND;
    rc = g.files().openVersion(fileId, it->second.version, it->second.uid, &f->fd, &f->size,
                               &f->crc);
  }
  return rc;
}

}  // namespace

bool Service::sendFileFd(ServerConnection& c, int fd, long long size, unsigned int crc) {
  // A copy no longer in the page cache (written direct) is read direct too:
  // filling fresh pages would cost more than the disk.
  ReadAhead in;
  if (in.start(fd, size, kXferChunkBytes) != 0) {
    trace(0, "no buffer to send a committed file of %lld bytes", size);
    c.setBroken();
    return false;
  }
  long long off = 0;
  while (off < size) {
    const char* data = nullptr;
    size_t got = 0;
    int rc = in.next(&data, &got);
    if (rc != 0) {
      // The copy shrank or cannot be read: the client must not take what it got.
      trace(0, "reading a committed file failed at %lld of %lld (err %d)", off, size, rc);
      c.setBroken();
      return false;
    }
    if (c.send(MSG_TYPE_FDATA, data, static_cast<int>(got)) != 0) return false;
    off += static_cast<long long>(got);
  }
  char b[4];
  DumpUInt32(b, crc);
  return c.send(MSG_TYPE_FCRC, b, 4) == 0;
}

bool Service::vget(Req& r) {
  int seq = 0;
  StateRef s;
  int rc = g_.repo().barrier(&seq, &s);
  if (rc != 0) return refuse(r.c, rc);
  return sendState(r.c, REPLY_TYPE_SEQ_COMMIT, seq, s);
}

bool Service::fget(Req& r) {
  int seq = 0;
  StateRef s;
  int rc = g_.repo().barrier(&seq, &s);
  if (rc != 0) return refuse(r.c, rc);
  if (r.p == r.end && r.type == MSG_TYPE_FGET) {
    // Names of the files the state holds; deleted names stay out of the listing.
    FileIdMap all = g_.files().idMap(), m;
    for (const auto& [id, fv] : s->fileList) {
      auto it = all.find(id);
      if (it != all.end()) m[id] = it->second;
    }
    std::string tail(static_cast<size_t>(m.getSize()), '\0');
    m.dump(&tail[0]);
    return sendState(r.c, REPLY_TYPE_SEQ_COMMIT_FLIST, seq, s, tail);
  }
  std::string name;
  int version = -1;
  const char* p = LoadString(r.p, r.end, &name);
  p = LoadVarUInt(p, r.end, &version, -1);
  if (p == nullptr || p != r.end || !ValidFileName(name)) return sendFailed(r.c, E_INVAL);
  // Private files only travel over connections that may need authentication.
  if (isFilePrivate(name) && r.type != MSG_TYPE_FGET_PRIV) return sendFailed(r.c, EACCES);
  int fileId = g_.files().lookup(name);
  if (fileId < 0) {
    // A node still fetching what it skipped may not know the name yet.
    if (g_.repo().lacksFiles(*s)) return refuse(r.c, E_TRY_OTHERS);
    return sendFailed(r.c, E_ZEL_NOT_FOUND);
  }
  OpenFile f;
  rc = openCurrent(g_, fileId, &seq, &s, &f);
  if (rc == E_ZEL_NOT_FOUND) return sendFailed(r.c, rc);
  if (rc != 0) {
    // Not fetched from the other nodes yet (this node caught up): they serve it.
    trace(1, "fget '%s': no committed copy here (err %d)", name.c_str(), rc);
    return rc == ENOENT ? refuse(r.c, E_TRY_OTHERS) : sendFailed(r.c, E_IO);
  }
  auto cur = s->fileList.find(fileId);  // present: openCurrent found it in s
  if (version != -1 && cur != s->fileList.end() && version == cur->second.version) {
    return sendFailed(r.c, E_ZEL_VERSION_MATCH);
  }
  std::string tail = varUInt(fileId, 0) + varUInt(f.size, 0);
  if (!sendState(r.c, REPLY_TYPE_SEQ_COMMIT_FGET, seq, s, tail)) return false;
  return sendFileFd(r.c, f.fd, f.size, f.crc);
}

bool Service::discover(Req& r) {
  int version = 0;
  const char* p = LoadVarUInt(r.p, r.end, &version, -1);
  if (p == nullptr || p != r.end) return sendFailed(r.c, E_INVAL);
  int seq = 0;
  StateRef s;
  OpenFile f;
  int rc = openCurrent(g_, kNodesFileId, &seq, &s, &f);
  if (rc == E_ZEL_NOT_FOUND) return sendFailed(r.c, E_NODES_MISSING);
  if (rc == ENOENT) return refuse(r.c, E_TRY_OTHERS);
  if (rc != 0) return sendFailed(r.c, rc);
  // Always a full answer: the client stores the state and the node list.
  std::string tail = std::string(1, '\1') + varUInt(f.size, 0);
  if (!sendState(r.c, REPLY_TYPE_DISCOVER, seq, s, tail)) return false;
  return sendFileFd(r.c, f.fd, f.size, f.crc);
}

bool Service::fxfer(Req& r) {
  std::string name;
  int fileId = 0, version = 0;
  UpdateId uid;
  const char* p = LoadString(r.p, r.end, &name);
  p = LoadVarUInt(p, r.end, &fileId, 0);
  p = LoadVarUInt(p, r.end, &version, -1);
  p = uid.load(p, r.end);
  if (p == nullptr || p != r.end) return sendFailed(r.c, E_INVAL);
  if (!g_.repo().ready()) return sendFailed(r.c, E_NOT_SERVER);
  OpenFile f;
  int rc = g_.files().openVersion(fileId, version, uid, &f.fd, &f.size, &f.crc);
  if (rc != 0) return sendFailed(r.c, rc);
  std::string b = varUInt(f.size, 0);
  if (r.c.send(MSG_TYPE_OK, b.data(), static_cast<int>(b.size())) != 0) return false;
  return sendFileFd(r.c, f.fd, f.size, f.crc);
}

}  // namespace zeld
