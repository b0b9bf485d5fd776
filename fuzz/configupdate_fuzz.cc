#include "fuzz/fuzzcheck.h"
#include "zel/paxosdata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzRoundTrip<ConfigUpdate>(data, size);
  return 0;
}
