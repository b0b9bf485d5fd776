#include "server/rules.h"

#include <climits>
#include <set>

#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelmsg.h"

namespace zeld {

const char kNodesFileName[] = "zel.nodes";

namespace {

// The version a write gets: the requested one when it exceeds both the current
// version and the highest deleted one, else the next above both.
int chooseVersion(int old, int maxDeleted, int requested, int* out) {
  int floor = old > maxDeleted ? old : maxDeleted;
  if (requested != -1) {
    if (requested <= floor) return E_ZEL_INVALID_VERSION;
    *out = requested;
    return 0;
  }
  if (floor == INT_MAX) return E_ZEL_INVALID_VERSION;
  *out = floor + 1;
  return 0;
}

int checkCond(int cond, int current) {
  return cond != -1 && cond != current ? E_ZEL_VERSION_MISMATCH : 0;
}

int checkSize(const CommittedState& s, const ProposedUpdate& u) {
  long long n = static_cast<long long>(s.getSize()) + u.getSize();
  return n > kMaxStateBytes ? EFBIG : 0;
}

}  // namespace

int DecodeUpdate(int type, const char* p, const char* end, UpdateAsk* a, int* fileSize) {
  p = a->uid.load(p, end);
  switch (type) {
    case MSG_TYPE_VPUT:
      p = LoadString(p, end, &a->name);
      p = LoadString(p, end, &a->value);
      p = LoadVarUInt(p, end, &a->cond, -1);
      p = LoadVarUInt(p, end, &a->newVersion, -1);
      break;
    case MSG_TYPE_FPUT:
      p = LoadString(p, end, &a->name);
      p = LoadVarUInt(p, end, fileSize, -1);
      p = LoadVarUInt(p, end, &a->cond, -1);
      p = LoadVarUInt(p, end, &a->newVersion, -1);
      break;
    case MSG_TYPE_VDEL:
    case MSG_TYPE_FDEL:
      p = LoadString(p, end, &a->name);
      p = LoadVarUInt(p, end, &a->cond, -1);
      break;
    case MSG_TYPE_CONFIG:
      p = p == nullptr ? nullptr : a->config.load(p, end);
      p = LoadVarUInt(p, end, &a->cond, -1);
      break;
    default:
      return E_INVAL;
  }
  return p != nullptr && p == end ? 0 : E_INVAL;
}

bool ValidValueName(const std::string& name) {
  return !name.empty() && name.size() <= static_cast<size_t>(kMaxNameBytes);
}

bool ValidFileName(const std::string& name) {
  return ValidValueName(name) && name.find('/') == std::string::npos && name != "." && name != "..";
}

int PrepareValuePut(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u) {
  if (!ValidValueName(a.name)) return E_INVAL;
  auto it = s.valueList.find(a.name);
  int old = it == s.valueList.end() ? 0 : it->second.version;
  int rc = checkCond(a.cond, old);
  if (rc != 0) return rc;
  int v = 0;
  rc = chooseVersion(old, s.maxDeletedValueVersion, a.newVersion, &v);
  if (rc != 0) return rc;
  *u = ProposedUpdate(a.uid, ValueUpdate(a.name, a.value), v);
  return checkSize(s, *u);
}

int PrepareValueDel(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u) {
  if (!ValidValueName(a.name)) return E_INVAL;
  auto it = s.valueList.find(a.name);
  if (it == s.valueList.end()) return E_ZEL_NOT_FOUND;
  int rc = checkCond(a.cond, it->second.version);
  if (rc != 0) return rc;
  if (it->second.version == INT_MAX) return E_ZEL_INVALID_VERSION;
  *u = ProposedUpdate(a.uid, ValueDeletion(a.name));
  u->version = it->second.version + 1;
  return 0;
}

int PrepareFilePut(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u) {
  if (!ValidFileName(a.name) || a.fileId < 1) return E_INVAL;
  if ((a.fileId == kNodesFileId) != (a.name == kNodesFileName)) return E_INVAL;
  auto it = s.fileList.find(a.fileId);
  int old = it == s.fileList.end() ? 0 : it->second.version;
  int rc = checkCond(a.cond, old);
  if (rc != 0) return rc;
  int v = 0;
  rc = chooseVersion(old, s.maxDeletedFileVersion, a.newVersion, &v);
  if (rc != 0) return rc;
  *u = ProposedUpdate(a.uid, FileUpdate(a.name, a.fileId, 0, a.crc), v);
  return checkSize(s, *u);
}

int PrepareFileDel(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u) {
  if (!ValidFileName(a.name)) return E_INVAL;
  if (a.name == kNodesFileName) return EPERM;
  auto it = a.fileId < 1 ? s.fileList.end() : s.fileList.find(a.fileId);
  if (it == s.fileList.end()) return E_ZEL_NOT_FOUND;
  int rc = checkCond(a.cond, it->second.version);
  if (rc != 0) return rc;
  if (it->second.version == INT_MAX) return E_ZEL_INVALID_VERSION;
  *u = ProposedUpdate(a.uid, FileDeletion(a.name, a.fileId));
  u->version = it->second.version + 1;
  return 0;
}

bool ValidConfig(const ConfigData& c) {
  if (c.nodes.size() > static_cast<size_t>(kMaxNodes)) return false;
  std::set<int> ids, slots, disks;
  for (const NodeDescriptor& n : c.nodes) {
    if (n.id < 0 || !ids.insert(n.id).second) return false;
    if (n.slot < -1 || n.slot >= kMaxSlots) return false;
    if (n.slot >= 0 && !slots.insert(n.slot).second) return false;
    if (n.version < 0) return false;
  }
  for (int d : c.disks) {
    if (d < 0 || !disks.insert(d).second) return false;
  }
  return c.minNodes >= -1 && c.minNodes <= static_cast<int>(c.nodes.size());
}

int PrepareConfig(const CommittedState& s, const UpdateAsk& a, ProposedUpdate* u) {
  // What the state's configuration becomes must itself be valid.
  ConfigData next = s.config;
  if (a.config.changeNodes) next.nodes = a.config.nodes;
  if (a.config.changeDisks) next.disks = a.config.disks;
  if (a.config.minNodes >= 0) next.minNodes = a.config.minNodes;
  if (!ValidConfig(next)) return E_INVAL;
  if (a.config.changeNodes && next.nodes.empty()) return E_INVAL;
  int rc = checkCond(a.cond, s.cfgVersion);
  if (rc != 0) return rc;
  if (s.cfgVersion == INT_MAX) return E_ZEL_INVALID_VERSION;
  *u = ProposedUpdate(a.uid, a.config);
  u->version = s.cfgVersion + 1;
  return checkSize(s, *u);
}

}  // namespace zeld
