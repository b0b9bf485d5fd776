// Socket transfer, message framing and the generic reply handling.
#include "zel/kxcomm.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <new>

#include "platform/psock.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

int sendTimeoutMs = DefaultSendTimeoutMS;
int recvTimeoutMs = DefaultRecvTimeoutMS;
KxSecurity security;
FILE* forwardOut = nullptr;
FILE* forwardErr = nullptr;

constexpr size_t kHdrLen = 8;

// Waits for the event; 0 when ready, ETIMEDOUT or the poll error otherwise.
int waitSock(int sock, short events, int timeoutMs) {
  struct pollfd pfd = {sock, events, 0};
  int ready = 0;
  int rc = PlatPoll(&pfd, 1, timeoutMs, &ready);
  if (rc != 0) return rc;
  return ready == 0 ? ETIMEDOUT : 0;
}

int sendRpcHdr(int sock, int type, unsigned int len, int timeoutMs) {
  char hdr[kHdrLen] = {};
  char* p = DumpUInt32(hdr, len);
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  p[0] = static_cast<char>(code >> 8);
  p[1] = static_cast<char>(code);
  return kxFullSend(sock, hdr, kHdrLen, timeoutMs);
}

int recvRpcHdr(int sock, unsigned int* len, int* code, int timeoutMs) {
  char hdr[kHdrLen];
  int rc = kxFullRecv(sock, hdr, kHdrLen, timeoutMs);
  if (rc != 0) return rc;
  LoadUInt32(hdr, hdr + kHdrLen, len);
  *code = (static_cast<unsigned char>(hdr[4]) << 8) | static_cast<unsigned char>(hdr[5]);
  return 0;
}

unsigned long long connId(const Connection* c) {
  return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(c));
}

void forward(FILE* f, const char* body, int len) {
  if (body == nullptr || len <= 0) return;
  // Text: stops at a terminating zero byte if the server sent one.
  const void* nul = memchr(body, 0, static_cast<size_t>(len));
  size_t n =
      nul ? static_cast<size_t>(static_cast<const char*>(nul) - body) : static_cast<size_t>(len);
  fwrite(body, 1, n, f);
  fflush(f);
}

}  // namespace

void KxSetTransferTimeouts(int sendMs, int recvMs) {
  if (sendMs >= 0) sendTimeoutMs = sendMs;
  if (recvMs >= 0) recvTimeoutMs = recvMs;
}

void SetKxSecurity(const KxSecurity& s) {
  security = s;
}

const KxSecurity& GetKxSecurity() {
  return security;
}

void KxSetForwardStreams(FILE* out, FILE* err) {
  forwardOut = out;
  forwardErr = err;
}

int kxFullSend(int sock, const char* buf, size_t len, int timeoutMs) {
  // Try first and wait only when the socket would block: on a busy transfer
  // that halves the system calls.
  size_t done = 0;
  while (done < len) {
    size_t n = 0;
    int rc = PlatSend(sock, buf + done, len - done, MSG_DONTWAIT, &n);
    if (rc == EAGAIN || rc == EWOULDBLOCK) {
      rc = waitSock(sock, POLLOUT, timeoutMs);
      if (rc != 0) return rc;
      continue;
    }
    if (rc != 0) return rc;
    if (n == 0) return E_CONN_SHUTDOWN;
    done += n;
  }
  return 0;
}

int kxFullRecv(int sock, char* buf, size_t len, int timeoutMs) {
  size_t done = 0;
  while (done < len) {
    size_t n = 0;
    int rc = PlatRecv(sock, buf + done, len - done, MSG_DONTWAIT, &n);
    if (rc == EAGAIN || rc == EWOULDBLOCK) {
      rc = waitSock(sock, POLLIN, timeoutMs);
      if (rc != 0) return rc;
      continue;
    }
    if (rc != 0) return rc;
    if (n == 0) return E_CONN_SHUTDOWN;
    done += n;
  }
  return 0;
}

ConnImplementation::ConnImplementation(int sock, const SdrSecInfo& info, const CommAddr& peer)
    : peer_(peer), sock_(sock), secInfo_(info) {}

ConnImplementation::~ConnImplementation() {
  close();
}

void ConnImplementation::close() {
  if (sock_ < 0) return;
  trace(5, "closing connection to %s (sock %d-0x%llx)", peer_.toString().c_str(), sock_,
        connId(this));
  ::close(sock_);
  sock_ = -1;
}

