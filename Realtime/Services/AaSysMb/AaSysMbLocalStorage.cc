#include "AaSysMbLocalStorage.h"

#include <cstring>

#include "AaMem.h"
#include "AaSysLog.h"
#include "AaSysMb.h"

namespace {

constexpr EAaSysLogSeverityLevel kTrace = EAaSysLogSeverityLevel_Debug;
constexpr EAaSysLogSeverityLevel kFailure = EAaSysLogSeverityLevel_Error;

TAaSysMbList* newElement() { return static_cast<TAaSysMbList*>(AaMemMalloc(sizeof(TAaSysMbList))); }

void release(void* block) { AaMemUnRef(&block); }

// Unlinks, poisons and frees the element and its record.
void dropElement(TAaSysMbList* element) {
  Olm::circularListUnlink(*element);
  release(element->record);
  release(element);
}

bool matchesZone(uint32_t recordZone, uint32_t zone) { return zone == kAaSysMbAnyZone || recordZone == zone; }

bool namesWholeNode(uint32_t address) { return AaSysComSicadGetCpid(address) == kAaSysMbWholeNodeCpid; }

template <typename Record>
TAaSysMbList* findNext(const TAaSysMbList* from, uint32_t msgId) {
  if (from == nullptr) return nullptr;
  for (TAaSysMbList* element = Olm::circularListNextRecord(*from); element != nullptr;
       element = Olm::circularListNextRecord(*element)) {
    if (msgId == kAaSysMbAnyMsgId || static_cast<const Record*>(element->record)->msgId == msgId) return element;
  }
  return nullptr;
}

// Removes the first subscription of subscriber to msgId, logged under the caller's name.
void removeSubscription(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId, const char* function) {
  if (list == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Info, AASYSMB_FEATURE_ID, "%s(): Pointer to the list is NULL.", function);
    return;
  }
  for (TAaSysMbList* element = AaSysMbLocalSubscriptionFindNext(list, msgId); element != nullptr;
       element = AaSysMbLocalSubscriptionFindNext(element, msgId)) {
    if (subscriptionOf(element)->subscriber != subscriber) continue;
    AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "%s(): Removing subscription (subscriber 0x%x, msgId 0x%x)", function,
                   subscriber, msgId);
    dropElement(element);
    return;
  }
}

}  // namespace

TAaSysMbList* AaSysMbLocalListCreate() {
  TAaSysMbList* head = newElement();
  Olm::circularListInit(*head);
  return head;
}

void AaSysMbLocalListFreeHead(TAaSysMbList* list) { release(list); }

void AaSysMbLocalListFree(TAaSysMbList* list) {
  if (list == nullptr) return;
  while (!Olm::circularListIsEmpty(*list)) dropElement(list->next);
  release(list);
}

void AaSysMbLocalPublicationAdd(TAaSysMbList* list, const void* payload, uint32_t msgId, uint32_t publisher,
                                uint32_t size, uint32_t zone, uint32_t mode, uint32_t apfWord) {
  if (list == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalPublicationAdd(): List is NULL!");
    return;
  }
  // AaMemMalloc never fails (it ends the process instead), so the allocation failures that the
  // log readers know cannot occur here.
  const uint32_t recordSize = size + SAaSysMbLocalPublication::kRecordOverhead;
  auto* record = static_cast<SAaSysMbLocalPublication*>(AaMemMalloc(recordSize));
  std::memset(record, 0, recordSize);
  record->publisher = publisher;
  record->msgId = msgId;
  record->zone = zone;
  record->mode = mode;
  record->size = size;
  record->apfWord = apfWord;
  if (size != 0) std::memcpy(record->payload(), payload, size);
  TAaSysMbList* element = newElement();
  element->record = record;
  Olm::circularListAppend(*list, *element);
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID,
                 "LocalPublicationAdd(): New publication added to local storage, msgId 0x%x, publisher 0x%x, zone "
                 "0x%x, mode 0x%x, reserved 0x%x",
                 msgId, publisher, zone, mode, apfWord);
}

