// Direct I/O with its buffered fallback: the tail that is no whole block, and
// file systems that refuse O_DIRECT (through the file-system seam).
#include "platform/pdirect.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/pfile.h"
#include "support/testutil.h"

namespace {

std::string Pattern(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; i++) s[i] = static_cast<char>((i * 131 + i / 4093) & 0xff);
  return s;
}

bool HasDirectFlag(int fd) {
  return (fcntl(fd, F_GETFL) & O_DIRECT) != 0;
}

const size_t kSizes[] = {0, 1, 4095, 4096, 4097, 8192, 12289, (4u << 20) + 1000};

}  // namespace

// Written in uneven pieces across the writer's 4 MiB buffer, or in 1 MiB
// pieces of an aligned buffer (written in place); every byte lands and the file
// is exactly as long, direct or refused.
TEST(PlatDirect, WriterKeepsEveryByte) {
  TempDir dir;
  PlatAlignedBuf aligned;
  ASSERT_EQ(aligned.alloc(kSizes[sizeof kSizes / sizeof kSizes[0] - 1]), 0);
  for (bool refuse : {false, true}) {
    for (bool inPlace : {false, true}) {
      for (size_t size : kSizes) {
        std::unique_ptr<RefuseDirect> r(refuse ? new RefuseDirect : nullptr);
        std::string data = Pattern(size), path = dir.file("w" + std::to_string(size));
        const char* src = data.data();
        if (inPlace) src = static_cast<const char*>(memcpy(aligned.data(), data.data(), size));
        const size_t piece = inPlace ? 1 << 20 : 700001;
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        PlatDirectWriter w;
        w.start(fd, static_cast<long long>(size));
        if (refuse) {
          EXPECT_FALSE(w.direct()) << size;
        }
        for (size_t off = 0; off < size; off += piece) {
          ASSERT_EQ(w.write(src + off, std::min(piece, size - off)), 0) << size;
        }
        ASSERT_EQ(w.finish(), 0) << size;
        EXPECT_FALSE(HasDirectFlag(fd)) << size;
        close(fd);
        EXPECT_TRUE(ReadFile(path) == data)
            << size << (refuse ? " refused" : "") << (inPlace ? " in place" : "");
      }
    }
  }
}

// Chunks of min(chunk, rest) bytes, the last one short of a block; a file
// shorter than announced is an error, not a short chunk.
TEST(PlatDirect, ReaderChunksAndShortFile) {
  TempDir dir;
  const size_t chunk = 8192;
  PlatAlignedBuf buf;
  ASSERT_EQ(buf.alloc(chunk), 0);
  for (bool refuse : {false, true}) {
    for (size_t size : kSizes) {
      std::unique_ptr<RefuseDirect> r(refuse ? new RefuseDirect : nullptr);
      std::string data = Pattern(size), path = dir.file("r" + std::to_string(size));
      WriteFile(path, data);
      for (long long announced : {static_cast<long long>(size), static_cast<long long>(size) + 1}) {
        int fd = open(path.c_str(), O_RDONLY);
        ASSERT_GE(fd, 0);
        PlatFileReader in;
        in.start(fd, announced, chunk, true);
        if (refuse) {
          EXPECT_FALSE(in.direct());
        }
        std::string got;
        int rc = 0;
        while (rc == 0 && static_cast<long long>(got.size()) < announced) {
          size_t n = 0;
          rc = in.next(buf.data(), &n);
          if (rc != 0) break;
          EXPECT_EQ(n, std::min<size_t>(chunk, static_cast<size_t>(announced) - got.size()));
          got.append(buf.data(), n);
        }
        in.finish();
        EXPECT_FALSE(HasDirectFlag(fd));
        close(fd);
        if (announced == static_cast<long long>(size)) {
          EXPECT_EQ(rc, 0) << size;
          EXPECT_TRUE(got == data) << size << (refuse ? " refused" : "");
        } else {
          EXPECT_EQ(rc, ENODATA) << announced;
        }
      }
    }
  }
}
