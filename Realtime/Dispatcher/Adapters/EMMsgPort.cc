#include "EMMsgPort.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "OlmAssert.h"
#include "PhysicalMemory.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"
#include "RhyddalPhysicalMemory.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/EMMsgPort")

// Present only in the host replacement of the platform library.
extern "C" RHYDDAL_HOST_OPTIONAL int rhyddal_host_shm_name(const char* systemName, char* name, uint32_t size);

namespace {

constexpr unsigned kQueuesPerLine = 10;
constexpr size_t kLineBufferSize = 512;
constexpr unsigned kQueueHistoryRecords = RHYDDAL_QUEUE_HISTORY_RECORDS;
constexpr size_t kQueueHistoryRecordSize = RHYDDAL_QUEUE_HISTORY_RECORD_BYTES;
constexpr size_t kQueueHistorySize = RHYDDAL_QUEUE_HISTORY_BYTES;
static_assert(kQueueHistorySize == 51200, "the queue history is 100 lines of 512 bytes");
constexpr size_t kShmNameSize = 256;
constexpr unsigned kEventHeaderSize = 8;
constexpr uint8_t kEventHeaderType = 2;

}  // namespace

extern "C" int olm_lite_em_server_init(unsigned short nid, unsigned int cpu, uint32_t* handle) {
  return vak_em_server_init(nid, cpu, 0, handle);
}

extern "C" int olm_lite_em_add_test_route(unsigned int kind, unsigned int from, unsigned int to, unsigned int arg) {
  return vak_em_add_test_route(kind, from, to, arg);
}

