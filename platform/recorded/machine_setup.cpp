#include "platform/recorded/machine_setup.h"

#include "platform/recorded/pe_version.h"

#include <cstring>
#include <stdexcept>

#include "platform/recorded/machine_json.h"
#include "platform/recorded/machine_text.h"

namespace platform::recorded {

namespace {

std::size_t Align4(std::size_t n) {
  return (n + 3) & ~std::size_t{3};
}

// INF text as SetupAPI reads it: UTF-16 with BOM or UTF-8 with BOM become the code page.
std::string InfText(const std::string& bytes, UINT codePage) {
  std::u16string wide;
  if (DecodeUtf16LeWithBom(bytes, wide)) return WideToAnsi(wide, codePage);
  if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
    return WideToAnsi(Utf8ToWide(bytes.substr(3)), codePage);
  return bytes;
}

BOOL CopyOut(const std::string& text, char* buffer, DWORD size, DWORD* required, MachineState& s) {
  if (required) *required = static_cast<DWORD>(text.size() + 1);
  if (buffer) {
    if (size <= text.size()) {
      s.fail(ERROR_INSUFFICIENT_BUFFER);
      return FALSE;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
  }
  s.lastError = ERROR_SUCCESS;
  return TRUE;
}

}  // namespace

SetupFacts ReadSetupFacts(const Field& setup) {
  SetupFacts f;
  setup.expectKeys({"versions"});
  for (const auto& [path, v] : setup["versions"].members()) {
    const std::string key = FileSource::Key(path);
    if (key.empty()) v.fail("expected an absolute Windows path such as C:\\WINDOWS\\x.dll");
    if (v.isNull()) {
      f.versions[key] = std::nullopt;
      continue;
    }
    v.expectKeys({"fileVersion", "fileDescription", "language", "codePage", "strings"});
    VersionFacts facts;
    facts.language = static_cast<WORD>(OptionalUnsigned(v["language"], 0xFFFF).value_or(0x0409));
    facts.codePage = static_cast<WORD>(OptionalUnsigned(v["codePage"], 0xFFFF).value_or(1200));
    if (v["fileVersion"].present())
      facts.strings.emplace_back(u"FileVersion", Utf8ToWide(v["fileVersion"].asString()));
    if (v["fileDescription"].present())
      facts.strings.emplace_back(u"FileDescription", Utf8ToWide(v["fileDescription"].asString()));
    for (const auto& [name, text] : v["strings"].members())
      facts.strings.emplace_back(Utf8ToWide(name), Utf8ToWide(text.asString()));
    try {
      BuildVersionBlock(facts);  // a block Windows cannot hold is refused here, not when read
    } catch (const std::length_error& e) {
      v.fail(e.what());
    }
    f.versions[key] = std::move(facts);
  }
  return f;
}

RecordedSetup::RecordedSetup(SetupFacts facts, MachineState& state)
    : facts_(std::move(facts)), state_(state) {}
RecordedSetup::~RecordedSetup() = default;

// --- INF files ---------------------------------------------------------------------------

InfFile* RecordedSetup::find(HINF inf) const {
  for (const auto& f : infs_)
    if (f.get() == inf) return f.get();
  return nullptr;
}

HINF RecordedSetup::SetupOpenInfFileA(const char* fileName, const char*, DWORD infStyle,
                                      UINT* errorLine) {
  if (errorLine) *errorLine = 0;
  const std::string* bytes = fileName ? state_.file(fileName) : nullptr;
  if (!bytes) {
    state_.fail(ERROR_FILE_NOT_FOUND);
    return INVALID_HANDLE_VALUE;
  }
  auto inf = std::make_unique<InfFile>(InfFile::Parse(InfText(*bytes, state_.codePage)));
  if (infStyle & INF_STYLE_WIN4) {
    const std::string sig = Lower(inf->signature());
    if (sig != "$windows nt$" && sig != "$chicago$" && sig != "$windows 95$") {
      state_.fail(ERROR_WRONG_INF_STYLE);
      return INVALID_HANDLE_VALUE;
    }
  }
  HINF handle = inf.get();
  infs_.insert(std::move(inf));
  state_.lastError = ERROR_SUCCESS;
  return handle;
}

void RecordedSetup::SetupCloseInfFile(HINF inf) {
  for (auto it = infs_.begin(); it != infs_.end(); ++it) {
    if (it->get() == inf) {
      infs_.erase(it);
      return;
    }
  }
}

BOOL RecordedSetup::SetupFindFirstLineA(HINF handle, const char* section, const char* key,
                                        INFCONTEXT* context) {
  InfFile* inf = find(handle);
  if (!inf || !context) {
    state_.fail(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  const int s = inf->findSection(section ? section : "");
  const bool any = s >= 0 && !inf->sections()[static_cast<std::size_t>(s)].lines.empty();
  const int line = !key ? (any ? 0 : -1) : inf->findLine(s, key);
  if (line >= 0) {
    *context = INFCONTEXT{inf, inf, static_cast<UINT>(s), static_cast<UINT>(line)};
    state_.lastError = ERROR_SUCCESS;
    return TRUE;
  }
  state_.fail(ERROR_LINE_NOT_FOUND);
  return FALSE;
}

LONG RecordedSetup::SetupGetLineCountA(HINF handle, const char* section) {
  InfFile* inf = find(handle);
  const int s = inf ? inf->findSection(section ? section : "") : -1;
  if (s < 0) {
    state_.fail(ERROR_SECTION_NOT_FOUND);
    return -1;
  }
  state_.lastError = ERROR_SUCCESS;
  return static_cast<LONG>(inf->sections()[static_cast<std::size_t>(s)].lines.size());
}

BOOL RecordedSetup::SetupGetLineByIndexA(HINF handle, const char* section, DWORD index,
                                         INFCONTEXT* context) {
  InfFile* inf = find(handle);
  const int s = inf ? inf->findSection(section ? section : "") : -1;
  if (s >= 0 && context && index < inf->sections()[static_cast<std::size_t>(s)].lines.size()) {
    *context = INFCONTEXT{inf, inf, static_cast<UINT>(s), index};
    state_.lastError = ERROR_SUCCESS;
    return TRUE;
  }
  // As SetupAPI: the context keeps the line it held before.
  state_.fail(ERROR_LINE_NOT_FOUND);
  return FALSE;
}

const InfLine* RecordedSetup::line(const INFCONTEXT* context, InfFile** file) const {
  if (!context) return nullptr;
  InfFile* inf = find(context->CurrentInf);
  if (!inf || context->Section >= inf->sections().size()) return nullptr;
  const auto& lines = inf->sections()[context->Section].lines;
  if (context->Line >= lines.size()) return nullptr;
  *file = inf;
  return &lines[context->Line];
}

BOOL RecordedSetup::SetupGetStringFieldA(INFCONTEXT* context, DWORD fieldIndex, char* buffer,
                                         DWORD bufferSize, DWORD* requiredSize) {
  InfFile* inf = nullptr;
  const InfLine* l = line(context, &inf);
  const std::string* raw = nullptr;
  if (l && fieldIndex == 0 && l->hasKey) raw = &l->key;
  if (l && fieldIndex > 0 && fieldIndex <= l->fields.size()) raw = &l->fields[fieldIndex - 1];
  if (!raw) {
    // A field the line does not have: the caller's buffer stays as it was.
    state_.fail(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  return CopyOut(inf->substitute(*raw), buffer, bufferSize, requiredSize, state_);
}

BOOL RecordedSetup::SetupGetLineTextA(INFCONTEXT* context, HINF handle, const char* section,
                                      const char* key, char* buffer, DWORD bufferSize,
                                      DWORD* requiredSize) {
  INFCONTEXT found{};
  if (!context) {
    if (!SetupFindFirstLineA(handle, section, key, &found)) return FALSE;
    context = &found;
  }
  InfFile* inf = nullptr;
  const InfLine* l = line(context, &inf);
  if (!l) {
    state_.fail(ERROR_LINE_NOT_FOUND);
    return FALSE;
  }
  // The fields after the key, substituted and joined with commas.
  std::string text;
  for (std::size_t i = 0; i < l->fields.size(); ++i)
    text += (i ? "," : "") + inf->substitute(l->fields[i]);
  return CopyOut(text, buffer, bufferSize, requiredSize, state_);
}

// --- Version resources -------------------------------------------------------------------

const std::vector<BYTE>* RecordedSetup::block(const char* fileName) {
  const std::string path = state_.redirect(fileName ? fileName : "");
  const std::string key = FileSource::Key(path);
  auto built = blocks_.find(key);
  if (built != blocks_.end()) return &built->second;
  auto it = facts_.versions.find(key);
  if (it == facts_.versions.end() || !it->second) {
    // A file of the machine itself (a PE file on a volume) carries its own resource.
    const std::string* file = it == facts_.versions.end() ? state_.files.find(path) : nullptr;
    if (file) {
      if (auto found = VersionBlockFromPe(*file))
        return &blocks_.emplace(key, *found).first->second;
    }
    state_.fail(it != facts_.versions.end() || file ? ERROR_RESOURCE_TYPE_NOT_FOUND
                                                    : ERROR_FILE_NOT_FOUND);
    return nullptr;
  }
  if (built == blocks_.end()) built = blocks_.emplace(key, BuildVersionBlock(*it->second)).first;
  return &built->second;
}

DWORD RecordedSetup::GetFileVersionInfoSizeA(const char* fileName, DWORD* handle) {
  if (handle) *handle = 0;
  const std::vector<BYTE>* b = block(fileName);
  if (!b) return 0;
  state_.lastError = ERROR_SUCCESS;
  return static_cast<DWORD>(Align4(b->size()) * 2);
}

BOOL RecordedSetup::GetFileVersionInfoA(const char* fileName, DWORD, DWORD length, void* data) {
  const std::vector<BYTE>* b = block(fileName);
  if (!b) return FALSE;
  if (!data) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::size_t copied = std::min<std::size_t>(length, b->size());
  std::memcpy(data, b->data(), copied);
  // Remember the buffer: its size bounds later reads even when the block was cut short,
  // and what follows the block is where VerQueryValueA leaves its ANSI strings.
  handedOut_[data] = length;
  state_.lastError = ERROR_SUCCESS;
  return TRUE;
}

BOOL RecordedSetup::VerQueryValueA(const void* data, const char* subBlock, void** buffer,
                                   UINT* length) {
  if (!data || !subBlock || !buffer) {
    state_.fail(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const BYTE* block = static_cast<const BYTE*>(data);
  auto given = handedOut_.find(data);
  // The block's own length is the bound Windows trusts; a buffer from GetFileVersionInfoA
  // also bounds it by its real size.
  std::size_t size = given != handedOut_.end() && given->second < 2
                         ? 0
                         : static_cast<std::size_t>(block[0] | (block[1] << 8));
  if (given != handedOut_.end()) size = std::min(size, given->second);
  VersionValue v;
  if (!FindVersionValue(block, size, subBlock, &v)) {
    state_.fail(ERROR_RESOURCE_TYPE_NOT_FOUND);
    return FALSE;
  }
  if (!v.isText) {
    *buffer = const_cast<BYTE*>(block + v.offset);
    if (length) *length = static_cast<UINT>(v.length);
    state_.lastError = ERROR_SUCCESS;
    return TRUE;
  }
  // A text value: the ANSI form goes to the scratch area, at the string's own offset (an
  // ANSI string never takes more bytes than its UTF-16 form, so strings cannot overlap).
  std::u16string wide;
  for (std::size_t i = 0; i + 1 < v.length; ++i)
    wide.push_back(
        static_cast<char16_t>(block[v.offset + 2 * i] | (block[v.offset + 2 * i + 1] << 8)));
  const std::string ansi = WideToAnsi(wide, state_.codePage);
  // Windows keeps the ANSI strings in the same buffer, which is why the size it asks for
  // is about twice the block; a buffer that did not come from GetFileVersionInfoA has no
  // such room, and the query fails.
  const std::size_t scratch = Align4(size);
  if (given == handedOut_.end() || given->second < scratch ||
      given->second - scratch < v.offset + ansi.size() + 1) {
    state_.fail(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  char* out = static_cast<char*>(const_cast<void*>(data)) + scratch + v.offset;
  std::memcpy(out, ansi.c_str(), ansi.size() + 1);
  *buffer = out;
  if (length) *length = static_cast<UINT>(ansi.size() + 1);
  state_.lastError = ERROR_SUCCESS;
  return TRUE;
}

}  // namespace platform::recorded
