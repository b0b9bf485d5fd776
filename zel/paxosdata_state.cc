// The committed state: applying updates, the duplicate filter, comparison and
// encoding.
#include <climits>
#include <sstream>

#include "zel/paxosdata_int.h"

int CommittedState::includes(const UpdateId& uid) const {
  auto it = updateList.find(uid.stream());
  if (it != updateList.end()) return it->second >= uid.seq ? 1 : 0;
  return uid.seq <= updateHorizon ? 2 : 0;
}

void CommittedState::addUpdate(const UpdateId& uid) {
  PD_ASSERT_M(!includes(uid), "!includes(uid)", "addUpdate: duplicate uid %s",
              uid.toString().c_str());
  int seq = uid.seq;
  auto iter = updateList.find(uid.stream());
  if (iter != updateList.end()) {
    PD_ASSERT_T(iter->second < seq, "iter->second < seq");
    iter->second = seq;
    return;
  }
  if (updateList.size() >= static_cast<size_t>(kMaxUpdateStreams)) {
    auto victim = updateList.begin();
    for (auto it = updateList.begin(); it != updateList.end(); ++it)
      if (it->second < victim->second) victim = it;
    std::ostringstream s;
    s << victim->first;
    trace(4, "addUpdate: discarding %s,%d from %s", s.str().c_str(), victim->second,
          updateList.toString().c_str());
    // The horizon follows the last eviction, even downwards.
    updateHorizon = victim->second;
    updateList.erase(victim);
  }
  updateList.emplace(uid.stream(), seq);
}

int CommittedState::getOldVersion(const ProposedUpdate& u) const {
  switch (u.type) {
    case ProposedUpdate::noopUpdate:
      return -1;
    case ProposedUpdate::valueUpdate:
    case ProposedUpdate::valueDeletion: {
      const std::string* name = nullptr;
      if (u.getValueUpdate() != nullptr) name = &u.getValueUpdate()->name;
      if (u.getValueDeletion() != nullptr) name = &u.getValueDeletion()->name;
      if (name == nullptr) return 0;
      auto it = valueList.find(*name);
      return it == valueList.end() ? 0 : it->second.version;
    }
    case ProposedUpdate::fileUpdate:
    case ProposedUpdate::fileDeletion: {
      int id = 0;
      if (u.getFileUpdate() != nullptr)
        id = u.getFileUpdate()->fileId;
      else if (u.getFileDeletion() != nullptr)
        id = u.getFileDeletion()->fileId;
      else
        return 0;
      auto it = fileList.find(id);
      return it == fileList.end() ? 0 : it->second.version;
    }
    case ProposedUpdate::configUpdate:
      return cfgVersion;
    case ProposedUpdate::leaderUpdate:
      return leaderVersion;
    default:
      return 0;
  }
}

int CommittedState::getLatestEpoch(int node) const {
  int best = 0;
  bool any = false;
  for (auto it = updateList.lower_bound(UpdateStream{node, INT_MIN});
       it != updateList.end() && it->first.node == node; ++it) {
    if (!any || it->first.epoch > best) best = it->first.epoch;
    any = true;
  }
  return any ? best : 0;
}

void CommittedState::apply(const ProposedUpdate& u) {
  if (!u.uid.isNull() && includes(u.uid) != 0) return;
  int newVersion = u.version;
  int oldVersion = getOldVersion(u);
  if (u.type != ProposedUpdate::noopUpdate)
    PD_ASSERT_M(newVersion > oldVersion, "newVersion > oldVersion",
                "bad update version: old %d new %d", oldVersion, newVersion);
  bool known = u.type >= ProposedUpdate::noopUpdate && u.type <= ProposedUpdate::leaderUpdate;
  PD_ASSERT_M(known, "0", "Unknown update type %d", static_cast<int>(u.type));
  // Updates built by hand with a type but no payload are programming errors.
  PD_ASSERT_T(u.type == ProposedUpdate::noopUpdate || u.getValueUpdate() || u.getValueDeletion() ||
                  u.getFileUpdate() || u.getFileDeletion() || u.getConfigUpdate() ||
                  u.getLeaderUpdate(),
              "payload != NULL");
  switch (u.type) {
    case ProposedUpdate::valueUpdate: {
      const ValueUpdate* vu = u.getValueUpdate();
      ValueVersion& vv = valueList[vu->name];
      vv.version = newVersion;
      vv.value = vu->value;
      break;
    }
    case ProposedUpdate::valueDeletion:
      maxDeletedValueVersion = std::max(maxDeletedValueVersion, oldVersion);
      valueList.erase(u.getValueDeletion()->name);
      break;
    case ProposedUpdate::fileUpdate: {
      const FileUpdate* fu = u.getFileUpdate();
      fileList[fu->fileId] = FileVersion(newVersion, u.uid, fu->crc);
      break;
    }
    case ProposedUpdate::fileDeletion:
      maxDeletedFileVersion = std::max(maxDeletedFileVersion, oldVersion);
      fileList.erase(u.getFileDeletion()->fileId);
      break;
    case ProposedUpdate::configUpdate: {
      const ConfigUpdate* cu = u.getConfigUpdate();
      if (cu->changeNodes) config.nodes = cu->nodes;
      if (cu->changeDisks) config.disks = cu->disks;
      if (cu->minNodes >= 0) config.minNodes = cu->minNodes;
      cfgVersion = newVersion;
      break;
    }
    case ProposedUpdate::leaderUpdate: {
      const LeaderUpdate* lu = u.getLeaderUpdate();
      leaderId = lu->leaderId;
      leaderLeaseMS = lu->leaseMS;
      leaderVersion = newVersion;
      break;
    }
    default:
      break;
  }
  if (!u.listn.empty()) config.updateListeners(u.listn);
  if (!u.uid.isNull()) addUpdate(u.uid);
}

