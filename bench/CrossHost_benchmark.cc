// Messages of 64 bytes between two nodes on two hosts, through the hosts' bridges over TCP on
// loopback, beside a bare pair of libzmq ROUTER sockets doing the same in the same run.
//   CrossHostRoundTrip, BareZmqRoundTrip:  one message in flight, echoed; p50_us and p99_us are the
//                                          median and 99th percentile of the round trips.
//   CrossHostStream, BareZmqStream:        one way, with the receiver granting credit every
//                                          kCreditEvery messages and at most kWindow in flight (the
//                                          bridges drop what does not fit their queues, so an
//                                          unbounded stream measures drops); one_way_msgs_per_s.
// The two "hosts" are namespaces of platform objects (RHYDDAL_NAMESPACE) with a node map placing
// node ids 0x1000-0x1fff on one and 0x2000-0x2fff on the other, bridges on 127.0.0.1. Each run
// forks the two sides afresh, placed per OLM_BENCH_PLACEMENT (RoundTrip.h) with every thread of a
// side: apart puts the driving side on CPU 0 and the echoing side on CPU 1, for both pairs alike.
// The benchmark process itself never touches the platform or libzmq.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Rhyddal.h"
#include "RoundTrip.h"
#include "TestNamespace.h"

namespace {

using namespace roundtrip;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kNoCpu = 0xFFFFFFFFu;
constexpr uint16_t kDriverNid = 0x1001;
constexpr uint16_t kEchoNid = 0x2001;
constexpr uint16_t kCpid = 0x0123;
constexpr uint16_t kDataMsgId = 1;
constexpr uint16_t kCreditMsgId = 2;
constexpr uint32_t kHeaderBytes = 16;
constexpr int64_t kStreamMessages = 1000000;
constexpr uint32_t kCreditEvery = 1000;
// A ZeroMQ queue of 10000 counts as full from about half of that on: its reader tells the writer
// what it has taken only every half of the queue.
constexpr uint32_t kWindow = 4000;
constexpr auto kGiveUpAfter = std::chrono::seconds(10);
constexpr int kBasePort = 42000;
constexpr int kPortsPerRun = 3;
constexpr int kPortSpread = 1000;
constexpr char kBareDriverId[] = "driver";
constexpr char kBareEchoId[] = "echo";

enum class Pair { kBridges, kBareZmq };

uint32_t sic(uint16_t nid) { return uint32_t{nid} << 16 | kCpid; }

// A 64-byte SysCom message: id, receiver, sender, total length, then the value.
struct Message {
  unsigned char bytes[kMessageBytes] = {};
  Message() = default;
  Message(uint16_t id, uint32_t receiver, uint32_t sender, uint32_t value) {
    const uint16_t length = kMessageBytes;
    std::memcpy(bytes, &id, 2);
    std::memcpy(bytes + 4, &receiver, 4);
    std::memcpy(bytes + 8, &sender, 4);
    std::memcpy(bytes + 14, &length, 2);
    std::memcpy(bytes + kHeaderBytes, &value, 4);
  }
  uint16_t id() const { return field<uint16_t>(0); }
  uint32_t value() const { return field<uint32_t>(kHeaderBytes); }
  template <typename T>
  T field(size_t offset) const {
    T out;
    std::memcpy(&out, bytes + offset, sizeof(out));
    return out;
  }
};

// One side of the pair: sends to the other side and receives from it, whichever way the pair
// carries messages.
class Side {
 public:
  virtual ~Side() = default;
  virtual bool ok() const = 0;
  // Waits only while the way out is full.
  virtual bool send(const Message& message) = 0;
  // wait false: returns false at once when nothing has come; true: waits up to kGiveUpAfter.
  virtual bool receive(Message* message, bool wait) = 0;
};

class NodeSide : public Side {
 public:
  NodeSide(uint16_t nid, uint16_t peer) : nid_(nid), peer_(peer) {
    uint32_t handle = 0;
    ok_ = vak_em_server_init(nid, kNoCpu, 0, &handle) == 0;
  }
  bool ok() const override { return ok_; }
  bool send(const Message& message) override {
    void* buffer = vakem_alloc(kMessageBytes);
    if (buffer == nullptr) return false;
    std::memcpy(buffer, message.bytes, kMessageBytes);
    for (;;) {
      const int rc = vakem_send(buffer, sic(peer_));
      if (rc == 0) return true;
      if (rc != -ENOBUFS) {
        std::fprintf(stderr, "node 0x%04x: a send to node 0x%04x failed: %s\n", nid_, peer_, std::strerror(-rc));
        vakem_free(buffer);
        return false;
      }
      sched_yield();
    }
  }
  bool receive(Message* message, bool wait) override {
    void* buffer = vakem_receive(nid_);
    const Clock::time_point deadline = Clock::now() + kGiveUpAfter;
    while (buffer == nullptr && wait && Clock::now() < deadline) {
      vakem_wait_for_event(1, 0);
      buffer = vakem_receive(nid_);
    }
    if (buffer == nullptr) return false;
    std::memcpy(message->bytes, buffer, kMessageBytes);
    vakem_free(buffer);
    return true;
  }

