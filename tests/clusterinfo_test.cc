#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cfgmgr/clusterInfo.h"
#include "support/recordcheck.h"
#include "support/seckeys.h"
#include "support/testutil.h"

namespace {

ClusterInfo* Entry(const char* name, uint64_t id) {
  ClusterInfo* ci = new ClusterInfo;
  ci->clusterName = name;
  ci->clusterID = id;
  return ci;
}

std::string Names(const ClusterInfoList& l) {
  std::string s;
  for (ClusterInfo* ci = l.getHead(); ci; ci = ClusterInfoList::next(ci))
    s += ci->clusterName + ",";
  return s;
}

TEST(ClusterInfoListTest, KeepsOrderFindsAndRemoves) {
  ClusterInfoList l;
  EXPECT_TRUE(l.isEmpty());
  ClusterInfo* a = Entry("a", 1);
  ClusterInfo* b = Entry("b", 2);
  ClusterInfo* c = Entry("c", 1);
  l.insert(a);
  l.insert(b);
  l.insert(c);
  EXPECT_EQ("a,b,c,", Names(l));
  EXPECT_EQ(a, l.getHead());
  EXPECT_EQ(a, l.find(uint64_t(1)));
  EXPECT_EQ(b, l.find(std::string("b")));
  EXPECT_EQ(nullptr, l.find(uint64_t(9)));
  EXPECT_EQ(nullptr, l.find(std::string("z")));
  EXPECT_TRUE(l.contains(c));

  ClusterInfo outside;
  EXPECT_FALSE(l.contains(&outside));
  EXPECT_FALSE(l.remove(&outside));
  EXPECT_TRUE(l.remove(b));
  EXPECT_EQ("a,c,", Names(l));

  l.insert(Entry("d", 3));
  l.removeAllBut(1);
  EXPECT_EQ("a,c,", Names(l));

  l.clearSeen();
  l.find(std::string("c"))->seen = true;
  l.insert(Entry("e", 4));  // inserting marks seen
  l.removeUnseen();
  EXPECT_EQ("c,e,", Names(l));
  l.removeAll();
  EXPECT_TRUE(l.isEmpty());
}

TEST(ClusterInfoListTest, DumpFormat) {
  ClusterInfoList l;
  EXPECT_EQ("clusterName              port cKeyGen nKeyGen cipherList\n", l.dump());
  ClusterInfo* a = Entry("alpha", 1);
  a->committedKeyGenNumber = 3;
  a->cipherList = "AUTHONLY";
  a->hasCipherList = true;
  l.insert(a);
  l.insert(Entry("beta", 2));
  EXPECT_EQ(
      "clusterName              port cKeyGen nKeyGen cipherList\n"
      "alpha                       0       3      -1 AUTHONLY  \n"
      "beta                        0      -1      -1 EMPTY     \n",
      l.dump());
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
      {"clusterName=a\nnoequals\n", 22, 4},
      {"clusterName = a\n", 22, 4},     // the line ends at the first blank
      {"clusterID=5\n", 22, 5, false},  // before any clusterName
      {"clusterName=a\nclusterID=12x\n", 22, 8},
      {"clusterName=a\nclusterID=9223372036854775807\n", 34, 9},
      {"clusterName=a\nclusterID=99999999999999999999\n", 34, 9},
      {"clusterName=a\ncipherList=AUTHONLY2\n", 22, 10},
      {"clusterName=a\ncipherList=authonly\n", 22, 10},
      {"clusterName=a\nnewKeyGenNumber=1a\n", 22, 12},
      {"clusterName=a\nnewKeyGenNumber=-1\n", 34, 13},
      {"clusterName=a\nnewKeyGenNumber=2147483647\n", 34, 13},
      {"clusterName=a\ncommittedKeyGenNumber=z\n", 22, 16},
      {"clusterName=a\ncommittedKeyGenNumber=-3\n", 34, 17},
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
    EXPECT_EQ(c.err, r.err);
    EXPECT_EQ(c.rc, r.rc);
    std::string msg = "[E] Unable to load keys from " + path + ", err " + std::to_string(c.err) +
                      " rc " + std::to_string(c.rc) + ".\n";
    EXPECT_NE(std::string::npos, r.stderrText.find(msg)) << r.stderrText;
    // Entries completed before the error stay; the one being built is dropped.
    EXPECT_EQ(nullptr, l.find(std::string("a")));
    bool firstDone = c.afterEntry && c.text.find("clusterName=") != std::string::npos;
    EXPECT_EQ(firstDone, l.find(std::string("first")) != nullptr);
  }
}

