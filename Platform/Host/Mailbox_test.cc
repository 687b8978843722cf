#include "Mailbox.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <string>
#include <thread>

#include "HostTestUtil.h"
#include "MessagePool.h"
#include "ProcessBarrier.h"
#include "ProcessIdentity.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint32_t kTestLaneBytes = kMinLaneBytes;
constexpr uint64_t kTestPoolBytes = 64 << 20;

// Maps a mailbox the way a foreign process would, to play a sender that misbehaves.
class SharedView {
 public:
  explicit SharedView(uint16_t nid) {
    const int fd = shm_open(mailboxObjectName(nid).c_str(), O_RDWR, 0);
    if (fd < 0) return;
    void* mapping = mmap(nullptr, mailboxBytes(kTestLaneBytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (mapping != MAP_FAILED) header_ = static_cast<MailboxHeader*>(mapping);
  }
  ~SharedView() {
    if (header_ != nullptr) munmap(header_, mailboxBytes(kTestLaneBytes));
  }
  MailboxHeader* header() { return header_; }
  unsigned char* ring(uint32_t lane) {
    return reinterpret_cast<unsigned char*>(header_) + kLanesOffset + size_t{lane} * kTestLaneBytes;
  }

 private:
  MailboxHeader* header_ = nullptr;
};

class MailboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Mailbox::create(nid_, kTestLaneBytes, &owner_), 0);
    ASSERT_EQ(Mailbox::open(nid_, &sender_), 0);
  }

  PushResult pushMessage(uint32_t length, uint32_t seed, Mailbox* via = nullptr) {
    writeTestMessage(scratch_, length, 0, 0, seed);
    return (via != nullptr ? via : sender_.get())->push(scratch_, length, RecordKind::kMessage);
  }

  // Pops one message and checks it is the test message of this length and seed.
  ::testing::AssertionResult popsMessage(uint32_t length, uint32_t seed) {
    void* message = owner_->pop(pool_);
    if (message == nullptr) return ::testing::AssertionFailure() << "nothing to pop";
    const bool expected = isTestMessage(message, length, seed);
    const uint32_t got = totalLengthOf(message);
    const uint16_t gotSeed = fieldOf<uint16_t>(message, 0);
    pool_.release(message);
    if (expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected length " << length << " seed " << seed << ", got length "
                                         << got << " seed " << gotSeed;
  }

  const uint16_t nid_ = testNid();
  MessagePool pool_{kTestPoolBytes};
  std::unique_ptr<Mailbox> owner_;
  std::shared_ptr<Mailbox> sender_;
  unsigned char scratch_[kMaxBufferBytes];
};

// Every length up to 4 KiB, then every seventh up to the largest (4096 + 7 * 8777 = 65535): 7 is
// prime to the record alignment, so large records too end at every offset within it, and the lane
// wraps at ever other places. Every length of all 64 KiB would copy 2 GB: minutes under the
// sanitizers on a loaded machine.
TEST_F(MailboxTest, LengthsOfEveryAlignmentUpToTheLargestArriveIntactAndInOrderAcrossWrapArounds) {
  constexpr uint32_t kEveryLengthBelow = 4096;
  constexpr uint32_t kStrideAbove = 7;
  std::deque<uint32_t> queued;  // lengths in flight; each length is also its message's seed
  for (uint32_t length = 16; length <= 65535; length += length < kEveryLengthBelow ? 1 : kStrideAbove) {
    ASSERT_EQ(pushMessage(length, length), PushResult::kDelivered) << length;
    queued.push_back(length);
    if (queued.size() < 2) continue;
    ASSERT_TRUE(popsMessage(queued.front(), queued.front()));
    queued.pop_front();
  }
  for (; !queued.empty(); queued.pop_front()) ASSERT_TRUE(popsMessage(queued.front(), queued.front()));
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_EQ(owner_->waitingRecords(), 0u);
  EXPECT_EQ(owner_->fillLevel().bytes, 0u);
}

