// Replays a fuzz target's committed corpus as an ordinary test: every file of
// each directory given is fed to the target once. Exit 0 when all returned.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; i++) {
    DIR* d = opendir(argv[i]);
    if (d == nullptr) {
      fprintf(stderr, "cannot open corpus %s\n", argv[i]);
      return 1;
    }
    while (struct dirent* e = readdir(d)) {
      if (e->d_name[0] == '.') continue;
      std::string path = std::string(argv[i]) + "/" + e->d_name;
      std::ifstream in(path, std::ios::binary);
      std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                              std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      files++;
    }
    closedir(d);
  }
  printf("replayed %d inputs\n", files);
  return files > 0 ? 0 : 1;
}
