// The bodies of "init" and "pxinit", the two messages that bring a repository
// into being: the cluster id, the quorum nodes with their addresses, the
// tiebreaker disks, and the initial disk block.
#ifndef ZEL_PAXOSINIT_H
#define ZEL_PAXOSINIT_H

#include <string>
#include <vector>

#include "zel/paxosdata.h"

// A node as "init" names it: VarUInt id, old byte, name, address text, VarUInt port.
struct InitNode {
  int id = 0;
  bool old = false;
  std::string name;
  std::string addr;
  int port = 0;
  bool operator==(const InitNode& o) const {
    return id == o.id && old == o.old && name == o.name && addr == o.addr && port == o.port;
  }
};

// A disk in slot order: VarUInt slot, label, old byte.
struct InitDisk {
  int slot = 0;
  std::string label;
  bool old = false;
  bool operator==(const InitDisk& o) const {
    return slot == o.slot && label == o.label && old == o.old;
  }
};

using InitDisks = std::vector<InitDisk>;

int SizeInitDisks(const InitDisks& d);
char* DumpInitDisks(char* p, const InitDisks& d);
const char* LoadInitDisks(const char* p, const char* end, InitDisks* d);

// "init": u64 cluster id (big-endian), node count and nodes, disks, Dblock.
struct InitRequest {
  unsigned long long clusterId = 0;
  std::vector<InitNode> nodes;
  InitDisks disks;
  Dblock block;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
};

// "pxinit": disks, Dblock, slot count, id of the node addressed.
struct PxInitRequest {
  InitDisks disks;
  Dblock block;
  int nSlots = 0;
  int nodeId = 0;

  int getSize() const;
  char* dump(char* p) const;
  const char* load(const char* p, const char* end);
};

#endif  // ZEL_PAXOSINIT_H
