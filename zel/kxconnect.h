// Reaching servers: connections by address (through the outgoing cache) or by
// node id (through the local node map), and one-request-one-reply exchanges.
#ifndef ZEL_KXCONNECT_H
#define ZEL_KXCONNECT_H

#include <string>

#include "zel/kxcomm.h"

// A cached connection (peeked for staleness) or a new one; timeoutMs < 0 means 10 s.
int connectTo(const CommAddr& addr, Connection** out, int timeoutMs);
// By node id through the local node map: 22 for an id not in it, the address
// conversion's error for a host that does not resolve.
int connectTo(int nodeId, Connection** out, int timeoutMs);

// The simulated network cut with this node's address (zelAddr) and "localhost",
// both at zelPort.
void setSimulateNetworkDisconnect(bool on);

// Connects, sends one request and receives its reply with ReceiveErrCheck; the
// connection then goes to the outgoing cache or is destroyed. The reply body
// belongs to the caller.
int SendReceive(const CommAddr& addr, int type, const char* body, int length, int* replyType,
                char** replyBody, int* replyLength, int timeoutMs);
int SendReceive(const std::string& host, int port, int type, const char* body, int length,
                int* replyType, char** replyBody, int* replyLength, int timeoutMs);
int SendReceive(int nodeId, int type, const char* body, int length, int* replyType,
                char** replyBody, int* replyLength, int timeoutMs);

#endif  // ZEL_KXCONNECT_H