TEST_F(MailboxTest, FullLaneRefusesAtOnceAndAcceptsAgainAfterDraining) {
  uint32_t accepted = 0;
  PushResult last;
  while ((last = pushMessage(60000, accepted)) == PushResult::kDelivered) ++accepted;
  EXPECT_EQ(last, PushResult::kFull);
  EXPECT_EQ(accepted, kTestLaneBytes / recordBytesFor(60000)) << "the whole lane is usable";
  EXPECT_EQ(owner_->waitingRecords(), accepted);
  ASSERT_TRUE(popsMessage(60000, 0));
  EXPECT_EQ(pushMessage(60000, accepted), PushResult::kDelivered) << "needs the wrap to the freed space";
  for (uint32_t seed = 1; seed <= accepted; ++seed) ASSERT_TRUE(popsMessage(60000, seed));
}

TEST_F(MailboxTest, LanesAreServedInTurnEachInItsSendersOrder) {
  std::shared_ptr<Mailbox> second;
  ASSERT_EQ(Mailbox::open(nid_, &second), 0);
  // Both mailbox objects live in this process; the second one still gets a lane of its own.
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(pushMessage(100, 10 + i), PushResult::kDelivered);
  for (uint32_t i = 0; i < 3; ++i) ASSERT_EQ(pushMessage(200, 20 + i, second.get()), PushResult::kDelivered);
  EXPECT_EQ(owner_->waitingRecords(), 6u);
  for (uint32_t i = 0; i < 3; ++i) {
    ASSERT_TRUE(popsMessage(100, 10 + i));
    ASSERT_TRUE(popsMessage(200, 20 + i));
  }
  EXPECT_EQ(owner_->pop(pool_), nullptr);
}

TEST_F(MailboxTest, RecordsWhoseHeaderDisagreesWithTheirLengthAreDropped) {
  unsigned char saysHundred[128];
  writeTestMessage(saysHundred, 100, 0, 0, 1);
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(sender_->push(saysHundred, 120, RecordKind::kMessage), PushResult::kDelivered);
  ASSERT_EQ(sender_->push(saysHundred, 96, RecordKind::kMessage), PushResult::kDelivered);
  ASSERT_EQ(sender_->push(saysHundred, 8, RecordKind::kMessage), PushResult::kDelivered);
  ASSERT_EQ(pushMessage(50, 7), PushResult::kDelivered);
  EXPECT_TRUE(popsMessage(50, 7));
  const std::string errors = ::testing::internal::GetCapturedStderr();
  char expected[96];
  std::snprintf(expected, sizeof(expected), "node 0x%04x dropped a message of 120 bytes whose header says 100", nid_);
  EXPECT_NE(errors.find(expected), std::string::npos) << errors;
  EXPECT_NE(errors.find("dropped a message of 96 bytes whose header says 100"), std::string::npos) << errors;
  EXPECT_NE(errors.find("dropped a message of 8 bytes, shorter than a message header"), std::string::npos) << errors;
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_EQ(owner_->waitingRecords(), 0u) << "dropped records count as consumed";
}

TEST_F(MailboxTest, RawEventMayCarryAShorterMessageButNeverALongerOne) {
  unsigned char event[128] = {};
  writeTestMessage(event, 100, 0, 0, 2);
  ::testing::internal::CaptureStderr();
  ASSERT_EQ(sender_->push(event, 120, RecordKind::kRawEvent), PushResult::kDelivered);
  ASSERT_EQ(sender_->push(event, 80, RecordKind::kRawEvent), PushResult::kDelivered);
  void* received = owner_->pop(pool_);
  ASSERT_NE(received, nullptr);
  EXPECT_TRUE(isTestMessage(received, 100, 2));
  pool_.release(received);
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("dropped a message of 80 bytes whose header says 100"),
            std::string::npos);
}

TEST_F(MailboxTest, DamagedLaneIsDiscardedWithoutReadingPastIt) {
  SharedView shared(nid_);
  ASSERT_NE(shared.header(), nullptr);
  ASSERT_EQ(pushMessage(40, 1), PushResult::kDelivered);
  ASSERT_TRUE(popsMessage(40, 1));
  // The sender's lane is the first one. A record claiming 60000 bytes, of which only 16 were
  // published.
  LaneControl& lane = shared.header()->lanes[0];
  const uint64_t tail = lane.tail.load();
  const RecordHeader lie{60000, static_cast<uint16_t>(RecordKind::kMessage), 0};
  std::memcpy(shared.ring(0) + (bytesOf(tail) & (kTestLaneBytes - 1)), &lie, sizeof(lie));
  lane.tail.store(laneIndex(recordsOf(tail) + 1, bytesOf(tail) + 16));
  shared.header()->pending.fetch_or(1);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("damaged record"), std::string::npos);
  EXPECT_FALSE(owner_->mayHaveRecords());
  EXPECT_EQ(owner_->waitingRecords(), 0u);
}

