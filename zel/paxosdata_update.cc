// Update identifiers, update payloads and the proposed update.
#include <cstdio>
#include <sstream>

#include "zel/paxosdata_int.h"
#include "zel/zelerr.h"

using paxosdata_internal::ReserveFor;

// ---- UpdateId ----

int UpdateId::getSize() const {
  return SizeVarUInt(node, 0) + SizeVarUInt(epoch, 0) + SizeVarUInt(seq, 0);
}

char* UpdateId::dump(char* p) const {
  p = DumpVarUInt(p, node, 0);
  p = DumpVarUInt(p, epoch, 0);
  return DumpVarUInt(p, seq, 0);
}

const char* UpdateId::load(const char* p, const char* end) {
  node = epoch = seq = 0;
  const char* q = LoadVarUInt(p, end, &node, 0);
  if (q == nullptr) node = 0;
  q = LoadVarUInt(q, end, &epoch, 0);
  if (q == nullptr) epoch = 0;
  q = LoadVarUInt(q, end, &seq, 0);
  if (q == nullptr) seq = 0;
  return q;
}

std::string UpdateId::uidString() const {
  char buf1[MaxUidBytes];
  char* bufP = dump(buf1);
  PD_ASSERT_T(bufP <= buf1 + MaxUidBytes, "bufP <= buf1 + MaxUidBytes");
  static const char kHex[] = "0123456789abcdef";
  std::string s;
  s.reserve(static_cast<size_t>(bufP - buf1) * 2);
  for (const char* p = buf1; p < bufP; p++) {
    unsigned char c = static_cast<unsigned char>(*p);
    s += kHex[c >> 4];
    s += kHex[c & 15];
  }
  return s;
}

namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

int UpdateId::parse(const std::string& text) {
  for (char c : text)
    if (hexDigit(c) < 0) return E_INVAL;
  if (text.size() > 2 * static_cast<size_t>(MaxUidBytes)) return E_INVAL;
  char bytes[MaxUidBytes];
  int n = 0;
  // Two digits a byte; a trailing single digit is a byte of its own.
  for (size_t i = 0; i < text.size(); i += 2) {
    int v = hexDigit(text[i]);
    if (i + 1 < text.size()) v = v * 16 + hexDigit(text[i + 1]);
    bytes[n++] = static_cast<char>(v);
  }
  const char* end = bytes + n;
  if (load(bytes, end) != end) return E_INVAL;
  return 0;
}

std::string UpdateId::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const UpdateStream& s) {
  return os << "(n" << s.node << ",e" << s.epoch << ")";
}

std::ostream& operator<<(std::ostream& os, const UpdateId& u) {
  return os << "(" << u.stream() << "," << u.seq << ")";
}

std::ostream& operator<<(std::ostream& os, const UpdateList& l) {
  os << "{";
  bool first = true;
  for (const auto& e : l) {
    if (!first) os << ", ";
    first = false;
    os << e.first << ": " << e.second;
  }
  return os << "}";
}

std::string UpdateList::toString() const {
  std::ostringstream os;
  os << *this;
  return os.str();
}

// ---- Payloads ----

int ValueUpdate::getSize() const {
  return static_cast<int>(name.size() + 1 + value.size() + 1);
}

char* ValueUpdate::dump(char* p) const {
  p = DumpString(p, name);
  return DumpString(p, value);
}

const char* ValueUpdate::load(const char* p, const char* end) {
  p = LoadString(p, end, &name);
  return LoadString(p, end, &value);
}

void ValueUpdate::print(std::ostream& os) const {
  os << "('" << name << "','" << value << "')";
}

int ValueDeletion::getSize() const {
  return static_cast<int>(name.size() + 1);
}

char* ValueDeletion::dump(char* p) const {
  return DumpString(p, name);
}

const char* ValueDeletion::load(const char* p, const char* end) {
  return LoadString(p, end, &name);
}

void ValueDeletion::print(std::ostream& os) const {
  os << "('" << name << "')";
}

int FileUpdate::getSize() const {
  return static_cast<int>(name.size() + 1) + SizeVarUInt(fileId, 0) + SizeVarUInt(extra, 0) + 4;
}

char* FileUpdate::dump(char* p) const {
  p = DumpString(p, name);
  p = DumpVarUInt(p, fileId, 0);
  p = DumpVarUInt(p, extra, 0);
  return DumpUInt32(p, crc);
}

