// Socket transfer, message framing and the generic reply handling.
#include "zel/kxcomm.h"

#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/pclock.h"
#include "platform/psock.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

int sendTimeoutMs = DefaultSendTimeoutMS;
int recvTimeoutMs = DefaultRecvTimeoutMS;
std::mutex securityMu;
KxSecurity security;  // under securityMu
FILE* forwardOut = nullptr;
FILE* forwardErr = nullptr;

constexpr size_t kHdrLen = 8;

// Waits for the event until the deadline; 0 when ready, ETIMEDOUT or the poll
// error otherwise.
int waitSock(int sock, short events, long long deadlineMs) {
  long long left = deadlineMs - PlatNowMs();
  if (left <= 0) return ETIMEDOUT;
  struct pollfd pfd = {sock, events, 0};
  int ready = 0;
  int rc = PlatPoll(&pfd, 1, left > 0x7fffffff ? 0x7fffffff : static_cast<int>(left), &ready);
  if (rc != 0) return rc;
  return ready == 0 ? ETIMEDOUT : 0;
}

int sendRpcHdr(int sock, int type, unsigned int len, long long deadlineMs) {
  char hdr[kHdrLen] = {};
  char* p = DumpUInt32(hdr, len);
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  p[0] = static_cast<char>(code >> 8);
  p[1] = static_cast<char>(code);
  return kxSendUntil(sock, hdr, kHdrLen, deadlineMs);
}

int recvRpcHdr(int sock, unsigned int* len, int* code, long long deadlineMs) {
  char hdr[kHdrLen];
  int rc = kxRecvUntil(sock, hdr, kHdrLen, deadlineMs);
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
  std::lock_guard<std::mutex> lock(securityMu);
  security = s;
}

KxSecurity GetKxSecurity() {
  std::lock_guard<std::mutex> lock(securityMu);
  return security;
}

void KxSetForwardStreams(FILE* out, FILE* err) {
  forwardOut = out;
  forwardErr = err;
}

MsgBody& MsgBody::operator=(MsgBody&& o) noexcept {
  data_ = std::move(o.data_);
  size_ = o.size_;
  o.size_ = 0;
  return *this;
}

bool MsgBody::allocate(size_t n) {
  reset();
  if (n == 0) return true;
  if (n > 0x7fffffff) return false;
  data_.reset(new (std::nothrow) char[n]);
  if (!data_) return false;
  size_ = static_cast<int>(n);
  return true;
}

void MsgBody::reset() {
  data_.reset();
  size_ = 0;
}

char* MsgBody::release() {
  size_ = 0;
  return data_.release();
}

int Connection::receive(int* type, char** body, int* length) {
  MsgBody b;
  int rc = receive(type, &b);
  *length = b.size();
  *body = b.release();
  return rc;
}

int kxFullSend(int sock, const char* buf, size_t len, int timeoutMs) {
  return kxSendUntil(sock, buf, len, PlatDeadlineAfter(timeoutMs));
}

int kxFullRecv(int sock, char* buf, size_t len, int timeoutMs) {
  return kxRecvUntil(sock, buf, len, PlatDeadlineAfter(timeoutMs));
}

int kxSendUntil(int sock, const char* buf, size_t len, long long deadlineMs) {
  // Try first and wait only when the socket would block: on a busy transfer
  // that halves the system calls.
  size_t done = 0;
  while (done < len) {
    size_t n = 0;
    int rc = PlatSend(sock, buf + done, len - done, MSG_DONTWAIT, &n);
    if (rc == EAGAIN || rc == EWOULDBLOCK) {
      rc = waitSock(sock, POLLOUT, deadlineMs);
      if (rc != 0) return rc;
      continue;
    }
    if (rc != 0) return rc;
    if (n == 0) return E_CONN_SHUTDOWN;
    done += n;
  }
  return 0;
}

int kxRecvUntil(int sock, char* buf, size_t len, long long deadlineMs) {
  size_t done = 0;
  while (done < len) {
    size_t n = 0;
    int rc = PlatRecv(sock, buf + done, len - done, MSG_DONTWAIT, &n);
    if (rc == EAGAIN || rc == EWOULDBLOCK) {
      rc = waitSock(sock, POLLIN, deadlineMs);
      if (rc != 0) return rc;
      continue;
    }
    if (rc != 0) return rc;
    if (n == 0) return E_CONN_SHUTDOWN;
    done += n;
  }
  return 0;
}

