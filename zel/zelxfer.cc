#include "zel/zelxfer.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "platform/pfile.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

// Fills buf from fd up to len bytes or end of file.
int readChunk(int fd, char* buf, size_t len, size_t* got) {
  *got = 0;
  while (*got < len) {
    size_t n = 0;
    int rc = PlatRead(fd, buf + *got, len - *got, &n);
    if (rc != 0) return rc;
    if (n == 0) break;
    *got += n;
  }
  return 0;
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

}  // namespace

int sendFile(Connection* conn, const std::string& path, int fSize, bool* localErr) {
  bool dummy;
  if (localErr == nullptr) localErr = &dummy;
  *localErr = false;
  int fd = -1;
  int rc = PlatOpen(path.c_str(), O_RDONLY, 0, &fd);
  if (rc != 0) {
    trace(1, "Open '%s' failed (%d)", path.c_str(), rc);
    *localErr = true;
    return E_XFER_FAILED;
  }
  std::unique_ptr<char[]> buf(new (std::nothrow) char[kXferChunkBytes]);
  if (!buf) {
    PlatClose(fd);
    *localErr = true;
    trace(4, "Transferred '%s' failed after %d bytes, err %d", path.c_str(), 0, E_NOMEM);
    return E_NOMEM;
  }
  unsigned int crc = 0;
  long long bytesSent = 0;
  for (;;) {
    size_t got = 0;
    rc = readChunk(fd, buf.get(), kXferChunkBytes, &got);
    if (rc != 0) {
      trace(1, "Error occurred reading '%s' (%d)", path.c_str(), rc);
      *localErr = true;
      break;
    }
    if (got == 0) break;
    crc = partialcrc(reinterpret_cast<unsigned char*>(buf.get()), got, crc);
    trace(4, "Sending %d bytes (%d) (0x%x)", static_cast<int>(got), MSG_TYPE_FDATA, crc);
    rc = conn->send(MSG_TYPE_FDATA, buf.get(), static_cast<int>(got));
    if (rc != 0) break;
    bytesSent += static_cast<long long>(got);
  }
  if (rc == 0) {
    ZASSERT_M(bytesSent == fSize, "bytesSent == fSize", "file size mismatch, sent: %d size: %d",
              static_cast<int>(bytesSent), fSize);
    crc = finalcrc(crc, static_cast<unsigned long>(bytesSent));
    trace(7, "SEND: crc '%s': 0x%x (%d)", path.c_str(), crc, static_cast<int>(bytesSent));
    PlatClose(fd);
    fd = -1;
    char crcBody[4];
    DumpUInt32(crcBody, crc);
    rc = conn->send(MSG_TYPE_FCRC, crcBody, 4);
  }
  if (fd >= 0) PlatClose(fd);
  if (rc == 0) {
    trace(4, "Transferred '%s' successful (%d bytes)", path.c_str(), static_cast<int>(bytesSent));
  } else {
    trace(4, "Transferred '%s' failed after %d bytes, err %d", path.c_str(),
          static_cast<int>(bytesSent), rc);
  }
  return rc;
}

int receiveFile(Connection* conn, std::string target, int fSize, bool isPrivate, unsigned int* crc,
                bool* localErr, bool durable) {
  return receiveFileX(conn, &target, fSize, isPrivate, crc, localErr, false, durable, durable);
}

int receiveFileCRCRename(Connection* conn, std::string* target, int fSize, bool isPrivate,
                         unsigned int* crc, bool* localErr) {
  return receiveFileX(conn, target, fSize, isPrivate, crc, localErr, true, true, true);
}

