// The movie description on movies made by Debian's ffmpeg, and the
// describer process: answers, deadlines and workers that die.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "report/describer_process.h"
#include "tests/cli/sondex_process.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
using Clock = std::chrono::steady_clock;

// Describes a movie with standard error caught: FFmpeg must never print.
bool describeSilently(const std::string& path, MovieDescription& d) {
  fflush(stderr);
  const int saved = dup(2);
  FILE* sink = std::tmpfile();
  dup2(fileno(sink), 2);
  const bool ok = describeMovie(widen(path), d);
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  EXPECT_EQ(lseek(fileno(sink), 0, SEEK_END), 0) << path;
  fclose(sink);
  return ok;
}

// The default build decodes the codecs the README lists and no others.
// Files without video, stills and other containers are never movies here.
TEST(MovieDescription, DecodableExactlyWhenTheBuildDecodesTheMovie) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
#ifdef SONDEX_FFMPEG_LEAN
  constexpr bool kAll = false;
#else
  constexpr bool kAll = true;
#endif
  TempDir dir;
  const std::string video = "-f lavfi -i testsrc=size=384x192:rate=30000/1001 -t 1 -c:v ";
  const std::tuple<const char*, std::string, bool> cases[] = {
      {"h264.mp4", video + "libx264 -movflags +faststart", true}, {"h265.mp4", video + "libx265 -x265-params log-level=none", true},
      {"mpeg4.mp4", video + "mpeg4", true}, {"vp9.mp4", video + "libvpx-vp9 -deadline realtime -cpu-used 8", true},
      {"prores.mov", video + "prores_ks", true}, {"mjpeg.mp4", video + "mjpeg", true},
      {"mpeg2.mp4", video + "mpeg2video", kAll}, {"av1.mp4", video + "libaom-av1 -cpu-used 8", kAll},
      {"audio.mp4", "-f lavfi -i sine -t 1 -c:a aac", false}, {"still.jpg", video + "mjpeg -frames:v 1", false},
      {"other.mkv", video + "libx264", false}};
  for (const auto& [file, options, decodable] : cases) {
    run("ffmpeg -v error -y " + options + " '" + dir.file(file) + "'");
    MovieDescription d;
    ASSERT_EQ(describeSilently(dir.file(file), d), decodable) << file;
    if (!decodable) continue;
    EXPECT_EQ(std::tuple(d.width, d.height, std::lround(d.frameRate * 100), std::lround(d.duration * 10)),
              std::tuple(384, 192, 2997, 10)) << file;
  }
  // Not a movie, no file, and the H.264 movie (movie box first) cut after
  // its movie box: its sample tables point past the end of the file.
  MovieDescription d;
  const Bytes h264 = readFile(dir.file("h264.mp4"));
  const auto be32 = [&](size_t at) { return size_t{h264[at]} << 24 | h264[at + 1] << 16 | h264[at + 2] << 8 | h264[at + 3]; };
  for (const Bytes& bytes : {Bytes{'h', 'i'}, Bytes(h264.begin(), h264.begin() + be32(0) + be32(be32(0)))}) {
    EXPECT_FALSE(describeSilently(dir.write("bad.mp4", bytes), d));
  }
  EXPECT_FALSE(describeSilently(dir.file("missing.mp4"), d));
}

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
std::pair<size_t, size_t> childrenAndDescriptors() {
  std::ifstream list("/proc/self/task/" + std::to_string(gettid()) + "/children");
  size_t n = 0;
  for (pid_t pid; list >> pid;) ++n;
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return {n, static_cast<size_t>(std::distance(begin(fds), end(fds)))};
}

TEST(DescriberProcess, EndsWorkersThatRunPastTheDeadlineOrDieAndAnswersTheNextAtOnce) {
  const auto before = childrenAndDescriptors();
  {
    DescriberProcess worker(fakeDescribe, 300);
    worker.ask(L"spin");  // dropped untaken: its busy worker ends without a word
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
      EXPECT_EQ(childrenAndDescriptors().first, before.first + (message.empty() ? 1 : 0));
    }
  }
  EXPECT_EQ(childrenAndDescriptors(), before);
}

// FFmpeg spends 30-40 s of CPU opening this damaged movie before it gives up.
TEST(DescriberProcess, ADamagedMovieIsGivenUpAfterTwoSecondsAndTheNextRequestAnswered) {
  const std::string dir = std::getenv("SONDEX_SOURCE_DIR") ? std::getenv("SONDEX_SOURCE_DIR") : ".";
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
