// The round-trip property shared by the record fuzz targets: whatever loads
// must re-encode to bytes that load again to an equal record and re-encode to
// the same bytes.
#ifndef FUZZ_FUZZCHECK_H
#define FUZZ_FUZZCHECK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#define FUZZ_CHECK(cond)                                                       \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      abort();                                                                 \
    }                                                                          \
  } while (0)

template <typename R>
std::string FuzzEncode(const R& r) {
  std::string s(static_cast<size_t>(r.getSize()), '\0');
  char* e = r.dump(&s[0]);
  FUZZ_CHECK(e == &s[0] + s.size());
  return s;
}

// normalize drops what the encoder cannot represent before comparing.
template <typename R, typename Normalize>
void FuzzRoundTrip(const uint8_t* data, size_t size, Normalize normalize) {
  const char* p = reinterpret_cast<const char*>(data);
  R a;
  const char* e = a.load(p, p + size);
  std::string text = a.toString();  // partial records print too
  if (e == nullptr) return;
  FUZZ_CHECK(e > p && e <= p + size);
  normalize(&a);
  std::string b1 = FuzzEncode(a);
  R b;
  FUZZ_CHECK(b.load(b1.data(), b1.data() + b1.size()) == b1.data() + b1.size());
  FUZZ_CHECK(b == a);
  FUZZ_CHECK(b.toString() == a.toString());
  FUZZ_CHECK(FuzzEncode(b) == b1);
}

template <typename R>
void FuzzRoundTrip(const uint8_t* data, size_t size) {
  FuzzRoundTrip<R>(data, size, [](R*) {});
}

#endif  // FUZZ_FUZZCHECK_H
