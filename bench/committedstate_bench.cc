// Encoding and decoding of a large committed state: 100,000 values and
// 10,000 files.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "zel/paxosdata.h"

namespace {

const CommittedState& LargeState() {
  static const CommittedState s = [] {
    CommittedState c;
    NodeDescriptor n;
    for (int i = 1; i <= 5; i++) {
      n.id = i;
      n.slot = i - 1;
      c.config.nodes.push_back(n);
    }
    c.config.disks = {1, 2, 3};
    c.config.minNodes = 3;
    char name[32], value[32];
    for (int i = 0; i < 100000; i++) {
      snprintf(name, sizeof name, "cluster.value.%06d", i);
      snprintf(value, sizeof value, "setting-%08x", i * 2654435761u);
      c.valueList.emplace_hint(c.valueList.end(), name, ValueVersion{i % 50 + 1, value});
    }
    for (int i = 1; i <= 10000; i++)
      c.fileList.emplace_hint(
          c.fileList.end(), i,
          FileVersion(i % 7 + 1, UpdateId(i % 5 + 1, 3, 1000 + i), 0x9E3779B9u * i));
    for (int i = 1; i <= 20; i++) c.updateList[UpdateStream{i, 3}] = 5000 + i;
    return c;
  }();
  return s;
}

void BM_CommittedStateEncode(benchmark::State& st) {
  const CommittedState& s = LargeState();
  for (auto _ : st) {
    std::string buf(static_cast<size_t>(s.getSize()), '\0');
    char* e = s.dump(&buf[0]);
    benchmark::DoNotOptimize(e);
  }
  st.SetBytesProcessed(st.iterations() * LargeState().getSize());
}
BENCHMARK(BM_CommittedStateEncode)->Unit(benchmark::kMillisecond);

void BM_CommittedStateDecode(benchmark::State& st) {
  const CommittedState& s = LargeState();
  std::string buf(static_cast<size_t>(s.getSize()), '\0');
  s.dump(&buf[0]);
  for (auto _ : st) {
    CommittedState c;
    const char* e = c.load(buf.data(), buf.data() + buf.size());
    if (e != buf.data() + buf.size()) st.SkipWithError("decode failed");
    benchmark::DoNotOptimize(c);
  }
  st.SetBytesProcessed(st.iterations() * static_cast<long>(buf.size()));
}
BENCHMARK(BM_CommittedStateDecode)->Unit(benchmark::kMillisecond);

}  // namespace