bool CommittedState::operator<=(const CommittedState& other) const {
  for (const auto& e : updateList) {
    auto it = other.updateList.find(e.first);
    int limit = it != other.updateList.end() ? it->second : other.updateHorizon;
    if (e.second > limit) return false;
  }
  return updateHorizon <= other.updateHorizon;
}

bool CommittedState::operator==(const CommittedState& o) const {
  return config == o.config && cfgVersion == o.cfgVersion && leaderId == o.leaderId &&
         leaderLeaseMS == o.leaderLeaseMS && leaderVersion == o.leaderVersion &&
         updateHorizon == o.updateHorizon && updateList == o.updateList &&
         valueList == o.valueList && maxDeletedValueVersion == o.maxDeletedValueVersion &&
         fileList == o.fileList && maxDeletedFileVersion == o.maxDeletedFileVersion;
}

void CommittedState::verifyIsPrefixOf(const CommittedState& other) const {
  PD_ASSERT_M(*this <= other, "*this <= other", "update mismatch: h1=%d h2=%d\nu1: %s\nu2: %s",
              updateHorizon, other.updateHorizon, updateList.toString().c_str(),
              other.updateList.toString().c_str());
  for (auto iter = valueList.begin(); iter != valueList.end(); ++iter) {
    auto otherIter = other.valueList.find(iter->first);
    if (otherIter == other.valueList.end()) continue;
    PD_ASSERT_T(iter->second.version <= otherIter->second.version,
                "iter->second.version <= otherIter->second.version");
  }
}

void CommittedState::verifyIsEqual(const CommittedState& other) const {
  PD_ASSERT_M(config == other.config, "config == other.config", "config mismatch:\nc1: %s\nc2: %s",
              config.toString().c_str(), other.config.toString().c_str());
  PD_ASSERT_M(cfgVersion == other.cfgVersion, "cfgVersion == other.cfgVersion",
              "cfgVersion mismatch: v1=%d v2=%d", cfgVersion, other.cfgVersion);
  PD_ASSERT_M(leaderId == other.leaderId, "leaderId == other.leaderId",
              "leaderId mismatch: v1=%d v2=%d", leaderId, other.leaderId);
  PD_ASSERT_M(leaderLeaseMS == other.leaderLeaseMS, "leaderLeaseMS == other.leaderLeaseMS",
              "leaderLeaseMS mismatch: v1=%d v2=%d", leaderLeaseMS, other.leaderLeaseMS);
  PD_ASSERT_M(leaderVersion == other.leaderVersion, "leaderVersion == other.leaderVersion",
              "leaderVersion mismatch: v1=%d v2=%d", leaderVersion, other.leaderVersion);
  PD_ASSERT_M(updateHorizon == other.updateHorizon, "updateHorizon == other.updateHorizon",
              "horizon mismatch: h1=%d h2=%d", updateHorizon, other.updateHorizon);
  PD_ASSERT_M(updateList == other.updateList, "updateList == other.updateList",
              "updateList mismatch:\nu1: %s\nu2: %s", updateList.toString().c_str(),
              other.updateList.toString().c_str());
  PD_ASSERT_M(valueList == other.valueList, "valueList == other.valueList",
              "valueList mismatch:\nv1: %s\nv2: %s", valueList.toString().c_str(),
              other.valueList.toString().c_str());
  PD_ASSERT_M(maxDeletedValueVersion == other.maxDeletedValueVersion,
              "maxDeletedValueVersion == other.maxDeletedValueVersion",
              "maxDeletedValueVersion mismatch: v1=%d v2=%d", maxDeletedValueVersion,
              other.maxDeletedValueVersion);
  PD_ASSERT_M(fileList == other.fileList, "fileList == other.fileList",
              "fileList mismatch:\nv1: %s\nv2: %s", fileList.toString().c_str(),
              other.fileList.toString().c_str());
  PD_ASSERT_M(maxDeletedFileVersion == other.maxDeletedFileVersion,
              "maxDeletedFileVersion == other.maxDeletedFileVersion",
              "maxDeletedFileVersion mismatch: v1=%d v2=%d", maxDeletedFileVersion,
              other.maxDeletedFileVersion);
}

