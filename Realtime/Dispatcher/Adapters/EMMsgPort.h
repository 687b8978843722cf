// Olm::EMMsgPort: the Dispatcher's message port over the platform's event machine
// (libRHYDDAL.so), which owns the buffers, the per-node receive queues and the transport.
#pragma once

#include <cstddef>
#include <cstdint>

#include "EMRawEvents.h"
#include "IMsgPort.h"
#include "RhyddalPhysicalMemory.h"

namespace Olm {

class EMMsgPort : public IMsgPort {
 public:
  // The event machine's queue table, read by the out-of-buffers post-mortem.
  static constexpr uint32_t kQueueTablePhysical = RHYDDAL_QUEUE_TABLE_PHYSICAL;
  static constexpr uint32_t kQueueTableSize = RHYDDAL_QUEUE_TABLE_BYTES;
  static constexpr unsigned kQueueCount = RHYDDAL_QUEUE_COUNT;

  EMMsgPort() = default;

  // Attaches to the event machine as the node's server; returns 0 or a negative error code.
  int initialize(unsigned short ownNid, unsigned int cpu, unsigned short masterNid);

  // Never returns null: running out of buffers writes the post-mortem and aborts.
  void* allocMsg(size_t size) override;
  void freeMsg(void* msg) override;
  void* recvMsg() override;
  // A failed send frees the message; nothing is reported.
  void sendMsg(void* msg) override;
  void waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) override;

  // Entries waiting in one queue of a mapped queue table (first word of its 16-byte record).
  static unsigned int qlen(unsigned int* table, unsigned int queue);

  uint32_t getHandle() const { return m_handle; }
  uint32_t getOwnNid() const { return m_ownNid; }
  uint16_t getMasterNid() const { return m_masterNid; }

 private:
  [[noreturn]] void failOutOfBuffers();
  void dumpQueueTable();
  void dumpQueueHistory();

  uint32_t m_handle = 0;
  uint32_t m_ownNid = 0;
  uint16_t m_masterNid = 0;
};

}  // namespace Olm
