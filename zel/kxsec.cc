#include "zel/kxsec.h"

#include <string.h>
#include <sys/stat.h>

#include <atomic>
#include <mutex>
#include <new>
#include <shared_mutex>

#include "platform/pfile.h"
#include "zel/kxcomm.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

// A server re-reads its keys ("auth") while other connections are in their
// handshakes: initialisation, refresh and shutdown hold the lock exclusively,
// readers of the keys, the lists and the settings hold it shared. A handshake
// holds it only to take its context and to check the peer's key, never while it
// waits on the socket, so a stalled peer cannot hold up a refresh.
std::shared_mutex secMu;
using ReadLock = std::shared_lock<std::shared_mutex>;
using WriteLock = std::unique_lock<std::shared_mutex>;

SecPaths secPaths;
// Two lists: a refresh fills the one not in force and then switches.
ClusterInfoList authKeys[2];
std::atomic<int> inForce{0};

int keyGenNumberLocked() {
  const ClusterInfo* head = authKeys[inForce.load()].getHead();
  if (head == nullptr) return -1;
  return head->newKeyGenNumber != -1 ? head->newKeyGenNumber : head->committedKeyGenNumber;
}

std::string clusterNameLocked() {
  const ClusterInfo* head = authKeys[inForce.load()].getHead();
  return head ? head->clusterName : std::string();
}

bool authorizedKeyLocked(const std::string& keyId, int gen) {
  if (keyId.empty()) return false;
  const ClusterInfoList& list = authKeys[inForce.load()];
  for (const ClusterInfo* ci = list.getHead(); ci; ci = ClusterInfoList::next(ci)) {
    if (ci->committedKey == keyId && (gen == 0 || ci->committedKeyGenNumber == gen)) return true;
    // No wildcard for the new key: it is accepted only under its own generation.
    if (ci->newKey == keyId && ci->newKeyGenNumber == gen) return true;
  }
  return false;
}

int refreshAuthorizedKeysLocked();
void installLocked();

// Binds the local key pairs to the generations of this node's cluster.
void BindGenerations() {
  if (secImpP == nullptr) return;
  const ClusterInfo* head = authKeys[inForce.load()].getHead();
  secImpP->bindGenerations(head ? head->committedKeyGenNumber : -1,
                           head ? head->newKeyGenNumber : -1);
}

int LoadLibraryAndKeys() {
  int rc = secImpP->loadLibrary();
  if (rc != 0) {
    trace(0, "Auth: failed to load security library (err %d)", rc);
    return rc;
  }
  rc = secImpP->loadKeys(secPaths.keys);
  if (rc != 0) trace(0, "Auth: failed to load private keys (err %d)", rc);
  return rc;
}

void TraceStatus() {
  trace(3, "Auth: secReady %d cipherList '%s' keyGenNumber %d", zelSecReady ? 1 : 0,
        zelCipherListP ? zelCipherListP : "", keyGenNumberLocked());
}

std::string NewName(const std::string& path) {
  size_t slash = path.rfind('/');
  size_t base = slash == std::string::npos ? 0 : slash + 1;
  size_t c = path.find("committed", base);
  if (c != std::string::npos) return path.substr(0, c) + "new" + path.substr(c + 9);
  size_t dot = path.rfind('.');
  if (dot != std::string::npos && dot > base)
    return path.substr(0, dot) + ".new" + path.substr(dot);
  return path + ".new";
}

int Authenticate(int sock, const SecAuthParams& p, bool outgoing) {
  const char* cipher = p.cipherList;
  if (p.aGen == -1 || p.cGen == -1 || cipher == nullptr || strcmp(cipher, "AUTHONLY") != 0) {
    trace(3, "Auth: missing key or cypher list: aGen %d cGen %d cipher %s", p.aGen, p.cGen,
          cipher ? cipher : "(null)");
    return E_AUTH_PARAMS;
  }
  int ownGen = outgoing ? p.cGen : p.aGen;
  int peerGen = outgoing ? p.aGen : p.cGen;
  tls::SSL_CTX* ctx = nullptr;
  {
    ReadLock lock(secMu);
    ctx = secImpP ? secImpP->getContext(ownGen) : nullptr;
  }
  if (ctx == nullptr) {
    trace(3, "Auth: unkown key gen %d ", ownGen);
    return E_AUTH_FAILED;
  }
  // The counted context outlives a refresh that replaces the keys meanwhile.
  int rc;
  {
    SecSession session(tls::Get(), ctx, sock);
    rc = outgoing ? session.connect() : session.accept();
    if (rc == 0 && !isAuthorized(session, peerGen)) {
      trace(3, "Auth isAuthorized(key gen %d) returns false", peerGen);
      rc = E_AUTH_FAILED;
    }
    int closeRc = session.close();
    if (rc == 0) rc = closeRc;
  }
  trace(4, "%s aGen %d cGen %d cipher '%s' returns %d",
        outgoing ? "AuthenticateOutgoing" : "AuthenticateIncoming", p.aGen, p.cGen, cipher, rc);
  // Through the library: a shutdown may have dropped the transport meanwhile.
  tls::Get()->SSL_CTX_free(ctx);
  return rc;
}

}  // namespace

SecPaths SecPathsForKey(const std::string& keyPath, const std::string& certPath) {
  SecPaths p;
  p.keys.keyPath = keyPath;
  p.keys.certPath = certPath;
  p.keys.newKeyPath = NewName(keyPath);
  p.keys.newCertPath = NewName(certPath);
  size_t slash = keyPath.rfind('/');
  p.authKeysPath = (slash == std::string::npos ? std::string() : keyPath.substr(0, slash + 1)) +
                   "authorized_zel_keys";
  return p;
}

