// WOW64 registry redirection as Windows 7 and later do it (no reflection).
#include "platform/recorded/registry_views.h"

#include "platform/recorded/registry_model.h"

namespace platform::recorded {

namespace {

const char16_t kWow6432Node[] = u"Wow6432Node";

// Keys under HKLM\SOFTWARE that both views share (Windows 7's list).
const std::vector<std::vector<std::u16string>>& SharedKeys() {
  static const std::vector<std::vector<std::u16string>> shared = [] {
    const char16_t* paths[] = {
        u"Clients",
        u"Microsoft\\COM3",
        u"Microsoft\\Cryptography\\Calais\\Current",
        u"Microsoft\\Cryptography\\Calais\\Readers",
        u"Microsoft\\Cryptography\\Services",
        u"Microsoft\\CTF\\SystemShared",
        u"Microsoft\\CTF\\TIP",
        u"Microsoft\\DFS",
        u"Microsoft\\Driver Signing",
        u"Microsoft\\EnterpriseCertificates",
        u"Microsoft\\EventSystem",
        u"Microsoft\\MSMQ",
        u"Microsoft\\Non-Driver Signing",
        u"Microsoft\\Notepad\\DefaultFonts",
        u"Microsoft\\OLE",
        u"Microsoft\\RAS",
        u"Microsoft\\RPC",
        u"Microsoft\\Shared Tools\\MSInfo",
        u"Microsoft\\SystemCertificates",
        u"Microsoft\\TermServLicensing",
        u"Microsoft\\Transaction Server",
        u"Microsoft\\Windows\\CurrentVersion\\App Paths",
        u"Microsoft\\Windows\\CurrentVersion\\Control Panel\\Cursors\\Schemes",
        u"Microsoft\\Windows\\CurrentVersion\\Explorer\\AutoplayHandlers",
        u"Microsoft\\Windows\\CurrentVersion\\Explorer\\DriveIcons",
        u"Microsoft\\Windows\\CurrentVersion\\Explorer\\KindMap",
        u"Microsoft\\Windows\\CurrentVersion\\Group Policy",
        u"Microsoft\\Windows\\CurrentVersion\\Policies",
        u"Microsoft\\Windows\\CurrentVersion\\PreviewHandlers",
        u"Microsoft\\Windows\\CurrentVersion\\Setup",
        u"Microsoft\\Windows\\CurrentVersion\\Telephony\\Locations",
        u"Microsoft\\Windows NT\\CurrentVersion\\Console",
        u"Microsoft\\Windows NT\\CurrentVersion\\FontDpi",
        u"Microsoft\\Windows NT\\CurrentVersion\\FontLink",
        u"Microsoft\\Windows NT\\CurrentVersion\\FontMapper",
        u"Microsoft\\Windows NT\\CurrentVersion\\Fonts",
        u"Microsoft\\Windows NT\\CurrentVersion\\FontSubstitutes",
        u"Microsoft\\Windows NT\\CurrentVersion\\Gre_Initialize",
        u"Microsoft\\Windows NT\\CurrentVersion\\Image File Execution Options",
        u"Microsoft\\Windows NT\\CurrentVersion\\LanguagePack",
        u"Microsoft\\Windows NT\\CurrentVersion\\NetworkCards",
        u"Microsoft\\Windows NT\\CurrentVersion\\Perflib",
        u"Microsoft\\Windows NT\\CurrentVersion\\Ports",
        u"Microsoft\\Windows NT\\CurrentVersion\\Print",
        u"Microsoft\\Windows NT\\CurrentVersion\\ProfileList",
        u"Microsoft\\Windows NT\\CurrentVersion\\Time Zones",
        u"Policies",
        u"RegisteredApplications",
    };
    std::vector<std::vector<std::u16string>> list;
    for (const char16_t* p : paths) list.push_back(SplitPath(p));
    return list;
  }();
  return shared;
}

bool IsRedirectedClass(const std::u16string& name) {
  for (const char16_t* redirected :
       {u"CLSID", u"DirectShow", u"Interface", u"Media Type", u"MediaFoundation"}) {
    if (NamesEqual(name, redirected)) return true;
  }
  return false;
}

// `path` from index 2 (below SOFTWARE) starts with `prefix`.
bool UnderSoftware(const std::vector<std::u16string>& path,
                   const std::vector<std::u16string>& prefix) {
  if (path.size() < prefix.size() + 2) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (!NamesEqual(path[i + 2], prefix[i])) return false;
  }
  return true;
}

}  // namespace

bool Uses32BitView(REGSAM sam, bool processIs32Bit) {
  if (sam & KEY_WOW64_32KEY) return true;
  if (sam & KEY_WOW64_64KEY) return false;
  return processIs32Bit;
}

std::vector<std::u16string> To32BitView(const std::vector<std::u16string>& path) {
  if (path.size() < 2 || !NamesEqual(path[0], u"HKEY_LOCAL_MACHINE") ||
      !NamesEqual(path[1], u"SOFTWARE")) {
    return path;
  }
  if (path.size() >= 3 && NamesEqual(path[2], kWow6432Node)) return path;
  std::vector<std::u16string> mapped(path);
  if (path.size() >= 3 && NamesEqual(path[2], u"Classes")) {
    if (path.size() >= 4 && IsRedirectedClass(path[3])) {
      mapped.insert(mapped.begin() + 3, kWow6432Node);
    }
    return mapped;
  }
  for (const auto& shared : SharedKeys()) {
    if (UnderSoftware(path, shared)) return path;
  }
  mapped.insert(mapped.begin() + 2, kWow6432Node);
  return mapped;
}

}  // namespace platform::recorded
