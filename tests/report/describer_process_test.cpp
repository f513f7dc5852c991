// The describer process: answers, a description that runs past its
// deadline and a worker that dies, with what they leave behind; and the
// program on a damaged movie that keeps FFmpeg busy for tens of seconds.
#include "report/describer_process.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "tests/cli/sondex_process.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
using Clock = std::chrono::steady_clock;

// "spin" never ends, "die" ends the worker, "fail" is not described; any
// other path is described with its length as the width.
bool fakeDescribe(const std::wstring& path, MovieDescription& out) {
  for (volatile bool spin = path == L"spin"; spin;) {
  }
  if (path == L"die") _exit(3);
  out.width = static_cast<double>(path.size());
  return path != L"fail";
}

// This process's children (zombies included) and open descriptors.
size_t children() {
  std::ifstream list("/proc/self/task/" + std::to_string(gettid()) + "/children");
  size_t n = 0;
  for (pid_t pid; list >> pid;) ++n;
  return n;
}
size_t openDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

TEST(DescriberProcess, EndsWorkersThatRunPastTheDeadlineOrDieAndAnswersTheNextAtOnce) {
  const size_t children0 = children(), descriptors0 = openDescriptors();
  {
    DescriberProcess worker(fakeDescribe, 300);
    // A request dropped untaken ends its busy worker without a word.
    worker.ask(L"spin");
    worker.drop();
    const std::tuple<std::wstring, bool, std::string> requests[] = {
        {L"a.mp4", true, ""}, {L"fail", false, ""},
        {L"spin", false, "movie description of spin took longer than 0.3 s, given up.\n"}, {L"bc.mp4", true, ""},
        {L"die", false, "movie description of die ended without an answer.\n"}, {L"def.mp4", true, ""}};
    for (const auto& [path, described, message] : requests) {
      ConsoleCapture capture;
      MovieDescription d;
      const auto start = Clock::now();
      EXPECT_EQ(worker.describe(path, d), described);
      EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(d.width, described ? static_cast<double>(path.size()) : -1.0);
      EXPECT_EQ(capture.text(), message);
      // A worker that was ended is gone, not left as a zombie.
      EXPECT_EQ(children(), children0 + (message.empty() ? 1 : 0));
    }
  }
  EXPECT_EQ(children(), children0);
  EXPECT_EQ(openDescriptors(), descriptors0);
}

// FFmpeg spends 30-40 s of CPU opening this movie before it gives up.
TEST(DescriberProcess, ADamagedMovieIsGivenUpAfterTwoSecondsAndTheNextRequestAnswered) {
  const char* source = std::getenv("SONDEX_SOURCE_DIR");
  const std::string dir = source != nullptr ? source : ".";
  const std::string damaged = dir + "/tests/data/realworld/fragmented-flipped.mp4";
  const std::string head =
      "KMKN not found.\nH.264 detected.\nmovie description of " + damaged + " took longer than 2 s, given up.\n";
  auto start = Clock::now();
  const RunResult argumentMode = runSondex({damaged});
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(argumentMode.status, 1);
  EXPECT_TRUE(argumentMode.out.starts_with(head + "\nSondex ")) << argumentMode.out;

  start = Clock::now();
  const RunResult stream = runSondex({}, damaged + "\n" + dir + "/samples/sample.mp4\n");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_EQ(stream.out, head + "result: {\"status\":\"failed\"}\n" + readText(dir + "/tests/cli/golden/sample.mp4.txt"));
}

}  // namespace
