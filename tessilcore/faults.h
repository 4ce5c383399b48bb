// Fault injection for tests: the host can be told to fail its N-th call from a plug-in,
// with TTessilException of a chosen code or with std::bad_alloc, as a real host may.
#pragma once

#include <cstdint>
#include <string>

#include "host/export.h"

namespace NKestovaTessil20 {

enum class THostFault { kTessilException, kBadAlloc };

class TESSIL_API THostFaults {
 public:
  // From now on, the `callNumber`-th (1-based) host call made inside a plug-in query
  // throws, once. Resets the count.
  static void Arm(std::uint64_t callNumber, THostFault fault, std::int32_t code = 7);
  // No fault; resets the count.
  static void Disarm();
  // Host calls made inside plug-in queries since the last Arm or Disarm.
  static std::uint64_t Calls();
  // The operation that threw; empty when none has.
  static std::string Fired();

  // Called by the host at the start of each operation a plug-in may call.
  static void Call(const char* operation);
  // Brackets a plug-in query: only calls made inside one count.
  static void EnterPlugin();
  static void LeavePlugin();
};

}  // namespace NKestovaTessil20
