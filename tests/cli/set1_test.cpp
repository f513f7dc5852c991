// -set1 on real Baseline movies whose SPS flag was cleared: each layout
// gets its rewrite, the movie decodes to the same frames with the flag set,
// and a rewrite that fails leaves the source as it was.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "tests/cli/sondex_process.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

const std::string kDone = "Container::appendFullRangeAndConstrainedSet1Flag: 0 - 0, constrained_set1_flag:  0 - 1\n"
                          "set constrained_set1_flag to 1.\n";

// The movie with constraint_set1_flag cleared in its avcC's SPS.
Bytes clearSet1(Bytes movie) {
  TempDir dir;
  auto parsed = attachBytes(dir, movie);
  movie[findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC")->start + 18] &= 0xBF;  // after box, record and NAL headers
  return movie;
}

std::string traced(const std::string& path) {
  const std::string out = run("ffmpeg -hide_banner -i '" + path + "' -c:v copy -bsf:v trace_headers -frames:v 1 -f null - 2>&1");
  const size_t at = out.find("= ", out.find(" constraint_set1_flag "));
  return out.substr(at + 2, 1);
}

std::string framemd5(const std::string& path) {
  const std::string out = run("ffmpeg -v error -i '" + path + "' -f framemd5 -");
  return out.substr(out.find("\n0,"));  // past the comment lines
}

TEST(Set1, EachLayoutGetsItsRewriteAndDecodesAsBefore) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  TempDir dir;
  const std::string base = "-c:v libx264 -profile:v baseline -pix_fmt yuv420p -enc_time_base 65537/1638401 ";
  const struct {
    std::string name, options;
    bool camera;
    std::string tail, growth;  // "same", "moov" (the movie box appended) or "some" (rebuilt larger)
  } rows[] = {
      {"in place", "", false, "", "same"},  // the new SPS fits the old length
      {"append, movie last", "-s 128x64", true, "", "moov"},
      {"append, movie first", "-s 128x64 -movflags +faststart", true, "", "moov"},
      {"rebuild, movie last", "-s 128x64", false, "tail", "some"},
      {"rebuild, movie first", "-s 128x64 -movflags +faststart", false, "tail", "some"},
      {"rebuild, fragmented", "-s 128x64 -movflags frag_keyframe+empty_moov", false, "", "some"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Bytes movie = ffmpegMovie(base + row.options);
    if (row.camera) movie = injectCameraBoxes(movie, turningCameraBoxes("Stitch"));
    movie = clearSet1(movie);
    movie.insert(movie.end(), row.tail.begin(), row.tail.end());
    const std::string before = dir.write("before.mp4", movie), path = dir.write("movie.mp4", movie);
    const RunResult r = runSondex({"-set1", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find(kDone), std::string::npos) << r.out;
    EXPECT_EQ(r.out.substr(r.out.find("result: ")), runSondex({path}).out.substr(runSondex({path}).out.find("result: ")));
    EXPECT_NE(r.out.find("\"dxvaDecodable\":true"), std::string::npos) << r.out;
    EXPECT_EQ(traced(before) + traced(path), "01");
    EXPECT_EQ(framemd5(path), framemd5(before));
    EXPECT_EQ(run("ffprobe -v warning '" + path + "' 2>&1"), "");
    EXPECT_FALSE(fs::exists(path + ".tmp.mp4"));
    const Bytes after = readFile(path);
    auto old = attachBytes(dir, movie, "old.mp4");
    auto now = attachBytes(dir, after, "now.mp4");
    EXPECT_EQ(after.size() == movie.size(), row.growth == "same");
    if (row.growth != "moov") continue;
    // Append and retire: the old movie box becomes a free box, the new one
    // follows the last box and keeps the user data whole.
    EXPECT_EQ(after.size(), movie.size() + now->moov->size);
    EXPECT_EQ(std::string(after.begin() + old->moov->start + 4, after.begin() + old->moov->start + 8), "free");
    const MP4::BOX *oldUdta = findFirst(*old, "moov.udta"), *newUdta = findFirst(*now, "moov.udta");
    EXPECT_TRUE(std::equal(movie.begin() + oldUdta->start, movie.begin() + oldUdta->end(), after.begin() + newUdta->start));
    // A crash between the two steps leaves both movie boxes: the first, the
    // old one, is read; -set1 again finishes the job through a rebuild.
    Bytes crashed = after;
    std::memcpy(crashed.data() + old->moov->start + 4, "moov", 4);
    const std::string crashPath = dir.write("crashed.mp4", crashed);
    const std::string report = runSondex({crashPath}).out;
    EXPECT_NE(report.find("\"dxvaDecodable\":false"), std::string::npos) << report;
    EXPECT_NE(report.find("\"KDTBSamplingRate\":200"), std::string::npos) << report;
    EXPECT_NE(runSondex({"-set1", crashPath}).out.find(kDone), std::string::npos);
    EXPECT_EQ(traced(crashPath), "1");
    EXPECT_EQ(framemd5(crashPath), framemd5(before));
  }
}

TEST(Set1, AnAppendCutShortIsTakenBack) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  TempDir dir;
  const Bytes movie = clearSet1(injectCameraBoxes(
      ffmpegMovie("-s 128x64 -c:v libx264 -profile:v baseline -pix_fmt yuv420p -enc_time_base 65537/1638401"), turningCameraBoxes("S")));
  const std::string path = dir.write("movie.mp4", movie);
  run(SONDEX_BINARY " -set1 '" + path + "'");
  const uint64_t appended = fs::file_size(path) - movie.size();
  // A file-size limit stops the append before its first byte, after one,
  // half way and one byte short.
  for (const uint64_t room : {uint64_t{0}, uint64_t{1}, appended / 2, appended - 1}) {
    SCOPED_TRACE(room);
    writeFile(path, movie);
    const std::string out =
        run("prlimit --fsize=" + std::to_string(movie.size() + room) + " " SONDEX_BINARY " -set1 '" + path + "'");
    EXPECT_NE(out.find("Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_AppendMovie(" + path +
                       ") failed.\n"), std::string::npos) << out;
    EXPECT_NE(out.find("\"dxvaDecodable\":false"), std::string::npos);
    EXPECT_EQ(readFile(path), movie);
  }
}

// A rebuild that cannot get its temporary file leaves everything as it was:
// the movie, a file or link standing under the temporary name, and a link's
// target.
TEST(Set1, ARebuildNeverTouchesWhatStandsUnderTheTemporaryName) {
  TempDir dir;
  const char* source = std::getenv("SONDEX_SOURCE_DIR");
  Bytes movie = clearSet1(readFile((source != nullptr ? source : std::string(".")) + "/samples/sample.mp4"));
  movie.insert(movie.end(), {'t', 'a', 'i', 'l'});  // no append: rebuilt
  const std::string path = dir.write("movie.mp4", movie), temporary = path + ".tmp.mp4";
  const std::string other = dir.write("other.bin", {'o'});
  for (const std::string kind : {"file", "link", "dangling link", "too small"}) {
    SCOPED_TRACE(kind);
    fs::remove(temporary);
    if (kind == "file") writeFile(temporary, {'m'});
    if (kind.ends_with("link")) fs::create_symlink(kind == "link" ? other : dir.file("nowhere"), temporary);
    const std::string limit = kind == "too small" ? "prlimit --fsize=2048 " : "";
    const std::string out = run(limit + SONDEX_BINARY " -set1 '" + path + "'");
    EXPECT_NE(out.find((kind == "too small" ? "" : "open(" + temporary + ", 'x') failed.\n") +
                       "Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_NoSpaces(" + path + " to " +
                       temporary + ") failed.\n"), std::string::npos) << out;
    EXPECT_EQ(readFile(path), movie);
    EXPECT_EQ(readFile(other), Bytes{'o'});
    EXPECT_EQ(fs::is_symlink(temporary), kind.ends_with("link"));
    EXPECT_EQ(fs::exists(temporary), kind != "dangling link" && kind != "too small");
    EXPECT_EQ(kind == "file" ? readFile(temporary) : Bytes{'m'}, Bytes{'m'});
  }
}

}  // namespace
