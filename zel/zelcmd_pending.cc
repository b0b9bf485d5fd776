// TEMPORARY: stand-ins for what later units provide, so that the front end links
// and dispatches now. Each one is not yet available; when its unit lands, delete
// its definition here and define it there with the same signature.
#include <errno.h>
#include <stdio.h>

#include "zel/paxosclient.h"
#include "zel/zelcmd.h"

namespace {

int notAvailable(const ZelSettings& s) {
  fprintf(stderr, "kxzel: subcommand '%s' is not available in this build\n", s.subcmd.c_str());
  return ENOSYS;
}

}  // namespace

// Not yet available.
int SetupCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int InitCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int LsNodesCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int ChNodesCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int LsDisksCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int ChDisksCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int ConfigCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}

// Not yet available.
int DebugCommand(const ZelSettings& s, const ZelArgs&) {
  return notAvailable(s);
}
