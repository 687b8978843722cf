// The tag functions: each works on the early table in early mode and on the tree afterwards.
#include <cstring>

#include "AaConfigTagInternal.h"
#include "AaSysLog.h"
#include "IfAaGpuSimpleTreeRadix.h"

namespace {

using Olm::CircularListElement;
using Olm::kAaConfigTagFeatureId;

bool s_earlyMode = true;  // tags set before any start-up land in the table too

// A tag whose value could not be stored for want of memory keeps its length without data.
bool hasValue(const Olm::TagElement& element) { return element.length != 0 && element.data != nullptr; }

void logTag(EAaSysLogSeverityLevel level, const char* format, const char* name) {
  AaSysLogPrintE(level, kAaConfigTagFeatureId, format, name);
}

// Handed-out values are copies after start-up and pointers into the table before.
void releaseGotValue(void* value) {
  if (!Olm::isEarlyMode() && value != nullptr) Olm::tagFree(value);
}

// strncmp of the new value against the stored one, bytes beyond the stored length reading as NUL.
bool equalUpToNul(const uint8_t* stored, uint32_t storedLength, const uint8_t* value, uint32_t length) {
  for (uint32_t i = 0; i < length; ++i) {
    const uint8_t storedByte = i < storedLength ? stored[i] : 0;
    if (storedByte != value[i]) return false;
    if (storedByte == 0) return true;
  }
  return true;
}

// Only silences the log line of a write: binary values equal up to a NUL count as unchanged.
bool isUnchanged(const char* name, const void* value, uint32_t length) {
  void* stored = nullptr;
  uint32_t storedLength = 0;
  if (AaConfigTagGet(name, &stored, &storedLength) != EAaConfigRet_Ok || stored == nullptr) return false;
  const bool equal =
      equalUpToNul(static_cast<const uint8_t*>(stored), storedLength, static_cast<const uint8_t*>(value), length);
  Olm::tagFree(stored);
  return equal;
}

EAaConfigRet setTag(const char* name, const void* value, uint32_t length, uint32_t type) {
  if (!Olm::isValidTagName(name) || value == nullptr || length == 0 || length > AACONFIG_TAG_VALUE_MAX_LENGTH) {
    return EAaConfigRet_InvalidParameter;
  }
  if (s_earlyMode || !isUnchanged(name, value, length)) {
    if (!Olm::isValidTagType(type)) {
      AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kAaConfigTagFeatureId, "setConfigTag() name = %s: invalid type %d",
                     name, static_cast<int>(type));
      return EAaConfigRet_InvalidParameter;
    }
    Olm::logTagWrite(name, static_cast<const uint8_t*>(value), length, type);
  }
  if (s_earlyMode) return Olm::storeEarlyTag(name, value, length, type);
  return AaConfigTagSetUnsafe(name, value, length, type);
}

// An unspecified type on either side matches anything.
bool typesMatch(uint32_t requested, uint32_t stored) {
  return requested == EAaConfigTagType_NotSpecified || stored == EAaConfigTagType_NotSpecified || requested == stored;
}

EAaConfigRet checkType(const char* name, uint32_t requested, uint32_t stored) {
  if (typesMatch(requested, stored)) return EAaConfigRet_Ok;
  AaSysLogPrintE(EAaSysLogSeverityLevel_Error, kAaConfigTagFeatureId,
                 "getConfigTag() type mismatch: name = '%s', requested type = %d, stored type = %d", name,
                 static_cast<int>(requested), static_cast<int>(stored));
  return EAaConfigRet_TypeMismatch;
}

EAaConfigRet getEarly(const char* name, void** value, uint32_t* length, uint32_t requestedType) {
  SAaConfigEarlyTag* entry = Olm::findEarlyTag(name);
  if (entry == nullptr) {
    logTag(EAaSysLogSeverityLevel_Warning, "getConfigTag(): tag '%s' not found in earlyTagTable", name);
    return EAaConfigRet_TagNotFound;
  }
  const EAaConfigRet result = checkType(name, requestedType, entry->type);
  if (result != EAaConfigRet_Ok) return result;
  *value = entry->value;
  *length = entry->length;
  return EAaConfigRet_Ok;
}

EAaConfigRet getFromTree(const char* name, void** value, uint32_t* length, uint32_t requestedType) {
  const Olm::TagElement* element = Olm::findTag(name);
  if (element == nullptr) return EAaConfigRet_TagNotFound;
  void* copy = nullptr;
  if (hasValue(*element)) {
    copy = Olm::copyValue(element->data, element->length);
    if (copy == nullptr) return EAaConfigRet_OutOfMemory;
  }
  const EAaConfigRet result = checkType(name, requestedType, element->type);
  if (result != EAaConfigRet_Ok) {
    if (copy != nullptr) Olm::tagFree(copy);
    return result;
  }
  *value = copy;
  *length = element->length;
  return EAaConfigRet_Ok;
}

