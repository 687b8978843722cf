// Olm::HistoryLog: the Dispatcher's normal log. It never formats on the hot path: a line or a
// message event becomes one 88-byte record (HistoryRecord.h) of a ring in RAM, holding the time,
// the format and the raw arguments. The ring is the RAM file "<nid>_HistoryLog.bin";
// Olm::outputHistoryLog (HistoryLogDump.h) turns it into text.
//
// Only the Dispatcher's thread writes records; nothing is locked, so a reader of the RAM file may
// see a record half written. Misuse prints one line to standard output and stores nothing.
#pragma once

#include <cstdint>

#include "AaFile.h"
#include "HistoryRecord.h"
#include "ILog.h"
#include "ITimeSource.h"
#include "LteTime.h"

namespace Olm {

class HistoryLog : public ILog {
 public:
  static constexpr uint32_t kDefaultSize = 0x200000;  // bytes: 23831 records
  // Text formatted by vlogfString, and by the lines of a log not yet initialised.
  static constexpr unsigned kTextAreaSize = 2048;

  HistoryLog() = default;
  // The node's log lives as long as the process. Another one (tests) withdraws its RAM file and
  // frees its ring.
  ~HistoryLog() override;
  HistoryLog(const HistoryLog&) = delete;
  HistoryLog& operator=(const HistoryLog&) = delete;

  // The ring's size in bytes (--logsize); 0 means kDefaultSize. Before initHistoryLog only.
  void setHistoryLogSize(unsigned int size) { m_size = size; }
  // Allocates the ring (never freed), prints its address and registers it as the RAM file name,
  // with the configured size as its length. A registration that fails is reported; the log is
  // usable all the same.
  void initHistoryLog(const char* name);
  void setItsITimeSource(ITimeSource* timeSource) { m_timeSource = timeSource; }

  // A line of at most 11 arguments.
  void vlogf(unsigned int count, const char* format, va_list args) override;
  // Formatted at once and stored as chunks of 60 characters: for rare lines.
  void vlogfString(const char* format, va_list args) override;
  // count 1 to 6: count - 1 arguments, then the message (which a last %p of the format prints);
  // its id, receiver and sender are copied so that the dump does not need the message.
  void vlogfMessage(unsigned int count, const char* format, va_list args) override;
  // The same record as vlogfMessage makes of the operation trace, written directly: the trace
  // runs several times for every message with --verbose.
  void logMsgOperation(unsigned int cpid, const char* operation, void* msg) override;

  // "[hyper frame,frame,slot,basic time unit] " to standard output.
  void putTime(LteTime time);

  // The RAM file's lock and unlock callbacks: readers take no lock of the writer.
  static EAaFileCallbackAction lockFn(void*) { return EAaFileCallbackAction_Ok; }
  static EAaFileCallbackAction unlockFn(void*) { return EAaFileCallbackAction_Ok; }

  const history::SHistoryRecord* getBuffer() const { return m_buffer; }
  uint32_t getCapacity() const { return m_capacity; }
  uint32_t getSize() const { return m_size; }
  uint32_t getOldest() const { return m_oldest; }
  uint32_t getNext() const { return m_next; }
  const LteTime& getLastTime() const { return m_lastTime; }

 private:
  // Stamps the record at next with the time, type and count.
  history::SHistoryRecord& startRecord(uint16_t type, uint16_t count);
  // The same, with the format and the first stored arguments of args.
  history::SHistoryRecord& startRecord(uint16_t type, unsigned count, const char* format,
                                       const history::ArgumentLayout& layout, unsigned stored, va_list* args);
  // Moves next on; the newest record overwrites the oldest.
  void commitRecord();
  static void storeMessage(uint32_t* at, const void* msg);
  void storeTextChunks(const char* text);

  static constexpr unsigned kFileNameSize = 256;

  history::SHistoryRecord* m_buffer = nullptr;
  uint32_t m_capacity = 0;
  uint32_t m_size = 0;
  uint32_t m_oldest = 0;
  uint32_t m_next = 0;
  ITimeSource* m_timeSource = nullptr;
  LteTime m_lastTime;
  history::ArgumentLayoutCache m_layouts;
  char m_fileName[kFileNameSize] = {};  // empty unless registered
};

}  // namespace Olm
