// The R&D domain table: registration, values, defaults and the values stored for domains that
// register later.
#include <cctype>
#include <cstdio>

#include "AaConfigRadInternal.h"
#include "AaConfigRadMsg.h"

extern "C" {
SAaConfigRadDomain* radDomain = nullptr;
uint32_t radDomainCount = 0;
}

namespace {

using Olm::CircularListElement;
using namespace Olm::Rad;

constexpr uint32_t kFeature = AACONFIG_RAD_FEATURE_ID;
// Domain numbers are the high half of a tag id.
constexpr uint32_t kMaxDomainCount = AACONFIG_RAD_INDEX_MASK + 1;
constexpr uint32_t kGetAllRecordWords = 3;
constexpr uint32_t kSyncRecordWords = 6;
constexpr uint32_t kSyncFlashFlagWord = 4;
constexpr uint32_t kSyncFlashValueWord = 5;

CircularListElement* s_storeForLater = nullptr;
CircularListElement* s_slaveStorage = nullptr;

// The record of an existing table's domain, else null.
SAaConfigRadDomain* findDomain(uint32_t domain) {
  if (radDomain == nullptr || domain >= radDomainCount) return nullptr;
  return &radDomain[domain];
}

uint32_t* newWords(uint32_t count) {
  auto* words = static_cast<uint32_t*>(AaMemMalloc(count * sizeof(uint32_t)));
  std::memset(words, 0, count * sizeof(uint32_t));
  return words;
}

const char* printable(const char* name) { return name != nullptr ? name : ""; }

void logNonZeroValues(uint32_t domain, const SAaConfigRadDomain& record) {
  for (uint32_t index = 0; index < record.tagCount; ++index) {
    const uint32_t value = record.values[index];
    if (value == 0) continue;
    const uint32_t tagId = tagIdOf(domain, index);
    AaSysLogPrintE(kTrace, kFeature, "[0x%X] (%u) = 0x%X (%u)", tagId, tagId, value, value);
  }
}

// Values set before the domain existed win over its defaults, and their subscribers hear of them.
void applyStoredValues(uint32_t domain, const char* name) {
  if (s_storeForLater == nullptr || Olm::circularListIsEmpty(*s_storeForLater)) return;
  AaSysLogPrintE(kTrace, kFeature, "Update domain '%s' values from configuration file:", printable(name));
  listForEach<TagValue>(*s_storeForLater, [domain](TagValue& stored) {
    if (domainOf(stored.tagId) != domain) return;
    AaConfigRadSetValue(stored.tagId, stored.value);
    AaSysLogPrintE(kTrace, kFeature, "[0x%X] (%u) = 0x%X (%u)", stored.tagId, stored.tagId, stored.value,
                   stored.value);
    listRemove(stored.link);
  });
}

TagValue* findTagValue(const CircularListElement& list, uint32_t tagId) {
  TagValue* found = nullptr;
  listForEach<TagValue>(list, [&found, tagId](TagValue& entry) {
    if (found == nullptr && entry.tagId == tagId) found = &entry;
  });
  return found;
}

// The store-for-later list keeps the newest value first; the slave storage list in arrival order.
void storeValue(CircularListElement& list, uint32_t tagId, uint32_t value, bool newestFirst) {
  TagValue* stored = findTagValue(list, tagId);
  if (stored == nullptr) {
    stored = newRecord<TagValue>();
    stored->tagId = tagId;
    if (newestFirst) {
      listPrepend(list, stored->link);
    } else {
      Olm::circularListAppend(list, stored->link);
    }
  }
  stored->value = value;
}

// One change, passed to the slave as a batch of one: no allocation on the way.
void notifyChange(uint32_t tagId, uint32_t value) {
  CircularListElement changes;
  Olm::circularListInit(changes);
  TagValue change{};
  change.link.record = &change;
  change.tagId = tagId;
  change.value = value;
  Olm::circularListAppend(changes, change.link);
  notifSubscribers(changes);
  Olm::circularListUnlink(change.link);
}

// Only a domain given ready-made (a name and no init function) holds the caller's values and names.
bool ownsValueArrays(const SAaConfigRadDomain& record) { return record.init != nullptr || record.name == nullptr; }

void freeArrays(SAaConfigRadDomain& record) {
  release(record.values);
  release(record.defaults);
  release(static_cast<void*>(record.tagNames));
  record = SAaConfigRadDomain{};
}

EAaConfigRet registerDomain(uint32_t domain, const char* name, TAaConfigRadDomainInit init, bool synchronous) {
  if (radDomain == nullptr || init == nullptr || name == nullptr) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature,
                   synchronous ? "AaConfigRadRegisterDomainSynch: InvalidParameter: domain (%u) >= radDomainCount (%u)"
                               : "AaConfigRadRegisterDomain: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domain, radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->name != nullptr) {
    if (!synchronous) {
      AaSysLogPrintE(kError, kFeature, "AaConfigRadRegisterDomain: Domain %u '%s' has already been registered with name '%s'",
                     domain, name, record->name);
    }
    return EAaConfigRadRet_AlreadySet;
  }
  record->name = name;
  record->init = init;
  if (record->values != nullptr) std::memset(record->values, 0, record->tagCount * sizeof(uint32_t));
  if (record->defaults != nullptr) std::memset(record->defaults, 0, record->tagCount * sizeof(uint32_t));
  init();
  if (record->tagCount == 0) {
    record->name = nullptr;
    AaSysLogPrintE(kError, kFeature, "AaConfigRadRegisterDomain: Domain '%s' registration failed, invalid tag count %u",
                   name, record->tagCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  logNonZeroValues(domain, *record);
  applyStoredValues(domain, name);
  registerDomainsToMaster(domain, synchronous ? kSynchronous : kAsynchronous);
  return EAaConfigRadRet_Ok;
}

// The domain of a GetAll call; null (logged) when out of range.
const SAaConfigRadDomain* domainToList(const char* function, uint32_t* buffer, uint32_t domain) {
  const SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kWarning, kFeature, "%s(): domain %u out of range (>= %u)", function, domain, radDomainCount);
    return nullptr;
  }
  if (buffer == nullptr || record->values == nullptr) return nullptr;
  return record;
}

