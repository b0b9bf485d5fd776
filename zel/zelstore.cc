// Process-wide store state: start-up of the local repository directory, this
// node's identity, and the in-memory node and disk lists.
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "platform/pclock.h"
#include "platform/pfile.h"
#include "zel/kxcomm_addr.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelutils.h"

namespace {

const char kProductDir[] = "/var/kolt";
const char kProductKeyDir[] = "/var/kolt/ssl";
const char kProductCertName[] = "id_rsa_committed.cert";
const char kProductKeyName[] = "id_rsa_committed";
const char kRepoDirName[] = "zel";
const char kTestDir[] = "/tmp/zel";
const char kNodeFileName[] = "zel.nodes";
const char kDiskFileName[] = "zel.disks";
const char kPaxosFileName[] = "zel.paxos";
const char kTestPemName[] = "zel.pem";
const char kCachedDirName[] = "cached";
const char kCommittedDirName[] = "committed";

Nodes nodes;
DiskMap diskMap;
NodeNameMap nodeNames;
NodeLocMap nodeMap;
bool nodeListOnDisk = false;
bool diskListOnDisk = false;
IpAddrArray localAddrs;
LocalAddrsFn localAddrsFn = GetLocalAddrs;

std::string join(const std::string& dir, const char* name) {
  return dir + "/" + name;
}

int fillLocalAddrs() {
  localAddrs.clear();
  int rc = localAddrsFn(&localAddrs);
  if (rc != 0) {
    localAddrs.clear();
    trace(0, "Could not retrieve network interface configuration (err %d)", rc);
  }
  return rc;
}

bool isLocalAddr(const IpAddr& a) {
  for (const IpAddr& l : localAddrs) {
    if (l == a) return true;
  }
  return false;
}

int makeDir(const std::string& _path, unsigned int mode) {
  ZASSERT_T(_path.length(), "_path.length()");
  int rc = PlatMkdir(_path.c_str(), mode);
  if (rc != 0) {
    trace(1, "Creating '%s' failed (%d)", _path.c_str(), rc);
  } else {
    trace(4, "Creating '%s' successful", _path.c_str());
  }
  return rc;
}

// Removes exactly the one directory tree, whatever its name: no shell, and no
// link inside it is followed.
void deleteDir(const std::string& dir) {
  trace(1, "Deleting old '%s'", dir.c_str());
  int rc = PlatRemoveTree(dir.c_str());
  if (rc != 0) {
    trace(1, "Deleting '%s' failed (%d)", dir.c_str(), rc);
  } else {
    trace(4, "Deleting '%s' successful", dir.c_str());
  }
}

void setTestPaths(const std::string& base) {
  zelBaseDir = base;
  zelCertFilePath = join(zelBaseDir, kTestPemName);
  zelKeyFilePath = zelCertFilePath;  // one file holds both
}

}  // namespace

std::string NodeLocation::toString() const {
  return "('" + addr + "', " + std::to_string(port) + ")";
}

bool NodeLocation::operator<(const NodeLocation& o) const {
  if (addr != o.addr) return addr < o.addr;
  return port < o.port;
}

std::string Node::toString() const {
  return "(" + std::to_string(id) + (old ? " (old), '" : ", '") + name + "', " + addr.toString() +
         ")";
}

std::string NodesToString(const Nodes& list) {
  std::string s = "[";
  for (size_t i = 0; i < list.size(); i++) {
    if (i > 0) s += ", ";
    s += list[i].toString();
  }
  return s + "]";
}

std::string DiskMapToString(const DiskMap& disks) {
  std::string s = "[";
  for (auto it = disks.begin(); it != disks.end(); ++it) {
    if (it != disks.begin()) s += ", ";
    s += "(" + std::to_string(it->first) + (it->second.old ? " (old), '" : ", '") +
         it->second.label + "')";
  }
  return s + "]";
}

void InitZelTrace() {
  traceLevel = 0;
  traceFlags = 0;
  InitPaxosUtils();
  traceLevel += zelTraceBoost;
}

