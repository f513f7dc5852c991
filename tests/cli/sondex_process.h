// Running the built sondex binary: whole runs with their output and status,
// and a live process driven one request line at a time.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace sondex::test {

struct RunResult {
  std::string out;  // standard output
  std::string err;  // standard error
  int status = -1;  // exit status, or -1 when killed by a signal
  int signal = 0;
};

// Runs sondex with the arguments, feeding input on standard input.
RunResult runSondex(const std::vector<std::string>& args, const std::string& input = "",
                    const std::string& workdir = "");

// A long-lived sondex in request-stream mode.
class SondexDriver {
 public:
  SondexDriver();
  ~SondexDriver();
  SondexDriver(const SondexDriver&) = delete;
  SondexDriver& operator=(const SondexDriver&) = delete;

  void send(const std::string& line);
  // Everything up to and including the next "result: " line; throws when
  // none arrives within the time limit.
  std::string readUntilResult(int timeoutMs);
  // Closes standard input and waits; returns the exit status.
  int finish();

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string pending_;
};

}  // namespace sondex::test
