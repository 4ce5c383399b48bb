// The iac command line, callable in-process.
#pragma once

#include <iosfwd>

namespace iac {

// Runs iac with `argv`; writes results to `out` and messages to `err`; answers the exit
// status (0 success, 1 a failure while running, 2 a bad command line).
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace iac
