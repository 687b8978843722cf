#include "TrivialLog.h"

#include <cstdint>
#include <cstring>

#include "AaSysComMsgHeader.h"
#include "FormatArguments.h"
#include "MsgNameCatalogue.h"

namespace Olm {

void TrivialLog::putTime(LteTime time) {
  LteTime::SLteTime parts;
  time.vector(parts);
  std::fprintf(m_out, "[%04d,%04d,%02d,%05d] ", parts.hyperFrame, parts.frame, parts.slot, parts.basicTimeUnit);
}

void TrivialLog::vlogf(unsigned int, const char* format, va_list args) {
  m_lastTime = m_timeSource->getLTETime();
  putTime(m_lastTime);
  std::vfprintf(m_out, format, args);
  const size_t length = std::strlen(format);
  if (length == 0 || format[length - 1] != '\n') std::fputc('\n', m_out);
}

void TrivialLog::vlogfString(const char* format, va_list args) { vlogf(0, format, args); }

void TrivialLog::vlogfMessage(unsigned int count, const char* format, va_list args) {
  putTime(m_timeSource->getLTETime());
  va_list formatArgs;
  va_copy(formatArgs, args);
  std::vfprintf(m_out, format, formatArgs);
  va_end(formatArgs);
  // The message is the count-th argument, after the count - 1 that the format reads.
  void* msg = nullptr;
  if (count > 0) {
    va_list rest;
    va_copy(rest, args);
    skipFormatArguments(format, count - 1, &rest);
    msg = va_arg(rest, void*);
    va_end(rest);
  }
  if (msg == nullptr) {
    std::fputc('\n', m_out);
    return;
  }
  const SAaSysComMsgHeader* header = msgHeader(msg);
  std::fprintf(m_out, " {MsgId: %04x Target: %08x Source: %08x} (%s)\n", header->msgId, header->receiver,
               header->sender, msgNameLookup(header->msgId));
}

}  // namespace Olm
