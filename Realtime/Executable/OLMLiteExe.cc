// The hosting executable of a node: the command line goes to the runtime's factory, then the
// Dispatcher's loop runs until the process is ended.
#include <cstdio>

#include "IAaSysDispatcher.h"

int main(int argc, char** argv) {
  // Lines appear as they are written, also when the output goes to a pipe or a file.
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Olm::IAaSysDispatcher* dispatcher = Olm::IAaSysDispatcher::IAaSysDispatcherCreate(argc, argv);
  dispatcher->AaSysDispatcherRun();
  return 0;
}