int ConnImplementation::send(int type, const char* body, int length) {
  trace(5, "sending msg %d '%s' len %d (sock %d)", type, msgName(type), length, sock_);
  if (length < 0) length = 0;
  int timeoutMs = sendMs_ >= 0 ? sendMs_ : sendTimeoutMs;
  int rc = sendRpcHdr(sock_, type, static_cast<unsigned int>(length), timeoutMs);
  if (rc != 0) {
    broken_ = true;
    trace(4, "sendRpcHdr returned err %d", rc);
    return rc;
  }
  if (firstMsg_) {
    unsigned long long mine = zelClusterId, theirs = getClusterId();
    if (mine != 0 && theirs != 0 && mine != theirs) {
      broken_ = true;
      trace(1, "send: wrong cluster id (expected %llu received %llu)", mine, theirs);
      return E_CLUSTER_MISMATCH;
    }
    if (msgAuthRequired(type) && !authenticated_ && security.ready &&
        security.authenticateOutgoing != nullptr) {
      rc = security.authenticateOutgoing(sock_, secInfo_);
      if (rc != 0) {
        broken_ = true;
        trace(4, "AuthenticateOutgoing returned err %d", rc);
        return rc;
      }
      authenticated_ = true;
    }
    firstMsg_ = false;
  }
  if (length > 0) {
    rc = kxFullSend(sock_, body, static_cast<size_t>(length), timeoutMs);
    if (rc != 0) {
      broken_ = true;
      trace(4, "fullSend(len %d) returned err %d", length, rc);
      return rc;
    }
  }
  trace(5, "sent msg %d '%s' (sock %d) ok", type, msgName(type), sock_);
  return 0;
}

int ConnImplementation::receive(int* type, char** body, int* length) {
  trace(5, "receiving from %s (sock %d) 0x%llX", peer_.toString().c_str(), sock_, connId(this));
  *type = -1;
  *body = nullptr;
  *length = 0;
  trace(7, "waiting for hdr (len %d)", static_cast<int>(kHdrLen));
  unsigned int dataLen = 0;
  int code = 0;
  int timeoutMs = recvMs_ >= 0 ? recvMs_ : recvTimeoutMs;
  int rc = recvRpcHdr(sock_, &dataLen, &code, timeoutMs);
  if (rc != 0) {
    broken_ = true;
    trace(4, "recvRpcHdr() returned err %d", rc);
    return rc;
  }
  *type = code - kMsgCodeBias;
  if (dataLen > ZEL_MAX_BODY_LENGTH) {
    broken_ = true;
    if (zelDebugAsserts) {
      ZASSERT_T(false, "((dataLen >= 0) && (dataLen < ZEL_MAX_BODY_LENGTH))");
    }
    trace(4, "Msg body length: %d exceeds expected range: 0-%d bytes (%s-%d-%s)",
          static_cast<int>(dataLen), static_cast<int>(ZEL_MAX_BODY_LENGTH),
          peer_.toString().c_str(), sock_, msgName(*type));
    return E_BAD_MESSAGE;
  }
  int len = static_cast<int>(dataLen);
  if (len > 0) {
    trace(7, "waiting for data (len %d)", len);
    char* msgDataP = new (std::nothrow) char[len];
    ZASSERT_T(msgDataP != nullptr, "msgDataP");
    rc = kxFullRecv(sock_, msgDataP, static_cast<size_t>(len), timeoutMs);
    if (rc != 0) {
      delete[] msgDataP;
      broken_ = true;
      trace(4, "fullRecv(len %d) returned err %d", len, rc);
      return rc;
    }
    *body = msgDataP;
    *length = len;
  }
  trace(5, "received msg %d '%s' len %d (sock %d)", *type, msgName(*type), len, sock_);
  return 0;
}

int ReceiveErrCheck(Connection* conn, int* type, char** body, int* length) {
  for (;;) {
    int rc = conn->receive(type, body, length);
    if (rc != 0) {
      trace(4, "SendReceive: receive from %d failed (err %d)", conn->getSock(), rc);
      return rc;
    }
    if (*type != REPLY_TYPE_STDOUT && *type != REPLY_TYPE_STDERR) break;
    FILE* f = *type == REPLY_TYPE_STDOUT ? (forwardOut ? forwardOut : stdout)
                                         : (forwardErr ? forwardErr : stderr);
    forward(f, *body, *length);
    delete[] * body;
    *body = nullptr;
    *length = 0;
  }
  if (*type != MSG_TYPE_FAILED) return 0;
  // A server's malformed failure reply is an error, not a crash, unless asked to assert.
  if (zelDebugAsserts) ZASSERT_T(*length > 0, "replyLen");
  int code = 0;
  const char* p = LoadVarUInt(*body, *body + *length, &code, -1);
  delete[] * body;
  *body = nullptr;
  *length = 0;
  if (p == nullptr) {
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  return code;
}
