#include "zel/zelxfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "platform/pfile.h"
#include "platform/pfileio.h"
#include "platform/ptemp.h"
#include "zel/paxosutils.h"
#include "zel/xferpipe.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

XferProgressFn progressFn = nullptr;

void progress(long long done, long long total) {
  if (progressFn != nullptr) progressFn(done, total);
}

// Writes the whole buffer; *put is what got written.
int writeAll(int fd, const char* buf, size_t len, size_t* put) {
  *put = 0;
  while (*put < len) {
    size_t n = 0;
    int rc = PlatWrite(fd, buf + *put, len - *put, &n);
    if (rc != 0) return rc;
    if (n == 0) return E_XFER_FAILED;
    *put += n;
  }
  return 0;
}

int writeFailed(const char* shownName, int rc, size_t put, int len, bool* localErr) {
  trace(4, "Writing to %s failed (%d-%d, err %d)", shownName, static_cast<int>(put), len, rc);
  SetErrorCause("cannot write '%s': %s", shownName,
                rc == E_XFER_FAILED ? "nothing written" : PlatStrError(rc));
  *localErr = true;
  return rc;
}

}  // namespace

void SetXferProgress(XferProgressFn fn) {
  progressFn = fn;
}

int sendFile(Connection* conn, const std::string& path, long long fSize, bool* localErr) {
  bool dummy;
  if (localErr == nullptr) localErr = &dummy;
  *localErr = false;
  PlatFd fd;
  int rc = PlatOpenRegular(path.c_str(), O_RDONLY, fd.out());
  if (rc != 0) {
    trace(1, "Open '%s' failed (%d)", path.c_str(), rc);
    SetErrorCause("cannot read '%s': %s", path.c_str(), PlatStrError(rc));
    *localErr = true;
    return E_XFER_FAILED;
  }
  struct stat before;
  rc = PlatFstat(fd.get(), &before);
  if (rc != 0) {
    *localErr = true;
    trace(4, "Transferred '%s' failed after %d bytes, err %d", path.c_str(), 0, rc);
    return rc;
  }
  unsigned int crc = 0;
  long long bytesSent = 0;
  bool changed = before.st_size != fSize;
  if (!changed) {
    // Direct when the file is not in the page cache (see ReadAhead); never
    // more than announced: a file that grew is caught below, not sent.
    ReadAhead in;
    rc = in.start(fd.get(), fSize, kXferChunkBytes);
    if (rc != 0) {
      *localErr = true;
      trace(4, "Transferred '%s' failed after %d bytes, err %d", path.c_str(), 0, rc);
      return rc;
    }
    while (bytesSent < fSize) {
      const char* data = nullptr;
      size_t got = 0;
      rc = in.next(&data, &got);
      if (rc == ENODATA) {
        changed = true;  // shrank
        rc = 0;
        break;
      }
      if (rc != 0) {
        trace(1, "Error occurred reading '%s' (%d)", path.c_str(), rc);
        SetErrorCause("cannot read '%s': %s", path.c_str(), PlatStrError(rc));
        *localErr = true;
        break;
      }
      crc = partialcrc(reinterpret_cast<const unsigned char*>(data), got, crc);
      trace(4, "Sending %d bytes (%d) (0x%x)", static_cast<int>(got), MSG_TYPE_FDATA, crc);
      rc = conn->send(MSG_TYPE_FDATA, data, static_cast<int>(got));
      if (rc != 0) break;
      bytesSent += static_cast<long long>(got);
      progress(bytesSent, fSize);
    }
  }
  if (rc == 0 && !changed) {
    // Grown, or rewritten in place while it was read.
    char extra;
    size_t more = 0;
    struct stat after;
    rc = PlatPread(fd.get(), &extra, 1, static_cast<off_t>(fSize), &more);
    if (rc == 0) rc = PlatFstat(fd.get(), &after);
    if (rc != 0) {
      *localErr = true;
    } else if (more != 0 || after.st_size != fSize ||
               after.st_mtim.tv_sec != before.st_mtim.tv_sec ||
               after.st_mtim.tv_nsec != before.st_mtim.tv_nsec) {
      changed = true;
    }
  }
  if (rc == 0 && changed) {
    trace(1, "file size mismatch, sent: %lld size: %lld", bytesSent, fSize);
    SetErrorCause("file changed while being sent: '%s'", path.c_str());
    // No "fcrc": the peer must not take what it got for the whole file.
    conn->setBroken();
    *localErr = true;
    rc = E_XFER_FAILED;
  }
  if (rc == 0) {
    crc = finalcrc(crc, static_cast<unsigned long>(bytesSent));
    trace(7, "SEND: crc '%s': 0x%x (%lld)", path.c_str(), crc, bytesSent);
    fd.reset();
    char crcBody[4];
    DumpUInt32(crcBody, crc);
    rc = conn->send(MSG_TYPE_FCRC, crcBody, 4);
  }
  if (rc == 0) {
    trace(4, "Transferred '%s' successful (%lld bytes)", path.c_str(), bytesSent);
  } else {
    trace(4, "Transferred '%s' failed after %lld bytes, err %d", path.c_str(), bytesSent, rc);
  }
  return rc;
}

int receiveFile(Connection* conn, std::string target, long long fSize, bool isPrivate,
                unsigned int* crc, bool* localErr, bool durable) {
  return receiveFileX(conn, &target, fSize, isPrivate, crc, localErr, false, durable, durable);
}

int receiveFileCRCRename(Connection* conn, std::string* target, long long fSize, bool isPrivate,
                         unsigned int* crc, bool* localErr) {
  return receiveFileX(conn, target, fSize, isPrivate, crc, localErr, true, true, true);
}

