// A connected pair of loopback TCP sockets on an ephemeral port.
#ifndef TESTS_SUPPORT_LOOPBACK_H
#define TESTS_SUPPORT_LOOPBACK_H

#include <functional>
#include <string>

struct LoopbackPair {
  int client = -1;
  int server = -1;
  LoopbackPair();
  ~LoopbackPair();
  bool ok() const { return client >= 0 && server >= 0; }
};

// Sends all of text (blocking); false on error.
bool SendAll(int fd, const std::string& text);

struct PairResult {
  int client = -1;
  int server = -1;
  bool plainFlows = false;
};

// Runs server on a thread and client here, each on its end of a fresh pair;
// when both return 0, plain bytes must then pass both ways and nothing else.
PairResult RunPair(const std::function<int(int sock)>& client,
                   const std::function<int(int sock)>& server);

#endif  // TESTS_SUPPORT_LOOPBACK_H
