#include "AaConfigRadInternal.h"

namespace Olm {
namespace Rad {

void release(void* block) {
  if (block == nullptr) {
    AaSysLogPrintE(kWarning, AACONFIG_RAD_FEATURE_ID, "AACONFIG_FREE: Memory was not allocated");
    return;
  }
  AaMemUnRef(&block);
}

CircularListElement* listCreate() {
  auto* head = static_cast<CircularListElement*>(AaMemMalloc(sizeof(CircularListElement)));
  circularListInit(*head);
  return head;
}

void listRemove(CircularListElement& element) {
  void* record = element.record;
  circularListUnlink(element);
  release(record);
}

void listFree(CircularListElement*& head) {
  if (head == nullptr) return;
  while (!circularListIsEmpty(*head)) listRemove(*head->next);
  release(head);
  head = nullptr;
}

}  // namespace Rad
}  // namespace Olm
