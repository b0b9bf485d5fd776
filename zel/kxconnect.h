// Reaching servers: connections by address (through the outgoing cache) or by
// node id (through the local node map), and one-request-one-reply exchanges.
#ifndef ZEL_KXCONNECT_H
#define ZEL_KXCONNECT_H

#include <string>

#include "zel/kxcomm.h"

// A cached connection or a new one; timeoutMs < 0 means 10 s. A cached one is
// reused only when nothing can be read from it (neither stale data nor the
// server's close). Connections carry zelClusterId for the first-message check.
int connectTo(const CommAddr& addr, Connection** out, int timeoutMs);
// By node id through the local node map: 22 for an id not in it, the address
// conversion's error for a host that does not resolve.
int connectTo(int nodeId, Connection** out, int timeoutMs);

// The simulated network cut with this node's address (zelAddr) and "localhost",
// both at zelPort.
void setSimulateNetworkDisconnect(bool on);

// Hands a connection back after a request: to the outgoing cache (after the
// "eor" handshake) when connections are cached, else it is destroyed.
void releaseConnection(Connection* conn);

// Connects, sends one request and receives its reply with ReceiveErrCheck into
// *reply; the connection is then released.
int SendReceive(const CommAddr& addr, int type, const char* body, int length, int* replyType,
                MsgBody* reply, int timeoutMs);
int SendReceive(const std::string& host, int port, int type, const char* body, int length,
                int* replyType, MsgBody* reply, int timeoutMs);
int SendReceive(int nodeId, int type, const char* body, int length, int* replyType, MsgBody* reply,
                int timeoutMs);

#endif  // ZEL_KXCONNECT_H
