#include "transport/sectransport.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>

#include "platform/pclock.h"
#include "platform/pfile.h"
#include "platform/psock.h"
#include "platform/psockmode.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace {

std::atomic<int> timeoutMs{60000};

// Every peer certificate is accepted here: what proves the peer is that it
// signed the handshake with the key of its certificate, and whether that key
// is authorized is decided afterwards against the authorized-keys list.
int AcceptAnyCertificate(int, tls::X509_STORE_CTX*) {
  return 1;
}

// ---- A socket BIO over the platform wrappers: no SIGPIPE, no read-ahead,
// and end of file and socket errors are kept for the error mapping. ----

int BioWrite(tls::BIO* b, const char* buf, int len) {
  const tls::Api* a = tls::Get();
  auto* io = static_cast<SecSession::Io*>(a->BIO_get_data(b));
  a->BIO_clear_flags(b, tls::kBioFlagsRetryMask);
  size_t sent = 0;
  int rc = PlatSend(io->fd, buf, static_cast<size_t>(len), 0, &sent);
  if (rc == EAGAIN || rc == EWOULDBLOCK) {
    a->BIO_set_flags(b, tls::kBioFlagsWrite | tls::kBioFlagsShouldRetry);
    return -1;
  }
  if (rc != 0) {
    io->err = rc;
    return -1;
  }
  return static_cast<int>(sent);
}

int BioRead(tls::BIO* b, char* buf, int len) {
  const tls::Api* a = tls::Get();
  auto* io = static_cast<SecSession::Io*>(a->BIO_get_data(b));
  a->BIO_clear_flags(b, tls::kBioFlagsRetryMask);
  size_t got = 0;
  int rc = PlatRecv(io->fd, buf, static_cast<size_t>(len), 0, &got);
  if (rc == EAGAIN || rc == EWOULDBLOCK) {
    a->BIO_set_flags(b, tls::kBioFlagsRead | tls::kBioFlagsShouldRetry);
    return -1;
  }
  if (rc != 0) {
    io->err = rc;
    return -1;
  }
  if (got == 0) io->eof = true;
  return static_cast<int>(got);
}

long BioCtrl(tls::BIO*, int cmd, long, void*) {
  return cmd == tls::kBioCtrlFlush ? 1 : 0;
}

int BioCreate(tls::BIO* b) {
  tls::Get()->BIO_set_init(b, 1);
  return 1;
}

tls::BIO_METHOD* SocketBioMethod(const tls::Api* a) {
  static std::once_flag once;
  static tls::BIO_METHOD* method = nullptr;
  std::call_once(once, [a] {
    tls::BIO_METHOD* m =
        a->BIO_meth_new(a->BIO_get_new_index() | tls::kBioTypeSourceSink, "zel socket");
    if (m == nullptr) return;
    a->BIO_meth_set_write(m, BioWrite);
    a->BIO_meth_set_read(m, BioRead);
    a->BIO_meth_set_ctrl(m, BioCtrl);
    a->BIO_meth_set_create(m, BioCreate);
    method = m;
  });
  return method;
}

// Waits until the socket is ready for the direction or the deadline passes.
int SecWait(const char* name, int fd, bool forWrite, long long deadline) {
  long long left = deadline - PlatNowMs();
  if (left <= 0) {
    trace(3, "Auth: %s timed out (sock %d)", name, fd);
    return ETIMEDOUT;
  }
  struct pollfd pfd;
  pfd.fd = fd;
  pfd.events = forWrite ? POLLOUT : POLLIN;
  pfd.revents = 0;
  int ready = 0;
  trace(7, "Auth: %s waits for %s (sock %d)", name, forWrite ? "write" : "read", fd);
  int rc = PlatPoll(&pfd, 1, static_cast<int>(left), &ready);
  if (rc != 0) return rc;
  if (ready == 0) {
    trace(3, "Auth: %s timed out (sock %d)", name, fd);
    return ETIMEDOUT;
  }
  return 0;  // error and hang-up conditions show up in the next read or write
}

bool FileExists(const std::string& path) {
  struct stat st;
  return PlatStat(path.c_str(), &st) == 0;
}

}  // namespace

bool SecCipherListSupported(const char* name) {
  return name != nullptr && strcmp(name, kSecCipherAuthOnly) == 0;
}

int SecSetTimeoutMs(int ms) {
  return timeoutMs.exchange(ms);
}

// ---- SecTransport ----

SecTransport::~SecTransport() {
  freeContexts();
}

int SecTransport::loadLibrary() {
  const tls::Api* a = nullptr;
  int rc = tls::Load(&a);
  if (rc != 0) return rc;
  if (api_ != nullptr && api_ != a) freeContexts();
  api_ = a;
  return 0;
}

void SecTransport::freeContexts() {
  if (api_ == nullptr) return;
  if (committedCtx_) api_->SSL_CTX_free(committedCtx_);
  if (newCtx_) api_->SSL_CTX_free(newCtx_);
  committedCtx_ = newCtx_ = nullptr;
}

