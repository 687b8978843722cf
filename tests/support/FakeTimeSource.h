// A scripted time source for unit tests: now() is whatever the test set, wait() only counts.
#pragma once

#include <vector>

#include "ITimeSource.h"

namespace OlmTest {

class FakeTimeSource : public Olm::ITimeSource {
 public:
  Olm::LteTime getLTETime() override { ++m_reads; return m_now; }
  int getCdmaTime(unsigned long long* time, unsigned int, unsigned int) override {
    if (time) *time = 0;
    return 0;
  }
  unsigned long long getTS() override { return m_ts += 100; }
  void wait(unsigned int microseconds) override { m_waits.push_back(microseconds); }

  void setNow(const Olm::LteTime& now) { m_now = now; }
  void setSamples(uint64_t samples) { m_now = Olm::LteTime(samples); }
  const std::vector<unsigned>& waits() const { return m_waits; }
  unsigned reads() const { return m_reads; }

 private:
  Olm::LteTime m_now;
  unsigned long long m_ts = 0;
  std::vector<unsigned> m_waits;
  unsigned m_reads = 0;
};

}  // namespace OlmTest
