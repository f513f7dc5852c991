// The sondex program end to end: both modes, exact output and dump files,
// options, exit statuses, streaming through a pipe, UTF-8 names.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <new>
#include <sstream>
#include <stdexcept>

#include "cli/process_file.h"
#include "tests/cli/sondex_process.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

const std::string kUsage =
    "\nSondex 2.8.3.2019.07.25\n"
    "usage: Sondex.osx [options] <source.mp4>\n"
    "  source.mp4      : input file.\n"
    "  -kdtd:kdtd.json : dump KDTD data\n"
    "  -set1           : overwrite constrained_set1_flag to 1, if H.264 and profile_idc is 66.\n"
    "\n";
const std::string kFailed = "result: {\"status\":\"failed\"}\n";

std::string sourceDir() {
  const char* dir = std::getenv("SONDEX_SOURCE_DIR");
  return dir != nullptr ? dir : ".";
}
std::string sample(const std::string& name) { return sourceDir() + "/samples/" + name; }
std::string golden(const std::string& name) { return readText(sourceDir() + "/tests/cli/golden/" + name); }

// What the movie header and the sample tables make of a movie, computed
// from ffprobe's view of it: duration and the video bit rate.
struct Probed {
  float duration;
  unsigned bitRate;
};
Probed probe(const std::string& path) {
  const std::string duration = run("ffprobe -v error -show_entries format=duration -of csv=p=0 '" + path + "'");
  const std::string sizes =
      run("ffprobe -v error -select_streams v:0 -show_entries packet=size -of csv=p=0 '" + path + "'");
  uint64_t total = 0;
  std::istringstream lines(sizes);
  for (std::string line; std::getline(lines, line);) total += std::stoull(line);
  const float seconds = std::stof(duration);
  return {seconds, static_cast<unsigned>(static_cast<float>(total * 8) / seconds)};
}

class Cli : public testing::Test {
 protected:
  void SetUp() override {
    if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  }
  TempDir dir_;
};

// ------------------------------------------------------------ the result line

TEST_F(Cli, ACameraMovieReportsEverything) {
  const CameraBoxes boxes = turningCameraBoxes("Stitch \"Pro\"");
  for (const bool hevc : {false, true}) {
    const std::string path =
        dir_.write("cam.mp4", injectCameraBoxes(ffmpegMovie(hevc ? "-c:v libx265 -tag:v hvc1 -x265-params "
                                                                   "log-level=none -pix_fmt yuv420p"
                                                                 : "-c:v libx264 -pix_fmt yuv420p"),
                                                 boxes));
    const Probed p = probe(path);
    char head[512];
    std::snprintf(head, sizeof head,
                  "result: {\"status\":\"succeed\", \"hasKDTD\":true, \"type\":\"dualfish\", \"codec\":\"%s\", "
                  "\"decodable\":true, \"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":%0.2f, "
                  "\"videoBitRate\":%u",
                  hevc ? "H265" : "H264", p.duration, p.bitRate);
    const std::string expected =
        std::string("source movie model: KORVU ZEPRA N2 (30001)\n") + "source movie panoramaImageType: 2\n" +
        (hevc ? "H.265/HEVC detected(hvc1).\n" : "H.264 detected.\n") +
        "rev-up/down: [P]0.000000, [N]:0.000000 -> N\n"
        "rev-front:   [F]0.000000 -> N\n" +
        head +
        ", \"model\":\"KORVU ZEPRA N2\", \"software\":\"2.00.1\", \"cpuVersion\":\"CPU 2.10\", "
        "\"cameraSerial\":\"SN10034567\", \"gps\":\"+48.8584+002.2945/\", \"frameWidth\":384, \"frameHeight\":192, "
        "\"GSpherical:InitialViewHeadingDegrees\":-45, \"GSpherical:InitialViewPitchDegrees\":10, "
        "\"GSpherical:InitialHorizontalFOVDegrees\":100, \"GSpherical:StitchingSoftware\":\"Stitch  Pro\", "
        "\"creatorTool\":\"Editor 7\", \"topBottomCorrection\":true" +
        (hevc ? "" : ", \"dxvaDecodable\":false") +
        ", \"directionLocked\":true, \"videoStabilization\":3, \"KDTDSamplingRate\":30, \"KDTBSamplingRate\":200, "
        "\"KDTCSamplingRate\":30, \"videoQuality\":\"fine\"}\n";
    const RunResult argumentMode = runSondex({path});
    EXPECT_EQ(argumentMode.status, 0);
    EXPECT_EQ(argumentMode.out, expected) << (hevc ? "H.265" : "H.264");
    EXPECT_EQ(argumentMode.err, "");
    const RunResult streamMode = runSondex({}, path + "\n");
    EXPECT_EQ(streamMode.out, expected);
  }
}