// Indices that no producer writes: a head two bytes before the end of the ring must not make the
// reader take a header from beyond it.
TEST_F(MailboxTest, IndicesNoProducerWritesDropTheLaneWithoutReadingPastIt) {
  SharedView shared(nid_);
  ASSERT_NE(shared.header(), nullptr);
  ASSERT_EQ(pushMessage(40, 1), PushResult::kDelivered);
  LaneControl& lane = shared.header()->lanes[0];
  lane.head.store(laneIndex(0, kTestLaneBytes - 2));
  lane.tail.store(laneIndex(1, kTestLaneBytes + 30));
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("damaged record"), std::string::npos);
  lane.tail.store(laneIndex(5, 8));  // head 0, tail says five records in eight bytes
  shared.header()->pending.fetch_or(1);
  ::testing::internal::CaptureStderr();
  lane.head.store(0);
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("damaged record"), std::string::npos);
}

TEST_F(MailboxTest, SenderStoppedOrKilledInTheMiddleOfASendHoldsUpNoOne) {
  Rendezvous halfWritten;
  ChildProcess stalledSender([&] {
    std::shared_ptr<Mailbox> mine;
    if (Mailbox::open(nid_, &mine) != 0) return 1;
    writeTestMessage(scratch_, 64, 0, 0, 5);
    if (mine->push(scratch_, 64, RecordKind::kMessage) != PushResult::kDelivered) return 2;
    // Half of the next record, never published.
    SharedView shared(nid_);
    for (uint32_t lane = 0; lane < kLaneCount; ++lane) {
      if (shared.header()->lanes[lane].owner.load() == thisProcessIdentity()) {
        writeTestMessage(shared.ring(lane) + 80, 64, 0, 0, 6);
      }
    }
    halfWritten.notify();
    raise(SIGSTOP);
    return 0;
  });
  ASSERT_EQ(halfWritten.waitFor(), 1u);
  EXPECT_TRUE(popsMessage(64, 5)) << "what the stalled sender published before it stopped";
  for (uint32_t seed = 0; seed < 100; ++seed) {
    ASSERT_EQ(pushMessage(64, seed), PushResult::kDelivered);
    ASSERT_TRUE(popsMessage(64, seed)) << "while the other sender is stopped";
  }
  stalledSender.kill();
  ASSERT_EQ(pushMessage(64, 7), PushResult::kDelivered);
  EXPECT_TRUE(popsMessage(64, 7));
  EXPECT_EQ(owner_->pop(pool_), nullptr) << "nothing of the half-written record";
}

TEST_F(MailboxTest, MoreSendersThanLanesAreRefusedUntilAnOwnerDiesAndItsRecordsComeFirst) {
  SharedView shared(nid_);
  ASSERT_NE(shared.header(), nullptr);
  Rendezvous exitNow;
  ChildProcess soonDead([&] { return exitNow.waitFor() == 1 ? 0 : 1; });
  const uint64_t deadIdentity = identityOfProcess(soonDead.pid());
  ASSERT_NE(deadIdentity, 0u);
  exitNow.notify();
  ASSERT_EQ(soonDead.wait(), 0);
  const uint64_t liveIdentity = identityOfProcess(getppid());
  ASSERT_NE(liveIdentity, 0u);

  // A sender that published two records in lane 0, then "died".
  std::shared_ptr<Mailbox> ghost;
  ASSERT_EQ(Mailbox::open(nid_, &ghost), 0);
  ASSERT_EQ(pushMessage(64, 1, ghost.get()), PushResult::kDelivered);
  ASSERT_EQ(pushMessage(64, 2, ghost.get()), PushResult::kDelivered);
  for (LaneControl& lane : shared.header()->lanes) lane.owner.store(liveIdentity);
  EXPECT_EQ(pushMessage(64, 3), PushResult::kNoLane);
  shared.header()->lanes[0].owner.store(deadIdentity);
  ASSERT_EQ(pushMessage(64, 3), PushResult::kDelivered) << "the dead owner's lane is taken over";
  EXPECT_EQ(shared.header()->lanes[0].owner.load(), thisProcessIdentity());
  EXPECT_EQ(owner_->waitingRecords(), 3u);
  for (uint32_t seed = 1; seed <= 3; ++seed) ASSERT_TRUE(popsMessage(64, seed));
  EXPECT_EQ(owner_->pop(pool_), nullptr);
}

