// InitSecurity with the installation's paths: the product keeps its keys in
// /var/kolt/ssl, the test installation keeps key and certificate together in
// zel.pem under the repository directory; the authorized-keys file sits beside
// the key in both.
#include "zel/kxsec.h"

#include "zel/zelutils.h"

int InitSecurity() {
  return InitSecurityAt(SecPathsForKey(std::string(zelKeyFilePath), std::string(zelCertFilePath)));
}
