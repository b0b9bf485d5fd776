// The command-line front end: settings from the options, the subcommand table,
// start-up, usage errors, the exit-status mapping, and node and disk list
// arguments.
#ifndef ZEL_ZELCMD_H
#define ZEL_ZELCMD_H

#include <string>
#include <vector>

#include "zel/zelutils.h"

using ZelArgs = std::vector<std::string>;

// What the options and the command line gave.
struct ZelSettings {
  std::string pgmName;               // argv[0], for the usage text
  std::string subcmd;                // the subcommand word
  int portOpt = -1;                  // -P; below 1 lets the store choose
  int traceLevel = 0;                // number of -V
  bool yOpt = false;                 // -y: colon-separated listings
  bool force = false;                // -F
  unsigned long long clusterId = 0;  // -c for init
  std::string certFile;              // -c for setup
  int condVersion = -1;              // -c for everything else; -1 no condition
  int storeVersion = -1;             // -v
  int fValue = -1;                   // -f (accepted, unused)
  ZelArgs nodeArgs;                  // -n / -p items
  ZelArgs diskArgs;                  // -d items
  std::string diskDir;               // -D
  ZelArgs args;                      // positional arguments
  std::string usageError;            // why ParseOptions refused the command line
};

// Parses options from argv[2] on (argv[1] is the subcommand). Returns 0, or -1
// after an invalid option or a value that is not a number in range (then
// s->usageError names it). Prints the -D note itself.
int ParseOptions(int argc, char** argv, ZelSettings* s);
// The first of ZEL_PORT, ZEL_DEBUG and ZEL_TRACE that is set, not empty and not
// a number in range, as a usage error text; empty when all are well formed.
std::string checkEnvironment();

// The usage text with pgm in place of the program name.
std::string UsageText(const std::string& pgm);
// Prints msg (if any) and a newline on stderr, the usage text on stdout, exits 1.
[[noreturn]] void usageExit(const char* msg = nullptr);
// Exits through usageExit unless have == want.
void argCountCheck(int have, int want, const char* what);
// The one mapping of error codes to exit statuses.
int ExitStatusFor(int err);

// Shared start-up: lock, local store and security; with needServers also the
// node list (812 when empty) and server discovery.
int doInit(const ZelSettings& s, bool needServers);

// How a subcommand starts up before its handler runs.
enum class Startup { kNone, kOwn, kLocal, kFull };
// How the positional arguments are checked.
enum class ArgCheck { kExact, kAny, kExactElseMisc };

using ZelHandler = int (*)(const ZelSettings& s, const ZelArgs& args);

struct SubcommandRow {
  const char* name;
  ZelHandler handler;
  Startup startup;
  ArgCheck check;
  int nargs;         // for kExact / kExactElseMisc
  const char* what;  // word of the "parameter missing" message
  bool needsNodes;   // "-n option missing" without -n / -p
  bool localFile;    // args[1] is a local file that must exist
};

// The row of word, or null.
const SubcommandRow* FindSubcommand(const std::string& word);
// Checks arguments, starts up and runs the handler; returns its error code.
// Usage errors (and unknown words) exit with status 1.
int RunSubcommand(const ZelSettings& s);

// ---- Subcommand handlers (each returns an error code) ----

int SetupCommand(const ZelSettings& s, const ZelArgs& args);
int InitCommand(const ZelSettings& s, const ZelArgs& args);
int AuthCommand(const ZelSettings& s, const ZelArgs& args);
int LsNodesCommand(const ZelSettings& s, const ZelArgs& args);
int ChNodesCommand(const ZelSettings& s, const ZelArgs& args);
int LsDisksCommand(const ZelSettings& s, const ZelArgs& args);
int ChDisksCommand(const ZelSettings& s, const ZelArgs& args);
int VlistCommand(const ZelSettings& s, const ZelArgs& args);
int VgetCommand(const ZelSettings& s, const ZelArgs& args);
int VputCommand(const ZelSettings& s, const ZelArgs& args);
int VdelCommand(const ZelSettings& s, const ZelArgs& args);
int FlistCommand(const ZelSettings& s, const ZelArgs& args);
int FgetCommand(const ZelSettings& s, const ZelArgs& args);
int FputCommand(const ZelSettings& s, const ZelArgs& args);
int FdelCommand(const ZelSettings& s, const ZelArgs& args);
int ConfigCommand(const ZelSettings& s, const ZelArgs& args);
int RefreshCommand(const ZelSettings& s, const ZelArgs& args);
// echo, trace, msglevel, netdown; the word is s.subcmd.
int DebugCommand(const ZelSettings& s, const ZelArgs& args);
int DumpCommand(const ZelSettings& s, const ZelArgs& args);
int ShowCommand(const ZelSettings& s, const ZelArgs& args);
int ReadPaxosCommand(const ZelSettings& s, const ZelArgs& args);
int QuitCommand(const ZelSettings& s, const ZelArgs& args);
// One line per node of the local node list (its "status" and round trip) and per
// tiebreaker disk; 819 when fewer than HealthNodesRequired nodes are up.
int HealthCommand(const ZelSettings& s, const ZelArgs& args);
int HealthNodesRequired(int nodes, int disks);

// Asks every node, in order, to reload its authentication configuration. Each
// failure is reported on stderr; all nodes are asked. The first failure's
// error, or 0 (also for an empty set).
int refreshAuth(const Nodes& nodes);

// Provided by the client and security units.
int PaxosInit();
int InitSecurity();

class CommittedState;
// Prints the state's configuration, leader, applied updates, values and files
// on standard output.
void printCommittedState(const CommittedState& committed);

// ---- Node and disk list arguments ----

// Fills nodes from the items, checking them against the local lists. Every bad
// item is reported and skipped; returns 22 if any was, else 0.
int parseNodeList(const ZelArgs& items, Nodes* nodes, bool assignIds);
// As parseNodeList; without items this node, or "localhost" unless requireServer.
int parseNodeListDefaultLocal(const ZelArgs& items, Nodes* nodes, bool requireServer);
// Fills disks from the items; diskDir must be empty or absolute. Stops at the
// first bad label with 22.
int parseDiskList(const ZelArgs& items, const std::string& diskDir, DiskMap* disks);
// The first node item whose id or port is not a number in range, as a usage
// error text naming it; empty when every item is well formed.
std::string checkNodeArgs(const ZelArgs& items);
// "addr:port", or "[addr]:port" for IPv6.
std::string locToString(const std::string& addr, int port);
// The resolved address text (IPv4 preferred), empty when host does not resolve.
std::string GetHostByName(const std::string& host);

#endif  // ZEL_ZELCMD_H
