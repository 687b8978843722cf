// The hosting executable of a node: the command line goes to the runtime's factory, then the
// Dispatcher's loop runs until the process is ended.
#include <cstdio>

#include "IAaSysDispatcher.h"

#if defined(__SANITIZE_THREAD__)
// The history log's ring is written by the Dispatcher without a lock while the RAM file thread may
// copy it out for a reader, who may then see a record half written: deliberate, and not reported.
// The host platform's bridge hands message bytes to and takes them from libzmq, whose own
// synchronisation the sanitizer cannot see (the library is not instrumented).
extern "C" const char* __tsan_default_suppressions() {
  return "race:Olm::HistoryLog::\nrace:Olm::history::\ncalled_from_lib:libzmq.so\nrace:libzmq.so\n";
}
#endif

int main(int argc, char** argv) {
  // Lines appear as they are written, also when the output goes to a pipe or a file.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Olm::IAaSysDispatcher* dispatcher = Olm::IAaSysDispatcher::IAaSysDispatcherCreate(argc, argv);
  dispatcher->AaSysDispatcherRun();
  return 0;
}
