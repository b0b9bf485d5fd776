#include "zel/zelversion.h"

#include <stdio.h>
#include <string.h>

#ifndef ZEL_VERSION
#error "ZEL_VERSION comes from the build (project VERSION in CMakeLists.txt)"
#endif

const char* ZelVersion() {
  return ZEL_VERSION;
}

bool PrintVersionIfAsked(int argc, char** argv) {
  if (argc < 2 || strcmp(argv[1], "--version") != 0) return false;
  const char* name = strrchr(argv[0], '/');
  name = name != nullptr ? name + 1 : argv[0];
  printf("%s %s\n", name, ZEL_VERSION);
  fflush(stdout);
  return true;
}
