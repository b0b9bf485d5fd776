// The auth subcommand: asks servers to reload their authentication
// configuration.
#include <stdio.h>

#include "zel/kxconnect.h"
#include "zel/zelcmd.h"
#include "zel/zelmsg.h"

int refreshAuth(const Nodes& nodes) {
  int firstErr = 0;
  for (const Node& node : nodes) {
    int replyType = 0;
    MsgBody reply;
    int rc = SendReceive(node.addr.addr, node.addr.port, MSG_TYPE_AUTH, nullptr, 0, &replyType,
                         &reply, -1);
    if (rc != 0) {
      fprintf(stderr, "authentication refresh for node %d (%s) failed (err %d)\n", node.id,
              node.name.c_str(), rc);
      if (firstErr == 0) firstErr = rc;
    }
  }
  return firstErr;
}

int AuthCommand(const ZelSettings& s, const ZelArgs&) {
  Nodes nodes;
  int rc = parseNodeListDefaultLocal(s.nodeArgs, &nodes, false);
  if (rc != 0) return rc;
  return refreshAuth(nodes);
}
