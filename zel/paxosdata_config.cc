// Configuration records: nodes, disks, the quorum configuration and its updates.
#include <sstream>

#include "zel/paxosdata_int.h"

using paxosdata_internal::DumpRecordList;
using paxosdata_internal::LoadRecordList;
using paxosdata_internal::ReserveFor;
using paxosdata_internal::SizeRecordList;

int NodeDescriptor::getSize() const {
  int n = SizeVarUInt(id, 0) + SizeVarUInt(slot, -1) + 1;  // flags fit one byte
  if (version != 0) n += SizeVarUInt(version, 0);
  return n;
}

char* NodeDescriptor::dump(char* p) const {
  int flags = (listen ? 1 : 0) | (version != 0 ? 2 : 0);
  p = DumpVarUInt(p, id, 0);
  p = DumpVarUInt(p, slot, -1);
  p = DumpVarUInt(p, flags, 0);
  if (version != 0) p = DumpVarUInt(p, version, 0);
  return p;
}

const char* NodeDescriptor::load(const char* p, const char* end) {
  int flags = 0;
  p = LoadVarUInt(p, end, &id, 0);
  p = LoadVarUInt(p, end, &slot, -1);
  p = LoadVarUInt(p, end, &flags, 0);
  listen = (flags & 1) != 0;
  version = 0;
  if ((flags & 2) != 0) p = LoadVarUInt(p, end, &version, 0);
  return p;
}

int NodeList::getSize() const {
  return SizeRecordList(*this);
}

char* NodeList::dump(char* p) const {
  return DumpRecordList(p, *this);
}

const char* NodeList::load(const char* p, const char* end) {
  return LoadRecordList(p, end, this, 3);
}

const NodeDescriptor* NodeList::findNode(int id) const {
  for (const auto& d : *this)
    if (d.id == id) return &d;
  return nullptr;
}

NodeDescriptor* NodeList::findNode(int id) {
  for (auto& d : *this)
    if (d.id == id) return &d;
  return nullptr;
}

bool NodeList::isEquivalent(const NodeList& o) const {
  if (size() != o.size()) return false;
  for (size_t i = 0; i < size(); i++) {
    const NodeDescriptor& a = (*this)[i];
    const NodeDescriptor& b = o[i];
    if (a.id != b.id || a.slot != b.slot || a.version != b.version) return false;
  }
  return true;
}

int DiskList::getSize() const {
  int n = SizeVarUInt(static_cast<long long>(size()), 0);
  for (int d : *this) n += SizeVarUInt(d, 0);
  return n;
}

char* DiskList::dump(char* p) const {
  p = DumpVarUInt(p, static_cast<long long>(size()), 0);
  for (int d : *this) p = DumpVarUInt(p, d, 0);
  return p;
}

const char* DiskList::load(const char* p, const char* end) {
  clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  reserve(ReserveFor(count, p, end, 1));
  for (int i = 0; i < count; i++) {
    int d = 0;
    p = LoadVarUInt(p, end, &d, 0);
    if (p == nullptr) return nullptr;
    push_back(d);
  }
  return p;
}

int ConfigData::getSize() const {
  return nodes.getSize() + disks.getSize() + SizeVarUInt(minNodes, -1);
}

char* ConfigData::dump(char* p) const {
  p = nodes.dump(p);
  p = disks.dump(p);
  return DumpVarUInt(p, minNodes, -1);
}

const char* ConfigData::load(const char* p, const char* end) {
  p = nodes.load(p, end);
  p = disks.load(p, end);
  // A null start leaves minNodes at its bias, -1.
  return LoadVarUInt(p, end, &minNodes, -1);
}

PaxosConfig::PaxosConfig() {
  minNodes = 0;
  trace(9, "PaxosConfig(): this=0x%lx", reinterpret_cast<unsigned long>(this));
}

PaxosConfig::PaxosConfig(const NodeList& n, const DiskList& d, int minN) {
  nodes = n;
  disks = d;
  minNodes = minN;
}

char* PaxosConfig::dump(char* pBuffer) const {
  char* origBuffer = pBuffer;
  pBuffer = ConfigData::dump(pBuffer);
  PD_ASSERT_T(pBuffer == origBuffer + getSize(), "pBuffer == origBuffer + getSize()");
  return pBuffer;
}

bool PaxosConfig::isEquivalent(const PaxosConfig& o) const {
  return minNodes == o.minNodes && nodes.isEquivalent(o.nodes) && disks == o.disks;
}

void PaxosConfig::updateListeners(std::vector<int> positions) {
  for (size_t i = 0; i < nodes.size(); i++) {
    nodes[i].listen =
        std::find(positions.begin(), positions.end(), static_cast<int>(i)) != positions.end();
  }
}

std::string PaxosConfig::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

int ConfigUpdate::getSize() const {
  return ConfigData::getSize() + 2;
}

char* ConfigUpdate::dump(char* pBuffer) const {
  char* origBuffer = pBuffer;
  *pBuffer++ = changeNodes ? 1 : 0;
  *pBuffer++ = changeDisks ? 1 : 0;
  pBuffer = ConfigData::dump(pBuffer);
  PD_ASSERT_T(pBuffer == origBuffer + getSize(), "pBuffer == origBuffer + getSize()");
  return pBuffer;
}

const char* ConfigUpdate::load(const char* p, const char* end) {
  if (p == nullptr || end - p < 2) {
    if (p != nullptr && p < end) changeNodes = *p != 0;
    ConfigData::load(nullptr, end);
    return nullptr;
  }
  changeNodes = p[0] != 0;
  changeDisks = p[1] != 0;
  return ConfigData::load(p + 2, end);
}

void ConfigUpdate::print(std::ostream& os) const {
  os << *this;
}

std::ostream& operator<<(std::ostream& os, const NodeDescriptor& n) {
  return os << "(N" << n.id << ",S" << n.slot << ",V" << n.version << ",L" << (n.listen ? 1 : 0)
            << ")";
}

std::ostream& operator<<(std::ostream& os, const NodeList& l) {
  os << "[";
  for (size_t i = 0; i < l.size(); i++) {
    if (i > 0) os << ", ";
    os << l[i];
  }
  return os << "]";
}

std::ostream& operator<<(std::ostream& os, const DiskList& l) {
  os << "[";
  for (size_t i = 0; i < l.size(); i++) os << (i > 0 ? ",D" : "D") << l[i];
  return os << "]";
}

std::ostream& operator<<(std::ostream& os, const ConfigData& c) {
  return os << "<" << c.nodes << " " << c.disks << " min=" << c.minNodes << ">";
}

std::ostream& operator<<(std::ostream& os, const ConfigUpdate& c) {
  os << "<";
  if (c.changeNodes) os << c.nodes << " ";
  if (c.changeDisks) os << c.disks << " ";
  if (c.minNodes >= 0) os << "min=" << c.minNodes;
  return os << ">";
}