 private:
  uint16_t nid_, peer_;
  bool ok_ = false;
};

// The bare pair: the echoing side binds, the driving side connects; both ROUTER sockets, as the
// bridges' are, the peer named by its routing id, a send to a peer not connected yet refused.
class ZmqSide : public Side {
 public:
  ZmqSide(bool binds, const std::string& endpoint)
      : context_(zmq_ctx_new()), socket_(zmq_socket(context_, ZMQ_ROUTER)), peer_(binds ? kBareDriverId : kBareEchoId) {
    const std::string self = binds ? kBareEchoId : kBareDriverId;
    const int on = 1;
    const int timeoutMs = static_cast<int>(std::chrono::milliseconds(kGiveUpAfter).count());
    zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &timeoutMs, sizeof(timeoutMs));
    zmq_setsockopt(socket_, ZMQ_ROUTING_ID, self.data(), self.size());
    zmq_setsockopt(socket_, ZMQ_ROUTER_MANDATORY, &on, sizeof(on));
    if (binds) {
      ok_ = zmq_bind(socket_, endpoint.c_str()) == 0;
    } else {
      zmq_setsockopt(socket_, ZMQ_CONNECT_ROUTING_ID, peer_.data(), peer_.size());
      ok_ = zmq_connect(socket_, endpoint.c_str()) == 0;
    }
  }
  ~ZmqSide() override {
    const int noLinger = 0;
    zmq_setsockopt(socket_, ZMQ_LINGER, &noLinger, sizeof(noLinger));
    zmq_close(socket_);
    zmq_ctx_term(context_);
  }
  bool ok() const override { return ok_; }
  // Until the connection is made the peer is unknown (EHOSTUNREACH); a full queue is EAGAIN.
  bool send(const Message& message) override {
    for (;;) {
      if (zmq_send(socket_, peer_.data(), peer_.size(), ZMQ_SNDMORE | ZMQ_DONTWAIT) >= 0) {
        return zmq_send(socket_, message.bytes, kMessageBytes, 0) == static_cast<int>(kMessageBytes);
      }
      if (zmq_errno() != EAGAIN && zmq_errno() != EHOSTUNREACH) return false;
      sched_yield();
    }
  }
  bool receive(Message* message, bool wait) override {
    char routingId[256];
    if (zmq_recv(socket_, routingId, sizeof(routingId), wait ? 0 : ZMQ_DONTWAIT) < 0) return false;
    return zmq_recv(socket_, message->bytes, kMessageBytes, 0) == static_cast<int>(kMessageBytes);
  }

 private:
  void* context_;
  void* socket_;
  std::string peer_;
  bool ok_ = false;
};

