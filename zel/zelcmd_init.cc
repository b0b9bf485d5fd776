// Repository creation (init), first-time node set-up (setup), and the
// messages and list commits they share with the configuration changes.
#include <stdio.h>

#include <vector>

#include "platform/pfile.h"
#include "platform/ptemp.h"
#include "zel/kxconnect.h"
#include "zel/kxsec.h"
#include "zel/paxosclient.h"
#include "zel/paxosinit.h"
#include "zel/paxosutils.h"
#include "zel/zeladmin.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zellock.h"
#include "zel/zelmsg.h"

namespace {

// The disk part shared by "init" and "pxinit", in slot order.
InitDisks initDisks(const DiskMap& disks) {
  InitDisks out;
  for (const auto& [slot, d] : disks) out.push_back({slot, d.label, d.old != 0});
  return out;
}

// Writes the list to tmpPath, stores it in the repository as name, removes it.
template <typename List>
int commitList(const char* name, const char* tmpPath, const List& list,
               int (*writeFn)(const std::string&, const List&)) {
  PlatLockFile lock;
  int rc = lockTmpLists(&lock);
  if (rc != 0) return rc;
  rc = writeFn(tmpPath, list);
  if (rc != 0) return rc;
  int seq = 0;
  CommittedState committed;
  rc = PaxosFilePut(name, tmpPath, &seq, &committed, -1, -1);
  PlatUnlink(tmpPath);
  return rc;
}

}  // namespace

int commitNodeCfg(const Nodes& nodes) {
  return commitList("zel.nodes", kTmpNodesFile, nodes, writeNodeList);
}

int commitDiskCfg(const DiskMap& disks) {
  return commitList("zel.disks", kTmpDisksFile, disks, writeDiskList);
}

int InitNodes(unsigned long long clusterId, const Nodes& targets, const Nodes& nodes,
              const DiskMap& disks, const Dblock& block) {
  InitRequest req;
  req.clusterId = clusterId;
  for (const Node& n : nodes) {
    ZASSERT_T(n.addr.port >= 0, "port >= 0");
    req.nodes.push_back({n.id, n.old != 0, n.name, n.addr.addr, n.addr.port});
  }
  req.disks = initDisks(disks);
  req.block = block;
  int size = req.getSize();
  std::vector<char> msg(size);
  char* pMsg = msg.data();
  char* end = req.dump(pMsg);
  ZASSERT_T(end == pMsg + size, "init body size");

  int result = 0;
  for (const Node& n : targets) {
    int replyType = -1;
    MsgBody recvMsg;
    int rc = SendReceive(n.id, MSG_TYPE_INIT, pMsg, size, &replyType, &recvMsg, -1);
    if (rc == 0 && !recvMsg.empty()) {
      // The answer carries no body; a server that sends one is not trusted.
      if (zelDebugAsserts) ZASSERT_T(recvMsg.empty(), "recvMsg == NULL");
      rc = E_BAD_MESSAGE;
    }
    if (rc != 0) {
      fprintf(stderr, "initialize %s failed (err %d)\n", n.toString().c_str(), rc);
      result = rc;
    } else {
      trace(4, "initialize %s successful", n.toString().c_str());
    }
  }
  return result;
}

int InitSharedDisks(const Nodes& nodes, const DiskMap& disks, const Dblock& block, int nSlots) {
  trace(4, "InitSharedDisks: nSlots %d diskIdList %s", nSlots, DiskMapToString(disks).c_str());
  PxInitRequest req;
  req.disks = initDisks(disks);
  req.block = block;
  req.nSlots = nSlots;
  std::vector<char> msg;
  int rc = E_IO;
  for (const Node& n : nodes) {
    req.nodeId = n.id;
    msg.resize(req.getSize());
    char* end = req.dump(msg.data());
    ZASSERT_T(end == msg.data() + msg.size(), "pxinit body size");
    int replyType = -1;
    MsgBody reply;
    rc = SendReceive(n.id, MSG_TYPE_PXINIT, msg.data(), static_cast<int>(msg.size()), &replyType,
                     &reply, -1);
    trace(4, "pxinit to %s returned %d", n.toString().c_str(), rc);
    if (rc == 0) break;
  }
  return rc;
}

