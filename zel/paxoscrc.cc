// The CRC of the POSIX cksum utility: polynomial 0x04C11DB7, most significant
// bit first, no reflection, initial value 0; finalcrc feeds the length and
// complements.
//
// A running value c followed by n bits of data D gives (c * x^n + D * x^32)
// mod P, so c can be folded into the first four data bytes, and every path
// below only needs powers of x modulo P, all derived here from the polynomial.
#include <cstdint>
#include <cstring>

#include "zel/paxoscrc_impl.h"
#include "zel/paxosutils.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <immintrin.h>
#define ZEL_CRC_X86 1
#endif

namespace {

constexpr uint32_t kPoly = 0x04C11DB7u;

// t[k][j] is the CRC of byte j followed by k zero bytes: j * x^(32 + 8k) mod P.
struct CrcTables {
  uint32_t t[8][256];
  constexpr CrcTables() : t() {
    for (uint32_t j = 0; j < 256; j++) {
      uint32_t c = j << 24;
      for (int b = 0; b < 8; b++) c = (c & 0x80000000u) ? (c << 1) ^ kPoly : c << 1;
      t[0][j] = c;
    }
    for (int k = 1; k < 8; k++)
      for (int j = 0; j < 256; j++) t[k][j] = t[0][t[k - 1][j] >> 24] ^ (t[k - 1][j] << 8);
  }
};

constexpr CrcTables kTables;

inline uint32_t LoadBe32(const unsigned char* p) {
  uint32_t v;
  memcpy(&v, p, sizeof v);
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  v = __builtin_bswap32(v);
#endif
  return v;
}

#ifdef ZEL_CRC_X86

// x^n mod P.
constexpr uint64_t XPowMod(unsigned n) {
  uint32_t r = 1;
  for (unsigned i = 0; i < n; i++) r = (r & 0x80000000u) ? (r << 1) ^ kPoly : r << 1;
  return r;
}

// floor(x^64 / P), 33 bits, for the Barrett reduction.
constexpr uint64_t BarrettMu() {
  uint64_t rem = 0, q = 0;
  for (int bit = 64; bit >= 0; bit--) {
    rem = (rem << 1) | (bit == 64 ? 1 : 0);
    q <<= 1;
    if (rem & (uint64_t{1} << 32)) {
      rem ^= (uint64_t{1} << 32) | kPoly;
      q |= 1;
    }
  }
  return q;
}

// Folding a 128-bit block a over D bits: a.hi * (x^(D+64) mod P) ^ a.lo * (x^D mod P).
constexpr uint64_t kFold512Hi = XPowMod(512 + 64), kFold512Lo = XPowMod(512);
constexpr uint64_t kFold128Hi = XPowMod(128 + 64), kFold128Lo = XPowMod(128);
constexpr uint64_t kX96 = XPowMod(96), kX64 = XPowMod(64);
constexpr uint64_t kMu = BarrettMu();
constexpr uint64_t kPoly33 = (uint64_t{1} << 32) | kPoly;

static_assert(kMu >> 32 == 1, "Barrett quotient must have degree 32");

#define ZEL_CRC_TARGET __attribute__((target("pclmul,sse4.1,ssse3")))

ZEL_CRC_TARGET inline __m128i LoadBlock(const unsigned char* p, __m128i swap) {
  // Big-endian: the first byte becomes the top of the register, the highest power of x.
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), swap);
}

ZEL_CRC_TARGET inline __m128i Fold(__m128i a, __m128i k) {
  return _mm_xor_si128(_mm_clmulepi64_si128(a, k, 0x11), _mm_clmulepi64_si128(a, k, 0x00));
}

#endif  // ZEL_CRC_X86

}  // namespace

unsigned int PartialCrcReference(const unsigned char* p, unsigned long len, unsigned int crc) {
  for (unsigned long i = 0; i < len; i++) crc = kTables.t[0][(crc >> 24) ^ p[i]] ^ (crc << 8);
  return crc;
}

unsigned int PartialCrcSlicing8(const unsigned char* p, unsigned long len, unsigned int crc) {
  const auto& t = kTables.t;
  for (; len >= 8; p += 8, len -= 8) {
    uint32_t a = crc ^ LoadBe32(p), b = LoadBe32(p + 4);
    crc = t[7][a >> 24] ^ t[6][(a >> 16) & 0xFF] ^ t[5][(a >> 8) & 0xFF] ^ t[4][a & 0xFF] ^
          t[3][b >> 24] ^ t[2][(b >> 16) & 0xFF] ^ t[1][(b >> 8) & 0xFF] ^ t[0][b & 0xFF];
  }
  return PartialCrcReference(p, len, crc);
}

