#include "fuzz/pxfuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PxRoundTrip<PxWriteRequest>(data, size, [](PxWriteRequest* w) { PxNormalize(&w->block); });
  return 0;
}
