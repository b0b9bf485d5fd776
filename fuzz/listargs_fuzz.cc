// Node and disk list items (the text of -n and -d, split at commas): the
// syntax check, the disk parser with and without a directory, and node items
// that need no name resolution, on arbitrary text. Nothing may abort.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzzcheck.h"
#include "zel/zelcmd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ZelArgs items;
  std::string item;
  for (size_t i = 0; i <= size; i++) {
    if (i == size || data[i] == ',') {
      items.push_back(item);
      item.clear();
    } else {
      item += static_cast<char>(data[i]);
    }
  }
  checkNodeArgs(items);
  // Ids alone resolve nothing, so they can go through the full parser.
  bool idsOnly = true;
  for (const std::string& s : items) {
    if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos) idsOnly = false;
  }
  if (idsOnly) {
    Nodes nodes;
    // No node is known locally: every id is refused, also one that would
    // wrap to a small number if it were cut to 32 bits.
    int rc = parseNodeList(items, &nodes, true);
    FUZZ_CHECK(rc == 22 && nodes.empty());
  }
  for (const char* dir : {"", "/dev/tb", "relative"}) {
    DiskMap disks;
    int rc = parseDiskList(items, dir, &disks);
    FUZZ_CHECK(rc == 0 || rc == 22);
    if (rc == 0) FUZZ_CHECK(disks.size() <= items.size());
  }
  return 0;
}
