/* The SysCom message service: creating, inspecting, converting, sending and freeing messages.
 *
 * A message handle is a pointer to the start of one contiguous buffer (layout in
 * AaSysComMsgHeader.h). Functions that consume or replace a message take the address of the
 * caller's handle and clear it once the message has gone. Buffers come from and go back to the
 * process's Dispatcher; every function runs on the Dispatcher's thread and none locks.
 *
 * Failures are never fatal. They are reported through AaSysLogPrintE at severity
 * EAaSysLogSeverityLevel_Warning with the SysCom feature id 0x10000, the text starting with the
 * function's name, except "Unable to get Dispatcher instance", which is reported at
 * EAaSysLogSeverityLevel_Error with feature id 0xFFFF. A null message is tolerated everywhere:
 * getters return 0 (15 for a TTL, null for a pointer) and setters do nothing. */
#ifndef OLM_AASYSCOM_H
#define OLM_AASYSCOM_H

#include <stdint.h>

#include "AaSysComMsgHeader.h"
#include "AaSysLog.h"

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t TAaSysComSicad;    /* NID in bits 16-31, CPID in bits 0-15 */
typedef uint16_t TAaSysComNid;
typedef uint16_t TAaSysComCpid;
typedef uint32_t TAaSysComMsgId;    /* stored in the header as 16 bits */
typedef uint32_t TAaSysComMsgSize;
typedef uint32_t TAaSysComLinkId;

/* The SysCom feature id: failures of this service are logged under it. */
#define AASYSCOM_FEATURE_ID 0x10000u
/* What AaSysComMsgGetMaxPayload reports; smaller than AASYSCOM_MAX_CREATE_PAYLOAD on purpose. */
#define AASYSCOM_MAX_PAYLOAD 65466u

/* ---- Header, payload and trailer ---------------------------------------------------------- */

/* The payload (message + 16); null for a null message. */
void* AaSysComMsgGetPayload(const void* message);

/* The message id; 0 for a null message. */
TAaSysComMsgId AaSysComMsgGetId(const void* message);
/* Stores the low 16 bits of id. Returns the message (null for a null message). */
void* AaSysComMsgSetId(void* message, TAaSysComMsgId id);

/* The receiver's SIC address; 0 for a null message. */
TAaSysComSicad AaSysComMsgGetReceiver(const void* message);
/* Sets the receiver of the message *messagePtr; nothing if either pointer is null. No result. */
void AaSysComMsgSetReceiver(void** messagePtr, TAaSysComSicad receiver);

/* The sender's SIC address; 0 for a null message and for a message whose sender is not set. */
TAaSysComSicad AaSysComMsgGetSender(const void* message);
/* Returns the message (null for a null message). */
void* AaSysComMsgSetSender(void* message, TAaSysComSicad sender);

/* Priority 0 to 3 (bits 10-11 of the control half-word); 0 for a null message. */
uint32_t AaSysComMsgGetPriority(const void* message);
/* Replaces bits 10-11 by priority << 10; bits of priority above 3 reach further bits of the
 * control half-word. Nothing for a null message. No result. */
void AaSysComMsgSetPriority(void* message, uint32_t priority);

/* The MTM flag: 0 or 1; 0 for a null message. */
uint32_t AaSysComMsgGetMtm(const void* message);
/* mtm other than 0 and 1 is ignored, as is a null message. No result. */
void AaSysComMsgSetMtm(void* message, uint32_t mtm);

/* The payload format: 0 big-endian words, 1 little-endian words, 2 big-endian 2-byte aligned,
 * 3 little-endian 2-byte aligned. Null: logs "AaSysComMsgGetApf(): message is NULL", returns 0. */
uint32_t AaSysComMsgGetApf(const void* message);
/* Flags := (flags without APF) | apf << 2; apf is not masked. Null is logged. No result. */
void AaSysComMsgSetApf(void* message, uint32_t apf);
/* Marks the payload 2-byte aligned little-endian (APF 3) whatever it was. Null is logged. */
void AaSysComMsgSetApf2B(void* message);

