// Where the other quorum nodes and the tiebreaker disks are. The committed
// state names nodes by id and disks by slot; their addresses and labels come
// from "init" and then from the committed files zel.nodes and zel.disks, which
// a change of nodes or disks commits before the configuration that uses them.
#ifndef SERVER_PEERS_H
#define SERVER_PEERS_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "server/replica.h"
#include "zel/kxcomm_addr.h"
#include "zel/paxosinit.h"

namespace zeld {

class Peers {
 public:
  void addNodes(const std::vector<InitNode>& nodes);
  void addDisks(const InitDisks& disks);
  // Takes the entries of a committed zel.nodes or zel.disks file (text form);
  // its read error, and the book unchanged, when it does not parse.
  int addNodesFile(const std::string& path);
  int addDisksFile(const std::string& path);

  // 0 with the node's address; 6 (ENXIO) for an id not known here, or the
  // address conversion's error.
  int addressOf(int nodeId, CommAddr* out) const;
  // The label of the disk in slot, "" when unknown.
  std::string diskLabel(int slot) const;
  std::string describe() const;

 private:
  struct Location {
    std::string addr;
    int port = 0;
  };
  mutable std::mutex mu_;
  std::map<int, Location> nodes_;
  std::map<int, std::string> disks_;
};

// A tiebreaker disk file, opened on first use through its label as the book
// knows it then: a disk whose label is not known yet, or whose file cannot be
// opened, fails its calls and is tried again on the next one.
class TiebreakerDisk : public Disk {
 public:
  using LabelFn = std::function<std::string()>;
  explicit TiebreakerDisk(LabelFn label) : labelFn_(std::move(label)) {}
  int writeRead(int writerId, int slot, const SharedBlock& b, std::vector<SlotBlock>* out) override;
  int read(std::vector<SlotBlock>* out) override;
  std::string label() const override;

 private:
  int open();
  LabelFn labelFn_;
  mutable std::mutex mu_;
  std::shared_ptr<Disk> disk_;
  std::string path_;
};

}  // namespace zeld

#endif  // SERVER_PEERS_H
