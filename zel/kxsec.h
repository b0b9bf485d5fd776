// Peer authentication: both ends of a connection prove, by a handshake over the
// secure transport, that they hold a private key whose public half is in the
// local authorized-keys file; the connection then carries plain messages.
//
// Key generations: aGen is the accepting server's, cGen the connecting
// client's. The client's context is taken for cGen and the server's for aGen;
// each end then checks the peer's key against the peer's generation.
#ifndef ZEL_KXSEC_H
#define ZEL_KXSEC_H

#include <string>

#include "cfgmgr/clusterInfo.h"
#include "transport/sectransport.h"
#include "zel/kxcomm_addr.h"
#include "zel/zelglobals.h"

// Where the local keys and the authorized-keys file are.
struct SecPaths {
  SecKeyFiles keys;
  std::string authKeysPath;
};

// The paths around a key file: the authorized-keys file "authorized_zel_keys"
// in the key's directory, and the new pair of a key change named after the
// committed one ("id_rsa_committed" -> "id_rsa_new", "zel.pem" -> "zel.new.pem").
SecPaths SecPathsForKey(const std::string& keyPath, const std::string& certPath);

// Creates the transport and reads the authorized-keys file; without the file
// authentication is off and 0 is returned. The paths are kept for refreshes.
int InitSecurityAt(const SecPaths& paths);
// InitSecurityAt with the installation's key paths.
int InitSecurity();
// Reloads the library and keys and re-reads the file. Initialisation, refresh
// and shutdown may run while other threads authenticate: each handshake sees
// the keys and lists before or after them, never half-replaced ones.
int RefreshSecurity();
// Parses the file into the list not in force and puts that one in force.
int zelRefreshAuthorizedKeys();
// Drops all security state (end of run, tests).
void ShutdownSecurity();

// The local key generation: -1 for an empty list, else the first entry's new
// generation when set, else its committed generation.
int zelGetKeyGenNumber();
// The first entry's cluster name (this node's cluster), or "".
std::string zelGetClusterName();
// The list in force; for single-threaded callers (a refresh may reuse it).
const ClusterInfoList& zelAuthorizedKeys();

// The parameters of one authentication.
struct SecAuthParams {
  int aGen;
  int cGen;
  const char* cipherList;
};
// From what the greeting learnt: outgoing, aGen is the peer's generation and
// cGen ours; incoming, the reverse. The cipher list is the one in force.
SecAuthParams OutgoingAuthParams(const SdrSecInfo& info);
SecAuthParams IncomingAuthParams(const SdrSecInfo& info);

// Client and server side on a connected socket. 0, 720 (parameters missing or
// a cipher list other than "AUTHONLY"), 703 (no context for the generation or
// the peer not authorized) or the transport's error.
int AuthenticateOutgoingWith(int sock, const SecAuthParams& p);
int AuthenticateIncomingWith(int sock, const SecAuthParams& p);
// The same with the parameters from info; 0 at once while security is off.
int AuthenticateOutgoing(int sock, const SdrSecInfo& info);
int AuthenticateIncoming(int sock, const SdrSecInfo& info);

// Whether the session's peer key is listed: as a committed key of generation
// gen (gen 0 matches any committed generation) or as a new key of exactly gen.
bool isAuthorized(const SecSession& session, int gen);
bool isAuthorizedKey(const std::string& keyId, int gen);

bool isFIPS1402();
int getNistVar();

// Hands the security state to the connection layer.
void InstallKxSecurity();

#endif  // ZEL_KXSEC_H
