#include "server/zeldfactory.h"

#include "server/blockstore.h"
#include "zel/zelerr.h"

namespace zeld {

namespace {

// The slot this node's store keeps the initial block in: the node's own slot,
// or for a node being added (not in the configuration yet) the lowest slot no
// node holds, which is the one the change will give it.
int initialSlot(const Dblock& b, int nodeId) {
  const NodeDescriptor* n = b.committed.config.nodes.findNode(nodeId);
  if (n != nullptr) return n->slot;
  for (int slot = 0; slot < kDiskSlots; slot++) {
    bool used = false;
    for (const NodeDescriptor& d : b.committed.config.nodes) used = used || d.slot == slot;
    if (!used) return slot;
  }
  return -1;
}

}  // namespace

ReplicaFactory EngineReplicaFactory(long long requestMs, const std::string& crashAt) {
  ReplicaFactory f;
  f.initStore = [](const std::string& path, int nodeId, const Dblock& b) {
    int slot = initialSlot(b, nodeId);
    if (slot < 0 || slot >= kDiskSlots) return static_cast<int>(E_INVAL);
    return BlockStore::Init(path, slot, SharedBlock(b));
  };
  f.open = [requestMs, crashAt](const std::string& path, int nodeId, const ReplicaHooks& hooks,
                                std::shared_ptr<Disk>* storeOut, std::unique_ptr<Replica>* out) {
    std::shared_ptr<BlockStore> store;
    int rc = BlockStore::Open(path, &store);
    if (rc != 0) return rc;
    ReplicaOptions o;
    o.nodeId = nodeId;
    o.requestMs = requestMs;
    o.crashAt = crashAt;
    o.ownStore = store;
    auto disks = hooks.disks;
    o.disks = [store, disks](const CommittedState& s) {
      if (disks) return disks(s, store);
      DiskSet d;
      d.nodeStores.push_back(store);
      return d;
    };
    o.applied = hooks.applied;
    o.caughtUp = hooks.caughtUp;
    // Readers go through barriers and updates queue: nothing needs the node to
    // have read a quorum before it listens, and its peers may be starting too.
    o.settleMs = 0;
    *storeOut = store;
    return OpenReplica(o, out);
  };
  f.initDisk = [](const std::string& path, const Dblock& b, int nSlots) {
    if (nSlots < 1 || nSlots > kDiskSlots) return static_cast<int>(E_INVAL);
    return BlockStore::Init(path, 0, SharedBlock(b));
  };
  return f;
}

}  // namespace zeld
