#include "fuzz/pxfuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  PxRoundTrip<PxSlots>(data, size, [](PxSlots* s) {
    for (PxSlot& slot : *s) PxNormalize(&slot.block);
  });
  return 0;
}
