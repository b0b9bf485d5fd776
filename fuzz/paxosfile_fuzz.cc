// The paxos state file as read from disk: header, body decoded with the
// header's format version, then validation of the whole buffer.
#include "fuzz/fuzzcheck.h"
#include "zel/paxosdata.h"
#include "zel/paxosutils.h"

namespace {

std::string EncodeFile(const PaxosHeader& src, const PaxosFileData& body, int fmt) {
  PaxosHeader h = src;
  int size = h.getSize() + body.getSize(fmt);
  h.len = static_cast<unsigned int>(size);
  std::string buf(static_cast<size_t>(size), '\0');
  char* e = h.dump(&buf[0]);
  e = body.dump(e, fmt);
  FUZZ_CHECK(e == &buf[0] + size);
  h.setCRC(&buf[0], size);
  return buf;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* p = reinterpret_cast<const char*>(data);
  const char* end = p + size;
  PaxosHeader h;
  std::string text = h.toString();
  const char* body = h.load(p, end);
  text = h.toString();
  int fmt = static_cast<int>(h.fmtVersion);
  PaxosFileData pfd;
  const char* e = pfd.load(body, end, fmt);
  text = pfd.toString() + pfd.toShortString();
  h.validate(p, end);
  if (body == nullptr || e == nullptr) return 0;

  std::string b1 = EncodeFile(h, pfd, fmt);
  PaxosHeader h2;
  PaxosFileData pfd2;
  const char* bp = b1.data();
  const char* bend = bp + b1.size();
  const char* body2 = h2.load(bp, bend);
  FUZZ_CHECK(body2 == bp + h.getSize());
  FUZZ_CHECK(pfd2.load(body2, bend, fmt) == bend);
  // The magic is carried as read; only the right one validates.
  FUZZ_CHECK((h2.validate(bp, bend) == 0) == (h.magic == kPaxosMagic));
  FUZZ_CHECK(h2.magic == h.magic && h2.cid == h.cid && h2.fmtVersion == h.fmtVersion &&
             h2.lastWriterId == h.lastWriterId);
  FUZZ_CHECK(pfd2 == pfd);
  FUZZ_CHECK(pfd2.toString() == pfd.toString());
  FUZZ_CHECK(EncodeFile(h2, pfd2, fmt) == b1);
  return 0;
}
