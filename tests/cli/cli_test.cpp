// The sondex program end to end: both modes, exact output and dump files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <new>

#include "cli/process_file.h"
#include "tests/cli/sondex_process.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

const std::string kUsage =
    "\nSondex 2.8.3.2019.07.25\nusage: Sondex.osx [options] <source.mp4>\n  source.mp4      : input file.\n"
    "  -kdtd:kdtd.json : dump KDTD data\n"
    "  -set1           : overwrite constrained_set1_flag to 1, if H.264 and profile_idc is 66.\n\n";
const std::string kFailed = "result: {\"status\":\"failed\"}\n";

std::string source(const std::string& name) {
  return (std::getenv("SONDEX_SOURCE_DIR") != nullptr ? std::getenv("SONDEX_SOURCE_DIR") : ".") + ("/" + name);
}
std::string sample(const std::string& name) { return source("samples/" + name); }
std::string golden(const std::string& name) { return readText(source("tests/cli/golden/" + name)); }
std::string failedOpen(const std::string& path) { return "open(" + path + ", 'r') failed.\n"; }

class Cli : public testing::Test {
 protected:
  const std::string movie_ = golden("sample.mp4.txt");
  const std::string head_ = movie_.substr(0, movie_.find("result: "));  // the reader's messages
  const std::string jpg_ = golden("sample.jpg.dump.txt").substr(golden("sample.jpg.dump.txt").rfind("result: "));
  TempDir dir_;
};

// The bundled sample pins a camera movie's whole report; these pin what the
// codecs, -set1 and the yaw dump change, and duration and bit rate as ffprobe sees them.
TEST_F(Cli, MadeMoviesAreReportedExactly) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  const std::string h264 = "-c:v libx264 -pix_fmt yuv420p",
                    camera =
                        "source movie model: KORVU ZEPRA N2 (30001)\n"
                        "source movie panoramaImageType: 2\n%srev-up/down: [P]0.000000, [N]:0.000000 -> N\nrev-front:  "
                        " [F]0.000000 -> N\n";
  const std::string result =
      "result: {\"status\":\"succeed\", \"hasKDTD\":%s, \"type\":\"%s\", \"codec\":\"%s\", "
      "\"decodable\":true, \"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":%0.2f, \"videoBitRate\":%u";
  CameraBoxes odd;  // gravity samples past the yaw values have none; an absent log dumps as []
  odd.makerNote = TiffBuilder(kBigEndian).build(cameraIfd0());  // stabilised: the KDTI yaw is used
  const float nan = std::nanf("");
  odd.udta = {
      SampleBox("KDTD").add(Gravity{0, 16384, 0, 0, 1}).add(Gravity{1, 2, 3, 0, 2}).add(Gravity{}).build(),
      SampleBox("KDTI").add(YawCorrection{nan, nan, nan, nan, 1}).add(YawCorrection{.5, .5, .5, .5, 2}).build()};
  const struct {
    std::string options, arg, format;  // format: the output's start, for the codec's line, duration and bit rate
    CameraBoxes boxes;
  } rows[] = {
      {h264, "-h", camera + result + ", \"model\"", turningCameraBoxes("Stitch")},
      {"-c:v libx265 -tag:v hvc1 -x265-params log-level=none", "-set1", camera + result, turningCameraBoxes("S")},
      {h264 + " -profile:v high",
       "-set1",
       "KMKN not found.\n%sKDTD: No KDTG entries.\nKDTD: No KDTG entries.\n"
       "KDTC/KDTD is not enough size.\n  KDTC:   0\n  KDTD/G: 0\nprofile_idc = 100, not 66.\n" +
           result + ", \"frameWidth\":384, \"frameHeight\":192, \"dxvaDecodable\":false}\n",
       {}},
      {h264, "-kdtc:" + dir_.file("c.json"), "", odd},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.options + " " + row.arg);
    const std::string path = dir_.write("made.mp4", injectCameraBoxes(ffmpegMovie(row.options), row.boxes));
    const Bytes before = readFile(path);
    const RunResult r = runSondex({row.arg, "-kdtd:" + dir_.file("d.json"), path});
    EXPECT_EQ(r.err + std::to_string(r.status), "0");
    EXPECT_EQ(readFile(path), before);
    const std::string probe = "ffprobe -v error -of csv=p=0 -show_entries ";
    const float seconds = std::stof(run(probe + "format=duration '" + path + "'"));
    std::istringstream sizes(run(probe + "packet=size -select_streams v:0 '" + path + "'"));
    uint64_t bytes = 0;
    for (std::string line; std::getline(sizes, line);) bytes += std::stoull(line);
    const bool hevc = row.options.find("x265") != std::string::npos, cam = !row.boxes.model.empty();
    char expected[2048];
    std::snprintf(expected, sizeof expected, row.format.c_str(),
                  hevc ? "H.265/HEVC detected(hvc1).\n" : "H.264 detected.\n", cam ? "true" : "false",
                  cam ? "dualfish" : "equi", hevc ? "H265" : "H264", seconds,
                  static_cast<unsigned>(static_cast<float>(bytes * 8) / seconds));
    EXPECT_EQ(r.out.substr(0, std::strlen(expected)), expected);
    EXPECT_EQ(row.arg == "-h" ? runSondex({}, path + "\n").out : r.out, r.out);  // the stream answers alike
  }
  EXPECT_EQ(readText(dir_.file("d.json")),
            "[{\"x\":0,\"y\":16384,\"z\":0,\"yaw\":null,\"timestamp\":1},\n"
            "{\"x\":1,\"y\":2,\"z\":3,\"yaw\":0.5,\"timestamp\":2},\n{\"x\":0,\"y\":0,\"z\":0,\"timestamp\":0}]\n");
  EXPECT_EQ(readText(dir_.file("c.json")), "[]\n");
}

