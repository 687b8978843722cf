// For the unit tests of the Dispatcher and the services: a Dispatcher wired to fakes, found by the
// services through Dispatcher::getTheDispatcher like the node's own. Lines copied into the
// Dispatcher's log land in log; everything sent leaves through port.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "AaSysComMsgHeader.h"
#include "CapturingLog.h"
#include "Dispatcher.h"
#include "FakeMsgPort.h"
#include "FakeTimeSource.h"

namespace OlmTest {

constexpr uint16_t kOwnNid = 0x1234;

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dispatcher = new Olm::Dispatcher();
    dispatcher->setItsIMsgPort(&port);
    dispatcher->setItsITimeSource(&time);
    dispatcher->setItsILog(&log);
    dispatcher->setOwnNid(kOwnNid);
  }
  void TearDown() override {
    delete dispatcher;
    Olm::Dispatcher::setTheDispatcher(nullptr);
    EXPECT_EQ(port.doubleFrees(), 0u);
  }

  // A message owned by the test until a service takes it.
  void* newMessage() { return port.makeMessage(0x1111, 0x12340101, 0x12340202); }

  const Olm::TimerQueue::Entry& timerEntry(unsigned index) { return dispatcher->getItsTimerQueue().getEntry(index); }

  FakeMsgPort port;
  FakeTimeSource time;
  CapturingLog log;
  Olm::Dispatcher* dispatcher = nullptr;
};

}  // namespace OlmTest
