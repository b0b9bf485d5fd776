#include "server/slotcodec.h"

#include "server/replica.h"
#include "zel/paxosutils.h"

namespace zeld {

namespace {

constexpr int kCrcOffset = 20;  // the checksum covers bytes [0, 20) and the payload

unsigned int copyCrc(const char* hdr, const char* payload, size_t len) {
  unsigned int c = partialcrc(reinterpret_cast<const unsigned char*>(hdr), kCrcOffset, 0);
  c = partialcrc(reinterpret_cast<const unsigned char*>(payload), len, c);
  return finalcrc(c, kCrcOffset + len);
}

}  // namespace

int EncodeSlotCopy(const SharedBlock& b, unsigned long long gen, int writerId, std::string* out) {
  int size = b.getSize();
  if (size > kMaxBlockBytes) return 34;
  out->assign(kSlotHeaderBytes + size, '\0');
  char* hdr = &(*out)[0];
  char* p = DumpUInt32(hdr, kSlotMagic);
  p = DumpUInt32(p, static_cast<unsigned int>(size));
  p = DumpUInt64(p, gen);
  p = DumpUInt32(p, static_cast<unsigned int>(writerId));
  b.dump(hdr + kSlotHeaderBytes);
  DumpUInt32(p, copyCrc(hdr, hdr + kSlotHeaderBytes, size));
  return 0;
}

int DecodeSlotHeader(const char* p, size_t n, SlotHeader* h) {
  if (n < static_cast<size_t>(kSlotHeaderBytes)) return 5;
  const char* end = p + kSlotHeaderBytes;
  unsigned int magic = 0, writer = 0;
  p = LoadUInt32(p, end, &magic);
  p = LoadUInt32(p, end, &h->length);
  p = LoadUInt64(p, end, &h->gen);
  p = LoadUInt32(p, end, &writer);
  p = LoadUInt32(p, end, &h->crc);
  if (p == nullptr || magic != kSlotMagic || h->length > static_cast<unsigned int>(kMaxBlockBytes))
    return 5;
  h->writerId = static_cast<int>(writer);
  return 0;
}

int DecodeSlotCopy(const char* p, size_t n, SlotHeader* h, SharedBlock* b) {
  if (DecodeSlotHeader(p, n, h) != 0) return 5;
  if (n - kSlotHeaderBytes < h->length) return 5;
  const char* payload = p + kSlotHeaderBytes;
  if (copyCrc(p, payload, h->length) != h->crc) return 5;
  const char* end = payload + h->length;
  if (b->load(payload, end) != end) return 5;
  return 0;
}

}  // namespace zeld
