// An ILog for unit tests that formats every line at once and keeps it.
#pragma once

#include <string>
#include <vector>

#include "ILog.h"

namespace OlmTest {

class CapturingLog : public Olm::ILog, public Olm::IMsgFilterLog {
 public:
  void vlogf(unsigned int count, const char* format, va_list args) override;
  void vlogfString(const char* format, va_list args) override;
  void vlogfMessage(unsigned int count, const char* format, va_list args) override;
  using Olm::ILog::logf;
  using Olm::ILog::logfString;
  using Olm::ILog::logfMessage;

  const std::vector<std::string>& lines() const { return m_lines; }
  // Lines containing text.
  size_t count(const std::string& text) const;
  void clear() { m_lines.clear(); }

 private:
  std::vector<std::string> m_lines;
};

}  // namespace OlmTest
