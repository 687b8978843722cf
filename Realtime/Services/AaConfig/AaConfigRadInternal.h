// Pieces shared by the R&D domains, their subscribers and the R&D slave.
//
// Every list of the service is a circular list of records, each record one block from the memory
// service whose first member is its list element (element.record points back to the record).
#pragma once

#include <cstdint>
#include <cstring>

#include "AaConfigRad.h"
#include "AaMem.h"
#include "AaSysLog.h"
#include "CircularList.h"

struct SAaConfigRadSubscriberList {
  Olm::CircularListElement head;
};

namespace Olm {
namespace Rad {

constexpr EAaSysLogSeverityLevel kTrace = EAaSysLogSeverityLevel_Debug;
constexpr EAaSysLogSeverityLevel kInfo = EAaSysLogSeverityLevel_Info;
constexpr EAaSysLogSeverityLevel kWarning = EAaSysLogSeverityLevel_Warning;
constexpr EAaSysLogSeverityLevel kError = EAaSysLogSeverityLevel_Error;

// A tag id and a value: stored for a domain not registered yet, kept for the master, or one change
// of a notification batch.
struct TagValue {
  CircularListElement link;
  uint32_t tagId;
  uint32_t value;
};

// One subscription of a subscriber: a tag id in its tag list, a domain in its domain list.
struct Subscription {
  CircularListElement link;
  uint32_t id;
};

struct Subscriber {
  CircularListElement link;
  uint32_t sicad;
  CircularListElement* tags;
  CircularListElement* domains;
};

// A domain waiting to be announced to the master; mode 0 asynchronous, 1 synchronous.
struct PendingDomain {
  CircularListElement link;
  uint32_t domain;
  uint32_t mode;
};

constexpr uint32_t kAsynchronous = 0;
constexpr uint32_t kSynchronous = 1;

inline uint32_t domainOf(uint32_t tagId) { return tagId >> AACONFIG_RAD_DOMAIN_SHIFT; }
inline uint32_t indexOf(uint32_t tagId) { return tagId & AACONFIG_RAD_INDEX_MASK; }
inline uint32_t tagIdOf(uint32_t domain, uint32_t index) { return domain << AACONFIG_RAD_DOMAIN_SHIFT | index; }

// Releases a block of the service; a null block is logged and ignored.
void release(void* block);

// An empty list: a head of its own.
CircularListElement* listCreate();
// Frees every record of the list and the head, and clears the pointer.
void listFree(CircularListElement*& head);
// Unlinks the record's element and frees the record.
void listRemove(CircularListElement& element);

// A zeroed record, not yet linked.
template <typename Record>
Record* newRecord() {
  auto* record = static_cast<Record*>(AaMemMalloc(sizeof(Record)));
  std::memset(record, 0, sizeof(Record));
  record->link.record = record;
  return record;
}

// Links element directly behind head, i.e. first.
inline void listPrepend(CircularListElement& head, CircularListElement& element) {
  element.next = head.next;
  element.previous = &head;
  head.next->previous = &element;
  head.next = &element;
}

// Calls visit(record) for every record in list order; visit may remove the record it is given.
template <typename Record, typename Visit>
void listForEach(const CircularListElement& head, Visit visit) {
  for (CircularListElement* element = head.next; element != &head;) {
    CircularListElement* next = element->next;
    visit(*static_cast<Record*>(element->record));
    element = next;
  }
}

// The lists of the domain table (null before AaConfigRadSetMaxDomainCount).
CircularListElement* storeForLaterList();
CircularListElement* slaveStorageList();
// Keeps a value for the master (a flash value) for AaConfigRadGetAllFlashTags.
void keepForMaster(uint32_t tagId, uint32_t value);

// The slave's side of the domains. A change list holds TagValue records.
void registerDomainsToMaster(uint32_t domain, uint32_t mode);
void unRegisterDomainFromMaster(uint32_t domain);
void notifSubscribers(const CircularListElement& changes);
void notifUpdateSubscribers(uint32_t domain);

// Creates the subscriber list unless it exists.
void createSubscriberList();

// Back to the state before start-up: every domain, list, subscriber and the slave's state are
// released (the slave's EU stays bound). For tests and the fuzzer, which start the service again
// and again in one process.
void releaseDomains();
void releaseSubscribers();
void releaseSlave();

}  // namespace Rad
}  // namespace Olm
