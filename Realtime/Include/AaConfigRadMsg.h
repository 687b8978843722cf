/* The R&D master/slave messages: what the slave of every node (AaConfigEu, CPID 0x060C) and the
 * R&D master exchange, and the notifications the slave sends to subscribers of R&D parameters.
 *
 * Every payload field is an unsigned 32-bit word in the message's byte order (the SysCom header's
 * APF; messages a node creates are in its own order), so each record is laid out alike on every
 * word size. Records that end in a list declare one element of it; the SysCom payload size is
 * given by the matching *_SIZE macro, and a receiver trusts a count only as far as the payload
 * reaches.
 *
 * The master makes itself known by publishing AACONFIG_RAD_MASTER_IND_MSG in the broker's system
 * zone (15); its address is the message's sender. A master on CPID AACONFIG_RAD_MASTER_CPID gets
 * synchronous registrations (the whole domain, answered with AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG);
 * a master on any other CPID gets AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG only. Every message the
 * slave sends carries the slave's SIC address (own node, AACONFIG_RAD_SLAVE_CPID) as sender. */
#ifndef OLM_AACONFIGRADMSG_H
#define OLM_AACONFIGRADMSG_H

#include <stddef.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

#define AACONFIG_RAD_SLAVE_CPID 0x060Cu  /* the slave EU of every node */
#define AACONFIG_RAD_MASTER_CPID 0x0606u /* a master here is answered synchronously */
#define AACONFIG_RAD_MASTER_IND_ZONE 15u /* broker zone of the master's announcement */
#define AACONFIG_RAD_MASTER_IND_MODE 0u  /* broker subscription mode the slave uses for it */

/* Message ids. Direction and payload record in the comment. */
#define AACONFIG_RAD_MASTER_IND_MSG 0x08CFu                  /* master -> slaves, published; payload not read */
#define AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG 0x08D0u         /* slave -> master: SAaConfigRadDomainRegisterInd */
#define AACONFIG_RAD_CHANGE_NOTIF_MSG 0x08D1u                /* slave -> subscriber: SAaConfigRadChangeNotif */
#define AACONFIG_SET_MASTERNID_REQ 0x0ADBu                   /* any -> slave: SAaConfigSetMasterNidReq */
#define AACONFIG_SET_MASTERNID_RESP_MSG 0x0ADCu              /* slave -> requester: SAaConfigSetMasterNidResp */
#define AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG 0x0BB2u         /* slave -> master: SAaConfigRadDomainRegisterReq */
#define AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG 0x0BB3u         /* master -> slave: SAaConfigRadDomainRegisterRsp */
#define AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG 0x1B8Cu      /* any -> slave: SAaConfigRadDomainMsg */
#define AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG 0x1B8Du     /* slave -> requester: SAaConfigRadParamsResp */
#define AACONFIG_RAD_UPDATE_NOTIF_MSG 0x1B90u                /* slave -> subscriber: SAaConfigRadDomainMsg */
#define AACONFIG_RAD_SYNC_NODE_MSG 0x1B93u                   /* slave -> master: SAaConfigRadSetParamsReq */
#define AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG 0x1B94u       /* slave -> master: SAaConfigRadDomainUnregisterReq */
#define AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG 0x1B95u       /* master -> slave: SAaConfigRadDomainStatus */
#define AACONFIG_RAD_SET_PARAMS_REQ_MSG 0x2011u              /* any -> slave: SAaConfigRadSetParamsReq */
#define AACONFIG_RAD_SET_PARAMS_RESP_MSG 0x2012u             /* slave -> requester: SAaConfigRadDomainStatus */
#define AACONFIG_RAD_GET_PARAMS_REQ_MSG 0x2013u              /* any -> slave: SAaConfigRadDomainMsg */
#define AACONFIG_RAD_GET_PARAMS_RESP_MSG 0x2014u             /* slave -> requester: SAaConfigRadParamsResp */

