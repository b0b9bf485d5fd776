#include "zel/pxwire.h"

namespace {

enum SlotKind { kAbsent = 0, kBlock = 1, kSharedState = 2, kHeadOnly = 3 };

}  // namespace

std::string PxFailedBody(int code) {
  char b[MaxSizeVarUInt];
  return std::string(b, DumpVarUInt(b, code, -1));
}

// ---- PxReadRequest ----

int PxReadRequest::getSize() const {
  return SizeVarUInt(readerId, 0) + SizeVarUInt(seq, 0);
}

char* PxReadRequest::dump(char* p) const {
  return DumpVarUInt(DumpVarUInt(p, readerId, 0), seq, 0);
}

const char* PxReadRequest::load(const char* p, const char* end) {
  return LoadVarUInt(LoadVarUInt(p, end, &readerId, 0), end, &seq, 0);
}

// ---- PxWriteRequest ----

int PxWriteRequest::getSize() const {
  return SizeVarUInt(writerId, 0) + SizeVarUInt(slot, 0) + block.getSize();
}

char* PxWriteRequest::dump(char* p) const {
  p = DumpVarUInt(p, writerId, 0);
  p = DumpVarUInt(p, slot, 0);
  return block.dump(p);
}

const char* PxWriteRequest::load(const char* p, const char* end) {
  p = LoadVarUInt(p, end, &writerId, 0);
  p = LoadVarUInt(p, end, &slot, 0);
  if (p == nullptr || slot >= kPxSlots) return nullptr;
  return block.load(p, end);
}

// ---- PxSlots ----

bool PxSlot::operator==(const PxSlot& o) const {
  if (present != o.present) return false;
  if (!present) return true;
  if (headOnly != o.headOnly) return false;
  const SharedBlock& a = block;
  const SharedBlock& b = o.block;
  bool sameHead = a.seq == b.seq && a.mbal == b.mbal && a.bal == b.bal && a.inp == b.inp &&
                  a.leaderChallengeVersion == b.leaderChallengeVersion;
  return sameHead && (headOnly || SameState(a.committed, b.committed));
}

void PxOmitStates(PxSlots* slots, int seq) {
  int top = seq;
  for (const PxSlot& s : *slots)
    if (s.present && s.block.seq > top) top = s.block.seq;
  for (PxSlot& s : *slots) s.headOnly = s.present && s.block.seq < top;
}

int PxSlots::sharedWith(size_t i) const {
  const PxSlot& s = (*this)[i];
  if (s.headOnly) return -1;
  for (size_t j = 0; j < i; j++) {
    const PxSlot& t = (*this)[j];
    if (t.headOnly) continue;
    // Blocks of one instance carry one state; others are not worth comparing.
    if (t.present && t.block.seq == s.block.seq && SameState(t.block.committed, s.block.committed))
      return static_cast<int>(j);
  }
  return -1;
}

int PxSlots::getSize() const {
  ZASSERT(size() == static_cast<size_t>(kPxSlots));
  int n = SizeVarUInt(kPxSlots, 0);
  for (size_t i = 0; i < size(); i++) {
    const PxSlot& s = (*this)[i];
    n += 1;  // kind
    if (!s.present) continue;
    if (s.headOnly) {
      n += s.block.getHeadSize();
      continue;
    }
    int j = sharedWith(i);
    n += j < 0 ? s.block.getSize() : SizeVarUInt(j, 0) + s.block.getHeadSize();
  }
  return n;
}

char* PxSlots::dump(char* p) const {
  ZASSERT(size() == static_cast<size_t>(kPxSlots));
  p = DumpVarUInt(p, kPxSlots, 0);
  for (size_t i = 0; i < size(); i++) {
    const PxSlot& s = (*this)[i];
    if (!s.present) {
      p = DumpVarUInt(p, kAbsent, 0);
      continue;
    }
    if (s.headOnly) {
      p = DumpVarUInt(p, kHeadOnly, 0);
      p = s.block.dumpHead(p);
      continue;
    }
    int j = sharedWith(i);
    if (j < 0) {
      p = DumpVarUInt(p, kBlock, 0);
      p = s.block.dump(p);
    } else {
      p = DumpVarUInt(p, kSharedState, 0);
      p = DumpVarUInt(p, j, 0);
      p = s.block.dumpHead(p);
    }
  }
  return p;
}

const char* PxSlots::load(const char* p, const char* end) {
  assign(kPxSlots, PxSlot());
  int count = 0;
  p = LoadVarUInt(p, end, &count, 0);
  if (p == nullptr || count != kPxSlots) return nullptr;
  for (int i = 0; i < kPxSlots; i++) {
    PxSlot& s = (*this)[i];
    int kind = kAbsent;
    p = LoadVarUInt(p, end, &kind, 0);
    if (p == nullptr) return nullptr;
    if (kind == kAbsent) continue;
    if (kind == kBlock) {
      p = s.block.load(p, end);
    } else if (kind == kSharedState) {
      int j = -1;
      p = LoadVarUInt(p, end, &j, 0);
      if (p == nullptr || j < 0 || j >= i || !(*this)[j].present || (*this)[j].headOnly)
        return nullptr;
      s.block.committed = (*this)[j].block.committed;
      p = s.block.loadHead(p, end);
    } else if (kind == kHeadOnly) {
      s.headOnly = true;
      p = s.block.loadHead(p, end);
    } else {
      return nullptr;
    }
    if (p == nullptr) return nullptr;
    s.present = true;
  }
  return p;
}

// ---- PxFileRequest ----

int PxFileRequest::getSize() const {
  return static_cast<int>(name.size()) + 1 + SizeVarUInt(fileId, 0) + SizeVarUInt(version, -1) +
         uid.getSize();
}

char* PxFileRequest::dump(char* p) const {
  p = DumpString(p, name);
  p = DumpVarUInt(p, fileId, 0);
  p = DumpVarUInt(p, version, -1);
  return uid.dump(p);
}

const char* PxFileRequest::load(const char* p, const char* end) {
  p = LoadString(p, end, &name);
  p = LoadVarUInt(p, end, &fileId, 0);
  p = LoadVarUInt(p, end, &version, -1);
  return uid.load(p, end);
}

// ---- PxFileSize ----

int PxFileSize::getSize() const {
  return SizeVarUInt(size, 0);
}

char* PxFileSize::dump(char* p) const {
  return DumpVarUInt(p, size, 0);
}

const char* PxFileSize::load(const char* p, const char* end) {
  return LoadVarUInt(p, end, &size, 0);
}