int CommittedState::getSize() const {
  int n = config.getSize() + SizeVarUInt(cfgVersion, 0) + SizeVarUInt(leaderId, -1) +
          SizeVarUInt(leaderLeaseMS, 0) + SizeVarUInt(leaderVersion, 0) +
          SizeVarUInt(updateHorizon, -1);
  n += SizeVarUInt(static_cast<long long>(updateList.size()), 0);
  for (const auto& e : updateList)
    n += SizeVarUInt(e.first.node, 0) + SizeVarUInt(e.first.epoch, 0) + SizeVarUInt(e.second, 0);
  n += valueList.getSize() + SizeVarUInt(maxDeletedValueVersion, 0);
  n += fileList.getSize() + SizeVarUInt(maxDeletedFileVersion, 0);
  return n;
}

char* CommittedState::dump(char* pBuffer) const {
  char* origBuffer = pBuffer;
  pBuffer = config.dump(pBuffer);
  pBuffer = DumpVarUInt(pBuffer, cfgVersion, 0);
  pBuffer = DumpVarUInt(pBuffer, leaderId, -1);
  pBuffer = DumpVarUInt(pBuffer, leaderLeaseMS, 0);
  pBuffer = DumpVarUInt(pBuffer, leaderVersion, 0);
  pBuffer = DumpVarUInt(pBuffer, updateHorizon, -1);
  pBuffer = DumpVarUInt(pBuffer, static_cast<long long>(updateList.size()), 0);
  for (const auto& e : updateList) {
    pBuffer = DumpVarUInt(pBuffer, e.first.node, 0);
    pBuffer = DumpVarUInt(pBuffer, e.first.epoch, 0);
    pBuffer = DumpVarUInt(pBuffer, e.second, 0);
  }
  pBuffer = valueList.dump(pBuffer);
  pBuffer = DumpVarUInt(pBuffer, maxDeletedValueVersion, 0);
  pBuffer = fileList.dump(pBuffer);
  pBuffer = DumpVarUInt(pBuffer, maxDeletedFileVersion, 0);
  PD_ASSERT_T(pBuffer == origBuffer + getSize(), "pBuffer == origBuffer + getSize()");
  return pBuffer;
}

const char* CommittedState::load(const char* p, const char* end) {
  p = config.load(p, end);
  p = LoadVarUInt(p, end, &cfgVersion, 0);
  p = LoadVarUInt(p, end, &leaderId, -1);
  p = LoadVarUInt(p, end, &leaderLeaseMS, 0);
  p = LoadVarUInt(p, end, &leaderVersion, 0);
  p = LoadVarUInt(p, end, &updateHorizon, -1);
  updateList.clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  for (int i = 0; i < count; i++) {
    UpdateStream s;
    int seq = 0;
    p = LoadVarUInt(p, end, &s.node, 0);
    p = LoadVarUInt(p, end, &s.epoch, 0);
    p = LoadVarUInt(p, end, &seq, 0);
    if (p == nullptr) return nullptr;
    updateList.emplace_hint(updateList.end(), s, seq);
  }
  p = valueList.load(p, end);
  p = LoadVarUInt(p, end, &maxDeletedValueVersion, 0);
  p = fileList.load(p, end);
  return LoadVarUInt(p, end, &maxDeletedFileVersion, 0);
}

std::string CommittedState::toString() const {
  std::ostringstream os;
  os << "<config ver " << cfgVersion << ": " << config << " leader=" << leaderId
     << " lease=" << leaderLeaseMS << " ver=" << leaderVersion << " horiz=" << updateHorizon
     << " updates=" << updateList << " vals=" << valueList << " vdel=" << maxDeletedValueVersion
     << " files=" << fileList << " fdel=" << maxDeletedFileVersion << ">";
  return os.str();
}

std::string CommittedState::toShortString() const {
  std::ostringstream os;
  os << "<configVer " << cfgVersion << " nNodes " << config.nodes.size() << " nDisks "
     << config.disks.size() << " minNodes " << config.minNodes << "> <leader " << leaderId
     << " lease " << leaderLeaseMS << " ver " << leaderVersion << "> <horiz " << updateHorizon
     << " nUpdates " << updateList.size() << "> nVals " << valueList.size() << " vdelVer "
     << maxDeletedValueVersion << " nFiles " << fileList.size() << " fdelVer "
     << maxDeletedFileVersion << ">";
  return os.str();
}