/* The envelope format 0 to 3. Null: logs "AaSysComMsgGetMef(): message is NULL", returns 0. */
uint32_t AaSysComMsgGetMef(const void* message);
/* Accepts 0 and 2; 1 and 3 are refused, with the message unchanged ("AaSysComMsgSetMef(): MEF
 * Reserved not allowed", "... MEF with trailer not allowed"), so no trailer is ever added here.
 * Changing 3 to 0 drops the trailer from the total length; 3 to 2 keeps it counted. Null is
 * logged. No result. */
void AaSysComMsgSetMef(void* message, uint32_t mef);

/* Total length - 24 with a trailer, else total length - 16, in 16 bits (wraps on a message too
 * short for its envelope); 0 for a null message. */
uint16_t AaSysComMsgGetPayloadSize(const void* message);
/* Returns message unchanged. */
void* AaSysComMsgGetBulkMsg(const void* message);
/* The total length, header and trailer included; 0 for a null message. */
uint16_t AaSysComMsgGetBulkMsgLength(const void* message);
/* The 8-byte trailer (message + total length - 8) when MEF is 3 and the total length holds a
 * header and a trailer; otherwise null. Null message: logs "AaSysComMsgGetTrailer(): message is
 * NULL" and returns null. */
void* AaSysComMsgGetTrailer(const void* message);

/* The time-to-live 0 to 15; 15 also when there is no trailer or no TTL in it. A null message or
 * a trailer that does not fit the message is logged ("message is NULL", "trailer is NULL"). */
uint32_t AaSysComMsgGetTtlValue(const void* message);
/* Replaces the TTL only when the message has a trailer whose TTL-present bit is set; never turns
 * that bit on. Null message and missing trailer are logged. No result. */
void AaSysComMsgSetTtlValue(void* message, uint32_t ttl);
/* One hop: decrements a present TTL and returns the new value; a TTL of 0 stays 0 and returns 0;
 * no TTL returns 15. Null message and missing trailer are logged and return 15. */
uint32_t AaSysComMsgCheckTtl(void* message);

/* Log "<text> Msg header: id .., snd .., rcv .., size .., flags .." at EAaSysLogSeverityLevel_Error
 * with feature id 0xFFFF; level (and feature) are ignored. A null message logs "Print Header(),
 * message was null" / "HeaderPrint(), message was null". No result. */
void AaSysComMsgPrintHeader(EAaSysLogSeverityLevel level, const char* text, const void* message);
void AaSysComMsgHeaderPrint(EAaSysLogSeverityLevel level, uint32_t featureId, const char* text,
                            const void* message);

/* ---- Addresses and node ---------------------------------------------------------------------- */

/* Bits 16-31 of sicad. */
TAaSysComNid AaSysComSicadGetNid(TAaSysComSicad sicad);
/* Bits 0-15 of sicad. */
TAaSysComCpid AaSysComSicadGetCpid(TAaSysComSicad sicad);
/* (nid << 16) | cpid. The CPID comes first. */
TAaSysComSicad AaSysComSicadGet(TAaSysComCpid cpid, TAaSysComNid nid);
/* This node's id; 0, with "Unable to get Dispatcher instance" logged, when there is no
 * Dispatcher. */
TAaSysComNid AaSysComGetOwnNid(void);
/* Nothing to register in this runtime. Returns 1. */
uint32_t AaSysComUserRegister(void);
/* Returns AASYSCOM_MAX_PAYLOAD (65466). */
uint32_t AaSysComMsgGetMaxPayload(void);

/* ---- Lifecycle and sending --------------------------------------------------------------------- */

