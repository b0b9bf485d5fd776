// The listings lsnodes, lsdisks and config, and the fetch of the repository's
// node and disk lists that they share with the configuration changes.
#include <errno.h>
#include <stdio.h>

#include <map>
#include <set>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zeladmin.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"

namespace {

const char* boolText(bool b) {
  return b ? "true" : "false";
}

// Fetches the repository file name into tmpPath and reads it with readFn.
template <typename List>
int fetchList(const char* name, const char* tmpPath, int* seq, CommittedState* committed,
              List* list, int (*readFn)(const std::string&, List*)) {
  int fileId = 0;
  int rc = PaxosFileGet(name, tmpPath, seq, committed, &fileId, -1);
  if (rc == 0) rc = readFn(tmpPath, list);
  PlatUnlink(tmpPath);
  return rc;
}

int listNodes(const ZelSettings& s) {
  int seq = 0;
  CommittedState committed;
  Nodes nodes;
  int rc = getNodeList(&seq, &committed, &nodes);
  if (rc != 0) return rc;
  std::map<int, const NodeDescriptor*> cfg;
  for (const NodeDescriptor& d : committed.config.nodes) cfg.emplace(d.id, &d);
  if (s.yOpt) {
    puts("nodeId:nodeName:diskSlot:version:active:listen:ip:port");
  } else {
    puts(
        " node  slot version active listen  address                name\n"
        "----- ----- ------- ------ ------  ---------------------  -----------------------");
  }
  for (const Node& n : nodes) {
    auto it = cfg.find(n.id);
    NodeDescriptor d;  // slot -1, version 0, not listening
    bool active = it != cfg.end();
    if (active) d = *it->second;
    std::string loc = locToString(n.addr.addr, n.addr.port);
    if (s.yOpt) {
      printf("%d:%s:%d:%d:%s:%s:%s\n", n.id, n.name.c_str(), d.slot, d.version, boolText(active),
             boolText(d.listen), loc.c_str());
    } else {
      printf("%5d %5d %7d %6s %6s  %-22s %s\n", n.id, d.slot, d.version, boolText(active),
             boolText(d.listen), loc.c_str(), n.name.c_str());
    }
  }
  return 0;
}

int listDisks(const ZelSettings& s) {
  int seq = 0;
  CommittedState committed;
  DiskMap disks;
  int rc = getDiskList(&seq, &committed, &disks);
  if (rc != 0) return rc;
  std::set<int> active(committed.config.disks.begin(), committed.config.disks.end());
  if (s.yOpt) {
    puts("diskId:diskLabel:diskType:status");
  } else {
    puts(
        " disk status type        label                           \n"
        "----- ------ ----------- --------------------------------");
  }
  for (const auto& [num, disk] : disks) {
    const char* status = active.count(num) ? "active" : disk.old ? "old" : "stdby";
    std::string label = disk.label, type;
    if (isDiskDesc(label)) {
      size_t colon = label.find(':');
      type = colon == std::string::npos ? "generic" : label.substr(colon + 1);
      label = label.substr(0, colon);
    } else {
      type = IsAbsPath(label) ? "file" : "unknown";
    }
    if (s.yOpt) {
      printf("%d:%s:%s:%s\n", num, label.c_str(), type.c_str(), status);
    } else {
      printf("%5d %-6s %-11s %s\n", num, status, type.c_str(), label.c_str());
    }
  }
  return 0;
}

}  // namespace

int lockTmpLists(PlatLockFile* lock) {
  int rc = lock->lock(kTmpListsLock, kTmpListsWaitMs);
  if (rc != 0) {
    fprintf(stderr, "Cannot lock '%s' (err %d)\n", kTmpListsLock, rc);
    SetErrorCause("%s", rc == ETIMEDOUT ? "another kxzel command kept the lock"
                        : rc == E_INVAL ? "the lock file is not a regular file"
                                        : PlatStrError(rc));
  }
  return rc;
}

int getNodeList(int* seq, CommittedState* committed, Nodes* nodes) {
  PlatLockFile lock;
  int rc = lockTmpLists(&lock);
  if (rc == 0) rc = fetchList("zel.nodes", kTmpNodesFile, seq, committed, nodes, readNodeList);
  if (rc == 0 && nodes->empty()) {
    // Installing it would leave this host without any server to ask.
    SetErrorCause("the repository's node list is empty");
    rc = E_NODELIST_EMPTY;
  }
  if (rc == 0) rc = SetNodeList(*nodes, true);
  if (rc != 0) fprintf(stderr, "Failed to retrieve current node list (err %d)\n", rc);
  return rc;
}

int getDiskList(int* seq, CommittedState* committed, DiskMap* disks) {
  PlatLockFile lock;
  int rc = lockTmpLists(&lock);
  if (rc == 0) rc = fetchList("zel.disks", kTmpDisksFile, seq, committed, disks, readDiskList);
  if (rc == 0) rc = SetDiskList(*disks);
  if (rc != 0) fprintf(stderr, "Failed to retrieve current disk list (err %d)\n", rc);
  return rc;
}

int LsNodesCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  return rc != 0 ? rc : listNodes(s);
}

int LsDisksCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  return rc != 0 ? rc : listDisks(s);
}

// One start-up for both tables.
int ConfigCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  if (rc == 0) rc = listNodes(s);
  if (rc != 0) return rc;
  putchar('\n');
  return listDisks(s);
}
