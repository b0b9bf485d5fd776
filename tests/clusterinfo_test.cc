#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>
#include <vector>

#include "cfgmgr/clusterInfo.h"
#include "support/recordcheck.h"
#include "support/seckeys.h"
#include "support/testutil.h"

namespace {

std::string Names(const ClusterInfoList& l) {
  std::string s;
  for (ClusterInfo* ci = l.getHead(); ci; ci = ClusterInfoList::next(ci))
    s += ci->clusterName + ",";
  return s;
}

struct ParseResult {
  int err;
  int rc;
  std::string stderrText;
};

ParseResult Parse(const std::string& path, ClusterInfoList* l, AuthKeysSettings* s) {
  testing::internal::CaptureStderr();
  ParseResult r;
  r.rc = -1;
  r.err = ReadAuthorizedKeys(path.c_str(), l, s, &r.rc);
  r.stderrText = testing::internal::GetCapturedStderr();
  return r;
}

// Line rules and value errors that need no key material.
TEST(AuthorizedKeysTest, ValueErrorsGiveTheirCodes) {
  // 12 + 115 = 127 characters in the first piece; the rest has no "=".
  const std::string longValue = "clusterName=" + std::string(140, 'n') + "\n";
  struct Case {
    std::string text;
    int err;
    int rc;
    bool afterEntry = true;  // a complete entry comes first
  } cases[] = {
      {longValue, 22, 4},
      {"clusterName = a\n", 22, 4},     // the line ends at the first blank
      {"clusterID=5\n", 22, 5, false},  // before any clusterName
      {"clusterName=a\nclusterID=12x\n", 22, 8},
      {"clusterName=a\nclusterID=9223372036854775807\n", 34, 9},
      {"clusterName=a\ncipherList=authonly\n", 22, 10},
      {"clusterName=a\nnewKeyGenNumber=1a\n", 22, 12},
      {"clusterName=a\nnewKeyGenNumber=2147483647\n", 34, 13},
      {"clusterName=a\ncommittedKeyGenNumber=z\n", 22, 16},
      {"clusterName=a\ncommittedKeyGenNumber=4294967296\n", 34, 17},
      {"clusterName=a\nnewKeyDigest=\nnothex\n", 22, 14},
      {"clusterName=a\ncommittedKeyDigest=\n00112233\n", 22, 18},
      {"clusterName=a\nnewPublicKey=\nnot a pem line\n", 22, 15},
      {"clusterName=a\ncommittedPublicKey=\n", 22, 19},  // end of file instead of a block
      {"clusterName=a\nnewCertificate=\n-----BEGIN CERTIFICATE-----\nAAAA\n", 22, 20},
      {"clusterName=a\ncommittedCertificate=\n-----BEGIN CERTIFICATE-----\n!!!!\n"
       "-----END CERTIFICATE-----\n",
       22, 21},
      {"nistCompliance=SP800-131B\n", 22, 22},
      {"fips1402mode=maybe\n", 22, 23},
  };
  TempDir dir;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::string path = dir.file("keys");
    WriteFile(path, std::string(c.afterEntry ? "clusterName=first\n" : "") + c.text);
    ClusterInfoList l;
    AuthKeysSettings s;
    ParseResult r = Parse(path, &l, &s);
    EXPECT_EQ(std::make_pair(c.err, c.rc), std::make_pair(r.err, r.rc));
    std::string msg = "[E] Unable to load keys from " + path + ", err " + std::to_string(c.err) +
                      " rc " + std::to_string(c.rc) + ".\n";
    EXPECT_NE(std::string::npos, r.stderrText.find(msg)) << r.stderrText;
    // Entries completed before the error stay; the one being built is dropped.
    EXPECT_EQ(nullptr, l.find(std::string("a")));
    bool firstDone = c.afterEntry && c.text.find("clusterName=") != std::string::npos;
    EXPECT_EQ(firstDone, l.find(std::string("first")) != nullptr);
  }
}

TEST(AuthorizedKeysTest, UnsupportedCipherListAndMissingFile) {
  TempDir dir;
  WriteFile(dir.file("k"), "clusterName=a\ncipherList=RC4\n");
  ClusterInfoList l;
  AuthKeysSettings s;
  ParseResult r = Parse(dir.file("k"), &l, &s);
  EXPECT_EQ(0u, r.stderrText.find("[E] Unsupported cipherList in authorized_keys file: RC4\n"));
  r = Parse(dir.file("none"), &l, &s);
  EXPECT_EQ(std::make_pair(2, 1), std::make_pair(r.err, r.rc));
  // A FIFO or a directory in its place is refused at once, never waited on.
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0644));
  for (const std::string& p : {dir.file("fifo"), dir.path()}) {
    r = Parse(p, &l, &s);
    EXPECT_EQ(std::make_pair(22, 1), std::make_pair(r.err, r.rc)) << p;
  }
}

