// Olm::Dispatcher: the node's single-threaded event loop.
//
// It owns the registry of EUs by CPID, three priority queues of incoming messages, the LTE timer
// queue and the latest LTE time reading. Messages come in from the message port, from local sends
// and from expired timers; each is classified by its EU's PrioritizeMessage, queued, and later
// handed to the EU's ProcessMessage. The service API allocates, frees and sends messages and
// starts timers only through the Dispatcher, which therefore also writes the operation trace.
// Exactly one Dispatcher exists per process; nothing in it is locked. It is also the process's
// runtime as the services see it (IRuntime), installed when it is constructed.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "AaFile.h"
#include "EchoServer.h"
#include "IAaSysDispatcher.h"
#include "ILog.h"
#include "IMsgPort.h"
#include "IRuntime.h"
#include "ITimeSource.h"
#include "LteTime.h"
#include "MsgQueue.h"
#include "SicFtpFwEu.h"
#include "TimerQueue.h"

namespace Olm {

class Dispatcher final : public IAaSysDispatcher, public IRuntime {
 public:
  static constexpr unsigned kEuSlots = 64;
  static constexpr unsigned kQueueCount = 3;
  enum Queue : unsigned { HighQueue = 0, MedQueue = 1, LowQueue = 2 };
  static constexpr int kPriorityHigh = 1;
  static constexpr int kPriorityMed = 2;
  static constexpr uint16_t kDefaultOwnNid = 0x1230;
  // The loop sleeps this long at the top of every iteration unless --wait says otherwise. One
  // second is deliberate: a node left at the default is a slow, quiet node.
  static constexpr uint32_t kDefaultWaitMicroseconds = 1000000;
  static constexpr uint32_t kNoTimerSeconds = 0xFFFFFFFF;
  static constexpr unsigned kStatsTextSize = 256;
  static constexpr uint16_t kStatisticsCpid = 0x0610;
  static constexpr uint16_t kFileTransferCpid = 0x0614;
  static constexpr uint16_t kFileTransferLegacyCpid = 0x023B;

  Dispatcher();
  ~Dispatcher() override;
  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  // IAaSysDispatcher
  void AaSysDispatcherCpidBind(IAaSysDispatcherSicHandler& eu, unsigned short cpid) override;
  void AaSysDispatcherRun() override;

  // The run loop in pieces: the built-in EUs and the statistics timer, then single iterations.
  // AaSysDispatcherRun is bindBuiltInEus() followed by runIteration() forever.
  void bindBuiltInEus();
  void runIteration();

  // Message operations.
  void* newMessage(unsigned int size) override;
  void deleteMessage(void* msg) override;
  bool sendMessage(void* msg) override;
  void outputMessage(void* msg);
  void* inputMessage();
  bool ingress(void* msg);
  void dispatch();
  bool processTimers();

  // Timers. The expiry is absolute; the message becomes the timer queue's.
  unsigned int startTimer(LteTime expiry, LteTime period, void* msg) override;
  // The message of the cancelled timer, or null for a stale identifier; the caller owns it.
  void* cancelTimer(unsigned int id) override;

  // Time.
  const LteTime& getNow() const { return m_now; }
  LteTime getLteTime() override;
  int getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) override;
  unsigned long long getTimestamp() override;

  // Logging through the ILog (logf and logfString come with IRuntime).
  void vlogf(unsigned int count, const char* format, va_list args) override;
  void vlogfString(const char* format, va_list args) override;
  void pause();
  void logMsgOperation(const char* operation, void* msg);

  // Statistics files, registered once during start-up: "olmliteStatsRaw.bin" (the statistics
  // EU's record) and "olmliteStats.txt" (the text lockFn writes when a reader opens it, unlockFn
  // clears when the reader closes it; both run on the RAM file service's thread).
  void initStatsLog();
  static EAaFileCallbackAction lockFn(void* context);
  static EAaFileCallbackAction unlockFn(void* context);

  // The idle meter of the statistics EU (IdleMeter.h).
  void idleMeterStart(unsigned int milliseconds) { m_echoServer.startIdleMeter(milliseconds); }
  void idleMeterStop() { m_echoServer.stopIdleMeter(); }
  void idleMeterGet(unsigned int& load, unsigned int& minLoad, unsigned int& maxLoad) {
    m_echoServer.getIdleMeterCpuLoad(load, minLoad, maxLoad);
  }