// The echoing side: sends every data message back, or with credit, grants credit every
// kCreditEvery; ends after count data messages.
int runEcho(Side& side, bool credit, int64_t count) {
  Message message;
  for (int64_t received = 1; received <= count; ++received) {
    if (!side.receive(&message, true)) return 2;
    if (!credit) {
      if (!side.send(Message(kDataMsgId, sic(kDriverNid), sic(kEchoNid), message.value()))) return 3;
    } else if (received % kCreditEvery == 0 || received == count) {
      if (!side.send(Message(kCreditMsgId, sic(kDriverNid), sic(kEchoNid), static_cast<uint32_t>(received)))) return 3;
    }
  }
  return 0;
}

// The driving side's round trips, each timed, after one that is not: it waits for the connection.
std::vector<int64_t> runRoundTrips(Side& side, int64_t count) {
  std::vector<int64_t> nanoseconds;
  nanoseconds.reserve(static_cast<size_t>(count));
  Message reply;
  const uint32_t warmUp = static_cast<uint32_t>(count);
  if (!side.send(Message(kDataMsgId, sic(kEchoNid), sic(kDriverNid), warmUp)) || !side.receive(&reply, true)) return {};
  for (uint32_t i = 0; i < static_cast<uint32_t>(count); ++i) {
    const Clock::time_point start = Clock::now();
    if (!side.send(Message(kDataMsgId, sic(kEchoNid), sic(kDriverNid), i)) || !side.receive(&reply, true) ||
        reply.value() != i) {
      return {};
    }
    nanoseconds.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
  }
  return nanoseconds;
}

// The driving side's stream; its duration in nanoseconds, from the first send to the last credit.
int64_t runStream(Side& side, int64_t count) {
  const Clock::time_point start = Clock::now();
  int64_t granted = 0;
  Message credit;
  for (int64_t sent = 0; sent < count; ++sent) {
    while (side.receive(&credit, false)) granted = credit.value();
    while (sent - granted >= kWindow) {
      if (!side.receive(&credit, true)) return -1;
      granted = credit.value();
    }
    if (!side.send(Message(kDataMsgId, sic(kEchoNid), sic(kDriverNid), static_cast<uint32_t>(sent)))) return -1;
  }
  while (granted < count) {
    if (!side.receive(&credit, true)) return -1;
    granted = credit.value();
  }
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
}

// The map and endpoints of one run, and the two namespaces its hosts live in.
class Hosts {
 public:
  Hosts() : base_(OlmTest::testNamespace()), port_(kBasePort + static_cast<int>(getpid() % kPortSpread) * kPortsPerRun) {
    map_ = "/tmp/olm-crosshost-map-" + base_;
    std::ofstream(map_) << "0x1000-0x1fff tcp://127.0.0.1:" << port_ << "\n0x2000-0x2fff tcp://127.0.0.1:" << port_ + 1
                        << "\n";
  }
  ~Hosts() {
    std::remove(map_.c_str());
    for (const char* host : {"a", "b"}) {
      setenv("RHYDDAL_NAMESPACE", (base_ + host).c_str(), 1);
      OlmTest::removeNamespaceObjects();
    }
    setenv("RHYDDAL_NAMESPACE", base_.c_str(), 1);
  }
  // In a child: become a process of host "a" or "b".
  void enter(const char* host) const {
    setenv("RHYDDAL_NAMESPACE", (base_ + host).c_str(), 1);
    setenv("RHYDDAL_NODE_MAP", map_.c_str(), 1);
  }
  std::string bareEndpoint() const { return "tcp://127.0.0.1:" + std::to_string(port_ + 2); }

 private:
  std::string base_;
  int port_;
  std::string map_;
};

std::unique_ptr<Side> makeSide(Pair pair, const Hosts& hosts, bool echoing) {
  if (pair == Pair::kBareZmq) return std::make_unique<ZmqSide>(echoing, hosts.bareEndpoint());
  hosts.enter(echoing ? "b" : "a");
  return echoing ? std::make_unique<NodeSide>(kEchoNid, kDriverNid) : std::make_unique<NodeSide>(kDriverNid, kEchoNid);
}

