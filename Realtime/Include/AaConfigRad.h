/* R&D parameters: numbered 32-bit switches and tuning values, grouped in domains, changed at run
 * time by developers and test tools through the node's R&D master.
 *
 * A tag id is the domain number in the high 16 bits and the tag's index within the domain in the
 * low 16 (0x1001A: domain 1, index 26). The software that owns a domain registers it with an init
 * function that declares the tag count (AaConfigRadSetMaxTagCount) and each tag's name and default
 * (AaConfigRadSetDefault). Domain 1 is the runtime's own (AaConfigRadOlmDomainInit). Values set for
 * a domain before it registers are stored and applied at registration. Every registered domain is
 * announced to the R&D master (AaConfigRadMsg.h), which may read and set its values.
 *
 * A change of a value is sent as AACONFIG_RAD_CHANGE_NOTIF_MSG to every task subscribed to that tag
 * (AaConfigRadSubscribeNotifs); a batch of changes made by the master or a reset to defaults is
 * sent as AACONFIG_RAD_UPDATE_NOTIF_MSG to the subscribers of the whole domain
 * (AaConfigRadSubscribeDomainUpdate).
 *
 * Threads: every function runs on the Dispatcher's thread (an EU's callbacks, or start-up before
 * the Dispatcher runs); nothing here is locked. Lines are logged with AaSysLogPrintE, feature id
 * AACONFIG_RAD_FEATURE_ID (the slave's lines with AACONFIG_RAD_SLAVE_FEATURE_ID). */
#ifndef OLM_AACONFIGRAD_H
#define OLM_AACONFIGRAD_H

#include <stdint.h>

#include "AaConfig.h"
#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Results of the R&D functions (EAaConfigRet values). */
enum {
  EAaConfigRadRet_Ok = 0,
  EAaConfigRadRet_InvalidParameter = 1,
  EAaConfigRadRet_NoValueArrays = 3, /* the domain is not registered */
  EAaConfigRadRet_AlreadySet = 5,    /* the table, the tag count or the domain exists already */
  EAaConfigRadRet_OutOfMemory = 9,  /* a subscription without subscriber list; memory itself never
                                       fails here (the memory service ends the process instead) */
  EAaConfigRadRet_NoStoreList = 10   /* a value for an unregistered domain with nowhere to keep it */
};

#define AACONFIG_RAD_DOMAIN_SHIFT 16u
#define AACONFIG_RAD_INDEX_MASK 0xFFFFu
#define AACONFIG_RAD_MAX_TAG_COUNT 2500u
#define AACONFIG_RAD_FEATURE_ID 0x10019u       /* the AaConfigRad switch of domain 1 */
#define AACONFIG_RAD_SLAVE_FEATURE_ID 0x10017u /* the AaConfigRadSlave switch of domain 1 */
#define AACONFIG_RAD_DOMAIN_COUNT 103u         /* the domains the runtime's start-up provides */
#define AACONFIG_RAD_OLM_DOMAIN 1u
#define AACONFIG_RAD_OLM_DOMAIN_NAME "OLM"
/* The synchronisation tag of a domain: prefix, domain number in decimal, suffix. */
#define AACONFIG_RAD_DOMAIN_TAG_PREFIX "olm.service.aaconfig.rad.domain."
#define AACONFIG_RAD_DOMAIN_SYNCHED_SUFFIX ".synched"
/* The configuration tag holding the slave's SIC address (u32). */
#define AACONFIG_RAD_SLAVE_ADDR_TAG "olm.service.aaconfig.rad.slave.addr"

/* Declares a domain's tags: calls AaConfigRadSetMaxTagCount once, then AaConfigRadSetDefault. */
typedef void (*TAaConfigRadDomainInit)(void);

/* One domain. A free slot has a null name. The names are the registrant's, never copied. */
typedef struct SAaConfigRadDomain {
  const char* name;
  TAaConfigRadDomainInit init; /* null for a domain given by AaConfigRadSetDomain */
  uint32_t tagCount;           /* 0 until declared; at most AACONFIG_RAD_MAX_TAG_COUNT */
  uint32_t* values;            /* tagCount current values */
  uint32_t* defaults;          /* tagCount defaults */
  const char** tagNames;       /* tagCount names, null where a tag has none */
} SAaConfigRadDomain;

/* The subscriber list's head; its records are the service's own. */
typedef struct SAaConfigRadSubscriberList SAaConfigRadSubscriberList;

/* The domain table: radDomainCount records (null and 0 until AaConfigRadSetMaxDomainCount). */
extern SAaConfigRadDomain* radDomain;
extern uint32_t radDomainCount;
/* Created by AaConfigRadEeStartup; null before. */
extern SAaConfigRadSubscriberList* subscriberList;

