// Throughput of each checksum path; run with --benchmark_repetitions=N on a quiet machine.
#include <benchmark/benchmark.h>

#include <vector>

#include "zel/paxoscrc_impl.h"
#include "zel/paxosutils.h"

namespace {

using CrcFn = unsigned int (*)(const unsigned char*, unsigned long, unsigned int);

void RunCrc(benchmark::State& state, CrcFn fn) {
  std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)));
  for (size_t i = 0; i < buf.size(); i++) buf[i] = static_cast<unsigned char>(i * 131 + (i >> 9));
  unsigned int crc = 0;
  for (auto _ : state) {
    crc = fn(buf.data(), buf.size(), crc);
    benchmark::DoNotOptimize(crc);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_CrcReference(benchmark::State& state) {
  RunCrc(state, PartialCrcReference);
}
void BM_CrcSlicing8(benchmark::State& state) {
  RunCrc(state, PartialCrcSlicing8);
}
void BM_CrcPartialcrc(benchmark::State& state) {
  RunCrc(state, partialcrc);
}
void BM_CrcPclmul(benchmark::State& state) {
  if (!PartialCrcPclmulAvailable()) {
    state.SkipWithError("no carry-less multiply on this CPU");
    return;
  }
  RunCrc(state, PartialCrcPclmul);
}

constexpr int64_t k4K = 4 << 10, k64M = 64 << 20;
BENCHMARK(BM_CrcReference)->Arg(k4K)->Arg(k64M);
BENCHMARK(BM_CrcSlicing8)->Arg(k4K)->Arg(k64M);
BENCHMARK(BM_CrcPclmul)->Arg(k4K)->Arg(k64M);
BENCHMARK(BM_CrcPartialcrc)->Arg(k4K)->Arg(k64M);

}  // namespace
