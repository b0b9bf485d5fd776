// Reaching servers by node id through the local node map.
#include "zel/kxcomm.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

int connectTo(int nodeId, Connection** out, int timeoutMs) {
  *out = nullptr;
  const NodeLocMap& nodeMap = GetNodeMap();
  auto it = nodeMap.find(nodeId);
  if (it == nodeMap.end()) {
    trace(1, "connectTo: unknown targetId %d", nodeId);
    return E_INVAL;
  }
  CommAddr addr;
  int rc = convertCommAddr(it->second.addr, it->second.port, &addr);
  if (rc != 0) {
    trace(1, "connectTo: unknown host '%s'", it->second.addr.c_str());
    return rc;
  }
  return connectTo(addr, out, timeoutMs);
}

int SendReceive(int nodeId, int type, const char* body, int length, int* replyType,
                char** replyBody, int* replyLength, int timeoutMs) {
  *replyBody = nullptr;
  *replyLength = 0;
  const NodeLocMap& nodeMap = GetNodeMap();
  auto it = nodeMap.find(nodeId);
  if (it == nodeMap.end()) {
    trace(1, "SendReceive: unknown targetId %d", nodeId);
    return E_INVAL;
  }
  return SendReceive(it->second.addr, it->second.port, type, body, length, replyType, replyBody,
                     replyLength, timeoutMs);
}

void setSimulateNetworkDisconnect(bool on) {
  // An address that does not resolve stays all zeros and so matches nothing real.
  CommAddr own, localHost;
  convertCommAddr(zelAddr, zelPort, &own);
  convertCommAddr("localhost", zelPort, &localHost);
  SetSimulateNetworkDisconnectAddrs(on, own, localHost);
}
