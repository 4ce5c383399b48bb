// Many queries of every class in one process: memory must not grow with the number of
// queries. 500 queries here; IA_SOAK_QUERIES=10000 for the long form.
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "common/system_information.h"
#include "plugin/frame_fixture.h"

namespace {

long ResidentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

TEST_F(FrameTest, SoakEveryClassManyTimes) {
  const char* configured = std::getenv("IA_SOAK_QUERIES");
#if defined(__SANITIZE_ADDRESS__)
  const long fallback = 100;  // leaks are the sanitizer's own report here
#else
  const long fallback = 500;
#endif
  const long queries = configured ? std::atol(configured) : fallback;
  platform::Machine::Install(
      platform::recorded::RecordedMachine::Load(IA_SOURCE_DIR "/examples/machines/win7-sp1-x64"));
  const std::vector<std::string> classes =
      installedapps_col::SystemInformation(host().GetNamespace()).classNames();
  long settled = 0;
  for (long i = 1; i <= queries; ++i) {
    host().Query(classes);
    host().ClearLog();
    if (i == queries / 10) settled = ResidentBytes();
  }
  EXPECT_EQ(host().GetInstances("KestovaSG_InstalledApplication", false).size(), 35u);
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer's quarantine holds freed memory back; leaks are its own report.
  (void)settled;
#else
  EXPECT_LT(ResidentBytes() - settled, 1L << 20) << "after " << queries << " queries";
#endif
}

}  // namespace