int receiveFileX(Connection* conn, std::string* target, int fSize, bool isPrivate,
                 unsigned int* crcP, bool* localErr, bool crcNaming, bool skipIfExists,
                 bool doSync) {
  trace(4, "RECEIVE '%s' size %d from %s", target->c_str(), fSize,
        conn->getPeer().toString().c_str());
  bool localFlag;
  if (localErr == nullptr) localErr = &localFlag;
  *localErr = false;
  unsigned int crcLocal;
  if (crcP == nullptr) crcP = &crcLocal;

  bool toStdout = target->empty();
  std::string tmpName;
  int fd = -1;
  int rc = 0;
  if (toStdout) {
    fd = STDOUT_FILENO;
  } else {
    tmpName = tmpFileName(*target);
    rc = PlatOpen(tmpName.c_str(), O_WRONLY | O_CREAT | O_TRUNC, isPrivate ? 0600 : 0644, &fd);
    if (rc != 0) {
      trace(1, "Open '%s' failed (%d)", tmpName.c_str(), rc);
      *localErr = true;
      return rc;
    }
  }
  const char* shownName = toStdout ? "<stdout>" : tmpName.c_str();

  char* body = nullptr;
  int type = 0, len = 0;
  long long received = 0;
  *crcP = 0;
  while (received < fSize) {
    rc = conn->receive(&type, &body, &len);
    if (rc != 0) goto cleanup;
    trace(4, "Received %d bytes (%d)", len, type);
    if (type == MSG_TYPE_FDATA && len > 0) {
      size_t put = 0;
      rc = writeAll(fd, body, static_cast<size_t>(len), &put);
      if (rc != 0) {
        trace(4, "Writing to %s failed (%d-%d, err %d)", shownName, static_cast<int>(put), len, rc);
        *localErr = true;
        goto cleanup;
      }
      received += len;
      *crcP = partialcrc(reinterpret_cast<unsigned char*>(body), static_cast<unsigned long>(len),
                         *crcP);
    }
    delete[] body;
    body = nullptr;
  }
  *crcP = finalcrc(*crcP, static_cast<unsigned long>(received));

  rc = conn->receive(&type, &body, &len);
  if (rc != 0) goto cleanup;
  if (type != MSG_TYPE_FCRC) {
    // A server's protocol error is reported, not fatal, unless asked to assert.
    if (zelDebugAsserts) ZASSERT_T(type == MSG_TYPE_FCRC, "msgType == MSG_TYPE_FCRC");
    trace(1, "Transfer of '%s' failed: got msg %d '%s' instead of 'fcrc'", shownName, type,
          msgName(type));
    conn->setBroken();
    rc = E_BAD_MESSAGE;
    goto cleanup;
  }
  {
    unsigned int expected = 0;
    if (body != nullptr && len >= 4) LoadUInt32(body, body + len, &expected);
    if (expected != *crcP) {
      trace(1, "Transfer of '%s' failed: bad CRC 0x%x (expected 0x%x)", shownName, *crcP, expected);
      rc = E_XFER_FAILED;
      goto cleanup;
    }
  }
  trace(4, "RECEIVE: '%s' crc = 0x%x", shownName, *crcP);
  if (doSync && !toStdout) {
    rc = PlatFsync(fd);
    if (rc != 0) {
      trace(4, "Fsync of '%s' failed (%d)", shownName, rc);
      *localErr = true;
      goto cleanup;
    }
  }
  rc = PlatClose(fd);
  fd = -1;
  if (rc != 0) {
    *localErr = true;
    goto cleanup;
  }
  if (toStdout) goto cleanup;

  if (crcNaming) {
    size_t pos = target->rfind(".0.");
    ZASSERT_T(pos != std::string::npos, "pos != string::npos");
    char hex[16];
    snprintf(hex, sizeof hex, "%x", *crcP);
    target->replace(pos + 1, 1, hex);
  }
  rc = skipIfExists ? renameSkipIfTargetExists(tmpName, *target)
                    : renameReplaceIfTargetExists(tmpName, *target);
  if (rc != 0) {
    *localErr = true;
  } else {
    tmpName.clear();
  }

cleanup:
  if (fd >= 0) PlatClose(fd);
  if (!tmpName.empty()) PlatUnlink(tmpName.c_str());
  delete[] body;
  return rc;
}
