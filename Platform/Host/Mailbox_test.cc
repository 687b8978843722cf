#include "Mailbox.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <deque>
#include <string>

#include "HostTestUtil.h"
#include "MessagePool.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint32_t kTestRingBytes = kMinRingBytes;
constexpr uint64_t kTestPoolBytes = 64 << 20;

// Maps a mailbox the way a foreign process would, to play a sender that misbehaves.
MailboxHeader* mapMailboxObject(uint16_t nid) {
  const int fd = shm_open(mailboxObjectName(nid).c_str(), O_RDWR, 0);
  if (fd < 0) return nullptr;
  void* mapping = mmap(nullptr, kRingOffset + kTestRingBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  return mapping == MAP_FAILED ? nullptr : static_cast<MailboxHeader*>(mapping);
}

class MailboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Mailbox::create(nid_, kTestRingBytes, &owner_), 0);
    ASSERT_EQ(Mailbox::open(nid_, &sender_), 0);
  }

  PushResult pushMessage(uint32_t length, uint32_t seed) {
    writeTestMessage(scratch_, length, 0, 0, seed);
    return sender_->push(scratch_, length, RecordKind::kMessage);
  }

  // Pops one message and checks it is the test message of this length and seed.
  ::testing::AssertionResult popsMessage(uint32_t length, uint32_t seed) {
    void* message = owner_->pop(pool_);
    if (message == nullptr) return ::testing::AssertionFailure() << "nothing to pop";
    const bool expected = isTestMessage(message, length, seed);
    const uint32_t got = totalLengthOf(message);
    pool_.release(message);
    if (expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected length " << length << " seed " << seed << ", got length " << got;
  }

  const uint16_t nid_ = testNid(0);
  MailboxCleanup cleanup_{nid_};
  MessagePool pool_{kTestPoolBytes};
  std::unique_ptr<Mailbox> owner_;
  std::shared_ptr<Mailbox> sender_;
  unsigned char scratch_[kMaxBufferBytes];
};

TEST_F(MailboxTest, EveryLengthArrivesIntactAndInOrderAcrossWrapArounds) {
  std::deque<uint32_t> queued;  // lengths in flight; each length is also its message's seed
  for (uint32_t length = 16; length <= 65535; ++length) {
    ASSERT_EQ(pushMessage(length, length), PushResult::kDelivered) << length;
    queued.push_back(length);
    if (queued.size() < 2) continue;
    ASSERT_TRUE(popsMessage(queued.front(), queued.front()));
    queued.pop_front();
  }
  for (; !queued.empty(); queued.pop_front()) ASSERT_TRUE(popsMessage(queued.front(), queued.front()));
  EXPECT_EQ(owner_->pop(pool_), nullptr);
}

TEST_F(MailboxTest, FullRingRefusesAtOnceAndAcceptsAgainAfterDraining) {
  uint32_t accepted = 0;
  PushResult last;
  while ((last = pushMessage(60000, accepted)) == PushResult::kDelivered) ++accepted;
  EXPECT_EQ(last, PushResult::kFull);
  EXPECT_EQ(accepted, kTestRingBytes / recordBytesFor(60000)) << "the whole ring is usable";
  EXPECT_EQ(owner_->waitingRecords(), accepted);
  ASSERT_TRUE(popsMessage(60000, 0));
  EXPECT_EQ(pushMessage(60000, accepted), PushResult::kDelivered) << "needs the wrap to the freed space";
  for (uint32_t seed = 1; seed <= accepted; ++seed) ASSERT_TRUE(popsMessage(60000, seed));
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

TEST_F(MailboxTest, DamagedRingIsDiscardedWithoutReadingPastIt) {
  MailboxHeader* shared = mapMailboxObject(nid_);
  ASSERT_NE(shared, nullptr);
  ASSERT_EQ(pushMessage(40, 1), PushResult::kDelivered);
  ASSERT_TRUE(popsMessage(40, 1));
  // A record claiming 60000 bytes, of which only 16 were published.
  const uint32_t tail = shared->tail.load();
  const RecordHeader lie{60000, static_cast<uint16_t>(RecordKind::kMessage), 0};
  std::memcpy(reinterpret_cast<unsigned char*>(shared) + kRingOffset + (tail & (kTestRingBytes - 1)), &lie,
              sizeof(lie));
  shared->tail.store(tail + 16);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(owner_->pop(pool_), nullptr);
  EXPECT_NE(::testing::internal::GetCapturedStderr().find("damaged record"), std::string::npos);
  EXPECT_TRUE(owner_->empty());
  ASSERT_EQ(pushMessage(40, 2), PushResult::kDelivered);
  EXPECT_TRUE(popsMessage(40, 2));
  munmap(shared, kRingOffset + kTestRingBytes);
}

TEST_F(MailboxTest, SenderDyingInsideTheProducerLockBlocksNoOne) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  Rendezvous locked;
  ChildProcess dyingSender([&] {
    MailboxHeader* shared = mapMailboxObject(nid_);
    if (shared == nullptr || pthread_mutex_lock(mutexIn(shared->producerLock)) != 0) return 1;
    writeTestMessage(reinterpret_cast<unsigned char*>(shared) + kRingOffset + 8, 64, 0, 0, 9);  // half a send
    locked.notify();
    raise(SIGKILL);
    return 2;
  });
  ASSERT_EQ(locked.waitFor(), 1u);
  EXPECT_EQ(dyingSender.wait(), 128 + SIGKILL);
  EXPECT_EQ(pushMessage(64, 3), PushResult::kDelivered);
  EXPECT_TRUE(popsMessage(64, 3));
  EXPECT_EQ(owner_->pop(pool_), nullptr) << "nothing of the dead sender's half-written record";
}

TEST(MailboxLiveness, ANodeIdIsTakenOverOnlyFromADeadNode) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  const uint16_t nid = testNid(1);
  MailboxCleanup cleanup(nid);
  Rendezvous created;
  ChildProcess node([&] {
    std::unique_ptr<Mailbox> mailbox;
    const int rc = Mailbox::create(nid, kTestRingBytes, &mailbox);
    created.notify(rc == 0 ? 1 : 2);
    pause();
    return 0;
  });
  ASSERT_EQ(created.waitFor(), 1u);
  std::shared_ptr<Mailbox> sender;
  ASSERT_EQ(Mailbox::open(nid, &sender), 0);
  EXPECT_TRUE(sender->ownerAlive());
  std::unique_ptr<Mailbox> usurper;
  EXPECT_EQ(Mailbox::create(nid, kTestRingBytes, &usurper), -EADDRINUSE);

  node.kill();
  EXPECT_FALSE(sender->ownerAlive());
  EXPECT_FALSE(sender->ownerAlive()) << "stays dead once the lock was repaired";
  std::unique_ptr<Mailbox> successor;
  EXPECT_EQ(Mailbox::create(nid, kTestRingBytes, &successor), 0);
}

TEST(MailboxLiveness, ListingFindsTheMailboxesOfThisUser) {
  const uint16_t nid = testNid(3);
  MailboxCleanup cleanup(nid);
  std::unique_ptr<Mailbox> mailbox;
  ASSERT_EQ(Mailbox::create(nid, kTestRingBytes, &mailbox), 0);
  const std::vector<uint16_t> nids = listMailboxNids();
  EXPECT_NE(std::find(nids.begin(), nids.end(), nid), nids.end());
}

}  // namespace
}  // namespace rhyddal