const char* FileUpdate::load(const char* p, const char* end) {
  p = LoadString(p, end, &name);
  p = LoadVarUInt(p, end, &fileId, 0);
  p = LoadVarUInt(p, end, &extra, 0);
  return LoadUInt32(p, end, &crc);
}

void FileUpdate::print(std::ostream& os) const {
  // The stream stays in hexadecimal afterwards; listeners printed next show it.
  os << "['" << name << "'," << fileId << "," << extra << "," << std::hex << crc << "]";
}

int FileDeletion::getSize() const {
  return static_cast<int>(name.size() + 1) + SizeVarUInt(fileId, 0);
}

char* FileDeletion::dump(char* p) const {
  p = DumpString(p, name);
  return DumpVarUInt(p, fileId, 0);
}

const char* FileDeletion::load(const char* p, const char* end) {
  p = LoadString(p, end, &name);
  return LoadVarUInt(p, end, &fileId, 0);
}

// The quote opened before the id is never closed.
void FileDeletion::print(std::ostream& os) const {
  os << "['" << name << "','" << fileId << "]";
}

int LeaderUpdate::getSize() const {
  return SizeVarUInt(leaderId, 0) + SizeVarUInt(leaseMS, 0);
}

char* LeaderUpdate::dump(char* p) const {
  p = DumpVarUInt(p, leaderId, 0);
  return DumpVarUInt(p, leaseMS, 0);
}

const char* LeaderUpdate::load(const char* p, const char* end) {
  p = LoadVarUInt(p, end, &leaderId, 0);
  return LoadVarUInt(p, end, &leaseMS, 0);
}

void LeaderUpdate::print(std::ostream& os) const {
  os << "[" << leaderId << "," << leaseMS << "]";
}

// ---- ProposedUpdate ----

namespace {

// Copies cannot report failure: running out of memory here is fatal, as it is
// for the containers the records hold.
UpdatePayload* copyOf(const UpdatePayload& p) {
  UpdatePayload* c = p.clone();
  ZASSERT_T(c != nullptr, "out of memory");
  return c;
}

}  // namespace

ProposedUpdate::ProposedUpdate(const UpdateId& u) : uid(u), type(noopUpdate) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const ValueUpdate& p, int ver)
    : uid(u), type(valueUpdate), version(ver), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const ValueDeletion& p)
    : uid(u), type(valueDeletion), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const FileUpdate& p, int ver)
    : uid(u), type(fileUpdate), version(ver), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const FileDeletion& p)
    : uid(u), type(fileDeletion), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const ConfigUpdate& p)
    : uid(u), type(configUpdate), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const UpdateId& u, const LeaderUpdate& p, int ver)
    : uid(u), type(leaderUpdate), version(ver), payload_(copyOf(p)) {}

ProposedUpdate::ProposedUpdate(const ProposedUpdate& o)
    : uid(o.uid),
      type(o.type),
      version(o.version),
      listn(o.listn),
      payload_(o.payload_ ? copyOf(*o.payload_) : nullptr) {}

ProposedUpdate& ProposedUpdate::operator=(const ProposedUpdate& o) {
  if (this == &o) return *this;
  payload_.reset();
  uid = o.uid;
  type = o.type;
  version = o.version;
  listn = o.listn;
  if (o.payload_) payload_.reset(copyOf(*o.payload_));
  return *this;
}

void ProposedUpdate::reset() {
  payload_.reset();
  uid = UpdateId();
  type = noUpdate;
  version = -1;
  listn.clear();
}

const ValueUpdate* ProposedUpdate::getValueUpdate() const {
  return type == valueUpdate ? dynamic_cast<const ValueUpdate*>(payload_.get()) : nullptr;
}
const ValueDeletion* ProposedUpdate::getValueDeletion() const {
  return type == valueDeletion ? dynamic_cast<const ValueDeletion*>(payload_.get()) : nullptr;
}
const FileUpdate* ProposedUpdate::getFileUpdate() const {
  return type == fileUpdate ? dynamic_cast<const FileUpdate*>(payload_.get()) : nullptr;
}
const FileDeletion* ProposedUpdate::getFileDeletion() const {
  return type == fileDeletion ? dynamic_cast<const FileDeletion*>(payload_.get()) : nullptr;
}
const ConfigUpdate* ProposedUpdate::getConfigUpdate() const {
  return type == configUpdate ? dynamic_cast<const ConfigUpdate*>(payload_.get()) : nullptr;
}
const LeaderUpdate* ProposedUpdate::getLeaderUpdate() const {
  return type == leaderUpdate ? dynamic_cast<const LeaderUpdate*>(payload_.get()) : nullptr;
}

