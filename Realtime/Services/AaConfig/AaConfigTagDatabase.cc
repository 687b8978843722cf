// The tags after EE start-up: a radix tree keyed by tag name whose elements point to the tags,
// everything in blocks of the memory service.
#include <cstring>

#include "AaConfigTagInternal.h"
#include "AaMem.h"
#include "AaSysLog.h"
#include "IfAaGpuSimpleTreeRadix.h"

extern "C" {
SAaGpuSimpleTreeRadixHandler confMapHandler;
}

namespace Olm {

namespace {

void releaseToMemoryService(void* block) { AaMemUnRef(&block); }

TagAllocate s_allocate = &AaMemMalloc;
TagRelease s_release = &releaseToMemoryService;

void* treeAllocate(void* /*context*/, uint32_t size) { return tagAllocate(size); }
void treeFree(void* /*context*/, void* block) { tagFree(block); }

bool isTreeInitialised() { return confMapHandler.allocator != nullptr; }

void freeObservers(TagElement& element) {
  while (!circularListIsEmpty(element.observers)) {
    CircularListElement* link = element.observers.next;
    circularListUnlink(*link);
    tagFree(link->record);
  }
}

}  // namespace

void setTagMemory(TagAllocate allocate, TagRelease release) {
  s_allocate = allocate != nullptr ? allocate : &AaMemMalloc;
  s_release = release != nullptr ? release : &releaseToMemoryService;
}

void* tagAllocate(uint32_t size) { return s_allocate(size); }

void tagFree(void* block) {
  if (block == nullptr) {
    AaSysLogPrintE(EAaSysLogSeverityLevel_Warning, kAaConfigTagFeatureId, "AACONFIG_FREE: Memory was not allocated");
    return;
  }
  s_release(block);
}

TagElement* AaConfig_TagDataBaseElementAlloc() { return static_cast<TagElement*>(tagAllocate(sizeof(TagElement))); }

void AaConfig_TagDataBaseElementFree(TagElement* element) { tagFree(element); }

bool AaConfig_TagDataBaseAllocData(TagElement* element, uint32_t length) {
  element->data = length != 0 ? static_cast<uint8_t*>(tagAllocate(length)) : nullptr;
  return length == 0 || element->data != nullptr;
}

uint8_t* AaConfig_TagDataBaseGetData(TagElement* element) { return element->data; }

void AaConfig_TagDataBaseFreeData(TagElement* element) {
  if (element->data != nullptr) tagFree(element->data);
  element->data = nullptr;
}

// A second start-up in one process gives back the tags of the first instead of forgetting them.
void initTagTree() {
  if (isTreeInitialised()) {
    while (void* entry = AaGpuSimpleTreeRadixGetFirst(&confMapHandler)) deleteTag(static_cast<TagMapEntry*>(entry));
  }
  AaGpuSimpleTreeRadixInit(&confMapHandler, &treeAllocate, &treeFree, nullptr);
}

TagMapEntry* findTagEntry(const char* name) {
  return static_cast<TagMapEntry*>(AaGpuSimpleTreeRadixFind(&confMapHandler, name));
}

TagElement* findTag(const char* name) {
  TagMapEntry* entry = findTagEntry(name);
  return entry != nullptr ? entry->element : nullptr;
}

TagElement* createTag(const char* name, const void* value, uint32_t length, uint32_t type) {
  auto* entry = static_cast<TagMapEntry*>(tagAllocate(sizeof(TagMapEntry)));
  TagElement* element = AaConfig_TagDataBaseElementAlloc();
  if (entry == nullptr || element == nullptr) {
    if (entry != nullptr) tagFree(entry);
    if (element != nullptr) AaConfig_TagDataBaseElementFree(element);
    return nullptr;
  }
  std::strncpy(element->name, name, sizeof(element->name) - 1);
  element->name[sizeof(element->name) - 1] = '\0';
  const bool withValue = value != nullptr && length != 0;
  element->length = withValue ? length : 0;
  element->type = withValue ? type : static_cast<uint32_t>(EAaConfigTagType_NotSpecified);
  if (!AaConfig_TagDataBaseAllocData(element, element->length)) {
    tagFree(entry);
    AaConfig_TagDataBaseElementFree(element);
    return nullptr;
  }
  if (withValue) std::memcpy(element->data, value, length);
  circularListInit(element->observers);
  entry->name = element->name;
  entry->element = element;
  AaGpuSimpleTreeRadixAdd(&confMapHandler, entry);
  return element;
}

void deleteTag(TagMapEntry* entry) {
  TagElement* element = entry->element;
  freeObservers(*element);
  AaGpuSimpleTreeRadixRemoveE(&confMapHandler, entry);
  tagFree(entry);
  AaConfig_TagDataBaseFreeData(element);
  AaConfig_TagDataBaseElementFree(element);
}

void* copyValue(const void* value, uint32_t length) {
  void* copy = tagAllocate(length);
  if (copy != nullptr) std::memcpy(copy, value, length);
  return copy;
}

}  // namespace Olm
