// The message broker against plain messages, in one run.
//
//   PublishLocal/N:  one node-zone publication (mode 0, 4 bytes) to N subscribers of this node,
//   SendLocal/N:     the same N messages sent with AaSysComMsgSend: messages delivered per second.
//   PublishAcrossNodes: a system-zone publication from this node through the broker server on a
//                    master node (a real OLMLiteExe loading libBrokerServer.so) back to a
//                    subscriber on this node: two node crossings; p50_us and p99_us,
//   SendAcrossNodes: the same message to the master's statistics EU (CPID 0x610), which echoes it:
//                    the same two crossings without the broker.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "AaSysCom.h"
#include "AaSysMb.h"
#include "AaSysTime.h"
#include "Dispatcher.h"
#include "RoundTrip.h"
#include "TestNamespace.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kMaxSubscribers = 32;
constexpr TAaSysComCpid kFirstSubscriberCpid = 0x0740;
constexpr TAaSysComCpid kPublisherCpid = 0x0738;
constexpr TAaSysComCpid kRemoteSubscriberCpid = 0x0739;
constexpr TAaSysComCpid kEchoCpid = 0x0610;
constexpr TAaSysComMsgId kLocalNewsBase = 0x3C00;  // + N: the id N subscribers take
constexpr TAaSysComMsgId kSystemNewsId = 0x3C80;
constexpr TAaSysComMsgId kWakeUpMsgId = 0x3C81;
constexpr uint32_t kWakeUpPeriodUs = 1000;
constexpr uint32_t kValue = 42;
constexpr auto kServerStartTimeout = std::chrono::seconds(10);
constexpr auto kProbeRetry = std::chrono::milliseconds(20);

class CountingEu : public Olm::IAaSysDispatcherSicHandler {
 public:
  int PrioritizeMessage(void*&) override { return 3; }
  void ProcessMessage(void*& msg) override {
    if (AaSysComMsgGetId(msg) != kWakeUpMsgId) ++received;
  }
  unsigned long received = 0;
};

CountingEu subscribers[kMaxSubscribers];
CountingEu remoteSubscriber;
TAaSysComNid masterNid = 0;
pid_t masterPid = -1;

unsigned long localDeliveries() {
  unsigned long total = 0;
  for (const CountingEu& eu : subscribers) total += eu.received;
  return total;
}

TAaSysComSicad onThisNode(TAaSysComCpid cpid) { return AaSysComSicadGet(cpid, AaSysComGetOwnNid()); }

void stopMaster() {
  if (masterPid > 0) {
    kill(masterPid, SIGKILL);
    waitpid(masterPid, nullptr, 0);
    masterPid = -1;
  }
}

void startMaster() {
  masterNid = OlmTest::nextTestNid();
  const std::string nid = std::to_string(masterNid);
  masterPid = fork();
  if (masterPid == 0) {
    roundtrip::pinEchoProcess();
    if (freopen("/dev/null", "w", stdout) == nullptr) _exit(126);
    execl(OLM_BENCH_EXECUTABLE, OLM_BENCH_EXECUTABLE, "--nid", nid.c_str(), "--masternid", nid.c_str(), "--wait", "0",
          "--load-local", OLM_BENCH_BROKER_SERVER, static_cast<char*>(nullptr));
    _exit(127);
  }
  atexit(stopMaster);
}

// This process's node, a member of the master's system.
Olm::Dispatcher& node() {
  static Olm::Dispatcher* dispatcher = [] {
    roundtrip::pinBenchProcess();
    startMaster();
    std::string argv0 = "BrokerPublish_benchmark", nidOption = "--nid", nid = std::to_string(OlmTest::nextTestNid());
    std::string masterOption = "--masternid", master = std::to_string(masterNid), waitOption = "--wait", zero = "0";
    char* argv[] = {argv0.data(), nidOption.data(), nid.data(), masterOption.data(), master.data(),
                    waitOption.data(), zero.data(), nullptr};
    auto* d = static_cast<Olm::Dispatcher*>(Olm::IAaSysDispatcher::IAaSysDispatcherCreate(7, argv));
    for (unsigned i = 0; i < kMaxSubscribers; ++i) d->AaSysDispatcherCpidBind(subscribers[i], kFirstSubscriberCpid + i);
    d->AaSysDispatcherCpidBind(remoteSubscriber, kRemoteSubscriberCpid);
    return d;
  }();
  return *dispatcher;
}

void publish(TAaSysComMsgId msgId, uint32_t zone) {
  void* payload = AaSysMbPrepare(sizeof(kValue), msgId, onThisNode(kPublisherCpid), EAaSysMbPublMode_NotStored, zone);
  std::memcpy(payload, &kValue, sizeof(kValue));
  AaSysMbPublish(&payload);
}

void runUntil(Olm::Dispatcher& dispatcher, unsigned long (*count)(), unsigned long target) {
  while (count() < target) dispatcher.runIteration();
}

unsigned long remoteDeliveries() { return remoteSubscriber.received; }

