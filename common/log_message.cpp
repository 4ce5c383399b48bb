#include "common/log_message.h"

#include <cstring>

#include "host/tessil.h"
#include "platform/machine.h"

namespace installedapps_col {
namespace {

LogMessage* g_instance = nullptr;
void* g_gate = nullptr;

}  // namespace

LogMessage::~LogMessage() = default;

LogMessage* LogMessage::instance() {
  // Static storage rather than the heap: a host that unloads the plug-in takes the
  // pointer with it, and the object must not outlive it as a leak.
  if (g_instance == nullptr) {
    static LogMessage theInstance;
    g_instance = &theInstance;
  }
  return g_instance;
}

void LogMessage::setLoggingGate(void* handle) {
  g_gate = handle;
}

void* LogMessage::loggingGate() {
  return g_gate;
}

void LogMessage::log(unsigned int level, const std::string& message) {
  if (level > 4 || g_gate == nullptr || message.empty()) return;
  // Fetched anew each time: the host may replace its logger between calls.
  NKestovaTessil20::ILogger* logger = NKestovaTessil20::TRootObject::GetCoreLogger();
  if (logger != nullptr) logger->Log(level, message);
}

std::string LogMessage::systemErrorText(platform::DWORD code) {
  platform::System& system = platform::Machine::Current().system();
  char* text = nullptr;
  const platform::DWORD flags = platform::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                                platform::FORMAT_MESSAGE_IGNORE_INSERTS |
                                platform::FORMAT_MESSAGE_FROM_SYSTEM;
  const platform::DWORD length = system.FormatMessageA(flags, nullptr, code, 0x400,
                                                       reinterpret_cast<char*>(&text), 0, nullptr);
  std::string result;
  if (length != 0 && text != nullptr) result.assign(text, ::strnlen(text, length));
  if (text != nullptr) system.LocalFree(text);
  return result;
}

}  // namespace installedapps_col
