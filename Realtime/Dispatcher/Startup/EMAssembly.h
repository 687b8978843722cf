// Olm::EMAssembly: owns every long-lived object of a node and runs its start-up.
#pragma once

#include <cstdint>

#include "AifTimeSource.h"
#include "BaseAssembly.h"
#include "Dispatcher.h"
#include "EMMsgPort.h"
#include "HistoryLog.h"
#include "MsgFilterLog.h"
#include "TrivialLog.h"

namespace Olm {

class EMAssembly : public BaseAssembly {
 public:
  // Builds the members and wires them: until the command line says otherwise the Dispatcher logs
  // through the trivial log.
  EMAssembly();

  // The start-up sequence; returns the message port's initialisation result (0 or positive).
  // Ends the process on --help, a missing --nid and start-up failures.
  int Initialize(int argc, char** argv);

  Dispatcher& getItsDispatcher() { return m_dispatcher; }
  EMMsgPort& getItsEMMsgPort() { return m_msgPort; }
  HistoryLog& getItsHistoryLog() { return m_historyLog; }
  MsgFilterLog& getItsMsgFilterLog() { return m_msgFilterLog; }
  TrivialLog& getItsTrivialLog() { return m_trivialLog; }
  AifTimeSource& getItsAifTimeSource() { return m_timeSource; }

  // The process's one assembly: created on first use and never destroyed.
  static EMAssembly* getInstance();

 private:
  struct Settings {
    bool nidGiven = false;
    unsigned long nid = 0;  // used whole for file and directory names
    uint16_t masterNid = 0;
    unsigned long cpu = 0;
    bool historyOn = true;
    unsigned long msgFilterMode = 0;  // 0 disabled, 1 enabled, 2 message headers only
  };

  void parseCommandLine(int argc, char** argv);
  void applyOption(int option, char* value);
  void enterNodeDirectory() const;
  void attachHistoryLog();
  void attachMsgFilterLog();

  Dispatcher m_dispatcher;
  EMMsgPort m_msgPort;
  HistoryLog m_historyLog;
  MsgFilterLog m_msgFilterLog;
  TrivialLog m_trivialLog;
  AifTimeSource m_timeSource;
  Settings m_settings;
};

}  // namespace Olm
