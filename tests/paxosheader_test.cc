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
  ExpectTruncationsFail<PaxosHeader>(Encode(h));
  // fmtVersion is unsigned: the whole 32-bit range decodes.
  h.fmtVersion = 0xFFFFFFFFu;
  std::string b = Encode(h);
  PaxosHeader g;
  EXPECT_EQ(LoadPrefix(&g, b, b.size()), static_cast<long>(b.size()));
  EXPECT_EQ(g.fmtVersion, 0xFFFFFFFFu);
}

// Each damaged record is rejected with the first problem found, in the order
// length, magic, crc.
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
  snprintf(crcMsg, sizeof crcMsg, "Bad Paxos CRC: found %08x calculated %08x",
           partialcrc(reinterpret_cast<const unsigned char*>(good.data()) + 8, 18, 0),
           partialcrc(reinterpret_cast<const unsigned char*>(badBody.data()) + 8, 18, 0));
  struct Case {
    std::string bytes;
    std::string message;  // prefix of the trace line
  } cases[] = {
      {good.substr(0, 11), "Bad Paxos data length: have 11 need 0"},
      {with(0, 0).substr(0, 25), "Bad Paxos data length: have 25 need 26"},
      {shortLen, "Bad Paxos data length: have 26 need 22"},
      {with(0, 0), "Bad Paxos magic 00ABC4AD"},
      {badBody, crcMsg},
      {with(15, 0x55), "Bad Paxos CRC: found "},  // cid is inside the checksum
  };
  PaxosHeader h;
  traceLevel = 3;
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(h.validate(c.bytes.data(), c.bytes.data() + c.bytes.size()), E_BAD_PAXOS_DATA);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.substr(0, c.message.size()), c.message);
    EXPECT_TRUE(!err.empty() && err.back() == '\n');
  }
  traceLevel = 0;
  EXPECT_EQ(h.validate(nullptr, nullptr), E_BAD_PAXOS_DATA);
}

}  // namespace
