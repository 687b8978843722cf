// The node a runtime benchmark runs in its own process: built from a command line as OLMLiteExe
// builds it, with --wait 0, its loop stepped by the benchmark (Dispatcher::runIteration).
#pragma once

#include <string>

#include "Dispatcher.h"
#include "TestNamespace.h"

namespace bench {

// Builds the node (once per process) with a node id of the process's namespace.
inline Olm::Dispatcher& startNode(const char* program) {
  std::string argv0 = program, nidOption = "--nid", nid = std::to_string(OlmTest::nextTestNid());
  std::string waitOption = "--wait", zero = "0";
  char* argv[] = {argv0.data(), nidOption.data(), nid.data(), waitOption.data(), zero.data(), nullptr};
  return *static_cast<Olm::Dispatcher*>(Olm::IAaSysDispatcher::IAaSysDispatcherCreate(5, argv));
}

}  // namespace bench
