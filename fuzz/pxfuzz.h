// The round-trip property of the peer message bodies: a body that decodes
// exactly re-encodes to bytes that decode to an equal record and encode again
// to the same bytes.
#ifndef FUZZ_PXFUZZ_H
#define FUZZ_PXFUZZ_H

#include <cstdint>
#include <memory>
#include <string>

#include "fuzz/fuzzcheck.h"
#include "zel/pxwire.h"

// An input of type 0 is written as absent, so it cannot survive a round trip.
inline void PxNormalize(SharedBlock* b) {
  if (b->inp.type == ProposedUpdate::noUpdate) b->inp.reset();
}

template <typename R>
void PxRoundTrip(const uint8_t* data, size_t size, void (*normalize)(R*) = nullptr) {
  // An exactly sized heap copy: a read past the end is caught.
  std::unique_ptr<char[]> buf(new char[size == 0 ? 1 : size]);
  std::copy(data, data + size, buf.get());
  R a;
  if (!PxDecode(&a, buf.get(), static_cast<int>(size))) return;
  if (normalize != nullptr) normalize(&a);
  std::string b1 = PxEncode(a);
  R b;
  FUZZ_CHECK(PxDecode(&b, b1.data(), static_cast<int>(b1.size())));
  FUZZ_CHECK(b == a && PxEncode(b) == b1);
}

#endif  // FUZZ_PXFUZZ_H
