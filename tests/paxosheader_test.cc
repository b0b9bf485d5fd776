#include <gtest/gtest.h>

#include <string>

#include "support/recordcheck.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"

namespace {

// A framed record: header (fmtVersion 1) plus a small body, crc set.
std::string Framed(const std::string& body) {
  PaxosHeader h;
  h.initHdr();
  h.fmtVersion = 1;
  h.cid = 0x0102030405060708ULL;
  h.lastWriterId = 2;
  int size = h.getSize() + static_cast<int>(body.size());
  h.len = static_cast<unsigned int>(size);
  std::string buf(static_cast<size_t>(size), '\0');
  char* e = h.dump(&buf[0]);
  e = std::copy(body.begin(), body.end(), e);
  EXPECT_EQ(e, &buf[0] + size);
  h.setCRC(&buf[0], size);
  return buf;
}

TEST(PaxosHeaderTest, LayoutAndRoundTrip) {
  std::string buf = Framed("ab");
  // magic, crc, len 24, cid high/low, fmtVersion 1, lastWriterId 2 (+1 bias).
  unsigned int crc = partialcrc(reinterpret_cast<const unsigned char*>(buf.data()) + 8, 16, 0);
  char crcb[4];
  DumpUInt32(crcb, crc);
  EXPECT_EQ(Hex(buf), "1F AB C4 AD " + Hex(std::string(crcb, 4)) +
                          " 00 00 00 18 01 02 03 04 05 06 07 08 01 03 61 62");
  PaxosHeader h;
  EXPECT_EQ(LoadPrefix(&h, buf, buf.size()), 22);
  EXPECT_EQ(h.magic, kPaxosMagic);
  EXPECT_EQ(h.crc, crc);
  EXPECT_EQ(h.len, 24u);
  EXPECT_EQ(h.cid, 0x0102030405060708ULL);
  EXPECT_EQ(h.fmtVersion, 1u);
  EXPECT_EQ(h.lastWriterId, 2);
  EXPECT_EQ(h.validate(buf.data(), buf.data() + buf.size()), 0);
  // Bytes after len are ignored.
  std::string longer = buf + "zz";
  EXPECT_EQ(h.validate(longer.data(), longer.data() + longer.size()), 0);
  char text[128];
  snprintf(text, sizeof text,
           "hdr: magic 1FABC4AD, crc %08X, len 24, fmtVersion 1 cid 72623859790382856 "
           "lastWriterId 2\n",
           crc);
  EXPECT_EQ(h.toString(), text);
}

TEST(PaxosHeaderTest, InitialHeaderIsSmallest) {
  PaxosHeader h;
  h.initHdr();
  EXPECT_EQ(h.getSize(), kPaxosHeaderMinSize);
  EXPECT_EQ(Hex(Encode(h)), "1F AB C4 AD 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
}

TEST(PaxosHeaderTest, TruncatedLoadKeepsDefaults) {
  std::string buf = Framed("");
  for (size_t n = 0; n < buf.size(); n++) {
    PaxosHeader h;
    h.fmtVersion = 9;
    h.lastWriterId = 9;
    h.cid = 9;
    EXPECT_EQ(LoadPrefix(&h, buf, n), -1) << n;
    if (n < 20) {
      EXPECT_EQ(h.cid, 0u) << n;
    }
    if (n < 21) {
      EXPECT_EQ(h.fmtVersion, 0u) << n;
    }
    EXPECT_EQ(h.lastWriterId, -1) << n;
  }
}

TEST(PaxosHeaderTest, FmtVersionAcceptsUnsignedRange) {
  PaxosHeader h;
  h.initHdr();
  h.fmtVersion = 0xFFFFFFFFu;
  std::string b = Encode(h);
  PaxosHeader g;
  EXPECT_EQ(LoadPrefix(&g, b, b.size()), static_cast<long>(b.size()));
  EXPECT_EQ(g.fmtVersion, 0xFFFFFFFFu);
}

TEST(PaxosHeaderTest, ValidateRejections) {
  std::string good = Framed("body");
  auto corrupt = [&](size_t off, char v) {
    std::string s = good;
    s[off] = v;
    return s;
  };
  std::string shortLen = good;
  DumpUInt32(&shortLen[8], 7);  // below the header: must not wrap the crc length
  struct Case {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"11 bytes", good.substr(0, 11)},
      {"len beyond buffer", good.substr(0, good.size() - 1)},
      {"len below header", shortLen},
      {"magic", corrupt(0, 0x1E)},
      {"crc field", corrupt(7, static_cast<char>(good[7] ^ 1))},
      {"body byte", corrupt(good.size() - 1, 'X')},
      {"cid byte", corrupt(15, 0x55)},
  };
  PaxosHeader h;
  for (const auto& c : cases)
    EXPECT_EQ(h.validate(c.bytes.data(), c.bytes.data() + c.bytes.size()), E_BAD_PAXOS_DATA)
        << c.what;
  EXPECT_EQ(h.validate(nullptr, nullptr), E_BAD_PAXOS_DATA);
}

TEST(PaxosHeaderTest, ValidateReportsFirstProblem) {
  traceLevel = 3;
  std::string good = Framed("x");
  std::string badMagicAndLen = good.substr(0, 11);
  PaxosHeader h;
  testing::internal::CaptureStderr();
  h.validate(badMagicAndLen.data(), badMagicAndLen.data() + 11);
  std::string bad = good;
  bad[0] = 0;
  std::string cut = bad.substr(0, bad.size() - 1);  // len beyond buffer wins over magic
  h.validate(cut.data(), cut.data() + cut.size());
  h.validate(bad.data(), bad.data() + bad.size());
  std::string badCrc = good;
  badCrc[good.size() - 1] ^= 1;
  h.validate(badCrc.data(), badCrc.data() + badCrc.size());
  std::string err = testing::internal::GetCapturedStderr();
  traceLevel = 0;
  unsigned int stored = 0, calc = 0;
  LoadUInt32(badCrc.data() + 4, badCrc.data() + 8, &stored);
  calc = partialcrc(reinterpret_cast<const unsigned char*>(badCrc.data()) + 8, 15, 0);
  char want[64];
  snprintf(want, sizeof want, "Bad Paxos CRC: found %08x calculated %08x\n", stored, calc);
  EXPECT_EQ(err,
            "Bad Paxos data length: have 11 need 0\n"
            "Bad Paxos data length: have 22 need 23\n"
            "Bad Paxos magic 00ABC4AD\n" +
                std::string(want));
}

}  // namespace
