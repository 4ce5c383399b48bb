// Process-wide current machine.
#include "platform/machine.h"

#include <atomic>
#include <mutex>

#ifdef _WIN32
#include "platform/win32/live_machine.h"
#else
#include "platform/recorded/recorded_machine.h"
#endif

namespace platform {

namespace {

struct Slot {
  std::mutex mutex;
  std::shared_ptr<Machine> installed;
  // The installed machine, read without the lock: every platform call asks for it, a
  // few million times in a large query.
  std::atomic<Machine*> current{nullptr};
  std::shared_ptr<Machine> fallback;  // made on first use
};

Slot& Current_() {
  static Slot slot;
  return slot;
}

}  // namespace

Machine::~Machine() = default;

Machine& Machine::Current() {
  Slot& slot = Current_();
  if (Machine* machine = slot.current.load(std::memory_order_acquire)) return *machine;
  std::lock_guard<std::mutex> lock(slot.mutex);
  if (slot.installed) return *slot.installed;
  if (!slot.fallback) {
#ifdef _WIN32
    slot.fallback = win32::MakeLiveMachine();
#else
    slot.fallback = recorded::RecordedMachine::Empty();
#endif
  }
  return *slot.fallback;
}

std::shared_ptr<Machine> Machine::Install(std::shared_ptr<Machine> machine) {
  Slot& slot = Current_();
  std::lock_guard<std::mutex> lock(slot.mutex);
  std::shared_ptr<Machine> previous = std::move(slot.installed);
  slot.installed = std::move(machine);
  slot.current.store(slot.installed.get(), std::memory_order_release);
  return previous;
}

}  // namespace platform
