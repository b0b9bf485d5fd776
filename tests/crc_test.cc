#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "zel/paxoscrc_impl.h"
#include "zel/paxosutils.h"

namespace {

using CrcFn = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

std::vector<std::pair<const char*, CrcFn>> Paths() {
  std::vector<std::pair<const char*, CrcFn>> v = {{"reference", PartialCrcReference},
                                                  {"slicing8", PartialCrcSlicing8},
                                                  {"partialcrc", partialcrc}};
  if (PartialCrcPclmulAvailable()) v.push_back({"pclmul", PartialCrcPclmul});
  return v;
}

// Expected values are those the system's cksum utility prints for the same bytes.
TEST(CrcTest, LargePatternsMatchCksumWholeAndChunked) {
  const struct {
    int kind;  // 0 ramp, 1 all 0xFF, 2 pseudo-random
    size_t len;
    unsigned int cksum;
  } cases[] = {{0, 100000, 2448995759u},
               {1, 1000003, 3311650374u},
               {2, 333333, 1389329024u},
               {0, 0, 4294967295u}};
  for (const auto& g : cases) {
    std::vector<unsigned char> d(g.len);
    unsigned int x = 12345;
    for (size_t i = 0; i < g.len; i++) {
      x = x * 1103515245u + 12345u;
      d[i] = g.kind == 0 ? i & 0xFF : g.kind == 1 ? 0xFF : x >> 24;
    }
    for (const auto& path : Paths())
      EXPECT_EQ(finalcrc(path.second(d.data(), d.size(), 0), d.size()), g.cksum) << path.first;
    // As file transfer does it: chunk by chunk with the running value.
    unsigned int crc = 0;
    for (size_t off = 0; off < d.size(); off += 1000)
      crc = partialcrc(d.data() + off, std::min<size_t>(1000, d.size() - off), crc);
    EXPECT_EQ(finalcrc(crc, d.size()), g.cksum) << g.len;
  }
}

// Every length across the block thresholds at every alignment, each in a buffer of exactly that
// size so that AddressSanitizer catches a read past the end.
TEST(CrcTest, EveryShortLengthAndAlignmentMatchesReference) {
  std::mt19937 rng(7);
  for (size_t len = 0; len <= 300; len++) {
    for (size_t align = 0; align < 16; align++) {
      std::vector<unsigned char> buf(align + len);
      for (auto& c : buf) c = rng() & 0xFF;
      const unsigned char* p = buf.data() + align;
      unsigned int crc = rng();
      for (const auto& path : Paths())
        ASSERT_EQ(path.second(p, len, crc), PartialCrcReference(p, len, crc))
            << path.first << " len " << len << " align " << align;
    }
  }
}

}  // namespace