TEST_F(Cli, APlainMovieHasOnlyTheHead) {
  const std::string path = dir_.write("plain.mp4", ffmpegMovie("-c:v libx264 -pix_fmt yuv420p"));
  const Probed p = probe(path);
  char head[512];
  std::snprintf(head, sizeof head,
                "result: {\"status\":\"succeed\", \"hasKDTD\":false, \"type\":\"equi\", \"codec\":\"H264\", "
                "\"decodable\":true, \"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":%0.2f, "
                "\"videoBitRate\":%u, \"frameWidth\":384, \"frameHeight\":192, \"dxvaDecodable\":false}\n",
                p.duration, p.bitRate);
  EXPECT_EQ(runSondex({path}).out, std::string("KMKN not found.\nH.264 detected.\n"
                                               "KDTD: No KDTG entries.\nKDTD: No KDTG entries.\n"
                                               "KDTC/KDTD is not enough size.\n  KDTC:   0\n  KDTD/G: 0\n") +
                                       head);
}

TEST_F(Cli, ABigEndianTimestampLogIsReadAsEmptyAndTheStreamGoesOn) {
  CameraBoxes boxes;
  boxes.udta = {SampleBox("KDTD").add(Gravity{0, 16384, 0, 0, 5}).build(),
                SampleBox("KDTG", kBigEndian).add(uint64_t{5}).add(uint64_t{6}).build()};
  const std::string path = dir_.write("be.mp4", injectCameraBoxes(ffmpegMovie("-c:v libx264"), boxes));
  const RunResult r = runSondex({}, path + "\t" + dir_.file("d.json") + "\n" + sample("sample.jpg") + "\n");
  EXPECT_EQ(r.status, 0);
  const std::string kdtg = "KDTG: byte order 3210 not supported, box read as empty.\nKDTD: No KDTG entries.\n";
  EXPECT_NE(r.out.find("H.264 detected.\n" + kdtg + kdtg + "KDTC/KDTD is not enough size."), std::string::npos);
  EXPECT_NE(r.out.find("result: {\"status\":\"succeed\", \"hasKDTD\":true"), std::string::npos);
  EXPECT_TRUE(r.out.ends_with("\n" + runSondex({sample("sample.jpg")}).out)) << r.out;
  EXPECT_EQ(readText(dir_.file("d.json")), "[{\"x\":0,\"y\":16384,\"z\":0,\"timestamp\":5}]\n");  // not re-timed
}

// ------------------------------------------------------------ dump files

