// health: asks every node of the local node list for its status (one "status"
// request each, nothing else is fetched) and shows the local view of the
// tiebreaker disks. Exit 0 when a quorum of nodes is up, 157 when not.
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "zel/kxconnect.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"
#include "zel/zelutils.h"

namespace {

// A probe, not a request: a node that does not answer soon counts as down.
constexpr int kHealthConnectMs = 2000;
constexpr int kHealthTransferMs = 5000;

struct NodeHealth {
  int status = 0;  // as "status" reports it; 0 when no answer
  double rttMs = -1;
};

NodeHealth probe(const Node& n) {
  NodeHealth h;
  int replyType = -1;
  MsgBody reply;
  auto start = std::chrono::steady_clock::now();
  int rc = SendReceive(n.addr.addr, n.addr.port, MSG_TYPE_STATUS, nullptr, 0, &replyType, &reply,
                       kHealthConnectMs);
  auto end = std::chrono::steady_clock::now();
  trace(4, "health: node %d rc %d reply type %d len %d", n.id, rc, replyType, reply.size());
  if (rc != 0 || reply.empty()) return h;
  int st = 0;
  if (LoadVarUInt(reply.data(), reply.end(), &st, 0) == nullptr) return h;
  h.status = st;
  h.rttMs = std::chrono::duration<double, std::milli>(end - start).count();
  return h;
}

const char* stateWord(int status) {
  return status == 4 ? "joined" : status >= 2 ? "up" : "down";
}

// What this machine sees of a disk without reading it: a path that exists is
// "present", a missing one "absent"; a descriptor names a device this machine
// may not reach ("-").
const char* diskWord(const std::string& label) {
  if (!IsAbsPath(label)) return "-";
  struct stat st;
  return stat(label.c_str(), &st) == 0 ? "present" : "absent";
}

// The disk slots of the configuration in this client's cached committed state;
// none when there is no such file or it does not load.
std::vector<int> cachedDiskSlots() {
  int seq = 0;
  CommittedState committed;
  unsigned long long clusterId = zelClusterId;
  if (loadPFDFromFile(&seq, &committed, &clusterId) != 0) return {};
  return committed.config.disks;
}

}  // namespace

int HealthNodesRequired(int nodes, int disks) {
  // With tiebreaker disks the disks make the majority and one node up can serve
  // (a new repository's minimum); without them a strict majority of the nodes.
  return disks > 0 ? 1 : nodes / 2 + 1;
}

int HealthCommand(const ZelSettings& s, const ZelArgs&) {
  int rc = doInit(s, false);
  if (rc != 0) return rc;
  const Nodes nodes = GetNodeList();
  if (nodes.empty()) {
    fprintf(stderr, "zel node list missing or empty\n");
    return E_NODELIST_EMPTY;
  }
  KxSetTransferTimeouts(kHealthTransferMs, kHealthTransferMs);
  DiskMap disks = getDiskMap();

  int nUp = 0, nActive = 0;
  if (!s.yOpt) {
    puts(
        " node name                 address                 state       rtt\n"
        "----- -------------------- ----------------------- ------ ---------");
  }
  for (const Node& n : nodes) {
    NodeHealth h = probe(n);
    if (!n.old) nActive++;
    if (!n.old && h.status >= 2) nUp++;
    std::string addr = locToString(n.addr.addr, n.addr.port);
    char rtt[32] = "-";
    if (h.rttMs >= 0) snprintf(rtt, sizeof rtt, s.yOpt ? "%.3f" : "%.1f ms", h.rttMs);
    if (s.yOpt) {
      printf("node:%d:%s:%s:%d:%s:%s\n", n.id, n.name.c_str(), n.addr.addr.c_str(), n.addr.port,
             stateWord(h.status), rtt);
    } else {
      printf("%5d %-20s %-23s %-6s %9s\n", n.id, n.name.c_str(), addr.c_str(), stateWord(h.status),
             rtt);
    }
  }
  if (!disks.empty() && !s.yOpt) {
    puts("\n disk state   label\n----- ------- --------------------------------");
  }
  int nDisks = 0;
  for (const auto& d : disks) {
    if (!d.second.old) nDisks++;
    if (s.yOpt) {
      printf("disk:%d:%s:%s\n", d.first, d.second.label.c_str(), diskWord(d.second.label));
    } else {
      printf("%5d %-7s %s\n", d.first, diskWord(d.second.label), d.second.label.c_str());
    }
  }
  // Only a listing writes zel.disks here (init and setup do not), so an empty
  // list says little: the configuration this client last saw names the disks
  // by slot, without their labels.
  if (disks.empty()) {
    for (int slot : cachedDiskSlots()) {
      nDisks++;
      if (s.yOpt) {
        printf("disk:%d::-\n", slot);
      } else {
        if (nDisks == 1)
          puts("\n disk state   label\n----- ------- --------------------------------");
        printf("%5d -       (not in the local disk list; lsdisks fetches it)\n", slot);
      }
    }
  }
  fflush(stdout);
  int required = HealthNodesRequired(nActive, nDisks);
  if (nUp >= required) return 0;
  fprintf(stderr, "No quorum: %d of %d nodes are up; %d are required\n", nUp, nActive, required);
  return E_TRY_OTHERS;
}
