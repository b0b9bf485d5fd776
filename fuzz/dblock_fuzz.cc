#include "fuzz/fuzzcheck.h"
#include "zel/paxosdata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An input of type 0 is written as absent, so it cannot survive a round trip.
  FuzzRoundTrip<Dblock>(data, size, [](Dblock* b) {
    if (b->inp.type == ProposedUpdate::noUpdate) b->inp.reset();
  });
  return 0;
}
