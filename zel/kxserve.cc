#include "zel/kxserve.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace {

constexpr size_t kClientFixed = 28;
constexpr size_t kAnswerFixed = 20;
constexpr size_t kHdrLen = 8;
constexpr int kCoalesceBytes = 65536;

// Fills *g from one record; unknown types are skipped.
void takeRecord(const char* r, const char* end, ClientGreeting* g) {
  unsigned int type = 0, v = 0;
  LoadUInt32(r, end, &type);
  if (type == 6 && LoadUInt32(r + 8, end, &v) != nullptr) {
    g->hasRecord6 = true;
    g->keyGenNumber = static_cast<int>(v);
    const char* name = r + 12;
    if (name < end) {
      const char* nul = static_cast<const char*>(memchr(name, 0, end - name));
      g->clusterName.assign(name, nul ? nul : end);
    }
  } else if (type == 9 && end - r >= 20) {
    LoadUInt32(r + 8, end, &v);
    g->version = static_cast<int>(v);
    LoadUInt64(r + 12, end, &g->clusterId);
  }
}

bool recordLenOk(unsigned int len) {
  return len >= 8 && len <= kMaxClientGreetingRecord;
}

}  // namespace

int kxParseClientGreeting(const char* p, const char* end, ClientGreeting* g) {
  *g = ClientGreeting();
  if (end - p < static_cast<long>(kClientFixed)) return E_CONN_SHUTDOWN;
  unsigned int magic = 0, len = 0;
  LoadUInt32(p, end, &magic);
  if (magic != kGreetingMagic) return E_CANT_CONNECT;
  LoadUInt32(p + 20, end, &len);
  p += kClientFixed;
  for (int n = 0; len != 0; n++) {
    if (!recordLenOk(len) || n >= kMaxClientGreetingRecords) return E_BAD_ATTACH_LEN;
    if (end - p < static_cast<long>(len)) return E_CONN_SHUTDOWN;
    const char* rec = p;
    p += len;
    takeRecord(rec, p, g);
    LoadUInt32(rec + 4, p, &len);
  }
  return 0;
}

int kxReadClientGreeting(int sock, int timeoutMs, ClientGreeting* g) {
  // The chain is read record by record so a short greeting never waits for more.
  std::string buf(kClientFixed, '\0');
  int rc = kxFullRecv(sock, &buf[0], kClientFixed, timeoutMs);
  if (rc != 0) return rc;
  unsigned int magic = 0, len = 0;
  LoadUInt32(buf.data(), buf.data() + kClientFixed, &magic);
  if (magic != kGreetingMagic) return E_CANT_CONNECT;
  LoadUInt32(buf.data() + 20, buf.data() + kClientFixed, &len);
  for (int n = 0; len != 0; n++) {
    if (!recordLenOk(len) || n >= kMaxClientGreetingRecords) return E_BAD_ATTACH_LEN;
    size_t at = buf.size();
    buf.resize(at + len);
    rc = kxFullRecv(sock, &buf[at], len, timeoutMs);
    if (rc != 0) return rc;
    LoadUInt32(buf.data() + at + 4, buf.data() + buf.size(), &len);
  }
  return kxParseClientGreeting(buf.data(), buf.data() + buf.size(), g);
}

std::string kxGreetingAnswerBytes(const GreetingAnswer& a) {
  std::string rec6;
  if (a.security) {
    size_t s = (a.clusterName.size() + 16) & ~static_cast<size_t>(3);
    rec6.assign(s, '\0');
    char* p = DumpUInt32(&rec6[0], 6);
    p = DumpUInt32(p, 24);
    p = DumpUInt32(p, static_cast<unsigned int>(a.keyGenNumber));
    a.clusterName.copy(p, a.clusterName.size());
  }
  std::string out(kAnswerFixed + rec6.size() + 24, '\0');
  char* p = DumpUInt32(&out[0], kGreetingMagic);
  p = DumpUInt32(p, a.status);
  p = DumpUInt32(p, 0);
  p = DumpUInt32(p, static_cast<unsigned int>(rec6.empty() ? 24 : rec6.size()));
  p = DumpUInt32(p, 0);
  memcpy(p, rec6.data(), rec6.size());
  p += rec6.size();
  p = DumpUInt32(p, 9);
  p = DumpUInt32(p, 0);
  p = DumpUInt32(p, kZelProtocolVersion);
  p = DumpUInt64(p, a.clusterId);
  p = DumpUInt32(p, 0);
  ZASSERT(p == out.data() + out.size());
  return out;
}

