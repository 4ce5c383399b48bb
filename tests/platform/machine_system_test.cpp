// Kernel services of a recorded machine: Windows' buffer rules, page files, time, code pages.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/recorded/record_error.h"
#include "platform/recorded/recorded_machine.h"

namespace {

using namespace platform;
using recorded::RecordedMachine;

std::shared_ptr<RecordedMachine> WithSystem(const std::string& system) {
  return RecordedMachine::FromFiles({{"machine.json", "{\"system\": " + system + "}"}});
}

std::shared_ptr<RecordedMachine> XpMachine() {
  return RecordedMachine::Load(IA_SOURCE_DIR "/tests/fixtures/machines/xp-sp3");
}

TEST(MachineSystem, EnvironmentFollowsWindowsSizeRules) {
  auto m = WithSystem(R"({"environment": {"Path": "C:\\bin", "EMPTY": ""}})");
  System& s = m->system();
  struct Case {
    const char* name;
    DWORD size;
    DWORD result;
    const char* text;  // null: buffer untouched
    DWORD lastError;
  };
  const Case cases[] = {
      {"PATH", 7, 6, "C:\\bin", 0},  // fits: length without NUL; names ignore case
      {"path", 6, 7, nullptr, 0},    // too small: size with NUL
      {"path", 0, 7, nullptr, 0},   {"NOPE", 64, 0, nullptr, ERROR_ENVVAR_NOT_FOUND},
      {"EMPTY", 64, 0, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + std::string(" size ") + std::to_string(c.size));
    char buffer[64];
    std::memset(buffer, 'x', sizeof buffer);
    s.SetLastError(0);
    EXPECT_EQ(s.GetEnvironmentVariableA(c.name, c.size ? buffer : nullptr, c.size), c.result);
    if (c.text) {
      EXPECT_STREQ(buffer, c.text);
    } else {
      EXPECT_EQ(buffer[0], 'x');
    }
    EXPECT_EQ(s.GetLastError(), c.lastError);
  }
  EXPECT_STREQ(s.getenv("pATH"), "C:\\bin");
  EXPECT_EQ(s.getenv("NOPE"), nullptr);
}

TEST(MachineSystem, ExpandEnvironmentStrings) {
  auto m = WithSystem(R"({"environment": {"SystemDrive": "C:", "X": "1"}})");
  System& s = m->system();
  struct Case {
    const char* source;
    const char* expanded;
  };
  const Case cases[] = {
      {"%SystemDrive%\\boot.ini", "C:\\boot.ini"},
      {"%systemdrive%", "C:"},
      {"%NOPE%", "%NOPE%"},
      {"%NOPE%X%", "%NOPE1"},  // the closing '%' may open the next name
      {"100%", "100%"},
      {"%%", "%%"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.source);
    char buffer[64];
    const DWORD needed = static_cast<DWORD>(std::strlen(c.expanded) + 1);
    EXPECT_EQ(s.ExpandEnvironmentStringsA(c.source, buffer, sizeof buffer), needed);
    EXPECT_STREQ(buffer, c.expanded);
  }
  // The ANSI call needs one byte more than text and NUL, and over-reports by one.
  char small[3] = {'x', 'x', 'x'};
  EXPECT_EQ(s.ExpandEnvironmentStringsA("%SystemDrive%", small, 3), 4u);
  EXPECT_EQ(small[0], '\0');
  char exact[4];
  EXPECT_EQ(s.ExpandEnvironmentStringsA("%SystemDrive%", exact, 4), 3u);
  EXPECT_STREQ(exact, "C:");
  EXPECT_EQ(s.ExpandEnvironmentStringsA("%SystemDrive%", nullptr, 0), 4u);
}

TEST(MachineSystem, NamesAndDirectoriesReportTheSizeNeeded) {
  auto m = XpMachine();
  System& s = m->system();
  char buffer[32];
  // GetSystemWindowsDirectoryA and GetSystemDirectoryA: length without NUL, or size with it.
  EXPECT_EQ(s.GetSystemWindowsDirectoryA(buffer, sizeof buffer), 10u);
  EXPECT_STREQ(buffer, "C:\\WINDOWS");
  EXPECT_EQ(s.GetSystemWindowsDirectoryA(buffer, 10), 11u);
  EXPECT_EQ(s.GetSystemDirectoryA(buffer, 5), 20u);
  EXPECT_EQ(s.GetSystemDirectoryA(buffer, 21), 19u);

  DWORD size = 3;
  EXPECT_FALSE(s.GetComputerNameA(buffer, &size));
  EXPECT_EQ(size, 6u);
  EXPECT_TRUE(s.GetComputerNameA(buffer, &size));
  EXPECT_EQ(size, 5u);
  EXPECT_STREQ(buffer, "XPBOX");
}

TEST(MachineSystem, VersionRecordsAndVerification) {
  auto m = XpMachine();
  System& s = m->system();
  OSVERSIONINFOEXA ex{};
  ex.dwOSVersionInfoSize = sizeof ex;
  ASSERT_TRUE(s.GetVersionExA(reinterpret_cast<OSVERSIONINFOA*>(&ex)));
  EXPECT_EQ(ex.dwMajorVersion, 5u);
  EXPECT_EQ(ex.wServicePackMajor, 3u);
  EXPECT_STREQ(ex.szCSDVersion, "Service Pack 3");

  // The short record must not be written past its 148 bytes.
  struct {
    OSVERSIONINFOA info;
    BYTE guard[8];
  } small{};
  std::memset(small.guard, 0xAB, sizeof small.guard);
  small.info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOA);
  ASSERT_TRUE(s.GetVersionExA(&small.info));
  EXPECT_EQ(small.info.dwBuildNumber, 2600u);
  EXPECT_EQ(small.guard[0], 0xAB);

