// The paxos state file as read from disk: header, body decoded with the
// header's format version, then validation of the whole buffer.
#include "fuzz/fuzzcheck.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

namespace {

std::string EncodeFile(PaxosHeader h, const PaxosFileData& body, int fmt) {
  h.len = static_cast<unsigned int>(h.getSize() + body.getSize(fmt));
  std::string buf(h.len, '\0');
  FUZZ_CHECK(body.dump(h.dump(&buf[0]), fmt) == &buf[0] + buf.size());
  h.setCRC(&buf[0], static_cast<int>(buf.size()));
  return buf;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  const char* end = p + size;
  PaxosHeader h;
  const char* body = h.load(p, end);
  int fmt = static_cast<int>(h.fmtVersion);
  PaxosFileData pfd;
  const char* e = pfd.load(body, end, fmt);
  std::string text = h.toString() + pfd.toString() + pfd.toShortString();
  h.validate(p, end);
  if (body == nullptr || e == nullptr) return 0;

  std::string b1 = EncodeFile(h, pfd, fmt);
  PaxosHeader h2;
  PaxosFileData pfd2;
  const char* bend = b1.data() + b1.size();
  FUZZ_CHECK(pfd2.load(h2.load(b1.data(), bend), bend, fmt) == bend);
  // The magic is carried as read; only the right one validates.
  FUZZ_CHECK((h2.validate(b1.data(), bend) == 0) == (h.magic == kPaxosMagic));
  FUZZ_CHECK(h2.magic == h.magic && h2.cid == h.cid && h2.fmtVersion == h.fmtVersion &&
             h2.lastWriterId == h.lastWriterId);
  FUZZ_CHECK(pfd2 == pfd && pfd2.toString() == pfd.toString() && EncodeFile(h2, pfd2, fmt) == b1);
  return 0;
}
