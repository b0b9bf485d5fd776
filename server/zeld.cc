// zeld, the repository server: parses the command line, builds the process
// state and serves until SIGTERM, SIGINT or a "quit" request.
//
//   zeld [-P port] [-a address] [-V...]
//   ZEL_BASE=DIR zeld-testinstall [-P port] [-a address] [-V...]
//   zeld --version
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <thread>

#include "server/globals.h"
#include "server/zeldfactory.h"
#include "zel/paxosutils.h"
#include "zel/zelutils.h"
#include "zel/zelversion.h"

#ifndef ZEL_TEST_INSTALL
#define ZEL_TEST_INSTALL 0
#endif

namespace {

void usage() {
  const char* name = ZEL_TEST_INSTALL ? "zeld-testinstall" : "zeld";
  fprintf(stderr,
          "usage: %s [-P port] [-a address] [-V...]\n"
          "       %s --version\n"
          "  -P port     port to serve (else ZEL_PORT, else 1191; 0: any free port)\n"
          "  -a address  address to listen on (default %s)\n"
          "  -V          more trace on standard error (adds to ZEL_DEBUG)\n",
          name, name, ZEL_TEST_INSTALL ? "127.0.0.1" : "all");
  exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (PrintVersionIfAsked(argc, argv)) return 0;
  zeld::ServerOptions o;
  o.testInstall = ZEL_TEST_INSTALL != 0;
  int c;
  while ((c = getopt(argc, argv, "P:a:Vh")) != -1) {
    switch (c) {
      case 'P': {
        char* end = nullptr;
        long p = strtol(optarg, &end, 10);
        if (*optarg == '\0' || *end != '\0' || p < 0 || p > 65535) {
          fprintf(stderr, "zeld: bad port '%s'\n", optarg);
          usage();
        }
        o.port = static_cast<int>(p);
        break;
      }
      case 'a':
        o.listenAddr = optarg;
        break;
      case 'V':
        o.verbose++;
        break;
      default:
        usage();
    }
  }
  if (optind != argc) usage();
  zeld::ApplyEnvironment(&o);
  zelTraceBoost = o.verbose;
  InitZelTrace();

  // Signals are taken by one thread with sigwait; every other thread blocks them.
  signal(SIGPIPE, SIG_IGN);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);

  zeld::Globals g(o, zeld::EngineReplicaFactory(o.requestMs, o.crashAt));
  if (g.init() != 0) return 1;
  std::thread([&g, set] {
    int sig = 0;
    sigwait(&set, &sig);
    trace(1, "signal %d: stopping", sig);
    g.stop();
  }).detach();
  int rc = g.run();
  trace(1, "zeld stopped (rc %d)", rc);
  return rc;
}
