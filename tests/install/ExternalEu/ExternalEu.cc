#include <cstdio>

#include "AaBitset.h"
#include "AaCdmaTime.h"
#include "AaCpuAtomic.h"
#include "AaCpuSpinLock.h"
#include "AaGpuHelpers.h"
#include "AaGpuIdFifo.h"
#include "AaLteFrameCalc.h"
#include "AaLteTime.h"
#include "AaSysCom.h"
#include "IAaSysDispatcher.h"

namespace {
class ExternalEu : public Olm::IAaSysDispatcherSicHandler {
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*&) override {}
};

// One call into each family of utilities an EU reaches through the installed headers, printed as
// one line the install test knows.
void printUtilities() {
  const SAaLteTiming lastSlot = {255, 19, 15359};
  SAaLteTiming next = {};
  AaLteFrameCalcBtuAdd(&lastSlot, 1, 1, &next);

  uint64_t cdmaTime = 0;
  const int cdmaStatus = static_cast<int>(AaCdmaTimeAsyncGet(&cdmaTime, 0, 0));

  SAaCpuSpinLock lock = AACPUSPINLOCK_INITIALIZER;
  TAaCpuAtomic counter = 0;
  AaCpuSpinLockLock(&lock);
  AaCpuAtomicAdd(&counter, 41);
  AaCpuSpinLockUnlock(&lock);

  SAaGpuIdFifo* fifo = nullptr;
  uint32_t id = 0;
  AaGpuIdFifo_Create(100, 8, &fifo);
  AaGpuIdFifo_Get(fifo, &id);
  AaGpuIdFifo_Destroy(fifo);

  SAaBitset* bits = nullptr;
  uint32_t firstSet = 0;
  AaBitsetCreate(100, &bits);
  AaBitsetSet(bits, 65);
  AaBitsetFindFirstSet(bits, 0, &firstSet);
  AaBitsetDestroy(bits);

  const char text[] = "EU";
  const void* cursor = text;
  uint32_t remaining = 2;
  char line[AAGPUHELPERS_HEXDUMP_LINE_SIZE];
  AaGpuHelpersHexdumpBuild(&cursor, &remaining, line, 4, 1, 1);

  std::printf("ExternalEu utilities: next (%u,%u,%u), CDMA status %d sync mode %u, counter %u, id %u, bit %u, dump %s\n",
              next.frame, next.slot, next.btu, cdmaStatus, AaCdmaSyncModeGet(), AaCpuAtomicInc(&counter), id,
              firstSet, line);
}
}  // namespace

extern "C" void EuMain(Olm::IAaSysDispatcher* dispatcher) {
  static ExternalEu eu;
  dispatcher->AaSysDispatcherCpidBind(eu, 0x0777);
  TAaLteBtsFrameNr frame = 0;
  std::printf("ExternalEu bound on node 0x%04x, LTE time status %d\n", AaSysComGetOwnNid(),
              static_cast<int>(AaLteTimeGet(nullptr, &frame, nullptr, nullptr, nullptr)));
  printUtilities();
  std::fflush(stdout);
}
