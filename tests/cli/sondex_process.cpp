#include "tests/cli/sondex_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/files.h"

namespace sondex::test {

pid_t spawnSondex(const std::vector<std::string>& args, int in, int out, int err) {
  posix_spawn_file_actions_t io;
  posix_spawn_file_actions_init(&io);
  posix_spawn_file_actions_adddup2(&io, in, 0);
  posix_spawn_file_actions_adddup2(&io, out, 1);
  posix_spawn_file_actions_adddup2(&io, err, 2);
  std::vector<char*> argv = {const_cast<char*>(SONDEX_BINARY)};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  const int failed = posix_spawn(&pid, SONDEX_BINARY, &io, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&io);
  if (failed != 0) throw std::runtime_error("cannot start " SONDEX_BINARY);
  return pid;
}

// Standard input, output and error are files, so nothing can block.
RunResult runSondex(const std::vector<std::string>& args, const std::string& input) {
  TempDir io;
  writeFile(io.file("0"), Bytes(input.begin(), input.end()));
  int fds[3];
  fds[0] = open(io.file("0").c_str(), O_RDONLY | O_CLOEXEC);
  for (int i : {1, 2}) fds[i] = open(io.file(std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const pid_t pid = spawnSondex(args, fds[0], fds[1], fds[2]);
  for (int fd : fds) close(fd);
  int status = 0;
  waitpid(pid, &status, 0);
  return {readText(io.file("1")), readText(io.file("2")), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

}  // namespace sondex::test
