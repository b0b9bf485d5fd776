#include "zel/paxosutils.h"

#include <climits>
#include <cstring>

namespace {

// v - bias in 64 bits, checked against the 56-bit payload of the longest code.
unsigned long long quantity(long long v, int bias) {
  unsigned long long i = static_cast<unsigned long long>(v) -
                         static_cast<unsigned long long>(static_cast<long long>(bias));
  ZASSERT_T(i < (1ULL << 56), "(unsigned long long)i < (1ULL << 56)");
  return i;
}

// Decodes the quantity (without bias); returns null when input runs out or the
// quantity exceeds limit (then *tooLarge is set).
const char* loadQuantity(const char* p, const char* end, unsigned long long limit,
                         unsigned long long* q, bool* tooLarge) {
  *tooLarge = false;
  if (p == nullptr || p >= end) return nullptr;
  unsigned long long c = static_cast<unsigned char>(*p++);
  if ((c & 0x80) == 0) {
    *q = c;
    return p;
  }
  // Each continuation clears the leading one just consumed and appends a byte;
  // the or-ed markers add up to the base of the code's range. Unsigned wrap
  // keeps an all-ones first byte finite: the marker reaches 0 and ends the loop.
  unsigned long long a = c, off = 0, m = 128;
  while (p < end) {
    unsigned long long d = static_cast<unsigned char>(*p++);
    off |= m;
    a = ((a ^ m) << 8) + d;
    m <<= 7;
    if ((a & m) == 0) {
      unsigned long long i = a + off;
      if (i > limit || i < a) {
        *tooLarge = true;
        return nullptr;
      }
      *q = i;
      return p;
    }
  }
  return nullptr;
}

}  // namespace

int SizeVarUInt(long long v, int bias) {
  unsigned long long i = quantity(v, bias);
  if (i < 128) return 1;
  unsigned long long step = 128;
  int k = 0;
  do {
    i -= step;
    step *= 128;
    k++;
  } while (i >= step);
  return k + 1;
}

char* DumpVarUInt(char* p, long long v, int bias) {
  unsigned long long i = quantity(v, bias);
  if (i < 128) {
    *p++ = static_cast<char>(i);
    return p;
  }
  unsigned long long step = 128;
  int k = 0;
  do {
    i -= step;
    step *= 128;
    k++;
  } while (i >= step);
  *p++ = static_cast<char>(((i >> (8 * k)) | (0xFF00u >> k)) & 0xFF);
  for (int b = k - 1; b >= 0; b--) *p++ = static_cast<char>((i >> (8 * b)) & 0xFF);
  return p;
}

const char* LoadVarUInt(const char* p, const char* end, int* out, int bias) {
  unsigned long long q = 0;
  bool tooLarge;
  const char* r = loadQuantity(p, end, INT_MAX, &q, &tooLarge);
  if (r == nullptr) {
    if (!tooLarge) *out = bias;
    return nullptr;
  }
  *out = static_cast<int>(static_cast<long long>(q) + bias);
  return r;
}

const char* LoadVarUIntU(const char* p, const char* end, unsigned int* out, int bias) {
  unsigned long long q = 0;
  bool tooLarge;
  const char* r = loadQuantity(p, end, UINT_MAX, &q, &tooLarge);
  if (r == nullptr) {
    if (!tooLarge) *out = static_cast<unsigned int>(bias);
    return nullptr;
  }
  *out = static_cast<unsigned int>(static_cast<long long>(q) + bias);
  return r;
}

char* DumpUInt32(char* p, unsigned int v) {
  p[0] = static_cast<char>(v >> 24);
  p[1] = static_cast<char>(v >> 16);
  p[2] = static_cast<char>(v >> 8);
  p[3] = static_cast<char>(v);
  return p + 4;
}

const char* LoadUInt32(const char* p, const char* end, unsigned int* out) {
  if (p == nullptr || end - p < 4) return nullptr;
  const auto* u = reinterpret_cast<const unsigned char*>(p);
  *out = (static_cast<unsigned int>(u[0]) << 24) | (static_cast<unsigned int>(u[1]) << 16) |
         (static_cast<unsigned int>(u[2]) << 8) | u[3];
  return p + 4;
}

char* DumpUInt64(char* p, unsigned long long v) {
  p = DumpUInt32(p, static_cast<unsigned int>(v >> 32));
  return DumpUInt32(p, static_cast<unsigned int>(v));
}

const char* LoadUInt64(const char* p, const char* end, unsigned long long* out) {
  unsigned int hi = 0, lo = 0;
  p = LoadUInt32(p, end, &hi);
  p = LoadUInt32(p, end, &lo);
  if (p != nullptr) *out = (static_cast<unsigned long long>(hi) << 32) | lo;
  return p;
}

char* DumpString(char* p, const std::string& s) {
  memcpy(p, s.data(), s.size());
  p[s.size()] = '\0';
  return p + s.size() + 1;
}

const char* LoadString(const char* p, const char* end, std::string* out) {
  if (p == nullptr || p >= end) return nullptr;
  const void* z = memchr(p, '\0', static_cast<size_t>(end - p));
  if (z == nullptr) return nullptr;
  const char* zp = static_cast<const char*>(z);
  out->assign(p, zp);
  return zp + 1;
}

bool ParseDecimalU64(const char* text, unsigned long long* out) {
  if (text == nullptr || *text == '\0') return false;
  unsigned long long v = 0;
  for (const char* p = text; *p; p++) {
    if (*p < '0' || *p > '9') return false;
    unsigned d = static_cast<unsigned>(*p - '0');
    if (v > (ULLONG_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  *out = v;
  return true;
}

bool ParseDecimal(const char* text, long long min, long long max, long long* out) {
  if (text == nullptr) return false;
  bool neg = *text == '-';
  unsigned long long mag = 0;
  if (!ParseDecimalU64(neg ? text + 1 : text, &mag)) return false;
  long long v;
  if (neg) {
    if (mag > static_cast<unsigned long long>(LLONG_MAX) + 1) return false;
    v = static_cast<long long>(0ULL - mag);
  } else {
    if (mag > static_cast<unsigned long long>(LLONG_MAX)) return false;
    v = static_cast<long long>(mag);
  }
  if (v < min || v > max) return false;
  *out = v;
  return true;
}
