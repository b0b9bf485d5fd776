// The header that frames the paxos state file.
#include <cstdio>

#include "zel/paxosutils.h"
#include "zel/zelerr.h"

void PaxosHeader::initHdr() {
  magic = kPaxosMagic;
  crc = 0;
  len = 0;
  fmtVersion = 0;
  cid = 0;
  lastWriterId = -1;
}

int PaxosHeader::getSize() const {
  return 20 + SizeVarUInt(fmtVersion, 0) + SizeVarUInt(lastWriterId, -1);
}

char* PaxosHeader::dump(char* p) const {
  p = DumpUInt32(p, magic);
  p = DumpUInt32(p, crc);
  p = DumpUInt32(p, len);
  p = DumpUInt64(p, cid);
  p = DumpVarUInt(p, fmtVersion, 0);
  return DumpVarUInt(p, lastWriterId, -1);
}

void PaxosHeader::setCRC(char* buf, int n) const {
  unsigned int c = partialcrc(reinterpret_cast<const unsigned char*>(buf) + 8,
                              static_cast<unsigned long>(n - 8), 0);
  DumpUInt32(buf + 4, c);
}

const char* PaxosHeader::load(const char* p, const char* end) {
  cid = 0;
  fmtVersion = 0;
  lastWriterId = -1;
  p = LoadUInt32(p, end, &magic);
  p = LoadUInt32(p, end, &crc);
  p = LoadUInt32(p, end, &len);
  p = LoadUInt64(p, end, &cid);
  p = LoadVarUIntU(p, end, &fmtVersion, 0);
  return LoadVarUInt(p, end, &lastWriterId, -1);
}

int PaxosHeader::validate(const char* p, const char* end) const {
  long have = p == nullptr ? 0 : static_cast<long>(end - p);
  if (p == nullptr || have < 12) {
    trace(3, "Bad Paxos data length: have %d need %d", static_cast<int>(have), 0);
    return E_BAD_PAXOS_DATA;
  }
  unsigned int m = 0, c = 0, n = 0;
  const char* q = LoadUInt32(p, end, &m);
  q = LoadUInt32(q, end, &c);
  LoadUInt32(q, end, &n);
  if (n > static_cast<unsigned long>(have)) {
    trace(3, "Bad Paxos data length: have %d need %d", static_cast<int>(have), static_cast<int>(n));
    return E_BAD_PAXOS_DATA;
  }
  // A len shorter than any header would make the checksum length wrap.
  if (n < static_cast<unsigned int>(kPaxosHeaderMinSize)) {
    trace(3, "Bad Paxos data length: have %d need %d", static_cast<int>(have), kPaxosHeaderMinSize);
    return E_BAD_PAXOS_DATA;
  }
  if (m != kPaxosMagic) {
    trace(3, "Bad Paxos magic %08X", m);
    return E_BAD_PAXOS_DATA;
  }
  unsigned int calc = partialcrc(reinterpret_cast<const unsigned char*>(p) + 8, n - 8, 0);
  if (calc != c) {
    trace(3, "Bad Paxos CRC: found %08x calculated %08x", c, calc);
    return E_BAD_PAXOS_DATA;
  }
  return 0;
}

std::string PaxosHeader::toString() const {
  char buf[160];
  snprintf(buf, sizeof buf,
           "hdr: magic %08X, crc %08X, len %d, fmtVersion %d cid %llu lastWriterId %d\n", magic,
           crc, static_cast<int>(len), static_cast<int>(fmtVersion), cid, lastWriterId);
  return buf;
}
