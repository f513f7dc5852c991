// -set1 on real Baseline movies from libx264 whose SPS flag was cleared:
// each strategy leaves the exact expected bytes and drops nothing from the
// file, the movie decodes to the same frames, ffmpeg's own SPS reader sees
// constraint_set1_flag 1, and a rewrite that fails leaves the source as it
// was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "tests/cli/sondex_process.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;

constexpr char kAvcc[] = "moov.trak.mdia.minf.stbl.stsd.avc1.avcC";

void putBE(Bytes& b, uint64_t at, uint64_t v, int n) {
  for (int i = 0; i < n; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * (n - 1 - i)));
}
uint64_t getBE(const Bytes& b, uint64_t at, int n) {
  uint64_t v = 0;
  for (int i = 0; i < n; ++i) v = v << 8 | b[at + i];
  return v;
}
Bytes slice(const Bytes& b, uint64_t from, uint64_t to) {
  return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(to));
}
std::string resultLine(const std::string& out) { return out.substr(std::min(out.find("result: "), out.size())); }

// A Baseline movie whose time base keeps 00 00 0x sequences out of its SPS.
Bytes baseline(const std::string& size, const std::string& extra = "") {
  return ffmpegMovie("-s " + size + " -c:v libx264 -profile:v baseline -pix_fmt yuv420p "
                     "-enc_time_base 65537/1638401 " + extra);
}

// Moves every chunk offset by delta when the media data follows the movie
// box (bytes inserted in the movie box push it along).
void shiftChunkOffsets(const MP4::Container& parsed, Bytes& out, int64_t delta) {
  if (parsed.mdat->start < parsed.moov->start) return;
  for (const auto& [path, width] : {std::pair{"moov.trak.mdia.minf.stbl.stco", 4}, {"moov.trak.mdia.minf.stbl.co64", 8}}) {
    for (MP4::BOX* b : findAll(parsed, path)) {
      const auto& t = static_cast<MP4::STCO&>(*b);
      for (uint64_t i = 0; i < t.entryCount; ++i) {
        const uint64_t at = t.entryOffset + width * i;
        putBE(out, at, getBE(out, at, width) + delta, width);
      }
    }
  }
}

class Set1 : public testing::Test {
 protected:
  void SetUp() override {
    if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  }

  // Parses bytes; the container stays attached to a file of its own.
  std::unique_ptr<MP4::Container> parse(const Bytes& bytes, const std::string& name = "parse.mp4") {
    return attachBytes(dir_, bytes, name);
  }

  // The movie with constraint_set1_flag cleared in its avcC's SPS.
  Bytes clearSet1(Bytes movie) {
    auto parsed = parse(movie);
    const uint64_t flags = findFirst(*parsed, kAvcc)->start + 8 + 8 + 2;  // box, record header, SPS length, NAL header, profile
    movie[flags] &= 0xBF;
    return movie;
  }

  // A camera's movie: model, maker note, every sensor log and the location
  // in moov.udta, spherical XML in the track, XMP after the movie box.
  Bytes cameraMovie(bool movieFirst) {
    const CameraBoxes boxes = turningCameraBoxes("Stitch");
    return clearSet1(injectCameraBoxes(baseline("128x64", movieFirst ? "-movflags +faststart" : ""), boxes));
  }

  // The avcC box the rewrite is expected to write.
  Bytes rewrittenAvcc(const Bytes& movie) {
    auto parsed = parse(movie);
    auto* avcc = findTyped<MP4::AVCC>(*parsed, kAvcc);
    ByteArray record;
    bool wasFullRange = false, wasSet1 = false;
    EXPECT_TRUE(avcc->assign_fullRange_and_constrained_set1_flag(record, false, wasFullRange, wasSet1));
    return Box("avcC").bytes(Bytes(record.data(), record.data() + record.size())).build();
  }

