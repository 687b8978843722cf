#include "Dispatcher.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "AaSysCom.h"
#include "AaSysComMsgHeader.h"
#include "AaSysTime.h"
#include "OlmAssert.h"

OLM_ASSERT_SOURCE("Realtime/Dispatcher/Dispatcher")

namespace Olm {

namespace {

Dispatcher* theDispatcher = nullptr;

// Tick differences are taken in the counter's own width, so a wrap between the two reads still
// gives the right difference.
using Ticks = decltype(AaTicksGet());
static_assert(sizeof(Ticks) <= sizeof(uint64_t), "tick readings fit the Dispatcher's record");

constexpr uint32_t kMaxTimerMsgLength = 65536;
const char* const kQueueNames[Dispatcher::kQueueCount] = {"HIGH", "MED", "LOW"};
constexpr char kStatsRawFileName[] = "olmliteStatsRaw.bin";
constexpr char kStatsTextFileName[] = "olmliteStats.txt";

}  // namespace

Dispatcher::Dispatcher() {
  OLM_ASSERT(theDispatcher == 0);
  setTheDispatcher(this);
}

// The RAM files go first: once removed, the file system no longer reads the buffers.
Dispatcher::~Dispatcher() {
  if (m_statsTextFileRegistered) AaFileRamfsRemove(kStatsTextFileName);
  if (m_statsRawFileRegistered) AaFileRamfsRemove(kStatsRawFileName);
  std::free(m_statsBuffer);
}

Dispatcher* Dispatcher::getDispatcherInstance() {
  OLM_ASSERT(theDispatcher != 0);
  return theDispatcher;
}

Dispatcher* Dispatcher::getTheDispatcher() { return theDispatcher; }

void Dispatcher::setTheDispatcher(Dispatcher* dispatcher) {
  theDispatcher = dispatcher;
  IRuntime::setTheRuntime(dispatcher);
}

// ---------------------------------------------------------------------------------------------
// EU registry

IAaSysDispatcherSicHandler* Dispatcher::getItsIEu(unsigned short cpid) const {
  for (const EuSlot& slot : m_eus) {
    if (slot.cpid == 0) return nullptr;
    if (slot.cpid == cpid) return slot.eu;
  }
  return nullptr;
}

void Dispatcher::AaSysDispatcherCpidBind(IAaSysDispatcherSicHandler& eu, unsigned short cpid) {
  if (m_verbose) logf(2, "(%04x)->Register(%p)\n", cpid, static_cast<void*>(&eu));
  if (getItsIEu(cpid) != nullptr) {
    logf(1, "Attempt to register duplicate cpid (%04x)\n", cpid);
    OLM_ASSERT(0);
  }
  // A full table drops the binding without a word; messages to the CPID are then discarded.
  for (EuSlot& slot : m_eus) {
    if (slot.eu == nullptr) {
      slot.eu = &eu;
      slot.cpid = cpid;
      return;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Message operations

void* Dispatcher::newMessage(unsigned int size) {
  void* msg = m_msgPort->allocMsg(size);
  logMsgOperation("Allocate", msg);
  return msg;
}

void Dispatcher::deleteMessage(void* msg) {
  logMsgOperation("Destroy", msg);
  m_msgPort->freeMsg(msg);
}

bool Dispatcher::sendMessage(void* msg) {
  logMsgOperation("Send", msg);
  // Local delivery never leaves the process.
  if (sicadNid(msgHeader(msg)->receiver) != m_ownNid) {
    outputMessage(msg);
    return true;
  }
  return ingress(msg);
}

void Dispatcher::outputMessage(void* msg) {
  logMsgOperation("Output", msg);
  m_msgPort->sendMsg(msg);
}

void* Dispatcher::inputMessage() {
  void* msg = m_msgPort->recvMsg();
  if (msg == nullptr) return nullptr;
  logMsgOperation("Input", msg);
  if (!AaSysComIsHostAndMsgEndianSame(msg)) AaSysComWordOrientedMsgToHost(&msg);
  return msg;
}

unsigned Dispatcher::choosePriorityQueue(int priority) const {
  if (priority == kPriorityHigh) return HighQueue;
  if (priority == kPriorityMed) return MedQueue;
  return LowQueue;
}

bool Dispatcher::ingress(void* msg) {
  if (msg == nullptr) return false;
  IAaSysDispatcherSicHandler* eu = getItsIEu(sicadCpid(msgHeader(msg)->receiver));
  if (eu == nullptr) {
    // An unknown receiver is not an error for the sender: the message just disappears.
    logMsgOperation("Discard", msg);
    deleteMessage(msg);
    return false;
  }
  const Ticks start = static_cast<Ticks>(readTicks());
  logMsgOperation("Prioritize", msg);
  const unsigned queue = choosePriorityQueue(eu->PrioritizeMessage(msg));
  if (m_queues[queue].isFull()) {
    reportFullQueue(queue);
    OLM_ASSERT(0);
  }
  m_queues[queue].push(msg);
  m_echoServer.addMessagingTicks(static_cast<Ticks>(readTicks() - start));
  return true;
}

void* Dispatcher::popNextMessage() {
  for (MsgQueue& queue : m_queues) {
    if (!queue.isEmpty()) return queue.pop();
  }
  return nullptr;
}

void Dispatcher::dispatch() {
  void* msg = popNextMessage();
  if (msg == nullptr) return;
  const Ticks start = static_cast<Ticks>(readTicks());
  const uint16_t cpid = sicadCpid(msgHeader(msg)->receiver);
  const uint16_t msgId = msgHeader(msg)->msgId;
  IAaSysDispatcherSicHandler* eu = getItsIEu(cpid);
  OLM_ASSERT(eu != 0);
  m_currentCpid = cpid;
  logMsgOperation("Process", msg);
  if (m_timing) {
    const unsigned long long before = m_timeSource->getTS();
    eu->ProcessMessage(msg);
    const unsigned long long after = m_timeSource->getTS();
    logf(3, "Clocks,%04x,%04x,%lu\n", m_currentCpid, msgId, static_cast<unsigned long>(static_cast<uint32_t>(after - before)));
  } else {
    eu->ProcessMessage(msg);
  }
  if (msg != nullptr) deleteMessage(msg);
  m_echoServer.addMessagingTicks(static_cast<Ticks>(readTicks() - start));
}

// The post-mortem of a full queue goes to the system log; the caller then aborts.
void Dispatcher::reportFullQueue(unsigned fullQueue) {
  // Indices are taken before anything is popped. The LOW section deliberately reports the MED
  // queue's indices and count: the report has always been read that way, so it is kept.
  uint32_t heads[kQueueCount], tails[kQueueCount];
  for (unsigned queue = 0; queue < kQueueCount; ++queue) {
    const unsigned source = queue == LowQueue ? MedQueue : queue;
    heads[queue] = m_queues[source].getHead();
    tails[queue] = m_queues[source].getTail();
  }
  openlog("LiteErr2", LOG_PID, LOG_USER);
  syslog(LOG_ERR, "OLMLite: (ALL QUEUES) msgqueue %d full, going to fail", fullQueue);
  for (unsigned queue = 0; queue < kQueueCount; ++queue) {
    const uint32_t head = heads[queue];
    const uint32_t tail = tails[queue];
    const uint32_t count = tail >= head ? tail - head : tail + MsgQueue::kSlots - head;
    syslog(LOG_ERR, "OLMLite: Oldest %s message index %d", kQueueNames[queue], head);
    syslog(LOG_ERR, "OLMLite: Newest %s message index %d", kQueueNames[queue], tail);
    syslog(LOG_ERR, "OLMLite: Queue %u %s:", queue, kQueueNames[queue]);
    for (uint32_t position = 0; position < count; ++position) {
      const void* msg = m_queues[queue].pop();
      if (msg == nullptr) break;
      const SAaSysComMsgHeader* header = msgHeader(msg);
      syslog(LOG_ERR, "%d: msgId 0x%x, target 0x%x, sender 0x%x size %d", head + position, header->msgId,
             header->receiver, header->sender, header->totalLength);
    }
  }
  closelog();
}

// ---------------------------------------------------------------------------------------------
// Timers

unsigned int Dispatcher::startTimer(LteTime expiry, LteTime period, void* msg) {
  if (m_verbose) {
    logf(4, "(%04x)->StartTimer(%p,%llu,%llu)\n", m_currentCpid, msg,
         static_cast<unsigned long long>(expiry.getSamples()), static_cast<unsigned long long>(period.getSamples()));
  }
  return m_timerQueue.activate(m_timerQueue.getLastTime(), msg, expiry, period);
}

void* Dispatcher::cancelTimer(unsigned int id) {
  if (m_verbose) logf(2, "(%04x)->CancelTimer(%d)\n", m_currentCpid, id);
  return m_timerQueue.deactivate(id);
}

bool Dispatcher::processTimers() {
  m_timerQueue.countDown(m_now);
  TimerQueue::Expiry expiry;
  if (!m_timerQueue.takeExpired(expiry)) return false;
  return deliverTimer(expiry);
}

bool Dispatcher::deliverTimer(const TimerQueue::Expiry& expiry) {
  if (expiry.msg == nullptr) return false;  // cancelled after it had been marked
  void* msg = expiry.periodic ? copyTimerMessage(expiry.msg) : expiry.msg;
  if (m_verbose) traceTimeout(msg);
  return ingress(msg);
}

// A periodic timer keeps its message; every firing delivers a fresh copy of it. Without a buffer
// for the copy this firing delivers nothing; the timer stays armed for the next.
void* Dispatcher::copyTimerMessage(const void* msg) {
  const uint32_t length = msgHeader(msg)->totalLength;
  if (length == 0 || length > kMaxTimerMsgLength) {
    logf(1, "Invalid timer msg length (%d)\n", length);
    OLM_ASSERT(0);
  }
  void* copy = m_msgPort->allocMsg(length);
  if (copy != nullptr) std::memcpy(copy, msg, length);
  return copy;
}

// The timeout line prints the node-id half of the sender where its neighbours print CPIDs; kept as
// the trace has always looked.
void Dispatcher::traceTimeout(void* msg) {
  logf(2, "(%04x)->Timeout(%p)\n", sicadNid(msgHeader(msg)->sender), msg);
}

// ---------------------------------------------------------------------------------------------
// Run loop

void Dispatcher::bindBuiltInEus() {
  AaSysDispatcherCpidBind(m_echoServer, kStatisticsCpid);
  AaSysDispatcherCpidBind(m_sicFtpFwEu, kFileTransferCpid);
  AaSysDispatcherCpidBind(m_sicFtpFwEu, kFileTransferLegacyCpid);
  m_echoServer.startHistTimer();
}

void Dispatcher::AaSysDispatcherRun() {
  bindBuiltInEus();
  for (;;) runIteration();
}

// Every busy step ends with a tick reading (at the end of its ingress or dispatch), so the loop's
// own accounting reuses that reading, and the next iteration starts from it, instead of reading
// the counter again a few nanoseconds later: on a host the counter is a clock read, and these
// reads are a large part of the cost of a message.
void Dispatcher::runIteration() {
  const uint64_t iterationStart = m_lastTickReadingCurrent ? m_lastTickReading : readTicks();
  m_lastTickReadingCurrent = false;
  m_timeSource->wait(m_wait);
  m_now = m_timeSource->getLTETime();
  if (!m_queues[HighQueue].isEmpty()) {
    dispatch();
  } else if (processTimers()) {
    setIdleOff();
  } else if (ingress(inputMessage())) {
    setIdleOff();
  } else if (!m_queues[MedQueue].isEmpty() || !m_queues[LowQueue].isEmpty()) {
    dispatch();
  } else {
    idleUntilNextEvent(iterationStart);
    return;
  }
  m_echoServer.addTotalLoopTicks(static_cast<Ticks>(m_lastTickReading - iterationStart));
  m_lastTickReadingCurrent = true;
}

uint64_t Dispatcher::readTicks() {
  m_lastTickReading = AaTicksGet();
  return m_lastTickReading;
}

void Dispatcher::idleUntilNextEvent(uint64_t iterationStart) {
  setIdleOn();
  m_echoServer.addIdleTicks(static_cast<Ticks>(readTicks() - iterationStart));
  // Without a timer due within 2^32 BTUs the wait has no limit.
  uint32_t seconds = kNoTimerSeconds;
  uint32_t nanoseconds = 0;
  m_timerQueue.nextDeadline(seconds, nanoseconds);
  m_msgPort->waitForNextEvent(seconds, nanoseconds);
}

// ---------------------------------------------------------------------------------------------
// Time

LteTime Dispatcher::getLteTime() { return m_timeSource->getLTETime(); }

int Dispatcher::getCdmaTime(unsigned long long* time, unsigned int a, unsigned int b) {
  return m_timeSource->getCdmaTime(time, a, b);
}

unsigned long long Dispatcher::getTimestamp() { return m_timeSource->getTS(); }

// ---------------------------------------------------------------------------------------------
// Logging

void Dispatcher::vlogf(unsigned int count, const char* format, va_list args) {
  if (m_log != nullptr) m_log->vlogf(count, format, args);
}

void Dispatcher::vlogfString(const char* format, va_list args) {
  if (m_log != nullptr) m_log->vlogfString(format, args);
}

void Dispatcher::pause() {
  if (m_verbose) logf(0, "Pause\n");
}

void Dispatcher::logMsgOperation(const char* operation, void* msg) {
  if (m_verbose && m_log != nullptr) m_log->logMsgOperation(m_currentCpid, operation, msg);
  if (m_msgFilterLogging && m_msgFilterLog != nullptr && m_msgFilterLog->wantsMessage(msg)) {
    m_msgFilterLog->logfMessage(3, kMsgOperationFormat, m_currentCpid, operation, msg);
  }
}

// ---------------------------------------------------------------------------------------------
// Statistics

void Dispatcher::initStatsLog() {
  m_echoServer.initStatsRaw();
  m_statsRawFileRegistered =
      AaFileRamfsSetExt(kStatsRawFileName, m_echoServer.getStatsFileView(), sizeof(EchoServer::OLMLiteStatsRaw),
                        EchoServer::lockFn, EchoServer::unlockFn, &m_echoServer) == EAaFileRet_Ok;
  if (!m_statsRawFileRegistered) std::puts("Failed to create OLMLite raw stats ramfs file.");
  m_statsBuffer = static_cast<char*>(std::malloc(kStatsTextSize));
  std::printf("m_statsBuffer address is: %p\n", static_cast<void*>(m_statsBuffer));
  if (m_statsBuffer == nullptr) return;
  std::memset(m_statsBuffer, 0, kStatsTextSize);
  m_statsTextFileRegistered =
      AaFileRamfsSetExt(kStatsTextFileName, m_statsBuffer, kStatsTextSize, lockFn, unlockFn, nullptr) == EAaFileRet_Ok;
  if (!m_statsTextFileRegistered) std::puts("Dispatcher::initStatsLog: problem with ramfs");
}

EAaFileCallbackAction Dispatcher::lockFn(void*) {
  Dispatcher* dispatcher = getTheDispatcher();
  if (dispatcher != nullptr && dispatcher->m_statsBuffer != nullptr) {
    dispatcher->m_echoServer.writeStatsText(dispatcher->m_statsBuffer, kStatsTextSize);
  }
  return EAaFileCallbackAction_Ok;
}

EAaFileCallbackAction Dispatcher::unlockFn(void*) {
  Dispatcher* dispatcher = getTheDispatcher();
  if (dispatcher != nullptr && dispatcher->m_statsBuffer != nullptr) {
    std::memset(dispatcher->m_statsBuffer, 0, kStatsTextSize);
  }
  return EAaFileCallbackAction_Ok;
}

}  // namespace Olm