  // EU registry: the EU bound to the CPID, or null.
  IAaSysDispatcherSicHandler* getItsIEu(unsigned short cpid) const;

  // Settings and collaborators.
  uint16_t getOwnNid() const override { return m_ownNid; }
  void bindEu(IAaSysDispatcherSicHandler& eu, uint16_t cpid) override { AaSysDispatcherCpidBind(eu, cpid); }
  IAaSysDispatcherSicHandler* boundEu(uint16_t cpid) const override { return getItsIEu(cpid); }
  void setOwnNid(uint16_t nid) { m_ownNid = nid; }
  uint16_t getCurrentCpid() const { return m_currentCpid; }
  bool getTiming() const { return m_timing; }
  void setTiming(bool timing) { m_timing = timing; }
  bool getVerbose() const { return m_verbose; }
  void setVerbose(bool verbose) { m_verbose = verbose; }
  bool getMsgFilterLogging() const { return m_msgFilterLogging; }
  void setMsgFilterLogging(bool on) { m_msgFilterLogging = on; }
  uint32_t getWait() const { return m_wait; }
  void setWait(uint32_t microseconds) { m_wait = microseconds; }
  bool getIdle() const { return m_idle; }
  void setIdleOn() { m_idle = true; }
  void setIdleOff() { m_idle = false; }
  char* getStatsBuffer() const { return m_statsBuffer; }

  ILog* getItsILog() const { return m_log; }
  void setItsILog(ILog* log) { m_log = log; }
  IMsgFilterLog* getItsIMsgFilterLog() const { return m_msgFilterLog; }
  void setItsIMsgFilterLog(IMsgFilterLog* log) { m_msgFilterLog = log; }
  IMsgPort* getItsIMsgPort() const { return m_msgPort; }
  void setItsIMsgPort(IMsgPort* port) { m_msgPort = port; }
  ITimeSource* getItsITimeSource() const { return m_timeSource; }
  void setItsITimeSource(ITimeSource* timeSource) { m_timeSource = timeSource; }
  TimerQueue& getItsTimerQueue() { return m_timerQueue; }
  const MsgQueue& getQueue(Queue queue) const { return m_queues[queue]; }
  EchoServer& getItsEchoServer() { return m_echoServer; }

  // The process's Dispatcher. getDispatcherInstance asserts that it exists; getTheDispatcher
  // returns null before construction; setTheDispatcher overwrites it, and the process's runtime
  // with it (the destructor clears neither).
  static Dispatcher* getDispatcherInstance();
  static Dispatcher* getTheDispatcher();
  static void setTheDispatcher(Dispatcher* dispatcher);

 private:
  struct EuSlot {
    IAaSysDispatcherSicHandler* eu = nullptr;
    uint16_t cpid = 0;  // 0 ends the used part of the table
  };

  unsigned choosePriorityQueue(int priority) const;
  void* popNextMessage();
  void reportFullQueue(unsigned fullQueue);
  void idleUntilNextEvent(uint64_t iterationStart);
  uint64_t readTicks();
  bool deliverTimer(const TimerQueue::Expiry& expiry);
  void* copyTimerMessage(const void* msg);
  void traceTimeout(void* msg);

  uint16_t m_currentCpid = 0;
  uint16_t m_ownNid = kDefaultOwnNid;
  [[maybe_unused]] uint16_t m_reserved = 0xFFF0;  // no operation reads it; kept for the layout
  LteTime m_now;
  bool m_timing = false;
  char* m_statsBuffer = nullptr;
  bool m_idle = false;
  bool m_verbose = false;
  bool m_msgFilterLogging = false;
  uint32_t m_wait = kDefaultWaitMicroseconds;
  EuSlot m_eus[kEuSlots];
  ILog* m_log = nullptr;
  IMsgFilterLog* m_msgFilterLog = nullptr;
  IMsgPort* m_msgPort = nullptr;
  ITimeSource* m_timeSource = nullptr;
  MsgQueue m_queues[kQueueCount];
  TimerQueue m_timerQueue;
  EchoServer m_echoServer;
  SicFtpFwEu m_sicFtpFwEu;
  bool m_statsRawFileRegistered = false;
  bool m_statsTextFileRegistered = false;
  uint64_t m_lastTickReading = 0;         // the latest AaTicksGet of the loop
  bool m_lastTickReadingCurrent = false;  // taken at the end of the previous busy iteration
};

}  // namespace Olm
