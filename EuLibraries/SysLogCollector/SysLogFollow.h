/* Following the system log through the log collector (libSysLogCollector.so, CPID 0x0601 on the
 * controller node): the messages a tool exchanges with it. README.md beside this header describes
 * the interface in prose.
 *
 * Every payload word is an unsigned 32-bit word in the message's byte order (the SysCom header's
 * APF); the text of a line follows the words as bytes, in the order they were written. */
#ifndef OLM_SYSLOGFOLLOW_H
#define OLM_SYSLOGFOLLOW_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SYSLOG_COLLECTOR_CPID 0x0601u /* where nodes send their lines, and followers their requests */
#define SYSLOG_LINE_MSG 0x0976u       /* node -> its group's collector: the line as text, NUL-terminated */

/* Message ids. Direction and payload in the comment. */
#define SYSLOG_FOLLOW_REQ_MSG 0x0977u    /* follower -> collector: count, then count node ids (0: every node) */
#define SYSLOG_FOLLOW_ACK_MSG 0x0978u    /* collector -> follower: status, node ids followed (0: every node), started */
#define SYSLOG_FOLLOW_LINE_MSG 0x0979u   /* collector -> follower: kind, node id, LTE time (2 words), text */
#define SYSLOG_FOLLOW_CANCEL_MSG 0x097Au /* follower -> collector: no payload; not answered */

/* A follower is known by the sender address of its request: a new request from the same address
 * replaces its selection. The acknowledgement's third word is 1 when the request started the
 * following (the address was not following), 0 when it renewed or changed it: a follower that
 * repeats its request now and then learns from a 1 that it had been dropped. At most this many
 * followers at once, and node ids per request. */
#define SYSLOG_FOLLOW_MAX_FOLLOWERS 16u
#define SYSLOG_FOLLOW_MAX_NIDS 64u

/* Statuses of SYSLOG_FOLLOW_ACK_MSG. Anything but OK: nothing is followed for that address. */
#define SYSLOG_FOLLOW_STATUS_OK 0u
#define SYSLOG_FOLLOW_STATUS_TOO_MANY_FOLLOWERS 1u
#define SYSLOG_FOLLOW_STATUS_MALFORMED 2u /* shorter than its count says, or no count at all */
#define SYSLOG_FOLLOW_STATUS_TOO_MANY_NIDS 3u

/* Kinds of SYSLOG_FOLLOW_LINE_MSG. A node's appearing or going has an empty text. */
#define SYSLOG_FOLLOW_KIND_LINE 0u
#define SYSLOG_FOLLOW_KIND_NODE_APPEARED 1u
#define SYSLOG_FOLLOW_KIND_NODE_GONE 2u

/* The words in front of a line's text. The LTE time is the collector's at arrival. */
typedef struct {
  uint32_t kind;
  uint32_t nid;
  uint32_t hyperFrameAndFrame; /* hyper frame << 16 | frame */
  uint32_t slotAndBasicTU;     /* slot << 16 | basic time unit */
} SSysLogFollowLineHeader;

#define SYSLOG_FOLLOW_LINE_HEADER_SIZE 16u
/* The longest text a follower gets, its terminating NUL included; longer lines are cut. */
#define SYSLOG_FOLLOW_MAX_TEXT_SIZE 4096u

#ifdef __cplusplus
}
#endif

#endif /* OLM_SYSLOGFOLLOW_H */