int SetupCommand(const ZelSettings& s, const ZelArgs&) {
  // Arguments first: nothing is created for a command that is refused.
  if (isTestInstall && s.certFile.empty()) usageExit("-c paramter missing");
  ZELLockInit();
  int rc = InitZELIO(s.portOpt, s.force ? 2 : 1, true);
  if (rc != 0) return rc;
  if (s.nodeArgs.empty()) return 0;
  rc = InitSecurity();
  if (rc != 0) {
    fprintf(stderr, "security initialization failed (err %d)\n", rc);
    return rc;
  }
  Nodes nodes;
  rc = parseNodeList(s.nodeArgs, &nodes, true);
  if (rc != 0) return rc;
  rc = SetNodeList(nodes, false);
  if (rc != 0) return rc;  // two items for this host, say
  PaxosInit();
  int seq = 0;
  CommittedState committed;
  return getNodeList(&seq, &committed, &nodes);
}

int InitCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, false);
  if (rc != 0) return rc;
  Nodes nodes;
  rc = parseNodeList(s.nodeArgs, &nodes, true);
  if (rc != 0) return rc;
  if (s.nodeArgs.empty()) usageExit("node list is empty");

  puts("zel server nodes to be initialized:");
  for (const Node& n : nodes) {
    printf("%d %s %s\n", n.id, locToString(n.addr.addr, n.addr.port).c_str(), n.name.c_str());
  }
  if (nodes.size() > static_cast<size_t>(kMaxZelNodes)) {
    fprintf(stderr, "Too namy nodes (max %d)\n", kMaxZelNodes);
    return E_INVAL;
  }
  DiskMap disks;
  rc = parseDiskList(s.diskArgs, s.diskDir, &disks);
  if (rc != 0) return rc;
  if (!disks.empty()) {
    puts("zel shared disks to be initialized:");
    for (const auto& [slot, d] : disks) printf("%d %s\n", slot, d.label.c_str());
  }
  fflush(stdout);  // the listing comes before any failure message

  NodeList nodeList;
  for (size_t i = 0; i < nodes.size(); i++) {
    NodeDescriptor d;
    d.id = nodes[i].id;
    d.slot = static_cast<int>(i);
    d.version = 0;
    d.listen = true;
    nodeList.push_back(d);
  }
  DiskList diskList;
  for (const auto& entry : disks) diskList.push_back(entry.first);
  Dblock block;
  block.committed.config = PaxosConfig(nodeList, diskList, 1);
  trace(1, "dblk: %s", block.toString().c_str());

  rc = SetNodeList(nodes, true);
  if (rc != 0) {
    fprintf(stderr, "failed to save node list (err %d)\n", rc);
    return rc;
  }
  if (zelSecReady) {
    rc = refreshAuth(nodes);
    if (rc != 0) {
      fprintf(stderr, "authentication initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  if (!disks.empty()) {
    rc = InitSharedDisks(nodes, disks, block, kMaxZelNodes);
    if (rc != 0) {
      fprintf(stderr, "disk initialization failed (err %d)\n", rc);
      return rc;
    }
  }
  rc = InitNodes(s.clusterId, nodes, nodes, disks, block);
  if (rc != 0) {
    fprintf(stderr, "server initialization failed (err %d)\n", rc);
    return rc;
  }
  PaxosInit();
  rc = commitNodeCfg(nodes);
  if (rc != 0) {
    fprintf(stderr, "node list commit failed (err %d)\n", rc);
    return rc;
  }
  rc = commitDiskCfg(disks);
  if (rc != 0) fprintf(stderr, "disk list commit failed (err %d)\n", rc);
  return rc;
}
