// Pieces shared by the tag functions: the early table, the tree-backed database and the log lines.
#pragma once

#include <cstdint>

#include "AaConfig.h"
#include "CircularList.h"

namespace Olm {

// Log lines of the tag service go out under its R&D switch in domain 1, AaConfigTag.
constexpr uint32_t kAaConfigTagFeatureId = 0x1001A;

// Non-null, not empty and at most AACONFIG_TAG_NAME_MAX_LENGTH characters.
bool isValidTagName(const char* name);
bool isValidTagType(uint32_t type);

// The log line of a write, by type; unspecified values that are neither a word nor a printable
// string are dumped in hex only while the AaConfigTag switch is on. value holds length bytes.
void logTagWrite(const char* name, const uint8_t* value, uint32_t length, uint32_t type);

// Up to the first four value bytes as a little-endian word, missing bytes as 0.
uint32_t firstValueWord(const void* value, uint32_t length);

// Early mode: tags live in earlyTagTable. On until AaConfigTagEeStartup, and again after
// AaConfigTagEarlyStartup.
bool isEarlyMode();

// The early table. Names are valid (isValidTagName) in every call.
SAaConfigEarlyTag* findEarlyTag(const char* name);
EAaConfigRet storeEarlyTag(const char* name, const void* value, uint32_t length, uint32_t type);
EAaConfigRet registerEarlyObserver(const char* name, TAaConfigTagObserver callback);
EAaConfigRet unregisterEarlyObserver(const char* name, TAaConfigTagObserver callback);
EAaConfigRet deleteEarlyTag(const char* name);
void clearEarlyTable();

// Memory of the tag service: the tree's nodes, the tags, their observers and values, and the
// copies handed to callers, who release them with AaMemUnRef. A test may put its own pair in
// (null restores the memory service); its blocks must be the memory service's all the same.
using TagAllocate = void* (*)(uint32_t size);
using TagRelease = void (*)(void* block);
void setTagMemory(TagAllocate allocate, TagRelease release);
void* tagAllocate(uint32_t size);
// Null is logged ("AACONFIG_FREE: ...") and otherwise ignored.
void tagFree(void* block);

// One tag of the database.
struct TagElement {
  CircularListElement observers;  // head of a list of TagObserver
  uint32_t length;                // 0: the tag exists without value
  char name[AACONFIG_TAG_NAME_MAX_LENGTH + 1];
  uint8_t* data;                  // length bytes, null when length is 0
  uint32_t type;                  // EAaConfigTagType
};

// What the tree stores; its first field is the key the tree reads.
struct TagMapEntry {
  const char* name;  // the element's name
  TagElement* element;
};

struct TagObserver {
  CircularListElement link;  // the record points to the observer itself
  TAaConfigTagObserver callback;
};

TagElement* AaConfig_TagDataBaseElementAlloc();
void AaConfig_TagDataBaseElementFree(TagElement* element);
// A block of length bytes as the element's data; false when there is no memory (data stays null).
bool AaConfig_TagDataBaseAllocData(TagElement* element, uint32_t length);
uint8_t* AaConfig_TagDataBaseGetData(TagElement* element);
void AaConfig_TagDataBaseFreeData(TagElement* element);

// The tree-backed database (after EE start-up).
void initTagTree();
TagMapEntry* findTagEntry(const char* name);
TagElement* findTag(const char* name);
// A tag with the value, or without one (type then unspecified) when value is null or length 0;
// null when there is no memory, and nothing is left behind.
TagElement* createTag(const char* name, const void* value, uint32_t length, uint32_t type);
// The tag and its observers, without telling them.
void deleteTag(TagMapEntry* entry);
// A copy of length bytes in a block of the tag service; null when there is no memory.
void* copyValue(const void* value, uint32_t length);

}  // namespace Olm
