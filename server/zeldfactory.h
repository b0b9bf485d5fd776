// The engine as the repository uses it: this node's block store as a file and
// a replica over it. One node: its own store is the only disk.
#ifndef SERVER_ZELDFACTORY_H
#define SERVER_ZELDFACTORY_H

#include "server/repository.h"

namespace zeld {

// requestMs: how long an update or a read waits for a quorum before 819.
// crashAt: a test build's crash point (ReplicaOptions::crashAt).
ReplicaFactory EngineReplicaFactory(long long requestMs = 20000,
                                    const std::string& crashAt = std::string());

}  // namespace zeld

#endif  // SERVER_ZELDFACTORY_H
