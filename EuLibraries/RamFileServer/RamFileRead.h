/* Reading the RAM files of a host's nodes from anywhere through the host's RAM file server
 * (libRamFileServer.so, CPID 0x0607, loaded by olm-controller): the messages a tool exchanges with
 * it. README.md beside this header describes the interface in prose.
 *
 * The server of node nid is reached at the node id ending in D of nid's group,
 * (nid & 0xFFF0) | 0xD, where the controller of nid's host takes the alias.
 *
 * Every word is an unsigned 32-bit word in the message's byte order (the SysCom header's APF); a
 * file name and a file's bytes follow the words as bytes, in the order they were written. A sender
 * in the other byte order marks its request 2-byte aligned (APF 2), which the Dispatcher leaves as
 * it came: it swaps every word of a big-endian word payload (APF 0), and with it the name's bytes. */
#ifndef OLM_RAMFILEREAD_H
#define OLM_RAMFILEREAD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define RAMFILE_SERVER_CPID 0x0607u
#define RAMFILE_SERVER_GROUP_MASK 0xFFF0u
#define RAMFILE_SERVER_DIGIT 0x000Du /* the last hexadecimal digit of the server's node id */

/* Message ids. Direction and payload in the comment. */
#define RAMFILE_READ_REQ_MSG 0x097Cu   /* tool -> server: SRamFileReadReq, then the file name */
#define RAMFILE_READ_REPLY_MSG 0x097Du /* server -> the request's sender: SRamFileReadReply, then the bytes */

/* The request: which node's file, from where and how much. The name follows the words,
 * NUL-terminated, a plain file name of the node's RAM files ("olmliteStatsRaw.bin"): no '/', not
 * "." or "..", at most RAMFILE_READ_MAX_NAME_SIZE bytes with its NUL. Bytes after the NUL are
 * ignored. */
typedef struct {
  uint32_t nid;
  uint32_t offset;
  uint32_t largestChunk; /* the most bytes wanted; the server sends at most RAMFILE_READ_MAX_CHUNK */
} SRamFileReadReq;

#define RAMFILE_READ_REQ_HEADER_SIZE 12u
#define RAMFILE_READ_MAX_NAME_SIZE 100u

/* The reply, from the address the request was sent to. The chunk is the file's bytes from offset
 * on, at most what the request wanted, fewer at the file's end (none from its end on). status is 0
 * or a positive errno: EINVAL for a malformed request (node id, offset and the rest 0 where the
 * request did not hold them), ENOENT when the node has no such file on this host, EBUSY when two
 * reads of the node's files (or 32 in all) have not finished (a node that is stopped), or why the
 * file could not be read; a reply that is not 0 carries no bytes. The file's size is the size when this
 * chunk was read: a reader of several chunks starts again when it changes. */
typedef struct {
  uint32_t status;
  uint32_t nid;
  uint32_t fileSize;
  uint32_t offset;
  uint32_t chunkLength;
} SRamFileReadReply;

#define RAMFILE_READ_REPLY_HEADER_SIZE 20u
/* 60 KiB: a whole reply stays within a message's 65535 bytes. */
#define RAMFILE_READ_MAX_CHUNK 61440u

#ifdef __cplusplus
}
#endif

#endif /* OLM_RAMFILEREAD_H */