  OSVERSIONINFOA wrong{};
  wrong.dwOSVersionInfoSize = 100;
  EXPECT_FALSE(s.GetVersionExA(&wrong));

  struct Case {
    DWORD major, minor;
    bool atLeast;
  };
  const Case cases[] = {{5, 1, true}, {5, 0, true}, {4, 9, true}, {5, 2, false}, {6, 0, false}};
  for (const Case& c : cases) {
    OSVERSIONINFOEXA want{};
    want.dwOSVersionInfoSize = sizeof want;
    want.dwMajorVersion = c.major;
    want.dwMinorVersion = c.minor;
    DWORDLONG mask = s.VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = s.VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    EXPECT_EQ(s.VerifyVersionInfoA(&want, VER_MAJORVERSION | VER_MINORVERSION, mask) != 0,
              c.atLeast)
        << c.major << "." << c.minor;
  }
}

struct PageFileCapture {
  std::vector<std::pair<std::string, SIZE_T>> files;
  static BOOL Record(void* context, ENUM_PAGE_FILE_INFORMATION* info, const char* name) {
    static_cast<PageFileCapture*>(context)->files.emplace_back(name, info->TotalSize);
    return TRUE;
  }
};

TEST(MachineSystem, PageFilesThroughPsapiAndNtdll) {
  auto m = WithSystem(R"({"psapi": {"enumPageFiles": true}, "ntQuerySystemInformation": true,
      "pageFiles": [{"name": "C:\\pagefile.sys", "totalSize": 196608},
                    {"name": "D:\\p.sys", "totalSize": 1000, "inUse": 7, "peak": 9}]})");
  System& s = m->system();
  PageFileCapture capture;
  ASSERT_TRUE(s.EnumPageFilesA(&PageFileCapture::Record, &capture));
  ASSERT_EQ(capture.files.size(), 2u);
  EXPECT_EQ(capture.files[0].first, "C:\\pagefile.sys");
  EXPECT_EQ(capture.files[1].second, 1000u);

  // The caller grows its buffer while the answer is a length mismatch.
  ULONG needed = 0;
  std::vector<std::uint64_t> tiny(2);
  EXPECT_EQ(s.ZwQuerySystemInformation(SystemPageFileInformation, tiny.data(), 16, &needed),
            STATUS_INFO_LENGTH_MISMATCH);
  // Two entries: 32-byte headers, names of 20 and 13 characters with NUL, 8-byte aligned.
  EXPECT_EQ(needed, 72u + 64u);
  std::vector<std::uint64_t> buffer(needed / 8);
  ASSERT_EQ(s.ZwQuerySystemInformation(SystemPageFileInformation, buffer.data(), needed, &needed),
            STATUS_SUCCESS);
  auto* base = reinterpret_cast<BYTE*>(buffer.data());
  auto* first = reinterpret_cast<SYSTEM_PAGEFILE_INFORMATION*>(base);
  EXPECT_EQ(first->NextEntryOffset, 72u);
  EXPECT_EQ(first->TotalSize, 196608u);
  EXPECT_EQ(first->PageFileName.Length, 38u);
  EXPECT_EQ(first->PageFileName.MaximumLength, 40u);
  EXPECT_EQ(reinterpret_cast<BYTE*>(first->PageFileName.Buffer), base + 32);
  EXPECT_EQ(std::u16string(first->PageFileName.Buffer, 19), u"\\??\\C:\\pagefile.sys");
  auto* second = reinterpret_cast<SYSTEM_PAGEFILE_INFORMATION*>(base + 72);
  EXPECT_EQ(second->NextEntryOffset, 0u);
  EXPECT_EQ(second->PeakUsage, 9u);
}

