#include "zel/zelxfer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "platform/pfile.h"
#include "support/testutil.h"
#include "support/wirebodies.h"
#include "support/wiretest.h"
#include "zel/paxosutils.h"
#include "zel/zelerr.h"
#include "zel/zelfiles.h"
#include "zel/zelmsg.h"

namespace {

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 131 + i / 7) & 0xff);
  return s;
}

class ZelXferTest : public WireTest {
 protected:
  void TearDown() override {
    delete conn_;
    WireTest::TearDown();
  }
  // Replaces the test's connection with a new one to srv that sent type.
  Connection* connect(const FakeServer& srv, int type = MSG_TYPE_FGET) {
    delete conn_;
    conn_ = nullptr;
    EXPECT_EQ(connectTo(srv.addr(), &conn_, 2000), 0);
    EXPECT_EQ(conn_ ? conn_->send(type, "f", 1) : -1, 0);
    return conn_;
  }
  Connection* conn_ = nullptr;
  TempDir dir_;
};

TEST_F(ZelXferTest, SendFileChunksAndCrc) {
  struct {
    size_t size;
    size_t chunks;
  } cases[] = {{0, 0}, {1048576, 1}, {1048577, 2}};
  for (const auto& c : cases) {
    FakeServer srv;
    srv.expect(MSG_TYPE_FPUT).receiveFile();
    std::string path = dir_.file("src" + std::to_string(c.size));
    std::string data = Pattern(c.size);
    WriteFile(path, data);
    Connection* k = connect(srv, MSG_TYPE_FPUT);
    bool localErr = true;
    EXPECT_EQ(sendFile(k, path, static_cast<int>(c.size), &localErr), 0);
    EXPECT_FALSE(localErr);
    ASSERT_TRUE(srv.waitDone(5000));
    auto files = srv.files();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(files[0].data == data && files[0].crcOk) << c.size;
    EXPECT_EQ(srv.messagesOfType(MSG_TYPE_FDATA).size(), c.chunks) << c.size;
  }
}

TEST_F(ZelXferTest, SendMissingFileIsLocal810) {
  FakeServer srv;
  srv.expect(MSG_TYPE_FGET);
  Connection* k = connect(srv);
  bool localErr = false;
  EXPECT_EQ(sendFile(k, dir_.file("none"), 0, &localErr), E_XFER_FAILED);
  EXPECT_TRUE(localErr);
}

// A file that grew or shrank after its size was announced is not sent as if it
// were whole: no "fcrc" goes out, and the failure is local (no other server).
TEST_F(ZelXferTest, FileChangedWhileBeingSentSendsNoCrc) {
  const std::string data = Pattern(3000);
  for (long long announced : {2000LL, 4000LL}) {
    FakeServer srv;
    srv.expect(MSG_TYPE_FPUT).receiveCutFile();
    std::string path = dir_.file("src");
    WriteFile(path, data);
    Connection* k = connect(srv, MSG_TYPE_FPUT);
    bool localErr = false;
    ClearErrorCause();
    EXPECT_EQ(E_XFER_FAILED, sendFile(k, path, announced, &localErr)) << announced;
    EXPECT_TRUE(localErr);
    EXPECT_EQ("file changed while being sent: '" + path + "'", ErrorCause());
    delete conn_;  // the dropped connection ends the server's wait
    conn_ = nullptr;
    ASSERT_TRUE(srv.waitDone(5000));
    auto files = srv.files();
    ASSERT_EQ(1u, files.size());
    EXPECT_LE(files[0].data.size(), static_cast<size_t>(announced));  // never more than announced
  }
}

// Changed after its first chunk went out, read in place or ahead on a thread:
// still no "fcrc".
std::string changingPath;
long long changeTo = 0;
void changeOnce(long long, long long) {
  if (changeTo < 0) return;
  EXPECT_EQ(truncate(changingPath.c_str(), changeTo), 0);
  changeTo = -1;
}

TEST_F(ZelXferTest, FileChangedMidTransferSendsNoCrc) {
  for (long long size : {3LL << 20, 10LL << 20}) {
    for (long long to : {size / 2, size + 1}) {
      FakeServer srv;
      srv.expect(MSG_TYPE_FPUT).receiveCutFile();
      changingPath = dir_.file("src");
      WriteFile(changingPath, Pattern(static_cast<size_t>(size)));
      changeTo = to;
      SetXferProgress(changeOnce);
      Connection* k = connect(srv, MSG_TYPE_FPUT);
      bool localErr = false;
      EXPECT_EQ(E_XFER_FAILED, sendFile(k, changingPath, size, &localErr)) << size << " " << to;
      SetXferProgress(nullptr);
      EXPECT_TRUE(localErr);
      delete conn_;
      conn_ = nullptr;
      ASSERT_TRUE(srv.waitDone(5000));
      auto files = srv.files();
      ASSERT_EQ(1u, files.size());
      EXPECT_LE(files[0].data.size(), static_cast<size_t>(size));
    }
  }
}