  std::string framemd5(const std::string& path) {
    std::string out;
    std::istringstream lines(run("ffmpeg -v error -i '" + path + "' -f framemd5 -"));
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line[0] != '#') out += line + "\n";
    }
    return out;
  }

  std::string traced(const std::string& path, const std::string& field) {
    const std::string out =
        run("ffmpeg -hide_banner -i '" + path + "' -c:v copy -bsf:v trace_headers -frames:v 1 -f null - 2>&1");
    const size_t at = out.find(" " + field + " ");
    if (at == std::string::npos) return "absent";
    const size_t eq = out.find("= ", at);
    return out.substr(eq + 2, out.find('\n', eq) - eq - 2);
  }

  // Runs sondex -set1 on the movie (as dir/movie.mp4); checks the messages,
  // that the report is the rewritten file's, the decoded frames and the
  // flag, and returns the rewritten file.
  Bytes rewrite(const Bytes& movie) {
    const std::string before = dir_.write("before.mp4", movie);
    const std::string path = dir_.write("movie.mp4", movie);
    const RunResult r = runSondex({"-set1", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Container::appendFullRangeAndConstrainedSet1Flag: 0 - 0, constrained_set1_flag:  0 - 1\n"
                         "set constrained_set1_flag to 1.\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\"dxvaDecodable\":true"), std::string::npos) << r.out;
    EXPECT_EQ(resultLine(r.out), resultLine(runSondex({path}).out));
    EXPECT_EQ(framemd5(path), framemd5(before));
    EXPECT_EQ(traced(before, "constraint_set1_flag"), "0");
    EXPECT_EQ(traced(path, "constraint_set1_flag"), "1");
    EXPECT_EQ(traced(path, "video_format"), "5");
    EXPECT_EQ(traced(path, "video_full_range_flag"), "0");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp.mp4"));
    return readFile(path);
  }

  // Replaces the first box at path by bytes, fixing the sizes above it and,
  // with shiftOffsets and a movie box before its media data, the chunk
  // offsets.
  Bytes replaceBox(const Bytes& movie, const char* path, const Bytes& bytes, bool shiftOffsets = true) {
    auto parsed = parse(movie);
    MP4::BOX* box = findFirst(*parsed, path);
    const int64_t delta = static_cast<int64_t>(bytes.size()) - static_cast<int64_t>(box->size);
    Bytes out = movie;
    for (MP4::BOX* b = box->parent; b != nullptr; b = b->parent) putBE(out, b->start, b->size + delta, 4);
    if (shiftOffsets) shiftChunkOffsets(*parsed, out, delta);
    return concat({slice(out, 0, box->start), bytes, slice(out, box->end(), out.size())});
  }

  // Expected bytes of a rebuild: the new avcC in the old one's place.
  Bytes rebuilt(const Bytes& movie) { return replaceBox(movie, kAvcc, rewrittenAvcc(movie)); }

  // Expected bytes of append and retire: the old movie box turned into a
  // free box, the movie box with the new avcC after the last box.
  Bytes appended(const Bytes& movie) {
    const Bytes changed = replaceBox(movie, kAvcc, rewrittenAvcc(movie), false);
    auto parsed = parse(movie);
    const MP4::BOX& moov = *parsed->moov;
    Bytes out = movie;
    std::memcpy(out.data() + moov.start + 4, "free", 4);
    return concat({out, slice(changed, moov.start, moov.end() + changed.size() - movie.size())});
  }

  TempDir dir_;
};

TEST_F(Set1, EnoughSpacesRewritesTheRecordInPlace) {
  const Bytes movie = clearSet1(baseline("384x192"));  // the new SPS fits the old length
  Bytes expected = movie;
  auto parsed = parse(movie);
  const MP4::BOX* avcc = findFirst(*parsed, kAvcc);
  const Bytes box = rewrittenAvcc(movie);
  ASSERT_EQ(box.size(), avcc->size);
  std::copy(box.begin(), box.end(), expected.begin() + static_cast<long>(avcc->start));
  EXPECT_EQ(toHex(rewrite(movie)), toHex(expected));
}

