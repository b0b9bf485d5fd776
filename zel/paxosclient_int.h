// Pieces shared by the request units of the repository client.
#ifndef ZEL_PAXOSCLIENT_INT_H
#define ZEL_PAXOSCLIENT_INT_H

#include <string>

#include "zel/kxconnect.h"
#include "zel/paxosdata.h"

// The node list is the repository file with this id and name.
constexpr int kNodesFileId = 1;
extern const char kNodesFileName[];

// The state's text for a trace line of level, built only when it is printed.
std::string stateText(int level, const CommittedState& committed);

// Queues the state of reply r (received on conn) for the client cache.
void queueCacheUpdate(ClientRetry* retry, const ZelReplyResult& r, const Connection* conn);
// Hands the queued states to the client cache (updateClientCache unless a test
// replaced it), in order, and empties the queue.
void flushCacheUpdates(ClientRetry* retry);

// The committed copy of the node-list file of entry fv.
std::string nodesFilePath(const FileVersion& fv);
// Receives the node-list file of entry fv (size bytes follow on conn) into
// nodesFilePath(fv); 810 when its contents do not match fv's CRC.
int receiveNodesFile(Connection* conn, const FileVersion& fv, int size);

#endif  // ZEL_PAXOSCLIENT_INT_H
