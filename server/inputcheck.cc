#include "server/inputcheck.h"

namespace zeld {

namespace {

bool cleanString(const std::string& s) {
  return s.find('\0') == std::string::npos;
}

bool configEncodable(const ConfigData& c) {
  for (const NodeDescriptor& n : c.nodes)
    if (n.id < 0 || n.slot < -1 || n.version < 0) return false;
  for (int d : c.disks)
    if (d < 0) return false;
  return c.minNodes >= -1;
}

bool uidEncodable(const UpdateId& u) {
  return u.node >= 0 && u.epoch >= 0 && u.seq >= 0;
}

// The payload matches the type and every field encodes.
bool payloadEncodable(const ProposedUpdate& u) {
  switch (u.type) {
    case ProposedUpdate::noopUpdate:
      return true;
    case ProposedUpdate::valueUpdate: {
      const ValueUpdate* p = u.getValueUpdate();
      return p != nullptr && cleanString(p->name) && cleanString(p->value);
    }
    case ProposedUpdate::valueDeletion: {
      const ValueDeletion* p = u.getValueDeletion();
      return p != nullptr && cleanString(p->name);
    }
    case ProposedUpdate::fileUpdate: {
      const FileUpdate* p = u.getFileUpdate();
      return p != nullptr && cleanString(p->name) && p->fileId >= 0 && p->extra >= 0;
    }
    case ProposedUpdate::fileDeletion: {
      const FileDeletion* p = u.getFileDeletion();
      return p != nullptr && cleanString(p->name) && p->fileId >= 0;
    }
    case ProposedUpdate::configUpdate: {
      const ConfigUpdate* p = u.getConfigUpdate();
      return p != nullptr && configEncodable(*p);
    }
    case ProposedUpdate::leaderUpdate: {
      const LeaderUpdate* p = u.getLeaderUpdate();
      return p != nullptr && p->leaderId >= 0 && p->leaseMS >= 0;
    }
    default:
      return false;
  }
}

}  // namespace

int CheckInput(const CommittedState& state, const ProposedUpdate& u, const char** why) {
  *why = "";
  if (!uidEncodable(u.uid) || u.version < -1) {
    *why = "uid or version out of range";
    return 22;
  }
  for (int p : u.listn) {
    if (p < 0) {
      *why = "negative listener position";
      return 22;
    }
  }
  if (u.type < ProposedUpdate::noopUpdate || u.type > ProposedUpdate::leaderUpdate) {
    *why = "unknown update type";
    return 22;
  }
  if (!payloadEncodable(u)) {
    *why = "payload missing or out of range";
    return 22;
  }
  if (!u.uid.isNull() && state.includes(u.uid) != 0) return 0;
  if (u.type != ProposedUpdate::noopUpdate && u.version <= state.getOldVersion(u)) {
    *why = "version not above the current one";
    return 22;
  }
  return 0;
}

bool BlockEncodable(const SharedBlock& b) {
  if (b.seq < 0 || b.mbal.first < 0 || b.mbal.second < 0 || b.bal.first < 0 || b.bal.second < 0 ||
      b.leaderChallengeVersion < 0)
    return false;
  if (b.inp.type == ProposedUpdate::noUpdate) return true;
  for (int p : b.inp.listn)
    if (p < 0) return false;
  return uidEncodable(b.inp.uid) && b.inp.version >= -1 &&
         (b.inp.type > ProposedUpdate::leaderUpdate || payloadEncodable(b.inp));
}

}  // namespace zeld