TEST_F(Set1, AppendAndRetireKeepsEveryBoxOfACameraMovie) {
  if (!haveProgram("exiftool")) GTEST_SKIP() << "exiftool not installed";
  for (const bool movieFirst : {false, true}) {
    SCOPED_TRACE(movieFirst ? "movie first" : "movie last");
    const Bytes movie = cameraMovie(movieFirst);  // the SPS grows by a byte
    auto old = parse(movie, "old.mp4");
    const Bytes after = rewrite(movie);
    EXPECT_EQ(toHex(after), toHex(appended(movie)));
    auto now = parse(after, "now.mp4");
    EXPECT_EQ(after.size(), movie.size() + now->moov->size);
    const MP4::BOX* oldUdta = findFirst(*old, "moov.udta");
    const MP4::BOX* newUdta = findFirst(*now, "moov.udta");
    EXPECT_EQ(slice(after, newUdta->start, newUdta->end()), slice(movie, oldUdta->start, oldUdta->end()));
    const std::string path = dir_.file("movie.mp4");
    EXPECT_EQ(run("ffprobe -v warning '" + path + "' 2>&1"), "");
    EXPECT_EQ(run("exiftool -validate -warning -a -s3 '" + path + "'"), "OK\n");

    // A crash between the two steps leaves both movie boxes: the first,
    // the old one, is the one read, with all its metadata.
    Bytes crashed = after;
    std::memcpy(crashed.data() + old->moov->start + 4, "moov", 4);
    const std::string crashPath = dir_.write("crashed.mp4", crashed);
    EXPECT_EQ(run("ffprobe -v error '" + crashPath + "' 2>&1"), "");
    EXPECT_EQ(traced(crashPath, "constraint_set1_flag"), "0");
    const std::string before = dir_.write("before.mp4", movie);
    EXPECT_EQ(framemd5(crashPath), framemd5(before));
    const std::string tags = "ffprobe -v error -show_entries format_tags -of compact '";
    EXPECT_EQ(run(tags + crashPath + "'"), run(tags + before + "'"));
    EXPECT_NE(run(tags + crashPath + "'").find("encoder=Lavf"), std::string::npos);
    const std::string report = resultLine(runSondex({crashPath}).out);
    EXPECT_NE(report.find("\"model\":\"KORVU ZEPRA N2\""), std::string::npos) << report;
    EXPECT_NE(report.find("\"KDTBSamplingRate\":200"), std::string::npos) << report;
    EXPECT_NE(report.find("\"dxvaDecodable\":false"), std::string::npos) << report;  // the first box's record
    // -set1 again finishes the job through a rebuild (two movie boxes).
    runSondex({"-set1", crashPath});
    EXPECT_EQ(traced(crashPath, "constraint_set1_flag"), "1");
    EXPECT_EQ(framemd5(crashPath), framemd5(before));
    EXPECT_NE(report.find("\"dxvaDecodable\":false"), std::string::npos) << report;  // the first box's record
    // -set1 again finishes the job through a rebuild (two movie boxes).
    runSondex({"-set1", crashPath});
    EXPECT_EQ(traced(crashPath, "constraint_set1_flag"), "1");
    EXPECT_EQ(framemd5(crashPath), framemd5(before));
  }
}

