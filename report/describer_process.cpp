// The describer process: a child forked from this program that reads one
// request at a time from a socket pair (the path's length in wide
// characters, then the characters) and writes one fixed-size answer back.
// A socket pair rather than two pipes: sending with MSG_NOSIGNAL turns a
// worker that has died into an error instead of a SIGPIPE that would end
// this program.
#include "report/describer_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <thread>

#include "gltk/console.h"

namespace {

// One answer as it goes over the socket: no padding, every byte set.
struct Answer {
  uint32_t described;
  uint32_t unused;
  double frameRate, width, height, duration;
};
static_assert(sizeof(Answer) == 40);

// Writes all n bytes; false when the other end is gone.
bool sendAll(int channel, const void* data, size_t n) {
  const auto* bytes = static_cast<const char*>(data);
  while (n > 0) {
    const ssize_t sent = ::send(channel, bytes, n, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes += sent;
    n -= static_cast<size_t>(sent);
  }
  return true;
}

enum class Received { All, Ended, Late };

// Reads all n bytes, waiting until the deadline at most (none: for ever).
Received receiveAll(int channel, void* data, size_t n,
                    const std::chrono::steady_clock::time_point* deadline = nullptr) {
  auto* bytes = static_cast<char*>(data);
  while (n > 0) {
    if (deadline != nullptr) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return Received::Late;
      pollfd ready{channel, POLLIN, 0};
      const int polled = ::poll(&ready, 1, static_cast<int>(left.count()));
      if (polled < 0 && errno != EINTR) return Received::Ended;
      if (polled <= 0) continue;  // interrupted or timed out: the clock decides
    }
    const ssize_t got = ::recv(channel, bytes, n, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return Received::Ended;
    bytes += got;
    n -= static_cast<size_t>(got);
  }
  return Received::All;
}

}  // namespace

DescriberProcess::DescriberProcess(Describe describe, int deadlineMs) : describe_(describe), deadlineMs_(deadlineMs) {}

DescriberProcess::~DescriberProcess() { stop(); }

bool DescriberProcess::start() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) {
    ::close(ends[0]);
    ::close(ends[1]);
    return false;
  }
  if (pid == 0) {
    ::close(ends[0]);
    serve(ends[1], parent);
  }
  ::close(ends[1]);
  pid_ = pid;
  channel_ = ends[0];
  return true;
}

// The worker. It never returns into the code that forked it and leaves with
// _exit, so that neither this program's stdio buffers nor its exit handlers
// run twice.
void DescriberProcess::serve(int channel, pid_t parent) const {
  // It goes with this program, even when this program is killed.
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(0);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null >= 0) {
    ::dup2(null, STDIN_FILENO);
    ::dup2(null, STDOUT_FILENO);
    if (null > STDOUT_FILENO) ::close(null);
  }
  for (;;) {
    uint32_t length = 0;
    if (receiveAll(channel, &length, sizeof length) != Received::All) ::_exit(0);
    Answer answer{};
    try {
      std::wstring path(length, L'\0');
      if (receiveAll(channel, path.data(), length * sizeof(wchar_t)) != Received::All) ::_exit(0);
      MovieDescription d;
      if (describe_(path, d)) answer = Answer{1, 0, d.frameRate, d.width, d.height, d.duration};
    } catch (...) {
      // A failed description: nothing may unwind into the code that forked.
    }
    if (!sendAll(channel, &answer, sizeof answer)) ::_exit(0);
  }
}

void DescriberProcess::stop() {
  if (channel_ >= 0) ::close(channel_);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  channel_ = -1;
  pid_ = -1;
}

bool DescriberProcess::send(const std::wstring& path) {
  const auto length = static_cast<uint32_t>(path.size());
  return sendAll(channel_, &length, sizeof length) && sendAll(channel_, path.data(), length * sizeof(wchar_t));
}

void DescriberProcess::ask(const std::wstring& path) {
  drop();
  deadline_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(deadlineMs_);
  path_ = path;
  asked_ = true;
  if (threads_) {
    std::promise<Described> promise;
    onThread_ = promise.get_future();
    try {
      std::thread([describe = describe_, path, promise = std::move(promise)]() mutable {
        Described answer;
        try {
          answer.described = describe(path, answer.description);
        } catch (...) {
          answer.described = false;
        }
        promise.set_value(answer);
      }).detach();
      sent_ = true;
    } catch (const std::system_error&) {
      sent_ = false;  // no thread: take() describes on the caller's
    }
    return;
  }
  // A worker that ended between two descriptions (killed from outside, say)
  // is replaced once.
  sent_ = pid_ > 0 && send(path);
  if (!sent_) {
    stop();
    sent_ = start() && send(path);
  }
}

void DescriberProcess::drop() {
  if (asked_ && sent_ && !threads_) stop();
  onThread_ = {};  // a thread still describing finishes on its own
  asked_ = sent_ = false;
}

bool DescriberProcess::take(MovieDescription& out) {
  if (!asked_) return false;
  asked_ = false;
  if (threads_ && sent_) {
    sent_ = false;
    const bool ready = onThread_.wait_until(deadline_) == std::future_status::ready;
    if (!ready) {
      onThread_ = {};
      GLTK::Console::out(L"movie description of %ls took longer than %g s, given up.\n", path_.c_str(),
                         deadlineMs_ / 1000.0);
      return false;
    }
    const Described answer = onThread_.get();
    if (answer.described) out = answer.description;
    return answer.described;
  }
  if (pid_ < 0 || threads_) return describe_(path_, out);  // no process or thread could be started
  Answer answer;
  const Received received = sent_ ? receiveAll(channel_, &answer, sizeof answer, &deadline_) : Received::Ended;
  sent_ = false;
  if (received == Received::All) {
    if (answer.described == 0) return false;
    out.frameRate = answer.frameRate;
    out.width = answer.width;
    out.height = answer.height;
    out.duration = answer.duration;
    return true;
  }
  stop();
  if (received == Received::Late) {
    GLTK::Console::out(L"movie description of %ls took longer than %g s, given up.\n", path_.c_str(),
                       deadlineMs_ / 1000.0);
  } else {
    GLTK::Console::out(L"movie description of %ls ended without an answer.\n", path_.c_str());
  }
  return false;
}

DescriberProcess& describer() {
  static DescriberProcess worker(describeMovie, 2000);
  return worker;
}