// The most a machine holds: 16 page files, kernel names of 32,766 units. Each entry is the
// 32-byte record and 65,534 bytes of name, 8-byte aligned.
TEST(MachineSystem, LargestPageFileAnswer) {
  std::string files;
  for (int i = 0; i < 16; ++i) {
    files += std::string(i ? "," : "") +
             R"({"name": "C:\\p.sys", "totalSize": 1, "kernelName": ")" +
             std::string(32766, static_cast<char>('a' + i)) + "\"}";
  }
  auto m = WithSystem(R"({"ntQuerySystemInformation": true, "pageFiles": [)" + files + "]}");
  ULONG needed = 0;
  EXPECT_EQ(m->system().ZwQuerySystemInformation(SystemPageFileInformation, nullptr, 0, &needed),
            STATUS_INFO_LENGTH_MISMATCH);
  EXPECT_EQ(needed, 16u * 65568u);
  std::vector<std::uint64_t> buffer(needed / 8);
  ASSERT_EQ(m->system().ZwQuerySystemInformation(SystemPageFileInformation, buffer.data(), needed,
                                                 &needed),
            STATUS_SUCCESS);
  const auto* last = reinterpret_cast<const SYSTEM_PAGEFILE_INFORMATION*>(
      reinterpret_cast<const BYTE*>(buffer.data()) + 15 * 65568);
  EXPECT_EQ(last->PageFileName.MaximumLength, 65534u);
  EXPECT_EQ(last->PageFileName.Buffer[32765], u'p');
  EXPECT_EQ(last->PageFileName.Buffer[32766], 0);
}

TEST(MachineSystem, StubbedPageFileSourcesFailAsRecorded) {
  auto m = WithSystem(R"({"psapi": {"enumPageFiles": {"error": 120}},
      "ntQuerySystemInformation": {"status": "0xC0000002"}})");
  System& s = m->system();
  HMODULE psapi = s.LoadLibraryA("psapi.dll");
  ASSERT_NE(psapi, nullptr);
  EXPECT_NE(s.GetProcAddress(psapi, "EnumPageFilesA"), nullptr);
  EXPECT_EQ(s.GetProcAddress(psapi, "GetPerformanceInfo"), nullptr);
  EXPECT_EQ(s.GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
  EXPECT_FALSE(s.EnumPageFilesA(&PageFileCapture::Record, nullptr));
  EXPECT_EQ(s.GetLastError(), 120u);
  ULONG needed = 0;
  EXPECT_EQ(s.ZwQuerySystemInformation(SystemPageFileInformation, nullptr, 0, &needed),
            STATUS_NOT_IMPLEMENTED);
}

TEST(MachineSystem, ClockAndZoneFollowTheDaylightRule) {
  auto m = XpMachine();
  System& s = m->system();
  TIME_ZONE_INFORMATION zone{};
  EXPECT_EQ(s.GetTimeZoneInformation(&zone), TIME_ZONE_ID_DAYLIGHT);  // mid-July
  EXPECT_EQ(zone.Bias, 300);
  SYSTEMTIME utc{}, local{};
  s.GetSystemTime(&utc);
  s.GetLocalTime(&local);
  EXPECT_EQ(utc.wHour, 16);
  EXPECT_EQ(local.wHour, 12);
  EXPECT_EQ(utc.wDayOfWeek, 4);  // 2010-07-15 was a Thursday
  EXPECT_EQ(s.crtTimezone(), 18000);
  EXPECT_EQ(s.crtDaylight(), 1);
  EXPECT_EQ(s.crtTime64(), 1279211400);

  struct Case {
    std::int64_t seconds;
    bool ok;
    int year, month, day, hour, isdst;
  };
  const Case cases[] = {
      {1279211400, true, 2010, 7, 15, 12, 1},
      {1263573000, true, 2010, 1, 15, 11, 0},
      // First Sunday of April 2010 is the 4th; at 02:00 standard the clock jumps to 03:00.
      {1270364399, true, 2010, 4, 4, 1, 0},
      {1270364400, true, 2010, 4, 4, 3, 1},
      // Last Sunday of October 2010 is the 31st; 02:00 daylight falls back to 01:00.
      {1288504799, true, 2010, 10, 31, 1, 1},
      {1288504800, true, 2010, 10, 31, 1, 0},
      {-1, false, 0, 0, 0, 0, 0},
      {32535215999LL + 1, false, 0, 0, 0, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.seconds);
    std::tm tm{};
    ASSERT_EQ(s.crtLocaltime64(c.seconds, &tm), c.ok);
    if (!c.ok) continue;
    EXPECT_EQ(tm.tm_year + 1900, c.year);
    EXPECT_EQ(tm.tm_mon + 1, c.month);
    EXPECT_EQ(tm.tm_mday, c.day);
    EXPECT_EQ(tm.tm_hour, c.hour);
    EXPECT_EQ(tm.tm_isdst, c.isdst);
  }
}