TEST_F(Cli, ArgumentModeOutputAndStatus) {
  const std::string movie = dir_.file("caf\xC3\xA9.mp4"), link = dir_.file("link.mp4"), none = dir_.file("no/such");
  fs::copy_file(sample("sample.mp4"), movie);
  fs::create_symlink(movie, link);
  for (const char* still : {"x.JpG", "y.JPEG", ".jpg"}) fs::copy_file(sample("sample.jpg"), dir_.file(still));
  const Bytes original = readFile(movie);
  std::vector<std::string> eleven(9, "-set1");  // entries past the tenth are never looked at
  eleven.push_back(sample("sample.jpg"));
  const std::string d = "-kdtd:" + dir_.file("d.json"), b = "-kdtb:" + dir_.file("b.json"), jpg = sample("sample.jpg");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
  } rows[] = {
      {{}, 0, ""},
      {{"-h"}, 1, kUsage},
      {{"-set1"}, 0, ""},
      {eleven, 0, ""},
      {{"-x"}, 1, failedOpen("-x") + failedOpen("-x") + kUsage},
      {{"-h", jpg}, 0, jpg_},
      {{jpg, sample("sample.dng")}, 0, jpg_},  // only the first source counts
      {{dir_.file("x.JpG")}, 0, jpg_},
      {{dir_.file("y.JPEG")}, 0, jpg_},
      {{".jpg"}, 1, "KMKN not found.\nUnknown codec.\n" + kUsage},  // nothing before the dot: a movie
      {{"-set1", movie}, 0, head_ + "constrained_set1_flag = 1, not 0.\n" + movie_.substr(head_.size())},
      {{"-kdtb:" + none, movie}, 1, head_ + "open(" + none + ", 'w') failed.\n" + kUsage},
      {{"-set1", d, b, "-kdtc:" + link, movie},
       1,
       "dump file " + link + " is the source file, not written.\n" + kUsage},
      {{"-dump", jpg}, 0, golden("sample.jpg.dump.txt")},
      {{"-dump", sample("sample.dng")}, 0, golden("sample.dng.dump.txt")},
      {{"-dump", d, b, "-kdtc:" + dir_.file("c.json"), movie}, 0, golden("sample.mp4.dump.txt")},
  };
  const fs::path cwd = fs::current_path();
  fs::current_path(dir_.path());
  for (const auto& row : rows) {
    const RunResult r = runSondex(row.args);
    EXPECT_EQ(r.out + std::to_string(r.status), row.out + std::to_string(row.status))
        << testing::PrintToString(row.args);
    EXPECT_FALSE(row.status == 1 && fs::exists(dir_.file("d.json")));  // a refused request writes nothing
  }
  fs::current_path(cwd);
  EXPECT_EQ(readFile(movie), original);
  for (const char* log : {"kdtd", "kdtb", "kdtc"}) {
    EXPECT_EQ(readText(dir_.file(std::string(1, log[3]) + ".json")), golden("sample." + std::string(log) + ".json"));
  }
}