namespace {

// A received message body, freed when it goes.
struct Body {
  char* p = nullptr;
  ~Body() { delete[] p; }
  char** out() {
    delete[] p;
    p = nullptr;
    return &p;
  }
};

}  // namespace

int receiveFileX(Connection* conn, std::string* target, long long fSize, bool isPrivate,
                 unsigned int* crcP, bool* localErr, bool crcNaming, bool skipIfExists,
                 bool doSync) {
  trace(4, "RECEIVE '%s' size %lld from %s", target->c_str(), fSize,
        conn->getPeer().toString().c_str());
  bool localFlag;
  if (localErr == nullptr) localErr = &localFlag;
  *localErr = false;
  unsigned int crcLocal;
  if (crcP == nullptr) crcP = &crcLocal;

  const bool toStdout = target->empty();
  // Removed on every failure, and on SIGINT / SIGTERM, until renamed into place.
  PlatTempFile tmp;
  int fd = STDOUT_FILENO;
  if (!toStdout) {
    int rc = tmp.create(*target, isPrivate ? 0600 : 0644);
    if (rc != 0) {
      std::string tmpName = tmpFileName(*target);
      trace(1, "Open '%s' failed (%d)", tmpName.c_str(), rc);
      SetErrorCause("cannot create '%s': %s", tmpName.c_str(), PlatStrError(rc));
      *localErr = true;
      return rc;
    }
    fd = tmp.fd();
  }
  const char* shownName = toStdout ? "<stdout>" : tmp.path().c_str();
  // A file goes direct, behind the receiving: writing it into fresh page-cache
  // pages would cost more than the disk does.
  WriteBehind out;
  if (!toStdout) out.start(fd, fSize);

  Body body;
  int type = 0, len = 0;
  long long received = 0;
  *crcP = 0;
  while (received < fSize) {
    int rc = conn->receive(&type, body.out(), &len);
    if (rc != 0) return rc;
    trace(4, "Received %d bytes (%d)", len, type);
    if (type != MSG_TYPE_FDATA || len <= 0) continue;
    if (len > fSize - received) {
      // More than announced: as bad as a wrong checksum, and the rest of the
      // stream cannot be trusted either.
      trace(1, "Transfer of '%s' failed: %lld bytes instead of %lld", shownName, received + len,
            fSize);
      conn->setBroken();
      return E_XFER_FAILED;
    }
    *crcP = partialcrc(reinterpret_cast<unsigned char*>(body.p), static_cast<unsigned long>(len),
                       *crcP);
    size_t put = 0;
    if (toStdout) {
      rc = writeAll(fd, body.p, static_cast<size_t>(len), &put);
    } else {
      rc = out.write(body.p, static_cast<size_t>(len));
    }
    if (rc != 0) return writeFailed(shownName, rc, put, len, localErr);
    received += len;
    progress(received, fSize);
  }
  *crcP = finalcrc(*crcP, static_cast<unsigned long>(received));
  if (!toStdout) {
    int rc = out.finish();
    if (rc != 0) return writeFailed(shownName, rc, 0, 0, localErr);
  }

  int rc = conn->receive(&type, body.out(), &len);
  if (rc != 0) return rc;
  if (type == MSG_TYPE_FDATA) {
    trace(1, "Transfer of '%s' failed: more than %lld bytes", shownName, fSize);
    conn->setBroken();
    return E_XFER_FAILED;
  }
  if (type != MSG_TYPE_FCRC) {
    // A server's protocol error is reported, not fatal, unless asked to assert.
    if (zelDebugAsserts) ZASSERT_T(type == MSG_TYPE_FCRC, "msgType == MSG_TYPE_FCRC");
    trace(1, "Transfer of '%s' failed: got msg %d '%s' instead of 'fcrc'", shownName, type,
          msgName(type));
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  unsigned int expected = 0;
  if (body.p != nullptr && len >= 4) LoadUInt32(body.p, body.p + len, &expected);
  if (expected != *crcP) {
    trace(1, "Transfer of '%s' failed: bad CRC 0x%x (expected 0x%x)", shownName, *crcP, expected);
    return E_XFER_FAILED;
  }
  trace(4, "RECEIVE: '%s' crc = 0x%x", shownName, *crcP);
  if (toStdout) return PlatClose(STDOUT_FILENO);

  if (doSync) {
    rc = PlatFsync(fd);
    if (rc != 0) {
      trace(4, "Fsync of '%s' failed (%d)", shownName, rc);
      SetErrorCause("cannot sync '%s': %s", shownName, PlatStrError(rc));
      *localErr = true;
      return rc;
    }
  }
  rc = tmp.close();
  if (rc != 0) {
    *localErr = true;
    return rc;
  }
  if (crcNaming) {
    size_t pos = target->rfind(".0.");
    ZASSERT_T(pos != std::string::npos, "pos != string::npos");
    char hex[16];
    snprintf(hex, sizeof hex, "%x", *crcP);
    target->replace(pos + 1, 1, hex);
  }
  rc = skipIfExists ? renameSkipIfTargetExists(tmp.path(), *target)
                    : renameReplaceIfTargetExists(tmp.path(), *target);
  if (rc != 0) {
    SetErrorCause("cannot move '%s' to '%s': %s", tmp.path().c_str(), target->c_str(),
                  PlatStrError(rc));
    *localErr = true;
    return rc;
  }
  tmp.release();
  if (doSync) {
    // The new name, too, must survive a crash.
    std::string dir = ParseDirFromPath(*target);
    PlatSyncDir(dir.c_str());
  }
  return 0;
}
