// The sondex program end to end: both modes, exact output and dump files, and -set1's rewrites.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <new>

#include "cli/process_file.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

struct RunResult {
  std::string out, err;  // standard output and error
  int status = -1;       // exit status, or -1 when killed by a signal
};

// Runs sondex with standard input, output and error in files, so nothing can block.
RunResult runSondex(const std::vector<std::string>& args, const std::string& input = "") {
  TempDir io;
  writeFile(io.file("0"), Bytes(input.begin(), input.end()));
  std::vector<char*> argv = {const_cast<char*>(SONDEX_BINARY)};
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(io.file("0").c_str(), O_RDONLY), 0);
    for (int fd : {1, 2}) dup2(open(io.file(std::to_string(fd)).c_str(), O_WRONLY | O_CREAT, 0600), fd);
    execv(SONDEX_BINARY, argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {readText(io.file("1")), readText(io.file("2")), WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

const std::string kUsage =
    "\nSondex 2.8.3.2019.07.25\nusage: Sondex.osx [options] <source.mp4>\n  source.mp4      : input file.\n"
    "  -kdtd:kdtd.json : dump KDTD data\n"
    "  -set1           : overwrite constrained_set1_flag to 1, if H.264 and profile_idc is 66.\n\n";
const std::string kFailed = "result: {\"status\":\"failed\"}\n";

std::string sample(const std::string& name) { return sourcePath("samples/" + name); }
std::string cliGolden(const std::string& name) { return readText(sourcePath("tests/cli/golden/" + name)); }
std::string failedOpen(const std::string& path) { return "open(" + path + ", 'r') failed.\n"; }

// The boxes of a "KORVU ZEPRA N2" turning at half a radian per second for a
// second: maker note, sensor logs, location, spherical XML and XMP.
CameraBoxes turningCameraBoxes() {
  const SensorLog log = turningCamera(1.0, 0.5);
  CameraBoxes boxes;
  boxes.model = "KORVU ZEPRA N2";
  boxes.makerNote = TiffBuilder(kBigEndian).build(cameraIfd0(cameraMakerNote(), "KORVU ZEPRA N2", "2.00.1"));
  boxes.udta = {SampleBox("KDTB").rate(200).add(log.gyro).build(), SampleBox("KDTC").rate(30).add(log.compass).build(),
                SampleBox("KDTD").rate(30).add(log.gravity).build(), SampleBox("KDTG").add(log.stamps).build()};
  boxes.location = "+48.8584+002.2945/";
  boxes.sphericalXml = sphericalXmlText("Stitch", -45, 10, 100);
  boxes.xmp = xmpText("Editor 7");
  return boxes;
}

class Cli : public testing::Test {
 protected:
  const std::string movie_ = cliGolden("sample.mp4.txt");
  const std::string head_ = movie_.substr(0, movie_.find("result: "));  // the reader's messages
  const std::string jpg_ = cliGolden("sample.jpg.dump.txt").substr(cliGolden("sample.jpg.dump.txt").rfind("result: "));
  TempDir dir_;
};

// The bundled sample pins an H.264 camera movie's whole report; these pin what
// the codecs, -set1 and the yaw dump change, and duration and bit rate as ffprobe sees them.
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
      {"-c:v libx265 -tag:v hvc1 -x265-params log-level=none", "-set1", camera + result, turningCameraBoxes()},
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
      {{"-dump", jpg}, 0, cliGolden("sample.jpg.dump.txt")},
      {{"-dump", sample("sample.dng")}, 0, cliGolden("sample.dng.dump.txt")},
      {{"-dump", d, b, "-kdtc:" + dir_.file("c.json"), movie}, 0, cliGolden("sample.mp4.dump.txt")},
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
    EXPECT_EQ(readText(dir_.file(std::string(1, log[3]) + ".json")), cliGolden("sample." + std::string(log) + ".json"));
  }
}

