// The broker on a real node: EUs of a library publish and subscribe through the node's proxy.
#include <gtest/gtest.h>

#include <csignal>

#include <string>
#include <vector>

#include "NodeProcess.h"

namespace {

TEST(NodeBroker, APublicationReachesEarlyAndLateSubscribersFromThePublisher) {
  OlmTest::NodeProcess node({"--nid", "0x1041", "--wait", "0", "--load-local", OlmTest::libraryPath("BrokerTestEu")});
  // In the node zone the publisher keeps the own-node alias it was given.
  EXPECT_TRUE(node.waitForOutput("subscriber 0x10410702 got 42 from 0x0f010704")) << node.output();
  EXPECT_TRUE(node.waitForOutput("subscriber 0x10410703 got 42 from 0x0f010704")) << node.output();
  node.kill(SIGTERM);
  EXPECT_EQ(node.waitForExit(), 0);
  EXPECT_EQ(node.countOutput("got 42"), 2u) << "one delivery each\n" << node.output();
}

}  // namespace