void AaSysMbLocalPublicationDelete(TAaSysMbList* list, uint32_t publisher, uint32_t msgId) {
  if (list == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalPublicationDelete(): List to find publication is NULL");
    return;
  }
  for (TAaSysMbList* element = AaSysMbLocalPublicationFindNext(list, msgId); element != nullptr;
       element = AaSysMbLocalPublicationFindNext(element, msgId)) {
    const SAaSysMbLocalPublication* record = publicationOf(element);
    if (publisher != kAaSysMbAnyPublisher && record->publisher != publisher) continue;
    AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalPublicationDelete(): Removed publication msgId 0x%x, sicad 0x%x",
                   record->msgId, record->publisher);
    dropElement(element);
    return;
  }
}

void AaSysMbLocalPublicationRemoveElement(TAaSysMbList* element) { dropElement(element); }

TAaSysMbList* AaSysMbLocalPublicationFindNext(const TAaSysMbList* from, uint32_t msgId) {
  return findNext<SAaSysMbLocalPublication>(from, msgId);
}

void AaSysMbLocalPublicationFlush(TAaSysMbList* list, uint32_t address, uint32_t zone) {
  if (list == nullptr || Olm::circularListIsEmpty(*list)) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalPublicationFlush(): List is empty!");
    return;
  }
  // The node form compares no node: every publication of the zone goes, whoever published it.
  const bool wholeNode = namesWholeNode(address);
  if (wholeNode) {
    AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalPublicationFlush(): Flushing publications for node 0x%x",
                   AaSysComSicadGetNid(address));
  } else {
    AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalPublicationFlush(): Flushing publications for publisher 0x%x",
                   address);
  }
  TAaSysMbList* element = AaSysMbLocalPublicationFindNext(list, kAaSysMbAnyMsgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalPublicationFindNext(element, kAaSysMbAnyMsgId);
    const SAaSysMbLocalPublication* record = publicationOf(element);
    if (matchesZone(record->zone, zone) && (wholeNode || record->publisher == address)) {
      AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalPublicationFlush(): Removing publication: publisher 0x%x, id 0x%x",
                     record->publisher, record->msgId);
      dropElement(element);
    }
    element = next;
  }
}

void AaSysMbLocalSubscriptionBook(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId, uint32_t mode,
                                  uint32_t zone) {
  if (list == nullptr) {
    AaSysLogPrintE(kFailure, AASYSMB_FEATURE_ID, "LocalSubscriptionBook(): List is NULL!");
    return;
  }
  auto* record = static_cast<SAaSysMbLocalSubscription*>(AaMemMalloc(sizeof(SAaSysMbLocalSubscription)));
  *record = SAaSysMbLocalSubscription{subscriber, msgId, mode, zone};
  TAaSysMbList* element = newElement();
  element->record = record;
  Olm::circularListAppend(*list, *element);
  AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalSubscriptionBook(): Added new subscription to the local storage!");
}

void AaSysMbLocalSubscriptionDelete(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId) {
  removeSubscription(list, subscriber, msgId, "LocalSubscriptionDelete");
}

void AaSysMbLocalSubscriptionRemove(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId) {
  removeSubscription(list, subscriber, msgId, "LocalSubscriptionRemove");
}

TAaSysMbList* AaSysMbLocalSubscriptionFindNext(const TAaSysMbList* from, uint32_t msgId) {
  return findNext<SAaSysMbLocalSubscription>(from, msgId);
}

// The zone compares as in the publication flush; the node form, unlike there, takes only the
// subscribers of the named node: a subscription is always its subscriber's own.
void AaSysMbLocalSubscriptionFlush(TAaSysMbList* list, uint32_t address, uint32_t zone) {
  if (list == nullptr) return;
  const bool wholeNode = namesWholeNode(address);
  TAaSysMbList* element = AaSysMbLocalSubscriptionFindNext(list, kAaSysMbAnyMsgId);
  while (element != nullptr) {
    TAaSysMbList* next = AaSysMbLocalSubscriptionFindNext(element, kAaSysMbAnyMsgId);
    const SAaSysMbLocalSubscription* record = subscriptionOf(element);
    const bool ofAddress = wholeNode ? AaSysComSicadGetNid(record->subscriber) == AaSysComSicadGetNid(address)
                                     : record->subscriber == address;
    if (ofAddress && matchesZone(record->zone, zone)) {
      AaSysLogPrintE(kTrace, AASYSMB_FEATURE_ID, "LocalSubscriptionFlush(): Removing subscription (subscriber 0x%x, msgId 0x%x)",
                     record->subscriber, record->msgId);
      dropElement(element);
    }
    element = next;
  }
}
