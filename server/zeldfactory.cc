#include "server/zeldfactory.h"

#include "server/blockstore.h"
#include "zel/zelerr.h"

namespace zeld {

namespace {

// The slot of nodeId in the configuration of b; -1 when it has none.
int slotOf(const Dblock& b, int nodeId) {
  const NodeDescriptor* n = b.committed.config.nodes.findNode(nodeId);
  return n == nullptr ? -1 : n->slot;
}

}  // namespace

ReplicaFactory EngineReplicaFactory() {
  ReplicaFactory f;
  f.initStore = [](const std::string& path, int nodeId, const Dblock& b) {
    int slot = slotOf(b, nodeId);
    if (slot < 0 || slot >= kDiskSlots) return static_cast<int>(E_INVAL);
    return BlockStore::Init(path, slot, b);
  };
  f.open = [](const std::string& path, int nodeId, const AppliedFn& applied,
              std::unique_ptr<Replica>* out) {
    std::shared_ptr<BlockStore> store;
    int rc = BlockStore::Open(path, &store);
    if (rc != 0) return rc;
    ReplicaOptions o;
    o.nodeId = nodeId;
    o.ownStore = store;
    o.disks = [store](const CommittedState&) {
      DiskSet d;
      d.nodeStores.push_back(store);
      d.minNodes = 1;
      return d;
    };
    o.applied = applied;
    return OpenReplica(o, out);
  };
  f.initDisk = [](const std::string& path, const Dblock& b, int nSlots) {
    if (nSlots < 1 || nSlots > kDiskSlots) return static_cast<int>(E_INVAL);
    return BlockStore::Init(path, 0, b);
  };
  return f;
}

}  // namespace zeld