// The machine's clock and its C runtime tell the same local time whatever was recorded of
// the zone: a zone, only the runtime's view of one, or nothing (then both run on UTC).
TEST(MachineSystem, ClockTextHasExactlyItsDigits) {
  struct Case {
    const char* text;
    SYSTEMTIME time;  // wYear 0: refused
  };
  const Case cases[] = {
      {"2012-02-29 23:59:59.5Z", {2012, 2, 3, 29, 23, 59, 59, 500}},
      {"2010-03-15", {2010, 3, 1, 15, 0, 0, 0, 0}},
      {"1970-01-01T00:00:00Z", {1970, 1, 4, 1, 0, 0, 0, 0}},
      {"2010-01-01T-1:-1:-1Z", {}},  // a sign is not a digit
      {"2010-01-01T+1:00:00Z", {}},
      {"2010-01-01T 1:00:00Z", {}},
      {"2010-1-01T00:00:00Z", {}},
      {"2010-01-01T00:00:0Z", {}},
      {"2010-01-01T24:00:00Z", {}},
      {"2010-02-29T00:00:00Z", {}},
      {"2010-01-01T00:00:00.Z", {}},
      {"1969-12-31T23:59:59Z", {}},  // before the runtime's epoch
      {"2010-01-01T00:00:00ZZ", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string system = std::string(R"({"utcTime": ")") + c.text + "\"}";
    if (!c.time.wYear) {
      EXPECT_THROW(WithSystem(system), RecordError);
      continue;
    }
    SYSTEMTIME time{};
    WithSystem(system)->system().GetSystemTime(&time);
    EXPECT_EQ(std::memcmp(&time, &c.time, sizeof time), 0)
        << time.wYear << "-" << time.wMonth << "-" << time.wDay << " (" << time.wDayOfWeek << ") "
        << time.wHour << ":" << time.wMinute << ":" << time.wSecond << "." << time.wMilliseconds;
  }
}

TEST(MachineSystem, LocalTimeOfClockAndRuntimeAgree) {
  struct Case {
    const char* system;
    int hour;
  } cases[] = {
      {R"({"utcTime": "2012-11-06T09:41:27Z"})", 9},
      {R"({"utcTime": "2012-11-06T09:41:27Z", "crt": {"timezone": 18000, "daylight": 1}})", 4},
      {R"({"utcTime": "2012-11-06T09:41:27Z", "timeZone": {"bias": -60, "standardName": "W",
           "standardDate": {"month": 10, "dayOfWeek": 0, "day": 5, "hour": 3},
           "daylightName": "S", "daylightDate": {"month": 3, "dayOfWeek": 0, "day": 5, "hour": 2},
           "daylightBias": -60}})",
       10},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.system);
    auto m = WithSystem(c.system);
    System& s = m->system();
    SYSTEMTIME local{};
    s.GetLocalTime(&local);
    std::tm tm{};
    ASSERT_TRUE(s.crtLocaltime64(s.crtTime64(), &tm));
    EXPECT_EQ(local.wHour, c.hour);
    EXPECT_EQ(tm.tm_hour, c.hour);
    EXPECT_EQ(tm.tm_mday, local.wDay);
  }
}

TEST(MachineSystem, CodePageOfTheMachineConvertsWideText) {
  auto m = WithSystem(R"({"codePage": 1251})");
  System& s = m->system();
  EXPECT_EQ(s.GetACP(), 1251u);
  const WCHAR name[] = u"Привет €";
  // Size query with -1 counts the NUL.
  EXPECT_EQ(s.WideCharToMultiByte(CP_ACP, 0, name, -1, nullptr, 0, nullptr, nullptr), 9);
  char narrow[16];
  BOOL usedDefault = TRUE;
  ASSERT_EQ(
      s.WideCharToMultiByte(CP_ACP, 0, name, -1, narrow, sizeof narrow, nullptr, &usedDefault), 9);
  EXPECT_EQ(std::string(narrow), "\xCF\xF0\xE8\xE2\xE5\xF2 \x88");
  EXPECT_FALSE(usedDefault);
  EXPECT_EQ(s.WideCharToMultiByte(CP_ACP, 0, name, -1, narrow, 4, nullptr, nullptr), 0);
  EXPECT_EQ(s.GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));

  const WCHAR greek[] = u"Ωx";
  EXPECT_EQ(
      s.WideCharToMultiByte(CP_ACP, 0, greek, 2, narrow, sizeof narrow, nullptr, &usedDefault), 2);
  EXPECT_EQ(narrow[0], '?');
  EXPECT_TRUE(usedDefault);

  WCHAR wide[16];
  ASSERT_EQ(s.MultiByteToWideChar(CP_ACP, 0, "\xCF\xF0", -1, wide, 16), 3);
  EXPECT_EQ(std::u16string(wide), u"Пр");
}