TEST_F(MailboxTest, ARecordWhoseAnnouncementWasLostIsFoundByTheSweep) {
  SharedView shared(nid_);
  ASSERT_EQ(pushMessage(64, 1), PushResult::kDelivered);
  shared.header()->pending.store(0);  // the sender died between publishing and announcing
  EXPECT_FALSE(owner_->mayHaveRecords());
  owner_->collectAllLanes();
  EXPECT_TRUE(owner_->mayHaveRecords());
  EXPECT_TRUE(popsMessage(64, 1));
}

// A sender that keeps finding its lane announced streams without a fence per record; the
// consumer watches the lane while it is awake and, before it sleeps, takes it off with a barrier,
// so the next record wakes it. A caller that waits without popping is never told twice about
// records it already has.
TEST_F(MailboxTest, AStreamingSenderIsWatchedWhileTheConsumerIsAwakeAndWakesItOnceItSleeps) {
  SharedView shared(nid_);
  constexpr uint32_t kBurst = 40;
  for (uint32_t seed = 0; seed < kBurst; ++seed) ASSERT_EQ(pushMessage(64, seed), PushResult::kDelivered);
  LaneControl& lane = shared.header()->lanes[0];
  ASSERT_EQ(lane.owner.load(), thisProcessIdentity());
  EXPECT_EQ(lane.streaming.load(), processBarriersAvailable() ? 1u : 0u);
  for (uint32_t seed = 0; seed < kBurst; ++seed) ASSERT_TRUE(popsMessage(64, seed));
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_FALSE(owner_->mayHaveRecords());
  EXPECT_FALSE(owner_->waitForRecord(0, 1000, 0)) << "nothing is waiting";
  EXPECT_EQ(shared.header()->pending.load(), 0u) << "the lane was taken off before the sleep";

  std::thread sender([&] {
    while (shared.header()->waiterAsleep.load() == 0) std::this_thread::yield();
    pushMessage(64, kBurst);
  });
  EXPECT_TRUE(owner_->waitForRecord(kChildTimeoutMs / 1000, 0, 0)) << "the record after the stream woke the consumer";
  sender.join();
  EXPECT_TRUE(popsMessage(64, kBurst));
  EXPECT_EQ(lane.streaming.load(), 0u) << "a sender that finds its lane taken off fences again";
}

// A consumer that keeps pace drains the lane after every record. It keeps the lane's bit set while
// it is awake, so the sender comes to stream instead of fencing and announcing every record.
TEST_F(MailboxTest, ASenderToAnAwakeConsumerThatKeepsPaceComesToStream) {
  SharedView shared(nid_);
  constexpr uint32_t kRecords = 40;
  for (uint32_t seed = 0; seed < kRecords; ++seed) {
    ASSERT_EQ(pushMessage(64, seed), PushResult::kDelivered);
    ASSERT_TRUE(popsMessage(64, seed));
    ASSERT_EQ(owner_->pop(pool_), nullptr);
  }
  EXPECT_EQ(shared.header()->lanes[0].streaming.load(), processBarriersAvailable() ? 1u : 0u);
  EXPECT_NE(shared.header()->pending.load(), 0u) << "an awake consumer keeps the bit set";
  EXPECT_FALSE(owner_->waitForRecord(0, 1000, 0));
  EXPECT_EQ(shared.header()->pending.load(), 0u) << "the lane was taken off before the sleep";
}