TEST_F(Cli, DumpsOfNonNumbersAndEmptyLogsAreJson) {
  CameraBoxes boxes;
  boxes.makerNote = TiffBuilder(kBigEndian).build(cameraIfd0());  // stabilised: the KDTI yaw is used
  const float nan = std::nanf(""), inf = INFINITY;
  boxes.udta = {SampleBox("KDTB").add(Gyro{nan, inf, -inf, 0, 1}).add(Gyro{1, 2, 3, 0, 2}).build(),
                SampleBox("KDTD").add(Gravity{0, 16384, 0, 0, 1}).add(Gravity{1, 2, 3, 0, 2}).add(Gravity{}).build(),
                SampleBox("KDTI").add(YawCorrection{nan, nan, nan, nan, 1}).add(YawCorrection{.5, .5, .5, .5, 2}).build()};
  const std::string path = dir_.write("nan.mp4", injectCameraBoxes(ffmpegMovie("-c:v libx264"), boxes));
  const RunResult r = runSondex(
      {"-kdtd:" + dir_.file("d.json"), "-kdtb:" + dir_.file("b.json"), "-kdtc:" + dir_.file("c.json"), path});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(readText(dir_.file("d.json")),
            "[{\"x\":0,\"y\":16384,\"z\":0,\"yaw\":null,\"timestamp\":1},\n"
            "{\"x\":1,\"y\":2,\"z\":3,\"yaw\":0.5,\"timestamp\":2},\n"
            "{\"x\":0,\"y\":0,\"z\":0,\"timestamp\":0}]\n");  // more samples than yaw values
  EXPECT_EQ(readText(dir_.file("b.json")),
            "[{\"x\":null,\"y\":null,\"z\":null,\"timestamp\":1},\n{\"x\":1,\"y\":2,\"z\":3,\"timestamp\":2}]\n");
  EXPECT_EQ(readText(dir_.file("c.json")), "[]\n");
}

TEST_F(Cli, ADumpPathNamingTheSourceFailsTheRequestBeforeAnythingIsWritten) {
  const std::string movie = dir_.file("clip.mp4");
  fs::copy_file(sample("sample.mp4"), movie);
  fs::create_directory(dir_.file("dir"));
  fs::create_symlink("clip.mp4", dir_.file("link.mp4"));
  const Bytes original = readFile(movie);
  for (const std::string& alias : {dir_.file("dir/../clip.mp4"), dir_.file("link.mp4")}) {
    const std::string refused = "dump file " + alias + " is the source file, not written.\n";
    const RunResult argumentMode =
        runSondex({"-set1", "-kdtd:" + dir_.file("d.json"), "-kdtb:" + dir_.file("b.json"), "-kdtc:" + alias, movie});
    EXPECT_EQ(argumentMode.status, 1);
    EXPECT_EQ(argumentMode.out, refused + kUsage);
    const RunResult stream = runSondex({}, movie + "\t" + alias + "\n" + movie + "\n");
    EXPECT_EQ(stream.out, refused + kFailed + golden("sample.mp4.txt"));
    EXPECT_EQ(readFile(movie), original);
    EXPECT_FALSE(fs::exists(dir_.file("d.json")));
  }
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
    EXPECT_FALSE(guardedRequest(L"in.mp4", [&] {
      fault();
      return true;
    }));
    EXPECT_EQ(capture.text(), "processFile(in.mp4) failed: " + what + ".\n");
  }
}

// ------------------------------------------------------------ the bundled samples, byte for byte

TEST_F(Cli, SamplesMatchTheirRecordedOutput) {
  EXPECT_EQ(runSondex({sample("sample.mp4")}).out, golden("sample.mp4.txt"));
  const RunResult dumped = runSondex(
      {"-dump", "-kdtd:" + dir_.file("d.json"), "-kdtb:" + dir_.file("b.json"), "-kdtc:" + dir_.file("c.json"),
       sample("sample.mp4")});
  EXPECT_EQ(dumped.status, 0);
  EXPECT_EQ(dumped.out, golden("sample.mp4.dump.txt"));
  EXPECT_EQ(readText(dir_.file("d.json")), golden("sample.kdtd.json"));
  EXPECT_EQ(readText(dir_.file("b.json")), golden("sample.kdtb.json"));
  EXPECT_EQ(readText(dir_.file("c.json")), golden("sample.kdtc.json"));
  EXPECT_EQ(runSondex({"-dump", sample("sample.jpg")}).out, golden("sample.jpg.dump.txt"));
  EXPECT_EQ(runSondex({"-dump", sample("sample.dng")}).out, golden("sample.dng.dump.txt"));
}

// ------------------------------------------------------------ options and exit statuses