ConnImplementation::ConnImplementation(int sock, const SdrSecInfo& info, const CommAddr& peer,
                                       unsigned long long clientClusterId)
    : peer_(peer), sock_(sock), secInfo_(info), clientClusterId_(clientClusterId) {}

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
  const long long deadline = PlatDeadlineAfter(sendMs_ >= 0 ? sendMs_ : sendTimeoutMs);
  int rc = sendRpcHdr(sock_, type, static_cast<unsigned int>(length), deadline);
  if (rc != 0) {
    broken_ = true;
    trace(4, "sendRpcHdr returned err %d", rc);
    return rc;
  }
  if (firstMsg_) {
    unsigned long long mine = clientClusterId_, theirs = getClusterId();
    if (mine != 0 && theirs != 0 && mine != theirs) {
      broken_ = true;
      trace(1, "send: wrong cluster id (expected %llu received %llu)", mine, theirs);
      return E_CLUSTER_MISMATCH;
    }
    KxAuthFn auth = nullptr;
    if (msgAuthRequired(type) && !authenticated_) {
      std::lock_guard<std::mutex> lock(securityMu);
      if (security.ready) auth = security.authenticateOutgoing;
    }
    if (auth != nullptr) {
      rc = auth(sock_, secInfo_);
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
    rc = kxSendUntil(sock_, body, static_cast<size_t>(length), deadline);
    if (rc != 0) {
      broken_ = true;
      trace(4, "fullSend(len %d) returned err %d", length, rc);
      return rc;
    }
  }
  trace(5, "sent msg %d '%s' (sock %d) ok", type, msgName(type), sock_);
  return 0;
}

int ConnImplementation::receive(int* type, MsgBody* body) {
  trace(5, "receiving from %s (sock %d) 0x%llX", peer_.toString().c_str(), sock_, connId(this));
  *type = -1;
  body->reset();
  trace(7, "waiting for hdr (len %d)", static_cast<int>(kHdrLen));
  // One deadline for header and body: a peer sending a byte at a time cannot
  // hold the connection longer than a whole message may take.
  const long long deadline = PlatDeadlineAfter(recvMs_ >= 0 ? recvMs_ : recvTimeoutMs);
  unsigned int dataLen = 0;
  int code = 0;
  int rc = recvRpcHdr(sock_, &dataLen, &code, deadline);
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
    bool allocated = body->allocate(static_cast<size_t>(len));
    ZASSERT_T(allocated, "msgDataP");
    rc = kxRecvUntil(sock_, body->data(), static_cast<size_t>(len), deadline);
    if (rc != 0) {
      body->reset();
      broken_ = true;
      trace(4, "fullRecv(len %d) returned err %d", len, rc);
      return rc;
    }
  }
  trace(5, "received msg %d '%s' len %d (sock %d)", *type, msgName(*type), len, sock_);
  return 0;
}

int ReceiveErrCheck(Connection* conn, int* type, MsgBody* body) {
  for (;;) {
    int rc = conn->receive(type, body);
    if (rc != 0) {
      trace(4, "SendReceive: receive from %d failed (err %d)", conn->getSock(), rc);
      return rc;
    }
    if (*type != REPLY_TYPE_STDOUT && *type != REPLY_TYPE_STDERR) break;
    FILE* f = *type == REPLY_TYPE_STDOUT ? (forwardOut ? forwardOut : stdout)
                                         : (forwardErr ? forwardErr : stderr);
    forward(f, body->data(), body->size());
  }
  if (*type != MSG_TYPE_FAILED) return 0;
  // A server's malformed failure reply is an error, not a crash, unless asked to assert.
  if (zelDebugAsserts) ZASSERT_T(!body->empty(), "replyLen");
  int code = 0;
  const char* p = LoadVarUInt(body->data(), body->end(), &code, -1);
  body->reset();
  if (p == nullptr) {
    conn->setBroken();
    return E_BAD_MESSAGE;
  }
  return code;
}
