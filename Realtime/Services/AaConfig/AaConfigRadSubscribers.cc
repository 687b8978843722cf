// Subscribers of R&D tags and domains: one record per SIC address, holding its tag subscriptions
// and its domain subscriptions.
#include "AaConfigRadInternal.h"

extern "C" {
SAaConfigRadSubscriberList* subscriberList = nullptr;
}

namespace {

using Olm::CircularListElement;
using namespace Olm::Rad;

constexpr uint32_t kFeature = AACONFIG_RAD_FEATURE_ID;

Subscriber* findSubscriber(uint32_t sicad) {
  Subscriber* found = nullptr;
  listForEach<Subscriber>(subscriberList->head, [&found, sicad](Subscriber& subscriber) {
    if (found == nullptr && subscriber.sicad == sicad) found = &subscriber;
  });
  return found;
}

bool holds(const CircularListElement& list, uint32_t id) {
  bool found = false;
  listForEach<Subscription>(list, [&found, id](Subscription& item) { found = found || item.id == id; });
  return found;
}

// Removes every item of id; true when there was one.
bool removeItems(const CircularListElement& list, uint32_t id) {
  bool removed = false;
  listForEach<Subscription>(list, [&removed, id](Subscription& item) {
    if (item.id != id) return;
    listRemove(item.link);
    removed = true;
  });
  return removed;
}

Subscription* newItem(uint32_t id) {
  auto* item = newRecord<Subscription>();
  item->id = id;
  return item;
}

// A new subscriber, last in the list, with item as its first subscription.
void addSubscriber(uint32_t sicad, Subscription& item, bool domainItem) {
  auto* subscriber = newRecord<Subscriber>();
  subscriber->sicad = sicad;
  subscriber->tags = listCreate();
  subscriber->domains = listCreate();
  Olm::circularListAppend(domainItem ? *subscriber->domains : *subscriber->tags, item.link);
  Olm::circularListAppend(subscriberList->head, subscriber->link);
}

void forget(Subscriber& subscriber) {
  listFree(subscriber.tags);
  listFree(subscriber.domains);
  listRemove(subscriber.link);
}

}  // namespace

namespace Olm {
namespace Rad {

void createSubscriberList() {
  if (subscriberList != nullptr) return;
  subscriberList = static_cast<SAaConfigRadSubscriberList*>(AaMemMalloc(sizeof(SAaConfigRadSubscriberList)));
  if (subscriberList != nullptr) circularListInit(subscriberList->head);
}

void releaseSubscribers() {
  if (subscriberList == nullptr) return;
  listForEach<Subscriber>(subscriberList->head, [](Subscriber& subscriber) { forget(subscriber); });
  release(subscriberList);
  subscriberList = nullptr;
}

}  // namespace Rad
}  // namespace Olm

extern "C" {

// AaMemMalloc ends the process rather than fail: the "No Memory" outcomes cannot be seen here.
EAaConfigRet AaConfigRadSubscribeNotifs(uint32_t tagId, uint32_t subscriberSicad) {
  if (subscriberList == nullptr) {
    AaSysLogPrintE(kError, kFeature, "SubscribeNotifs - subscription failed (no subscriber list) for tag 0x%08x, sic 0x%08x",
                   tagId, subscriberSicad);
    return EAaConfigRadRet_OutOfMemory;
  }
  Subscriber* subscriber = findSubscriber(subscriberSicad);
  if (subscriber == nullptr) {
    addSubscriber(subscriberSicad, *newItem(tagId), false);
    return EAaConfigRadRet_Ok;
  }
  if (holds(*subscriber->tags, tagId)) return EAaConfigRadRet_Ok;
  Subscription* item = newItem(tagId);
  // Deliberately decided by the domain list: a subscriber with domain subscriptions gets its newest
  // tag subscription first, and so its notifications in that order.
  if (circularListIsEmpty(*subscriber->domains)) {
    circularListAppend(*subscriber->tags, item->link);
  } else {
    listPrepend(*subscriber->tags, item->link);
  }
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadUnSubscribeNotifs(uint32_t tagId, uint32_t subscriberSicad) {
  AaSysLogPrintE(kTrace, kFeature, "UnSubscribeNotifs - unsubscribe tag 0x%x, address 0x%x", tagId, subscriberSicad);
  if (subscriberList == nullptr) return EAaConfigRadRet_Ok;
  listForEach<Subscriber>(subscriberList->head, [tagId, subscriberSicad](Subscriber& subscriber) {
    if (subscriber.sicad != subscriberSicad) return;
    removeItems(*subscriber.tags, tagId);
    if (circularListIsEmpty(*subscriber.tags) && circularListIsEmpty(*subscriber.domains)) forget(subscriber);
  });
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadSubscribeDomainUpdate(uint32_t domain, uint32_t subscriberSicad) {
  AaSysLogPrintE(kInfo, kFeature, "SubscribeNotifs - subscribe domain %u, address 0x%x", domain, subscriberSicad);
  if (subscriberList == nullptr) {
    AaSysLogPrintE(kError, kFeature,
                   "AaConfigRadSubscribeDomainUpdate() SubscribeNotifs - subscription failed (no subscriber list) for domain %u, sic 0x%08x",
                   domain, subscriberSicad);
    return EAaConfigRadRet_OutOfMemory;
  }
  Subscriber* subscriber = findSubscriber(subscriberSicad);
  if (subscriber == nullptr) {
    addSubscriber(subscriberSicad, *newItem(domain), true);
    return EAaConfigRadRet_Ok;
  }
  if (holds(*subscriber->domains, domain)) return EAaConfigRadRet_Ok;
  listPrepend(*subscriber->domains, newItem(domain)->link);
  return EAaConfigRadRet_Ok;
}

// Unlike a tag unsubscription, losing its last domain makes the subscriber go with its tag
// subscriptions: a task that gives up its domains is taken to be done with the domains' tags too.
EAaConfigRet AaConfigRadUnSubscribeDomainUpdate(uint32_t domain, uint32_t subscriberSicad) {
  AaSysLogPrintE(kInfo, kFeature, "UnSubscribeNotifs - unsubscribe domain %u, address 0x%x", domain, subscriberSicad);
  if (subscriberList == nullptr) return EAaConfigRadRet_Ok;
  listForEach<Subscriber>(subscriberList->head, [domain, subscriberSicad](Subscriber& subscriber) {
    if (subscriber.sicad != subscriberSicad) return;
    if (removeItems(*subscriber.domains, domain) && circularListIsEmpty(*subscriber.domains)) forget(subscriber);
  });
  return EAaConfigRadRet_Ok;
}

}  // extern "C"
