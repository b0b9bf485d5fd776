// kxzel front end: main and mainBody.
#include <cstdio>

int mainBody(int argc, char** argv) {
  (void)argc;
  (void)argv;
  fprintf(stderr, "kxzel: not built yet\n");
  return 149;
}

int main(int argc, char** argv) {
  return mainBody(argc, argv);
}
