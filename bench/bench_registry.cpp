// Configuration store costs: a cached read (one stat to notice other writers), a cached write, and
// the atomic flush of a file of the size of the phone's system.ini.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <string>

#include "benchRoot.h"
#include "paths.h"
#include "registry.h"

namespace {

const char* kFile = "/config/system/system.ini";

void fill(int keys) {
  for (int i = 0; i < keys; ++i)
    brisaSetRegistryString(kFile, "Section" + std::to_string(i / 50), "key" + std::to_string(i), std::to_string(i));
  regFlushAllFile();
}

void BM_CachedRead(benchmark::State& state) {
  benchRoot();
  registryResetCache();
  fill(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(brisaGetRegistryInt(kFile, "Section1", "key60", 0));
}
BENCHMARK(BM_CachedRead)->Arg(100)->Arg(2000);

void BM_WriteAndFlush(benchmark::State& state) {
  benchRoot();
  registryResetCache();
  fill(static_cast<int>(state.range(0)));
  int n = 0;
  for (auto _ : state) {
    brisaSetRegistryString(kFile, "Section1", "key60", std::to_string(++n));
    benchmark::DoNotOptimize(regFlushAllFile());
  }
}
BENCHMARK(BM_WriteAndFlush)->Arg(100)->Arg(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
