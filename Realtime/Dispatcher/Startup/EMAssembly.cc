#include "EMAssembly.h"

#include <dlfcn.h>
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "AaConfig.h"
#include "AaMem.h"
#include "AaStartup.h"
#include "RamRoot.h"

namespace Olm {

namespace {

EMAssembly* theAssembly = nullptr;

constexpr const char* kMasterNidTag = "olm.service.aasyscom.masternid";
constexpr int kStrtoulAnyBase = 0;  // "0x" prefixes hexadecimal, a leading "0" octal
constexpr unsigned kTestRouteKind = 1;
constexpr unsigned kTestRouteQueue = 13;
constexpr size_t kPathSize = 256;

enum Option {
  OptNid = 1,
  OptMasterNid,
  OptRtMask,
  OptWait,
  OptVerbose,
  OptHelp,
  OptLoadLocal,
  OptLoadGlobal,
  OptTiming,
  OptCpu,
  OptLogSize,
  OptAifMode,
  OptCoreFile,
  OptOutputTrbl,
  OptDebugFile,
  OptNoHistory,
  OptCapture,
  OptArmTest,
  OptMsgFilEnabled,
  OptMsgFilSize,
  OptMsgFilIds,
};

const option kOptions[] = {
    {"nid", required_argument, nullptr, OptNid},
    {"masternid", required_argument, nullptr, OptMasterNid},
    {"rt_mask", required_argument, nullptr, OptRtMask},
    {"wait", required_argument, nullptr, OptWait},
    {"verbose", no_argument, nullptr, OptVerbose},
    {"help", no_argument, nullptr, OptHelp},
    {"load-local", required_argument, nullptr, OptLoadLocal},
    {"load-global", required_argument, nullptr, OptLoadGlobal},
    {"timing", no_argument, nullptr, OptTiming},
    {"cpu", required_argument, nullptr, OptCpu},
    {"logsize", required_argument, nullptr, OptLogSize},
    {"aif-mode", required_argument, nullptr, OptAifMode},
    {"corefile", required_argument, nullptr, OptCoreFile},
    {"outputtrbl", required_argument, nullptr, OptOutputTrbl},
    {"debugfile", no_argument, nullptr, OptDebugFile},
    {"nohistory", no_argument, nullptr, OptNoHistory},
    {"capture", required_argument, nullptr, OptCapture},
    {"armtest", no_argument, nullptr, OptArmTest},
    {"msg-fil-enabled", required_argument, nullptr, OptMsgFilEnabled},
    {"msg-fil-size", required_argument, nullptr, OptMsgFilSize},
    {"msg-fil-ids", required_argument, nullptr, OptMsgFilIds},
    {nullptr, 0, nullptr, 0},
};

// The help leaves out aif-mode, nohistory, armtest and the ignored options on purpose.
constexpr const char kHelpText[] =
    "Allowed options:\n"
    "  --nid arg             Dispatcher Node ID\n"
    "  --masternid arg       Master Node ID\n"
    "  --rt_mask arg         Realtime mask\n"
    "  --wait arg            Wait time between message dispatches\n"
    "  --load-local arg      Load shared Eu object file\n"
    "  --load-global arg     Load shared Eu object file\n"
    "  --timing              Generate Timing Logs\n"
    "  --cpu arg             CPU affinity\n"
    "  --verbose             Enable print logging\n"
    "  --logsize arg         Set size of memory log\n"
    "  --msg-fil-enabled arg Enable message filter logging.0=disabled,1=enabled,2=msg header logging only\n"
    "  --msg-fil-size arg    Set message filter log size in bytes, default 2MB\n"
    "  --msg-fil-ids  arg    Enable logging by providing comma delimited msg ids \"24 id max\" e.g. 0x26B8,0x26B9 \n"
    "  --help                Produce help message\n";

unsigned long parseNumber(const char* value) { return std::strtoul(value, nullptr, kStrtoulAnyBase); }

// The allocation trace (AaMem.h): SIGUSR2 switches it on and off, SIGUSR1 appends the table to
// the trace file. The root of that file is read here, outside the handler, because its first
// reading allocates.
void installAllocationTraceSignals() {
  ramRoot();
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  action.sa_handler = [](int) { signalSIGUSR1Handler(); };
  sigaction(SIGUSR1, &action, nullptr);
  action.sa_handler = [](int) { signalSIGUSR2Handler(); };
  sigaction(SIGUSR2, &action, nullptr);
}

}  // namespace

EMAssembly::EMAssembly() {
  m_dispatcher.setItsITimeSource(&m_timeSource);
  m_dispatcher.setItsIMsgPort(&m_msgPort);
  m_dispatcher.setItsILog(&m_trivialLog);
  m_historyLog.setItsITimeSource(&m_timeSource);
  m_dispatcher.setItsIMsgFilterLog(&m_msgFilterLog);
  m_msgFilterLog.setItsITimeSource(&m_timeSource);
  m_trivialLog.setItsITimeSource(&m_timeSource);
}

EMAssembly* EMAssembly::getInstance() {
  if (theAssembly == nullptr) theAssembly = new EMAssembly();
  return theAssembly;
}

void EMAssembly::parseCommandLine(int argc, char** argv) {
  int option;
  while ((option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
    // An unknown option has already been reported by getopt_long ('?'); it is skipped.
    if (option != '?') applyOption(option, optarg);
  }
}

void EMAssembly::applyOption(int option, char* value) {
  switch (option) {
    case OptNid:
      m_settings.nid = parseNumber(value);
      m_settings.nidGiven = true;
      m_dispatcher.setOwnNid(static_cast<uint16_t>(m_settings.nid & 0xFFFF));
      m_dispatcher.logf(1, "NID was set to %u\n", m_dispatcher.getOwnNid());
      break;
    case OptMasterNid:
      m_settings.masterNid = static_cast<uint16_t>(parseNumber(value) & 0xFFFF);
      m_dispatcher.logf(1, "Master NID was set to %u\n", m_settings.masterNid);
      break;
    case OptWait:
      m_dispatcher.setWait(static_cast<uint32_t>(parseNumber(value)));
      m_dispatcher.logf(1, "wait time between dispatches was set to %u\n", m_dispatcher.getWait());
      break;
    case OptVerbose:
      m_dispatcher.setVerbose(true);
      m_dispatcher.logf(0, "enable logging\n");
      break;
    case OptHelp:
      std::fputs(kHelpText, stderr);
      _exit(0);
    case OptLoadLocal:
      loadSO(value, 0);
      break;
    case OptLoadGlobal:
      loadSO(value, RTLD_GLOBAL);
      break;
    case OptTiming:
      m_dispatcher.setTiming(true);
      break;
    case OptCpu:
      m_settings.cpu = parseNumber(value);
      break;
    case OptLogSize:
      m_historyLog.setHistoryLogSize(static_cast<unsigned>(parseNumber(value)));
      break;
    case OptAifMode:
      m_timeSource.setSimMode(parseNumber(value) != 0);
      break;
    case OptNoHistory:
      m_settings.historyOn = false;
      break;
    case OptArmTest:
      olm_lite_em_add_test_route(kTestRouteKind, kTestRouteQueue, kTestRouteQueue, 0);
      break;
    case OptMsgFilEnabled:
      m_settings.msgFilterMode = parseNumber(value);
      m_dispatcher.setMsgFilterLogging(m_settings.msgFilterMode != 0);
      m_msgFilterLog.setMode(static_cast<uint32_t>(m_settings.msgFilterMode));
      break;
    case OptMsgFilSize:
      // A size beyond 32 bits asks for the most there is, not for what its low bits say.
      m_msgFilterLog.setMsgFilterLogSize(
          static_cast<unsigned>(std::min<unsigned long>(parseNumber(value), UINT32_MAX)));
      break;
    case OptMsgFilIds:
      m_msgFilterLog.setMsgFilterIds(value);
      break;
    default:  // rt_mask, corefile, outputtrbl, debugfile, capture: accepted and ignored
      break;
  }
}

// For NIDs below 0x1000 the two names differ ("0x0123" made, "0x123" entered), so the change of
// directory fails and the node stays where it started (and mounts its RAM files there). The
// mismatch is long-standing and kept. The root is /ram unless OLM_RAM_ROOT names another.
void EMAssembly::enterNodeDirectory() const {
  char command[kPathSize];
  std::snprintf(command, sizeof(command), "mkdir -p %s/olm_lite/0x%04lx", ramRoot(), m_settings.nid);
  if (std::system(command) != 0) {
    // Results are ignored: a node without its directory still runs.
  }
  char directory[kPathSize];
  std::snprintf(directory, sizeof(directory), "%s/olm_lite/0x%lx", ramRoot(), m_settings.nid);
  if (chdir(directory) != 0) {
    // See above.
  }
}

// The ring exists and is published even under --nohistory; the Dispatcher then keeps printing
// through the trivial log.
void EMAssembly::attachHistoryLog() {
  char name[kPathSize];
  std::snprintf(name, sizeof(name), "%lx_HistoryLog.bin", m_settings.nid);
  m_historyLog.initHistoryLog(name);
  m_historyLog.setItsITimeSource(&m_timeSource);
  if (m_settings.historyOn) m_dispatcher.setItsILog(&m_historyLog);
}

// "<node id in hex>_MsgFilterLog.log": the whole node id, as in the node's directory name.
void EMAssembly::attachMsgFilterLog() {
  char name[kPathSize];
  std::snprintf(name, sizeof(name), "%lx_MsgFilterLog.log", m_settings.nid);
  m_msgFilterLog.initMsgFilterLog(name);
  m_msgFilterLog.setItsITimeSource(&m_timeSource);
  m_dispatcher.setItsIMsgFilterLog(&m_msgFilterLog);
}

int EMAssembly::Initialize(int argc, char** argv) {
  installAllocationTraceSignals();
  parseCommandLine(argc, argv);
  if (!m_settings.nidGiven) {
    std::fputs("NID was not set\n", stderr);
    _exit(-1);
  }
  m_dispatcher.initStatsLog();
  attachHistoryLog();
  if (m_dispatcher.getMsgFilterLogging()) attachMsgFilterLog();
  const int portResult = m_msgPort.initialize(m_dispatcher.getOwnNid(), static_cast<unsigned>(m_settings.cpu),
                                              m_settings.masterNid);
  if (portResult < 0) {
    std::fprintf(stderr, "Em socket init failed. error: %d\n", -portResult);
    _exit(-1);
  }
  enterNodeDirectory();
  AaConfigEarlyStartup();
  AaConfigTagPublicSetU16(kMasterNidTag, m_settings.masterNid);
  const uint32_t startupResult = AaStartupEeStartup();
  if (startupResult != 0) {
    std::fprintf(stderr, "AaStartupEeStartup failure, %d\n", static_cast<int>(startupResult));
    std::exit(1);
  }
  initSO(&m_dispatcher);
  return portResult;
}

IAaSysDispatcher* IAaSysDispatcher::IAaSysDispatcherCreate(int argc, char** argv) {
  if (theAssembly != nullptr) return &theAssembly->getItsDispatcher();
  EMAssembly* assembly = EMAssembly::getInstance();
  if (assembly->Initialize(argc, argv) != 0) _exit(-1);
  return &assembly->getItsDispatcher();
}

}  // namespace Olm