uint32_t listValues(uint32_t* buffer, const SAaConfigRadDomain& record, const uint32_t* values,
                    const char* format) {
  for (uint32_t index = 0; index < record.tagCount; ++index) {
    uint32_t* entry = buffer + index * kGetAllRecordWords;
    entry[0] = index;
    entry[1] = AACONFIG_RAD_VALUE_SIZE;
    entry[2] = values[index];
    AaSysLogPrintE(kTrace, kFeature, format, index, values[index]);
  }
  return record.tagCount;
}

bool isPrintableName(const char* name) {
  for (const char* c = name; *c != '\0'; ++c) {
    if (!std::isprint(static_cast<unsigned char>(*c))) return false;
  }
  return true;
}

}  // namespace

namespace Olm {
namespace Rad {

CircularListElement* storeForLaterList() { return s_storeForLater; }
CircularListElement* slaveStorageList() { return s_slaveStorage; }

void keepForMaster(uint32_t tagId, uint32_t value) {
  if (s_slaveStorage != nullptr) storeValue(*s_slaveStorage, tagId, value, false);
}

void releaseDomains() {
  for (uint32_t domain = 0; domain < radDomainCount; ++domain) {
    SAaConfigRadDomain& record = radDomain[domain];
    if (record.tagCount == 0) continue;
    if (ownsValueArrays(record)) {
      freeArrays(record);
    } else {
      release(record.defaults);
    }
  }
  if (radDomain != nullptr) release(radDomain);
  radDomain = nullptr;
  radDomainCount = 0;
  listFree(s_storeForLater);
  listFree(s_slaveStorage);
}

}  // namespace Rad
}  // namespace Olm

extern "C" {

EAaConfigRet AaConfigRadSetMaxDomainCount(uint32_t count) {
  if (radDomain != nullptr) return EAaConfigRadRet_AlreadySet;
  if (count == 0 || count > kMaxDomainCount) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetMaxDomainCount(): InvalidParameter: count = %u", count);
    return EAaConfigRadRet_InvalidParameter;
  }
  // AaMemMalloc ends the process rather than fail, so no allocation failure is seen here.
  radDomain = static_cast<SAaConfigRadDomain*>(AaMemMalloc(count * sizeof(SAaConfigRadDomain)));
  std::memset(static_cast<void*>(radDomain), 0, count * sizeof(SAaConfigRadDomain));
  radDomainCount = count;
  s_storeForLater = listCreate();
  s_slaveStorage = listCreate();
  return EAaConfigRadRet_Ok;
}

