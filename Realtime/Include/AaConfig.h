/* Configuration: named tags and R&D parameters. */
#ifndef OLM_AACONFIG_H
#define OLM_AACONFIG_H

#include <stdint.h>

#include "IfAaGpuSimpleTreeRadix.h"
#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t EAaConfigRet; /* 0 success; other codes per function */

/* Result codes of the tag functions (those of the R&D parameters are in AaConfigRad.h). */
enum {
  EAaConfigRet_Ok = 0,
  EAaConfigRet_InvalidParameter = 1, /* null or empty name, a name over 80 characters, null value
                                        or output, zero or too long a length */
  EAaConfigRet_TagNotFound = 2,
  EAaConfigRet_ObserverNotFound = 3,
  EAaConfigRet_TagReadFailed = 6,    /* AaConfigTagGetU16 only */
  EAaConfigRet_WrongLength = 7,      /* the stored length is not the integer's size */
  EAaConfigRet_TypeMismatch = 8,
  EAaConfigRet_OutOfMemory = 9,
  EAaConfigRet_EarlyTableFull = 10
};

/* Tag type codes. A get succeeds when the requested or the stored type is
 * EAaConfigTagType_NotSpecified, or both are the same. */
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

/* Configuration tags: named values of 1 to 256 bytes with a type code, which any number of
 * observers may watch.
 *
 * Two phases. Until AaConfigTagEeStartup (early mode) tags live in the fixed earlyTagTable, and
 * values handed out point into it: never release them. AaConfigTagEeStartup replays the table
 * into the radix tree confMapHandler; from then on values handed out are copies from the memory
 * service that the caller releases with AaMemUnRef. The hosting executable's start-up
 * (AaConfigEarlyStartup) runs both phases at once, so EU code only ever sees the tree.
 *
 * Observers are called synchronously inside the write that triggers them, with the writer's name
 * and value pointers, on every write after start-up, also when the value is unchanged. Early
 * writes call nobody; at the replay every early observer is called once with its tag's final
 * early value. An observer may unregister itself; it must not delete the tag it is told about.
 *
 * Log lines go through AaSysLogPrintE with the feature id 0x1001A (the AaConfigTag R&D switch):
 * each write that changes a value, at INF (severity 2), as
 *     "setConfigTag() name = %s, value = 0x%04x, len = %d, u16 type" (and u32, string and
 *     unspecified forms); an unspecified value that is neither 2 nor 4 bytes nor a printable
 *     NUL-terminated string is dumped in hex only while that switch is non-zero;
 * a get of an absent tag in early mode at WRN, a type mismatch and an invalid type at ERR.
 *
 * Names are NUL-terminated, not empty, at most AACONFIG_TAG_NAME_MAX_LENGTH characters, and
 * compared byte by byte. Threads: none; start-up code and then the Dispatcher thread only. */

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

/* The early phase's tags. Left as they are after the replay. */
extern SAaConfigEarlyTag earlyTagTable[AACONFIG_EARLY_TAG_COUNT];

/* The tags after EE start-up: a tree keyed by tag name (IfAaGpuSimpleTreeRadix.h) whose elements
 * are records of two pointers, the tag's name and the tag. Read it, never change it. */
extern SAaGpuSimpleTreeRadixHandler confMapHandler;

/* The start-up of the tag database: AaConfig_TagDatabaseEarlyStartup, AaConfigTagEarlyStartup
 * and AaConfigTagEeStartup in this order; result 0. */
uint32_t AaConfigEarlyStartup(void);

/* Clears every early entry (name, length, first value word, observers); result 0. */
uint32_t AaConfig_TagDatabaseEarlyStartup(void);
/* Enters early mode, in which the tags live in earlyTagTable (also the state before any
 * start-up); result 0. */
uint32_t AaConfigTagEarlyStartup(void);
/* Leaves early mode: makes confMapHandler a tree with memory from the memory service, sets every
 * early tag that holds a value (logged like any write) and registers its observers, in table
 * order, then logs "BuildRadixTree finished"; result 0. Run a second time in one process, it first
 * releases the tags of the tree it replaces. */
uint32_t AaConfigTagEeStartup(void);

/* Setters: a value of length bytes (1 to AACONFIG_TAG_VALUE_MAX_LENGTH) under name, with the
 * type the function names; a new tag is created. After start-up a value whose bytes equal the
 * stored ones up to the first NUL is not logged, but is written and told to every observer all
 * the same. Results:
 *   EAaConfigRet_Ok
 *   EAaConfigRet_InvalidParameter  bad name, null value, length 0 or above 256
 *   EAaConfigRet_OutOfMemory       after start-up; a tag that was overwritten keeps the new
 *                                  length and type but no value
 *   EAaConfigRet_EarlyTableFull    early mode, all 256 entries taken
 * The functions without Public behave the same. */
/* Type unspecified (4). */
EAaConfigRet AaConfigTagPublicSet(const char* name, const void* value, uint32_t length);
EAaConfigRet AaConfigTagSet(const char* name, const void* value, uint32_t length);
/* Two bytes, type u16 (1), in host byte order. */
EAaConfigRet AaConfigTagPublicSetU16(const char* name, uint16_t value);
EAaConfigRet AaConfigTagSetU16(const char* name, uint16_t value);
/* Four bytes, type u32 (2), in host byte order. */
EAaConfigRet AaConfigTagPublicSetU32(const char* name, uint32_t value);
EAaConfigRet AaConfigTagSetU32(const char* name, uint32_t value);
/* length bytes of value, type string (3); the bytes need not end in NUL. */
EAaConfigRet AaConfigTagPublicSetString(const char* name, const char* value, uint32_t length);
/* string with its terminating NUL (strlen + 1 bytes), type string (3); a null string is
 * EAaConfigRet_InvalidParameter. */