namespace Olm {

int EMMsgPort::initialize(unsigned short ownNid, unsigned int cpu, unsigned short masterNid) {
  m_ownNid = ownNid;
  m_masterNid = masterNid;
  return olm_lite_em_server_init(ownNid, cpu, &m_handle);
}

void* EMMsgPort::recvMsg() { return vakem_receive(m_ownNid); }

void EMMsgPort::freeMsg(void* msg) {
  if (msg != nullptr) vakem_free(msg);
}

void EMMsgPort::waitForNextEvent(unsigned int seconds, unsigned int nanoseconds) {
  vakem_wait_for_event(seconds, nanoseconds);
}

void EMMsgPort::sendMsg(void* msg) {
  if (msg == nullptr) return;
  const uint32_t receiver = msgHeader(msg)->receiver;
  const bool localUnreliable = AaSysComMsgGetMtm(msg) == 1 && sicadNid(receiver) == m_masterNid;
  const int result = localUnreliable ? vakem_send_local_unreliable(msg) : vakem_send(msg, receiver);
  // A refused send drops the message silently: the sender has no way to be told.
  if (result != 0) vakem_free(msg);
}

void* EMMsgPort::allocMsg(size_t size) {
  void* buffer = vakem_alloc(static_cast<uint32_t>(size));
  if (buffer != nullptr) return buffer;
  failOutOfBuffers();
}

unsigned int EMMsgPort::qlen(unsigned int* table, unsigned int queue) { return table[queue * 4]; }

// Out of message buffers: a post-mortem of the event machine's queues goes to the system log, then
// the process ends. There is no null return to callers.
void EMMsgPort::failOutOfBuffers() {
  const int error = errno;
  openlog("LiteErr", LOG_PID, LOG_USER);
  syslog(LOG_ERR, "OLMLite: Alloc message returned NULL, dumping EM queues: Errno %d", error);
  dumpQueueTable();
  dumpQueueHistory();
  closelog();
  OLM_ASSERT_TEXT(false, "buffer!=NULL");
  std::abort();
}

void EMMsgPort::dumpQueueTable() {
  const int fd = open(physicalMemoryDevice(), O_RDWR | O_SYNC);
  void* mapping = fd >= 0 ? mmap(nullptr, kQueueTableSize, PROT_READ, MAP_SHARED, fd, kQueueTablePhysical) : MAP_FAILED;
  void* qpeek = mapping == MAP_FAILED ? nullptr : mapping;
  OLM_ASSERT(qpeek != 0);
  syslog(LOG_ERR, "OLMLiteExe: EM at time of crash - Queue[Entries]");
  char line[kLineBufferSize] = "";
  size_t used = 0;
  unsigned queuesInLine = 0;
  for (unsigned queue = 0; queue < kQueueCount; ++queue) {
    const unsigned entries = qlen(static_cast<unsigned int*>(qpeek), queue);
    if (entries == 0) continue;
    const int written = std::snprintf(line + used, sizeof(line) - used, "%d[%d] ", queue, entries);
    if (written > 0) used = std::min(sizeof(line) - 1, used + static_cast<size_t>(written));
    if (++queuesInLine == kQueuesPerLine) {
      syslog(LOG_ERR, "%s", line);
      line[0] = '\0';
      used = 0;
      queuesInLine = 0;
    }
  }
  syslog(LOG_ERR, "%s", line);
  munmap(qpeek, kQueueTableSize);
  close(fd);
}

// The system's fixed name, unless the host library keeps the object under another one.
void EMMsgPort::dumpQueueHistory() {
  char name[kShmNameSize] = RHYDDAL_QUEUE_HISTORY_NAME;
  if (rhyddal_host_shm_name != nullptr && rhyddal_host_shm_name(RHYDDAL_QUEUE_HISTORY_NAME, name, sizeof(name)) != 0) {
    std::snprintf(name, sizeof(name), "%s", RHYDDAL_QUEUE_HISTORY_NAME);
  }
  const int fd = shm_open(name, O_RDWR, 0666);
  OLM_ASSERT_TEXT(fd >= 0, "buffer!=NULL");
  void* ptr = mmap(nullptr, kQueueHistorySize, PROT_READ, MAP_SHARED, fd, 0);
  OLM_ASSERT(ptr != MAP_FAILED);
  syslog(LOG_ERR, "OLMLiteExe: Periodic EM History - Queue[Entries]");
  const char* records = static_cast<const char*>(ptr);
  for (unsigned record = 0; record < kQueueHistoryRecords; ++record) {
    char line[kQueueHistoryRecordSize + 1];
    std::memcpy(line, records + record * kQueueHistoryRecordSize, kQueueHistoryRecordSize);
    line[kQueueHistoryRecordSize] = '\0';
    syslog(LOG_ERR, "%s", line);
  }
  munmap(ptr, kQueueHistorySize);
  close(fd);
}

// ---------------------------------------------------------------------------------------------
// Raw events

unsigned int em_alloc(unsigned int size, unsigned int type, unsigned int pool) {
  return vakem_alloc_direct(size, type, pool);
}

void em_free(unsigned int event) { vakem_free(::em_event_pointer(event)); }

int em_send(unsigned int event, unsigned int receiver) { return vakem_send_direct(event, receiver); }

void* em_event_pointer(unsigned int event) { return ::em_event_pointer(event); }

void* EmSwEventPrepare(unsigned int event, unsigned short msgId) {
  auto* data = static_cast<uint8_t*>(::em_event_pointer(event));
  const uint8_t header[kEventHeaderSize] = {0, kEventHeaderType, static_cast<uint8_t>(msgId >> 8),
                                            static_cast<uint8_t>(msgId & 0xFF), 0, 0, 0, 0};
  std::memcpy(data, header, sizeof(header));
  return data;
}

void* EmSwEventGetPayload(unsigned int event) {
  return static_cast<uint8_t*>(::em_event_pointer(event)) + kEventHeaderSize;
}

unsigned short EmSwEventGetMessageId(unsigned int event) {
  const auto* data = static_cast<const uint8_t*>(::em_event_pointer(event));
  return static_cast<unsigned short>(data[2] * 256 + data[3]);
}

}  // namespace Olm