uint32_t AaConfigRadGetDomainCount(void) { return radDomainCount; }

EAaConfigRet AaConfigRadSetMaxTagCount(uint32_t domain, uint32_t count) {
  if (radDomain == nullptr || count == 0) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetMaxTagCount: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domain, radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->tagCount != 0) return EAaConfigRadRet_AlreadySet;
  // Callers may pass a tag id's worth of bits; the tag count is an index, its low half.
  const uint32_t tagCount = count & AACONFIG_RAD_INDEX_MASK;
  if (tagCount > AACONFIG_RAD_MAX_TAG_COUNT || tagCount == 0) {
    AaSysLogPrintE(kError, kFeature,
                   "AaConfigRadSetMaxTagCount() number of R&D tags to high (max. %u): domain = %u, count = %u",
                   AACONFIG_RAD_MAX_TAG_COUNT, domain, tagCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  record->values = newWords(tagCount);
  record->defaults = newWords(tagCount);
  record->tagNames = static_cast<const char**>(AaMemMalloc(tagCount * sizeof(const char*)));
  std::memset(static_cast<void*>(record->tagNames), 0, tagCount * sizeof(const char*));
  record->tagCount = tagCount;
  AaSysLogPrintE(kInfo, kFeature, "AaConfigRadSetMaxTagCount(): domain = %u, count = %u", domain, tagCount);
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadRemoveMaxTagCount(uint32_t domain) {
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) return EAaConfigRadRet_InvalidParameter;
  freeArrays(*record);
  AaSysLogPrintE(kInfo, kFeature, "AaConfigRadRemoveMaxTagCount(): domain = %u", domain);
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadRegisterDomain(uint32_t domain, const char* name, TAaConfigRadDomainInit init) {
  return registerDomain(domain, name, init, false);
}

EAaConfigRet AaConfigRadRegisterDomainSynch(uint32_t domain, const char* name, TAaConfigRadDomainInit init) {
  return registerDomain(domain, name, init, true);
}

EAaConfigRet AaConfigRadSetDomain(uint32_t domain, const char* name, uint32_t* values, uint32_t count,
                                  const char** names) {
  if (radDomain == nullptr || name == nullptr || values == nullptr || count == 0) {
    return EAaConfigRadRet_InvalidParameter;
  }
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetDomain: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domain, radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->name != nullptr && record->values != nullptr) return EAaConfigRadRet_AlreadySet;
  if (count > AACONFIG_RAD_MAX_TAG_COUNT) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetDomain: InvalidParameter: count (%u) > %u", count,
                   AACONFIG_RAD_MAX_TAG_COUNT);
    return EAaConfigRadRet_InvalidParameter;
  }
  // Arrays declared for the slot without a registration would otherwise be lost.
  if (record->tagCount != 0) freeArrays(*record);
  record->defaults = newWords(count);
  std::memcpy(record->defaults, values, count * sizeof(uint32_t));
  record->name = name;
  record->tagCount = count;
  record->values = values;
  record->init = nullptr;
  record->tagNames = names;
  AaSysLogPrintE(kTrace, kFeature, "Domain '%s' default non-zero values:", name);
  logNonZeroValues(domain, *record);
  applyStoredValues(domain, name);
  registerDomainsToMaster(domain, kAsynchronous);
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadFreeDomain(uint32_t domain) {
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) return EAaConfigRadRet_InvalidParameter;
  if (record->tagCount == 0) return EAaConfigRadRet_Ok;
  if (ownsValueArrays(*record)) {
    release(record->values);
    release(static_cast<void*>(record->tagNames));
  }
  release(record->defaults);
  *record = SAaConfigRadDomain{};
  AaSysLogPrintE(kInfo, kFeature, "AaConfigRadFreeDomain(): domain = %u", domain);
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadUnRegisterDomain(uint32_t domain) {
  const SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) return EAaConfigRadRet_InvalidParameter;
  if (record->tagCount == 0) return EAaConfigRadRet_Ok;
  unRegisterDomainFromMaster(domain);
  AaSysLogPrintE(kInfo, kFeature, "Domain '%u' unregistered", domain);
  return AaConfigRadFreeDomain(domain);
}

