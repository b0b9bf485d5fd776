// Helpers for record encoding tests: hex rendering, encoding at the exact
// size, and the truncation sweep.
#ifndef TESTS_SUPPORT_RECORDCHECK_H
#define TESTS_SUPPORT_RECORDCHECK_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

// Hex(b) is "01 0A FF"; HexLower(b) is "010aff".
inline std::string HexWith(const std::string& b, const char* digits, const char* sep) {
  std::string s;
  for (unsigned char c : b)
    s += std::string(s.empty() ? "" : sep) + digits[c >> 4] + digits[c & 15];
  return s;
}
inline std::string Hex(const std::string& b) {
  return HexWith(b, "0123456789ABCDEF", " ");
}
inline std::string HexLower(const std::string& b) {
  return HexWith(b, "0123456789abcdef", "");
}

// dump into a buffer of exactly getSize() bytes, checking the end pointer.
template <typename R>
std::string Encode(const R& r) {
  std::string s(static_cast<size_t>(r.getSize()), '\0');
  char* e = r.dump(&s[0]);
  EXPECT_EQ(e - &s[0], static_cast<long>(s.size()));
  return s;
}

// Loads from a heap copy sized exactly n, so a read past the end is caught by
// AddressSanitizer. Returns the consumed length, or -1 for null.
template <typename R, typename LoadFn>
long LoadPrefix(R* r, const std::string& bytes, size_t n, LoadFn load) {
  std::unique_ptr<char[]> buf(new char[n == 0 ? 1 : n]);
  std::copy(bytes.begin(), bytes.begin() + static_cast<long>(n), buf.get());
  const char* e = load(r, buf.get(), buf.get() + n);
  return e == nullptr ? -1 : e - buf.get();
}

template <typename R>
long LoadPrefix(R* r, const std::string& bytes, size_t n) {
  return LoadPrefix(r, bytes, n,
                    [](R* x, const char* p, const char* end) { return x->load(p, end); });
}

// Every proper prefix loads to null.
template <typename R>
void ExpectTruncationsFail(const std::string& bytes) {
  for (size_t n = 0; n < bytes.size(); n++) {
    R r;
    EXPECT_EQ(LoadPrefix(&r, bytes, n), -1) << "prefix " << n << " of " << Hex(bytes);
  }
}

// Encodes to the given hex, loads back equal, and every truncation fails.
template <typename R>
void ExpectGolden(const R& r, const std::string& hex) {
  std::string b = Encode(r);
  EXPECT_EQ(Hex(b), hex);
  R back;
  EXPECT_EQ(LoadPrefix(&back, b, b.size()), static_cast<long>(b.size()));
  EXPECT_TRUE(back == r) << hex;
  ExpectTruncationsFail<R>(b);
}

#endif  // TESTS_SUPPORT_RECORDCHECK_H
