// A scripted time source for unit tests: every reading is whatever the test set, wait() only
// records.
#pragma once

#include <vector>

#include "ITimeSource.h"

namespace OlmTest {

class FakeTimeSource : public Olm::ITimeSource {
 public:
  Olm::LteTime getLTETime() override { ++m_reads; return m_now; }
  int getCdmaTime(unsigned long long* time, unsigned int, unsigned int) override {
    if (time) *time = m_cdmaTime;
    return m_cdmaResult;
  }
  unsigned long long getTS() override { return m_ts; }
  void wait(unsigned int microseconds) override { m_waits.push_back(microseconds); }

  void setNow(const Olm::LteTime& now) { m_now = now; }
  void setSamples(uint64_t samples) { m_now = Olm::LteTime(samples); }
  void setCdmaTime(unsigned long long time, int result) {
    m_cdmaTime = time;
    m_cdmaResult = result;
  }
  void setTimestamp(unsigned long long ts) { m_ts = ts; }
  const std::vector<unsigned>& waits() const { return m_waits; }
  unsigned reads() const { return m_reads; }

 private:
  Olm::LteTime m_now;
  unsigned long long m_cdmaTime = 0;
  int m_cdmaResult = 0;
  unsigned long long m_ts = 0;
  std::vector<unsigned> m_waits;
  unsigned m_reads = 0;
};

}  // namespace OlmTest
