// Looking a configuration tag up by name, through libOlmLiteRt.so as an EU library does, beside the
// standard containers holding the same names:
//
//   TagGet:        AaConfigTagGet and the AaMemUnRef of the copy it hands out (the whole price of
//                  reading a tag).
//   TagGetU32:     AaConfigTagGetU32 (lookup, copy, type and length checks, release).
//   TreeFind:      the bare lookup in the tags' radix tree (confMapHandler), no copy.
//   StdMapFind:    std::map<std::string, uint32_t>::find.
//   StdUnorderedMapFind: std::unordered_map<std::string, uint32_t>::find (hashing the whole name).
//
// Each iteration looks up the next of a few hundred names in a fixed shuffled order; the standard
// containers get their keys as ready std::strings, the tag functions as C strings.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "AaConfig.h"
#include "AaMem.h"
#include "IfAaGpuSimpleTreeRadix.h"

namespace {

// Names of the kind nodes use: service switches, addresses, limits.
std::vector<std::string> makeNames() {
  const char* const services[] = {"aasyscom", "aaconfig", "aasysmb", "aafile",  "aamem",   "aasyslog",
                                  "aaltetime", "ccs",      "dsp",     "mac",     "phy",     "rlc",
                                  "pdcp",      "oam",      "sched",   "ulphy",   "dlphy",   "xyz"};
  const char* const settings[] = {"enabled", "level",     "addr",      "timeout.ms", "port",
                                  "size",    "max.count", "rad.slave.addr", "trace.enabled"};
  std::vector<std::string> names = {"sys.masterNid", "sys.ownNid", "olm.service.aasyscom.masternid",
                                    "olm.service.aaconfig.rad.slave.addr"};
  for (const char* service : services) {
    for (const char* setting : settings) {
      names.push_back(std::string("olm.service.") + service + "." + setting);
      names.push_back(std::string("ccs.service.") + service + "." + setting);
    }
  }
  for (int domain = 1; domain <= 16; ++domain) names.push_back("olm.service.aaconfig.rad.domain." + std::to_string(domain));
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

struct Fixture {
  std::vector<std::string> names = makeNames();
  std::vector<std::string> lookupOrder;
  std::map<std::string, uint32_t> ordered;
  std::unordered_map<std::string, uint32_t> hashed;

  Fixture() {
    AaConfigEarlyStartup();
    for (uint32_t i = 0; i < names.size(); ++i) {
      AaConfigTagSetU32(names[i].c_str(), i);
      ordered[names[i]] = i;
      hashed[names[i]] = i;
    }
    lookupOrder = names;
    std::shuffle(lookupOrder.begin(), lookupOrder.end(), std::mt19937(7));
  }
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

// Calls lookup with the next name of the shuffled order on every iteration.
template <typename Lookup>
void runLookups(benchmark::State& state, Lookup lookup) {
  const std::vector<std::string>& order = fixture().lookupOrder;
  size_t next = 0;
  for (auto _ : state) {
    lookup(order[next]);
    if (++next == order.size()) next = 0;
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["names"] = static_cast<double>(order.size());
}

void TagGet(benchmark::State& state) {
  runLookups(state, [](const std::string& name) {
    void* value = nullptr;
    uint32_t length = 0;
    AaConfigTagGet(name.c_str(), &value, &length);
    benchmark::DoNotOptimize(value);
    AaMemUnRef(&value);
  });
}

void TagGetU32(benchmark::State& state) {
  runLookups(state, [](const std::string& name) {
    uint32_t value = 0;
    AaConfigTagGetU32(name.c_str(), &value);
    benchmark::DoNotOptimize(value);
  });
}

void TreeFind(benchmark::State& state) {
  runLookups(state, [](const std::string& name) {
    benchmark::DoNotOptimize(AaGpuSimpleTreeRadixFind(&confMapHandler, name.c_str()));
  });
}

void StdMapFind(benchmark::State& state) {
  runLookups(state, [](const std::string& name) { benchmark::DoNotOptimize(fixture().ordered.find(name)); });
}

void StdUnorderedMapFind(benchmark::State& state) {
  runLookups(state, [](const std::string& name) { benchmark::DoNotOptimize(fixture().hashed.find(name)); });
}

BENCHMARK(TagGet);
BENCHMARK(TagGetU32);
BENCHMARK(TreeFind);
BENCHMARK(StdMapFind);
BENCHMARK(StdUnorderedMapFind);

}  // namespace