EAaConfigRet AaConfigTagSetString(const char* name, const char* string);
/* The pointer's own bytes (sizeof(void*): 4 on 32-bit targets), type unspecified (4); read it
 * back with AaConfigTagGet. */
EAaConfigRet AaConfigTagSetPointer(const char* name, const void* pointer);
/* Stores without the setters' checks of length and type and without their log lines, in the tree
 * after start-up (calling the observers of an existing tag) and in the table before. A null or
 * zero length value makes a new tag without value. Results: EAaConfigRet_Ok,
 * EAaConfigRet_InvalidParameter (bad name, null value with a length), EAaConfigRet_OutOfMemory,
 * EAaConfigRet_EarlyTableFull. */
EAaConfigRet AaConfigTagSetUnsafe(const char* name, const void* value, uint32_t length, uint32_t type);

/* Getters: *value and *length of the tag, written on success only. After start-up *value is a
 * copy to release with AaMemUnRef, null for a tag without value (length 0); in early mode it
 * points into earlyTagTable. Results:
 *   EAaConfigRet_Ok
 *   EAaConfigRet_InvalidParameter  bad name, null value or length
 *   EAaConfigRet_TagNotFound       (logged in early mode only)
 *   EAaConfigRet_TypeMismatch      logged
 *   EAaConfigRet_OutOfMemory       after start-up */
/* Any stored type. */
EAaConfigRet AaConfigTagGet(const char* name, void** value, uint32_t* length);
/* A string or unspecified tag. */
EAaConfigRet AaConfigTagGetString(const char* name, char** value, uint32_t* length);
/* A u16 (or unspecified) tag of two bytes. Results: EAaConfigRet_Ok; EAaConfigRet_TagReadFailed
 * for any failure to read it (a bad argument, no such tag, no value, a type mismatch, no memory);
 * EAaConfigRet_WrongLength (*value untouched). */
EAaConfigRet AaConfigTagGetU16(const char* name, uint16_t* value);
/* A u32 (or unspecified) tag of four bytes. Results: those of AaConfigTagGet, passed on
 * (EAaConfigRet_InvalidParameter also for a null value); EAaConfigRet_Ok without writing *value
 * for a tag without value; EAaConfigRet_WrongLength (*value untouched). */
EAaConfigRet AaConfigTagGetU32(const char* name, uint32_t* value);
/* The tag's value as AaConfigTagGet gives it (of any type). A tag without value first gets the
 * default (defaultLength bytes, type unspecified): an existing tag through AaConfigTagSet, which
 * calls its observers; an absent tag is created silently, also with an empty default, which
 * gives *value null and *length 0. Results: EAaConfigRet_Ok; EAaConfigRet_InvalidParameter (bad
 * name, null value, length or defaultValue, defaultLength above 256, or 0 for an existing tag
 * without value, or 0 in early mode); EAaConfigRet_OutOfMemory (also when the default could
 * not be set); EAaConfigRet_EarlyTableFull. */
EAaConfigRet AaConfigTagGetDefault(const char* name, void** value, uint32_t* length, const void* defaultValue,
                                   uint32_t defaultLength);
/* 1 when the tag exists and holds a value, else 0 (also for a bad name). */
uint32_t AaConfigTagIsSet(const char* name);

/* Adds callback as an observer of name (the same callback may be added more than once). After
 * start-up a tag holding a value calls it at once, and an absent tag is created without value
 * (AaConfigTagIsSet says 0), so that the first write calls it. In early mode the observer waits in
 * the table (five per entry; a sixth takes a further entry of the same name) until the replay.
 * Results: EAaConfigRet_Ok; EAaConfigRet_InvalidParameter (bad name, null callback);
 * EAaConfigRet_OutOfMemory (logged); EAaConfigRet_EarlyTableFull. */
EAaConfigRet AaConfigTagRegister(const char* name, TAaConfigTagObserver callback);
/* AaConfigTagRegister after start-up, also in early mode where it adds to the table. */
EAaConfigRet AaConfigTagRegisterUnsafe(const char* name, TAaConfigTagObserver callback);
/* Removes the first registration of callback on name. Results: EAaConfigRet_Ok;
 * EAaConfigRet_InvalidParameter (bad name, null callback); EAaConfigRet_TagNotFound;
 * EAaConfigRet_ObserverNotFound. */
EAaConfigRet AaConfigTagUnregister(const char* name, TAaConfigTagObserver callback);
/* Deletes the tag with its value and observers, who are not told (in early mode every entry of
 * the name). Results: EAaConfigRet_Ok; EAaConfigRet_InvalidParameter (bad name);
 * EAaConfigRet_TagNotFound. The functions behave the same. */
EAaConfigRet AaConfigTagPublicDelete(const char* name);
EAaConfigRet AaConfigTagDelete(const char* name);
#ifdef __cplusplus
}

#include <stddef.h>

/* The parts without pointers are laid out alike on every word size. */
static_assert(offsetof(SAaConfigEarlyTag, length) == 84, "early tag layout");
static_assert(offsetof(SAaConfigEarlyTag, value) == 88, "early tag layout");
static_assert(offsetof(SAaConfigEarlyTag, type) == 344, "early tag layout");
#endif

OLM_API_END

/* The R&D parameters belong to the configuration service too. */
#include "AaConfigRad.h"

#endif /* OLM_AACONFIG_H */
