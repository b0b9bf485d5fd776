// Every decoder zeld runs on what a client or a peer sends: the greeting, the
// bodies of "init", "pxinit" and the updates, committed file names and the file
// id map read back from disk. The first byte picks the decoder.
#include <string>

#include "fuzz/fuzzcheck.h"
#include "server/filestore.h"
#include "server/rules.h"
#include "zel/kxserve.h"
#include "zel/paxosinit.h"
#include "zel/zelmsg.h"

namespace {

// Whatever loads re-encodes to bytes that load again and encode the same.
template <typename R>
void BodyRoundTrip(const char* p, const char* end) {
  R a;
  if (a.load(p, end) == nullptr) return;
  // An input of type 0 is written as absent, so it cannot survive a round trip.
  if (a.block.inp.type == ProposedUpdate::noUpdate) a.block.inp.reset();
  std::string b1 = FuzzEncode(a);
  R b;
  FUZZ_CHECK(b.load(b1.data(), b1.data() + b1.size()) == b1.data() + b1.size());
  FUZZ_CHECK(FuzzEncode(b) == b1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char* p = reinterpret_cast<const char*>(data) + 1;
  const char* end = reinterpret_cast<const char*>(data) + size;
  switch (data[0] % 8) {
    case 0: {
      ClientGreeting g;
      kxParseClientGreeting(p, end, &g);
      break;
    }
    case 1:
      BodyRoundTrip<InitRequest>(p, end);
      break;
    case 2:
      BodyRoundTrip<PxInitRequest>(p, end);
      break;
    case 3:
    case 4: {
      static const int kTypes[] = {MSG_TYPE_VPUT, MSG_TYPE_VDEL, MSG_TYPE_FPUT, MSG_TYPE_FDEL,
                                   MSG_TYPE_CONFIG};
      for (int type : kTypes) {
        zeld::UpdateAsk a;
        int fileSize = 0;
        if (zeld::DecodeUpdate(type, p, end, &a, &fileSize) == 0 && type == MSG_TYPE_CONFIG) {
          zeld::ValidConfig(a.config);
        }
      }
      break;
    }
    case 5: {
      std::string name;
      int id = 0;
      FileVersion fv;
      std::string text(p, end);
      if (zeld::ParseCommittedFileName(text, &name, &id, &fv)) {
        FUZZ_CHECK(zeld::CommittedFileName(name, id, fv) == text);
      }
      break;
    }
    default:
      FuzzRoundTrip<FileIdMap>(reinterpret_cast<const uint8_t*>(p), end - p);
      break;
  }
  return 0;
}