TEST_F(Cli, ArgumentModeOptionsAndStatuses) {
  const RunResult nothing = runSondex({});
  EXPECT_EQ(nothing.out, "");
  EXPECT_EQ(nothing.status, 0);
  EXPECT_EQ(runSondex({"-h"}).out, kUsage);
  EXPECT_EQ(runSondex({"-h"}).status, 1);
  EXPECT_EQ(runSondex({"-set1"}).out, "");
  EXPECT_EQ(runSondex({"-set1"}).status, 0);

  const RunResult unknown = runSondex({"-x"});
  EXPECT_EQ(unknown.out, "open(-x, 'r') failed.\nopen(-x, 'r') failed.\n" + kUsage);
  EXPECT_EQ(unknown.status, 1);

  const RunResult withHelp = runSondex({"-h", sample("sample.jpg")});
  EXPECT_EQ(withHelp.status, 0);
  EXPECT_EQ(withHelp.out, runSondex({sample("sample.jpg")}).out);

  // Only the first source counts; entries past the tenth are never looked at.
  EXPECT_EQ(runSondex({sample("sample.jpg"), sample("sample.dng")}).out, runSondex({sample("sample.jpg")}).out);
  std::vector<std::string> eleven(9, "-set1");
  eleven.push_back(sample("sample.jpg"));
  EXPECT_EQ(runSondex(eleven).out, "");
}

TEST_F(Cli, FileKindsGoByTheEndOfTheName) {
  fs::copy_file(sample("sample.jpg"), dir_.file("x.JpG"));
  fs::copy_file(sample("sample.jpg"), dir_.file(".jpg"));
  fs::copy_file(sample("sample.jpg"), dir_.file("y.JPEG"));
  EXPECT_EQ(runSondex({dir_.file("x.JpG")}).status, 0);
  EXPECT_EQ(runSondex({dir_.file("y.JPEG")}).status, 0);
  // Just ".jpg" is a movie, which this still is not.
  const RunResult asMovie = runSondex({".jpg"}, "", dir_.path());
  EXPECT_EQ(asMovie.status, 1);
  EXPECT_NE(asMovie.out.find("Unknown codec."), std::string::npos);
}

TEST_F(Cli, Set1MessagesForMoviesThatNeedNoRewrite) {
  const std::string high = dir_.write("high.mp4", ffmpegMovie("-c:v libx264 -profile:v high -pix_fmt yuv420p"));
  const std::string base = dir_.write("base.mp4", ffmpegMovie("-c:v libx264 -profile:v baseline -pix_fmt yuv420p"));
  const std::string hevc =
      dir_.write("hevc.mp4", ffmpegMovie("-c:v libx265 -x265-params log-level=none -pix_fmt yuv420p"));
  const Bytes highBytes = readFile(high);
  auto messages = [](const std::string& out) {
    const size_t at = out.find("KDTD/G: 0\n") + 10;
    return out.substr(at, out.find("result: ") - at);
  };
  EXPECT_EQ(messages(runSondex({"-set1", high}).out), "profile_idc = 100, not 66.\n");
  // libx264's Baseline already sets constraint_set1_flag.
  EXPECT_EQ(messages(runSondex({"-set1", base}).out), "constrained_set1_flag = 1, not 0.\n");
  EXPECT_EQ(messages(runSondex({"-set1", hevc}).out), "");
  EXPECT_EQ(readFile(high), highBytes);  // untouched
}

TEST_F(Cli, ADumpFileThatCannotBeCreatedFailsTheRequest) {
  const RunResult r = runSondex({"-kdtb:" + dir_.file("no/such/dir.json"), sample("sample.mp4")});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("open(" + dir_.file("no/such/dir.json") + ", 'w') failed.\n" + kUsage), std::string::npos);
  EXPECT_EQ(r.out.find("result: "), std::string::npos);
}

// ------------------------------------------------------------ request stream