EAaConfigRet getTag(const char* name, void** value, uint32_t* length, uint32_t requestedType) {
  if (!Olm::isValidTagName(name) || value == nullptr || length == nullptr) return EAaConfigRet_InvalidParameter;
  return s_earlyMode ? getEarly(name, value, length, requestedType) : getFromTree(name, value, length, requestedType);
}

// A u16 or u32 tag of exactly size bytes into word. *gotValue says whether the tag held any.
EAaConfigRet getInteger(const char* name, uint32_t type, void* word, uint32_t size, bool* gotValue) {
  void* stored = nullptr;
  uint32_t length = 0;
  const EAaConfigRet result = getTag(name, &stored, &length, type);
  *gotValue = stored != nullptr;
  if (result != EAaConfigRet_Ok || stored == nullptr) return result;
  const bool fits = length == size;
  if (fits) std::memcpy(word, stored, size);
  releaseGotValue(stored);
  return fits ? EAaConfigRet_Ok : EAaConfigRet_WrongLength;
}

void callObservers(const Olm::TagElement& element, const char* name, const void* value, uint32_t length) {
  const CircularListElement* head = &element.observers;
  for (CircularListElement* link = head->next; link != head;) {
    const auto* observer = static_cast<const Olm::TagObserver*>(link->record);
    link = link->next;  // an observer may unregister itself
    const uint32_t word = Olm::firstValueWord(value, length);
    AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, kAaConfigTagFeatureId,
                   "UpdateOldTag(): call callback funftion name='%s', value=0x%02x%02x%02x%02x, length=%d, "
                   "callback addr = 0x%x",
                   name, (word >> 24) & 0xFFu, (word >> 16) & 0xFFu, (word >> 8) & 0xFFu, word & 0xFFu,
                   static_cast<int>(length), static_cast<unsigned>(reinterpret_cast<uintptr_t>(observer->callback)));
    observer->callback(name, value, length);
  }
}

// The new block is taken before the old one goes, so a value that points into the old data (an
// observer writing back what it was given) is copied intact.
EAaConfigRet replaceValue(Olm::TagElement& element, const void* value, uint32_t length, uint32_t type) {
  void* data = length != 0 ? Olm::copyValue(value, length) : nullptr;
  Olm::AaConfig_TagDataBaseFreeData(&element);
  element.length = length;
  element.type = type;
  element.data = static_cast<uint8_t*>(data);
  return length == 0 || data != nullptr ? EAaConfigRet_Ok : EAaConfigRet_OutOfMemory;
}

EAaConfigRet registerInTree(const char* name, TAaConfigTagObserver callback) {
  Olm::TagElement* element = Olm::findTag(name);
  if (element != nullptr && hasValue(*element)) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Debug, kAaConfigTagFeatureId,
                   "AaConfigTagRegisterUnsafe(): call callback function name='%s', value=0x%x, length=%d", name,
                   Olm::firstValueWord(element->data, element->length), static_cast<int>(element->length));
    callback(name, element->data, element->length);
    element = Olm::findTag(name);  // the callback may have deleted the tag
  }
  if (element == nullptr) {
    logTag(EAaSysLogSeverityLevel_Debug, "AaConfigTagRegisterUnsafe(): create new tag '%s'", name);
    element = Olm::createTag(name, nullptr, 0, EAaConfigTagType_NotSpecified);
    if (element == nullptr) {
      logTag(EAaSysLogSeverityLevel_Error, "AaConfigTagRegisterUnsafe(): can't create new tag '%s' !!!", name);
      return EAaConfigRet_OutOfMemory;
    }
  }
  auto* observer = static_cast<Olm::TagObserver*>(Olm::tagAllocate(sizeof(Olm::TagObserver)));
  if (observer == nullptr) {
    logTag(EAaSysLogSeverityLevel_Error, "AaConfigTagRegisterUnsafe(): can't create new observer '%s' !!!", name);
    return EAaConfigRet_OutOfMemory;
  }
  observer->callback = callback;
  observer->link.record = observer;
  Olm::circularListAppend(element->observers, observer->link);
  logTag(EAaSysLogSeverityLevel_Debug, "AaConfigTagRegisterUnsafe(): '%s' add new observer addr to list", name);
  return EAaConfigRet_Ok;
}

EAaConfigRet unregisterInTree(const char* name, TAaConfigTagObserver callback) {
  Olm::TagElement* element = Olm::findTag(name);
  if (element == nullptr) return EAaConfigRet_TagNotFound;
  for (CircularListElement* link = element->observers.next; link != &element->observers; link = link->next) {
    auto* observer = static_cast<Olm::TagObserver*>(link->record);
    if (observer->callback == callback) {
      Olm::circularListUnlink(*link);
      Olm::tagFree(observer);
      return EAaConfigRet_Ok;
    }
  }
  return EAaConfigRet_ObserverNotFound;
}

