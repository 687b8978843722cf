// The fixture of the R&D tests: a fresh service per test (domain table, subscriber list, slave
// started on the fake runtime), and helpers to deliver messages to the slave and read what it sent.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AaConfigEu.h"
#include "AaConfigRadInternal.h"
#include "AaConfigRadMsg.h"
#include "AaSysCom.h"
#include "FakeRuntime.h"

namespace OlmTest {

constexpr uint32_t kSlaveSicad = uint32_t{kOwnNid} << 16 | AACONFIG_RAD_SLAVE_CPID;
constexpr uint32_t kSynchMaster = 0x10F00000u | AACONFIG_RAD_MASTER_CPID;
constexpr uint32_t kSubscriber = 0x12340777u;

// Everything of the service released: before start-up.
inline void releaseRad() {
  Olm::Rad::releaseSlave();
  Olm::Rad::releaseSubscribers();
  Olm::Rad::releaseDomains();
}

inline void registerOlmDomain() {
  AaConfigRadRegisterDomain(AACONFIG_RAD_OLM_DOMAIN, AACONFIG_RAD_OLM_DOMAIN_NAME, AaConfigRadOlmDomainInit);
}

class RadTest : public FakeRuntimeTest {
 protected:
  void SetUp() override {
    releaseRad();
    AaConfigEarlyStartup();
    ASSERT_EQ(AaConfigEeStartup(AACONFIG_RAD_DOMAIN_COUNT), 0u);
    m_firstSent = runtime.sent().size();
  }
  // Back to what the other tests of the process expect: domain 1 registered, no slave.
  void TearDown() override {
    releaseRad();
    AaConfigRadSetMaxDomainCount(AACONFIG_RAD_DOMAIN_COUNT);
    registerOlmDomain();
    FakeRuntimeTest::TearDown();
  }

  // Messages the slave sent since start-up, of one id.
  std::vector<const void*> sentWithId(uint32_t id) const {
    std::vector<const void*> found;
    for (size_t i = m_firstSent; i < runtime.sent().size(); ++i) {
      if (AaSysComMsgGetId(runtime.sent()[i]) == id) found.push_back(runtime.sent()[i]);
    }
    return found;
  }
  static std::vector<uint32_t> wordsOf(const void* msg) {
    std::vector<uint32_t> words(AaSysComMsgGetPayloadSize(msg) / sizeof(uint32_t));
    std::memcpy(words.data(), AaSysComMsgGetPayload(msg), words.size() * sizeof(uint32_t));
    return words;
  }

  // Hands a message to the slave as the Dispatcher would; apf 0 sends the words big-endian.
  void deliver(uint32_t id, uint32_t sender, std::vector<uint32_t> words, uint32_t apf = 1) {
    void* msg = runtime.makeMessage(static_cast<unsigned short>(id), kSlaveSicad, sender,
                                    static_cast<unsigned short>(words.size() * sizeof(uint32_t)));
    if (apf == 0) {
      for (uint32_t& word : words) word = __builtin_bswap32(word);
    }
    if (!words.empty()) std::memcpy(AaSysComMsgGetPayload(msg), words.data(), words.size() * sizeof(uint32_t));
    AaSysComMsgSetApf(msg, apf);
    eu().ProcessMessage(msg);
    EXPECT_EQ(msg, nullptr) << "the slave keeps no message";
  }

  Olm::IAaSysDispatcherSicHandler& eu() { return *runtime.boundEu(AACONFIG_RAD_SLAVE_CPID); }

  size_t m_firstSent = 0;
};

}  // namespace OlmTest
