// Each checksum path behind partialcrc, exposed for tests and benchmarks.
// All compute the same running CRC (polynomial 0x04C11DB7, MSB first, no
// reflection) over any length and alignment; a length of 0 returns crc.
#ifndef ZEL_PAXOSCRC_IMPL_H
#define ZEL_PAXOSCRC_IMPL_H

// The byte-at-a-time table: the reference and last fallback.
unsigned int PartialCrcReference(const unsigned char* p, unsigned long len, unsigned int crc);

// Eight table look-ups per 8 bytes; runs on any CPU.
unsigned int PartialCrcSlicing8(const unsigned char* p, unsigned long len, unsigned int crc);

// True when this CPU has carry-less multiply, SSSE3 and SSE4.1.
bool PartialCrcPclmulAvailable();

// Carry-less-multiply folding; call only when PartialCrcPclmulAvailable().
unsigned int PartialCrcPclmul(const unsigned char* p, unsigned long len, unsigned int crc);

#endif  // ZEL_PAXOSCRC_IMPL_H
