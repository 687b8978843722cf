// Real processes through the C interface: senders stream messages of random lengths to one node;
// one sender is killed mid-stream, one is stopped for a while, and the node itself is killed and
// restarted under traffic. What must hold:
//   - every message a send accepted for a node that lives on arrives intact and in order per sender;
//   - a stopped or killed sender holds up no one;
//   - sends to the dead node fail at once;
//   - no process that survives holds a buffer it should not (pool statistics).
#include <sched.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>

#include "HostTestUtil.h"
#include "RhyddalInternal.h"

namespace rhyddal {
namespace {

using namespace testing;

constexpr uint32_t kSenders = 4;
constexpr uint32_t kKilledSender = 2;
constexpr uint32_t kStoppedSender = 3;
constexpr uint32_t kProgress = 500;  // messages per sender that prove traffic flows
constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr int kPhaseTimeoutMs = 20000;

struct SenderState {
  std::atomic<uint32_t> sent;               // accepted sends: sequence numbers 0 .. sent-1
  std::atomic<uint32_t> firstAfterRestart;  // first sequence sent after the old node was reaped
  std::atomic<uint32_t> refusedByDeadNode;
  std::atomic<uint32_t> result;             // 0 while running; 1 clean exit, else a failure code
};

struct ReceiverState {
  std::atomic<uint32_t> received[kSenders];
  std::atomic<uint32_t> first[kSenders];
  std::atomic<uint32_t> last[kSenders];
  std::atomic<uint32_t> ended[kSenders];
  std::atomic<uint32_t> damaged;
  std::atomic<uint32_t> outOfOrder;
};

struct Shared {
  std::atomic<uint32_t> nodeGeneration;  // 1, then 2 once the first node is dead and reaped
  std::atomic<uint32_t> stop;
  SenderState senders[kSenders];
  ReceiverState receivers[2];
};

// Lengths 16..65535 from the sender and sequence number, so the receiver can check each one.
uint32_t lengthFor(uint32_t sender, uint32_t seq) {
  uint32_t x = (sender + 1) * 0x9E3779B9u ^ seq * 0x85EBCA6Bu;
  x ^= x >> 15;
  x *= 0x2C1B3C6Du;
  x ^= x >> 12;
  return 16 + x % (65536 - 16);
}

// A test message (HostTestUtil.h) whose pattern depends on sender and sequence number, with the
// sequence number also in the header's control (2) and flags (12) fields; kEndSeq ends a sender.
constexpr uint32_t kEndSeq = 0xFFFFFFFFu;

uint32_t seedOf(uint32_t sender, uint32_t seq) { return seq * kSenders + sender; }

void writeMessage(void* buffer, uint32_t length, uint32_t receiver, uint32_t sender, uint32_t seq) {
  writeTestMessage(buffer, length, receiver, sender, seedOf(sender, seq));
  const uint16_t low = static_cast<uint16_t>(seq);
  const uint16_t high = static_cast<uint16_t>(seq >> 16);
  std::memcpy(static_cast<unsigned char*>(buffer) + 2, &low, 2);
  std::memcpy(static_cast<unsigned char*>(buffer) + 12, &high, 2);
}

uint32_t seqOf(const void* message) {
  return uint32_t{fieldOf<uint16_t>(message, 2)} | uint32_t{fieldOf<uint16_t>(message, 12)} << 16;
}

bool poolClean(uint32_t maxHeld) {
  const PoolStatistics stats = processPoolStatistics();
  return stats.inUse == 0 && stats.held <= maxHeld &&
         stats.refusedAlreadyFree + stats.refusedSentAndFreed + stats.refusedForeign == 0;
}

int runNode(Shared& shared, ReceiverState& state, uint16_t nid, bool expectEnds, Rendezvous& up) {
  up.notify(becomeNode(nid) == 0 ? 1 : 2);
  for (;;) {
    void* message = vakem_receive(nid);
    if (message == nullptr) {
      const bool allEnded = state.ended[0].load() && state.ended[1].load() && state.ended[kStoppedSender].load();
      if (expectEnds && allEnded) break;
      vakem_wait_for_event(0, 10000000);
      continue;
    }
    const uint32_t sender = senderOf(message);
    const uint32_t seq = seqOf(message);
    if (sender >= kSenders) {
      state.damaged.fetch_add(1);
    } else if (seq == kEndSeq) {
      state.ended[sender].store(1);
    } else {
      if (!isTestMessage(message, lengthFor(sender, seq), seedOf(sender, seq))) state.damaged.fetch_add(1);
      const uint32_t count = state.received[sender].load();
      if (count == 0) {
        state.first[sender].store(seq);
      } else if (seq != state.last[sender].load() + 1) {
        state.outOfOrder.fetch_add(1);
      }
      state.last[sender].store(seq);
      state.received[sender].store(count + 1);
    }
    vakem_free(message);
  }
  (void)shared;
  return poolClean(0) ? 0 : 3;
}

int runSender(Shared& shared, uint32_t index, uint16_t nid) {
  SenderState& state = shared.senders[index];
  const uint32_t to = sicAddress(nid, 1);
  uint32_t seq = 0;
  void* message = nullptr;
  while (shared.stop.load() == 0) {
    if (message == nullptr) {
      message = vakem_alloc(lengthFor(index, seq));
      if (message == nullptr) return 10;
      writeMessage(message, lengthFor(index, seq), to, index, seq);
    }
    const uint32_t generation = shared.nodeGeneration.load();
    const int rc = vakem_send(message, to);
    if (rc == 0) {
      if (generation == 2 && state.firstAfterRestart.load() == kNone) state.firstAfterRestart.store(seq);
      state.sent.store(++seq);
      message = nullptr;
    } else if (rc == -EHOSTUNREACH) {  // the node is dead (generation 1: not reaped yet)
      if (generation == 2) state.refusedByDeadNode.fetch_add(1);
      sched_yield();
    } else if (rc == -ENOBUFS) {
      sched_yield();
    } else {
      return 11;
    }
  }
  vakem_free(message);
  void* end = vakem_alloc(16);
  writeMessage(end, 16, to, index, kEndSeq);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPhaseTimeoutMs);
  while (vakem_send(end, to) != 0) {
    if (std::chrono::steady_clock::now() > deadline) return 12;
    sched_yield();
  }
  return poolClean(kDefaultHoldLimit) ? 0 : 13;
}

// Polls shared counters until condition holds; false after kPhaseTimeoutMs.
bool within(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPhaseTimeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class SharedMemory {
 public:
  SharedMemory()
      : memory_(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) {}
  ~SharedMemory() { munmap(memory_, sizeof(Shared)); }
  Shared* get() { return memory_ == MAP_FAILED ? nullptr : new (memory_) Shared{}; }

 private:
  void* memory_;
};

TEST(TransportStress, SendersAndTheNodeDieOrStallUnderTrafficAndNothingAcceptedIsLost) {
  SKIP_WITHOUT_DEAD_OWNER_DETECTION();
  SharedMemory memory;
  Shared* shared = memory.get();
  ASSERT_NE(shared, nullptr);
  shared->nodeGeneration.store(1);
  for (SenderState& sender : shared->senders) sender.firstAfterRestart.store(kNone);
  const uint16_t nid = testNid();

  Rendezvous firstUp;
  auto firstNode = std::make_unique<ChildProcess>([&] { return runNode(*shared, shared->receivers[0], nid, false, firstUp); });
  ASSERT_EQ(firstUp.waitFor(), 1u);
  std::unique_ptr<ChildProcess> senders[kSenders];
  for (uint32_t i = 0; i < kSenders; ++i) {
    senders[i] = std::make_unique<ChildProcess>([&, i] { return runSender(*shared, i, nid); });
  }
  ReceiverState& first = shared->receivers[0];
  auto receivedFrom = [](ReceiverState& node, uint32_t sender) { return node.received[sender].load(); };
  auto allProgressed = [&](ReceiverState& node, const uint32_t (&since)[kSenders], bool skipKilled, bool skipStopped) {
    for (uint32_t i = 0; i < kSenders; ++i) {
      if ((skipKilled && i == kKilledSender) || (skipStopped && i == kStoppedSender)) continue;
      if (receivedFrom(node, i) < since[i] + kProgress) return false;
    }
    return true;
  };
  const uint32_t zero[kSenders] = {};
  ASSERT_TRUE(within([&] { return allProgressed(first, zero, false, false); })) << "traffic from every sender";

  // A sender killed mid-stream: the others go on.
  EXPECT_EQ(senders[kKilledSender]->kill(), 128 + SIGKILL);
  uint32_t mark[kSenders];
  for (uint32_t i = 0; i < kSenders; ++i) mark[i] = receivedFrom(first, i);
  EXPECT_TRUE(within([&] { return allProgressed(first, mark, true, false); })) << "after a sender was killed";

  // A sender stopped: the others go on meanwhile, and so does it once continued.
  kill(senders[kStoppedSender]->pid(), SIGSTOP);
  for (uint32_t i = 0; i < kSenders; ++i) mark[i] = receivedFrom(first, i);
  EXPECT_TRUE(within([&] { return allProgressed(first, mark, true, true); })) << "while a sender was stopped";
  kill(senders[kStoppedSender]->pid(), SIGCONT);
  for (uint32_t i = 0; i < kSenders; ++i) mark[i] = receivedFrom(first, i);
  EXPECT_TRUE(within([&] { return allProgressed(first, mark, true, false); })) << "after it was continued";

  // The node killed under traffic: sends to it fail, and a restarted node is reached again.
  EXPECT_EQ(firstNode->kill(), 128 + SIGKILL);
  shared->nodeGeneration.store(2);
  EXPECT_TRUE(within([&] {
    for (uint32_t i = 0; i < kSenders; ++i) {
      if (i != kKilledSender && shared->senders[i].refusedByDeadNode.load() == 0) return false;
    }
    return true;
  })) << "every live sender is told the node is gone";
  Rendezvous secondUp;
  ChildProcess secondNode([&] { return runNode(*shared, shared->receivers[1], nid, true, secondUp); });
  ASSERT_EQ(secondUp.waitFor(), 1u) << "the node id of a dead node can be served again";
  ReceiverState& second = shared->receivers[1];
  EXPECT_TRUE(within([&] { return allProgressed(second, zero, true, false); })) << "traffic to the restarted node";

  shared->stop.store(1);
  for (uint32_t i = 0; i < kSenders; ++i) {
    if (i != kKilledSender) {
      EXPECT_EQ(senders[i]->wait(), 0) << "sender " << i;
    }
  }
  EXPECT_EQ(secondNode.wait(), 0) << "the restarted node ends with every buffer back";

  // What each node received is a gap-free run per sender: the first node from the first message
  // on, the restarted one up to the last accepted send, including everything accepted after the
  // first node was reaped.
  for (const ReceiverState* node : {&first, &second}) {
    EXPECT_EQ(node->damaged.load(), 0u);
    EXPECT_EQ(node->outOfOrder.load(), 0u);
  }
  for (uint32_t i = 0; i < kSenders; ++i) {
    EXPECT_EQ(first.first[i].load(), 0u) << "sender " << i;
    if (i == kKilledSender) {
      EXPECT_LE(first.received[i].load(), shared->senders[i].sent.load());
      continue;
    }
    const uint32_t sent = shared->senders[i].sent.load();
    ASSERT_GT(second.received[i].load(), 0u) << "sender " << i;
    EXPECT_EQ(second.last[i].load(), sent - 1) << "sender " << i << ": the last accepted send arrived";
    EXPECT_LE(second.first[i].load(), shared->senders[i].firstAfterRestart.load()) << "sender " << i;
  }
}

}  // namespace
}  // namespace rhyddal
