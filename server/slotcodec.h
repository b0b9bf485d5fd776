// One copy of a block-store slot as it lies on disk: a fixed header (magic,
// payload length, write generation, writer, checksum over header and payload)
// followed by the encoded Dblock. A copy whose checksum or block does not
// verify is never read as data.
#ifndef SERVER_SLOTCODEC_H
#define SERVER_SLOTCODEC_H

#include <string>

#include "zel/sharedblock.h"

namespace zeld {

constexpr int kSlotHeaderBytes = 24;
constexpr unsigned int kSlotMagic = 0x5A424C4B;

struct SlotHeader {
  unsigned int length = 0;
  unsigned long long gen = 0;
  int writerId = -1;
  unsigned int crc = 0;
};

// Encodes b as a copy of generation gen into *out. 0, or 34 when b is larger
// than kMaxBlockBytes.
int EncodeSlotCopy(const SharedBlock& b, unsigned long long gen, int writerId, std::string* out);
// Decodes the header alone: 0, or 5 for a bad magic or a length over the limit.
int DecodeSlotHeader(const char* p, size_t n, SlotHeader* h);
// Verifies a whole copy (header then payload) and decodes its block: 0 or 5.
int DecodeSlotCopy(const char* p, size_t n, SlotHeader* h, SharedBlock* b);

}  // namespace zeld

#endif  // SERVER_SLOTCODEC_H