#ifdef ZEL_CRC_X86

// One CPUID leaf rather than the compiler's feature probe: that probe links a
// start-up constructor issuing many CPUIDs, each costly under virtualisation.
bool PartialCrcPclmulAvailable() {
  unsigned int a = 0, b = 0, c = 0, d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return false;
  const unsigned int need = bit_PCLMUL | bit_SSE4_1 | bit_SSSE3;
  return (c & need) == need;
}

ZEL_CRC_TARGET unsigned int PartialCrcPclmul(const unsigned char* p, unsigned long len,
                                             unsigned int crc) {
  if (len < 64) return PartialCrcSlicing8(p, len, crc);
  const __m128i swap = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
  const __m128i k512 = _mm_set_epi64x(kFold512Hi, kFold512Lo);
  const __m128i k128 = _mm_set_epi64x(kFold128Hi, kFold128Lo);

  // Four independent lanes hide the multiply latency; each folds over the other three.
  __m128i x0 = _mm_xor_si128(LoadBlock(p, swap), _mm_set_epi32(static_cast<int>(crc), 0, 0, 0));
  __m128i x1 = LoadBlock(p + 16, swap), x2 = LoadBlock(p + 32, swap);
  __m128i x3 = LoadBlock(p + 48, swap);
  p += 64;
  len -= 64;
  for (; len >= 64; p += 64, len -= 64) {
    x0 = _mm_xor_si128(Fold(x0, k512), LoadBlock(p, swap));
    x1 = _mm_xor_si128(Fold(x1, k512), LoadBlock(p + 16, swap));
    x2 = _mm_xor_si128(Fold(x2, k512), LoadBlock(p + 32, swap));
    x3 = _mm_xor_si128(Fold(x3, k512), LoadBlock(p + 48, swap));
  }
  x1 = _mm_xor_si128(x1, Fold(x0, k128));
  x2 = _mm_xor_si128(x2, Fold(x1, k128));
  x3 = _mm_xor_si128(x3, Fold(x2, k128));
  for (; len >= 16; p += 16, len -= 16) x3 = _mm_xor_si128(Fold(x3, k128), LoadBlock(p, swap));

  // x3 * x^32 mod P: 128 -> 96 bits, 96 -> 64 bits, then Barrett.
  const __m128i kr = _mm_set_epi64x(kX64, kX96);
  __m128i t =
      _mm_xor_si128(_mm_clmulepi64_si128(x3, kr, 0x01), _mm_slli_si128(_mm_move_epi64(x3), 4));
  __m128i u = _mm_xor_si128(_mm_clmulepi64_si128(t, kr, 0x11), _mm_move_epi64(t));
  const __m128i kb = _mm_set_epi64x(kPoly33, kMu);
  __m128i q = _mm_srli_epi64(_mm_clmulepi64_si128(_mm_srli_epi64(u, 32), kb, 0x00), 32);
  __m128i r = _mm_xor_si128(u, _mm_clmulepi64_si128(q, kb, 0x10));
  crc = static_cast<uint32_t>(_mm_cvtsi128_si32(r));
  return PartialCrcSlicing8(p, len, crc);
}

#else

bool PartialCrcPclmulAvailable() {
  return false;
}

unsigned int PartialCrcPclmul(const unsigned char* p, unsigned long len, unsigned int crc) {
  return PartialCrcSlicing8(p, len, crc);
}

#endif  // ZEL_CRC_X86

unsigned int partialcrc(const unsigned char* p, unsigned long len, unsigned int crc) {
  static const bool pclmul = PartialCrcPclmulAvailable();
  return pclmul ? PartialCrcPclmul(p, len, crc) : PartialCrcSlicing8(p, len, crc);
}

unsigned int finalcrc(unsigned int crc, unsigned long totalLen) {
  for (; totalLen != 0; totalLen >>= 8)
    crc = kTables.t[0][(crc >> 24) ^ (totalLen & 0xFF)] ^ (crc << 8);
  return ~crc;
}