uint32_t AaConfigRadGetTagCount(uint32_t domain) {
  const SAaConfigRadDomain* record = findDomain(domain);
  return record != nullptr ? record->tagCount : 0;
}

EAaConfigRet AaConfigRadSetDefault(uint32_t tagId, const char* name, uint32_t value) {
  if (radDomain == nullptr) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domainOf(tagId));
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetDefault: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domainOf(tagId), radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  const uint32_t index = indexOf(tagId);
  if (index >= record->tagCount) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetDefault: InvalidParameter: tag (%u) >= tagCount (%u)", index,
                   record->tagCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->tagNames != nullptr) record->tagNames[index] = name;
  record->values[index] = value;
  record->defaults[index] = value;
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadUpdateDefaultValue(uint32_t tagId, uint32_t value) {
  if (radDomain == nullptr) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domainOf(tagId));
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature,
                   "AaConfigRadUpdateDefaultValue: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domainOf(tagId), radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->values == nullptr) return EAaConfigRadRet_NoValueArrays;
  if (indexOf(tagId) >= record->tagCount) return EAaConfigRadRet_InvalidParameter;
  record->defaults[indexOf(tagId)] = value;
  return EAaConfigRadRet_Ok;
}

EAaConfigRet AaConfigRadSetDefaultValues(uint32_t domain) {
  if (radDomain == nullptr) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetDefaultValues: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domain, radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->values == nullptr || record->defaults == nullptr) return EAaConfigRadRet_NoValueArrays;
  bool changed = false;
  for (uint32_t index = 0; index < record->tagCount; ++index) {
    if (record->values[index] == record->defaults[index]) continue;
    record->values[index] = record->defaults[index];
    notifyChange(tagIdOf(domain, index), record->values[index]);
    changed = true;
  }
  if (changed) {
    AaSysLogPrintE(kInfo, kFeature, "AaConfigRadSetDefaultValues(): set default values for domain %u", domain);
    notifUpdateSubscribers(domain);
  }
  return EAaConfigRadRet_Ok;
}

// Read on every system log line: no log, no branch more than needed.
uint32_t AaConfigRadGetValue(uint32_t tagId) {
  const uint32_t domain = domainOf(tagId);
  if (domain >= radDomainCount) return 0;
  const SAaConfigRadDomain& record = radDomain[domain];
  const uint32_t index = indexOf(tagId);
  if (index >= record.tagCount || record.values == nullptr) return 0;
  return record.values[index];
}

EAaConfigRet AaConfigRadSetValue(uint32_t tagId, uint32_t value) {
  if (radDomain == nullptr) return EAaConfigRadRet_InvalidParameter;
  SAaConfigRadDomain* record = findDomain(domainOf(tagId));
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadSetValue: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domainOf(tagId), radDomainCount);
    return EAaConfigRadRet_InvalidParameter;
  }
  if (record->values == nullptr) {
    AaSysLogPrintE(kTrace, kFeature, "storeValueForLaterDomainRegistering(): tag 0x%x, value 0x%x", tagId, value);
    AaSysLogPrintE(kTrace, kFeature, "storeRadParameterValue(): tag 0x%x, value 0x%x", tagId, value);
    if (s_storeForLater == nullptr) return EAaConfigRadRet_NoStoreList;
    storeValue(*s_storeForLater, tagId, value, true);
    return EAaConfigRadRet_Ok;
  }
  const uint32_t index = indexOf(tagId);
  if (index >= record->tagCount) return EAaConfigRadRet_InvalidParameter;
  if (record->values[index] == value) return EAaConfigRadRet_Ok;
  record->values[index] = value;
  notifyChange(tagId, value);
  return EAaConfigRadRet_Ok;
}

const char* AaConfigRadGetDomainString(uint32_t tagId) {
  const SAaConfigRadDomain* record = findDomain(domainOf(tagId));
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadGetDomainString: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domainOf(tagId), radDomainCount);
    return nullptr;
  }
  return record->name;
}

