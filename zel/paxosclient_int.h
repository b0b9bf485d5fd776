// Pieces shared by the request units of the repository client.
#ifndef ZEL_PAXOSCLIENT_INT_H
#define ZEL_PAXOSCLIENT_INT_H

#include <string>

#include "zel/kxcomm.h"
#include "zel/paxosdata.h"

// The node list is the repository file with this id and name.
constexpr int kNodesFileId = 1;
extern const char kNodesFileName[];

// The state's text for a trace line of level, built only when it is printed.
std::string stateText(int level, const CommittedState& committed);

// The cache hand-off of replies (updateClientCache unless a test replaced it).
void clientCacheUpdate(int seq, const CommittedState& committed, unsigned long long clusterId);

// Back to the outgoing cache (after the "eor" handshake), or destroyed.
void releaseConnection(Connection* conn);

// The committed copy of the node-list file of entry fv.
std::string nodesFilePath(const FileVersion& fv);
// Receives the node-list file of entry fv (size bytes follow on conn) into
// nodesFilePath(fv); 810 when its contents do not match fv's CRC.
int receiveNodesFile(Connection* conn, const FileVersion& fv, int size);

#endif  // ZEL_PAXOSCLIENT_INT_H
