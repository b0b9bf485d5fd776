// zel-local: runs a whole zel repository on this machine.
#include <stdio.h>

#include "local/zellocal.h"
#include "zel/zelversion.h"

int main(int argc, char** argv) {
  if (PrintVersionIfAsked(argc, argv)) return 0;
  zellocal::Command c;
  std::string err;
  if (!zellocal::ParseCommand(argc, argv, &c, &err)) {
    fprintf(stderr, "zel-local: %s\n%s", err.c_str(), zellocal::kUsage);
    return 1;
  }
  return zellocal::RunCommand(c);
}
