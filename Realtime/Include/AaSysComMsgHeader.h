/* The SysCom message header: a wire format, identical on every word size.
 *
 * A message is one contiguous buffer: this 16-byte header, the payload and, when MEF is 3, an
 * 8-byte trailer counted in the total length. Fields are in the byte order the APF flags name
 * (host order, little-endian, for every message this node creates). Converting byte order treats
 * the header as four 32-bit words, so each 16-bit field is one half of such a word. */
#ifndef OLM_AASYSCOMMSGHEADER_H
#define OLM_AASYSCOMMSGHEADER_H

#include <stddef.h>
#include <stdint.h>

#include "OlmApi.h"

OLM_API_BEGIN

#ifdef __cplusplus
extern "C" {
#endif

typedef struct SAaSysComMsgHeader {
  uint16_t msgId;       /* low half of word 0 */
  uint16_t control;     /* high half of word 0; bits 10-11: priority */
  uint32_t receiver;    /* word 1: SIC address, NID in bits 16-31, CPID in bits 0-15 */
  uint32_t sender;      /* word 2: 0 until set; a message with sender 0 is never sent */
  uint16_t flags;       /* low half of word 3: MEF bits 0-1, APF bits 2-3, MTM bit 4 */
  uint16_t totalLength; /* high half of word 3: header + payload + trailer, in bytes */
} SAaSysComMsgHeader;

#define AASYSCOM_HEADER_SIZE 16u
#define AASYSCOM_TRAILER_SIZE 8u
#define AASYSCOM_NID_THIS_NODE 0x0F01u   /* receiver NID placeholder: this node */
#define AASYSCOM_NID_MASTER_NODE 0x0FF0u /* receiver NID placeholder: the master node */

/* Control half-word. */
#define AASYSCOM_PRIORITY_SHIFT 10u
#define AASYSCOM_PRIORITY_MASK 0x0C00u

/* Flags half-word. MEF: message envelope format; 3 means an 8-byte trailer ends the message. */
#define AASYSCOM_MEF_MASK 0x0003u
#define AASYSCOM_MEF_PLAIN 0u
#define AASYSCOM_MEF_RESERVED 1u
#define AASYSCOM_MEF_TRAILER 3u
/* APF: payload format. Bit 0 of the value: little-endian (host order); bit 1: only 2-byte aligned. */
#define AASYSCOM_APF_SHIFT 2u
#define AASYSCOM_APF_MASK 0x000Cu
#define AASYSCOM_APF_BIG_ENDIAN_WORDS 0u
#define AASYSCOM_APF_HOST_WORDS 1u
#define AASYSCOM_APF_LITTLE_ENDIAN_BIT 1u
#define AASYSCOM_APF_TWO_BYTE_BIT 2u
#define AASYSCOM_FLAGS_MTM 0x0010u
#define AASYSCOM_MTM_SHIFT 4u
/* Cleared in every copy of a message, never set by the message service. */
#define AASYSCOM_FLAGS_COPY_CLEARED 0x1000u

/* Trailer: the TTL byte is the least significant byte of the second trailer word (host order). */
#define AASYSCOM_TTL_PRESENT 0x01u
#define AASYSCOM_TTL_SHIFT 4u
#define AASYSCOM_TTL_KEEP_MASK 0x0Fu
#define AASYSCOM_TTL_ABSENT 15u /* what every TTL reader reports when there is no TTL */

/* The largest payload a message can be created with: total length 65535 still fits 16 bits. */
#define AASYSCOM_MAX_CREATE_PAYLOAD 65519u

#ifdef __cplusplus
}

static_assert(sizeof(SAaSysComMsgHeader) == 16, "SysCom header is 16 bytes");
static_assert(offsetof(SAaSysComMsgHeader, msgId) == 0, "SysCom header layout");
static_assert(offsetof(SAaSysComMsgHeader, control) == 2, "SysCom header layout");
static_assert(offsetof(SAaSysComMsgHeader, receiver) == 4, "SysCom header layout");
static_assert(offsetof(SAaSysComMsgHeader, sender) == 8, "SysCom header layout");
static_assert(offsetof(SAaSysComMsgHeader, flags) == 12, "SysCom header layout");
static_assert(offsetof(SAaSysComMsgHeader, totalLength) == 14, "SysCom header layout");
static_assert(alignof(SAaSysComMsgHeader) == 4, "SysCom header alignment");

namespace Olm {
inline SAaSysComMsgHeader* msgHeader(void* msg) { return static_cast<SAaSysComMsgHeader*>(msg); }
inline const SAaSysComMsgHeader* msgHeader(const void* msg) {
  return static_cast<const SAaSysComMsgHeader*>(msg);
}
inline uint16_t sicadNid(uint32_t sicad) { return static_cast<uint16_t>(sicad >> 16); }
inline uint16_t sicadCpid(uint32_t sicad) { return static_cast<uint16_t>(sicad & 0xFFFFu); }
}  // namespace Olm
#endif

OLM_API_END

#endif /* OLM_AASYSCOMMSGHEADER_H */
