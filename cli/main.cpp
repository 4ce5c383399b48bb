#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "cli/app.h"

int main(int argc, char** argv) {
  const int status = iac::run(argc, argv, std::cout, std::cerr);
  // Everything is written and closed by now. What is left in memory (the machine, the
  // host's instances: millions of small objects on a large machine) goes with the process;
  // freeing it one object at a time took a tenth of a large run. Sanitizer builds still
  // tear down, so that their leak check sees the whole run.
#if !defined(__SANITIZE_ADDRESS__)
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  std::_Exit(status);
#else
  return status;
#endif
}
