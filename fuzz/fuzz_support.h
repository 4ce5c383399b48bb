// What several fuzz targets share: a scratch folder for inputs that must be files, and
// collecting classes through the reference host with the plug-in registered in-process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/machine.h"

namespace fuzz {

std::string Bytes(const std::uint8_t* data, std::size_t size);

// A folder of this process's own under the temporary directory, made on first use and
// removed at exit.
const std::filesystem::path& ScratchDir();

// Writes `bytes` to `path`, making the folders on the way.
void WriteFile(const std::filesystem::path& path, const std::string& bytes);

// Installs `machine`, collects `classes` (every class the plug-in serves when empty) through
// the host, and puts the default machine back. Answers every instance as text, one line per
// property, as a printer reads them. The first call loads the schema and registers the
// plug-in's callbacks.
std::string CollectThroughHost(std::shared_ptr<platform::Machine> machine,
                               const std::vector<std::string>& classes = {});

// Ends the process with `what` on stderr: for a property of the code that an input broke,
// which libFuzzer then keeps as a crash.
[[noreturn]] void Finding(const std::string& what);

}  // namespace fuzz