TEST_F(Cli, RequestStreamLinesAndFields) {
  const std::string mp4 = sample("sample.mp4"), utf8 = dir_.file("\xE6\x97\xA5\xE6\x9C\xAC.mp4");
  fs::copy_file(mp4, utf8);
  const std::string gone = dir_.file("caf\xC3\xA9-gone.mp4");
  const std::string input = "\n\t\t\n" +                                  // nothing
                            mp4 + "\t" + dir_.file("d1.json") + "\r\n" +  // CR LF removed
                            mp4 + "\t\t" + dir_.file("d2.json") + "\n" +  // tabs collapse
                            gone + "\n" +                                 // failed, stream goes on
                            mp4 + "\t" + dir_.file("d3.json") + "\t" + dir_.file("b3.json") + "\t" +
                            dir_.file("c3.json") + "\tignored\n" +                          // four fields and more
                            sample("sample.jpg") + "\t" + dir_.file("never.json") + "\n" +  // stills: no dumps
                            "bad\xFF.mp4\n" +                                               // not UTF-8
                            "\tnone.mp4\n" +                                                // the tab is the name's
                            utf8 + "\t" + dir_.file("d4.json") + "\n" + utf8 + "\t" + utf8 +
                            "\n" +      // the source as dump
                            "cut\xC3";  // ends inside a character
  const RunResult r = runSondex({}, input);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, movie_ + movie_ + failedOpen(gone) + failedOpen(gone) + kFailed + movie_ + jpg_ + kFailed +
                       failedOpen("\tnone.mp4") + failedOpen("\tnone.mp4") + kFailed + movie_ + "dump file " + utf8 +
                       " is the source file, not written.\n" + kFailed + kFailed);
  for (const char* name : {"d1.json", "d2.json", "d3.json", "d4.json"}) {
    EXPECT_EQ(readText(dir_.file(name)), cliGolden("sample.kdtd.json")) << name;
  }
  EXPECT_EQ(readText(dir_.file("b3.json")), cliGolden("sample.kdtb.json"));
  EXPECT_EQ(readText(dir_.file("c3.json")), cliGolden("sample.kdtc.json"));
  EXPECT_EQ(readFile(utf8), readFile(mp4));
  EXPECT_FALSE(fs::exists(dir_.file("never.json")));
}

// FFmpeg spends 30-40 s of CPU opening this movie: it is given up after 2 s in both modes.
TEST_F(Cli, ADamagedMovieIsGivenUpAfterTwoSeconds) {
  const std::string damaged = sourcePath("tests/data/realworld/fragmented-flipped.mp4");
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
      {[] { throw "no more data"; }, "no more data"},
      {[] { throw 42; }, "unknown exception"},
  };
  for (const auto& [fault, what] : cases) {
    ConsoleCapture capture;
    EXPECT_FALSE(guardedRequest(L"in.mp4", [&] { return fault(), true; }));
    EXPECT_EQ(capture.text(), "processFile(in.mp4) failed: " + what + ".\n");
  }
}

const std::string kDone =
    "Container::appendFullRangeAndConstrainedSet1Flag: 0 - 0, constrained_set1_flag:  0 - 1\n"
    "set constrained_set1_flag to 1.\n";

