// Option parsing, the usage text and the exit-status mapping.
#include <getopt.h>
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
    "warning)\n\nSubcommand specific options:\n  -c version: conditionally put/get\n  -v "
    "version: store as specified version\n";

int toInt(const char* text) {
  return static_cast<int>(strtol(text, nullptr, 10));
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
        s->portOpt = toInt(optarg);
        break;
      case 'p':
      case 'n':
        appendItems(optarg, &s->nodeArgs);
        trace(4, "Parsed %d nodes from the given list of nodes",
              static_cast<int>(s->nodeArgs.size()));
        break;
      case 'f':
        s->fValue = toInt(optarg);
        break;
      case 'd':
        appendItems(optarg, &s->diskArgs);
        trace(4, "Parsed %d disks from the given list of disks",
              static_cast<int>(s->diskArgs.size()));
        break;
      case 'D':
        if (optarg[0] == '\0') {
          fputs("No directory for disks specified", stderr);
        } else {
          s->diskDir = optarg;
          trace(4, "Given directory for disks: '%s'", optarg);
        }
        break;
      case 'c':
        if (s->subcmd == "setup") {
          s->certFile = optarg;
        } else if (s->subcmd == "init") {
          s->clusterId = strtoull(optarg, nullptr, 10);
        } else {
          s->condVersion = toInt(optarg);
        }
        break;
      case 'v':
        s->storeVersion = toInt(optarg);
        break;
      default:
        return -1;
    }
  }
  for (int i = optind; i < argc; i++) s->args.push_back(argv[i]);
  return 0;
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
