// Runs the built iac and keeps what it prints, for the end-to-end tests of tests/cli.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

struct IacOutput {
  int status;  // exit status; -1 when iac did not exit normally or could not start
  std::string out;
  std::string err;
};

// `arguments` are shell words after "iac". Standard error goes to a scratch file of its
// own, so that a test can tell an assertion report from the output.
inline IacOutput RunIac(const std::string& arguments) {
  namespace fs = std::filesystem;
  static unsigned runs = 0;
  const fs::path err = fs::temp_directory_path() / ("iac_run_" + std::to_string(::getpid()) + "_" +
                                                    std::to_string(runs++) + ".err");
  const std::string command = IA_BIN_DIR "/iac " + arguments + " 2>" + err.string();
  IacOutput result{-1, {}, {}};
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return result;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    result.out.append(buffer, n);
  }
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  std::ifstream errStream(err);
  result.err.assign(std::istreambuf_iterator<char>(errStream), {});
  errStream.close();
  fs::remove(err);
  return result;
}
