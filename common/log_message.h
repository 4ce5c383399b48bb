// The plug-in's one way to the host's logger.
#pragma once

#include <string>

#include "platform/types.h"

namespace installedapps_col {

class LogMessage {
 public:
  virtual ~LogMessage();

  // The process-wide instance, created on first use. Never freed by its users: each keeps
  // a plain pointer to it.
  static LogMessage* instance();

  // Nothing is logged while the gate is null. The callbacks object opens it with the
  // provider handle the host gave it at registration.
  static void setLoggingGate(void* handle);
  static void* loggingGate();

  // Passes (level, message) to the host's core logger; levels 0..4. An empty message, a
  // level above 4 or a closed gate writes nothing.
  void log(unsigned int level, const std::string& message);
  void logError(const std::string& message) { log(0, message); }
  void logInfo(const std::string& message) { log(3, message); }
  void logDebug(const std::string& message) { log(4, message); }

  // The system's text for a Windows error code; empty when there is none.
  std::string systemErrorText(platform::DWORD code);

 private:
  LogMessage() = default;
};

}  // namespace installedapps_col
