#include "FakeRuntime.h"

#include <algorithm>
#include <set>

#include "AaConfigRad.h"
#include "AaSysComMsgHeader.h"

namespace OlmTest {

namespace {
// Not 1: an identifier a service cut to a byte, or took for an index, then names no timer.
constexpr unsigned int kFirstTimerId = 0x101;

// Registered while no runtime is installed, so that the registration's own lines go nowhere.
void registerDomainOneAsStartupDoes() {
  if (AaConfigRadGetDomainCount() != 0) return;
  AaConfigRadSetMaxDomainCount(AACONFIG_RAD_DOMAIN_COUNT);
  AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, AaConfigRadOlmDomainInit);
}
}  // namespace

FakeRuntime::FakeRuntime() {
  registerDomainOneAsStartupDoes();
  EXPECT_EQ(Olm::IRuntime::getTheRuntime(), nullptr) << "another runtime is still installed";
  Olm::IRuntime::setTheRuntime(this);
}

FakeRuntime::~FakeRuntime() {
  if (Olm::IRuntime::getTheRuntime() == this) Olm::IRuntime::setTheRuntime(nullptr);
}

// Freeing a message the runtime holds is a double free in waiting: the runtime frees it too.
void FakeRuntime::deleteMessage(void* msg) {
  if (holds(msg)) {
    refuseRelease();
    return;
  }
  release(msg);
}

bool FakeRuntime::sendMessage(void* msg) {
  m_sent.push_back(msg);
  return m_sendResult;
}

std::string FakeRuntime::sentText(size_t index) const {
  const SAaSysComMsgHeader& header = *Olm::msgHeader(m_sent.at(index));
  const char* payload = reinterpret_cast<const char*>(&header + 1);
  return std::string(payload, header.totalLength - AASYSCOM_HEADER_SIZE);
}

bool FakeRuntime::anySentTextContains(const std::string& text) const {
  for (size_t index = 0; index < m_sent.size(); ++index) {
    if (sentText(index).find(text) != std::string::npos) return true;
  }
  return false;
}

void FakeRuntime::bindEu(Olm::IAaSysDispatcherSicHandler& eu, uint16_t cpid) {
  EXPECT_EQ(m_eus.count(cpid), 0u) << "CPID 0x" << std::hex << cpid << " bound twice";
  m_eus[cpid] = &eu;
}

Olm::IAaSysDispatcherSicHandler* FakeRuntime::boundEu(uint16_t cpid) const {
  const auto found = m_eus.find(cpid);
  return found != m_eus.end() ? found->second : nullptr;
}

unsigned int FakeRuntime::startTimer(Olm::LteTime expiry, Olm::LteTime period, void* msg) {
  const unsigned int id = kFirstTimerId + static_cast<unsigned int>(m_timers.size());
  m_timers.push_back(Timer{id, expiry, period, msg, true});
  return id;
}

void* FakeRuntime::cancelTimer(unsigned int id) {
  for (Timer& timer : m_timers) {
    if (timer.id == id && timer.armed) {
      timer.armed = false;
      return timer.msg;
    }
  }
  return nullptr;
}

bool FakeRuntime::holds(const void* msg) const {
  if (std::find(m_sent.begin(), m_sent.end(), msg) != m_sent.end()) return true;
  return std::any_of(m_timers.begin(), m_timers.end(),
                     [msg](const Timer& timer) { return timer.armed && timer.msg == msg; });
}

size_t FakeRuntime::leakedBuffers() const {
  std::set<const void*> held;
  for (const void* msg : m_sent) {
    if (isLive(msg)) held.insert(msg);
  }
  for (const Timer& timer : m_timers) {
    if (timer.armed && isLive(timer.msg)) held.insert(timer.msg);
  }
  return liveBuffers() - held.size();
}

}  // namespace OlmTest
