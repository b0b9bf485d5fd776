#include "fuzz/pxfuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PxRoundTrip<PxFileRequest>(data, size);
  return 0;
}
