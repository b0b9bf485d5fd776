#include "zel/paxosinit.h"

#include "zel/paxosutils.h"

namespace {

const char* loadFlag(const char* p, const char* end, bool* out) {
  if (p == nullptr || p >= end) return nullptr;
  *out = *p != 0;
  return p + 1;
}

// Counts are bounded by what the remaining input could hold (each entry takes
// at least minBytes), so a forged count cannot make the decoder reserve memory.
bool countFits(int n, const char* p, const char* end, int minBytes) {
  return n >= 0 && static_cast<long long>(n) * minBytes <= end - p;
}

}  // namespace

int SizeInitDisks(const InitDisks& d) {
  int n = SizeVarUInt(static_cast<long long>(d.size()), 0);
  for (const InitDisk& x : d) n += SizeVarUInt(x.slot, 0) + static_cast<int>(x.label.size()) + 2;
  return n;
}

char* DumpInitDisks(char* p, const InitDisks& d) {
  p = DumpVarUInt(p, static_cast<long long>(d.size()), 0);
  for (const InitDisk& x : d) {
    p = DumpVarUInt(p, x.slot, 0);
    p = DumpString(p, x.label);
    *p++ = x.old ? 1 : 0;
  }
  return p;
}

const char* LoadInitDisks(const char* p, const char* end, InitDisks* d) {
  d->clear();
  int n = 0;
  p = LoadVarUInt(p, end, &n, 0);
  if (p == nullptr || !countFits(n, p, end, 3)) return nullptr;
  for (int i = 0; i < n && p != nullptr; i++) {
    InitDisk x;
    p = LoadVarUInt(p, end, &x.slot, 0);
    p = LoadString(p, end, &x.label);
    p = loadFlag(p, end, &x.old);
    if (p != nullptr) d->push_back(x);
  }
  return p;
}

int InitRequest::getSize() const {
  int n = 8 + SizeVarUInt(static_cast<long long>(nodes.size()), 0);
  for (const InitNode& x : nodes) {
    n += SizeVarUInt(x.id, 0) + 1 + static_cast<int>(x.name.size() + x.addr.size()) + 2 +
         SizeVarUInt(x.port, 0);
  }
  return n + SizeInitDisks(disks) + block.getSize();
}

char* InitRequest::dump(char* p) const {
  p = DumpUInt64(p, clusterId);
  p = DumpVarUInt(p, static_cast<long long>(nodes.size()), 0);
  for (const InitNode& x : nodes) {
    p = DumpVarUInt(p, x.id, 0);
    *p++ = x.old ? 1 : 0;
    p = DumpString(p, x.name);
    p = DumpString(p, x.addr);
    p = DumpVarUInt(p, x.port, 0);
  }
  p = DumpInitDisks(p, disks);
  return block.dump(p);
}

const char* InitRequest::load(const char* p, const char* end) {
  nodes.clear();
  p = LoadUInt64(p, end, &clusterId);
  int n = 0;
  p = LoadVarUInt(p, end, &n, 0);
  if (p == nullptr || !countFits(n, p, end, 5)) return nullptr;
  for (int i = 0; i < n && p != nullptr; i++) {
    InitNode x;
    p = LoadVarUInt(p, end, &x.id, 0);
    p = loadFlag(p, end, &x.old);
    p = LoadString(p, end, &x.name);
    p = LoadString(p, end, &x.addr);
    p = LoadVarUInt(p, end, &x.port, 0);
    if (p != nullptr) nodes.push_back(x);
  }
  p = LoadInitDisks(p, end, &disks);
  if (p == nullptr) return nullptr;
  return block.load(p, end);
}

int PxInitRequest::getSize() const {
  return SizeInitDisks(disks) + block.getSize() + SizeVarUInt(nSlots, 0) + SizeVarUInt(nodeId, 0);
}

char* PxInitRequest::dump(char* p) const {
  p = DumpInitDisks(p, disks);
  p = block.dump(p);
  p = DumpVarUInt(p, nSlots, 0);
  return DumpVarUInt(p, nodeId, 0);
}

const char* PxInitRequest::load(const char* p, const char* end) {
  p = LoadInitDisks(p, end, &disks);
  if (p == nullptr) return nullptr;
  p = block.load(p, end);
  p = LoadVarUInt(p, end, &nSlots, 0);
  return LoadVarUInt(p, end, &nodeId, 0);
}
