// The debug family (echo, trace, msglevel, netdown): forwards the command line
// to servers and prints their answers.
#include <stdio.h>

#include <string>
#include <vector>

#include "zel/kxconnect.h"
#include "zel/paxosutils.h"
#include "zel/zelcmd.h"
#include "zel/zelmsg.h"

int DebugCommand(const ZelSettings& s, const ZelArgs& args) {
  int rc = doInit(s, false);
  if (rc != 0) return rc;
  Nodes nodes;
  rc = parseNodeListDefaultLocal(s.nodeArgs, &nodes, false);
  if (rc != 0) return rc;

  // word NUL, argument count, each argument NUL.
  const std::string& word = s.subcmd;
  size_t msgLength = word.size() + 1 + SizeVarUInt(args.size(), 0);
  for (const std::string& a : args) msgLength += a.size() + 1;
  std::vector<char> msg(msgLength);
  char* msgBuffer = msg.data();
  char* bufP = DumpString(msgBuffer, word);
  bufP = DumpVarUInt(bufP, static_cast<long long>(args.size()), 0);
  for (const std::string& a : args) bufP = DumpString(bufP, a);
  ZASSERT_T(bufP == msgBuffer + msgLength, "bufP == msgBuffer + msgLength");

  for (const Node& n : nodes) {
    int replyType = -1;
    MsgBody reply;
    rc = SendReceive(n.addr.addr, n.addr.port, MSG_TYPE_DEBUG, msgBuffer,
                     static_cast<int>(msgLength), &replyType, &reply, -1);
    trace(4, "debug response: err %d type %d (%s) len %d", rc, replyType, msgName(replyType),
          reply.size());
    if (!reply.empty()) printf("%.*s\n", reply.size(), reply.data());
  }
  return rc;
}
