// The main function of the runtime's benchmarks: Google Benchmark's, in a namespace of host-platform
// objects of the process's own, so a benchmark's nodes never meet a developer's running ones.
#include <benchmark/benchmark.h>

#include "TestNamespace.h"

int main(int argc, char** argv) {
  OlmTest::enterPrivateNamespace();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