/* ---- Start-up ---------------------------------------------------------------------------------- */

/* AaConfigRadSetMaxDomainCount(domainCount), then AaConfigRadEeStartup. Start-up calls it with
 * AACONFIG_RAD_DOMAIN_COUNT and then registers domain 1. Result 0. */
uint32_t AaConfigEeStartup(uint32_t domainCount);
/* Starts the R&D slave (AaConfigRadSlave) and creates the subscriber list; a list that cannot be
 * allocated is an assertion "subscriberList != GLO_NULL". A second call keeps the list. Result 0. */
uint32_t AaConfigRadEeStartup(void);
/* Starts the slave: its SIC address (own node, AACONFIG_RAD_SLAVE_CPID) into
 * AACONFIG_RAD_SLAVE_ADDR_TAG, the subscription to AACONFIG_RAD_MASTER_IND_MSG at the broker (mode
 * 0, zone 15), the list of domains waiting for a master, and the EU AaConfigEu bound to the CPID.
 * Without a Dispatcher nothing happens. */
void AaConfigRadSlave(void);
/* Unsubscribes the slave (the address in AACONFIG_RAD_SLAVE_ADDR_TAG) from
 * AACONFIG_RAD_MASTER_IND_MSG in zone 15. Result 0. */
uint32_t AaConfigEeShutdown(void);
/* AACONFIG_RAD_SLAVE_CPID. */
uint32_t AaConfigSlaveGetCpid(void);
/* The init function of domain 1, the runtime's own: 65771 passed as tag count, of which the low 16
 * bits declare 235 tags, the names and defaults of indices 0 to 152 (149 has none; the list is
 * AACONFIG_RAD_OLM_TAGS in AaConfigRadOlmDomain.h). Pass it as
 * AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, it). */
void AaConfigRadOlmDomainInit(void);

/* ---- Domains ----------------------------------------------------------------------------------- */

/* Allocates the domain table of count zeroed records, the list of values stored for later and the
 * list of values kept for the master. Results: 0; 1 (count 0); 5 (the table exists: the count
 * cannot change). */
EAaConfigRet AaConfigRadSetMaxDomainCount(uint32_t count);
/* radDomainCount. */
uint32_t AaConfigRadGetDomainCount(void);
/* Declares the domain's tag count (only its low 16 bits count) and allocates its zeroed value,
 * default and name arrays; for an init function. Results: 0; 1 (no table, count 0, domain out of
 * range, low 16 bits 0 or more than AACONFIG_RAD_MAX_TAG_COUNT); 5 (already declared). */
EAaConfigRet AaConfigRadSetMaxTagCount(uint32_t domain, uint32_t count);
/* Frees the three arrays and clears the record. Results: 0; 1 (no table, domain out of range). */
EAaConfigRet AaConfigRadRemoveMaxTagCount(uint32_t domain);
/* Registers a domain: stores name (not copied) and init, calls init, applies the values stored for
 * the domain (each notified to the tag's subscribers) and announces the domain to the master
 * without waiting for its answer. Results: 0; 1 (no table, null name or init, domain out of range,
 * init declared no tags: the slot is free again); 5 (the slot is taken). */
EAaConfigRet AaConfigRadRegisterDomain(uint32_t domain, const char* name, TAaConfigRadDomainInit init);
/* As AaConfigRadRegisterDomain, announced synchronously: the master answers with its stored values
 * for the domain, which are then set. */
EAaConfigRet AaConfigRadRegisterDomainSynch(uint32_t domain, const char* name, TAaConfigRadDomainInit init);
/* Registers a domain whose values come ready-made: values (count words) become the current values
 * in place, not copied, and are copied as defaults; names (count pointers, may be null) are kept.
 * Stored values are applied, the domain is announced. The caller keeps both arrays alive until the
 * domain is unregistered. Results: 0; 1 (no table, null name or values, count 0 or above
 * AACONFIG_RAD_MAX_TAG_COUNT, domain out of range); 5 (the slot has a name and values). */
EAaConfigRet AaConfigRadSetDomain(uint32_t domain, const char* name, uint32_t* values, uint32_t count,
                                  const char** names);
/* Unregisters the domain from the master and frees it (AaConfigRadFreeDomain). A domain without
 * tags is left alone. Results: 0; 1 (no table, domain out of range). */
EAaConfigRet AaConfigRadUnRegisterDomain(uint32_t domain);
/* Frees the domain's arrays (not the caller's arrays of AaConfigRadSetDomain) and clears the
 * record. Results: 0; 1 (no table, domain out of range). */
