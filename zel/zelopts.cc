// Option parsing, the usage text and the exit-status mapping.
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"

namespace {

const char kUsage[] =
    "Usage: %s subcommand common-options subcommand-options...\n\nSubcommands:\n  setup [-c "
    "certFile] [-p nodeList] [-F]\n                                      -- first-time per-node "
    "setup\n  init -n nodeList [-d diskList] [-D disksDir]\n                                    "
    "  -- create new repository\n  auth                                -- refresh security "
    "config\n  lsnodes                             -- list quorum node configuration\n  chnodes "
    "-n nodeList [-F]            -- change the quorum node configuration\n  lsdisks             "
    "                -- list tiebreaker disk configuration\n  chdisks -d diskList               "
    "  -- change the tiebreaker disk configuration\n  vlist                               -- "
    "list named values\n  vput [-c version ] [-v version] name value\n                         "
    "             -- store named value\n  vget [-c version ] name             -- retrieve named "
    "value\n  vdel [-c version ] name             -- delete named value\n  flist               "
    "                -- list files stored in repository\n  fput [-c version ] [-v version] name "
    "localpath\n                                      -- store localpath as named file in "
    "repository\n  fget [-c version ] name localpath   -- retrieve named file from repository "
    "into localpath\n  fdel [-c version ] name             -- deleted named file from "
    "repository\n\nCommon options:\n  -P port: port number\n  -F: force (override "
    "warning)\n  -V: more diagnostic output (repeatable)\n\nSubcommand specific options:\n  -c "
    "version: conditionally put/get\n  -v version: store as specified version\n  -y: "
    "colon-separated output (lsnodes, lsdisks, config)\n";

// Versions travel with a bias of -1 and decode up to 2^31 - 1: -1 (none) to
// 2^31 - 2.
constexpr long long kMaxVersion = 2147483646LL;

// Stores the value of text in *out when it is a number in [min, max]; else
// records a usage error naming the option and the text.
bool toInt(const char* text, char opt, long long min, long long max, int* out, ZelSettings* s) {
  long long v = 0;
  if (!ParseDecimal(text, min, max, &v)) {
    s->usageError = "invalid value '" + std::string(text) + "' for -" + opt + " (a number from " +
                    std::to_string(min) + " to " + std::to_string(max) + ")";
    return false;
  }
  *out = static_cast<int>(v);
  return true;
}

// Appends the comma-separated pieces of text, empty ones included.
void appendItems(const char* text, ZelArgs* items) {
  std::string s(text);
  size_t start = 0;
  for (;;) {
    size_t comma = s.find(',', start);
    if (comma == std::string::npos) {
      items->push_back(s.substr(start));
      return;
    }
    items->push_back(s.substr(start, comma - start));
    start = comma + 1;
  }
}

}  // namespace

int ParseOptions(int argc, char** argv, ZelSettings* s) {
  s->pgmName = argv[0];
  s->subcmd = argc > 1 ? argv[1] : "";
  // Start the parser afresh: a scan that runs out at once, then the real one
  // from the word after the subcommand.
  char dummyName[] = "kxzel";
  char* dummy[] = {dummyName, nullptr};
  optind = 0;
  getopt(1, dummy, "");
  optind = 2;
  int c;
  while ((c = getopt(argc, argv, "VyFP:p:n:f:d:D:c:v:?")) != -1) {
    switch (c) {
      case 'V':
        s->traceLevel++;
        break;
      case 'y':
        s->yOpt = true;
        break;
      case 'F':
        s->force = true;
        break;
      case 'P':
        // 0 and below mean "no port given", as the store reads them.
        if (!toInt(optarg, 'P', INT_MIN, 65535, &s->portOpt, s)) return -1;
        break;
      case 'p':
      case 'n':
        appendItems(optarg, &s->nodeArgs);
        trace(4, "Parsed %d nodes from the given list of nodes",
              static_cast<int>(s->nodeArgs.size()));
        break;
      case 'f':
        if (!toInt(optarg, 'f', INT_MIN, INT_MAX, &s->fValue, s)) return -1;
        break;
      case 'd':
        appendItems(optarg, &s->diskArgs);
        trace(4, "Parsed %d disks from the given list of disks",
              static_cast<int>(s->diskArgs.size()));
        break;
      case 'D':
        if (optarg[0] == '\0') {
          fputs("No directory for disks specified", stderr);
        } else if (optarg[0] != '/') {
          s->usageError = "disk directory '" + std::string(optarg) + "' is not an absolute path";
          return -1;
        } else {
          s->diskDir = optarg;
          trace(4, "Given directory for disks: '%s'", optarg);
        }
        break;
      case 'c':
        if (s->subcmd == "setup") {
          s->certFile = optarg;
        } else if (s->subcmd == "init") {
          if (!ParseDecimalU64(optarg, &s->clusterId)) {
            s->usageError = "invalid cluster id '" + std::string(optarg) +
                            "' for -c (a number from 0 to 18446744073709551615)";
            return -1;
          }
        } else if (!toInt(optarg, 'c', -1, kMaxVersion, &s->condVersion, s)) {
          return -1;
        }
        break;
      case 'v':
        if (!toInt(optarg, 'v', -1, kMaxVersion, &s->storeVersion, s)) return -1;
        break;
      default:
        return -1;
    }
  }
  for (int i = optind; i < argc; i++) s->args.push_back(argv[i]);
  return 0;
}

std::string checkEnvironment() {
  const struct {
    const char* name;
    long long min, max;
  } kVars[] = {{"ZEL_PORT", 1, 65535}, {"ZEL_DEBUG", INT_MIN, INT_MAX}, {"ZEL_TRACE", 0, 255}};
  for (const auto& var : kVars) {
    const char* text = getenv(var.name);
    long long v = 0;
    // Empty counts as not set.
    if (text == nullptr || *text == '\0' || ParseDecimal(text, var.min, var.max, &v)) continue;
    return "invalid value '" + std::string(text) + "' for " + var.name + " (a number from " +
           std::to_string(var.min) + " to " + std::to_string(var.max) + ")";
  }
  return std::string();
}

std::string UsageText(const std::string& pgm) {
  std::string text(kUsage);
  text.replace(text.find("%s"), 2, pgm);
  return text;
}

void usageExit(const char* msg) {
  if (msg != nullptr) fprintf(stderr, "%s\n", msg);
  fflush(stderr);
  fputs(UsageText(pgmName).c_str(), stdout);
  fflush(stdout);
  exit(1);
}

void argCountCheck(int have, int want, const char* what) {
  if (have < want) {
    fprintf(stderr, "%s parameter missing\n\n", what);
    usageExit();
  }
  if (have > want) {
    fputs("Too many arguments\n\n", stderr);
    usageExit();
  }
}

int ExitStatusFor(int err) {
  static const struct {
    int err;
    int status;
  } kTable[] = {
      {E_OK, 0},
      {E_ZEL_NODE_INIT, 150},
      {E_ZEL_DISK_INIT, 151},
      {E_ZEL_VERSION_MISMATCH, 153},
      {E_ZEL_VERSION_MATCH, 155},
      {E_ZEL_INVALID_VERSION, 154},
      {E_NODELIST_EMPTY, 156},
      {E_TRY_OTHERS, 157},
  };
  for (const auto& row : kTable) {
    if (row.err == err) return row.status;
  }
  return 149;
}
