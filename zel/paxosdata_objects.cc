// Values, files, object listings and the file-transfer map.
#include <sstream>

#include "zel/paxosdata_int.h"
#include "zel/zelerr.h"
#include "zel/zellock.h"

using paxosdata_internal::DumpRecordList;
using paxosdata_internal::LoadRecordList;
using paxosdata_internal::ReserveFor;
using paxosdata_internal::SizeRecordList;

// ---- ValueList ----

int ValueList::getSize() const {
  int n = SizeVarUInt(static_cast<long long>(size()), 0);
  for (const auto& e : *this)
    n += static_cast<int>(e.first.size() + 1) + SizeVarUInt(e.second.version, 0) +
         static_cast<int>(e.second.value.size() + 1);
  return n;
}

char* ValueList::dump(char* p) const {
  p = DumpVarUInt(p, static_cast<long long>(size()), 0);
  for (const auto& e : *this) {
    p = DumpString(p, e.first);
    p = DumpVarUInt(p, e.second.version, 0);
    p = DumpString(p, e.second.value);
  }
  return p;
}

const char* ValueList::load(const char* p, const char* end) {
  clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  std::string name;
  for (int i = 0; i < count; i++) {
    ValueVersion vv;
    p = LoadString(p, end, &name);
    p = LoadVarUInt(p, end, &vv.version, 0);
    p = LoadString(p, end, &vv.value);
    if (p == nullptr) return nullptr;
    // Names arrive sorted, so the hint is exact; a duplicate is dropped.
    emplace_hint(this->end(), std::move(name), std::move(vv));
  }
  return p;
}

std::ostream& operator<<(std::ostream& os, const ValueList& l) {
  os << "{";
  bool first = true;
  for (const auto& e : l) {
    if (!first) os << ", ";
    first = false;
    os << e.first << ": (v" << e.second.version << ",'" << e.second.value << "')";
  }
  return os << "}";
}

std::string ValueList::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

// ---- FileList ----

int FileList::getSize() const {
  int n = SizeVarUInt(static_cast<long long>(size()), 0);
  for (const auto& e : *this)
    n += SizeVarUInt(e.first, 0) + SizeVarUInt(e.second.version, 0) + e.second.uid.getSize() + 4;
  return n;
}

char* FileList::dump(char* p) const {
  p = DumpVarUInt(p, static_cast<long long>(size()), 0);
  for (const auto& e : *this) {
    p = DumpVarUInt(p, e.first, 0);
    p = DumpVarUInt(p, e.second.version, 0);
    p = e.second.uid.dump(p);
    p = DumpUInt32(p, e.second.crc);
  }
  return p;
}

const char* FileList::load(const char* p, const char* end) {
  clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  for (int i = 0; i < count; i++) {
    int id = 0;
    FileVersion fv;
    p = LoadVarUInt(p, end, &id, 0);
    p = LoadVarUInt(p, end, &fv.version, 0);
    p = fv.uid.load(p, end);
    p = LoadUInt32(p, end, &fv.crc);
    if (p == nullptr) return nullptr;
    emplace_hint(this->end(), id, fv);
  }
  return p;
}

// Per entry "id: (vN,uid", with neither the crc nor a closing parenthesis.
std::ostream& operator<<(std::ostream& os, const FileList& l) {
  os << "{";
  bool first = true;
  for (const auto& e : l) {
    if (!first) os << ", ";
    first = false;
    os << e.first << ": (v" << e.second.version << "," << e.second.uid;
  }
  return os << "}";
}

std::string FileList::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

// ---- FileItem and FileIdMap ----

int FileItem::getSize() const {
  return static_cast<int>(name.size() + 1 + extraStr.size() + 1) + SizeVarUInt(extraInt, 0);
}

char* FileItem::dump(char* p) const {
  p = DumpString(p, name);
  p = DumpString(p, extraStr);
  return DumpVarUInt(p, extraInt, 0);
}

const char* FileItem::load(const char* p, const char* end) {
  p = LoadString(p, end, &name);
  p = LoadString(p, end, &extraStr);
  return LoadVarUInt(p, end, &extraInt, 0);
}

int FileIdMap::getSize() const {
  int n = SizeVarUInt(static_cast<long long>(size()), 0);
  for (const auto& e : *this) n += SizeVarUInt(e.first, 0) + e.second.getSize();
  return n;
}