// Around the block size, the chunk size and the direct writer's buffer, past
// the size that writes behind on a thread, and with a file system that
// refuses direct I/O.
TEST_F(ZelXferTest, ReceiveFileSizes) {
  const size_t sizes[] = {
      0, 1, 4095, 4096, 4097, 1048576, 1048577, 2500000, (4u << 20) + 1000, (8u << 20) + 1000};
  for (bool refuse : {false, true}) {
    std::unique_ptr<RefuseDirect> r(refuse ? new RefuseDirect : nullptr);
    for (size_t size : sizes) {
      FakeServer srv;
      std::string data = Pattern(size);
      srv.expect(MSG_TYPE_FGET);
      // A stray message during the data phase is dropped (with size 0 there is none).
      if (size > 0) srv.reply(MSG_TYPE_OK);
      srv.sendFile(data, 0, 700000);
      Connection* k = connect(srv);
      std::string target = dir_.file("got" + std::to_string(size) + (refuse ? "r" : ""));
      unsigned int crc = 0;
      bool localErr = true;
      EXPECT_EQ(receiveFile(k, target, static_cast<int>(size), false, &crc, &localErr, false), 0);
      EXPECT_FALSE(localErr);
      EXPECT_EQ(crc, Crc(data));
      EXPECT_TRUE(ReadFile(target) == data) << size << (refuse ? " refused" : "");
    }
  }
  EXPECT_EQ(ListDir(dir_.path()).size(), 2 * 10u);  // no temporary file left
}

// A bad checksum, a broken exchange or more bytes than announced fail and leave
// nothing behind; none of them is a local error.
TEST_F(ZelXferTest, BadTransfersLeaveNothing) {
  struct {
    const char* what;
    void (*script)(FakeServer&);
    long long size;
    int rc;
  } cases[] = {
      {"corrupted fcrc", [](FakeServer& s) { s.sendFile("hello world", 0x1); }, 11, E_XFER_FAILED},
      {"short fcrc",
       [](FakeServer& s) { s.reply(MSG_TYPE_FDATA, "hello world").reply(MSG_TYPE_FCRC, "ab"); }, 11,
       E_XFER_FAILED},
      {"no fcrc", [](FakeServer& s) { s.reply(MSG_TYPE_FDATA, "hello world").reply(MSG_TYPE_OK); },
       11, E_BAD_MESSAGE},
      {"closed mid-file", [](FakeServer& s) { s.truncated(MSG_TYPE_FDATA, "hello world", 3); }, 11,
       E_CONN_SHUTDOWN},
      {"one chunk longer than announced", [](FakeServer& s) { s.sendFile("hello world"); }, 5,
       E_XFER_FAILED},
      {"an extra chunk before fcrc",
       [](FakeServer& s) {
         s.reply(MSG_TYPE_FDATA, "hello").reply(MSG_TYPE_FDATA, "x").reply(MSG_TYPE_FCRC, "abcd");
       },
       5, E_XFER_FAILED},
  };
  for (const auto& c : cases) {
    FakeServer srv;
    srv.expect(MSG_TYPE_FGET);
    c.script(srv);
    Connection* k = connect(srv);
    unsigned int crc = 0;
    bool localErr = true;
    EXPECT_EQ(receiveFile(k, dir_.file("t"), c.size, false, &crc, &localErr, true), c.rc) << c.what;
    EXPECT_FALSE(localErr) << c.what;
    EXPECT_TRUE(ListDir(dir_.path()).empty()) << c.what;
  }
}

TEST_F(ZelXferTest, DurableReceiveKeepsExistingTarget) {
  FakeServer srv;
  srv.expect(MSG_TYPE_FGET).sendFile("new contents");
  std::string target = dir_.file("t");
  WriteFile(target, "first copy");
  Connection* k = connect(srv);
  unsigned int crc = 0;
  EXPECT_EQ(receiveFile(k, target, 12, false, &crc, nullptr, true), 0);
  EXPECT_EQ(ReadFile(target), "first copy");
  EXPECT_EQ(ListDir(dir_.path()), std::vector<std::string>{"t"});
}

TEST_F(ZelXferTest, CrcNamingReplacesLastDotZeroDot) {
  struct {
    const char* name;
    const char* crcAt;  // the name with %s where the CRC goes
  } cases[] = {{"zel.nodes.1.3.0.0a0b0c", "zel.nodes.1.3.%s.0a0b0c"},
               {"zel.nodes.1.0.0.0a0b0c", "zel.nodes.1.0.%s.0a0b0c"}};
  for (const auto& c : cases) {
    FakeServer srv;
    std::string data = "node list contents " + std::string(c.name);
    srv.expect(MSG_TYPE_FGET).sendFile(data);
    Connection* k = connect(srv);
    std::string target = dir_.file(c.name);
    unsigned int crc = 0;
    ASSERT_EQ(receiveFileCRCRename(k, &target, static_cast<int>(data.size()), true, &crc, nullptr),
              0);
    char hex[16], want[128];
    snprintf(hex, sizeof hex, "%x", Crc(data));
    snprintf(want, sizeof want, c.crcAt, hex);
    EXPECT_EQ(target, dir_.file(want));
    EXPECT_EQ(ReadFile(target), data);
    struct stat st;
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // private
  }
}

TEST(ZelFilesTest, RenamePolicies) {
  TempDir d;
  std::string src = d.file("src"), dst = d.file("dst");
  // Replace: the new copy wins.
  WriteFile(src, "new");
  WriteFile(dst, "old");
  EXPECT_EQ(renameReplaceIfTargetExists(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(PathExists(src));
  // Skip: the first copy wins and the source goes.
  WriteFile(src, "newer");
  EXPECT_EQ(renameSkipIfTargetExists(src, dst), 0);
  EXPECT_EQ(ReadFile(dst), "new");
  EXPECT_FALSE(PathExists(src));
  // A directory target is not skipped: the rename is attempted and fails.
  WriteFile(src, "y");
  ASSERT_EQ(mkdir(d.file("dir").c_str(), 0755), 0);
  EXPECT_EQ(renameSkipIfTargetExists(src, d.file("dir")), EISDIR);
  EXPECT_TRUE(PathExists(src));
  EXPECT_EQ(renameReplaceIfTargetExists(d.file("missing"), dst), ENOENT);
}

}  // namespace
