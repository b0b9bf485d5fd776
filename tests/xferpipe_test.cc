// The transfer pipes' threads: errors of the disk reach the caller, and a
// file read ahead arrives whole, in order, or not at all.
#include "zel/xferpipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/testutil.h"

namespace {

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 131 + i / 4093) & 0xff);
  return s;
}

}  // namespace

TEST(XferPipe, WriteBehindReportsTheDisksError) {
  TempDir dir;
  std::string path = dir.file("ro");
  WriteFile(path, "");
  int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  const size_t piece = 1 << 20;
  std::string zeros(piece, '\0');
  WriteBehind out;
  out.start(fd, 16 * piece);
  int rc = 0;
  for (int i = 0; i < 16 && rc == 0; i++) rc = out.write(zeros.data(), piece);
  if (rc == 0) rc = out.finish();
  EXPECT_EQ(rc, EBADF);
  close(fd);
}

TEST(XferPipe, ReadAheadWholeInOrderOrAnError) {
  TempDir dir;
  const size_t size = (8u << 20) + 4097, chunk = 1 << 20;
  std::string data = Pattern(size), path = dir.file("f");
  WriteFile(path, data);
  for (long long announced : {static_cast<long long>(size), static_cast<long long>(size) + 1}) {
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    std::string got;
    int rc = 0;
    {
      ReadAhead in;
      ASSERT_EQ(in.start(fd, announced, chunk), 0);
      while (rc == 0 && static_cast<long long>(got.size()) < announced) {
        const char* p = nullptr;
        size_t n = 0;
        rc = in.next(&p, &n);
        if (rc == 0) got.append(p, n);
      }
    }
    close(fd);
    if (announced == static_cast<long long>(size)) {
      EXPECT_EQ(rc, 0);
      EXPECT_TRUE(got == data);
    } else {
      EXPECT_EQ(rc, ENODATA);
    }
  }
}
