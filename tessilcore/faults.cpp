#include "tessilcore/faults.h"

#include <new>

#include "host/status.h"

namespace NKestovaTessil20 {
namespace {

// One process, one host, one thread of queries: plain statics are enough.
struct TFaultPlan {
  std::uint64_t armedAt = 0;
  THostFault fault = THostFault::kTessilException;
  std::int32_t code = 7;
  std::uint64_t calls = 0;
  int depth = 0;
  std::string fired;
};

TFaultPlan& Plan() {
  static TFaultPlan plan;
  return plan;
}

}  // namespace

void THostFaults::Arm(std::uint64_t callNumber, THostFault fault, std::int32_t code) {
  TFaultPlan& plan = Plan();
  plan.armedAt = callNumber;
  plan.fault = fault;
  plan.code = code;
  plan.calls = 0;
  plan.fired.clear();
}

void THostFaults::Disarm() {
  Arm(0, THostFault::kTessilException);
}

std::uint64_t THostFaults::Calls() {
  return Plan().calls;
}

std::string THostFaults::Fired() {
  return Plan().fired;
}

void THostFaults::Call(const char* operation) {
  TFaultPlan& plan = Plan();
  if (plan.depth == 0) return;
  ++plan.calls;
  if (plan.armedAt == 0 || plan.calls != plan.armedAt) return;
  plan.armedAt = 0;
  plan.fired = operation;
  if (plan.fault == THostFault::kBadAlloc) throw std::bad_alloc();
  throw TTessilException(TTessilStatusCode(plan.code), std::string("injected at ") + operation);
}

void THostFaults::EnterPlugin() {
  ++Plan().depth;
}

void THostFaults::LeavePlugin() {
  --Plan().depth;
}

}  // namespace NKestovaTessil20
