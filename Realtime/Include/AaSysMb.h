/* The message broker (SysMb): publish and subscribe on top of SysCom messages.
 *
 * A publisher prepares a publication of a message id, fills its payload and publishes it; every
 * subscriber of that id receives it as an ordinary SysCom message of that id, sent to the
 * subscriber with the publisher as sender. The broker keeps publications, so a subscriber that
 * comes later still receives the current one (see the modes below).
 *
 * Two zones:
 *   - the node zone (1) is served by the broker proxy of the node (CPID 0x0603, started by
 *     AaSysMbInit), which keeps the node's publications and subscriptions;
 *   - the system zone (15) is served by the broker server, CPID 0x0602 on the master node
 *     (AASYSCOM_NID_MASTER_NODE, resolved from "olm.service.aasyscom.masternid"). The server
 *     drives the proxies with forward, send and delete commands, so system-zone publications reach
 *     subscribers on every node.
 *
 * Publication modes (EAaSysMbPublMode): 0 not stored, delivered only to the present subscribers;
 * 1 replaces the stored publication of the id (whoever published it) and is stored; 2 one stored
 * publication per publisher, refused (error 0x1000A) when a stored publication of the id has
 * another mode; 3 one-shot: replaces like 1, stored only when no subscriber received it, and a
 * stored one is deleted once delivered to one subscriber.
 * Subscription modes (EAaSysMbSubsMode): 0 receive the stored publications now and keep the
 * subscription; 1 keep the subscription only; 2 receive the stored publications now, keep nothing;
 * 3 one-shot: a stored publication is delivered and nothing kept, else the subscription is kept
 * until the first publication delivered to it.
 * A subscriber holds at most one subscription per message id: a second one is ignored.
 *
 * The client functions only check their arguments, build one command message and send it, to the
 * proxy (node zone) or the server (system zone). Argument errors are raised non-fatally through
 * AaErrorExceptionRaise (code 0x1000B; a command that cannot be created: 0x10008) and returned as
 * result codes; nothing is sent then. All functions run on the Dispatcher's thread (EU callbacks
 * and start-up code); none locks.
 *
 * Commands may also be sent as plain SysCom messages (the message API): a command whose header
 * marker is AASYSMB_MARKER_MESSAGE_API is checked by the proxy and answered with a reply message
 * (SAaSysMbReplyMsg, ids 0x0BA7 to 0x0BAB) carrying an EAaSysMbCheckResult, except for
 * EAaSysMbCheckResult_InvalidAddress, which cannot be answered. The message API accepts the system
 * zone only. Command records are in the sender's byte order; the proxy converts them. */
#ifndef OLM_AASYSMB_H
#define OLM_AASYSMB_H

#include <stddef.h>
#include <stdint.h>

#include "AaSysCom.h"
#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

/* Failures of the broker are logged under this feature id. */
#define AASYSMB_FEATURE_ID 0x10016u

/* Error codes raised through AaErrorExceptionRaise. */
#define AASYSMB_ERROR_MSG_CREATION 0x10008u    /* a command message could not be created */
#define AASYSMB_ERROR_OUT_OF_SYNC 0x10009u     /* the proxy held a publication the server refused */
#define AASYSMB_ERROR_INVALID_PUBL 0x1000Au    /* a mode-2 publication met one of another mode */
#define AASYSMB_ERROR_INVALID_PARAMETER 0x1000Bu

/* Fixed addresses. */
#define AASYSMB_PROXY_CPID 0x0603u
#define AASYSMB_SERVER_CPID 0x0602u
#define AASYSMB_SERVER_NID AASYSCOM_NID_MASTER_NODE

/* Command message ids. */
#define AASYSMB_FLUSH_CMD_MSG 0x084Eu
#define AASYSMB_DEL_CMD_MSG 0x08A0u    /* server -> proxy: delete a stored publication;
                                          proxy -> server: forget a subscription or publication */