int updateNodeMaps() {
  nodeNames.clear();
  nodeMap.clear();
  int firstErr = 0;
  for (auto iter = nodes.begin(); iter != nodes.end(); ++iter) {
    CommAddr ca;
    int rc = convertCommAddr(iter->addr.addr, iter->addr.port, &ca);
    if (rc != 0) {
      // One node that cannot be reached by name must not stop the others.
      fprintf(stderr, "warning: node %d: cannot resolve host '%s'; node skipped\n", iter->id,
              iter->addr.addr.c_str());
      if (firstErr == 0) {
        firstErr = rc;
        SetErrorCause("cannot resolve host '%s' of node %d", iter->addr.addr.c_str(), iter->id);
      }
      continue;
    }
    if (isLocalAddr(ca.addr) && iter->addr.port == zelPort) {
      if (zelNodeId < 0) {
        zelNodeId = iter->id;
        zelAddr = iter->addr.addr;
        zelMyNode = *iter;
        trace(4, "zelNodeId: %d", zelNodeId);
      } else if (zelNodeId != iter->id || zelAddr != iter->addr.addr) {
        // Two entries for this one machine: a corrupted list, not a crash.
        SetErrorCause("node list names this host twice: node %d (%s) and node %d (%s)", zelNodeId,
                      zelAddr.c_str(), iter->id, iter->addr.addr.c_str());
        return E_INVAL;
      }
    }
    nodeNames[iter->id] = iter->name;
    nodeMap[iter->id] = iter->addr;
  }
  return nodeMap.empty() && !nodes.empty() ? firstErr : 0;
}

int InitZELIO(int port, int createMode, bool complain) {
  InitZelTrace();
  if (localAddrs.empty()) {
    int rc = fillLocalAddrs();
    if (rc != 0) return rc;
  }

  long long envPort = 0;
  const char* env = getenv("ZEL_PORT");
  if (port >= 1) {
    zelPort = port;
  } else if (env != nullptr && *env != '\0') {
    // The front end has refused a malformed value before this runs.
    zelPort = ParseDecimal(env, 1, 65535, &envPort) ? static_cast<int>(envPort) : 0;
  } else {
    zelPort = static_cast<int>(defaultPort);
  }

  if (isTrovInstall) {
    if (!dirExists(kProductDir)) {
      // Said on every run: without it the product installation cannot work.
      fprintf(stderr, "Directory %s not found.\n", kProductDir);
      exit(1);
    }
    zelBaseDir = join(kProductDir, kRepoDirName);
    zelCertFilePath = join(kProductKeyDir, kProductCertName);
    zelKeyFilePath = join(kProductKeyDir, kProductKeyName);
  } else if (const char* base = getenv("ZEL_BASE")) {
    ZASSERT_T(isTestInstall, "isTestInstall");
    setTestPaths(base);
    FILE* note = zelStdoutIsData ? stderr : stdout;
    fprintf(note, "zelBaseDir: %s\n", zelBaseDir.c_str());
    fflush(note);
  } else {
    ZASSERT_T(isTestInstall, "isTestInstall");
    if (zelPort == static_cast<int>(defaultPort)) {
      setTestPaths(kTestDir);
    } else {
      setTestPaths(std::string(kTestDir) + "." + std::to_string(zelPort));
    }
  }

  zelCachedDir = join(zelBaseDir, kCachedDirName);
  zelCommittedDir = join(zelBaseDir, kCommittedDirName);
  zelNodeFilePath = join(zelBaseDir, kNodeFileName);
  zelDiskFilePath = join(zelBaseDir, kDiskFileName);
  zelPaxosLFDServerPath = join(zelBaseDir, kPaxosFileName);
  zelPaxosLFDClientPath = join(zelCachedDir, kPaxosFileName);

  if (createMode == 0) {
    trace(4, "Using %s", zelBaseDir.c_str());
    const std::string* missing = nullptr;
    if (!dirExists(zelBaseDir)) {
      missing = &zelBaseDir;
    } else if (!dirExists(zelCommittedDir)) {
      missing = &zelCommittedDir;
    }
    if (missing != nullptr) {
      trace(complain ? 1 : 3, "'%s' not found", missing->c_str());
      SetErrorCause("'%s' not found", missing->c_str());
      return E_NO_REPOSITORY;
    }
    if (!dirExists(zelCachedDir)) {
      trace(2, "Creating '%s'", zelCachedDir.c_str());
      createDir(zelCachedDir, 0755);
    }
  } else {
    if (dirExists(zelBaseDir)) {
      if (createMode == 1) {
        trace(0,
              "Directory %s already exists.\nDelete the directory first, or use -F option to "
              "force deletion.\n",
              zelBaseDir.c_str());
        exit(1);
      }
      deleteDir(zelBaseDir);
    }
    for (const std::string* dir : {&zelBaseDir, &zelCachedDir, &zelCommittedDir}) {
      trace(1, "Creating '%s'", dir->c_str());
      int rc = makeDir(*dir, 0755);
      if (rc != 0) {
        // Without its directories the store is not set up: say so and stop.
        SetErrorCause("cannot create '%s': %s", dir->c_str(), PlatStrError(rc));
        return rc;
      }
    }
  }

  int result = 0;
  if (fileExists(zelNodeFilePath)) {
    result = readNodeList(zelNodeFilePath, &nodes);
    if (result == 0) result = updateNodeMaps();
    if (result == 0) nodeListOnDisk = true;
  } else {
    trace(4, "'%s' does not exist", zelNodeFilePath.c_str());
  }
  if (!fileExists(zelDiskFilePath)) {
    trace(4, "'%s' does not exist", zelDiskFilePath.c_str());
  } else if (result == 0) {
    result = readDiskList(zelDiskFilePath, &diskMap);
    if (result == 0) diskListOnDisk = true;
  }

  trace(4, "zelio init: ip=%s port=%d node=%d", zelAddr.c_str(), zelPort, zelNodeId);
  return result;
}