EAaConfigRet copyOut(const void* value, uint32_t length, void** out, uint32_t* outLength) {
  void* copy = Olm::copyValue(value, length);
  if (copy == nullptr) return EAaConfigRet_OutOfMemory;
  *out = copy;
  *outLength = length;
  return EAaConfigRet_Ok;
}

bool isValidDefaultLength(uint32_t length) { return length <= AACONFIG_TAG_VALUE_MAX_LENGTH; }

// Early mode keeps the default in the table like any early write; an empty default is refused
// there, as the table has no tag without value to hand out.
EAaConfigRet getDefaultEarly(const char* name, void** value, uint32_t* length, const void* defaultValue,
                             uint32_t defaultLength) {
  SAaConfigEarlyTag* entry = Olm::findEarlyTag(name);
  if (entry == nullptr || entry->length == 0) {
    if (defaultLength == 0 || !isValidDefaultLength(defaultLength)) return EAaConfigRet_InvalidParameter;
    const EAaConfigRet result = setTag(name, defaultValue, defaultLength, EAaConfigTagType_NotSpecified);
    if (result != EAaConfigRet_Ok) return result;
    entry = Olm::findEarlyTag(name);
  }
  *value = entry->value;
  *length = entry->length;
  return EAaConfigRet_Ok;
}

EAaConfigRet getDefaultFromTree(const char* name, void** value, uint32_t* length, const void* defaultValue,
                                uint32_t defaultLength) {
  const Olm::TagElement* element = Olm::findTag(name);
  if (element != nullptr && hasValue(*element)) return copyOut(element->data, element->length, value, length);
  if (element != nullptr) {
    if (defaultLength == 0 || !isValidDefaultLength(defaultLength)) return EAaConfigRet_InvalidParameter;
    if (AaConfigTagSet(name, defaultValue, defaultLength) != EAaConfigRet_Ok) return EAaConfigRet_OutOfMemory;
    return copyOut(defaultValue, defaultLength, value, length);
  }
  if (!isValidDefaultLength(defaultLength)) return EAaConfigRet_InvalidParameter;
  if (Olm::createTag(name, defaultValue, defaultLength, EAaConfigTagType_NotSpecified) == nullptr) {
    return EAaConfigRet_OutOfMemory;
  }
  if (defaultLength == 0) {
    *value = nullptr;
    *length = 0;
    return EAaConfigRet_Ok;
  }
  return copyOut(defaultValue, defaultLength, value, length);
}

void replayEarlyTable() {
  for (const SAaConfigEarlyTag& entry : earlyTagTable) {
    if (entry.name[0] == '\0') continue;
    if (entry.length != 0) setTag(entry.name, entry.value, entry.length, entry.type);
    for (TAaConfigTagObserver observer : entry.observers) {
      if (observer != nullptr) AaConfigTagRegister(entry.name, observer);
    }
  }
}

}  // namespace

namespace Olm {
bool isEarlyMode() { return s_earlyMode; }
}  // namespace Olm