char* FileIdMap::dump(char* p) const {
  p = DumpVarUInt(p, static_cast<long long>(size()), 0);
  for (const auto& e : *this) {
    p = DumpVarUInt(p, e.first, 0);
    p = e.second.dump(p);
  }
  return p;
}

const char* FileIdMap::load(const char* p, const char* end) {
  clear();
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  for (int i = 0; i < count; i++) {
    int id = 0;
    FileItem item;
    p = LoadVarUInt(p, end, &id, 0);
    p = item.load(p, end);
    if (p == nullptr) return nullptr;
    emplace_hint(this->end(), id, std::move(item));
  }
  return p;
}

std::string FileIdMap::getFileName(int fileId) const {
  auto it = find(fileId);
  return it == end() ? std::string() : it->second.name;
}

std::ostream& operator<<(std::ostream& os, const FileIdMap& m) {
  os << "{";
  bool first = true;
  for (const auto& e : m) {
    if (!first) os << ", ";
    first = false;
    os << e.first << ": ('" << e.second.name << "','" << e.second.extraStr << "',"
       << e.second.extraInt << ")";
  }
  return os << "}";
}

std::string FileIdMap::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

// ---- ZelObjectInfo and its list ----

int ZelObjectInfo::getSize() const {
  int n = SizeVarUInt(type, 0) + SizeVarUInt(version, -1) + static_cast<int>(name.size() + 1);
  if (type != fileObject) n += static_cast<int>(value.size() + 1);
  return n;
}

char* ZelObjectInfo::dump(char* p) const {
  p = DumpVarUInt(p, type, 0);
  p = DumpVarUInt(p, version, -1);
  p = DumpString(p, name);
  if (type == valueObject) p = DumpString(p, value);
  return p;
}

const char* ZelObjectInfo::load(const char* p, const char* end) {
  p = LoadVarUInt(p, end, &type, 0);
  p = LoadVarUInt(p, end, &version, -1);
  p = LoadString(p, end, &name);
  if (p != nullptr && type == valueObject) p = LoadString(p, end, &value);
  return p;
}

std::ostream& operator<<(std::ostream& os, const ZelObjectInfo& o) {
  os << "(" << o.type << ", v" << o.version << ", " << o.name;
  if (o.type != ZelObjectInfo::fileObject) os << ", " << o.value;
  return os << ")";
}

int ZelObjectInfoList::getSize() const {
  return SizeRecordList(*this);
}

char* ZelObjectInfoList::dump(char* p) const {
  return DumpRecordList(p, *this);
}

const char* ZelObjectInfoList::load(const char* p, const char* end) {
  return LoadRecordList(p, end, this, 3);
}

std::ostream& operator<<(std::ostream& os, const ZelObjectInfoList& l) {
  os << "[";
  for (size_t i = 0; i < l.size(); i++) os << (i > 0 ? ", " : "") << l[i];
  return os << "]";
}

std::string ZelObjectInfoList::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

int fillZelObjectInfoList(ZelObjectInfoList* zeloilP, const CommittedState& state,
                          const FileIdMap& fileIdMap) {
  PD_ASSERT_T(zeloilP, "zeloilP");
  zeloilP->cleanupList();
  for (const auto& f : state.fileList) {
    std::string name = fileIdMap.getFileName(f.first);
    if (name.empty()) return E_INVAL;
    zeloilP->add(ZelObjectInfo(ZelObjectInfo::fileObject, f.second.version, name, ""));
  }
  for (const auto& v : state.valueList)
    zeloilP->add(
        ZelObjectInfo(ZelObjectInfo::valueObject, v.second.version, v.first, v.second.value));
  return 0;
}

// ---- ZelFxFerMap ----

std::ostream& operator<<(std::ostream& os, const ZelFxFerKey& k) {
  return os << "(o" << k.objId << ", f" << k.fileId << ")";
}

int ZelFxFerMap::add(const ZelFxFerKey& key, const FileVersion& fv) {
  ZELLockHolder lock(kZelLockFxFerMap, LMODE_EXCLUSIVE);
  auto r = map_.insert_or_assign(key, fv);
  return r.second ? 0 : 1;
}

int ZelFxFerMap::getFxFerInfo(const ZelFxFerKey& key, FileVersion* zelFxFerInfoP) {
  PD_ASSERT_T(zelFxFerInfoP != nullptr, "zelFxFerInfoP != NULL");
  ZELLockHolder lock(kZelLockFxFerMap, LMODE_SHARED);
  auto it = map_.find(key);
  if (it == map_.end()) return 0;
  *zelFxFerInfoP = it->second;
  return 1;
}
