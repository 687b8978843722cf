// Reading R&D parameters of domain 1 as an EU library does, through libOlmLiteRt.so: every system
// log line reads two of them, and services read their switches on their own paths.
//
//   GetValue:           one AaConfigRadGetValue, cycling through a few indices of domain 1 (the
//                       log level and output switch, a service switch, a size).
//   GetValueOutOfRange: an index beyond the tag count, which answers 0.
//   BareArrayRead:      the same indices read from a plain array in the benchmark: what is left
//                       is the call into the library and its range checks.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

#include "AaConfigRad.h"

namespace {

constexpr uint32_t kTagIds[] = {0x10040, 0x10041, 0x1001A, 0x1008F};
constexpr uint32_t kTagIdCount = sizeof(kTagIds) / sizeof(kTagIds[0]);
constexpr uint32_t kBeyondTagCount = 0x100EB;

// The domain table and domain 1, as start-up leaves them (no Dispatcher: nothing is logged).
const bool kDomainOneRegistered = [] {
  if (AaConfigRadSetMaxDomainCount(AACONFIG_RAD_DOMAIN_COUNT) != 0 ||
      AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, AaConfigRadOlmDomainInit) != 0) {
    std::abort();
  }
  return true;
}();

void GetValue(benchmark::State& state) {
  uint32_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(AaConfigRadGetValue(kTagIds[next]));
    next = (next + 1) % kTagIdCount;
  }
}
BENCHMARK(GetValue);

void GetValueOutOfRange(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(AaConfigRadGetValue(kBeyondTagCount));
}
BENCHMARK(GetValueOutOfRange);

void BareArrayRead(benchmark::State& state) {
  static uint32_t values[256] = {};
  uint32_t* volatile table = values;  // read through a pointer, as the library does
  uint32_t next = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(table[kTagIds[next] & 0xFFFF]);
    next = (next + 1) % kTagIdCount;
  }
}
BENCHMARK(BareArrayRead);

}  // namespace