TEST(AuthorizedKeysTest, UnsupportedCipherListNamesIt) {
  TempDir dir;
  WriteFile(dir.file("k"), "clusterName=a\ncipherList=RC4\n");
  ClusterInfoList l;
  AuthKeysSettings s;
  ParseResult r = Parse(dir.file("k"), &l, &s);
  EXPECT_EQ(0u, r.stderrText.find("[E] Unsupported cipherList in authorized_keys file: RC4\n"));
}

TEST(AuthorizedKeysTest, MissingFileIsReported) {
  ClusterInfoList l;
  AuthKeysSettings s;
  ParseResult r = Parse("/nonexistent/dir/authorized_zel_keys", &l, &s);
  EXPECT_EQ(2, r.err);
  EXPECT_EQ(1, r.rc);
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
  ASSERT_EQ(0, r.err) << r.stderrText;
  EXPECT_EQ(0, r.rc);
  EXPECT_EQ("piece,second,", Names(l));
  ClusterInfo* p = l.getHead();
  EXPECT_EQ(77u, p->clusterID);
  EXPECT_EQ("AUTHONLY", p->cipherList);
  EXPECT_EQ(2, p->newKeyGenNumber);
  EXPECT_EQ(1, p->committedKeyGenNumber);
  EXPECT_FALSE(ClusterInfoList::next(p)->hasCipherList);
  EXPECT_EQ(1, s.nistCompliance);
  EXPECT_EQ(0, s.fips1402Mode);
}

TEST(AuthorizedKeysTest, FipsPassLooksOnlyAtItsKey) {
  TempDir dir;
  int mode = 7;
  WriteFile(dir.file("k"),
            "clusterName=a\ncommittedPublicKey=\n-----BEGIN PUBLIC KEY-----\nQUJD\n"
            "-----END PUBLIC KEY-----\nclusterID=bad\nfips1402mode=YES\n");
  EXPECT_EQ(0, ReadFipsMode(dir.file("k").c_str(), &mode));
  EXPECT_EQ(1, mode);
  WriteFile(dir.file("k"), "fips1402mode=no\n");
  EXPECT_EQ(0, ReadFipsMode(dir.file("k").c_str(), &mode));
  EXPECT_EQ(0, mode);
  WriteFile(dir.file("k"), "fips1402mode=1\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(22, ReadFipsMode(dir.file("k").c_str(), &mode));
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("err 22 rc 23."));
  EXPECT_EQ(0, mode);
}

// The three spellings of a key give the identity the openssl tool computes.
TEST(AuthorizedKeysTest, KeyBlocksInEveryForm) {
  std::string why = SecTestSkipReason();
  if (!why.empty()) GTEST_SKIP() << why;
  TempDir dir;
  TestKey k1, k2;
  ASSERT_TRUE(MakeTestKey(dir.path(), "one", &k1));
  ASSERT_TRUE(MakeTestKey(dir.path(), "two", &k2));
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
  EXPECT_EQ(k1.digestHex, HexLower(pk->committedKey));
  EXPECT_EQ(k2.digestHex, HexLower(pk->newKey));
  EXPECT_EQ(k2.digestHex, HexLower(cert->committedKey));
  EXPECT_EQ(k1.digestHex, HexLower(cert->newKey));
  EXPECT_EQ(4, cert->committedKeyGenNumber);
  EXPECT_EQ(k1.digestHex, HexLower(dig->committedKey));

  // A well-formed block that holds no key is refused.
  WriteFile(dir.file("k"),
            "clusterName=x\ncommittedPublicKey=\n-----BEGIN PUBLIC KEY-----\n"
            "QUJDRA==\n-----END PUBLIC KEY-----\n");
  ClusterInfoList l2;
  r = Parse(dir.file("k"), &l2, &s);
  EXPECT_EQ(22, r.err);
  EXPECT_EQ(19, r.rc);
  EXPECT_TRUE(l2.isEmpty());
}

}  // namespace