int SecTransport::makeContext(const std::string& key, const std::string& cert, tls::SSL_CTX** out) {
  *out = nullptr;
  if (!FileExists(key) || !FileExists(cert)) {
    trace(1, "Auth: key file '%s' or certificate '%s' missing", key.c_str(), cert.c_str());
    return ENOENT;
  }
  const tls::Api* a = api_;
  a->ERR_clear_error();
  tls::SSL_CTX* ctx = a->SSL_CTX_new(a->TLS_method());
  if (ctx == nullptr) {
    tls::DrainErrors(1, "new context");
    return E_NOMEM;
  }
  // TLS 1.3 with both ends presenting a certificate. No tickets, no session
  // cache and no read-ahead: nothing may follow the handshake but close_notify,
  // and nothing past it may be consumed from the socket.
  a->SSL_CTX_ctrl(ctx, tls::kCtrlSetMinProtoVersion, tls::kTls13Version, nullptr);
  a->SSL_CTX_ctrl(ctx, tls::kCtrlSetMaxProtoVersion, tls::kTls13Version, nullptr);
  a->SSL_CTX_ctrl(ctx, tls::kCtrlSetReadAhead, 0, nullptr);
  a->SSL_CTX_ctrl(ctx, tls::kCtrlSetSessCacheMode, 0, nullptr);
  a->SSL_CTX_set_options(ctx, tls::kOpNoTicket);
  a->SSL_CTX_clear_options(ctx, tls::kOpEnableMiddleboxCompat);
  a->SSL_CTX_set_num_tickets(ctx, 0);
  a->SSL_CTX_set_verify(ctx, tls::kVerifyPeer | tls::kVerifyFailIfNoPeerCert, AcceptAnyCertificate);
  if (a->SSL_CTX_use_certificate_chain_file(ctx, cert.c_str()) != 1 ||
      a->SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), tls::kFiletypePem) != 1 ||
      a->SSL_CTX_check_private_key(ctx) != 1) {
    tls::DrainErrors(1, "load key");
    trace(1, "Auth: cannot use key '%s' with certificate '%s'", key.c_str(), cert.c_str());
    a->SSL_CTX_free(ctx);
    return E_IO;
  }
  *out = ctx;
  return 0;
}

int SecTransport::loadKeys(const SecKeyFiles& files) {
  if (api_ == nullptr) return ELIBACC;
  tls::SSL_CTX* committed = nullptr;
  tls::SSL_CTX* fresh = nullptr;
  int rc = makeContext(files.keyPath, files.certPath, &committed);
  if (rc == 0 && !files.newKeyPath.empty() && FileExists(files.newKeyPath)) {
    rc = makeContext(files.newKeyPath, files.newCertPath, &fresh);
    if (rc != 0) api_->SSL_CTX_free(committed);
  }
  if (rc != 0) return rc;
  freeContexts();
  committedCtx_ = committed;
  newCtx_ = fresh;
  return 0;
}

void SecTransport::bindGenerations(int committedGen, int newGen) {
  committedGen_ = committedGen;
  newGen_ = newGen;
}

tls::SSL_CTX* SecTransport::getContext(int gen) {
  if (api_ == nullptr || gen < 0) return nullptr;
  tls::SSL_CTX* ctx = nullptr;
  if (gen == newGen_ && newCtx_ != nullptr) {
    ctx = newCtx_;
  } else if (gen == committedGen_) {
    ctx = committedCtx_;
  }
  if (ctx != nullptr) api_->SSL_CTX_up_ref(ctx);
  return ctx;
}

void SecTransport::releaseContext(tls::SSL_CTX* ctx) {
  if (ctx != nullptr && api_ != nullptr) api_->SSL_CTX_free(ctx);
}

// ---- SecSession ----

SecSession::SecSession(const tls::Api* api, tls::SSL_CTX* ctx, int sock) : api_(api) {
  io_.fd = sock;
  bool nonBlocking = false;
  setupErr_ = PlatGetNonBlocking(sock, &nonBlocking);
  if (setupErr_ == 0 && !nonBlocking) {
    setupErr_ = PlatSetNonBlocking(sock, true);
    restoreBlocking_ = setupErr_ == 0;
  }
  if (setupErr_ != 0) return;
  tls::BIO_METHOD* m = SocketBioMethod(api);
  tls::BIO* bio = m ? api->BIO_new(m) : nullptr;
  ssl_ = bio ? api->SSL_new(ctx) : nullptr;
  if (ssl_ == nullptr) {
    if (bio) api->BIO_free(bio);
    tls::DrainErrors(1, "new session");
    setupErr_ = E_NOMEM;
    return;
  }
  api->BIO_set_data(bio, &io_);
  api->SSL_set_bio(ssl_, bio, bio);  // the session owns the BIO
}

