// The local repository store: paths, port, this node's identity, the node and
// disk lists read from the repository directory, and small file helpers.
#ifndef ZEL_ZELUTILS_H
#define ZEL_ZELUTILS_H

#include <map>
#include <string>
#include <vector>

#include "classes/basic/ipaddr.h"
#include "zel/zelglobals.h"

// Where a repository server listens: address text and port.
struct NodeLocation {
  std::string addr;
  int port = 0;

  NodeLocation() = default;
  NodeLocation(const std::string& a, int p) : addr(a), port(p) {}
  // "('addr', port)"
  std::string toString() const;
  bool operator<(const NodeLocation& o) const;
  bool operator==(const NodeLocation& o) const { return addr == o.addr && port == o.port; }
  bool operator!=(const NodeLocation& o) const { return !(*this == o); }
};

// One quorum node; id -1 while not yet assigned.
struct Node {
  int id = -1;
  int old = 0;  // leaving the configuration
  std::string name;
  NodeLocation addr;

  Node() = default;
  Node(int i, const std::string& n, const NodeLocation& loc) : id(i), name(n), addr(loc) {}
  // "(id, 'name', ('addr', port))", " (old)" after the id when old.
  std::string toString() const;
  bool operator==(const Node& o) const {
    return id == o.id && old == o.old && name == o.name && addr == o.addr;
  }
};

using Nodes = std::vector<Node>;
// The nodes' texts inside "[" and "]", separated by ", ".
std::string NodesToString(const Nodes& nodes);

// One tiebreaker disk: an absolute path or a disk descriptor.
struct ZELDisk {
  std::string label;
  int old = 0;

  ZELDisk() = default;
  ZELDisk(const std::string& l, int o) : label(l), old(o) {}
  bool operator==(const ZELDisk& o) const { return label == o.label && old == o.old; }
};

// Disk number (from 1) to disk.
using DiskMap = std::map<int, ZELDisk>;
// "[(1, 'label'), (2 (old), 'label')]"
std::string DiskMapToString(const DiskMap& disks);

using NodeNameMap = std::map<int, std::string>;
using NodeLocMap = std::map<int, NodeLocation>;

enum PathType { NodeFile = 0, DiskFile = 1, PaxosFile = 2, CommittedDir = 3, CachedDir = 4 };

// The process-wide store state is declared in zel/zelglobals.h.

// Sets the diagnostic thresholds from ZEL_DEBUG / ZEL_TRACE, plus zelTraceBoost.
void InitZelTrace();

// Sets up paths, port, the lists and this node's identity. port < 1: ZEL_PORT or
// 1191. createMode 0 opens an existing repository (811 when missing), 1 creates
// one (exit 1 when it exists), 2 deletes an existing one first. complain picks
// the level of the missing-directory message (1, else 3). Returns 0 or an error;
// a list file with bad lines gives 5 with the state set up all the same.
int InitZELIO(int port, int createMode, bool complain);
// Re-reads the local interfaces and re-derives the node maps.
int ReInitZELIO(int* nodeIdOut);
// Rebuilds the id maps from the node list and finds the local node.
int updateNodeMaps();

std::string GetPath(PathType type);
bool IsAbsPath(const std::string& path);
// The process-wide lists themselves.
Nodes& GetNodeList();
NodeLocMap& GetNodeMap();
NodeNameMap& GetNodeNames();
DiskMap getDiskMap();

// Replaces the node list; with writeFile the file is written unless unchanged
// and already on disk.
int SetNodeList(Nodes newNodes, bool writeFile);
// Replaces the disk list and writes its file unless unchanged and on disk.
int SetDiskList(DiskMap newDisks);

bool createDir(const std::string& path, unsigned int mode);
bool dirExists(const std::string& path);
bool fileExists(const std::string& path);
long long getTime();
// Sleeps the whole seconds of secs (below one second: not at all).
void doDelay(double secs);

// ---- List files ----

int readNodeList(const std::string& path, Nodes* nodes);
int writeNodeList(const std::string& path, const Nodes& nodes);
int readDiskList(const std::string& path, DiskMap* disks);
int writeDiskList(const std::string& path, const DiskMap& disks);
// At least 16 hex digits, optionally followed by ":" and anything.
bool isDiskDesc(const std::string& s);
// Names beginning with "_" or "genKey" are the system's own.
bool isFilePrivate(const std::string& name);

// ---- Test hooks ----

// Returns the store's own lists and seams to their initial values; the store's
// process-wide variables are reset by ResetProcessState (zel/zelglobals.h).
void ResetZELIOForTest();
using LocalAddrsFn = int (*)(IpAddrArray* out);
// Replaces the local interface enumeration (nullptr restores it); returns the old one.
LocalAddrsFn SetLocalAddrsFnForTest(LocalAddrsFn fn);

#endif  // ZEL_ZELUTILS_H
