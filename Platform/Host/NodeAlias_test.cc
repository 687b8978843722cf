// Aliases of node ids between node processes: sends to an alias reach its target while the target
// lives and no node runs at the alias; a real node takes its id back; a dead target's alias is
// ignored and can be taken by another node; an orderly exit removes the node's aliases.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <cstdlib>

#include "HostTestUtil.h"
#include "Rhyddal.h"
#include "RhyddalHost.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint16_t kCpid = 0x0601;
constexpr int kReceiveTimeoutMs = 10000;

// A node process serving nid that takes the alias (or, standing, the standing alias for the digit
// in alias), then reports the receiver node id of every message that reaches it, until told to
// stop.
class AliasTarget {
 public:
  enum class Take { kAlias, kStanding };
  AliasTarget(uint16_t nid, uint16_t alias, bool orderlyExit = false, Take take = Take::kAlias)
      : process_([this, nid, alias, orderlyExit, take] {
          if (becomeNode(nid) != 0) return 1;
          const int taken = take == Take::kAlias ? rhyddal_host_alias(alias) : rhyddal_host_standing_alias(alias);
          up_.notify(static_cast<uint64_t>(taken) + 1);
          while (stop_.waitFor(1) == 0) {
            if (void* message = vakem_receive(nid)) {
              received_.notify(fieldOf<uint32_t>(message, 4) >> 16);
              vakem_free(message);
            }
            vakem_wait_for_event(0, 1000000);
          }
          if (orderlyExit) std::exit(0);
          return 0;
        }) {}
  // rhyddal_host_alias's result in the node.
  int aliasResult() { return static_cast<int>(up_.waitFor() - 1); }
  // The receiver node id of the next message, 0 when none came.
  uint64_t nextReceiver() { return received_.waitFor(kReceiveTimeoutMs); }
  int stop() {
    stop_.notify();
    return process_.wait();
  }
  int kill() { return process_.kill(); }

 private:
  Rendezvous up_, received_, stop_;
  ChildProcess process_;
};

int sendTo(uint16_t nid) {
  void* message = newMessage(64, sicAddress(nid, kCpid), 0, 1);
  if (message == nullptr) return -ENOMEM;
  const int rc = vakem_send(message, sicAddress(nid, kCpid));
  vakem_free(message);  // after a send: the platform's expected free; after a failure: ours
  return rc;
}

// The node took the alias, and a message sent to the alias reached it.
::testing::AssertionResult takenAndReached(AliasTarget& node, uint16_t alias) {
  if (const int rc = node.aliasResult()) return ::testing::AssertionFailure() << "taking the alias gave " << rc;
  if (const int rc = sendTo(alias)) return ::testing::AssertionFailure() << "the send gave " << rc;
  const uint64_t receiver = node.nextReceiver();
  if (receiver != alias) return ::testing::AssertionFailure() << "the node got a message for " << receiver;
  return ::testing::AssertionSuccess();
}

bool objectExists(const std::string& name) {
  struct stat status {};
  return stat(shmFilePath(name).c_str(), &status) == 0;
}

bool aliasObjectExists(uint16_t nid) { return objectExists(aliasObjectName(nid)); }

constexpr uint16_t kCollectorDigit = 0xD;

uint16_t groupIdOf(uint16_t nid) { return static_cast<uint16_t>((nid & 0xFFF0) | kCollectorDigit); }

// A test node id in none of the groups of nids, and not its own group's digit-D id.
uint16_t testNidOutsideGroupsOf(std::initializer_list<uint16_t> nids) {
  for (;;) {
    const uint16_t candidate = testNid();
    const bool outside = std::none_of(nids.begin(), nids.end(), [&](uint16_t nid) { return groupIdOf(nid) == groupIdOf(candidate); });
    if (outside && candidate != groupIdOf(candidate)) return candidate;
  }
}

TEST(NodeAlias, SendsToTheAliasReachTheTargetWithTheirHeaderUnchanged) {
  const uint16_t target = testNid();
  const uint16_t alias = testNid();
  AliasTarget node(target, alias);
  ASSERT_TRUE(takenAndReached(node, alias));
  ASSERT_EQ(sendTo(target), 0) << "the target is reached under its own id as well";
  EXPECT_EQ(node.nextReceiver(), target);
  EXPECT_EQ(node.stop(), 0);
}

TEST(NodeAlias, ARealNodeAtTheAliasTakesItsIdBackAndTheAliasCanBeTakenAgainAfterIt) {
  const uint16_t target = testNid();
  const uint16_t alias = testNid();
  AliasTarget node(target, alias);
  ASSERT_TRUE(takenAndReached(node, alias));  // this process now keeps the route through the alias
  {
    Rendezvous up, got;
    ChildProcess real([&]() -> int {
      up.notify(becomeNode(alias) == 0 ? 1 : 2);
      void* message = receiveWithin(alias, kReceiveTimeoutMs);
      got.notify(message != nullptr ? 1 : 2);
      std::exit(0);  // orderly: its mailbox goes
    });
    ASSERT_EQ(up.waitFor(), 1u);
    ASSERT_EQ(sendTo(alias), 0);
    EXPECT_EQ(got.waitFor(), 1u) << "the real node gets what is sent to its id";
    // One lane carried both ids to the target: had the send to the alias gone there, it would come first.
    ASSERT_EQ(sendTo(target), 0);
    EXPECT_EQ(node.nextReceiver(), target) << "the alias's target gets nothing more";
    EXPECT_EQ(real.wait(), 0);
  }
  if (!::rhyddal::testing::deadLockOwnersAreDetected()) {
    EXPECT_EQ(node.stop(), 0);
    GTEST_SKIP() << "no robust futex lists here: the real node looks alive after it has gone";
  }
  EXPECT_EQ(sendTo(alias), -EHOSTUNREACH) << "a revoked alias stays revoked when the real node goes";
  EXPECT_EQ(node.stop(), 0);
  AliasTarget again(testNid(), alias);
  EXPECT_TRUE(takenAndReached(again, alias));
  EXPECT_EQ(again.stop(), 0);
}

