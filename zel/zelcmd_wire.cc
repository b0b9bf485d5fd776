// The hidden subcommands readpaxos, dump and quit.
#include <stdio.h>
#include <sys/stat.h>

#include <sstream>

#include "platform/pfile.h"
#include "zel/kxconnect.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"
#include "zel/zelpaxosfile.h"

namespace {

// Sends an empty request of type to the node and discards the reply.
int sendToNode(const Node& node, int type) {
  int replyType = 0;
  MsgBody reply;
  int rc = SendReceive(node.addr.addr, node.addr.port, type, nullptr, 0, &replyType, &reply, -1);
  trace(4, "%s to node %s returned %d", msgName(type), node.toString().c_str(), rc);
  return rc;
}

}  // namespace

int ReadPaxosCommand(const ZelSettings&, const ZelArgs& args) {
  const std::string& path = args[0];
  struct stat st;
  long long size = PlatStat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
  PaxosFileData pfd;
  PaxosHeader hdr;
  int rc = loadPaxosFile(path, &pfd, &hdr, &zelClusterId);
  if (rc != 0) {
    fprintf(stderr, "loadFromFile failed with err %d\n", rc);
    return rc;
  }
  const PaxosDblockSummary& s = pfd.summary;
  printf("%s (size %lld):\n", path.c_str(), size);
  fputs(hdr.toString().c_str(), stdout);
  printf("pfd: epoch %d, slotAssignmentVersion %d\n", pfd.epoch, pfd.slotAssignmentVersion);
  std::ostringstream mbal, bal;
  mbal << s.mbal;
  bal << s.bal;
  printf("dblk: seq %d, mbal %s, bal %s, inp %s, leaderChallengeVersion %d\n", s.seq,
         mbal.str().c_str(), bal.str().c_str(), s.inp.toString().c_str(), s.leaderChallengeVersion);
  printCommittedState(s.committed);
  return 0;
}

int DumpCommand(const ZelSettings& s, const ZelArgs&) {
  Nodes nodes;
  int rc = parseNodeListDefaultLocal(s.nodeArgs, &nodes, false);
  if (rc != 0) return rc;
  for (const Node& n : nodes) rc = sendToNode(n, MSG_TYPE_DUMP);
  return rc;
}

int QuitCommand(const ZelSettings& s, const ZelArgs&) {
  Nodes nodes;
  if (!s.nodeArgs.empty()) {
    parseNodeList(s.nodeArgs, &nodes, false);  // whatever it accepted is used
  } else {
    nodes = GetNodeList();
  }
  if (nodes.empty()) {
    fprintf(stderr, "Not zel.nodes file and no node list specified (use '-n nodeList' option)\n");
    return E_INVAL;
  }
  int result = 0;
  for (const Node& n : nodes) {
    int rc = sendToNode(n, MSG_TYPE_QUIT);
    if (rc != 0) result = rc;
  }
  return result;
}
