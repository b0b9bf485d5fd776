// The subcommand table, argument checks and the shared start-up.
#include <stdio.h>

#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zellock.h"

namespace {

using S = Startup;
using A = ArgCheck;

const SubcommandRow kSubcommands[] = {
    {"setup", SetupCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"init", InitCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"auth", AuthCommand, S::kLocal, A::kExact, 0, "Required", false, false},
    {"lsnodes", LsNodesCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"chnodes", ChNodesCommand, S::kOwn, A::kExact, 0, "Required", true, false},
    {"lsdisks", LsDisksCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"chdisks", ChDisksCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"vlist", VlistCommand, S::kFull, A::kExact, 0, "Required", false, false},
    {"vget", VgetCommand, S::kFull, A::kExact, 1, "name", false, false},
    {"vput", VputCommand, S::kFull, A::kExact, 2, "name or value", false, false},
    {"vdel", VdelCommand, S::kFull, A::kExactElseMisc, 1, "name", false, false},
    {"flist", FlistCommand, S::kFull, A::kAny, 0, "", false, false},
    {"fget", FgetCommand, S::kFull, A::kExact, 2, "name or file", false, false},
    {"fput", FputCommand, S::kFull, A::kExact, 2, "name or file", false, true},
    {"fdel", FdelCommand, S::kFull, A::kExact, 1, "name", false, false},
    {"config", ConfigCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"refresh", RefreshCommand, S::kOwn, A::kExact, 0, "Required", false, false},
    {"echo", DebugCommand, S::kOwn, A::kAny, 0, "", false, false},
    {"trace", DebugCommand, S::kOwn, A::kAny, 0, "", false, false},
    {"msglevel", DebugCommand, S::kOwn, A::kAny, 0, "", false, false},
    {"netdown", DebugCommand, S::kOwn, A::kAny, 0, "", false, false},
    {"dump", DumpCommand, S::kLocal, A::kExact, 0, "Required", false, false},
    {"show", ShowCommand, S::kFull, A::kExact, 0, "Required", false, false},
    {"readpaxos", ReadPaxosCommand, S::kNone, A::kExact, 1, "Required", false, false},
    {"quit", QuitCommand, S::kLocal, A::kExact, 0, "Required", false, false},
    {"health", HealthCommand, S::kOwn, A::kExact, 0, "Required", false, false},
};

}  // namespace

const SubcommandRow* FindSubcommand(const std::string& word) {
  for (const SubcommandRow& row : kSubcommands) {
    if (word == row.name) return &row;
  }
  return nullptr;
}

int doInit(const ZelSettings& s, bool needServers) {
  ZELLockInit();
  int rc = InitZELIO(s.portOpt, 0, true);
  if (rc != 0) {
    fprintf(stderr, "zelio initialization failed (err %d)\n", rc);
    return rc;
  }
  rc = InitSecurity();
  if (rc != 0) {
    fprintf(stderr, "security initialization failed (err %d)\n", rc);
    return rc;
  }
  if (!needServers) return 0;
  if (GetNodeList().empty()) {
    fprintf(stderr, "zel node list missing or empty\n");
    return E_NODELIST_EMPTY;
  }
  PaxosInit();
  return 0;
}

int RunSubcommand(const ZelSettings& s) {
  const SubcommandRow* row = FindSubcommand(s.subcmd);
  if (row == nullptr) {
    fprintf(stderr, "Unknown subcommand: '%s'", s.subcmd.c_str());
    usageExit();
  }
  if (row->needsNodes && s.nodeArgs.empty()) usageExit("-n option missing");
  int nargs = static_cast<int>(s.args.size());
  if (row->check == ArgCheck::kExactElseMisc && nargs != row->nargs) {
    usageExit("missing or extraneous arguments");
  }
  if (row->check != ArgCheck::kAny) argCountCheck(nargs, row->nargs, row->what);
  // Malformed numbers in node items are usage errors, found before anything is
  // created or sent.
  std::string bad = checkNodeArgs(s.nodeArgs);
  if (!bad.empty()) usageExit(bad.c_str());

  // fget with an empty local path streams the file to standard output.
  if (row->handler == FgetCommand && s.args[1].empty()) zelStdoutIsData = true;
  int rc = 0;
  if (row->startup == Startup::kFull || row->startup == Startup::kLocal) {
    rc = doInit(s, row->startup == Startup::kFull);
    if (rc != 0) return rc;
  }
  if (row->localFile && !fileExists(s.args[1])) {
    fprintf(stderr, "'%s' does not exist\n", s.args[1].c_str());
    return E_LOCAL_FILE_MISSING;
  }
  return row->handler(s, s.args);
}
