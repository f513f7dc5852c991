#include "tests/cli/sondex_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace sondex::test {

namespace {

void childExec(const std::vector<std::string>& args, const std::string& workdir) {
  if (!workdir.empty() && chdir(workdir.c_str()) != 0) _exit(127);
  std::vector<char*> argv;
  std::string program = SONDEX_BINARY;
  argv.push_back(program.data());
  std::vector<std::string> copy = args;
  for (std::string& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(127);
}

void drain(int fd, std::string& into) {
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return;
    into.append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

RunResult runSondex(const std::vector<std::string>& args, const std::string& input, const std::string& workdir) {
  int in[2], out[2], err[2];
  if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) throw std::runtime_error("pipe failed");
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    childExec(args, workdir);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  // Small inputs fit the pipe; larger ones are written while reading.
  size_t written = 0;
  RunResult result;
  struct pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
  bool outOpen = true, errOpen = true;
  if (input.empty()) {
    close(in[1]);
    fds[2].fd = -1;
  }
  while (outOpen || errOpen) {
    poll(fds, 3, -1);
    if (fds[2].fd >= 0 && (fds[2].revents & (POLLOUT | POLLERR))) {
      const ssize_t n = write(in[1], input.data() + written, input.size() - written);
      if (n > 0) written += static_cast<size_t>(n);
      if (n <= 0 || written == input.size()) {
        close(in[1]);
        fds[2].fd = -1;
      }
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP))) {
        char buffer[65536];
        const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
        if (n > 0) {
          (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
        } else {
          close(fds[i].fd);
          fds[i].fd = -1;
          (i == 0 ? outOpen : errOpen) = false;
        }
      }
    }
  }
  if (fds[2].fd >= 0) close(in[1]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  return result;
}

SondexDriver::SondexDriver() {
  int in[2], out[2];
  if (pipe(in) != 0 || pipe(out) != 0) throw std::runtime_error("pipe failed");
  pid_ = fork();
  if (pid_ == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    for (int fd : {in[0], in[1], out[0], out[1]}) close(fd);
    childExec({}, "");
  }
  close(in[0]);
  close(out[1]);
  in_ = in[1];
  out_ = out[0];
}

SondexDriver::~SondexDriver() {
  if (pid_ > 0) finish();
}

void SondexDriver::send(const std::string& line) {
  if (write(in_, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    throw std::runtime_error("write to sondex failed");
  }
}

std::string SondexDriver::readUntilResult(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const size_t at = pending_.find("result: ");
    if (at != std::string::npos) {
      const size_t end = pending_.find('\n', at);
      if (end != std::string::npos) {
        std::string answer = pending_.substr(0, end + 1);
        pending_.erase(0, end + 1);
        return answer;
      }
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) throw std::runtime_error("no result line in time; got: " + pending_);
    struct pollfd fd = {out_, POLLIN, 0};
    if (poll(&fd, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[65536];
    const ssize_t n = read(out_, buffer, sizeof buffer);
    if (n <= 0) throw std::runtime_error("sondex ended; got: " + pending_);
    pending_.append(buffer, static_cast<size_t>(n));
  }
}

int SondexDriver::finish() {
  if (in_ >= 0) close(in_);
  in_ = -1;
  drain(out_, pending_);
  close(out_);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace sondex::test
