// -set1 on Baseline movies whose SPS flag was cleared.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "tests/cli/sondex_process.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

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

std::string traced(const std::string& path) {  // constraint_set1_flag as ffmpeg reads it
  const std::string out = run("ffmpeg -i '" + path + "' -c:v copy -bsf:v trace_headers -frames:v 1 -f null - 2>&1");
  return out.substr(out.find("= ", out.find(" constraint_set1_flag ")) + 2, 1);
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
    if (row.growth == 1) movie = injectCameraBoxes(movie, turningCameraBoxes("Stitch"));
    movie = concat({clearSet1(movie), Bytes(row.tail.begin(), row.tail.end())});
    const std::string before = dir.write("before.mp4", movie), path = dir.write("movie.mp4", movie);
    const std::string out = runSondex({"-set1", path}).out, reread = runSondex({path}).out;
    EXPECT_NE(out.find(kDone), std::string::npos) << out;
    EXPECT_EQ(out.substr(out.find("result: ")), reread.substr(reread.find("result: ")));
    EXPECT_NE(out.find("\"dxvaDecodable\":true"), std::string::npos) << out;
    EXPECT_EQ(traced(before) + traced(path), "01");
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
    // A crash between the two steps leaves both movie boxes: the first, the old one, is read.
    std::memcpy(after.data() + old->moov->start + 4, "moov", 4);
    const std::string report = runSondex({dir.write("crashed.mp4", after)}).out;
    EXPECT_NE(report.find("\"dxvaDecodable\":false, \"directionLocked\""), std::string::npos) << report;
  }
}

// A rewrite that fails leaves everything as it was: the movie (the bundled
// sample, flag cleared), what stands under a rebuild's temporary name, and a link's target.
TEST(Set1, AFailedRewriteLeavesEverythingAsItWas) {
  TempDir dir;
  const Bytes sample = clearSet1(readFile(std::string(std::getenv("SONDEX_SOURCE_DIR")) + "/samples/sample.mp4"));
  const std::string path = dir.file("movie.mp4"), temporary = path + ".tmp.mp4", other = dir.write("other", {'o'});
  writeFile(path, sample);
  run(SONDEX_BINARY " -set1 '" + path + "'");
  const uint64_t appended = readFile(path).size() - sample.size();
  const std::string append = "Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_AppendMovie(" + path +
                             ") failed.\n",
                    rebuild =
                        "Container::modifyContainer::appendFullRangeAndConstrainedSet1"
                        "Flag_NoSpaces(" +
                        path + " to " + temporary + ") failed.\n",
                    taken = "open(" + temporary + ", 'x') failed.\n" + rebuild;
  const struct {
    std::string standing, tail;  // what stands under the temporary name; bytes after the last box
    uint64_t limit;              // on the file size
    std::string message;
  } rows[] = {
      // The limit stops the append before its first byte, after one, half way and one byte short.
      {"", "", sample.size(), append},
      {"", "", sample.size() + 1, append},
      {"", "", sample.size() + appended / 2, append},
      {"", "", sample.size() + appended - 1, append},
      {"", "tail", 2048, rebuild},  // bytes after the last box rule out the append
      {"file", "tail", 0, taken},
      {"link", "tail", 0, taken},
      {"dangling link", "tail", 0, taken},
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
