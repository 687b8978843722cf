/* The node's physical memory as the runtime maps it: the baseband's timing register page, the
 * event machine's queue table, and the event machine's queue history object.
 *
 * One definition for both sides: the runtime reads these (the time source, the out-of-buffers
 * post-mortem), and the host replacement of libRHYDDAL.so emulates them on a development host.
 * Offsets are physical addresses on the board; on a host they are offsets into the file that the
 * host library offers as physical memory (RhyddalHost.h). All words are 32 bits, host order. */
#ifndef RHYDDAL_PHYSICAL_MEMORY_H
#define RHYDDAL_PHYSICAL_MEMORY_H

/* Timing register page: 4096 bytes of 32-bit words. */
#define RHYDDAL_TIMING_PAGE_PHYSICAL 0x1F48000u
#define RHYDDAL_TIMING_PAGE_BYTES 4096u
/* CDMA counter, low and high word. The reader takes high, then low, and reads again while high
 * changed, as the board's registers are read; a writer must change the pair in one store. */
#define RHYDDAL_TIMING_WORD_CDMA_LOW 17u
#define RHYDDAL_TIMING_WORD_CDMA_HIGH 18u
/* LTE symbol counter, read in simulation mode: symbols since frame 0 of a cycle of 4096 frames of
 * 10 subframes of 14 symbols, so always below RHYDDAL_LTE_SYMBOL_RANGE. */
#define RHYDDAL_TIMING_WORD_LTE_SYMBOL 34u
#define RHYDDAL_LTE_SYMBOLS_PER_FRAME 140u
#define RHYDDAL_LTE_SYMBOL_RANGE (4096u * 10u * 14u)

/* Queue table: one 16-byte record per event-machine queue. The runtime reads word 0 only (messages
 * waiting); the host library also fills word 1 (node id), word 2 (ring bytes in use) and word 3
 * (ring size) of a node's record, at index nid & (RHYDDAL_QUEUE_COUNT - 1). */
#define RHYDDAL_QUEUE_TABLE_PHYSICAL 0x2A40000u
#define RHYDDAL_QUEUE_TABLE_BYTES 0x40000u
#define RHYDDAL_QUEUE_RECORD_BYTES 16u
#define RHYDDAL_QUEUE_RECORD_WORDS 4u
#define RHYDDAL_QUEUE_COUNT (RHYDDAL_QUEUE_TABLE_BYTES / RHYDDAL_QUEUE_RECORD_BYTES)
#define RHYDDAL_QUEUE_WORD_WAITING 0u
#define RHYDDAL_QUEUE_WORD_NID 1u
#define RHYDDAL_QUEUE_WORD_USED_BYTES 2u
#define RHYDDAL_QUEUE_WORD_RING_BYTES 3u

/* Everything above, in one range from physical address 0. */
#define RHYDDAL_PHYSICAL_MEMORY_BYTES (RHYDDAL_QUEUE_TABLE_PHYSICAL + RHYDDAL_QUEUE_TABLE_BYTES)

/* Queue history: a POSIX shared-memory object of 100 text records of 512 bytes (each a line,
 * NUL-padded), one written per second as a ring. */
#define RHYDDAL_QUEUE_HISTORY_NAME "EM_QUEUE_HIST"
#define RHYDDAL_QUEUE_HISTORY_RECORDS 100u
#define RHYDDAL_QUEUE_HISTORY_RECORD_BYTES 512u
#define RHYDDAL_QUEUE_HISTORY_BYTES (RHYDDAL_QUEUE_HISTORY_RECORDS * RHYDDAL_QUEUE_HISTORY_RECORD_BYTES)

#endif /* RHYDDAL_PHYSICAL_MEMORY_H */
