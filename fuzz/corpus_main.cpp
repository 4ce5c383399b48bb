// Without libFuzzer a fuzz target is a program that runs the inputs it is given (files, or
// every file below a folder, in name order), so that its corpus replays as a test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const fs::path argument(argv[i]);
    if (!fs::is_directory(argument)) {
      inputs.push_back(argument);
      continue;
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(argument))
      if (entry.is_regular_file()) files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    inputs.insert(inputs.end(), files.begin(), files.end());
  }
  // An empty or misspelt corpus must not pass as a run.
  if (inputs.empty()) {
    std::cerr << argv[0] << ": no inputs\n";
    return 2;
  }
  for (const fs::path& input : inputs) {
    std::ifstream in(input, std::ios::binary);
    if (!in) {
      std::cerr << input.string() << ": cannot read\n";
      return 2;
    }
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::cout << input.string() << ": ok\n";
  }
  return 0;
}
