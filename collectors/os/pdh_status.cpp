#include "collectors/os/pdh_status.h"

#include <cstdint>
#include <string>

namespace installedapps_col {
namespace {

struct StatusText {
  std::uint32_t status;
  const char* text;
};

// The blanks after the names differ from line to line (two, one or none); readers of the
// log match these lines as they are.
const StatusText kStatusTexts[] = {
    {0x00000000u, "pdhStatus=ERROR_SUCCESS"},
    {0x00000001u,
     "pdhStatus=PDH_CSTATUS_NEW_DATA  The data for the counter was returned successfully and is "
     "different from the last time the counter was read."},
    {0x800007D0u,
     "pdhStatus=PDH_CSTATUS_NO_MACHINE  PDH was unable to connect to the machine specified in the "
     "counter path."},
    {0x800007D1u,
     "pdhStatus=PDH_CSTATUS_NO_INSTANCE  The specified instance was not found in the object."},
    {0x800007D2u,
     "pdhStatus=PDH_MORE_DATA  The supplied buffer was not large enough to store all of the "
     "counter data. Allocate a larger buffer and execute the function again. "},
    {0x800007D3u,
     "pdhStatus=PDH_CSTATUS_ITEM_NOT_VALIDATED The counter has been added to the query, but has "
     "not been validated nor accessed."},
    {0x800007D6u,
     "pdhStatus=PDH_CALC_NEGATIVE_DENOMINATOR A counter has a negative denominator value."},
    {0x800007D7u, "pdhStatus=PDH_CALC_NEGATIVE_TIMEBASE A counter has a negative timebase value."},
    {0x800007D8u, "pdhStatus=PDH_CALC_NEGATIVE_VALUE A counter has a negative value."},
    {0xC0000BB8u,
     "pdhStatus=PDH_CSTATUS_NO_OBJECT  The specified machine was found, but no matching "
     "performance object was found on that machine."},
    {0xC0000BB9u,
     "pdhStatus=PDH_CSTATUS_NO_COUNTER  The specified counter was not found in the specified "
     "object."},
    {0xC0000BBAu,
     "pdhStatus=PDH_CSTATUS_INVALID_DATA  The counter was successfully found, but the data "
     "returned is not valid."},
    {0xC0000BBBu, "pdhStatus=PDH_MEMORY_ALLOCATION_FAILURE"},
    {0xC0000BBCu, "pdhStatus=PDH_INVALID_HANDLE"},
    {0xC0000BBDu, "pdhStatus=PDH_INVALID_ARGUMENT"},
    {0xC0000BBFu,
     "pdhStatus=PDH_CSTATUS_NO_COUNTERNAME No counter name was specified in the query."},
    {0xC0000BC0u, "pdhStatus=PDH_CSTATUS_BAD_COUNTERNAME The counter path format is incorrect."},
};

}  // namespace

void logPdhStatus(LogMessage* log, platform::PDH_STATUS status) {
  if (log == nullptr) return;
  const auto code = static_cast<std::uint32_t>(status);
  for (const StatusText& known : kStatusTexts) {
    if (known.status == code) {
      log->logDebug(known.text);
      return;
    }
  }
  // The system's text for the code is looked up but not used: the line keeps one form
  // for every status PDH does not document here.
  log->systemErrorText(code);
  log->logDebug("Unable to Determine pdhStatus (pdhStatus= " + std::to_string(status) + ")");
}

}  // namespace installedapps_col
