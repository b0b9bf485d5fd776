// kxzel front end: main and mainBody.
#include <stdio.h>
#include <stdlib.h>

#include "platform/ptemp.h"
#include "platform/ptrace.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zeldeadline.h"
#include "zel/zelprogress.h"
#include "zel/zelutils.h"
#include "zel/zelversion.h"

namespace {

const char kTraceDevice[] = "/dev/trace0";
// Entries of the trace-class table that the front end raises when tracing is on.
const int kFrontTraceClasses[] = {0, 1};

void openTraceDevice() {
  if (platformTraceFd >= 0) return;
  int fd = -1;
  if (PlatTraceOpen(kTraceDevice, &fd) != 0) return;  // tracing stays off
  platformTraceFd = fd;
  int level = 0;
  if (PlatTraceGetLevel(fd, &level) != 0) {
    platformTraceLevel = 0;
    return;
  }
  if (level == 1 || level == 5) {
    platformTraceLevel = 5;
  } else if (level >= 2 && level <= 4) {
    platformTraceLevel = 4;
  } else {
    platformTraceLevel = 0;
  }
  if (platformTraceLevel > 0) {
    for (int c : kFrontTraceClasses) traceClassLevels[c] = 4;
  }
}

void closeTraceDevice() {
  if (platformTraceFd >= 0) {
    PlatTraceClose(platformTraceFd);
    platformTraceFd = -1;
  }
}

}  // namespace

int mainBody(int argc, char** argv) {
  pgmName = argv[0];
  if (PrintVersionIfAsked(argc, argv)) return 0;
  // The deadline counts from the start.
  std::string badDeadline = ApplyDeadlineFromEnv();
  InitZelTrace();
  if (argc < 2) usageExit();

  std::string cmdLine;
  for (int i = 0; i < argc; i++) {
    if (i > 0) cmdLine += " ";
    cmdLine += argv[i];
  }
  openTraceDevice();
  trace(1, "called: '%s'", cmdLine.c_str());

  ZelSettings s;
  if (ParseOptions(argc, argv, &s) != 0) {
    usageExit(s.usageError.empty() ? "invalid option" : s.usageError.c_str());
  }
  std::string badEnv = checkEnvironment();
  if (badEnv.empty()) badEnv = badDeadline;
  if (!badEnv.empty()) usageExit(badEnv.c_str());
  if (s.subcmd == "fput" || s.subcmd == "fget") StartProgress(s.subcmd.c_str());
  // Ctrl-C or a kill during a transfer takes the partial file with it.
  PlatInstallTempCleanup();
  // -V raises the diagnostics level above what ZEL_DEBUG gives.
  zelTraceBoost = s.traceLevel;
  InitZelTrace();

  int rc = RunSubcommand(s);
  // The cause, when one was recorded, follows the command's own message.
  if (rc != 0 && !ErrorCause().empty()) fprintf(stderr, "%s\n", ErrorCause().c_str());
  int status = ExitStatusFor(rc);
  fflush(stdout);
  closeTraceDevice();
  return status;
}

int main(int argc, char** argv) {
#ifdef ZEL_TEST_INSTALL
  isTrovInstall = false;
  isTestInstall = true;
#endif
  exit(mainBody(argc, argv));
}
