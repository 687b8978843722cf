#include "CapturingLog.h"

#include <cstdio>

namespace OlmTest {

namespace {
std::string format(const char* fmt, va_list args) {
  char text[1024];
  vsnprintf(text, sizeof(text), fmt, args);
  return text;
}
}  // namespace

void CapturingLog::vlogf(unsigned int, const char* fmt, va_list args) { m_lines.push_back(format(fmt, args)); }

void CapturingLog::vlogfString(const char* fmt, va_list args) { m_lines.push_back(format(fmt, args)); }

void CapturingLog::vlogfMessage(unsigned int, const char* fmt, va_list args) { m_lines.push_back(format(fmt, args)); }

size_t CapturingLog::count(const std::string& text) const {
  size_t n = 0;
  for (const auto& line : m_lines) n += line.find(text) != std::string::npos;
  return n;
}

}  // namespace OlmTest