pid_t forkSide(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  return child;
}

bool exitedWell(pid_t child) {
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Forks the echoing side, which echoes `echoed` messages, then the driving side, which runs drive
// and writes what it measured into a pipe: `values` values of int64_t. Empty when a side failed.
std::vector<int64_t> measure(Pair pair, bool credit, int64_t echoed, size_t values,
                             const std::function<std::vector<int64_t>(Side&)>& drive) {
  const Hosts hosts;
  int results[2];
  if (pipe(results) != 0) return {};
  // The echoing side's process may hold its host's bridge, which must outlive the last answer's
  // crossing: it stays until the driving side is done.
  const pid_t echo = forkSide([&] {
    pinEchoProcess();
    const auto side = makeSide(pair, hosts, true);
    const int rc = side->ok() ? runEcho(*side, credit, echoed) : 1;
    if (rc == 0) pause();
    return rc;
  });
  const pid_t driver = forkSide([&] {
    pinBenchProcess();
    const auto side = makeSide(pair, hosts, false);
    const std::vector<int64_t> measured = side->ok() ? drive(*side) : std::vector<int64_t>();
    const size_t bytes = measured.size() * sizeof(int64_t);
    return measured.size() == values && write(results[1], measured.data(), bytes) == static_cast<ssize_t>(bytes) ? 0 : 1;
  });
  close(results[1]);
  std::vector<int64_t> measured(values);
  const size_t bytes = values * sizeof(int64_t);
  size_t got = 0;
  while (got < bytes) {
    const ssize_t n = read(results[0], reinterpret_cast<char*>(measured.data()) + got, bytes - got);
    if (n <= 0) break;
    got += static_cast<size_t>(n);
  }
  close(results[0]);
  const bool driven = exitedWell(driver);
  kill(echo, SIGKILL);
  waitpid(echo, nullptr, 0);
  return driven && got == bytes ? measured : std::vector<int64_t>();
}

void roundTrips(benchmark::State& state, Pair pair) {
  const std::vector<int64_t> measured = measure(pair, false, state.max_iterations + 1, static_cast<size_t>(state.max_iterations),
                                                [&](Side& side) { return runRoundTrips(side, state.max_iterations); });
  if (measured.empty()) return state.SkipWithError("a side failed");
  RoundTripTimes times(measured.size());
  size_t next = 0;
  for (auto _ : state) times.add(state, std::chrono::nanoseconds(measured[next++]));
  times.report(state);
}

void stream(benchmark::State& state, Pair pair) {
  const std::vector<int64_t> measured = measure(pair, true, kStreamMessages, 1, [](Side& side) {
    const int64_t nanoseconds = runStream(side, kStreamMessages);
    return nanoseconds > 0 ? std::vector<int64_t>{nanoseconds} : std::vector<int64_t>();
  });
  if (measured.empty()) return state.SkipWithError("a side failed");
  const double seconds = static_cast<double>(measured[0]) / 1e9;
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["one_way_msgs_per_s"] = static_cast<double>(kStreamMessages) / seconds;
}

void BM_CrossHostRoundTrip(benchmark::State& state) { roundTrips(state, Pair::kBridges); }
BENCHMARK(BM_CrossHostRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_BareZmqRoundTrip(benchmark::State& state) { roundTrips(state, Pair::kBareZmq); }
BENCHMARK(BM_BareZmqRoundTrip)->Iterations(kRoundTrips)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_CrossHostStream(benchmark::State& state) { stream(state, Pair::kBridges); }
BENCHMARK(BM_CrossHostStream)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_BareZmqStream(benchmark::State& state) { stream(state, Pair::kBareZmq); }
BENCHMARK(BM_BareZmqStream)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
