// Administration helpers shared by the listing, creation and configuration
// change subcommands: the repository copies of the node and disk lists and
// the initialisation messages to new servers.
#ifndef ZEL_ZELADMIN_H
#define ZEL_ZELADMIN_H

#include "zel/paxosdata.h"
#include "zel/zelutils.h"

// At most this many quorum nodes; the shared disks have this many slots.
constexpr int kMaxZelNodes = 8;

// The fixed files through which the lists travel to and from the repository,
// and the lock file beside them that one command at a time holds while it uses
// them (fetch to install, write to commit).
constexpr char kTmpNodesFile[] = "/tmp/zel.nodes";
constexpr char kTmpDisksFile[] = "/tmp/zel.disks";
constexpr char kTmpListsLock[] = "/tmp/zel.lists.lock";
// How long a command waits for another to finish with them.
constexpr long long kTmpListsWaitMs = 120000;

class PlatLockFile;
// Takes the lock; on failure reports it on stderr and returns the error.
int lockTmpLists(PlatLockFile* lock);

// Fetch the repository's "zel.nodes" / "zel.disks" (through the fixed
// temporary files, always removed), fill the list, seq and committed state,
// and make the list this host's own. Failures are reported on stderr. An empty
// node list from the repository is refused (812): it never replaces the local one.
int getNodeList(int* seq, CommittedState* committed, Nodes* nodes);
int getDiskList(int* seq, CommittedState* committed, DiskMap* disks);

// Store the list in the repository as "zel.nodes" / "zel.disks".
int commitNodeCfg(const Nodes& nodes);
int commitDiskCfg(const DiskMap& disks);

// Sends "init" to every target in turn (nodes and disks describe the whole
// repository). Every failure is reported; the last failure's error, or 0.
int InitNodes(unsigned long long clusterId, const Nodes& targets, const Nodes& nodes,
              const DiskMap& disks, const Dblock& block);
// Sends "pxinit" to the nodes in turn until one accepts; that attempt's
// error (5 when there are no nodes).
int InitSharedDisks(const Nodes& nodes, const DiskMap& disks, const Dblock& block, int nSlots);

#endif  // ZEL_ZELADMIN_H
