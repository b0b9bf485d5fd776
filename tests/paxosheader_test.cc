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
  h.len = static_cast<unsigned int>(h.getSize() + body.size());
  std::string buf = Encode(h) + body;
  h.setCRC(&buf[0], static_cast<int>(buf.size()));
  return buf;
}

unsigned int CrcOf(const std::string& b) {
  return partialcrc(reinterpret_cast<const unsigned char*>(b.data()) + 8, b.size() - 8, 0);
}

TEST(PaxosHeaderTest, LayoutAndRoundTrip) {
  std::string buf = Framed("ab");
  // magic, crc, len 24, cid, fmtVersion 1, lastWriterId 2 (+1 bias), body.
  EXPECT_EQ(Hex(buf), "1F AB C4 AD 03 CA 50 DE 00 00 00 18 01 02 03 04 05 06 07 08 01 03 61 62");
  PaxosHeader h;
  EXPECT_EQ(LoadPrefix(&h, buf, buf.size()), 22);
  std::string longer = buf + "zz";  // bytes after len are ignored
  EXPECT_EQ(h.validate(longer.data(), longer.data() + longer.size()), 0);
  EXPECT_EQ(h.toString(),
            "hdr: magic 1FABC4AD, crc 03CA50DE, len 24, fmtVersion 1 cid 72623859790382856 "
            "lastWriterId 2\n");
  ExpectTruncationsFail<PaxosHeader>(buf.substr(0, 22));
}

// Each damaged record is rejected with the first problem found: length, magic, crc.
TEST(PaxosHeaderTest, ValidateRejections) {
  std::string good = Framed("body");  // 26 bytes
  auto with = [&](size_t off, char v) {
    std::string s = good;
    s[off] = v;
    return s;
  };
  std::string shortLen = with(0, 0);  // bad magic too, but the length is reported
  DumpUInt32(&shortLen[8], 7);        // below the header: must not wrap the crc length
  std::string badBody = with(25, 'X');
  char crcMsg[64];
  snprintf(crcMsg, sizeof crcMsg, "Bad Paxos CRC: found %08x calculated %08x\n", CrcOf(good),
           CrcOf(badBody));
  const struct {
    std::string bytes, message;
  } cases[] = {
      {good.substr(0, 11), "Bad Paxos data length: have 11 need 0\n"},
      {with(0, 0).substr(0, 25), "Bad Paxos data length: have 25 need 26\n"},
      {shortLen, "Bad Paxos data length: have 26 need 22\n"},
      {with(0, 0), "Bad Paxos magic 00ABC4AD\n"},
      {badBody, crcMsg},
  };
  PaxosHeader h;
  traceLevel = 3;
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(h.validate(c.bytes.data(), c.bytes.data() + c.bytes.size()), E_BAD_PAXOS_DATA);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
  }
  traceLevel = 0;
  EXPECT_EQ(h.validate(nullptr, nullptr), E_BAD_PAXOS_DATA);
}

}  // namespace
