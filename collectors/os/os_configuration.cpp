#include "collectors/os/os_configuration.h"

#include <algorithm>
#include <boost/tokenizer.hpp>
#include <cstddef>
#include <cstring>
#include <istream>
#include <memory>

#include "platform/machine.h"

namespace installedapps_col {
namespace {

using NKestovaTessil20::TCIMValue;
using platform::DWORD;

const std::string kPropFileName = "BootConfigurationFileName";
const std::string kPropFileContents = "BootConfigurationFileContents";

const std::string kCollecting = "Collecting Boot Configuration File Properties...";
const std::string kNoSystemDrive = "Could not find environmental variable systemroot.";
const std::string kNoBootFile = "Could not open Boot.ini file.";
const std::string kReadAttempt = "Exiting boot.ini info collection routine....2";
const std::string kReadDone = "Exiting boot.ini info collection routine....";

const std::string kBootManagerName = "Windows Boot Manager";
const std::string kObjects = "BCD00000000\\Objects\\";
const std::string kDescription = "\\Elements\\12000004";
const std::string kBootManager = kObjects + "{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
const std::string kDisplayOrderPath = kBootManager + "\\Elements\\24000001";
const std::string kBootManagerDescriptionPath = kBootManager + kDescription;
const std::string kResumeEntryPath = kBootManager + "\\Elements\\23000006";
const std::string kMemoryTest = kObjects + "{b2721d73-1db4-4c62-bf78-c548a880142d}";
const std::string kMemoryTestDescriptionPath = kMemoryTest + kDescription;
const std::string kMemoryTestPath = kMemoryTest + "\\Elements\\12000002";
const std::string kResumeLocationPath =
    kObjects + "{de692f3d-896d-11db-8b4e-8cd2958901f0}\\Elements\\12000002";
const std::string kParagraphEnd = "\n\n";

constexpr DWORD kElementBufferSize = 8192;
// A display order holds braced identifiers of 38 characters, each with its NUL.
constexpr std::size_t kFirstEntryEnd = 39;
constexpr std::size_t kEntryStep = 38;
// The walk's text grows with the square of the entries: the longest list of identifiers
// the buffer holds (210) gives 414,219 bytes. Data without NULs would give some 125 MB, and
// a summary line for every brace in it, so the text is cut above what any list of
// identifiers makes.
constexpr std::size_t kMaxElementText = std::size_t{512} * 1024;

constexpr DWORD kDriveBufferSize = 254;
constexpr int kMaxReadAttempts = 150;
constexpr std::streamsize kLineBufferSize = 1024;  // 1023 characters and the NUL

constexpr platform::UINT kNoCriticalErrorDialogs = 1;  // SEM_FAILCRITICALERRORS
constexpr platform::UINT kDefaultErrorMode = 0;

// The string at `offset`, up to its NUL or the end of the buffer.
std::string StringAt(const std::vector<char>& buffer, std::size_t offset) {
  if (offset >= buffer.size()) return std::string();
  const char* start = buffer.data() + offset;
  const std::size_t available = buffer.size() - offset;
  const void* nul = std::memchr(start, '\0', available);
  return std::string(start, nul ? static_cast<const char*>(nul) - start : available);
}

// The first string, then at each 38-byte step after the first 39 bytes the string found
// there added to a running accumulator, which is appended whole. With identifiers A, B, C
// this gives {A}{B}{B}: the third read lands on B's NUL. Kept as it is; the size bounds
// every offset below the data's end.
std::string IdentifierList(const std::vector<char>& buffer, std::size_t size) {
  std::string text = StringAt(buffer, 0);
  std::string accumulated;
  const std::size_t steps = size / kEntryStep;
  for (std::size_t k = 1; k < steps && text.size() < kMaxElementText; ++k) {
    accumulated += StringAt(buffer, kFirstEntryEnd + kEntryStep * (k - 1));
    text.append(accumulated, 0, std::min(accumulated.size(), kMaxElementText - text.size()));
  }
  return text;
}

TCIMValue StringArray(const std::vector<TCIMValue>& elements) {
  return TCIMValue(TCIMValue::TCIMType(NKestovaTessil20::eCIMTypeString),
                   static_cast<unsigned int>(elements.size()), elements);
}

// The non-empty lines of the first 150 read attempts. A line longer than 1023 characters
// is read in pieces of 1023, one attempt each; a line's text ends at its first NUL.
std::vector<TCIMValue> BootFileLines(std::istream& file, LogMessage& log) {
  std::vector<TCIMValue> lines;
  char line[kLineBufferSize];
  for (int attempt = 0; attempt < kMaxReadAttempts && !file.eof(); ++attempt) {
    log.logInfo(kReadAttempt);
    line[0] = '\0';
    file.getline(line, kLineBufferSize);
    // A full buffer without the line's end stops the stream; the rest is read next time.
    if (file.fail() && !file.eof() && file.gcount() == kLineBufferSize - 1) file.clear();
    const std::size_t length = strnlen(line, static_cast<std::size_t>(kLineBufferSize));
    if (length > 0) lines.emplace_back(std::string(line, length));
  }
  return lines;
}

}  // namespace

OSConfiguration::OSConfiguration() : m_log(LogMessage::instance()) {}

std::string OSConfiguration::readBcdElement(const std::string& path) {
  platform::Registry& registry = platform::Machine::Current().registry();
  platform::HKEY key = nullptr;
  if (registry.RegOpenKeyExA(platform::HKEY_LOCAL_MACHINE, path.c_str(), 0,
                             platform::KEY_QUERY_VALUE, &key) != platform::ERROR_SUCCESS) {
    return std::string();
  }
  std::vector<char> buffer(kElementBufferSize, '\0');
  DWORD type = 0;
  DWORD size = kElementBufferSize;
  const platform::LONG status = registry.RegQueryValueExA(
      key, "Element", nullptr, &type, reinterpret_cast<platform::BYTE*>(buffer.data()), &size);
  registry.RegCloseKey(key);
  if (status != platform::ERROR_SUCCESS) return std::string();
  if (type == platform::REG_SZ) return StringAt(buffer, 0);
  if (type == platform::REG_MULTI_SZ) {
    return IdentifierList(buffer, std::min<std::size_t>(size, kElementBufferSize));
  }
  return std::string();
}

std::vector<std::string> OSConfiguration::getBcdSummary() {
  std::vector<std::string> lines;
  const std::string order = readBcdElement(kDisplayOrderPath);
  const boost::char_separator<char> braces("{}");
  const boost::tokenizer<boost::char_separator<char>> ids(order, braces);
  for (const std::string& id : ids) {
    lines.push_back("Installed OS :" + readBcdElement(kObjects + "{" + id + "}" + kDescription) +
                    kParagraphEnd);
  }
  lines.push_back("Windows Boot Manager: " + readBcdElement(kBootManagerDescriptionPath) +
                  kParagraphEnd);
  lines.push_back("Memory Test: " + readBcdElement(kMemoryTestDescriptionPath) + "\n" +
                  "Location: " + readBcdElement(kMemoryTestPath) + kParagraphEnd);
  const std::string resume = readBcdElement(kResumeEntryPath);
  lines.push_back("Windows Resume: " + readBcdElement(kObjects + resume + kDescription) + "\n" +
                  "Location: " + readBcdElement(kResumeLocationPath) + kParagraphEnd);
  return lines;
}

TCIMValue OSConfiguration::getBootConfiguration(int mode) {
  platform::System& system = platform::Machine::Current().system();
  system.SetErrorMode(kNoCriticalErrorDialogs);  // probing empty drives must not ask anyone
  m_log->logInfo(kCollecting);

  char drive[kDriveBufferSize] = {};
  if (system.ExpandEnvironmentStringsA("%SystemDrive%", drive, kDriveBufferSize) == 0) {
    m_log->logError(kNoSystemDrive);
    return TCIMValue();
  }
  std::string path = std::string(drive, strnlen(drive, sizeof drive)) + "\\boot1.ini";
  std::unique_ptr<std::istream> file = system.OpenTextFile(path);
  for (char letter = 'C'; !file && letter <= 'Z'; ++letter) {
    path = std::string(1, letter) + ":\\boot.ini";
    file = system.OpenTextFile(path);
  }

  if (file) {
    if (mode == 0) return TCIMValue(path);
    if (mode != 1) return TCIMValue();
    const std::vector<TCIMValue> lines = BootFileLines(*file, *m_log);
    file.reset();
    const TCIMValue contents = StringArray(lines);
    system.SetErrorMode(kDefaultErrorMode);
    m_log->logInfo(kReadDone);
    return contents;
  }

  if (readBcdElement(kDisplayOrderPath).empty()) {
    m_log->logError(kNoBootFile);
    return TCIMValue();
  }
  if (mode == 0) return TCIMValue(kBootManagerName);
  if (mode != 1) return TCIMValue();
  std::vector<TCIMValue> summary;
  for (const std::string& line : getBcdSummary()) summary.emplace_back(line);
  return StringArray(summary);
}

PropertyMap OSConfiguration::getProperties() {
  PropertyMap properties;
  const TCIMValue name = getBootConfiguration(0);
  if (!name.IsNull()) properties[kPropFileName] = name;
  const TCIMValue contents = getBootConfiguration(1);
  if (!contents.IsNull()) properties[kPropFileContents] = contents;
  return properties;
}

}  // namespace installedapps_col