const char* AaConfigRadGetTagString(uint32_t tagId) {
  if (radDomain == nullptr) return nullptr;
  const uint32_t domain = domainOf(tagId);
  const SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadGetTagString: InvalidParameter: domain (%u) >= radDomainCount (%u)",
                   domain, radDomainCount);
    return nullptr;
  }
  if (record->values == nullptr) return nullptr;
  const uint32_t index = indexOf(tagId);
  if (index >= record->tagCount) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadGetTagString: InvalidParameter: tag (%u) >= tagCount (%u), domain %u",
                   index, record->tagCount, domain);
    return nullptr;
  }
  const char* name = record->tagNames != nullptr ? record->tagNames[index] : nullptr;
  if (name == nullptr || name[0] == '\0') return nullptr;
  if (!isPrintableName(name)) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadGetTagString: Invalid parameter string: tag (%u), domain %u", index,
                   domain);
    return nullptr;
  }
  return name;
}

int32_t AaConfigRadGetDomainSynchedTagString(char* buffer, uint32_t size, uint32_t domain) {
  if (buffer == nullptr && size != 0) return -1;
  return std::snprintf(buffer, size, "%s%u%s", AACONFIG_RAD_DOMAIN_TAG_PREFIX, domain,
                       AACONFIG_RAD_DOMAIN_SYNCHED_SUFFIX);
}

uint32_t AaConfigRadGetAllTags(uint32_t* buffer, uint32_t domain) {
  const SAaConfigRadDomain* record = domainToList("AaConfigRadGetAllTags", buffer, domain);
  if (record == nullptr) return 0;
  return listValues(buffer, *record, record->values, "AaConfigRadGetAllTags(): index = 0x%x, value = 0x%x");
}

uint32_t AaConfigRadGetAllDefTags(uint32_t* buffer, uint32_t domain) {
  const SAaConfigRadDomain* record = domainToList("AaConfigRadGetAllDefTags", buffer, domain);
  if (record == nullptr || record->defaults == nullptr) return 0;
  return listValues(buffer, *record, record->defaults, "AaConfigRadGetAllDefTags(): index = 0x%x, value = %u");
}

uint32_t AaConfigRadGetAllSyncTags(uint32_t* buffer, uint32_t domain) {
  const SAaConfigRadDomain* record = domainToList("AaConfigRadGetAllSyncTags", buffer, domain);
  if (record == nullptr || record->defaults == nullptr) return 0;
  for (uint32_t index = 0; index < record->tagCount; ++index) {
    uint32_t* entry = buffer + index * kSyncRecordWords;
    entry[0] = index;
    entry[1] = AACONFIG_RAD_VALUE_SIZE;
    entry[2] = record->defaults[index];
    entry[3] = record->values[index];
    entry[kSyncFlashFlagWord] = 0;
    AaSysLogPrintE(kTrace, kFeature, "AaConfigRadGetAllSyncTags(): domain = %u, index = 0x%x, defValue = 0x%x, currValue = 0x%x",
                   domain, index, entry[2], entry[3]);
  }
  return record->tagCount;
}

uint32_t AaConfigRadGetAllFlashTags(uint32_t* buffer, uint32_t domain) {
  const SAaConfigRadDomain* record = findDomain(domain);
  if (record == nullptr || buffer == nullptr) return 0;
  const char* name = printable(record->name);
  if (s_slaveStorage == nullptr) {
    AaSysLogPrintE(kError, kFeature, "AaConfigRadGetAllFlashTags('%s') slaveRadStoragePtr is empty !!!", name);
    return 0;
  }
  AaSysLogPrintE(kTrace, kFeature, "AaConfigRadGetAllFlashTags('%s')", name);
  uint32_t completed = 0;
  listForEach<TagValue>(*s_slaveStorage, [&](TagValue& kept) {
    if (domainOf(kept.tagId) != domain) return;
    const uint32_t index = indexOf(kept.tagId);
    if (index >= record->tagCount) {
      AaSysLogPrintE(kError, kFeature,
                     "AaConfigRadGetAllFlashTags(): invalid parameter index 0x%04x for domain %u ignored, tagCount = 0x%04x !!!",
                     index, domain, record->tagCount);
      return;
    }
    uint32_t* entry = buffer + index * kSyncRecordWords;
    entry[kSyncFlashFlagWord] = 1;
    entry[kSyncFlashValueWord] = kept.value;
    AaSysLogPrintE(kTrace, kFeature, "AaConfigRadGetAllFlashTags(): tag = 0x%x, value = 0x%x", kept.tagId, kept.value);
    ++completed;
  });
  return completed;
}

}  // extern "C"
