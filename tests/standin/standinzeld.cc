// Stands in for zeld-testinstall in the multi-node harness's own tests: listens
// on 127.0.0.1 at the -P port, closes every connection it accepts, and exits 0
// on SIGTERM ("exit N" in ZEL_BASE/standin.exit makes it exit N at once).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

volatile sig_atomic_t stopping = 0;

void onTerm(int) {
  stopping = 1;
}

}  // namespace

int main(int argc, char** argv) {
  int port = 0;
  for (int i = 1; i + 1 < argc; i++)
    if (strcmp(argv[i], "-P") == 0) port = atoi(argv[i + 1]);
  const char* base = getenv("ZEL_BASE");
  printf("standin port %d base %s\n", port, base ? base : "");
  fflush(stdout);
  if (base != nullptr) {
    FILE* f = fopen((std::string(base) + "/standin.exit").c_str(), "r");
    int code = 0;
    if (f != nullptr && fscanf(f, "exit %d", &code) == 1) return code;
    if (f != nullptr) fclose(f);
  }
  signal(SIGTERM, onTerm);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  struct sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sa.sin_port = htons(static_cast<uint16_t>(port));
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, 8) != 0) return 3;
  while (!stopping) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 50) > 0) {
      int c = accept(fd, nullptr, nullptr);
      if (c >= 0) close(c);
    }
  }
  close(fd);
  return 0;
}
