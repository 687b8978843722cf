// Olm::MsgFilterLog: the Dispatcher's message operations, chosen by message id, as text in a RAM
// buffer published as the RAM file "<node id in hex>_MsgFilterLog.log".
//
// Each logged operation appends one entry (the file is a sequence of entries, zero-filled after
// the last):
//
//   "\n[op:Send][14:03:27.123456][0012,0345,07,01234]{Id:0a01 Target:10120700 Sender:10110700
//   Flags:0004} (UNKNOWN,len:12)\n"                       (one line: the header line)
//   "START:\n0a01000010120700101107000004001c\n"         (mode 1, operations "I..." and "S..." only:
//   "0100000041b1d16740e20100\n:END\n"                    the header words, then the payload bytes
//                                                          in hex, a line feed after every 16th)
//
// The header line carries the operation, the wall clock (local time, microseconds), the LTE time,
// the header fields, the name from the message-name catalogue and the payload size. The dump shows
// the six header fields in wire order (id, control, receiver, sender, flags, total length).
//
// The buffer does not wrap entry by entry: when an entry does not fit behind the last, the whole
// buffer is zeroed and the entry written at offset 0, and the next entry overwrites it. So the file
// holds what fitted since the last wrap, and right after a wrap only the newest entry. Readers
// never need to find a start: the file always begins with an entry.
//
// One entry is formatted in a text area of MinimumSize bytes and cut there (at MinimumSize - 1
// characters): the dump of a payload above about 63.5 KiB loses its end and its END line. Payloads
// above MaxLoggedPayload bytes are not logged at all.
//
// Bounds: only the header and the payload the header's total length covers are read; a message
// whose total length is too short for its envelope (payload size wrapping) is not logged. The
// buffer must hold the total length its header claims, which every buffer of the runtime does
// (created messages are sized from it; the transport hands over a message only when its total
// length equals the bytes that arrived).
//
// Threads: logging runs on the Dispatcher's thread; the RAM file service thread reads the buffer
// without a lock (the callbacks are no-ops), so a reader may see the newest entry half written.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "AaFile.h"
#include "AaSysCom.h"
#include "FormatArguments.h"
#include "ILog.h"
#include "ITimeSource.h"
#include "LteTime.h"

namespace Olm {

class MsgFilterLog : public IMsgFilterLog {
 public:
  static constexpr uint32_t DefaultSize = 0x200000;
  // The smallest buffer, and the text area one entry is formatted in.
  static constexpr uint32_t MinimumSize = 0x200A0;
  static constexpr unsigned MaxFilterIds = 24;
  static constexpr uint32_t MaxLoggedPayload = AASYSCOM_MAX_PAYLOAD;
  // The most arguments a call may have, the message included.
  static constexpr unsigned MaxArguments = 6;

  enum Mode : uint32_t {
    ModeDisabled = 0,
    ModeHeaderAndDump = 1,  // the header line, and the dump for "I..." and "S..." operations
    ModeHeaderOnly = 2,     // so is every other non-zero mode
  };

  MsgFilterLog() = default;
  // Removes the RAM file and frees the buffer.
  ~MsgFilterLog() override;
  MsgFilterLog(const MsgFilterLog&) = delete;
  MsgFilterLog& operator=(const MsgFilterLog&) = delete;

  // Bytes of the buffer; 0 means DefaultSize, smaller non-zero sizes become MinimumSize. Takes
  // effect at initMsgFilterLog.
  void setMsgFilterLogSize(unsigned int size) { m_size = size; }
  // The message ids to log, as a comma-separated list, each in C notation ("0x" hexadecimal, a
  // leading 0 octal, else decimal); replaces the list of an earlier call. Silently dropped: pieces
  // that are not wholly a number, the id 0, repeats of an id already listed, and everything after
  // the MaxFilterIds-th id kept. An empty list (or null) logs every message. The text is not changed.
  void setMsgFilterIds(const char* text);
  void setMode(uint32_t mode) { m_mode = mode; }

  // Sizes, allocates (zeroed) and registers the buffer as the RAM file name. A registration that
  // fails prints "init: problem with ramfs"; the log still logs into its buffer. Once only.
  void initMsgFilterLog(const char* name);
  void setItsITimeSource(ITimeSource* timeSource) { m_timeSource = timeSource; }

  // One operation: count arguments follow the format, the message last. The operation named in
  // the entry is the argument just before the message when the format prints it with %s (the
  // Dispatcher's "(%04x)->%s(%p)" with its CPID, operation and message), else the format itself.
  // A count outside 1..MaxArguments prints "MsgFilLog: Incorrect number of args" and logs nothing;
  // a null message, a message not in the list, a payload too large and a log not yet initialised
  // are skipped silently.
  void vlogfMessage(unsigned int count, const char* format, va_list args) override;
  // False only for a message whose id the list lacks: nothing else is decided before the call.
  bool wantsMessage(const void* msg) const override;

  // The RAM file's callbacks: the buffer is read without a lock.
  static EAaFileCallbackAction lockFn(void* context);
  static EAaFileCallbackAction unlockFn(void* context);

  // State, for tests and diagnostics.
  const char* getBuffer() const { return m_buffer.get(); }
  uint32_t getSize() const { return m_size; }
  uint32_t getWriteOffset() const { return m_writeOffset; }
  unsigned getFilterCount() const { return m_filterCount; }
  uint32_t getFilterId(unsigned index) const { return m_filterIds[index]; }

 private:
  // The argument types of the last format seen. The Dispatcher passes the same literal on every
  // call, so the common path reads its arguments without walking the format.
  struct CallShape {
    const char* format = nullptr;
    unsigned count = 0;
    FormatArgument arguments[MaxArguments - 1] = {};
    bool operationIsText = false;  // the argument before the message is a %s
  };

  void learnShape(unsigned count, const char* format);
  bool isListed(uint16_t msgId) const;
  uint32_t formatEntry(const char* operation, const void* msg, uint16_t payloadSize);
  void append(uint32_t length);

  struct FreeBuffer {
    void operator()(char* buffer) const { std::free(buffer); }
  };

  std::unique_ptr<char, FreeBuffer> m_buffer;
  std::unique_ptr<char[]> m_entryText;  // MinimumSize bytes
  uint32_t m_writeOffset = 0;
  uint32_t m_size = 0;
  uint32_t m_filterIds[MaxFilterIds] = {};
  unsigned m_filterCount = 0;
  uint32_t m_mode = ModeDisabled;
  ITimeSource* m_timeSource = nullptr;
  LteTime m_lastTime;
  CallShape m_shape;
  bool m_registered = false;
  char m_fileName[256] = "";
};

}  // namespace Olm