int InitSecurityAt(const SecPaths& paths) {
  WriteLock lock(secMu);
  if (secImpP == nullptr) secImpP = new (std::nothrow) SecTransport;
  ZASSERT_T(secImpP != nullptr, "secImpP");
  secPaths = paths;
  struct stat st;
  if (PlatStat(paths.authKeysPath.c_str(), &st) != 0) {
    trace(1, "Auth: '%s' does not exist", paths.authKeysPath.c_str());
    zelSecReady = false;
    installLocked();
    return 0;
  }
  int rc = ReadFipsMode(paths.authKeysPath.c_str(), &encryptionFIPS1402ModeZEL);
  if (rc == 0 && !secImpP->libraryLoaded()) rc = LoadLibraryAndKeys();
  if (rc == 0) rc = refreshAuthorizedKeysLocked();
  if (rc == 0) {
    zelSecReady = true;
    zelCipherListP = kSecCipherAuthOnly;
  }
  TraceStatus();
  installLocked();
  return rc;
}

// The product keeps its keys in /var/kolt/ssl, the test installation keeps key
// and certificate together in zel.pem under the repository directory; the
// authorized-keys file sits beside the key in both.
int InitSecurity() {
  return InitSecurityAt(SecPathsForKey(zelKeyFilePath, zelCertFilePath));
}

int RefreshSecurity() {
  WriteLock lock(secMu);
  if (secImpP == nullptr) secImpP = new (std::nothrow) SecTransport;
  ZASSERT_T(secImpP != nullptr, "secImpP");
  int rc = LoadLibraryAndKeys();
  if (rc == 0) rc = refreshAuthorizedKeysLocked();
  if (rc == 0 && !zelSecReady) {
    zelSecReady = true;
    zelCipherListP = kSecCipherAuthOnly;
  }
  TraceStatus();
  installLocked();
  return rc;
}

int zelRefreshAuthorizedKeys() {
  WriteLock lock(secMu);
  return refreshAuthorizedKeysLocked();
}

namespace {

int refreshAuthorizedKeysLocked() {
  int idx = 1 - inForce.load();
  ClusterInfoList& list = authKeys[idx];
  list.removeAll();
  AuthKeysSettings s;
  int rc = ReadAuthorizedKeys(secPaths.authKeysPath.c_str(), &list, &s);
  if (s.fips1402Mode >= 0) encryptionFIPS1402ModeZEL = s.fips1402Mode;
  if (s.nistCompliance >= 0) EncryptionNistComplianceZEL = s.nistCompliance;
  inForce.store(idx);
  BindGenerations();
  return rc;
}

void installLocked() {
  KxSecurity s;
  s.ready = zelSecReady;
  s.keyGenNumber = keyGenNumberLocked();
  s.clusterName = clusterNameLocked();
  s.authenticateOutgoing = AuthenticateOutgoing;
  SetKxSecurity(s);
}

}  // namespace

void ShutdownSecurity() {
  WriteLock lock(secMu);
  zelSecReady = false;
  zelCipherListP = nullptr;
  encryptionFIPS1402ModeZEL = 1;
  EncryptionNistComplianceZEL = 3;
  authKeys[0].removeAll();
  authKeys[1].removeAll();
  delete secImpP;
  secImpP = nullptr;
}

int zelGetKeyGenNumber() {
  ReadLock lock(secMu);
  return keyGenNumberLocked();
}

std::string zelGetClusterName() {
  ReadLock lock(secMu);
  return clusterNameLocked();
}

const ClusterInfoList& zelAuthorizedKeys() {
  return authKeys[inForce.load()];
}

SecAuthParams OutgoingAuthParams(const SdrSecInfo& info) {
  return {info.peerKeyGenNumber, info.keyGenNumber, zelCipherListP};
}

SecAuthParams IncomingAuthParams(const SdrSecInfo& info) {
  return {info.keyGenNumber, info.peerKeyGenNumber, zelCipherListP};
}

int AuthenticateOutgoingWith(int sock, const SecAuthParams& p) {
  return Authenticate(sock, p, true);
}

int AuthenticateIncomingWith(int sock, const SecAuthParams& p) {
  return Authenticate(sock, p, false);
}

int AuthenticateOutgoing(int sock, const SdrSecInfo& info) {
  SecAuthParams p;
  {
    ReadLock lock(secMu);
    if (!zelSecReady) return 0;
    p = OutgoingAuthParams(info);
  }
  return AuthenticateOutgoingWith(sock, p);
}

int AuthenticateIncoming(int sock, const SdrSecInfo& info) {
  SecAuthParams p;
  {
    ReadLock lock(secMu);
    if (!zelSecReady) return 0;
    p = IncomingAuthParams(info);
  }
  return AuthenticateIncomingWith(sock, p);
}

bool isAuthorized(const SecSession& session, int gen) {
  std::string der, id;
  if (session.peerPublicKey(&der) != 0 || SecKeyId(der, &id) != 0) return false;
  return isAuthorizedKey(id, gen);
}

bool isAuthorizedKey(const std::string& keyId, int gen) {
  ReadLock lock(secMu);
  return authorizedKeyLocked(keyId, gen);
}

bool isFIPS1402() {
  ReadLock lock(secMu);
  return encryptionFIPS1402ModeZEL != 0;
}

int getNistVar() {
  ReadLock lock(secMu);
  return EncryptionNistComplianceZEL;
}

// The greeting's record 6 and the authentication of a connection's first message.
void InstallKxSecurity() {
  ReadLock lock(secMu);
  installLocked();
}
