// The tags of the early phase, before the memory services exist: a fixed table whose values are
// copied in and handed out as pointers into it, and whose observers wait for the replay into the
// tree at EE start-up.
#include <cstring>

#include "AaConfigTagInternal.h"

extern "C" {
SAaConfigEarlyTag earlyTagTable[AACONFIG_EARLY_TAG_COUNT];
}

namespace Olm {

namespace {

constexpr size_t kClearedValueBytesAtStartup = sizeof(uint32_t);

bool isFree(const SAaConfigEarlyTag& entry) { return entry.name[0] == '\0'; }

bool hasName(const SAaConfigEarlyTag& entry, const char* name) {
  return !isFree(entry) && std::strncmp(entry.name, name, sizeof(entry.name)) == 0;
}

SAaConfigEarlyTag* takeFreeEntry(const char* name) {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (isFree(entry)) {
      std::strncpy(entry.name, name, sizeof(entry.name) - 1);
      entry.name[sizeof(entry.name) - 1] = '\0';
      return &entry;
    }
  }
  return nullptr;
}

TAaConfigTagObserver* freeObserverSlot(SAaConfigEarlyTag& entry) {
  for (TAaConfigTagObserver& slot : entry.observers) {
    if (slot == nullptr) return &slot;
  }
  return nullptr;
}

}  // namespace

SAaConfigEarlyTag* findEarlyTag(const char* name) {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (hasName(entry, name)) return &entry;
  }
  return nullptr;
}

EAaConfigRet storeEarlyTag(const char* name, const void* value, uint32_t length, uint32_t type) {
  SAaConfigEarlyTag* entry = findEarlyTag(name);
  if (entry == nullptr) entry = takeFreeEntry(name);
  if (entry == nullptr) return EAaConfigRet_EarlyTableFull;
  std::memset(entry->value, 0, sizeof(entry->value));
  std::memcpy(entry->value, value, length);
  entry->length = length;
  entry->type = type;
  return EAaConfigRet_Ok;
}

// A name whose entries have all five slots taken gets a further entry without value; the replay
// registers its observers on the same tag.
EAaConfigRet registerEarlyObserver(const char* name, TAaConfigTagObserver callback) {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (!hasName(entry, name)) continue;
    if (TAaConfigTagObserver* slot = freeObserverSlot(entry)) {
      *slot = callback;
      return EAaConfigRet_Ok;
    }
  }
  SAaConfigEarlyTag* entry = takeFreeEntry(name);
  if (entry == nullptr) return EAaConfigRet_EarlyTableFull;
  entry->observers[0] = callback;
  return EAaConfigRet_Ok;
}

EAaConfigRet unregisterEarlyObserver(const char* name, TAaConfigTagObserver callback) {
  EAaConfigRet result = EAaConfigRet_TagNotFound;
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (!hasName(entry, name)) continue;
    for (TAaConfigTagObserver& slot : entry.observers) {
      if (slot == callback) {
        slot = nullptr;
        return EAaConfigRet_Ok;
      }
    }
    result = EAaConfigRet_ObserverNotFound;
  }
  return result;
}

EAaConfigRet deleteEarlyTag(const char* name) {
  EAaConfigRet result = EAaConfigRet_TagNotFound;
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (!hasName(entry, name)) continue;
    std::memset(&entry, 0, sizeof(entry));
    result = EAaConfigRet_Ok;
  }
  return result;
}

void clearEarlyTable() {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    entry.name[0] = '\0';
    entry.length = 0;
    std::memset(entry.value, 0, kClearedValueBytesAtStartup);
    for (TAaConfigTagObserver& observer : entry.observers) observer = nullptr;
  }
}

}  // namespace Olm