/* The word every registration (indication and request) carries after the domain. */
#define AACONFIG_RAD_REGISTER_CONSTANT 11u
/* The value size every parameter record of the slave names: one 32-bit word. */
#define AACONFIG_RAD_VALUE_SIZE 4u

/* Statuses. A registration or unregistration response: 0 ok, 1 failed (anything else is logged
 * as unknown). A set response: 0 ok, 3 failed. A set-master-node-id response: 0 ok, 1 failed. */
#define AACONFIG_RAD_STATUS_OK 0u
#define AACONFIG_RAD_STATUS_FAILED 1u
#define AACONFIG_RAD_SET_STATUS_FAILED 3u

/* Modes of a set request. 0 and 3 put every domain of the node back to its defaults (a 0 is
 * rewritten to 3 before the request is passed on to the master); 1, 2 and 4 write the listed
 * parameters (2 and 4 are passed on to the master as 1). A mode above 4 is refused (status 3). */
typedef enum EAaConfigRadSetMode {
  EAaConfigRadSetMode_Defaults = 0,
  EAaConfigRadSetMode_Values = 1,
  EAaConfigRadSetMode_ValuesKept = 2,
  EAaConfigRadSetMode_DefaultsForwarded = 3,
  EAaConfigRadSetMode_ValuesKeptSynch = 4
} EAaConfigRadSetMode;

/* One parameter: index within the domain, value size in bytes (the slave writes
 * AACONFIG_RAD_VALUE_SIZE and reads only the value), value. */
typedef struct SAaConfigRadParam {
  uint32_t index;
  uint32_t size;
  uint32_t value;
} SAaConfigRadParam;

/* One tag of a synchronous registration. flashFlag 1: flashValue is the value kept for the master
 * on this node; 0: flashValue means nothing. */
typedef struct SAaConfigRadSyncTag {
  uint32_t index;
  uint32_t size; /* AACONFIG_RAD_VALUE_SIZE */
  uint32_t defaultValue;
  uint32_t currentValue;
  uint32_t flashFlag;
  uint32_t flashValue;
} SAaConfigRadSyncTag;

/* AACONFIG_RAD_DOMAIN_REGISTER_IND_MSG: a domain registered on the slave's node. */
typedef struct SAaConfigRadDomainRegisterInd {
  uint32_t domain;
  uint32_t constant; /* AACONFIG_RAD_REGISTER_CONSTANT */
} SAaConfigRadDomainRegisterInd;

/* AACONFIG_RAD_CHANGE_NOTIF_MSG: a tag the receiver subscribed to changed. */
typedef struct SAaConfigRadChangeNotif {
  uint32_t tagId; /* domain << 16 | index */
  uint32_t value;
} SAaConfigRadChangeNotif;

/* AACONFIG_SET_MASTERNID_REQ: the master node id, in the low 16 bits. */
typedef struct SAaConfigSetMasterNidReq {
  uint32_t masterNid;
} SAaConfigSetMasterNidReq;

/* AACONFIG_SET_MASTERNID_RESP_MSG: status 0 ok, 1 the node id could not be stored; the request's
 * word. */
typedef struct SAaConfigSetMasterNidResp {
  uint32_t status;
  uint32_t masterNid;
} SAaConfigSetMasterNidResp;

/* AACONFIG_RAD_DOMAIN_REGISTER_REQ_MSG: the whole domain, tagCount records in index order. */
typedef struct SAaConfigRadDomainRegisterReq {
  uint32_t slaveSicad;
  uint32_t domain;
  uint32_t constant; /* AACONFIG_RAD_REGISTER_CONSTANT */
  uint32_t tagCount;
  SAaConfigRadSyncTag tags[1];
} SAaConfigRadDomainRegisterReq;

/* AACONFIG_RAD_DOMAIN_REGISTER_RSP_MSG: status AACONFIG_RAD_STATUS_*; with status 0 the count
 * parameters are written into the domain (the master's stored values). */
typedef struct SAaConfigRadDomainRegisterRsp {
  uint32_t domain;
  uint32_t status;
  uint32_t reserved; /* not read */
  uint32_t count;
  SAaConfigRadParam params[1];
} SAaConfigRadDomainRegisterRsp;