extern "C" {

uint32_t AaConfig_TagDatabaseEarlyStartup(void) {
  Olm::clearEarlyTable();
  return 0;
}

uint32_t AaConfigTagEarlyStartup(void) {
  s_earlyMode = true;
  return 0;
}

// Replaying registers after each value is set, and registering calls an observer at once with
// the value it finds: every early observer sees its tag's final early value exactly once.
uint32_t AaConfigTagEeStartup(void) {
  Olm::initTagTree();
  s_earlyMode = false;
  replayEarlyTable();
  AaSysLogPrintE(EAaSysLogSeverityLevel_Info, kAaConfigTagFeatureId, "BuildRadixTree finished");
  return 0;
}

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

EAaConfigRet AaConfigTagPublicSetString(const char* name, const char* value, uint32_t length) {
  return setTag(name, value, length, EAaConfigTagType_String);
}

EAaConfigRet AaConfigTagSetString(const char* name, const char* string) {
  if (string == nullptr) return EAaConfigRet_InvalidParameter;
  return AaConfigTagPublicSetString(name, string, static_cast<uint32_t>(std::strlen(string) + 1));
}

EAaConfigRet AaConfigTagSetPointer(const char* name, const void* pointer) {
  return setTag(name, &pointer, sizeof(pointer), EAaConfigTagType_NotSpecified);
}

EAaConfigRet AaConfigTagSetUnsafe(const char* name, const void* value, uint32_t length, uint32_t type) {
  if (!Olm::isValidTagName(name) || (value == nullptr && length != 0)) return EAaConfigRet_InvalidParameter;
  if (s_earlyMode) return Olm::storeEarlyTag(name, value, length, type);
  Olm::TagElement* element = Olm::findTag(name);
  if (element == nullptr) {
    return Olm::createTag(name, value, length, type) != nullptr ? EAaConfigRet_Ok : EAaConfigRet_OutOfMemory;
  }
  const EAaConfigRet result = replaceValue(*element, value, length, type);
  if (result == EAaConfigRet_Ok) callObservers(*element, name, value, length);
  return result;
}

EAaConfigRet AaConfigTagGet(const char* name, void** value, uint32_t* length) {
  return getTag(name, value, length, EAaConfigTagType_NotSpecified);
}

EAaConfigRet AaConfigTagGetString(const char* name, char** value, uint32_t* length) {
  return getTag(name, reinterpret_cast<void**>(value), length, EAaConfigTagType_String);
}

// Every failure to read becomes 6 here, while AaConfigTagGetU32 passes the reason on: a deliberate
// difference that callers depend on.
EAaConfigRet AaConfigTagGetU16(const char* name, uint16_t* value) {
  if (value == nullptr) return EAaConfigRet_TagReadFailed;
  bool gotValue = false;
  const EAaConfigRet result = getInteger(name, EAaConfigTagType_U16, value, sizeof(*value), &gotValue);
  if (result == EAaConfigRet_WrongLength || (result == EAaConfigRet_Ok && gotValue)) return result;
  return EAaConfigRet_TagReadFailed;
}

EAaConfigRet AaConfigTagGetU32(const char* name, uint32_t* value) {
  if (value == nullptr) return EAaConfigRet_InvalidParameter;
  bool gotValue = false;
  return getInteger(name, EAaConfigTagType_U32, value, sizeof(*value), &gotValue);
}

EAaConfigRet AaConfigTagGetDefault(const char* name, void** value, uint32_t* length, const void* defaultValue,
                                   uint32_t defaultLength) {
  if (!Olm::isValidTagName(name) || value == nullptr || length == nullptr || defaultValue == nullptr) {
    return EAaConfigRet_InvalidParameter;
  }
  return s_earlyMode ? getDefaultEarly(name, value, length, defaultValue, defaultLength)
                     : getDefaultFromTree(name, value, length, defaultValue, defaultLength);
}

uint32_t AaConfigTagIsSet(const char* name) {
  if (!Olm::isValidTagName(name)) return 0;
  if (s_earlyMode) {
    for (const SAaConfigEarlyTag& entry : earlyTagTable) {
      if (entry.length != 0 && std::strncmp(entry.name, name, sizeof(entry.name)) == 0) return 1;
    }
    return 0;
  }
  const Olm::TagElement* element = Olm::findTag(name);
  return element != nullptr && element->length != 0 ? 1 : 0;
}

EAaConfigRet AaConfigTagRegister(const char* name, TAaConfigTagObserver callback) {
  if (!Olm::isValidTagName(name) || callback == nullptr) return EAaConfigRet_InvalidParameter;
  if (!s_earlyMode) return AaConfigTagRegisterUnsafe(name, callback);
  logTag(EAaSysLogSeverityLevel_Info, "AaConfigTagRegister(): '%s'", name);
  return Olm::registerEarlyObserver(name, callback);
}

EAaConfigRet AaConfigTagRegisterUnsafe(const char* name, TAaConfigTagObserver callback) {
  if (!Olm::isValidTagName(name) || callback == nullptr) return EAaConfigRet_InvalidParameter;
  logTag(EAaSysLogSeverityLevel_Info, "AaConfigTagRegisterUnsafe(): '%s'", name);
  return s_earlyMode ? Olm::registerEarlyObserver(name, callback) : registerInTree(name, callback);
}

EAaConfigRet AaConfigTagUnregister(const char* name, TAaConfigTagObserver callback) {
  if (!Olm::isValidTagName(name) || callback == nullptr) return EAaConfigRet_InvalidParameter;
  return s_earlyMode ? Olm::unregisterEarlyObserver(name, callback) : unregisterInTree(name, callback);
}

EAaConfigRet AaConfigTagPublicDelete(const char* name) {
  if (!Olm::isValidTagName(name)) return EAaConfigRet_InvalidParameter;
  if (s_earlyMode) return Olm::deleteEarlyTag(name);
  Olm::TagMapEntry* entry = Olm::findTagEntry(name);
  if (entry == nullptr) return EAaConfigRet_TagNotFound;
  Olm::deleteTag(entry);
  return EAaConfigRet_Ok;
}

EAaConfigRet AaConfigTagDelete(const char* name) { return AaConfigTagPublicDelete(name); }

}  // extern "C"