#define AASYSMB_FWD_CMD_MSG 0x08A1u    /* one publication for the subscribers of a node */
#define AASYSMB_SND_CMD_MSG 0x08A2u    /* a subscriber appeared: serve it */
#define AASYSMB_SUBS_CMD_MSG 0x08A5u
#define AASYSMB_PUBL_CMD_MSG 0x08A6u
#define AASYSMB_UNSUBS_CMD_MSG 0x08CBu
#define AASYSMB_UNPUBL_CMD_MSG 0x08CEu
#define AASYSMB_UNPUBL_CMD_MSG_OLD 0x09CEu /* older senders' unpublish; handled as 0x08CE */
#define AASYSMB_NOTIF_IND_MSG 0x08D1u      /* server -> proxy, discarded */
#define SYSMB_RESET_REQ_MSG 0x08D3u        /* server -> proxy: announce yourself again */
#define SYSMB_RESET_ACK_MSG 0x08D4u        /* server -> proxy, ignored */
#define SYSMB_RESET_IND_MSG 0x08D5u        /* proxy -> server, at start and on request */

/* Reply message ids of the message API. */
#define AASYSMB_PUBL_REPLY_MSG 0x0BA7u /* to publish and forward commands */
#define AASYSMB_UNPUBL_REPLY_MSG 0x0BA8u
#define AASYSMB_SUBS_REPLY_MSG 0x0BA9u
#define AASYSMB_UNSUBS_REPLY_MSG 0x0BAAu
#define AASYSMB_FLUSH_REPLY_MSG 0x0BABu

/* Header markers (word 0). */
#define AASYSMB_MARKER_CLIENT 0x0000FFFFu      /* commands of the client functions */
#define AASYSMB_MARKER_PROXY 0x0000F0F0u       /* commands a proxy builds, and its reset indication */
#define AASYSMB_MARKER_SERVER 0x00000F0Fu      /* commands the server builds */
#define AASYSMB_MARKER_MESSAGE_API 0x0000F00Fu /* commands sent directly by applications */
/* Mode word of a send command asking for direct delivery to the subscriber. */
#define AASYSMB_MODE_DIRECT_DELIVERY 0x0000F00Fu
/* Mode word of the delete command a proxy sends to the server. */
#define AASYSMB_MODE_PROXY_DELETE 0x00006661u

/* Flag bits of the word at offset 24 (apfWord), set by the proxy on receipt. */
#define AASYSMB_FLAG_REPLY_WANTED 0x00010000u
#define AASYSMB_FLAG_MESSAGE_API 0x00100000u
/* The APF of the publication's content is the top byte of apfWord (byte 27 on this node). */
#define AASYSMB_APF_SHIFT 24u

typedef enum EAaSysMbZone {
  EAaSysMbZone_Node = 1,
  EAaSysMbZone_System = 15,
  EAaSysMbZone_All = 255 /* AaSysMbFlush only: the system zone; in storage flushes every zone */
} EAaSysMbZone;

typedef enum EAaSysMbPublMode {
  EAaSysMbPublMode_NotStored = 0,
  EAaSysMbPublMode_Replace = 1,
  EAaSysMbPublMode_PerPublisher = 2,
  EAaSysMbPublMode_OneShot = 3
} EAaSysMbPublMode;

typedef enum EAaSysMbSubsMode {
  EAaSysMbSubsMode_StoredAndKeep = 0,
  EAaSysMbSubsMode_KeepOnly = 1,
  EAaSysMbSubsMode_StoredOnly = 2,
  EAaSysMbSubsMode_OneShot = 3
} EAaSysMbSubsMode;

typedef enum EAaSysMbFlushMode {
  EAaSysMbFlushMode_Publications = 0,
  EAaSysMbFlushMode_Subscriptions = 1,
  EAaSysMbFlushMode_Both = 2
} EAaSysMbFlushMode;

typedef enum EAaSysMbRetVal {
  EAaSysMbRetVal_Ok = 0,
  EAaSysMbRetVal_InvalidParameter = 1,
  EAaSysMbRetVal_MsgCreationFailed = 2
} EAaSysMbRetVal;

/* Result codes of the message API's check, in the replies at offset 28. */
typedef enum EAaSysMbCheckResult {
  EAaSysMbCheckResult_Valid = 0,
  EAaSysMbCheckResult_UnexpectedMsgId = 3,
  EAaSysMbCheckResult_NoPayload = 4,
  EAaSysMbCheckResult_UnsupportedZone = 5,
  EAaSysMbCheckResult_UnsupportedMode = 6,
  EAaSysMbCheckResult_InvalidAddress = 7 /* never answered */
} EAaSysMbCheckResult;