TEST(MachineSystem, ErrorTextsAndModes) {
  auto m = WithSystem(R"({"messages": {"5": "Zugriff verweigert.\r\n"}})");
  System& s = m->system();
  char* text = nullptr;
  const DWORD flags =
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM;
  ASSERT_EQ(s.FormatMessageA(flags, nullptr, 5, 0x400, reinterpret_cast<char*>(&text), 0, nullptr),
            21u);
  EXPECT_STREQ(text, "Zugriff verweigert.\r\n");
  EXPECT_EQ(s.LocalFree(text), nullptr);
  EXPECT_GT(s.FormatMessageA(flags, nullptr, 2, 0x400, reinterpret_cast<char*>(&text), 0, nullptr),
            0u);
  s.LocalFree(text);
  EXPECT_EQ(
      s.FormatMessageA(flags, nullptr, 0xDEAD, 0x400, reinterpret_cast<char*>(&text), 0, nullptr),
      0u);
  int stranger = 0;
  EXPECT_EQ(s.LocalFree(&stranger), &stranger);  // not ours: handed back, as LocalFree does

  EXPECT_EQ(s.SetErrorMode(SEM_FAILCRITICALERRORS), 0u);
  EXPECT_EQ(s.SetErrorMode(0), SEM_FAILCRITICALERRORS);
}

TEST(MachineSystem, RedirectionChoosesSystem32OrSysWow64) {
  auto m = RecordedMachine::FromFiles({
      {"machine.json", R"({"system": {"isWow64Process": true, "wow64FsRedirection": true,
                          "windowsDirectory": "C:\\Windows"}})"},
      {"files/C/Windows/System32/x.txt", "64-bit"},
      {"files/C/Windows/SysWOW64/x.txt", "32-bit"},
  });
  System& s = m->system();
  auto read = [&] {
    auto in = s.OpenTextFile("c:\\windows\\system32\\X.TXT");
    std::string line;
    if (in) std::getline(*in, line);
    return line;
  };
  EXPECT_EQ(read(), "32-bit");
  void* old = nullptr;
  ASSERT_TRUE(s.Wow64DisableWow64FsRedirection(&old));
  EXPECT_EQ(read(), "64-bit");
  ASSERT_TRUE(s.Wow64RevertWow64FsRedirection(old));
  EXPECT_EQ(read(), "32-bit");
  BOOL wow64 = FALSE;
  EXPECT_TRUE(s.IsWow64Process(s.GetCurrentProcess(), &wow64));
  EXPECT_TRUE(wow64);
}

TEST(MachineSystem, TextFilesReadAsTextMode) {
  auto m = XpMachine();
  auto in = m->system().OpenTextFile("C:\\boot.ini");
  ASSERT_NE(in, nullptr);
  std::string line;
  std::getline(*in, line);
  EXPECT_EQ(line, "[boot loader]");  // CR LF became LF
  EXPECT_EQ(m->system().OpenTextFile("D:\\boot.ini"), nullptr);
  EXPECT_EQ(m->system().GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(m->system().OpenBinaryFile("D:\\boot.ini"), nullptr);
}

// Text mode drops CR before LF (a lone CR stays) and ends the file at Ctrl-Z; binary mode
// answers the bytes as they are.
TEST(MachineSystem, TextAndBinaryModesOfOneFile) {
  const std::string bytes = std::string("a\r\nb\rc\r\r\n\x1a") + "after";
  auto m = RecordedMachine::FromFiles({{"files/C/f.txt", bytes}});
  auto whole = [](std::unique_ptr<std::istream> in) {
    return in ? std::string(std::istreambuf_iterator<char>(*in), {}) : "(none)";
  };
  EXPECT_EQ(whole(m->system().OpenTextFile("C:\\f.txt")), "a\nb\rc\r\n");
  EXPECT_EQ(whole(m->system().OpenBinaryFile("C:\\f.txt")), bytes);
}

}  // namespace