TEST_F(Set1, AnAppendCutShortIsTakenBackAndARebuildLeavesTheSource) {
  const Bytes movie = cameraMovie(false);
  const uint64_t appendedSize = appended(movie).size() - movie.size();
  const std::string path = dir_.file("limited.mp4");
  // A file-size limit stops the append before its first byte, after one,
  // half way and one byte short; a limit that leaves room lets it through.
  for (const uint64_t room : {uint64_t{0}, uint64_t{1}, appendedSize / 2, appendedSize - 1, appendedSize}) {
    SCOPED_TRACE(room);
    writeFile(path, movie);
    const std::string out =
        run("prlimit --fsize=" + std::to_string(movie.size() + room) + " " SONDEX_BINARY " -set1 '" + path + "'");
    if (room == appendedSize) {
      EXPECT_EQ(readFile(path), appended(movie));
      continue;
    }
    EXPECT_NE(out.find("Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_AppendMovie(" + path +
                       ") failed.\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\"dxvaDecodable\":false"), std::string::npos);
    EXPECT_EQ(readFile(path), movie);
    EXPECT_EQ(run("ffprobe -v warning '" + path + "' 2>&1"), "");
  }
  // Bytes after the last box rule out the append: the copy of a rebuild
  // may grow to 2 KiB only.
  writeFile(path, concat({movie, Bytes{'t', 'a', 'i', 'l'}}));
  const std::string out = run("prlimit --fsize=2048 " SONDEX_BINARY " -set1 '" + path + "'");
  EXPECT_NE(out.find("Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_NoSpaces(" + path + " to " +
                     path + ".tmp.mp4) failed.\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(readFile(path), concat({movie, Bytes{'t', 'a', 'i', 'l'}}));
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp.mp4"));
}

TEST_F(Set1, MoviesThatCannotTakeAnAppendedMovieBoxAreRebuilt) {
  const Bytes tail = {'t', 'a', 'i', 'l'};
  for (const bool faststart : {false, true}) {
    const Bytes movie = concat({clearSet1(baseline("128x64", faststart ? "-movflags +faststart" : "")), tail});
    EXPECT_EQ(toHex(rewrite(movie)), toHex(rebuilt(movie))) << (faststart ? "moov first" : "mdat first");
  }
  // A fragmented movie: the fragments' own offsets move with them (the
  // frames decode as before), and the random-access index still points at
  // the fragments.
  const Bytes fragmented = clearSet1(baseline("128x64", "-movflags frag_keyframe+empty_moov"));
  const Bytes after = rewrite(fragmented);
  EXPECT_EQ(after.size(), rebuilt(fragmented).size());
  const std::string text(after.begin(), after.end());
  const uint64_t tfra = text.find("tfra") - 4;
  const int width = after[tfra + 8] == 1 ? 8 : 4;  // of the entries' times and offsets
  ASSERT_GE(getBE(after, tfra + 20, 4), 1u);
  EXPECT_EQ(text.substr(getBE(after, tfra + 24 + width, width) + 4, 4), "moof");
}

TEST_F(Set1, NoSpacesShiftsA64BitChunkOffsetTable) {
  Bytes movie = clearSet1(baseline("128x64", "-movflags +faststart"));
  auto parsed = parse(movie);
  auto* stco = findTyped<MP4::STCO>(*parsed, "moov.trak.mdia.minf.stbl.stco");
  Box co64 = Box::full("co64", 0, 0);
  co64.u32(stco->entryCount);
  const uint64_t growth = 4ULL * stco->entryCount;  // every entry widens by 4 bytes
  for (uint64_t i = 0; i < stco->entryCount; ++i) co64.u64(getBE(movie, stco->entryOffset + 4 * i, 4) + growth);
  movie = concat({replaceBox(movie, "moov.trak.mdia.minf.stbl.stco", co64.build()), Bytes{0}});
  ASSERT_EQ(framemd5(dir_.write("co64.mp4", movie)), framemd5(dir_.write("orig.mp4", baseline("128x64"))));
  EXPECT_EQ(toHex(rewrite(movie)), toHex(rebuilt(movie)));
}

TEST_F(Set1, ARebuildNeverTouchesWhatStandsUnderTheTemporaryName) {
  const Bytes movie = concat({clearSet1(baseline("128x64")), Bytes{'t', 'a', 'i', 'l'}});  // rebuilt
  const std::string path = dir_.write("movie.mp4", movie);
  const std::string temporary = path + ".tmp.mp4";
  const std::string other = dir_.write("other.bin", Bytes{'o', 't', 'h', 'e', 'r'});
  for (const std::string kind : {"file", "link", "dangling link"}) {
    SCOPED_TRACE(kind);
    std::filesystem::remove(temporary);
    if (kind == "file") {
      writeFile(temporary, Bytes{'m', 'i', 'n', 'e'});
    } else {
      std::filesystem::create_symlink(kind == "link" ? other : dir_.file("nowhere"), temporary);
    }
    const RunResult r = runSondex({"-set1", path});
    EXPECT_NE(r.out.find("open(" + temporary + ", 'x') failed.\n"
                         "Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_NoSpaces(" + path +
                         " to " + temporary + ") failed.\n"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(readFile(path), movie);
    EXPECT_EQ(readFile(other), (Bytes{'o', 't', 'h', 'e', 'r'}));
    EXPECT_EQ(std::filesystem::is_symlink(temporary), kind != "file");
    if (kind == "file") {
      EXPECT_EQ(readFile(temporary), (Bytes{'m', 'i', 'n', 'e'}));
    }
    EXPECT_FALSE(std::filesystem::exists(dir_.file("nowhere")));
  }
}

}  // namespace
