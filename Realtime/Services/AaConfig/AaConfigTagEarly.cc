// The tag functions of the early phase: tags live in the fixed earlyTagTable, values are copied in
// and handed out as pointers into the table, and observers are kept but never called.
#include <cstring>

#include "AaConfig.h"
#include "AaConfigTagInternal.h"
#include "AaSysLog.h"

extern "C" {
SAaConfigEarlyTag earlyTagTable[AACONFIG_EARLY_TAG_COUNT];
}

namespace {

constexpr size_t kClearedValueBytesAtStartup = sizeof(uint32_t);

bool isValidType(uint32_t type) { return type >= EAaConfigTagType_U16 && type <= EAaConfigTagType_NotSpecified; }

bool isFree(const SAaConfigEarlyTag& entry) { return entry.name[0] == '\0'; }

bool hasName(const SAaConfigEarlyTag& entry, const char* name) {
  return !isFree(entry) && std::strncmp(entry.name, name, sizeof(entry.name)) == 0;
}

SAaConfigEarlyTag* findEntry(const char* name) {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    if (hasName(entry, name)) return &entry;
  }
  return nullptr;
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

EAaConfigRet storeEarly(const char* name, const void* value, uint32_t length, uint32_t type) {
  SAaConfigEarlyTag* entry = findEntry(name);
  if (entry == nullptr) entry = takeFreeEntry(name);
  if (entry == nullptr) return EAaConfigRet_EarlyTableFull;
  std::memset(entry->value, 0, sizeof(entry->value));
  std::memcpy(entry->value, value, length);
  entry->length = length;
  entry->type = type;
  return EAaConfigRet_Ok;
}

EAaConfigRet setTag(const char* name, const void* value, uint32_t length, uint32_t type) {
  if (name == nullptr || value == nullptr || length == 0) return EAaConfigRet_InvalidParameter;
  if (Olm::isTagNameTooLong(name) || length > AACONFIG_TAG_VALUE_MAX_LENGTH) return EAaConfigRet_InvalidParameter;
  if (!isValidType(type)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, Olm::kAaConfigTagFeatureId,
                   "setConfigTag() name = %s: invalid type %d", name, static_cast<int>(type));
    return EAaConfigRet_InvalidParameter;
  }
  Olm::logTagWrite(name, static_cast<const uint8_t*>(value), length, type);
  return storeEarly(name, value, length, type);
}

// An unspecified type on either side matches anything.
bool typesMatch(uint32_t requested, uint32_t stored) {
  return requested == EAaConfigTagType_NotSpecified || stored == EAaConfigTagType_NotSpecified ||
         requested == stored;
}

EAaConfigRet getTag(const char* name, void** value, uint32_t* length, uint32_t requestedType) {
  if (name == nullptr || value == nullptr || length == nullptr || Olm::isTagNameTooLong(name)) {
    return EAaConfigRet_InvalidParameter;
  }
  SAaConfigEarlyTag* entry = findEntry(name);
  if (entry == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, Olm::kAaConfigTagFeatureId,
                   "getConfigTag(): tag '%s' not found in earlyTagTable", name);
    return EAaConfigRet_TagNotFound;
  }
  if (!typesMatch(requestedType, entry->type)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Error, Olm::kAaConfigTagFeatureId,
                   "getConfigTag() type mismatch: name = '%s', requested type = %d, stored type = %d", name,
                   static_cast<int>(requestedType), static_cast<int>(entry->type));
    return EAaConfigRet_TypeMismatch;
  }
  *value = entry->value;
  *length = entry->length;
  return EAaConfigRet_Ok;
}

}  // namespace

extern "C" {

uint32_t AaConfig_TagDatabaseEarlyStartup(void) {
  for (SAaConfigEarlyTag& entry : earlyTagTable) {
    entry.name[0] = '\0';
    entry.length = 0;
    std::memset(entry.value, 0, kClearedValueBytesAtStartup);
    for (TAaConfigTagObserver& observer : entry.observers) observer = nullptr;
  }
  return 0;
}

// The early table is the only store so far (see AaConfigTagEeStartup): nothing to switch.
uint32_t AaConfigTagEarlyStartup(void) { return 0; }

// The later phase keeps tags in a radix tree built from this table. That tree does not exist in
// this runtime yet, so early mode stays on: the table remains the store for the process's life.
uint32_t AaConfigTagEeStartup(void) { return 0; }

EAaConfigRet AaConfigTagPublicSet(const char* name, const void* value, uint32_t length) {
  return setTag(name, value, length, EAaConfigTagType_NotSpecified);
}

EAaConfigRet AaConfigTagSet(const char* name, const void* value, uint32_t length) {
  return AaConfigTagPublicSet(name, value, length);
}

EAaConfigRet AaConfigTagPublicSetU16(const char* name, uint16_t value) {
  return setTag(name, &value, sizeof(value), EAaConfigTagType_U16);
}

EAaConfigRet AaConfigTagSetU16(const char* name, uint16_t value) { return AaConfigTagPublicSetU16(name, value); }

EAaConfigRet AaConfigTagPublicSetU32(const char* name, uint32_t value) {
  return setTag(name, &value, sizeof(value), EAaConfigTagType_U32);
}

EAaConfigRet AaConfigTagSetU32(const char* name, uint32_t value) { return AaConfigTagPublicSetU32(name, value); }

EAaConfigRet AaConfigTagGet(const char* name, void** value, uint32_t* length) {
  return getTag(name, value, length, EAaConfigTagType_NotSpecified);
}

// Every failure to read becomes 6 here, while AaConfigTagGetU32 passes the reason on: a deliberate
// difference that callers depend on.
EAaConfigRet AaConfigTagGetU16(const char* name, uint16_t* value) {
  void* stored = nullptr;
  uint32_t length = 0;
  if (value == nullptr) return EAaConfigRet_TagReadFailed;
  if (getTag(name, &stored, &length, EAaConfigTagType_U16) != EAaConfigRet_Ok || stored == nullptr) {
    return EAaConfigRet_TagReadFailed;
  }
  if (length != sizeof(*value)) return EAaConfigRet_WrongLength;
  std::memcpy(value, stored, sizeof(*value));
  return EAaConfigRet_Ok;
}

EAaConfigRet AaConfigTagGetU32(const char* name, uint32_t* value) {
  void* stored = nullptr;
  uint32_t length = 0;
  if (value == nullptr) return EAaConfigRet_InvalidParameter;
  const EAaConfigRet result = getTag(name, &stored, &length, EAaConfigTagType_U32);
  if (result != EAaConfigRet_Ok || stored == nullptr) return result;
  if (length != sizeof(*value)) return EAaConfigRet_WrongLength;
  std::memcpy(value, stored, sizeof(*value));
  return EAaConfigRet_Ok;
}

uint32_t AaConfigTagIsSet(const char* name) {
  if (name == nullptr || Olm::isTagNameTooLong(name)) return 0;
  for (const SAaConfigEarlyTag& entry : earlyTagTable) {
    if (hasName(entry, name) && entry.length != 0) return 1;
  }
  return 0;
}

EAaConfigRet AaConfigTagPublicDelete(const char* name) {
  if (name == nullptr || Olm::isTagNameTooLong(name)) return EAaConfigRet_InvalidParameter;
  SAaConfigEarlyTag* entry = findEntry(name);
  if (entry == nullptr) return EAaConfigRet_TagNotFound;
  *entry = SAaConfigEarlyTag{};
  return EAaConfigRet_Ok;
}

EAaConfigRet AaConfigTagDelete(const char* name) { return AaConfigTagPublicDelete(name); }

}  // extern "C"
