#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "zel/paxoscrc_impl.h"
#include "zel/paxosutils.h"

namespace {

using CrcFn = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

struct CrcPath {
  const char* name;
  CrcFn fn;
};

std::vector<CrcPath> Paths() {
  std::vector<CrcPath> v = {{"reference", PartialCrcReference},
                            {"slicing8", PartialCrcSlicing8},
                            {"partialcrc", partialcrc}};
  if (PartialCrcPclmulAvailable()) v.push_back({"pclmul", PartialCrcPclmul});
  return v;
}

std::vector<unsigned char> Pattern(const std::string& kind, size_t n) {
  std::vector<unsigned char> v(n);
  unsigned int x = 12345;
  for (size_t i = 0; i < n; i++) {
    if (kind == "ramp") v[i] = i & 0xFF;
    if (kind == "mul") v[i] = ((i * 7 + 3) >> (i % 5)) & 0xFF;
    if (kind == "ff") v[i] = 0xFF;
    if (kind == "lcg") x = x * 1103515245u + 12345u, v[i] = x >> 24;
  }
  return v;
}

// Values printed by the system's cksum utility for the same bytes.
struct Golden {
  const char* kind;
  size_t len;
  unsigned int cksum;
};

const Golden kGolden[] = {
    {"ramp", 100000, 2448995759u}, {"mul", 1 << 20, 437788148u}, {"zero", 65536, 4215202376u},
    {"ff", 1000003, 3311650374u},  {"lcg", 333333, 1389329024u}, {"zero", 0, 4294967295u},
};

TEST(CrcTest, LargePatternsMatchCksumWholeAndChunked) {
  for (const auto& g : kGolden) {
    std::vector<unsigned char> d = Pattern(g.kind, g.len);
    for (const auto& path : Paths())
      EXPECT_EQ(finalcrc(path.fn(d.data(), d.size(), 0), d.size()), g.cksum)
          << path.name << " " << g.kind;
    // As file transfer does it: chunk by chunk with the running value.
    for (size_t chunk : {size_t{4096}, size_t{1000}, size_t{65537}}) {
      unsigned int crc = 0;
      for (size_t off = 0; off < d.size(); off += chunk)
        crc = partialcrc(d.data() + off, std::min(chunk, d.size() - off), crc);
      EXPECT_EQ(finalcrc(crc, d.size()), g.cksum) << g.kind << " chunk " << chunk;
    }
  }
}

// Every length across the block thresholds (0 included) at every alignment, each in a buffer
// of exactly that size so that AddressSanitizer catches a read past the end.
TEST(CrcTest, EveryShortLengthAndAlignmentMatchesReference) {
  std::mt19937 rng(7);
  const auto paths = Paths();
  for (size_t len = 0; len <= 300; len++) {
    for (size_t align = 0; align < 16; align++) {
      std::vector<unsigned char> buf(align + len);
      for (auto& c : buf) c = rng() & 0xFF;
      const unsigned char* p = buf.data() + align;
      unsigned int crc = rng();
      unsigned int want = PartialCrcReference(p, len, crc);
      for (const auto& path : paths)
        ASSERT_EQ(path.fn(p, len, crc), want) << path.name << " len " << len << " align " << align;
    }
  }
}

}  // namespace