// Bursts of random length from another process, half of them started while the consumer sleeps,
// which parks as soon as it runs dry: every transition between streaming and fencing is crossed
// thousands of times, and a lost wake-up shows as a wait that times out with records missing.
TEST_F(MailboxTest, BurstsAgainstAConsumerThatParksAtOnceLoseNoWakeUp) {
  constexpr uint32_t kRecords = 100000;
  SharedView shared(nid_);
  ChildProcess producer([&] {
    std::shared_ptr<Mailbox> mine;
    if (Mailbox::open(nid_, &mine) != 0) return 1;
    uint32_t random = 12345;
    for (uint32_t seed = 0; seed < kRecords;) {
      random = random * 1103515245u + 12345u;
      const uint32_t burst = 1 + (random >> 16) % 100;
      for (uint32_t i = 0; i < burst && seed < kRecords; ++i, ++seed) {
        writeTestMessage(scratch_, 64, 0, 0, static_cast<uint16_t>(seed));
        while (mine->push(scratch_, 64, RecordKind::kMessage) == PushResult::kFull) sched_yield();
      }
      if ((random & 0x100) != 0 && seed < kRecords) {
        while (shared.header()->waiterAsleep.load() == 0) sched_yield();
      }
    }
    return 0;
  });
  for (uint32_t seed = 0; seed < kRecords;) {
    while (void* message = owner_->pop(pool_)) {
      const bool expected = isTestMessage(message, 64, static_cast<uint16_t>(seed));
      pool_.release(message);
      ASSERT_TRUE(expected) << "record " << seed;
      ++seed;
    }
    if (seed < kRecords) {
      ASSERT_TRUE(owner_->waitForRecord(kChildTimeoutMs / 1000, 0, 0)) << "stuck after " << seed;
    }
  }
  EXPECT_EQ(producer.wait(), 0);
  EXPECT_EQ(owner_->pop(pool_), nullptr);
}

TEST(MailboxLiveness, ANodeIdIsTakenOverOnlyFromADeadNode) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t nid = testNid();
  Rendezvous created;
  ChildProcess node([&] {
    std::unique_ptr<Mailbox> mailbox;
    const int rc = Mailbox::create(nid, kTestLaneBytes, &mailbox);
    created.notify(rc == 0 ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(created.waitFor(), 1u);
  std::shared_ptr<Mailbox> sender;
  ASSERT_EQ(Mailbox::open(nid, &sender), 0);
  EXPECT_TRUE(sender->ownerAlive());
  std::unique_ptr<Mailbox> usurper;
  EXPECT_EQ(Mailbox::create(nid, kTestLaneBytes, &usurper), -EADDRINUSE);

  node.kill();
  EXPECT_FALSE(sender->ownerAlive());
  std::unique_ptr<Mailbox> successor;
  EXPECT_EQ(Mailbox::create(nid, kTestLaneBytes, &successor), 0);
}

// Probes take no lock, so a restart never meets one held by a prober: every restart succeeds
// while other threads probe the dead predecessor as fast as they can.
TEST(MailboxLiveness, ProbesNeverStandInTheWayOfARestart) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t nid = testNid();
  std::atomic<bool> stop{false};
  std::atomic<Mailbox*> probed{nullptr};
  std::atomic<uint64_t> probes{0};
  auto prober = [&] {
    while (!stop.load()) {
      if (Mailbox* mailbox = probed.load()) mailbox->ownerAlive();
      probes.fetch_add(1);
    }
  };
  std::vector<std::unique_ptr<Mailbox>> keep;  // mappings the probers may still read
  std::thread first(prober);
  std::thread second(prober);
  for (int restart = 0; restart < 100; ++restart) {
    std::unique_ptr<Mailbox> node;
    std::thread owner([&] { EXPECT_EQ(Mailbox::create(nid, kTestLaneBytes, &node), 0) << restart; });
    owner.join();  // the owning thread ends: the node is dead, its mailbox stays behind
    if (node == nullptr) break;
    node->disownAfterFork();  // the kernel released its lock; from now on it is probed like any other
    EXPECT_FALSE(node->ownerAlive());
    probed.store(node.get());
    keep.push_back(std::move(node));
  }
  stop.store(true);
  first.join();
  second.join();
  EXPECT_GT(probes.load(), 0u);
}

}  // namespace
}  // namespace rhyddal
