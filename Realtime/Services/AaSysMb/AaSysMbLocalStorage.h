// The broker's storage: the stored publications and the subscriptions, each a circular list
// (CircularList.h) of records allocated from the memory service (AaMem.h).
//
// Uses nothing but the public interface of the runtime and the list header, so that a broker
// server built as an EU library can compile it into itself and keep its records the same way.
//
// Only the broker's EU touches the lists, on the Dispatcher's thread.
#pragma once

#include <cstdint>

#include "CircularList.h"

// A stored publication: this record and the payload after it, in one zero-filled block of
// size + kRecordOverhead bytes (the 4 bytes past the payload stay zero).
struct SAaSysMbLocalPublication {
  static constexpr uint32_t kRecordOverhead = 28;

  uint32_t publisher;
  uint32_t msgId;
  uint32_t zone;
  uint32_t mode;
  uint32_t size;    // payload bytes, at most 65535
  uint32_t apfWord; // APF << 24 and the command's flags, as the command carried it
  uint8_t* payload() { return reinterpret_cast<uint8_t*>(this + 1); }
  const uint8_t* payload() const { return reinterpret_cast<const uint8_t*>(this + 1); }
};

struct SAaSysMbLocalSubscription {
  uint32_t subscriber;
  uint32_t msgId;
  uint32_t mode;
  uint32_t zone;
};

using TAaSysMbList = Olm::CircularListElement;

// Wildcards of the lookups and flushes.
constexpr uint32_t kAaSysMbAnyMsgId = 0xFFFF;
constexpr uint32_t kAaSysMbAnyPublisher = 0;
constexpr uint32_t kAaSysMbAnyZone = 0xFF;
constexpr uint16_t kAaSysMbWholeNodeCpid = 0xFFFF;

// A new list head (an empty list), and the release of one: the head only, records still linked are
// left alone (AaSysMbLocalListFree releases them as well).
TAaSysMbList* AaSysMbLocalListCreate();
void AaSysMbLocalListFreeHead(TAaSysMbList* list);
void AaSysMbLocalListFree(TAaSysMbList* list);

inline const SAaSysMbLocalPublication* publicationOf(const TAaSysMbList* element) {
  return static_cast<const SAaSysMbLocalPublication*>(element->record);
}
inline const SAaSysMbLocalSubscription* subscriptionOf(const TAaSysMbList* element) {
  return static_cast<const SAaSysMbLocalSubscription*>(element->record);
}

// Appends a publication at the tail (payload may be null when size is 0).
void AaSysMbLocalPublicationAdd(TAaSysMbList* list, const void* payload, uint32_t msgId, uint32_t publisher,
                                uint32_t size, uint32_t zone, uint32_t mode, uint32_t apfWord);
// Removes the first publication of msgId by publisher (kAaSysMbAnyPublisher: by anyone).
void AaSysMbLocalPublicationDelete(TAaSysMbList* list, uint32_t publisher, uint32_t msgId);
// Removes the publication element (from a FindNext of this list).
void AaSysMbLocalPublicationRemoveElement(TAaSysMbList* element);
// The element after from (the head to start) whose record has msgId (kAaSysMbAnyMsgId: any), or
// null. A caller that removes the element it is at takes the next one first.
TAaSysMbList* AaSysMbLocalPublicationFindNext(const TAaSysMbList* from, uint32_t msgId);
// Removes the publications of address in zone (kAaSysMbAnyZone: every zone); an address whose CPID
// is kAaSysMbWholeNodeCpid removes every publication of the zone, whoever published it.
void AaSysMbLocalPublicationFlush(TAaSysMbList* list, uint32_t address, uint32_t zone);

void AaSysMbLocalSubscriptionBook(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId, uint32_t mode,
                                  uint32_t zone);
// Remove the first subscription of subscriber to msgId; Delete and Remove differ in their trace.
void AaSysMbLocalSubscriptionDelete(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId);
void AaSysMbLocalSubscriptionRemove(TAaSysMbList* list, uint32_t subscriber, uint32_t msgId);
TAaSysMbList* AaSysMbLocalSubscriptionFindNext(const TAaSysMbList* from, uint32_t msgId);
// Removes the subscriptions of address in zone (kAaSysMbAnyZone: every zone); an address whose
// CPID is kAaSysMbWholeNodeCpid removes those of every subscriber on its node.
void AaSysMbLocalSubscriptionFlush(TAaSysMbList* list, uint32_t address, uint32_t zone);