// Subscribes the first n subscribers to the id of n, once.
TAaSysComMsgId subscribeLocally(Olm::Dispatcher& dispatcher, unsigned n) {
  const TAaSysComMsgId msgId = static_cast<TAaSysComMsgId>(kLocalNewsBase + n);
  static bool done[kMaxSubscribers + 1] = {};
  if (!done[n]) {
    for (unsigned i = 0; i < n; ++i) {
      AaSysMbSubscribe(msgId, onThisNode(kFirstSubscriberCpid + i), EAaSysMbSubsMode_KeepOnly, EAaSysMbZone_Node);
    }
    for (unsigned i = 0; i < n; ++i) dispatcher.runIteration();
    done[n] = true;
  }
  return msgId;
}

void BM_PublishLocal(benchmark::State& state) {
  Olm::Dispatcher& dispatcher = node();
  const unsigned n = static_cast<unsigned>(state.range(0));
  const TAaSysComMsgId msgId = subscribeLocally(dispatcher, n);
  const unsigned long first = localDeliveries();
  for (auto _ : state) {
    const unsigned long target = localDeliveries() + n;
    publish(msgId, EAaSysMbZone_Node);
    runUntil(dispatcher, localDeliveries, target);
  }
  state.counters["delivered_per_s"] =
      benchmark::Counter(static_cast<double>(localDeliveries() - first), benchmark::Counter::kIsRate);
}

void BM_SendLocal(benchmark::State& state) {
  Olm::Dispatcher& dispatcher = node();
  const unsigned n = static_cast<unsigned>(state.range(0));
  const TAaSysComMsgId msgId = static_cast<TAaSysComMsgId>(kLocalNewsBase + n);
  const unsigned long first = localDeliveries();
  for (auto _ : state) {
    const unsigned long target = localDeliveries() + n;
    for (unsigned i = 0; i < n; ++i) {
      void* msg = AaSysComMsgCreate(msgId, sizeof(kValue), onThisNode(kFirstSubscriberCpid + i));
      std::memcpy(AaSysComMsgGetPayload(msg), &kValue, sizeof(kValue));
      AaSysComMsgSetSender(msg, onThisNode(kPublisherCpid));
      AaSysComMsgSend(&msg);
    }
    runUntil(dispatcher, localDeliveries, target);
  }
  state.counters["delivered_per_s"] =
      benchmark::Counter(static_cast<double>(localDeliveries() - first), benchmark::Counter::kIsRate);
}

// The server may still be starting, and what is sent before it is up is lost: subscribe and
// publish until a publication comes back (the server ignores the repeated subscriptions), with a
// 1 ms timer keeping the loop from waiting for a delivery that never comes.
void waitForServer(Olm::Dispatcher& dispatcher) {
  static bool up = false;
  void* wakeUp = AaSysComMsgCreate(kWakeUpMsgId, 0, onThisNode(kRemoteSubscriberCpid));
  TAaSysTimerId timer = 0;
  AaSysTimermCreate(&timer, kWakeUpPeriodUs, kWakeUpPeriodUs, wakeUp);
  const auto deadline = Clock::now() + kServerStartTimeout;
  while (!up && Clock::now() < deadline) {
    AaSysMbSubscribe(kSystemNewsId, onThisNode(kRemoteSubscriberCpid), EAaSysMbSubsMode_KeepOnly, EAaSysMbZone_System);
    publish(kSystemNewsId, EAaSysMbZone_System);
    const auto retry = Clock::now() + kProbeRetry;
    while (remoteSubscriber.received == 0 && Clock::now() < retry) dispatcher.runIteration();
    up = remoteSubscriber.received != 0;
  }
  const auto settle = Clock::now() + kProbeRetry;
  while (Clock::now() < settle) dispatcher.runIteration();
  AaSysTimerDelete(timer);
}

// Round trips of whatever sendOne sends until the subscriber on this node has it back.
template <typename SendOne>
void measureRoundTrips(benchmark::State& state, SendOne sendOne) {
  Olm::Dispatcher& dispatcher = node();
  waitForServer(dispatcher);
  roundtrip::RoundTripTimes times(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = Clock::now();
    const unsigned long target = remoteSubscriber.received + 1;
    sendOne();
    runUntil(dispatcher, remoteDeliveries, target);
    times.add(state, Clock::now() - start);
  }
  times.report(state);
}

void BM_PublishAcrossNodes(benchmark::State& state) {
  measureRoundTrips(state, [] { publish(kSystemNewsId, EAaSysMbZone_System); });
}

void BM_SendAcrossNodes(benchmark::State& state) {
  measureRoundTrips(state, [] {
    void* msg = AaSysComMsgCreate(kSystemNewsId, sizeof(kValue), AaSysComSicadGet(kEchoCpid, masterNid));
    std::memcpy(AaSysComMsgGetPayload(msg), &kValue, sizeof(kValue));
    AaSysComMsgSetSender(msg, onThisNode(kRemoteSubscriberCpid));
    AaSysComMsgSend(&msg);
  });
}

}  // namespace

BENCHMARK(BM_PublishLocal)->Arg(1)->Arg(8)->Arg(32);
BENCHMARK(BM_SendLocal)->Arg(1)->Arg(8)->Arg(32);
BENCHMARK(BM_PublishAcrossNodes)->Iterations(roundtrip::kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_SendAcrossNodes)->Iterations(roundtrip::kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);
