// The CRC of the POSIX cksum utility: polynomial 0x04C11DB7, most significant
// bit first, no reflection, initial value 0; finalcrc feeds the length and
// complements.
#include "zel/paxosutils.h"

namespace {

struct CrcTable {
  unsigned int t[256];
  constexpr CrcTable() : t() {
    for (unsigned int j = 0; j < 256; j++) {
      unsigned int c = j << 24;
      for (int b = 0; b < 8; b++) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
      t[j] = c;
    }
  }
};

constexpr CrcTable kTable;

}  // namespace

unsigned int partialcrc(const unsigned char* p, unsigned long len, unsigned int crc) {
  for (unsigned long i = 0; i < len; i++) crc = kTable.t[(crc >> 24) ^ p[i]] ^ (crc << 8);
  return crc;
}

unsigned int finalcrc(unsigned int crc, unsigned long totalLen) {
  for (; totalLen != 0; totalLen >>= 8)
    crc = kTable.t[(crc >> 24) ^ (totalLen & 0xFF)] ^ (crc << 8);
  return ~crc;
}
