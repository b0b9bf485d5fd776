// The authorized-keys parser on arbitrary file contents: it must end with a
// result, never crash or read out of bounds. Run with -close_fd_mask=2 to
// silence its messages.
#include <stdio.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "cfgmgr/clusterInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string path = "/tmp/authkeys_fuzz." + std::to_string(getpid());
  FILE* f = fopen(path.c_str(), "we");
  if (f == nullptr) return 0;
  fwrite(data, 1, size, f);
  fclose(f);
  ClusterInfoList list;
  AuthKeysSettings settings;
  int mode = 0;
  ReadAuthorizedKeys(path.c_str(), &list, &settings);
  ReadFipsMode(path.c_str(), &mode);
  list.dump();
  return 0;
}