/* AACONFIG_RAD_GET_PARAMS_REQ_MSG, AACONFIG_RAD_GET_DEFAULT_PARAMS_REQ_MSG and
 * AACONFIG_RAD_UPDATE_NOTIF_MSG: a domain. */
typedef struct SAaConfigRadDomainMsg {
  uint32_t domain;
} SAaConfigRadDomainMsg;

/* AACONFIG_RAD_GET_PARAMS_RESP_MSG (current values) and AACONFIG_RAD_GET_DEFAULT_PARAMS_RESP_MSG
 * (defaults): every tag of the domain in index order, size AACONFIG_RAD_VALUE_SIZE. */
typedef struct SAaConfigRadParamsResp {
  uint32_t domain;
  uint32_t count;
  SAaConfigRadParam params[1];
} SAaConfigRadParamsResp;

/* AACONFIG_RAD_SET_PARAMS_REQ_MSG and AACONFIG_RAD_SYNC_NODE_MSG: mode EAaConfigRadSetMode;
 * count parameters (not read in modes 0 and 3). */
typedef struct SAaConfigRadSetParamsReq {
  uint32_t domain;
  uint32_t mode;
  uint32_t count;
  SAaConfigRadParam params[1];
} SAaConfigRadSetParamsReq;

/* AACONFIG_RAD_DOMAIN_UNREGISTER_REQ_MSG. */
typedef struct SAaConfigRadDomainUnregisterReq {
  uint32_t slaveSicad;
  uint32_t domain;
} SAaConfigRadDomainUnregisterReq;

/* AACONFIG_RAD_DOMAIN_UNREGISTER_RSP_MSG and AACONFIG_RAD_SET_PARAMS_RESP_MSG. */
typedef struct SAaConfigRadDomainStatus {
  uint32_t domain;
  uint32_t status;
} SAaConfigRadDomainStatus;

/* SysCom payload sizes in bytes. */
#define AACONFIG_RAD_PARAM_SIZE 12u
#define AACONFIG_RAD_SYNC_TAG_SIZE 24u
#define AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE 16u
#define AACONFIG_RAD_DOMAIN_REGISTER_RSP_HEADER_SIZE 16u
#define AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE 8u
#define AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE 12u
#define AACONFIG_RAD_DOMAIN_REGISTER_REQ_SIZE(tagCount) \
  (AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE + (tagCount) * AACONFIG_RAD_SYNC_TAG_SIZE)
#define AACONFIG_RAD_DOMAIN_REGISTER_RSP_SIZE(count) \
  (AACONFIG_RAD_DOMAIN_REGISTER_RSP_HEADER_SIZE + (count) * AACONFIG_RAD_PARAM_SIZE)
#define AACONFIG_RAD_PARAMS_RESP_SIZE(count) (AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE + (count) * AACONFIG_RAD_PARAM_SIZE)
#define AACONFIG_RAD_SET_PARAMS_REQ_SIZE(count) \
  (AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE + (count) * AACONFIG_RAD_PARAM_SIZE)

#ifdef __cplusplus
}

/* Only 32-bit words: the offsets are the wire format's on every word size. */
static_assert(sizeof(SAaConfigRadParam) == AACONFIG_RAD_PARAM_SIZE && offsetof(SAaConfigRadParam, size) == 4 &&
                  offsetof(SAaConfigRadParam, value) == 8,
              "parameter record is index, size, value");
static_assert(sizeof(SAaConfigRadSyncTag) == AACONFIG_RAD_SYNC_TAG_SIZE &&
                  offsetof(SAaConfigRadSyncTag, defaultValue) == 8 && offsetof(SAaConfigRadSyncTag, currentValue) == 12 &&
                  offsetof(SAaConfigRadSyncTag, flashFlag) == 16 && offsetof(SAaConfigRadSyncTag, flashValue) == 20,
              "registration tag record is six words");
