// Fuzz target for the .reg parser: any bytes either load or are refused with a
// RecordError. Built with -fsanitize=fuzzer it is a libFuzzer target; built without, its
// main() runs the files named on the command line (a corpus), so gcc builds it too:
//   g++ -std=c++17 -I. fuzz/reg_parser_fuzz.cpp -Lbuild/dev/bin -lkplatform -o reg_fuzz
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/recorded/record_error.h"
#include "platform/recorded/reg_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (unsigned codePage : {1252u, 932u}) {
    platform::recorded::RegistryTree tree;
    try {
      platform::recorded::ApplyRegFile(tree, "fuzz.reg", bytes, codePage);
    } catch (const platform::RecordError&) {
    }
  }
  return 0;
}

#ifndef IA_LIBFUZZER
#include <fstream>
#include <iostream>
#include <iterator>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::cout << argv[i] << ": ok\n";
  }
  return 0;
}
#endif
