// Olm::TrivialLog: the log that prints every line to standard output at once, stamped with LTE
// time. The Dispatcher logs through it until (and unless) the history log takes over.
#pragma once

#include <cstdio>

#include "ILog.h"
#include "ITimeSource.h"
#include "LteTime.h"

namespace Olm {

class TrivialLog : public ILog {
 public:
  TrivialLog() = default;
  // Where the lines go; standard output unless a test says otherwise.
  explicit TrivialLog(std::FILE* out) : m_out(out) {}

  // Must be called before the first log call.
  void setItsITimeSource(ITimeSource* timeSource) { m_timeSource = timeSource; }

  // count is ignored: the text is printed at once. A line feed is added when the format lacks one.
  void vlogf(unsigned int count, const char* format, va_list args) override;
  void vlogfString(const char* format, va_list args) override;
  // The line, then " {MsgId: .. Target: .. Source: ..} (name)" of the message in the last argument.
  void vlogfMessage(unsigned int count, const char* format, va_list args) override;

  // "[hyper frame,frame,slot,basic time unit] "
  void putTime(LteTime time);

  const LteTime& getLastTime() const { return m_lastTime; }

 private:
  ITimeSource* m_timeSource = nullptr;
  LteTime m_lastTime;
  std::FILE* m_out = stdout;
};

}  // namespace Olm