/* The header of every command's payload, 28 bytes, identical on every word size. */
typedef struct SAaSysMbCmdHeader {
  uint32_t marker;  /* AASYSMB_MARKER_* */
  uint32_t mode;    /* publication, subscription or flush mode; 0 in unpublish and unsubscribe */
  uint32_t reserved;
  uint32_t zone;    /* EAaSysMbZone */
  uint32_t address; /* publisher, subscriber or flushed address; the proxy's own in a reset */
  uint16_t msgId;   /* published or subscribed id; 0 in flush and reset */
  uint16_t size;    /* payload bytes of a publication; 0 otherwise */
  uint32_t apfWord; /* APF << 24 | AASYSMB_FLAG_* ; APF 1 at creation */
} SAaSysMbCmdHeader;

/* A publication or forward command: the header, size payload bytes, then 4 spare bytes. The
 * SysCom payload is size + AASYSMB_PUBL_CMD_OVERHEAD bytes. */
typedef struct SAaSysMbPublCmdMsg {
  SAaSysMbCmdHeader header;
  uint8_t payload[4];
} SAaSysMbPublCmdMsg;

/* A reply of the message API: the command's header (marker AASYSMB_MARKER_MESSAGE_API when it
 * came through the message API), then the EAaSysMbCheckResult. */
typedef struct SAaSysMbReplyMsg {
  SAaSysMbCmdHeader header;
  uint32_t result;
} SAaSysMbReplyMsg;

#define AASYSMB_CMD_HEADER_SIZE 28u
#define AASYSMB_PUBL_CMD_OVERHEAD 32u
#define AASYSMB_REPLY_SIZE 32u

/* ---- Publishing ------------------------------------------------------------------------------ */

/* Creates a publication of msgId with size payload bytes (zeroed) and returns the address of its
 * payload, where the caller writes the content; then AaSysMbPublish sends it or AaSysMbRecall
 * discards it. zone 1 goes to the node's proxy, 15 to the server; in zone 15 a publisher on the
 * own-node alias 0x0F01 is given the own node id. The publisher becomes the message's sender.
 *
 * Returns null, having raised, when zone is neither 1 nor 15, mode is 4 or more, the publisher is
 * on another node (checked only when the own node id is not 0) or the message cannot be created
 * (also when size + 32 exceeds the largest SysCom payload, 65519). */
void* AaSysMbPrepare(TAaSysComMsgSize size, TAaSysComMsgId msgId, TAaSysComSicad publisher, uint32_t mode,
                     uint32_t zone);

/* Sends the publication whose payload *payloadPtr points to (from AaSysMbPrepare). *payloadPtr is
 * left as it is and must not be used afterwards. Returns EAaSysMbRetVal_Ok, or
 * EAaSysMbRetVal_InvalidParameter (raised) for a null payloadPtr or *payloadPtr. */
uint32_t AaSysMbPublish(void** payloadPtr);

/* Discards a prepared publication and clears *payloadPtr. Returns EAaSysMbRetVal_Ok, or
 * EAaSysMbRetVal_InvalidParameter (raised) for a null payloadPtr or *payloadPtr. */
uint32_t AaSysMbRecall(void** payloadPtr);

/* Sets the APF of a prepared publication's content: 1 (little-endian words, the default) or 3
 * (little-endian, 2-byte aligned). Returns EAaSysMbRetVal_Ok, or EAaSysMbRetVal_InvalidParameter,
 * logged as a warning and not raised, for a null pointer, an APF above 3, or 0 and 2 (big-endian
 * content, the opposite of this node's byte order). */
uint32_t AaSysMbSetApf(void** payloadPtr, uint32_t apf);

/* ---- Subscribing and removing ---------------------------------------------------------------- */

