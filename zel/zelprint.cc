// Printing of a committed state for the show and readpaxos subcommands.
#include <cstdio>
#include <sstream>
#include <string>

#include "zel/paxosdata.h"
#include "zel/zelcmd.h"

namespace {

template <typename T>
std::string textOf(const T& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}

}  // namespace

void printCommittedState(const CommittedState& committed) {
  printf("config: minNodes: %d version %d\n", committed.config.minNodes, committed.cfgVersion);
  printf("  nodes: %s\n", textOf(committed.config.nodes).c_str());
  printf("  disks: %s\n", textOf(committed.config.disks).c_str());
  printf("leader: id %d version %d\n", committed.leaderId, committed.leaderVersion);
  printf("updates: horizon %d\n", committed.updateHorizon);
  for (const auto& u : committed.updateList) {
    // One stream as the update list text shows it: "(nN,eE): seq".
    printf("  %s: %d\n", textOf(u.first).c_str(), u.second);
  }
  if (committed.valueList.empty()) {
    printf("values: None, max deleted version %d\n", committed.maxDeletedValueVersion);
  } else {
    printf("values: %d, max deleted version %d\n", static_cast<int>(committed.valueList.size()),
           committed.maxDeletedValueVersion);
    for (const auto& v : committed.valueList) {
      printf("  %s = version %d \"%s\"\n", v.first.c_str(), v.second.version,
             v.second.value.c_str());
    }
  }
  if (committed.fileList.empty()) {
    printf("files: None, max deleted version %d\n", committed.maxDeletedFileVersion);
  } else {
    printf("files: %d, max deleted version %d\n", static_cast<int>(committed.fileList.size()),
           committed.maxDeletedFileVersion);
    for (const auto& f : committed.fileList) {
      printf("  %d = version %d uid %s\n", f.first, f.second.version,
             f.second.uid.toString().c_str());
    }
  }
}
