// The round-trip property shared by the record fuzz targets: whatever loads
// must re-encode to bytes that load again to an equal record with the same
// text and re-encode to the same bytes.
#ifndef FUZZ_FUZZCHECK_H
#define FUZZ_FUZZCHECK_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
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
  FUZZ_CHECK(r.dump(&s[0]) == &s[0] + s.size());
  return s;
}

// Text form through toString() where there is one, else operator<<.
template <typename R>
auto FuzzText(const R& r, int) -> decltype(r.toString()) {
  return r.toString();
}
template <typename R>
std::string FuzzText(const R& r, long) {
  std::ostringstream os;
  os << r;
  return os.str();
}

// normalize drops what the encoder cannot represent before comparing.
template <typename R>
void FuzzRoundTrip(const uint8_t* data, size_t size, void (*normalize)(R*) = nullptr) {
  const char* p = reinterpret_cast<const char*>(data);
  R a;
  const char* e = a.load(p, p + size);
  std::string text = FuzzText(a, 0);  // partial records print too
  if (e == nullptr) return;
  FUZZ_CHECK(e > p && e <= p + size);
  if (normalize != nullptr) normalize(&a);
  std::string b1 = FuzzEncode(a);
  R b;
  FUZZ_CHECK(b.load(b1.data(), b1.data() + b1.size()) == b1.data() + b1.size());
  FUZZ_CHECK(b == a && FuzzText(b, 0) == FuzzText(a, 0) && FuzzEncode(b) == b1);
}

#endif  // FUZZ_FUZZCHECK_H
