// The secure transport: TLS used only to prove that each end holds a private
// key. A session runs on an already connected socket, driven step by step with
// a bounded readiness wait, and is closed while the socket stays open for the
// plain message protocol. The TLS libraries are loaded at run time.
#ifndef TRANSPORT_SECTRANSPORT_H
#define TRANSPORT_SECTRANSPORT_H

#include <map>
#include <string>

#include "transport/tlsapi.h"

// The one supported cipher list name.
constexpr const char kSecCipherAuthOnly[] = "AUTHONLY";

// Whether the transport supports the cipher list name (exact match).
bool SecCipherListSupported(const char* name);

// Bound on each handshake and on each close, in milliseconds (default 60,000).
// Returns the previous value; tests make it small.
int SecSetTimeoutMs(int ms);

// The local key pairs, PEM files. A key and its certificate may share a file.
// The new pair is optional (used during a key change) and loaded only when its
// key path is not empty and the file exists.
struct SecKeyFiles {
  std::string keyPath;
  std::string certPath;
  std::string newKeyPath;
  std::string newCertPath;
};

// Contexts per key generation. Not thread-safe for loading; getContext and
// releaseContext may be called from several threads once loading is done.
class SecTransport {
 public:
  SecTransport() = default;
  ~SecTransport();
  SecTransport(const SecTransport&) = delete;
  SecTransport& operator=(const SecTransport&) = delete;

  // Loads the TLS libraries; 0, or ELIBACC when they cannot be loaded.
  int loadLibrary();
  bool libraryLoaded() const { return api_ != nullptr; }

  // Replaces the local key pairs. Errors: ENOENT (a file missing), E_IO (not
  // PEM, or key and certificate do not match), ELIBACC (no library).
  int loadKeys(const SecKeyFiles& files);
  bool hasNewKey() const { return newCtx_ != nullptr; }
  // Names the generations of the loaded pairs; -1 binds nothing.
  void bindGenerations(int committedGen, int newGen);

  // A counted reference to the context of the generation, or null.
  tls::SSL_CTX* getContext(int gen);
  void releaseContext(tls::SSL_CTX* ctx);

 private:
  int makeContext(const std::string& key, const std::string& cert, tls::SSL_CTX** out);
  void freeContexts();

  const tls::Api* api_ = nullptr;
  tls::SSL_CTX* committedCtx_ = nullptr;
  tls::SSL_CTX* newCtx_ = nullptr;
  int committedGen_ = -1;
  int newGen_ = -1;
};

// One handshake on a connected socket. The socket is made non-blocking for
// the life of the session and put back as it was afterwards.
class SecSession {
 public:
  // ctx is borrowed and must outlive the session.
  SecSession(const tls::Api* api, tls::SSL_CTX* ctx, int sock);
  ~SecSession();
  SecSession(const SecSession&) = delete;
  SecSession& operator=(const SecSession&) = delete;

  // Client side, waiting under the name "sconnCheck".
  int connect();
  // Server side, waiting under the name "accept".
  int accept();
  // Sends close_notify and consumes the peer's, waiting under "close"; no TLS
  // bytes are left unread, so the socket then carries plain data. After a
  // failed handshake there is nothing to close and it returns 0.
  int close();
  // The peer's public key as DER SubjectPublicKeyInfo; E_AUTH_FAILED if none.
  int peerPublicKey(std::string* der) const;

  // Errors of the three steps: ETIMEDOUT when the time-out passes,
  // E_CONN_SHUTDOWN when the peer closes the socket, a system error number
  // from the socket, E_AUTH_FAILED when the peer breaks the TLS protocol.
 private:
  int drive(int (*step)(const tls::Api*, tls::SSL*), const char* waitName);

 public:
  struct Io {
    int fd = -1;
    bool eof = false;
    int err = 0;
  };

 private:
  const tls::Api* api_;
  tls::SSL* ssl_ = nullptr;
  Io io_;
  bool restoreBlocking_ = false;
  bool established_ = false;
  int setupErr_ = 0;
};

// The identity of a public key: SHA-256 of its DER SubjectPublicKeyInfo.
int SecKeyId(const std::string& der, std::string* id);

#endif  // TRANSPORT_SECTRANSPORT_H
