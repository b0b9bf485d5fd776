#include <sstream>

#include "fuzz/fuzzcheck.h"
#include "zel/paxosdata.h"

namespace {

// ConfigUpdate prints through operator<<; give it the toString the check uses.
struct TextConfigUpdate : ConfigUpdate {
  std::string toString() const {
    std::ostringstream os;
    os << static_cast<const ConfigUpdate&>(*this);
    return os.str();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzRoundTrip<TextConfigUpdate>(data, size);
  return 0;
}
