// The runtime as a service's unit test sees it: a stand-in for the Dispatcher that records what
// the service asked for instead of doing it. Buffers come from its BufferPool; every message sent
// or given to a timer becomes the fake's, as it would become the Dispatcher's, and is freed with
// the fake. Time comes from time, log lines land in log.
//
// It installs itself as the process's runtime when constructed and removes itself when destroyed.
// The first fake of a process also registers R&D domain 1 as start-up does, so that services log
// and read their switches as on a started node.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "BufferPool.h"
#include "CapturingLog.h"
#include "FakeTimeSource.h"
#include "IRuntime.h"

namespace OlmTest {

// The own node id of a fresh fake.
constexpr uint16_t kOwnNid = 0x1234;

class FakeRuntime : public Olm::IRuntime, public BufferPool {
 public:
  struct Timer {
    unsigned int id;
    Olm::LteTime expiry;
    Olm::LteTime period;
    void* msg;
    bool armed;  // false once cancelled; msg is then the canceller's
  };

  FakeRuntime();
  ~FakeRuntime() override;

  void* newMessage(unsigned int size) override { return allocate(size); }
  void deleteMessage(void* msg) override;
  bool sendMessage(void* msg) override;
  unsigned int startTimer(Olm::LteTime expiry, Olm::LteTime period, void* msg) override;
  void* cancelTimer(unsigned int id) override;
  Olm::LteTime getLteTime() override { return time.getLTETime(); }
  int getCdmaTime(unsigned long long* cdmaTime, unsigned int a, unsigned int b) override {
    return time.getCdmaTime(cdmaTime, a, b);
  }
  unsigned long long getTimestamp() override { return time.getTS(); }
  void vlogf(unsigned int count, const char* format, va_list args) override { m_log->vlogf(count, format, args); }
  void vlogfString(const char* format, va_list args) override { m_log->vlogfString(format, args); }
  uint16_t getOwnNid() const override { return m_ownNid; }
  void bindEu(Olm::IAaSysDispatcherSicHandler& eu, uint16_t cpid) override;
  Olm::IAaSysDispatcherSicHandler* boundEu(uint16_t cpid) const override;

  void setOwnNid(uint16_t nid) { m_ownNid = nid; }
  // What sendMessage answers from now on.
  void setSendResult(bool result) { m_sendResult = result; }
  // Lines go to log unless redirected here.
  void setLog(Olm::ILog* log) { m_log = log; }

  // Every message sent, in order, and every timer started, in order.
  const std::vector<void*>& sent() const { return m_sent; }
  const std::vector<Timer>& timers() const { return m_timers; }
  // The payload of the index-th message sent, as text: a system log line, with its terminator.
  std::string sentText(size_t index) const;
  // Whether the text of any message sent contains text.
  bool anySentTextContains(const std::string& text) const;
  // Live buffers that the runtime does not hold (neither sent nor with an armed timer).
  size_t leakedBuffers() const;

  FakeTimeSource time;
  CapturingLog log;

 private:
  bool holds(const void* msg) const;

  std::vector<void*> m_sent;
  std::vector<Timer> m_timers;
  std::map<uint16_t, Olm::IAaSysDispatcherSicHandler*> m_eus;
  Olm::ILog* m_log = &log;
  uint16_t m_ownNid = kOwnNid;
  bool m_sendResult = true;
};

// The fixture of the services' unit tests: a fresh fake runtime per test, and at its end no
// buffer left with nobody to free it and none freed twice.
class FakeRuntimeTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(runtime.leakedBuffers(), 0u) << "a message was neither freed nor handed to the runtime";
    EXPECT_EQ(runtime.doubleFrees(), 0u) << "a message was freed twice or while the runtime held it";
  }

  // A message owned by the test until a service takes it.
  void* newMessage() { return runtime.makeMessage(0x1111, 0x12340101, 0x12340202); }

  FakeRuntime runtime;
  CapturingLog& log = runtime.log;
};

}  // namespace OlmTest