TEST_F(Cli, RequestLinesFieldsAndFailures) {
  const std::string mp4 = sample("sample.mp4");
  const std::string input = "\n\t\t\n" +                                              // nothing
                            mp4 + "\t" + dir_.file("d1.json") + "\r\n" +              // CR LF removed
                            mp4 + "\t\t" + dir_.file("d2.json") + "\n" +              // tabs collapse
                            dir_.file("missing.mp4") + "\n" +                        // failed, stream goes on
                            mp4 + "\t" + dir_.file("d3.json") + "\t" + dir_.file("b3.json") + "\t" +
                            dir_.file("c3.json") + "\tignored\n" +                   // four fields and more
                            sample("sample.jpg") + "\t" + dir_.file("never.json") + "\n";  // stills: no dumps
  const RunResult r = runSondex({}, input);
  EXPECT_EQ(r.status, 0);
  const std::string movie = golden("sample.mp4.txt");
  const std::string missing = "open(" + dir_.file("missing.mp4") + ", 'r') failed.\n";
  EXPECT_EQ(r.out, movie + movie + missing + missing + kFailed + movie + runSondex({sample("sample.jpg")}).out);
  for (const char* name : {"d1.json", "d2.json", "d3.json"}) {
    EXPECT_EQ(readText(dir_.file(name)), golden("sample.kdtd.json")) << name;
  }
  EXPECT_EQ(readText(dir_.file("b3.json")), golden("sample.kdtb.json"));
  EXPECT_EQ(readText(dir_.file("c3.json")), golden("sample.kdtc.json"));
  EXPECT_FALSE(fs::exists(dir_.file("never.json")));
}

TEST_F(Cli, ALineThatIsNotUtf8IsAnsweredAndTheStreamGoesOn) {
  const RunResult r = runSondex({}, "bad\xFF.mp4\n" + sample("sample.jpg") + "\ncut\xC3");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, kFailed + runSondex({sample("sample.jpg")}).out + kFailed);
}

TEST_F(Cli, ALineStartingWithATabPassesThatTab) {
  const RunResult r = runSondex({}, "\tnone.mp4\n");
  EXPECT_EQ(r.out, "open(\tnone.mp4, 'r') failed.\nopen(\tnone.mp4, 'r') failed.\n" + kFailed);
}

TEST_F(Cli, ADriverWaitingForEachAnswerNeverStalls) {
  SondexDriver driver;
  const std::vector<std::string> requests = {sample("sample.mp4"), dir_.file("nope.mp4"), sample("sample.jpg"),
                                             sample("sample.dng"), sample("sample.mp4") + "\t" + dir_.file("d.json")};
  for (int round = 0; round < 4; ++round) {
    for (const std::string& request : requests) {
      driver.send(request + "\n");
      const std::string answer = driver.readUntilResult(10000);
      const bool failed = request.find("nope") != std::string::npos;
      EXPECT_NE(answer.find(failed ? kFailed : "result: {\"status\":\"succeed\""), std::string::npos) << answer;
    }
  }
  EXPECT_EQ(driver.finish(), 0);
  EXPECT_EQ(readText(dir_.file("d.json")), golden("sample.kdtd.json"));
}

TEST_F(Cli, Utf8NamesInBothModes) {
  for (const std::string name : {"caf\xC3\xA9.mp4", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.mp4"}) {
    fs::copy_file(sample("sample.mp4"), dir_.file(name));
    const std::string dump = dir_.file("\xE3\x82\xB8\xE3\x83\xA3\xE3\x82\xA4\xE3\x83\xAD.json");
    const RunResult argumentMode = runSondex({"-kdtb:" + dump, dir_.file(name)});
    EXPECT_EQ(argumentMode.out, golden("sample.mp4.txt")) << name;
    EXPECT_EQ(readText(dump), golden("sample.kdtb.json"));
    EXPECT_EQ(runSondex({}, dir_.file(name) + "\n").out, golden("sample.mp4.txt")) << name;
  }
  // A name that is not there is reported with its UTF-8 intact.
  EXPECT_EQ(runSondex({}, dir_.file("caf\xC3\xA9-gone.mp4") + "\n").out,
            "open(" + dir_.file("caf\xC3\xA9-gone.mp4") + ", 'r') failed.\nopen(" +
                dir_.file("caf\xC3\xA9-gone.mp4") + ", 'r') failed.\n" + kFailed);
}

}  // namespace
