// sendFile -> receiveFile of a 1 GiB file over loopback TCP between two threads;
// the source is in the page cache and the receiver writes a new file without sync.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include "platform/psock.h"
#include "zel/kxcomm.h"
#include "zel/zelxfer.h"

namespace {

constexpr long long kFileBytes = 1LL << 30;

std::string MakeSource(const std::string& dir) {
  std::string path = dir + "/src";
  FILE* f = fopen(path.c_str(), "wb");
  std::string chunk(1 << 20, '\0');
  for (size_t i = 0; i < chunk.size(); i++) chunk[i] = static_cast<char>(i * 7 + (i >> 9));
  for (long long done = 0; done < kFileBytes; done += static_cast<long long>(chunk.size()))
    fwrite(chunk.data(), 1, chunk.size(), f);
  fclose(f);
  return path;
}

// A connected loopback pair wrapped as connections (no greeting needed here).
void MakePair(Connection** sender, Connection** receiver) {
  int lfd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa = {};
  sa.sin_family = AF_INET;
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  bind(lfd, reinterpret_cast<sockaddr*>(&sa), len);
  listen(lfd, 1);
  getsockname(lfd, reinterpret_cast<sockaddr*>(&sa), &len);
  int cfd = socket(AF_INET, SOCK_STREAM, 0);
  int buf = kSockRecvBufBytes;
  setsockopt(cfd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
  connect(cfd, reinterpret_cast<sockaddr*>(&sa), len);
  int afd = accept(lfd, nullptr, nullptr);
  close(lfd);
  // Both ends as in real use: no-delay (the client sets it when connecting).
  PlatSetNoDelay(cfd);
  PlatSetNoDelay(afd);
  CommAddr peer;
  *sender = new ConnImplementation(afd, SdrSecInfo(), peer);
  *receiver = new ConnImplementation(cfd, SdrSecInfo(), peer);
}

void BM_SendReceiveFile1GiB(benchmark::State& state) {
  char tmpl[] = "/tmp/xferbenchXXXXXX";
  std::string dir = mkdtemp(tmpl);
  std::string src = MakeSource(dir);
  std::string dst = dir + "/dst";
  Connection* sender = nullptr;
  Connection* receiver = nullptr;
  MakePair(&sender, &receiver);
  for (auto _ : state) {
    int sendRc = -1;
    std::thread t([&] { sendRc = sendFile(sender, src, static_cast<int>(kFileBytes)); });
    unsigned int crc = 0;
    int rc = receiveFile(receiver, dst, static_cast<int>(kFileBytes), false, &crc, nullptr, false);
    t.join();
    if (rc != 0 || sendRc != 0) state.SkipWithError("transfer failed");
    unlink(dst.c_str());
  }
  state.SetBytesProcessed(state.iterations() * kFileBytes);
  delete sender;
  delete receiver;
  unlink(src.c_str());
  rmdir(dir.c_str());
}

}  // namespace

BENCHMARK(BM_SendReceiveFile1GiB)->Iterations(3)->Unit(benchmark::kMillisecond)->UseRealTime();