/* Subscribes subscriber to msgId in mode (EAaSysMbSubsMode) and zone (1 or 15). The subscriber must
 * be on this node (own-node alias or own node id; not checked while the own node id is 0); in zone
 * 15 the alias is replaced by the own node id. Returns EAaSysMbRetVal_Ok when the command was sent,
 * EAaSysMbRetVal_InvalidParameter (raised) for a bad zone, mode or node,
 * EAaSysMbRetVal_MsgCreationFailed (raised) when the command cannot be created. */
uint32_t AaSysMbSubscribe(TAaSysComMsgId msgId, TAaSysComSicad subscriber, uint32_t mode, uint32_t zone);

/* Removes the subscription of subscriber to msgId in zone. Checks and results as AaSysMbSubscribe,
 * without the mode. */
uint32_t AaSysMbUnsubscribe(TAaSysComMsgId msgId, TAaSysComSicad subscriber, uint32_t zone);

/* Removes the stored publication of publisher and msgId in zone. Checks and results as
 * AaSysMbUnsubscribe. */
uint32_t AaSysMbUnpublish(TAaSysComMsgId msgId, TAaSysComSicad publisher, uint32_t zone);

/* Removes what address published (mode 0), subscribed (1) or both (2). zone: 0 is refused, 15 and
 * 255 go to the server, every other value to the node's proxy, which removes the records of that
 * zone value (255 there: every zone). An address whose CPID is 0xFFFF names the whole node (the
 * proxy then removes every publication of the zone, whoever published it). The own-node alias is
 * replaced by the own node id in every zone. Returns EAaSysMbRetVal_Ok when sent,
 * EAaSysMbRetVal_InvalidParameter (raised) for zone 0, mode 3 or more or address 0,
 * EAaSysMbRetVal_MsgCreationFailed (raised) when the command cannot be created. */
uint32_t AaSysMbFlush(TAaSysComSicad address, uint32_t mode, uint32_t zone);

/* ---- The node's broker ----------------------------------------------------------------------- */

/* Starts the node's broker: its storage, the proxy EU bound to CPID 0x0603 of the Dispatcher, and
 * the SYSMB_RESET_IND_MSG to the server (a server that is not there never sees it). Start-up calls
 * it (AaStartupEeStartup). Returns 0, or 1 without a Dispatcher or when the broker is already
 * running (logged). A broker stopped by AaSysMbExit may be started again; its proxy EU stays bound. */
uint32_t AaSysMbInit(void);
/* Stops the broker: messages to the proxy are discarded from then on and its storage is released.
 * Returns 0 (also when it was not running). */
uint32_t AaSysMbExit(void);
/* AaSysMbInit and AaSysMbExit under their start-up names. */
uint32_t AaSysMbInitEe(void);
uint32_t AaSysMbExitEe(void);

#ifdef __cplusplus
}

static_assert(sizeof(SAaSysMbCmdHeader) == AASYSMB_CMD_HEADER_SIZE, "command header is 28 bytes");
static_assert(offsetof(SAaSysMbCmdHeader, marker) == 0 && offsetof(SAaSysMbCmdHeader, mode) == 4 &&
                  offsetof(SAaSysMbCmdHeader, reserved) == 8 && offsetof(SAaSysMbCmdHeader, zone) == 12 &&
                  offsetof(SAaSysMbCmdHeader, address) == 16 && offsetof(SAaSysMbCmdHeader, msgId) == 20 &&
                  offsetof(SAaSysMbCmdHeader, size) == 22 && offsetof(SAaSysMbCmdHeader, apfWord) == 24,
              "command header offsets are the wire format's");
static_assert(offsetof(SAaSysMbPublCmdMsg, payload) == 28 && sizeof(SAaSysMbPublCmdMsg) == AASYSMB_PUBL_CMD_OVERHEAD,
              "publication payload at 28, four spare bytes");
static_assert(offsetof(SAaSysMbReplyMsg, result) == 28 && sizeof(SAaSysMbReplyMsg) == AASYSMB_REPLY_SIZE,
              "reply result at 28");
#else
_Static_assert(sizeof(SAaSysMbCmdHeader) == AASYSMB_CMD_HEADER_SIZE, "command header is 28 bytes");
_Static_assert(sizeof(SAaSysMbReplyMsg) == AASYSMB_REPLY_SIZE, "reply is 32 bytes");
#endif

OLM_API_END

#endif /* OLM_AASYSMB_H */
