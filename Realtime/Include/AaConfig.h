/* Configuration: named tags and R&D parameters. */
#ifndef OLM_AACONFIG_H
#define OLM_AACONFIG_H

#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t EAaConfigRet; /* 0 success; other codes per function */

/* Result codes of the tag functions. */
enum {
  EAaConfigRet_Ok = 0,
  EAaConfigRet_InvalidParameter = 1, /* null name or value, zero or too long a length, a name over
                                        80 characters, an invalid type; for AaConfigRadSetValue a
                                        tag id out of range */
  EAaConfigRet_TagNotFound = 2,
  EAaConfigRet_ObserverNotFound = 3,
  EAaConfigRet_TagReadFailed = 6,    /* AaConfigTagGetU16 only */
  EAaConfigRet_WrongLength = 7,      /* the stored length is not the integer's size */
  EAaConfigRet_TypeMismatch = 8,
  EAaConfigRet_OutOfMemory = 9,
  EAaConfigRet_EarlyTableFull = 10
};

/* Tag type codes. */
typedef enum EAaConfigTagType {
  EAaConfigTagType_U16 = 1,
  EAaConfigTagType_U32 = 2,
  EAaConfigTagType_String = 3,
  EAaConfigTagType_NotSpecified = 4
} EAaConfigTagType;

#define AACONFIG_TAG_NAME_MAX_LENGTH 80u  /* characters, without the terminating zero */
#define AACONFIG_TAG_VALUE_MAX_LENGTH 256u /* bytes */
#define AACONFIG_EARLY_TAG_COUNT 256u
#define AACONFIG_EARLY_TAG_NAME_SIZE 84u
#define AACONFIG_EARLY_TAG_OBSERVERS 5u

/* Called with the tag's name and new value whenever the tag is written. */
typedef void (*TAaConfigTagObserver)(const char* name, const void* value, uint32_t length);

/* One tag of the early phase, before the runtime's memory services exist. */
typedef struct SAaConfigEarlyTag {
  char name[AACONFIG_EARLY_TAG_NAME_SIZE];  /* NUL-terminated; empty: the entry is free */
  uint32_t length;                          /* value bytes held; 0: no value */
  uint8_t value[AACONFIG_TAG_VALUE_MAX_LENGTH];
  uint32_t type;                            /* EAaConfigTagType */
  TAaConfigTagObserver observers[AACONFIG_EARLY_TAG_OBSERVERS]; /* null when free */
} SAaConfigEarlyTag;

/* The early phase's tags. */
extern SAaConfigEarlyTag earlyTagTable[AACONFIG_EARLY_TAG_COUNT];

/* The start-up of the tag database: AaConfig_TagDatabaseEarlyStartup, AaConfigTagEarlyStartup
 * and AaConfigTagEeStartup in this order; result 0. */
uint32_t AaConfigEarlyStartup(void);

/* Clears every early entry (name, length, first value word, observers); result 0. */
uint32_t AaConfig_TagDatabaseEarlyStartup(void);
/* Enters early mode, in which the tags live in earlyTagTable; result 0. */
uint32_t AaConfigTagEarlyStartup(void);
/* Ends the early phase; result 0. */
uint32_t AaConfigTagEeStartup(void);

/* Setters. Results: 0; 1 (null name or value, zero length, name over 80 characters, length over
 * 256); 10 (early table full). Without Public the same. */
EAaConfigRet AaConfigTagPublicSet(const char* name, const void* value, uint32_t length);
EAaConfigRet AaConfigTagSet(const char* name, const void* value, uint32_t length);
EAaConfigRet AaConfigTagPublicSetU16(const char* name, uint16_t value);
EAaConfigRet AaConfigTagSetU16(const char* name, uint16_t value);
EAaConfigRet AaConfigTagPublicSetU32(const char* name, uint32_t value);
EAaConfigRet AaConfigTagSetU32(const char* name, uint32_t value);

/* The value and its length, of any stored type. In early mode the value points into
 * earlyTagTable and must not be released. Results: 0; 1 (null argument, name over 80
 * characters); 2 (no such tag). */
EAaConfigRet AaConfigTagGet(const char* name, void** value, uint32_t* length);
/* A u16 tag (or one of unspecified type). Results: 0; 6 (any failure to read it: no such tag,
 * type mismatch, bad argument); 7 (length not 2). */
EAaConfigRet AaConfigTagGetU16(const char* name, uint16_t* value);
/* A u32 tag (or one of unspecified type). Results: 0 (also, without writing, for a tag without
 * value data); 1 (null argument, name over 80 characters); 2 (no such tag); 7 (length not 4);
 * 8 (type mismatch). */
EAaConfigRet AaConfigTagGetU32(const char* name, uint32_t* value);
/* 1 when the tag exists and holds a value, else 0 (also for a null or too long name). */
uint32_t AaConfigTagIsSet(const char* name);
/* Deletes the tag with its value and observers; the observers are not told. Results: 0; 1 (null
 * name, name over 80 characters); 2 (no such tag). Without Public the same. */
EAaConfigRet AaConfigTagPublicDelete(const char* name);
EAaConfigRet AaConfigTagDelete(const char* name);

/* The current value of an R&D parameter (domain in the high 16 bits, index in the low 16);
 * 0 when out of range. */
uint32_t AaConfigRadGetValue(uint32_t tagId);
/* Changes an R&D parameter. Results: 0; 1 (tag id out of range). */
EAaConfigRet AaConfigRadSetValue(uint32_t tagId, uint32_t value);

#ifdef __cplusplus
}

#include <stddef.h>

/* The parts without pointers are laid out alike on every word size. */
static_assert(offsetof(SAaConfigEarlyTag, length) == 84, "early tag layout");
static_assert(offsetof(SAaConfigEarlyTag, value) == 88, "early tag layout");
static_assert(offsetof(SAaConfigEarlyTag, type) == 344, "early tag layout");
#endif

OLM_API_END

#endif /* OLM_AACONFIG_H */
