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

/* Attaches this process to the event machine as the server of node nid, bound to cpu.
 * Writes the transport handle. Returns 0, or a negative errno-style code. */
int vak_em_server_init(uint32_t nid, uint32_t cpu, uint32_t flags, uint32_t* handle);

/* Installs a route for tests. kind 1: a loop-back, so that whatever this process sends to a node id
 * in from..to comes back into its own receive queue. Returns 0, or a negative code. */
int vak_em_add_test_route(uint32_t kind, uint32_t from, uint32_t to, uint32_t arg);

/* A message buffer of at least size bytes, or null when the process is out of buffers. */
void* vakem_alloc(uint32_t size);

/* A raw event of size bytes; returns its handle (0: none). type and pool are carried, not used. */
uint32_t vakem_alloc_direct(uint32_t size, uint32_t type, uint32_t pool);

/* Releases a buffer (or a raw event's data). Null, and a buffer the platform already owns (one
 * just sent, or already freed), are ignored. */
void vakem_free(void* buffer);

/* The next message for node nid, or null. Costs no system call when the queue is empty. */
void* vakem_receive(uint32_t nid);

/* Sends the message (total length from its header) to the node and CPID of receiver. On 0 the
 * platform owns the buffer; on failure (no such node, its queue full, a header length the buffer
 * cannot hold) the caller still owns it. Never blocks. */
int vakem_send(void* message, uint32_t receiver);

/* Sends to the master node by the local, unacknowledged path; the receiver is taken from the
 * message header. Same result convention as vakem_send. */
int vakem_send_local_unreliable(void* message);

/* Sends a raw event to the node in the high half of receiver. Same result convention. */
int vakem_send_direct(uint32_t event, uint32_t receiver);

/* Blocks until a message arrives for this node or the time has passed; seconds 0xFFFFFFFF waits
 * without limit. Returns 0 when woken by an event, 1 on time-out. */
int vakem_wait_for_event(uint32_t seconds, uint32_t nanoseconds);

/* The data address of a raw event, or null for an unknown handle. */
void* em_event_pointer(uint32_t event);

/* The radio clock: *counter gets the frame counter (bits 0-9 frame, bits 10-19 hyper frame),
 * *fine the position within the frame in 1/40 basic time units. Null outputs are skipped.
 * Returns 0, or non-zero when the clock cannot be read. */
int ddal_sfn_get_bcn(unsigned long long* counter, uint32_t* fine, uint32_t flags);

#ifdef __cplusplus
}
#endif

#endif /* RHYDDAL_H */