/* A new message: id, receiver, sender 0, flags 0x0004 (little-endian words), total length
 * payloadSize + 16; the payload is not cleared. Returns null when payloadSize is above 65519
 * ("AaSysComMsgCreate(): messagePayloadSize too high"), when there is no Dispatcher, or when the
 * message port has no buffer (not logged here). */
void* AaSysComMsgCreate(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize, TAaSysComSicad receiver);
/* The same as AaSysComMsgCreate. */
void* AaSysComMsgCreateP(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize, TAaSysComSicad receiver);
/* A new message to the sender of repliedMessage, sent from its receiver. Returns null as
 * AaSysComMsgCreate does, and for a null repliedMessage ("AaSysComMsgCreateReply(): Parameter
 * repliedMessage is NULL"). */
void* AaSysComMsgCreateReply(TAaSysComMsgId messageId, TAaSysComMsgSize payloadSize,
                             const void* repliedMessage);
/* A copy of the whole message with the copy-cleared flag (bit 12) off. Returns null for a null
 * message ("AaSysComMsgCreateCopy(): Trying to copy NULL message"), without a Dispatcher, or when
 * the message port has no buffer. */
void* AaSysComMsgCreateCopy(const void* message);
/* As AaSysComMsgCreateCopy, with the receiver replaced. Null message: "AaSysComMsgCreateCopyTo():
 * Trying to copy NULL message". */
void* AaSysComMsgCreateCopyTo(const void* message, TAaSysComSicad receiver);
/* Returns the buffer to the Dispatcher and clears *messagePtr; a null address or handle does
 * nothing. Without a Dispatcher the buffer cannot be returned: that is logged and the handle is
 * cleared anyway. No result. */
void AaSysComMsgDestroy(void** messagePtr);
/* Replaces *messagePtr by a message of the new payload size holding the old header and as much of
 * the old payload as fits; the old buffer is freed. A trailer is not moved: it is lost. Refused,
 * with the message unchanged, for a null message ("AaSysComMsgSetPayloadSize(): NULL message"),
 * sizes from 65520 on ("... messagePayloadSize too high") and a failed allocation ("...
 * newMsg is NULL"). No result. */
void AaSysComMsgSetPayloadSize(void** messagePtr, TAaSysComMsgSize payloadSize);

/* Sends *messagePtr and clears the handle; the message belongs to the Dispatcher afterwards. The
 * receiver NIDs 0x0F01 (this node) and 0x0FF0 (the master node, from the tag
 * "olm.service.aasyscom.masternid" or else (own NID & 0xFF00) | 0x3D) are resolved first. A null
 * message is only logged ("AaSysComMsgSend(): Tried to send NULL msg"); a message without sender
 * ("AaSysComMsgSend(): Message sender not set.") or without a Dispatcher is destroyed. No result. */
void AaSysComMsgSend(void** messagePtr);
/* Sets the sender, then sends as AaSysComMsgSend. Returns 1 when the Dispatcher took the message
 * for delivery, 0 when it did not and on every refusal (null message, sender 0, no Dispatcher). */
int32_t AaSysComMsgSendS(void** messagePtr, TAaSysComSicad sender);
/* Sends as AaSysComMsgSend; priority is not written into the header (set it with
 * AaSysComMsgSetPriority before sending). No result. */
void AaSysComMsgSendWithPriority(void** messagePtr, uint32_t priority);
/* Sends as AaSysComMsgSend; there is one link only, so link is ignored. No result. */
void AaSysComMsgSendViaLink(void** messagePtr, TAaSysComLinkId link);
/* The old receiver becomes the sender, receiver the new receiver; then AaSysComMsgSend. Null
 * message: "AaSysComMsgForward(): message is NULL". No result. */
void AaSysComMsgForward(void** messagePtr, TAaSysComSicad receiver);
/* Only the receiver is replaced (the first sender stays); then AaSysComMsgSend. Null message:
 * "AaSysComMsgRelay(): message is NULL". No result. */
void AaSysComMsgRelay(void** messagePtr, TAaSysComSicad receiver);