// The movie with constraint_set1_flag cleared in its avcC's SPS.
Bytes clearSet1(Bytes movie) {
  TempDir dir;
  auto parsed = attachBytes(dir, movie);
  movie[findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC")->start + 18] &=
      0xBF;  // after box, record and NAL headers
  return movie;
}

std::string framemd5(const std::string& path) {
  const std::string out = run("ffmpeg -v error -i '" + path + "' -f framemd5 -");
  return out.substr(out.find("\n0,"));  // past the comment lines
}

TEST(Set1, EachLayoutGetsItsRewriteAndDecodesAsBefore) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  TempDir dir;
  const std::string small = "-s 128x64 ", first = "-movflags +faststart";
  const struct {
    std::string options, tail;
    int growth;  // 0: in place (the new SPS fits), 1: the movie box appended, 2: rebuilt larger
  } rows[] = {{"", "", 0},
              {small, "", 1},
              {small + first, "", 1},
              {small, "tail", 2},
              {small + first, "tail", 2},
              {small + "-movflags frag_keyframe+empty_moov", "", 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.options + row.tail);
    Bytes movie =
        ffmpegMovie("-c:v libx264 -profile:v baseline -pix_fmt yuv420p -enc_time_base 65537/1638401 " + row.options);
    if (row.growth == 1) movie = injectCameraBoxes(movie, turningCameraBoxes());
    movie = concat({clearSet1(movie), Bytes(row.tail.begin(), row.tail.end())});
    const std::string before = dir.write("before.mp4", movie), path = dir.write("movie.mp4", movie);
    const std::string out = runSondex({"-set1", path}).out, reread = runSondex({path}).out;
    EXPECT_NE(out.find(kDone), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.find("result: ")), reread.substr(reread.find("result: ")));
    EXPECT_NE(out.find("\"dxvaDecodable\":true"), std::string::npos) << out;
    EXPECT_EQ(framemd5(path), framemd5(before));
    EXPECT_EQ(run("ffprobe -v warning '" + path + "' 2>&1"), "");
    EXPECT_FALSE(fs::exists(path + ".tmp.mp4"));
    Bytes after = readFile(path);
    auto old = attachBytes(dir, movie, "old.mp4"), now = attachBytes(dir, after, "now.mp4");
    const uint64_t growth = after.size() - movie.size();
    EXPECT_EQ(growth, row.growth == 1 ? now->moov->size : row.growth == 0 ? 0 : std::max<uint64_t>(growth, 1));
    if (row.growth != 1) continue;
    // Append and retire: the old movie box became a free box; the new one keeps the user data whole.
    EXPECT_EQ(std::string(after.begin() + old->moov->start + 4, after.begin() + old->moov->start + 8), "free");
    const MP4::BOX *oldUdta = findFirst(*old, "moov.udta"), *newUdta = findFirst(*now, "moov.udta");
    EXPECT_TRUE(
        std::equal(movie.begin() + oldUdta->start, movie.begin() + oldUdta->end(), after.begin() + newUdta->start));
  }
}

// A rewrite that fails leaves everything as it was: the movie (the bundled
// sample, flag cleared), what stands under a rebuild's temporary name, and a link's target.
TEST(Set1, AFailedRewriteLeavesEverythingAsItWas) {
  TempDir dir;
  const Bytes sample = clearSet1(readFile(sourcePath("samples/sample.mp4")));
  const std::string path = dir.file("movie.mp4"), temporary = path + ".tmp.mp4", other = dir.write("other", {'o'});
  const std::string call = "Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_";
  const std::string append = call + "AppendMovie(" + path + ") failed.\n";
  const std::string rebuild = call + "NoSpaces(" + path + " to " + temporary + ") failed.\n";
  const std::string taken = "open(" + temporary + ", 'x') failed.\n" + rebuild;
  const struct {
    std::string standing, tail;  // what stands under the temporary name; bytes after the last box
    uint64_t limit;              // on the file size
    std::string message;
  } rows[] = {
      // The limit stops the append before its first byte and after one.
      {"", "", sample.size(), append}, {"", "", sample.size() + 1, append},
      {"", "tail", 2048, rebuild},  // bytes after the last box rule out the append
      {"file", "tail", 0, taken},      {"link", "tail", 0, taken},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.message + row.standing);
    const Bytes movie = concat({sample, Bytes(row.tail.begin(), row.tail.end())});
    writeFile(path, movie);
    fs::remove(temporary);
    if (row.standing == "file") writeFile(temporary, {'m'});
    if (row.standing.ends_with("link")) fs::create_symlink(row.standing == "link" ? other : dir.file("no"), temporary);
    const std::string limit = row.limit > 0 ? "prlimit --fsize=" + std::to_string(row.limit) + " " : "";
    const std::string out = run(limit + SONDEX_BINARY " -set1 '" + path + "'");
    EXPECT_NE(out.find(row.message), std::string::npos) << out;
    EXPECT_NE(out.find("\"dxvaDecodable\":false"), std::string::npos);
    EXPECT_EQ(readFile(path), movie);
    EXPECT_EQ(readFile(other), Bytes{'o'});
    EXPECT_EQ(fs::is_symlink(temporary), row.standing.ends_with("link"));
    EXPECT_EQ(fs::exists(fs::symlink_status(temporary)), !row.standing.empty());
    EXPECT_EQ(row.standing == "file" ? readFile(temporary) : Bytes{'m'}, Bytes{'m'});
  }
}

}  // namespace