TEST_F(Cli, RequestStreamLinesAndFields) {
  const std::string mp4 = sample("sample.mp4"), utf8 = dir_.file("\xE6\x97\xA5\xE6\x9C\xAC.mp4");
  fs::copy_file(mp4, utf8);
  const std::string gone = dir_.file("caf\xC3\xA9-gone.mp4"), gyro = dir_.file("\xE3\x82\xB8\xE3\x83\xA3.json");
  const std::string input = "\n\t\t\n" +                                  // nothing
                            mp4 + "\t" + dir_.file("d1.json") + "\r\n" +  // CR LF removed
                            mp4 + "\t\t" + dir_.file("d2.json") + "\n" +  // tabs collapse
                            gone + "\n" +                                 // failed, stream goes on
                            mp4 + "\t" + dir_.file("d3.json") + "\t" + dir_.file("b3.json") + "\t" +
                            dir_.file("c3.json") + "\tignored\n" +                          // four fields and more
                            sample("sample.jpg") + "\t" + dir_.file("never.json") + "\n" +  // stills: no dumps
                            "bad\xFF.mp4\n" +                                               // not UTF-8
                            "\tnone.mp4\n" +                                                // the tab is the name's
                            utf8 + "\t" + dir_.file("d4.json") + "\t" + gyro + "\n" + utf8 + "\t" + utf8 +
                            "\n" +      // the source as dump
                            "cut\xC3";  // ends inside a character
  const RunResult r = runSondex({}, input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, movie_ + movie_ + failedOpen(gone) + failedOpen(gone) + kFailed + movie_ + jpg_ + kFailed +
                       failedOpen("\tnone.mp4") + failedOpen("\tnone.mp4") + kFailed + movie_ + "dump file " + utf8 +
                       " is the source file, not written.\n" + kFailed + kFailed);
  for (const char* name : {"d1.json", "d2.json", "d3.json", "d4.json"}) {
    EXPECT_EQ(readText(dir_.file(name)), golden("sample.kdtd.json")) << name;
  }
  EXPECT_EQ(readText(dir_.file("b3.json")), golden("sample.kdtb.json"));
  EXPECT_EQ(readText(gyro), golden("sample.kdtb.json"));
  EXPECT_EQ(readText(dir_.file("c3.json")), golden("sample.kdtc.json"));
  EXPECT_EQ(readFile(utf8), readFile(mp4));
  EXPECT_FALSE(fs::exists(dir_.file("never.json")));
}

// Each answer arrives whole while the request stream waits for the next line.
TEST_F(Cli, ADriverWaitingForEachAnswerNeverStalls) {
  int in[2], out[2];
  ASSERT_EQ(pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC), 0);
  const pid_t pid = spawnSondex({}, in[0], out[1], 2);
  close(in[0]);
  close(out[1]);
  const std::string nope = dir_.file("nope.mp4"), dump = "\t" + dir_.file("d.json");
  for (const auto& [request, answer] :
       std::vector<std::pair<std::string, std::string>>{{sample("sample.mp4") + dump, movie_},
                                                        {nope, failedOpen(nope) + failedOpen(nope) + kFailed},
                                                        {sample("sample.jpg"), jpg_},
                                                        {sample("sample.mp4"), movie_}}) {
    ASSERT_EQ(write(in[1], (request + "\n").data(), request.size() + 1), static_cast<ssize_t>(request.size() + 1));
    std::string got(answer.size(), '\0');
    pollfd ready = {out[0], POLLIN, 0};
    for (size_t n = 0; n < got.size() && poll(&ready, 1, 10000) == 1;) {
      n += static_cast<size_t>(std::max<ssize_t>(read(out[0], &got[n], got.size() - n), 0));
    }
    ASSERT_EQ(got, answer) << request;
  }
  close(in[1]);
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readText(dir_.file("d.json")), golden("sample.kdtd.json"));
}

// FFmpeg spends 30-40 s of CPU opening this movie: it is given up after 2 s in both modes.
TEST_F(Cli, ADamagedMovieIsGivenUpAfterTwoSeconds) {
  const std::string damaged = source("tests/data/realworld/fragmented-flipped.mp4");
  const std::string head =
      "KMKN not found.\nH.264 detected.\nmovie description of " + damaged + " took longer than 2 s, given up.\n";
  const auto start = std::chrono::steady_clock::now();
  const RunResult argumentMode = runSondex({damaged});
  EXPECT_EQ(argumentMode.status, 1);
  EXPECT_TRUE(argumentMode.out.starts_with(head + "\nSondex ")) << argumentMode.out;
  EXPECT_EQ(runSondex({}, damaged + "\n" + sample("sample.mp4") + "\n").out, head + kFailed + movie_);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(9));
}

TEST(GuardedRequest, WhateverARequestThrowsFailsItWithOneLine) {
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { throw std::bad_alloc(); }, "std::bad_alloc"},
      {[] { throw std::length_error("vector::reserve"); }, "vector::reserve"},
      {[] { throw "no more data"; }, "no more data"},
      {[] { throw 42; }, "unknown exception"},
  };
  for (const auto& [fault, what] : cases) {
    ConsoleCapture capture;
    EXPECT_FALSE(guardedRequest(L"in.mp4", [&] { return fault(), true; }));
    EXPECT_EQ(capture.text(), "processFile(in.mp4) failed: " + what + ".\n");
  }
}

}  // namespace