static_assert(sizeof(SAaConfigRadDomainRegisterInd) == 8 && offsetof(SAaConfigRadDomainRegisterInd, constant) == 4,
              "registration indication is 8 bytes");
static_assert(sizeof(SAaConfigRadChangeNotif) == 8 && offsetof(SAaConfigRadChangeNotif, value) == 4,
              "change notification is 8 bytes");
static_assert(sizeof(SAaConfigSetMasterNidReq) == 4, "set-master-node-id request is one word");
static_assert(sizeof(SAaConfigSetMasterNidResp) == 8 && offsetof(SAaConfigSetMasterNidResp, masterNid) == 4,
              "set-master-node-id response is 8 bytes");
static_assert(offsetof(SAaConfigRadDomainRegisterReq, domain) == 4 &&
                  offsetof(SAaConfigRadDomainRegisterReq, constant) == 8 &&
                  offsetof(SAaConfigRadDomainRegisterReq, tagCount) == 12 &&
                  offsetof(SAaConfigRadDomainRegisterReq, tags) == AACONFIG_RAD_DOMAIN_REGISTER_REQ_HEADER_SIZE &&
                  sizeof(SAaConfigRadDomainRegisterReq) == AACONFIG_RAD_DOMAIN_REGISTER_REQ_SIZE(1),
              "registration request: four words, then the tags");
static_assert(offsetof(SAaConfigRadDomainRegisterRsp, status) == 4 &&
                  offsetof(SAaConfigRadDomainRegisterRsp, count) == 12 &&
                  offsetof(SAaConfigRadDomainRegisterRsp, params) == AACONFIG_RAD_DOMAIN_REGISTER_RSP_HEADER_SIZE &&
                  sizeof(SAaConfigRadDomainRegisterRsp) == AACONFIG_RAD_DOMAIN_REGISTER_RSP_SIZE(1),
              "registration response: four words, then the parameters");
static_assert(sizeof(SAaConfigRadDomainMsg) == 4, "domain message is one word");
static_assert(offsetof(SAaConfigRadParamsResp, count) == 4 &&
                  offsetof(SAaConfigRadParamsResp, params) == AACONFIG_RAD_PARAMS_RESP_HEADER_SIZE &&
                  sizeof(SAaConfigRadParamsResp) == AACONFIG_RAD_PARAMS_RESP_SIZE(1),
              "get response: two words, then the parameters");
static_assert(offsetof(SAaConfigRadSetParamsReq, mode) == 4 && offsetof(SAaConfigRadSetParamsReq, count) == 8 &&
                  offsetof(SAaConfigRadSetParamsReq, params) == AACONFIG_RAD_SET_PARAMS_REQ_HEADER_SIZE &&
                  sizeof(SAaConfigRadSetParamsReq) == AACONFIG_RAD_SET_PARAMS_REQ_SIZE(1),
              "set request: three words, then the parameters");
static_assert(sizeof(SAaConfigRadDomainUnregisterReq) == 8 && offsetof(SAaConfigRadDomainUnregisterReq, domain) == 4,
              "unregistration request is 8 bytes");
static_assert(sizeof(SAaConfigRadDomainStatus) == 8 && offsetof(SAaConfigRadDomainStatus, status) == 4,
              "domain status is 8 bytes");
#else
_Static_assert(sizeof(SAaConfigRadParam) == AACONFIG_RAD_PARAM_SIZE, "parameter record is 12 bytes");
_Static_assert(sizeof(SAaConfigRadSyncTag) == AACONFIG_RAD_SYNC_TAG_SIZE, "registration tag record is 24 bytes");
_Static_assert(sizeof(SAaConfigRadDomainRegisterReq) == AACONFIG_RAD_DOMAIN_REGISTER_REQ_SIZE(1),
               "registration request: four words, then the tags");
_Static_assert(sizeof(SAaConfigRadSetParamsReq) == AACONFIG_RAD_SET_PARAMS_REQ_SIZE(1),
               "set request: three words, then the parameters");
#endif

OLM_API_END

#endif /* OLM_AACONFIGRADMSG_H */
