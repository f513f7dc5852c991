// Running the built sondex binary.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace sondex::test {

struct RunResult {
  std::string out;  // standard output
  std::string err;  // standard error
  int status = -1;  // exit status, or -1 when killed by a signal
};

// Starts sondex with the arguments on the given standard descriptors.
pid_t spawnSondex(const std::vector<std::string>& args, int in, int out, int err);

// Runs sondex with the arguments, feeding input on standard input.
RunResult runSondex(const std::vector<std::string>& args, const std::string& input = "");

}  // namespace sondex::test