namespace {

// The payload carried by types 2..7; others carry none.
bool hasPayloadType(int t) {
  return t >= ProposedUpdate::valueUpdate && t <= ProposedUpdate::leaderUpdate;
}

UpdatePayload* newPayload(int t) {
  switch (t) {
    case ProposedUpdate::valueUpdate:
      return new (std::nothrow) ValueUpdate;
    case ProposedUpdate::valueDeletion:
      return new (std::nothrow) ValueDeletion;
    case ProposedUpdate::fileUpdate:
      return new (std::nothrow) FileUpdate;
    case ProposedUpdate::fileDeletion:
      return new (std::nothrow) FileDeletion;
    case ProposedUpdate::configUpdate:
      return new (std::nothrow) ConfigUpdate;
    case ProposedUpdate::leaderUpdate:
      return new (std::nothrow) LeaderUpdate;
    default:
      return nullptr;
  }
}

}  // namespace

int ProposedUpdate::getSize() const {
  int n = uid.getSize() + 1 + SizeVarUInt(version, -1);
  if (hasPayloadType(type) && payload_) n += payload_->getSize();
  n += SizeVarUInt(static_cast<long long>(listn.size()), 0);
  for (int l : listn) n += SizeVarUInt(l, 0);
  return n;
}

char* ProposedUpdate::dump(char* pBuffer) const {
  char* origBuffer = pBuffer;
  pBuffer = uid.dump(pBuffer);
  *pBuffer++ = static_cast<char>(type);
  pBuffer = DumpVarUInt(pBuffer, version, -1);
  if (hasPayloadType(type) && payload_) pBuffer = payload_->dump(pBuffer);
  pBuffer = DumpVarUInt(pBuffer, static_cast<long long>(listn.size()), 0);
  for (int l : listn) pBuffer = DumpVarUInt(pBuffer, l, 0);
  PD_ASSERT_M(pBuffer == origBuffer + getSize(), "pBuffer == origBuffer + getSize()",
              "ProposedUpdate=%s\nexpected %d actual %d", toString().c_str(), getSize(),
              static_cast<int>(pBuffer - origBuffer));
  return pBuffer;
}

const char* ProposedUpdate::load(const char* p, const char* end) {
  reset();
  p = uid.load(p, end);
  if (p == nullptr) return nullptr;
  if (p >= end) return nullptr;
  type = static_cast<UpdateType>(static_cast<unsigned char>(*p++));
  p = LoadVarUInt(p, end, &version, -1);
  if (p == nullptr) return nullptr;
  UpdatePayload* pl = newPayload(type);
  if (pl == nullptr && hasPayloadType(type)) return nullptr;  // out of memory
  if (pl != nullptr) {
    payload_.reset(pl);
    p = pl->load(p, end);
    if (p == nullptr) return nullptr;
  }
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr) return nullptr;
  if (count < 1) return p;
  listn.reserve(ReserveFor(count, p, end, 1));
  for (int i = 0; i < count; i++) {
    int l = 0;
    p = LoadVarUInt(p, end, &l, 0);
    if (p == nullptr) return nullptr;
    listn.push_back(l);
  }
  return p;
}

const char* ProposedUpdate::UpdateName(UpdateType t) {
  static const char* const kNames[] = {"(none)", "noop", "vu", "vd", "fu", "fd", "cu", "lu"};
  unsigned int i = static_cast<unsigned int>(t);
  return i <= 7 ? kNames[i] : "?";
}

std::string ProposedUpdate::toString() const {
  std::ostringstream os;
  os << uid << ":" << UpdateName(type) << ":" << version << ":";
  if (type == noUpdate) {
    os << "None";
  } else if (type == noopUpdate) {
    os << "no-op-update";
  } else if (hasPayloadType(type)) {
    if (payload_) payload_->print(os);
  } else {
    os << "Unknown update " << static_cast<int>(type);
  }
  if (!listn.empty()) {
    os << " listn [";
    for (size_t i = 0; i < listn.size(); i++) os << (i > 0 ? "," : "") << listn[i];
    os << "]";
  }
  return os.str();
}

std::ostream& operator<<(std::ostream& os, const ProposedUpdate& u) {
  return os << u.toString();
}