ServerConnection::ServerConnection(int sock, const SdrSecInfo& info, const CommAddr& peer,
                                   KxAuthIncomingFn auth, int idleMs, int ioMs)
    : peer_(peer), sock_(sock), info_(info), auth_(auth), idleMs_(idleMs), ioMs_(ioMs) {}

ServerConnection::~ServerConnection() {
  close();
}

void ServerConnection::close() {
  if (sock_ < 0) return;
  ::close(sock_);
  sock_ = -1;
}

int ServerConnection::send(int type, const char* body, int length) {
  if (length < 0) length = 0;
  trace(5, "sending msg %d '%s' len %d (sock %d)", type, msgName(type), length, sock_);
  char hdr[kHdrLen] = {};
  char* p = DumpUInt32(hdr, static_cast<unsigned int>(length));
  unsigned int code = static_cast<unsigned int>(type + kMsgCodeBias);
  p[0] = static_cast<char>(code >> 8);
  p[1] = static_cast<char>(code);
  int rc;
  if (length > 0 && length <= kCoalesceBytes) {
    // One send for header and body: one segment for a small reply.
    std::string m(hdr, kHdrLen);
    m.append(body, static_cast<size_t>(length));
    rc = kxFullSend(sock_, m.data(), m.size(), ioMs_);
  } else {
    rc = kxFullSend(sock_, hdr, kHdrLen, ioMs_);
    if (rc == 0 && length > 0) rc = kxFullSend(sock_, body, static_cast<size_t>(length), ioMs_);
  }
  if (rc != 0) {
    broken_ = true;
    trace(4, "send of msg %d to %s failed (err %d)", type, peer_.toString().c_str(), rc);
  }
  return rc;
}

int ServerConnection::skipBody(unsigned int len) {
  char buf[4096];
  while (len > 0) {
    unsigned int n = len < sizeof buf ? len : sizeof buf;
    int rc = kxFullRecv(sock_, buf, n, ioMs_);
    if (rc != 0) {
      broken_ = true;
      return rc;
    }
    len -= n;
  }
  return 0;
}

int ServerConnection::receive(int* type, MsgBody* body) {
  *type = -1;
  body->reset();
  char hdr[kHdrLen];
  int rc = kxFullRecv(sock_, hdr, kHdrLen, idleMs_);
  if (rc != 0) {
    broken_ = true;
    return rc;
  }
  unsigned int dataLen = 0;
  LoadUInt32(hdr, hdr + kHdrLen, &dataLen);
  *type = ((static_cast<unsigned char>(hdr[4]) << 8) | static_cast<unsigned char>(hdr[5])) -
          kMsgCodeBias;
  if (dataLen > ZEL_MAX_BODY_LENGTH) {
    broken_ = true;
    trace(4, "Msg body length: %u exceeds expected range: 0-%u bytes (%s-%d-%s)", dataLen,
          ZEL_MAX_BODY_LENGTH, peer_.toString().c_str(), sock_, msgName(*type));
    return E_BAD_MESSAGE;
  }
  if (firstMsg_) {
    firstMsg_ = false;
    if (auth_ != nullptr && msgAuthRequired(*type) && !authenticated_) {
      rc = auth_(sock_, info_);
      if (rc == E_AUTH_PARAMS) {
        // No handshake ran, so the stream is intact: drop the body and let the
        // caller tell the client why.
        rc = skipBody(dataLen);
        return rc != 0 ? rc : E_AUTH_PARAMS;
      }
      if (rc != 0) {
        broken_ = true;
        trace(3, "AuthenticateIncoming from %s returned err %d", peer_.toString().c_str(), rc);
        return rc;
      }
      authenticated_ = true;
    }
  }
  if (dataLen > 0) {
    if (!body->allocate(dataLen)) {
      broken_ = true;
      return E_NOMEM;
    }
    rc = kxFullRecv(sock_, body->data(), dataLen, ioMs_);
    if (rc != 0) {
      body->reset();
      broken_ = true;
      return rc;
    }
  }
  trace(5, "received msg %d '%s' len %u (sock %d)", *type, msgName(*type), dataLen, sock_);
  return 0;
}