SecSession::~SecSession() {
  if (ssl_ != nullptr) api_->SSL_free(ssl_);
  if (restoreBlocking_) PlatSetNonBlocking(io_.fd, false);
}

namespace {

int StepConnect(const tls::Api* a, tls::SSL* s) {
  return a->SSL_connect(s) == 1 ? 1 : -1;
}
int StepAccept(const tls::Api* a, tls::SSL* s) {
  return a->SSL_accept(s) == 1 ? 1 : -1;
}

}  // namespace

int SecSession::drive(int (*step)(const tls::Api*, tls::SSL*), const char* waitName) {
  if (setupErr_ != 0) return setupErr_;
  long long deadline = PlatNowMs() + timeoutMs.load();
  // Each pass either completes, fails or waits; the deadline bounds the waits
  // and the count bounds a peer that keeps the socket busy with trickles.
  for (int pass = 0; pass < 100000; ++pass) {
    api_->ERR_clear_error();
    int r = step(api_, ssl_);
    if (r == 1) {
      established_ = true;
      return 0;
    }
    int e = api_->SSL_get_error(ssl_, r);
    int rc;
    if (e == tls::kErrorWantRead || e == tls::kErrorWantWrite) {
      rc = SecWait(waitName, io_.fd, e == tls::kErrorWantWrite, deadline);
      if (rc == 0) continue;
    } else if (io_.err != 0) {
      rc = io_.err;
    } else if (io_.eof || e == tls::kErrorZeroReturn) {
      rc = E_CONN_SHUTDOWN;
    } else {
      rc = E_AUTH_FAILED;
    }
    tls::DrainErrors(3, waitName);
    trace(3, "Auth: %s failed (sock %d, tls error %d, err %d)", waitName, io_.fd, e, rc);
    return rc;
  }
  return ETIMEDOUT;
}

int SecSession::connect() {
  return drive(StepConnect, "sconnCheck");
}

int SecSession::accept() {
  return drive(StepAccept, "accept");
}

namespace {

// SSL_shutdown returns 0 once our close_notify is out and 1 once the peer's
// has been read as well; only then is the socket clean.
int StepShutdown(const tls::Api* a, tls::SSL* s) {
  int r = a->SSL_shutdown(s);
  return r == 1 ? 1 : (r == 0 ? 0 : -1);
}

}  // namespace

int SecSession::close() {
  if (setupErr_ != 0) return setupErr_;
  if (!established_) return 0;
  long long deadline = PlatNowMs() + timeoutMs.load();
  for (int pass = 0; pass < 100000; ++pass) {
    api_->ERR_clear_error();
    int r = StepShutdown(api_, ssl_);
    if (r == 1) return 0;
    if (r == 0) continue;  // sent ours; the next call reads the peer's
    int e = api_->SSL_get_error(ssl_, r);
    int rc;
    if (e == tls::kErrorWantRead || e == tls::kErrorWantWrite) {
      rc = SecWait("close", io_.fd, e == tls::kErrorWantWrite, deadline);
      if (rc == 0) continue;
    } else if (io_.err != 0) {
      rc = io_.err;
    } else if (io_.eof) {
      rc = E_CONN_SHUTDOWN;
    } else {
      rc = E_AUTH_FAILED;
    }
    tls::DrainErrors(3, "close");
    trace(3, "Auth: close failed (sock %d, tls error %d, err %d)", io_.fd, e, rc);
    return rc;
  }
  return ETIMEDOUT;
}

int SecSession::peerPublicKey(std::string* der) const {
  der->clear();
  if (ssl_ == nullptr) return E_AUTH_FAILED;
  tls::X509* cert = api_->SSL_get1_peer_certificate(ssl_);
  if (cert == nullptr) return E_AUTH_FAILED;
  int rc = E_AUTH_FAILED;
  tls::EVP_PKEY* pkey = api_->X509_get0_pubkey(cert);
  int len = pkey ? api_->i2d_PUBKEY(pkey, nullptr) : -1;
  if (len > 0) {
    der->resize(static_cast<size_t>(len));
    unsigned char* p = reinterpret_cast<unsigned char*>(&(*der)[0]);
    if (api_->i2d_PUBKEY(pkey, &p) == len) {
      rc = 0;
    } else {
      der->clear();
    }
  }
  api_->X509_free(cert);
  return rc;
}

int SecKeyId(const std::string& der, std::string* id) {
  const tls::Api* a = nullptr;
  int rc = tls::Load(&a);
  if (rc != 0) return rc;
  unsigned char md[64];
  unsigned int mdLen = 0;
  if (a->EVP_Digest(der.data(), der.size(), md, &mdLen, a->EVP_sha256(), nullptr) != 1 ||
      mdLen != 32) {
    tls::DrainErrors(1, "digest");
    return E_IO;
  }
  id->assign(reinterpret_cast<char*>(md), mdLen);
  return 0;
}