TEST(AuthorizedKeysTest, LineRulesAndSettings) {
  TempDir dir;
  std::string longLine = "clusterName=piece";
  longLine += std::string(127 - longLine.size(), ' ');  // the rest of the first 127-byte piece
  longLine += "clusterID=77";                           // read as a line of its own
  std::string text = "\n   \n" + longLine +
                     "\n"
                     " clusterID=garbage\n"  // starts with a blank: an empty line
                     "port=8\n"              // not in the vocabulary: ignored
                     "cipherList=AUTHONLY\ttrailing words\n"
                     "newKeyGenNumber=2\n"
                     "committedKeyGenNumber=1\n"
                     "NISTCOMPLIANCE=off\n"  // keys are matched exactly: ignored
                     "nistCompliance=sp800-131a\n"
                     "fips1402mode=Off\n"
                     "clusterName=second\n";
  WriteFile(dir.file("k"), text);
  ClusterInfoList l;
  AuthKeysSettings s;
  ParseResult r = Parse(dir.file("k"), &l, &s);
  ASSERT_EQ(std::make_pair(0, 0), std::make_pair(r.err, r.rc)) << r.stderrText;
  EXPECT_EQ("piece,second,", Names(l));
  ClusterInfo* p = l.getHead();
  EXPECT_EQ(
      std::make_tuple(p->clusterID, p->cipherList, p->newKeyGenNumber, p->committedKeyGenNumber,
                      ClusterInfoList::next(p)->hasCipherList, s.nistCompliance, s.fips1402Mode),
      std::make_tuple(uint64_t(77), std::string("AUTHONLY"), 2, 1, false, 1, 0));
}

TEST(AuthorizedKeysTest, FipsPassLooksOnlyAtItsKey) {
  TempDir dir;
  int mode = 7;
  WriteFile(dir.file("k"),
            "clusterName=a\ncommittedPublicKey=\n-----BEGIN PUBLIC KEY-----\nQUJD\n"
            "-----END PUBLIC KEY-----\nclusterID=bad\nfips1402mode=YES\n");
  EXPECT_EQ(0, ReadFipsMode(dir.file("k").c_str(), &mode));
  EXPECT_EQ(1, mode);
  WriteFile(dir.file("k"), "fips1402mode=1\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(22, ReadFipsMode(dir.file("k").c_str(), &mode));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("err 22 rc 23."));
  EXPECT_EQ(1, mode);  // unchanged
}

// The three spellings of a key give the identity the openssl tool computes.
TEST(AuthorizedKeysTest, KeyBlocksInEveryForm) {
  std::string why = SecTestSkipReason();
  if (!why.empty()) GTEST_SKIP() << why;
  TempDir dir;
  ASSERT_TRUE(SharedTestKey(0) && SharedTestKey(1));
  const TestKey &k1 = *SharedTestKey(0), &k2 = *SharedTestKey(1);
  std::string colons;
  for (size_t i = 0; i < 64; i += 2) colons += (i ? ":" : "") + k2.digestHex.substr(i, 2);
  WriteFile(dir.file("k"),
            "clusterName=pk\ncommittedPublicKey=\n" + k1.pubPem + "newKeyDigest=\n" + colons +
                "\n"
                "clusterName=cert\ncommittedCertificate=\n" +
                k2.certPem +
                "committedKeyGenNumber=4\n"
                "newCertificate=\n" +
                k1.certPem + "clusterName=digest\ncommittedKeyDigest=\n" + k1.digestHex + "\n");
  ClusterInfoList l;
  AuthKeysSettings s;
  ParseResult r = Parse(dir.file("k"), &l, &s);
  ASSERT_EQ(0, r.err) << r.stderrText;
  ClusterInfo* pk = l.find(std::string("pk"));
  ClusterInfo* cert = l.find(std::string("cert"));
  ClusterInfo* dig = l.find(std::string("digest"));
  ASSERT_TRUE(pk && cert && dig);
  EXPECT_EQ(HexLower(pk->committedKey + pk->newKey + cert->committedKey + cert->newKey +
                     dig->committedKey),
            k1.digestHex + k2.digestHex + k2.digestHex + k1.digestHex + k1.digestHex);
  EXPECT_EQ(4, cert->committedKeyGenNumber);
}

}  // namespace