TEST(NodeAlias, TheAliasOfADeadTargetIsIgnoredAndAnotherNodeMayTakeIt) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t alias = testNid();
  AliasTarget first(testNid(), alias);
  ASSERT_TRUE(takenAndReached(first, alias));
  first.kill();
  EXPECT_TRUE(aliasObjectExists(alias)) << "a killed node cannot remove its alias";
  EXPECT_EQ(sendTo(alias), -EHOSTUNREACH);
  AliasTarget second(testNid(), alias);
  EXPECT_TRUE(takenAndReached(second, alias));
  EXPECT_EQ(second.stop(), 0);
}

TEST(NodeAlias, AnOrderlyExitRemovesTheNodesAliases) {
  const uint16_t alias = testNid();
  AliasTarget node(testNid(), alias, true);
  ASSERT_EQ(node.aliasResult(), 0);
  EXPECT_TRUE(aliasObjectExists(alias));
  EXPECT_EQ(node.stop(), 0);
  EXPECT_FALSE(aliasObjectExists(alias));
  EXPECT_EQ(sendTo(alias), -EHOSTUNREACH);
}

TEST(NodeAlias, TakingIsRefusedWhereItCannotHold) {
  const uint16_t running = testNid();
  IdleNode idle(running);
  ASSERT_TRUE(idle.up());
  EXPECT_EQ(rhyddal_host_alias(testNid()), -ENOTCONN) << "this process serves no node yet";

  const uint16_t alias = testNid();
  AliasTarget holder(testNid(), alias);
  ASSERT_EQ(holder.aliasResult(), 0);
  const uint16_t own = testNid();
  ChildProcess other([&] {
    if (becomeNode(own) != 0) return 1;
    if (rhyddal_host_alias(own) != -EINVAL || rhyddal_host_alias(0x10000) != -EINVAL) return 2;
    if (rhyddal_host_alias(running) != -EADDRINUSE) return 3;
    if (rhyddal_host_alias(alias) != -EBUSY) return 4;
    return 0;
  });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(holder.stop(), 0);
}

TEST(NodeAlias, TakingAnAliasAgainKeepsIt) {
  const uint16_t alias = testNid();
  const uint16_t target = testNid();
  Rendezvous taken;
  ChildProcess node([&] {
    if (becomeNode(target) != 0) return 1;
    const bool kept = rhyddal_host_alias(alias) == 0 && rhyddal_host_alias(alias) == 0;
    taken.notify(kept ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(taken.waitFor(), 1u);
  EXPECT_EQ(sendTo(alias), 0);
}

// The standing alias is taken by the starting node itself, so the alias is there before that node
// can send its first line.
TEST(NodeAlias, AStandingAliasGivesItsHolderTheGroupIdOfEveryNodeThatStartsAfterIt) {
  const uint16_t holderNid = testNid();
  const uint16_t member = testNidOutsideGroupsOf({holderNid});
  const uint16_t collector = groupIdOf(testNidOutsideGroupsOf({holderNid, member}));
  const uint16_t later = testNidOutsideGroupsOf({holderNid, member, collector});
  AliasTarget holder(holderNid, kCollectorDigit, true, AliasTarget::Take::kStanding);
  ASSERT_EQ(holder.aliasResult(), 0);
  EXPECT_EQ(sendTo(groupIdOf(member)), -EHOSTUNREACH) << "no node of the group has started yet";
  {
    IdleNode node(member);
    ASSERT_TRUE(node.up());
    ASSERT_EQ(sendTo(groupIdOf(member)), 0);
    EXPECT_EQ(holder.nextReceiver(), groupIdOf(member));
  }
  // A group whose digit-D node runs keeps it.
  IdleNode ownCollector(collector);
  ASSERT_TRUE(ownCollector.up());
  IdleNode memberWithCollector(static_cast<uint16_t>(collector - 1));
  ASSERT_TRUE(memberWithCollector.up());
  EXPECT_FALSE(aliasObjectExists(collector));

  EXPECT_EQ(holder.stop(), 0);
  EXPECT_FALSE(aliasObjectExists(groupIdOf(member))) << "an orderly exit removes the aliases nodes took for it";
  EXPECT_FALSE(objectExists(standingAliasObjectName()));
  IdleNode afterTheHolder(later);
  ASSERT_TRUE(afterTheHolder.up());
  EXPECT_FALSE(aliasObjectExists(groupIdOf(later))) << "nothing stands after its holder has gone";
}

TEST(NodeAlias, TheStandingAliasIsOneNodesAtATime) {
  EXPECT_EQ(rhyddal_host_standing_alias(kCollectorDigit), -ENOTCONN) << "this process serves no node yet";
  AliasTarget holder(testNid(), kCollectorDigit, false, AliasTarget::Take::kStanding);
  ASSERT_EQ(holder.aliasResult(), 0);
  ChildProcess other([&] {
    if (becomeNode(testNid()) != 0) return 1;
    if (rhyddal_host_standing_alias(0x10) != -EINVAL) return 2;
    if (rhyddal_host_standing_alias(kCollectorDigit) != -EBUSY) return 3;
    return 0;
  });
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(holder.stop(), 0);
}

}  // namespace
}  // namespace rhyddal