int ReInitZELIO(int* nodeIdOut) {
  int rc = fillLocalAddrs();
  if (rc != 0) return rc;
  int oldNodeId = zelNodeId;
  rc = updateNodeMaps();
  if (rc != 0) return rc;
  ZASSERT_T(oldNodeId == -1 || oldNodeId == zelNodeId, "oldNodeId == -1 || oldNodeId == zelNodeId");
  nodeListOnDisk = true;
  *nodeIdOut = zelNodeId;
  trace(4, "zelio re-init: ip=%s port=%d node=%d", zelAddr.c_str(), zelPort, zelNodeId);
  return 0;
}

std::string GetPath(PathType type) {
  switch (type) {
    case NodeFile:
      return zelNodeFilePath;
    case DiskFile:
      return zelDiskFilePath;
    case PaxosFile:
      return zelPaxosLFDServerPath;
    case CommittedDir:
      return zelCommittedDir;
    case CachedDir:
      return zelCachedDir;
  }
  return std::string();
}

bool IsAbsPath(const std::string& path) {
  return path.c_str()[0] == '/';
}

Nodes& GetNodeList() {
  return nodes;
}

NodeLocMap& GetNodeMap() {
  return nodeMap;
}

NodeNameMap& GetNodeNames() {
  return nodeNames;
}

DiskMap getDiskMap() {
  return diskMap;
}

int SetNodeList(Nodes newNodes, bool writeFile) {
  bool changed = !(newNodes == nodes);
  trace(4, "SetNodeList: changed %d on disk %d", changed ? 1 : 0, nodeListOnDisk ? 1 : 0);
  if (!writeFile) {
    if (!changed) return 0;
    nodeListOnDisk = false;
    nodes = std::move(newNodes);
    return updateNodeMaps();
  }
  if (!changed && nodeListOnDisk) return 0;
  int rc = writeNodeList(zelNodeFilePath, newNodes);
  if (rc != 0) return rc;
  nodeListOnDisk = true;
  if (!changed) return 0;
  nodes = std::move(newNodes);
  return updateNodeMaps();
}

int SetDiskList(DiskMap newDisks) {
  bool changed = !(newDisks == diskMap);
  trace(4, "SetDiskList: changed %d on disk %d", changed ? 1 : 0, diskListOnDisk ? 1 : 0);
  if (!changed && diskListOnDisk) return 0;
  int rc = writeDiskList(zelDiskFilePath, newDisks);
  if (rc != 0) return rc;
  diskListOnDisk = true;
  if (changed) diskMap = std::move(newDisks);
  return 0;
}

bool createDir(const std::string& _path, unsigned int mode) {
  return makeDir(_path, mode) == 0;
}

bool dirExists(const std::string& path) {
  struct stat st;
  return PlatStat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool fileExists(const std::string& path) {
  struct stat st;
  return PlatStat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

long long getTime() {
  return static_cast<long long>(PlatTimeSec());
}

void doDelay(double secs) {
  long long whole = static_cast<long long>(secs);  // truncates toward zero
  if (whole >= 1) PlatSleepUs(whole * 1000000);
}

void ResetZELIOForTest() {
  nodes.clear();
  diskMap.clear();
  nodeNames.clear();
  nodeMap.clear();
  nodeListOnDisk = false;
  diskListOnDisk = false;
  localAddrs.clear();
  localAddrsFn = GetLocalAddrs;
}

LocalAddrsFn SetLocalAddrsFnForTest(LocalAddrsFn fn) {
  LocalAddrsFn old = localAddrsFn;
  localAddrsFn = fn ? fn : GetLocalAddrs;
  return old;
}
