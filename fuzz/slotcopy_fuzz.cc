// The block store's slot decoder: whatever bytes a store file holds, decoding
// never reads past them, and a copy that verifies re-encodes to one that
// decodes to the same block.
#include "fuzz/fuzzcheck.h"
#include "server/slotcodec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  zeld::SlotHeader h;
  SharedBlock b;
  if (zeld::DecodeSlotCopy(p, size, &h, &b) != 0) return 0;
  FUZZ_CHECK(h.length + zeld::kSlotHeaderBytes <= size);
  // An input of type 0 is written as absent, so it cannot survive a round trip.
  if (b.inp.type == ProposedUpdate::noUpdate) b.inp.reset();
  std::string copy;
  FUZZ_CHECK(zeld::EncodeSlotCopy(b, h.gen, h.writerId, &copy) == 0);
  zeld::SlotHeader h2;
  SharedBlock b2;
  FUZZ_CHECK(zeld::DecodeSlotCopy(copy.data(), copy.size(), &h2, &b2) == 0);
  FUZZ_CHECK(h2.gen == h.gen && h2.writerId == h.writerId);
  FUZZ_CHECK(FuzzEncode(b2) == FuzzEncode(b));
  return 0;
}
