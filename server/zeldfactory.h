// The engine as the repository uses it: this node's block store as a file and
// a replica over it. One node: its own store is the only disk.
#ifndef SERVER_ZELDFACTORY_H
#define SERVER_ZELDFACTORY_H

#include "server/repository.h"

namespace zeld {

ReplicaFactory EngineReplicaFactory();

}  // namespace zeld

#endif  // SERVER_ZELDFACTORY_H
