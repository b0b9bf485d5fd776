// Hands the security state to the connection layer once that layer is built
// in; until then there is nobody to hand it to.
#include "zel/kxsec.h"

#if __has_include("zel/kxcomm.h")
#include "zel/kxcomm.h"

void InstallKxSecurity() {
  KxSecurity s;
  s.ready = zelSecReady;
  s.keyGenNumber = zelGetKeyGenNumber();
  s.clusterName = zelGetClusterName();
  s.authenticateOutgoing = AuthenticateOutgoing;
  SetKxSecurity(s);
}

#else

void InstallKxSecurity() {}

#endif
