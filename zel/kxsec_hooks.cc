// Hands the security state to the connection layer: the greeting's record 6
// and the authentication exchange of a connection's first message.
#include "zel/kxsec.h"

#include "zel/kxcomm.h"

void InstallKxSecurity() {
  KxSecurity s;
  s.ready = zelSecReady;
  s.keyGenNumber = zelGetKeyGenNumber();
  s.clusterName = zelGetClusterName();
  s.authenticateOutgoing = AuthenticateOutgoing;
  SetKxSecurity(s);
}