/* ---- Byte order ---------------------------------------------------------------------------------- */

/* 1 when the payload is little-endian (APF 1 or 3), else 0. Null: logged, 0. */
uint32_t AaSysComIsHostAndMsgEndianSame(const void* message);
/* Trailer (if MEF is 3) and then header to big-endian, each as 32-bit words. A null message or a
 * trailer that does not fit the message is logged and nothing is converted. No result. */
void AaSysComMsgEnvelopeHostToBigEndian(void* message);
/* Header and then trailer (if MEF, read after the header, is 3) to host order. Failures as for
 * AaSysComMsgEnvelopeHostToBigEndian. No result. */
void AaSysComMsgEnvelopeBigEndianToHost(void* message);
/* Swaps every payload word and marks the payload big-endian words (APF 0), whatever it was. A
 * payload that is not a whole number of words is logged ("AaSysComWordOrientedMsgToBig():
 * payloadSize not correct !", EAaSysLogSeverityLevel_Error) and left. No result. */
void AaSysComWordOrientedMsgToBig(void* message);
/* Brings a big-endian word payload (APF 0) to host order and marks it APF 1. An APF 0 payload that
 * is not a whole number of words is destroyed (the handle is cleared) with the header logged; an
 * APF 1 one is only logged; 2-byte aligned payloads (APF 2, 3) are left to the application. Null
 * address or handle: logged. No result. */
void AaSysComWordOrientedMsgToHost(void** messagePtr);
/* AaSysComWordOrientedMsgToHost for a message that ends here: its receiver NID is this node's, or
 * the this-node placeholder 0x0F01 with a payload not in host order. Messages passing through are
 * left. Null address or handle: logged. No result. */
void AaSysComIfFinalTargetSwapToHost(void** messagePtr);
/* On a big-endian word message (APF 0), swaps ceil(numberOfBytes / 4) words from firstByte; other
 * formats are left. Null pointers or a zero count are logged, as are words that would run past the
 * end of the message firstByte points into. No result. */
void AaSysComEndBytesToHost(const void* message, void* firstByte, uint32_t numberOfBytes);
/* APF 0: swaps count 64-bit values from firstField; APF 1: nothing; APF 2, 3: logged ("message
 * not WORD-aligned"). Null pointers are logged, as are values that would run past the end of the
 * message firstField points into. No result. */
void AaSysComEnd64ToHost(const void* message, void* firstField, uint32_t count);
/* Swap count 16-, 32- or 64-bit values from firstField unconditionally. Null: logged. No result. */
void AaSysComEnd16Swap(void* firstField, uint32_t count);
void AaSysComEnd32Swap(void* firstField, uint32_t count);
void AaSysComEnd64Swap(void* firstField, uint32_t count);
/* Swaps ceil(length / 4) words from start unconditionally. Null pointers or zero length are
 * logged, as are words that would run past the end of the message start points into. No result. */
void AaSysComMsgByteStringSwap(const void* message, void* start, uint32_t length);
/* Exchanges the 4 bytes at start with the 4 that follow, keeping the byte order inside each.
 * Null: logged. No result. */
void AaSysComMsgSwapTwoConsecutiveWords(void* start);
/* The same for numOfPairs consecutive 8-byte pairs. Null or 0: logged. No result. */
void AaSysComMsgMultiSwapTwoConsecutiveWords(void* start, uint32_t numOfPairs);
/* Copy ceil(length / 4) words from source to destination, swapping each. The ranges are the same
 * or disjoint. Null pointers or zero length: logged. No result. */
void AaSysComSetRawData(void* destination, const void* source, uint32_t length);
/* The mirror image of AaSysComSetRawData: from its first argument to its second. No result. */
void AaSysComGetRawData(const void* source, void* destination, uint32_t length);

#ifdef __cplusplus
}
#endif

OLM_API_END

#endif /* OLM_AASYSCOM_H */
