// Option parsing on arbitrary command lines (words split at zero bytes): it
// must end with settings or a usage error text, never abort, and the node and
// disk items it keeps must go through their checks the same way.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzzcheck.h"
#include "zel/zelcmd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<std::string> words = {"kxzel"};
  std::string w;
  for (size_t i = 0; i < size; i++) {
    if (data[i] == 0) {
      words.push_back(w);
      w.clear();
    } else {
      w += static_cast<char>(data[i]);
    }
  }
  words.push_back(w);
  std::vector<char*> argv;
  for (std::string& s : words) argv.push_back(&s[0]);
  argv.push_back(nullptr);
  ZelSettings s;
  int rc = ParseOptions(static_cast<int>(words.size()), argv.data(), &s);
  // A refusal always says why, except getopt's own "invalid option".
  if (rc != 0) return 0;
  FUZZ_CHECK(s.usageError.empty());
  FUZZ_CHECK(s.condVersion >= -1 && s.storeVersion >= -1);
  FUZZ_CHECK(s.diskDir.empty() || s.diskDir[0] == '/');
  checkNodeArgs(s.nodeArgs);
  DiskMap disks;
  parseDiskList(s.diskArgs, s.diskDir, &disks);
  return 0;
}
