#include "server/peers.h"

#include <errno.h>

#include <sstream>

#include "server/blockstore.h"
#include "zel/paxosutils.h"
#include "zel/zelutils.h"

namespace zeld {

void Peers::addNodes(const std::vector<InitNode>& nodes) {
  std::lock_guard<std::mutex> g(mu_);
  for (const InitNode& n : nodes) nodes_[n.id] = Location{n.addr, n.port};
}

void Peers::addDisks(const InitDisks& disks) {
  std::lock_guard<std::mutex> g(mu_);
  for (const InitDisk& d : disks) disks_[d.slot] = d.label;
}

int Peers::addNodesFile(const std::string& path) {
  Nodes nodes;
  int rc = readNodeList(path, &nodes);
  if (rc != 0) return rc;
  std::lock_guard<std::mutex> g(mu_);
  for (const Node& n : nodes) {
    if (n.id >= 0) nodes_[n.id] = Location{n.addr.addr, n.addr.port};
  }
  return 0;
}

int Peers::addDisksFile(const std::string& path) {
  DiskMap disks;
  int rc = readDiskList(path, &disks);
  if (rc != 0) return rc;
  std::lock_guard<std::mutex> g(mu_);
  for (const auto& [slot, d] : disks) disks_[slot] = d.label;
  return 0;
}

int Peers::addressOf(int nodeId, CommAddr* out) const {
  Location l;
  {
    std::lock_guard<std::mutex> g(mu_);
    auto it = nodes_.find(nodeId);
    if (it == nodes_.end()) return ENXIO;
    l = it->second;
  }
  return convertCommAddr(l.addr, l.port, out);
}

std::string Peers::diskLabel(int slot) const {
  std::lock_guard<std::mutex> g(mu_);
  auto it = disks_.find(slot);
  return it == disks_.end() ? std::string() : it->second;
}

std::string Peers::describe() const {
  std::lock_guard<std::mutex> g(mu_);
  std::ostringstream os;
  for (const auto& [id, l] : nodes_)
    os << "  node " << id << " at " << l.addr << ":" << l.port << "\n";
  for (const auto& [slot, label] : disks_) os << "  disk " << slot << " at " << label << "\n";
  return os.str();
}

int TiebreakerDisk::open() {
  std::string want = labelFn_();
  if (want.empty() || want[0] != '/') return ENXIO;
  if (disk_ && want == path_) return 0;
  std::shared_ptr<BlockStore> s;
  int rc = BlockStore::Open(want, &s);
  if (rc != 0) {
    trace(2, "tiebreaker disk '%s' cannot be opened (err %d)", want.c_str(), rc);
    return rc;
  }
  disk_ = s;
  path_ = want;
  return 0;
}

int TiebreakerDisk::writeRead(int writerId, int slot, const SharedBlock& b,
                              std::vector<SlotBlock>* out) {
  std::lock_guard<std::mutex> g(mu_);
  out->clear();
  int rc = open();
  return rc != 0 ? rc : disk_->writeRead(writerId, slot, b, out);
}

int TiebreakerDisk::read(std::vector<SlotBlock>* out) {
  std::lock_guard<std::mutex> g(mu_);
  out->clear();
  int rc = open();
  return rc != 0 ? rc : disk_->read(out);
}

std::string TiebreakerDisk::label() const {
  std::lock_guard<std::mutex> g(mu_);
  return path_.empty() ? labelFn_() : path_;
}

}  // namespace zeld
