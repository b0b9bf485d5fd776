// chnodes: replaces the quorum nodes of a running repository. The local node
// list holds the transition set (old and new nodes) while the change is made,
// so this host reaches both old and new servers if it stops part-way.
#include <stdio.h>

#include <algorithm>
#include <bitset>
#include <map>
#include <set>

#include "zel/kxconnect.h"
#include "zel/paxosclient.h"
#include "zel/paxosutils.h"
#include "zel/zeladmin.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

constexpr int MaxPaxosSlots = kMaxZelNodes;

struct SlotEntry {
  int slot;
  int version;
};

// The status a node reports; 0 when it does not answer or the answer is bad.
int pollStatus(const Node& n) {
  int replyType = -1;
  MsgBody reply;
  int rc =
      SendReceive(n.addr.addr, n.addr.port, MSG_TYPE_STATUS, nullptr, 0, &replyType, &reply, -1);
  int status = 0;
  if (rc == 0 && !reply.empty()) {
    if (LoadVarUInt(reply.data(), reply.end(), &status, 0) == nullptr) status = 0;
  }
  return status;
}

const char* statusWord(int status) {
  return status == 4 ? "joined" : status < 2 ? "down" : "up";
}

// Whether the new set has a quorum; prints the verdict when it has not.
bool verifyQuorum(const Nodes& nodes, const Nodes& newNodes, int required) {
  std::map<NodeLocation, int> status;
  bool anyJoined = false;
  for (const Node& n : nodes) {
    int st = pollStatus(n);
    status[n.addr] = st;
    trace(4, "verifyQuorum: node %d status %d", n.id, st);
    if (st == 4) anyJoined = true;
  }
  int nServing = 0, nJoined = 0;
  for (const Node& n : newNodes) {
    auto it = status.find(n.addr);
    int st = it == status.end() ? 0 : it->second;
    if (st > 1) nServing++;
    if (st == 4) nJoined++;
    trace(4, "verifyQuorum: node %s status %d nNewServing %d nNewJoined %d",
          n.addr.toString().c_str(), st, nServing, nJoined);
  }
  int nNew = static_cast<int>(newNodes.size());
  const char* fmt = "No %s quorum in new node set (%d of %d nodes are %s; %d are required):\n";
  if (anyJoined && required > nJoined) {
    fprintf(stderr, fmt, "Trov", nJoined, nNew, "joined", required);
  } else if (required > nServing) {
    fprintf(stderr, fmt, "ZEL", nServing, nNew, "up", required);
  } else {
    return true;
  }
  for (const Node& n : newNodes) {
    auto it = status.find(n.addr);
    int st = it == status.end() ? 0 : it->second;
    fprintf(stderr, "  %-6s %s (%s)\n", statusWord(st), n.name.c_str(), n.addr.addr.c_str());
  }
  return false;
}

// The text of a node that the list holds twice (by id, or at one address and
// port); empty when there is none. The change counts each node once.
std::string duplicateNode(const Nodes& list) {
  std::set<int> ids;
  std::set<NodeLocation> locs;
  for (const Node& n : list) {
    if ((n.id >= 0 && !ids.insert(n.id).second) || !locs.insert(n.addr).second) {
      return "'" + n.name + "' (" + locToString(n.addr.addr, n.addr.port) + ")";
    }
  }
  return std::string();
}

// Writes the list to the repository and to the local file.
int saveNodes(const Nodes& nodes, const char* saveFailFmt) {
  int rc = commitNodeCfg(nodes);
  if (rc != 0) {
    fprintf(stderr, "node list commit failed (err %d)\n", rc);
    return rc;
  }
  rc = SetNodeList(nodes, true);
  if (rc != 0) fprintf(stderr, saveFailFmt, rc);
  return rc;
}

}  // namespace

int ChNodesCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, true);
  if (rc != 0) return rc;
  int seq = 0;
  CommittedState committed;
  Nodes curNodes;
  rc = getNodeList(&seq, &committed, &curNodes);
  if (rc != 0) return rc;
  const int curCfgVersion = committed.cfgVersion;
  trace(4, "cid %llu old nodes: %s", zelClusterId, NodesToString(curNodes).c_str());

  Nodes newNodes;
  if (parseNodeList(s.nodeArgs, &newNodes, false) != 0) return E_INVAL;
  std::string dup = duplicateNode(newNodes);
  if (!dup.empty()) usageExit(("node list names " + dup + " twice").c_str());
  dup = duplicateNode(curNodes);
  if (!dup.empty()) {
    fprintf(stderr, "Failed to retrieve current node list (err %d)\n", E_IO);
    SetErrorCause("the repository's node list names %s twice", dup.c_str());
    return E_IO;
  }

  std::set<NodeLocation> newAddrs;
  for (const Node& n : newNodes) newAddrs.insert(n.addr);
  std::map<int, SlotEntry> slotMap;
  for (const NodeDescriptor& d : committed.config.nodes) {
    // A slot outside the block is treated as none rather than trusted.
    int slot = d.slot >= 0 && d.slot < MaxPaxosSlots ? d.slot : -1;
    slotMap.emplace(d.id, SlotEntry{slot, d.version});
  }
  auto slotOf = [&](int id) {
    auto it = slotMap.find(id);
    return it == slotMap.end() ? -1 : it->second.slot;
  };

  Nodes nodes, addedNodes;
  std::set<NodeLocation> commonAddrs;
  std::bitset<MaxPaxosSlots> slotUsed;
  int maxId = 0, nOldActive = 0, nOldInactive = 0;
  for (const Node& cur : curNodes) {
    maxId = std::max(maxId, cur.id);
    if (newAddrs.count(cur.addr)) {
      Node n = cur;
      n.old = 0;
      nodes.push_back(n);
      commonAddrs.insert(cur.addr);
      if (slotOf(cur.id) >= 0) slotUsed.set(slotOf(cur.id));
    } else if (slotOf(cur.id) >= 0) {
      Node n = cur;
      n.old = 1;
      nodes.push_back(n);
      nOldActive++;
    } else {
      nOldInactive++;
    }
  }
  for (const Node& nn : newNodes) {
    if (commonAddrs.count(nn.addr)) continue;
    Node n = nn;
    // An explicit id also raises the mark, so no two added nodes share one.
    if (n.id == -1) n.id = maxId + 1;
    maxId = std::max(maxId, n.id);
    n.old = 0;
    addedNodes.push_back(n);
    nodes.push_back(n);
  }
  ZASSERT_T(curNodes.size() == commonAddrs.size() + nOldActive + nOldInactive,
            "curNodes.size() == commonAddrs.size() + nOldActive + nOldInactive");
  ZASSERT_T(newNodes.size() == commonAddrs.size() + addedNodes.size(),
            "newNodes.size() == commonAddrs.size() + addedNodes.size()");
  ZASSERT_T(nodes.size() == commonAddrs.size() + addedNodes.size() + nOldActive,
            "nodes.size() == commonAddrs.size() + addedNodes.size() + nOldActive");
  trace(4, "new nodes: %s", NodesToString(newNodes).c_str());
  trace(4, "added nodes: %s", NodesToString(addedNodes).c_str());

  int required = !committed.config.disks.empty() ? committed.config.minNodes
                                                 : static_cast<int>(newNodes.size()) / 2 + 1;
  if (!verifyQuorum(nodes, newNodes, required)) {
    if (!s.force) return E_NO_QUORUM;
    fprintf(stderr, "Continuing due to -F override\n");
  }

  if (!(nodes == curNodes)) {
    rc = saveNodes(nodes, "failed to save new node list (err %d)\n");
    if (rc != 0) return rc;
  }
  if (!addedNodes.empty()) {
    DiskMap disks = getDiskMap();
    Dblock dblk;
    dblk.reset(seq, committed);
    trace(1, "dblk: %s", dblk.toString().c_str());
    rc = InitNodes(zelClusterId, addedNodes, nodes, disks, dblk);
    if (rc != 0) {
      fprintf(stderr, "server initialization failed (err %d)\n", rc);
      return rc;
    }
  }

  NodeList nodeList;
  for (const Node& n : nodes) {
    if (n.old) continue;
    if (nodeList.size() >= static_cast<size_t>(MaxPaxosSlots)) break;
    NodeDescriptor d;
    d.id = n.id;
    d.listen = true;
    auto it = slotMap.find(n.id);
    if (it != slotMap.end() && it->second.slot >= 0) {
      d.slot = it->second.slot;
      d.version = it->second.version;
      // A node added back under an id that still holds a slot keeps it.
      if (!slotUsed[d.slot] && zelDebugAsserts) ZASSERT_T(slotUsed[d.slot], "slotUsed[slot]");
      slotUsed.set(d.slot);
    } else {
      int nextSlot = 0;
      while (nextSlot < MaxPaxosSlots && slotUsed[nextSlot]) nextSlot++;
      ZASSERT_T(nextSlot < MaxPaxosSlots, "nextSlot < MaxPaxosSlots");
      slotUsed.set(nextSlot);
      d.slot = nextSlot;
      d.version = curCfgVersion + 1;
    }
    nodeList.push_back(d);
  }

  rc = PaxosSetConfig(&nodeList, nullptr, -1, curCfgVersion, &seq, &committed);
  if (rc != 0) {
    fprintf(stderr, "config update failed: err %d\n", rc);
    return rc;
  }
  trace(4, "new config: %s", committed.config.toString().c_str());

  if (nOldActive > 0) {
    PaxosInit();
    Nodes finalNodes;
    for (const Node& n : nodes) {
      if (!n.old) finalNodes.push_back(n);
    }
    rc = saveNodes(finalNodes, "failed to save new node list  (err %d)\n");
  }
  return rc;
}