EAaConfigRet AaConfigRadFreeDomain(uint32_t domain);
/* The domain's tag count; 0 for a domain out of range or not declared. */
uint32_t AaConfigRadGetTagCount(uint32_t domain);

/* ---- Values ------------------------------------------------------------------------------------ */

/* Sets name (not copied), value and default of one tag, notifying nobody; for an init function.
 * Results: 0; 1 (no table, domain out of range or not declared, index not below the tag count). */
EAaConfigRet AaConfigRadSetDefault(uint32_t tagId, const char* name, uint32_t value);
/* Changes only the default. Results: 0; 1 (no table, domain or index out of range); 3 (the domain
 * has no values). */
EAaConfigRet AaConfigRadUpdateDefaultValue(uint32_t tagId, uint32_t value);
/* Puts every tag of the domain back to its default, notifying each change to the tag's subscribers
 * and, when anything changed, the domain's subscribers. Results: 0; 1 (no table, domain out of
 * range); 3 (the domain has no values). */
EAaConfigRet AaConfigRadSetDefaultValues(uint32_t domain);
/* The current value; 0 for a tag id out of range or of a domain not registered. */
uint32_t AaConfigRadGetValue(uint32_t tagId);
/* Sets a value and notifies the tag's subscribers when it changed. For a domain not registered yet
 * the value is stored (replacing one stored before) and applied at registration. Results: 0; 1 (no
 * table, domain out of range, index not below the tag count); 10 (no store list). */
EAaConfigRet AaConfigRadSetValue(uint32_t tagId, uint32_t value);
/* The domain's name; null for a free slot or a domain out of range. */
const char* AaConfigRadGetDomainString(uint32_t tagId);
/* The tag's name; null without name, for an out-of-range tag id, an unregistered domain or a name
 * holding a non-printable character. */
const char* AaConfigRadGetTagString(uint32_t tagId);
/* Writes "olm.service.aaconfig.rad.domain.<domain>.synched" into buffer (size bytes, terminated,
 * cut as snprintf cuts) and returns the length it needs, as snprintf does (negative on failure).
 * The slave sets this configuration tag (u32 1) when the master has answered a synchronous
 * registration, and deletes it when the master confirms an unregistration. */
int32_t AaConfigRadGetDomainSynchedTagString(char* buffer, uint32_t size, uint32_t domain);

/* The GetAll functions fill a caller's array of AaConfigRadGetTagCount(domain) records in index
 * order and return the number of records written (0 for a domain out of range). */
/* 3 words per tag: index, 4, current value. */
uint32_t AaConfigRadGetAllTags(uint32_t* buffer, uint32_t domain);
/* 3 words per tag: index, 4, default. */
uint32_t AaConfigRadGetAllDefTags(uint32_t* buffer, uint32_t domain);
/* 6 words per tag: index, 4, default, current value, flash flag 0; the sixth word (flash value) is
 * left as it was. */
uint32_t AaConfigRadGetAllSyncTags(uint32_t* buffer, uint32_t domain);
/* Completes records of AaConfigRadGetAllSyncTags with the values kept for the master on this node:
 * flash flag 1 and the value. Returns the number of records completed. */
uint32_t AaConfigRadGetAllFlashTags(uint32_t* buffer, uint32_t domain);

/* ---- Subscriptions ----------------------------------------------------------------------------- */

/* subscriber receives AACONFIG_RAD_CHANGE_NOTIF_MSG for every change of tagId (once per
 * subscription; a second subscription of the same pair is ignored). Results: 0; 9 (no subscriber
 * list: before AaConfigRadEeStartup). */
EAaConfigRet AaConfigRadSubscribeNotifs(uint32_t tagId, uint32_t subscriber);
/* Removes the subscriptions of subscriber to tagId; a subscriber left without any subscription
 * is forgotten. Result 0. */
EAaConfigRet AaConfigRadUnSubscribeNotifs(uint32_t tagId, uint32_t subscriber);
/* subscriber receives AACONFIG_RAD_UPDATE_NOTIF_MSG whenever the master changes values of the
 * domain or the domain is put back to its defaults. Results: 0; 9 (no subscriber list: before
 * AaConfigRadEeStartup). */
EAaConfigRet AaConfigRadSubscribeDomainUpdate(uint32_t domain, uint32_t subscriber);
/* Removes the subscription of subscriber to the domain. A subscriber whose last domain
 * subscription this was is forgotten with its tag subscriptions. Result 0. */
EAaConfigRet AaConfigRadUnSubscribeDomainUpdate(uint32_t domain, uint32_t subscriber);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AACONFIGRAD_H */
