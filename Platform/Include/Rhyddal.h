/* The C interface of the node's event-machine and driver library, libRHYDDAL.so.
 *
 * On the board the closed library provides these functions; on a development host our own
 * replacement (Platform/Host) does. The runtime links to the library by name only, so either can
 * be put under it without rebuilding the runtime. Event-machine buffers handed out here hold one
 * SysCom message each: 16-byte header (id, control, receiver, sender, flags, total length at
 * offset 14), payload, optional trailer. */
#ifndef RHYDDAL_H
#define RHYDDAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Attaches this process to the event machine as the server of node nid (0..0xFFFF): creates the
 * node's receive queue and pins the calling thread to cpu when this process may run there (any
 * other cpu value leaves the thread unpinned). The calling thread stays the node's server for its
 * life; when it ends, other nodes see the node as gone. Writes a non-zero transport handle.
 * flags are not used. Returns:
 *   0             attached
 *   -EINVAL       handle is null, nid does not fit 16 bits, or (host) RHYDDAL_NAMESPACE is not
 *                 a valid namespace
 *   -EALREADY     this process already serves a node
 *   -EADDRINUSE   a live process serves nid (a dead one's queue is replaced silently)
 *   -ENOTSUP      (host) the C library's mutex is not laid out as the liveness probe needs
 *   other < 0     the negated errno of a failed shared-memory call */
int vak_em_server_init(uint32_t nid, uint32_t cpu, uint32_t flags, uint32_t* handle);

/* Installs a route for tests. kind 1: a loop-back, so that whatever this process sends to a node id
 * in from..to comes back into its own receive queue (sends on it fail with -ENOTCONN until
 * vak_em_server_init). arg is not used. Returns:
 *   0             installed
 *   -EINVAL       kind is not 1, from > to, or to does not fit 16 bits
 *   -ENOSPC       the process already has 16 routes */
int vak_em_add_test_route(uint32_t kind, uint32_t from, uint32_t to, uint32_t arg);

/* A message buffer of at least size bytes, or null when the process is out of buffers (the pool
 * is bounded by RHYDDAL_POOL_BYTES) or size exceeds the largest buffer (65535 plus headroom). */
void* vakem_alloc(uint32_t size);

/* A raw event of size bytes; returns its handle, or 0 when no buffer or handle is left.
 * type and pool are not used. */
uint32_t vakem_alloc_direct(uint32_t size, uint32_t type, uint32_t pool);

/* Releases a buffer (or a raw event's data, which also ends its handle). Null is ignored. The
 * first free of a buffer just sent is expected (a sender that frees what it has sent) and is
 * harmless and silent. Any other free of a buffer that is not the caller's (already free, sent
 * and freed once already, no buffer of this process) is refused with a line on stderr. */
void vakem_free(void* buffer);

/* The next message for node nid, or null when none is waiting or nid is not the node this
 * process serves. Costs no system call when the queue is empty. The caller owns the message and
 * releases it with vakem_free. */
void* vakem_receive(uint32_t nid);

/* Sends the message (total length from its header) to the node and CPID of receiver. On 0 the
 * platform owns the buffer; on failure the caller still owns it. Never blocks. Returns:
 *   0                 queued at the receiving node
 *   -EINVAL           message is null or not a buffer of this process in use, or (host, with a
 *                     node map) receiver is on another host and the header names another node
 *   -EMSGSIZE         the header's total length is below 16 or beyond the buffer's capacity
 *   -EHOSTUNREACH     no node runs at the receiver's node id (host, with a node map: or none
 *                     that this host's bridge can reach on the host the map places it on)
 *   -ENOBUFS          the receiving node's queue is full (host: this sender's lane there is
 *                     full, or the node has no lane left for another sending process)
 *   -ENOTCONN         a loop-back route or the own node id, before vak_em_server_init
 *   -EPROTO           the receiving node's queue was made by an incompatible build, or (host)
 *                     this sender's lane there is damaged
 *   other < 0         the negated errno of a failed shared-memory call */
int vakem_send(void* message, uint32_t receiver);

/* Sends to the master node by the local, unacknowledged path; the receiver is taken from the
 * message header (offset 4). Same results as vakem_send. */
int vakem_send_local_unreliable(void* message);

/* Sends a raw event's bytes (its allocated size) to the node in the high half of receiver; on
 * 0 the handle ends and the platform owns the buffer. The bytes must start with a SysCom header
 * whose total length does not exceed that size, or the receiving node drops them. Same results as
 * vakem_send, with -EINVAL for an unknown handle and -EMSGSIZE for an event below 16 bytes. */
int vakem_send_direct(uint32_t event, uint32_t receiver);

/* Blocks until a message arrives for this node or the time has passed; seconds 0xFFFFFFFF waits
 * without limit. The host library polls for a short while first after a wait that ended with a
 * message (RHYDDAL_SPIN_US), and sleeps otherwise. Returns 0 when a message is waiting, 1 on
 * time-out (and at once, with a line on stderr, in a process that serves no node). */
int vakem_wait_for_event(uint32_t seconds, uint32_t nanoseconds);

/* The data address of a raw event, or null for an unknown handle. */
void* em_event_pointer(uint32_t event);

/* The radio clock: *counter gets the frame counter (bits 0-9 frame, bits 10-19 hyper frame),
 * *fine the position within the frame in 1/40 basic time units (below 12288000). Null outputs
 * are skipped; flags are not used. Returns 0, or non-zero when the clock cannot be read (the host
 * library's clock, CLOCK_MONOTONIC at 30.72 MHz, always can). */
int ddal_sfn_get_bcn(unsigned long long* counter, uint32_t* fine, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* RHYDDAL_H */
