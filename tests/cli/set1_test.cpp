// -set1 on real Baseline movies from libx264 whose SPS flag was cleared:
// each strategy leaves the exact expected bytes, the movie decodes to the
// same frames, and ffmpeg's own SPS reader sees constraint_set1_flag 1.
#include <gtest/gtest.h>

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

namespace {

using namespace sondex::test;

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

// A Baseline movie whose time base keeps 00 00 0x sequences out of its SPS
// (the rewrite refuses SPSs that need emulation prevention).
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
  std::unique_ptr<MP4::Container> parse(const Bytes& bytes) { return attachBytes(dir_, bytes, "parse.mp4"); }

  // The movie with constraint_set1_flag cleared in its avcC's SPS.
  Bytes clearSet1(Bytes movie) {
    auto parsed = parse(movie);
    const MP4::BOX* avcc = findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    const uint64_t flags = avcc->start + 8 + 8 + 2;  // box header, record header, SPS length, NAL header, profile
    movie[flags] &= 0xBF;
    return movie;
  }

  // The avcC box the rewrite is expected to write.
  Bytes rewrittenAvcc(const Bytes& movie) {
    auto parsed = parse(movie);
    auto* avcc = findTyped<MP4::AVCC>(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
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

  // Runs sondex -set1 on the movie; checks the messages, the report, the
  // decoded frames and the flag, and returns the rewritten file.
  Bytes rewrite(const Bytes& movie) {
    const std::string before = dir_.write("before.mp4", movie);
    const std::string path = dir_.write("movie.mp4", movie);
    const RunResult r = runSondex({"-set1", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Container::appendFullRangeAndConstrainedSet1Flag: 0 - 0, constrained_set1_flag:  0 - 1\n"
                         "set constrained_set1_flag to 1.\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("\"dxvaDecodable\":true}"), std::string::npos) << r.out;
    EXPECT_EQ(framemd5(path), framemd5(before));
    EXPECT_EQ(traced(before, "constraint_set1_flag"), "0");
    EXPECT_EQ(traced(path, "constraint_set1_flag"), "1");
    EXPECT_EQ(traced(path, "video_format"), "5");
    EXPECT_EQ(traced(path, "video_full_range_flag"), "0");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp.mp4"));
    return readFile(path);
  }

  // Expected bytes when the avcC is replaced and the file rebuilt: every
  // size from the avcC up to the movie box grows, and chunk offsets move
  // when the media data follows the movie box.
  Bytes rebuilt(const Bytes& movie) {
    auto parsed = parse(movie);
    MP4::BOX* avcc = findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    const Bytes box = rewrittenAvcc(movie);
    const int64_t delta = static_cast<int64_t>(box.size()) - static_cast<int64_t>(avcc->size);
    Bytes out = movie;
    for (MP4::BOX* b = avcc; b != nullptr; b = b->parent) putBE(out, b->start, b->size + delta, 4);
    shiftChunkOffsets(*parsed, out, delta);
    return concat({slice(out, 0, avcc->start), box, slice(out, avcc->end(), out.size())});
  }

  // Replaces the first box at path by bytes, fixing the sizes above it and,
  // for a movie box before its media data, the chunk offsets.
  Bytes replaceBox(const Bytes& movie, const char* path, const Bytes& bytes) {
    auto parsed = parse(movie);
    MP4::BOX* box = findFirst(*parsed, path);
    const int64_t delta = static_cast<int64_t>(bytes.size()) - static_cast<int64_t>(box->size);
    Bytes out = movie;
    for (MP4::BOX* b = box->parent; b != nullptr; b = b->parent) putBE(out, b->start, b->size + delta, 4);
    shiftChunkOffsets(*parsed, out, delta);
    return concat({slice(out, 0, box->start), bytes, slice(out, box->end(), out.size())});
  }

  TempDir dir_;
};

TEST_F(Set1, EnoughSpacesRewritesTheRecordInPlace) {
  const Bytes movie = clearSet1(baseline("384x192"));  // the new SPS fits the old length
  Bytes expected = movie;
  auto parsed = parse(movie);
  const MP4::BOX* avcc = findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
  const Bytes box = rewrittenAvcc(movie);
  ASSERT_EQ(box.size(), avcc->size);
  std::copy(box.begin(), box.end(), expected.begin() + static_cast<long>(avcc->start));
  EXPECT_EQ(toHex(rewrite(movie)), toHex(expected));
}

TEST_F(Set1, ReuseUdtaGivesUpTheUserDataForAFreeBox) {
  const Bytes movie = clearSet1(baseline("128x64"));  // the SPS grows by a byte
  auto parsed = parse(movie);
  MP4::BOX* avcc = findFirst(*parsed, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
  MP4::BOX* udta = findFirst(*parsed, "moov.udta");
  ASSERT_NE(udta, nullptr);
  ASSERT_LT(avcc->start, udta->start);
  const Bytes box = rewrittenAvcc(movie);
  const int64_t delta = static_cast<int64_t>(box.size()) - static_cast<int64_t>(avcc->size);
  ASSERT_GT(delta, 0);
  Bytes sized = movie;
  for (MP4::BOX* b = avcc->parent; b != parsed->moov; b = b->parent) putBE(sized, b->start, b->size + delta, 4);
  const Bytes free = Box("free").zeros(udta->size - delta - 8).build();
  const Bytes expected = concat({slice(sized, 0, avcc->start), box, slice(sized, avcc->end(), udta->start), free,
                                 slice(sized, udta->end(), sized.size())});
  const Bytes after = rewrite(movie);
  EXPECT_EQ(after.size(), movie.size());
  EXPECT_EQ(toHex(after), toHex(expected));
}

TEST_F(Set1, NoSpacesRebuildsWithTheMovieBoxAfterOrBeforeTheMedia) {
  for (const bool faststart : {false, true}) {
    Bytes movie = clearSet1(baseline("128x64", faststart ? "-movflags +faststart" : ""));
    auto parsed = parse(movie);
    MP4::BOX* udta = findFirst(*parsed, "moov.udta");
    std::memcpy(movie.data() + udta->start + 4, "skip", 4);  // no user data to reuse
    EXPECT_EQ(toHex(rewrite(movie)), toHex(rebuilt(movie))) << (faststart ? "moov first" : "mdat first");
  }
}

TEST_F(Set1, NoSpacesShiftsA64BitChunkOffsetTable) {
  Bytes movie = clearSet1(baseline("128x64", "-movflags +faststart"));
  auto parsed = parse(movie);
  auto* stco = findTyped<MP4::STCO>(*parsed, "moov.trak.mdia.minf.stbl.stco");
  Box co64 = Box::full("co64", 0, 0);
  co64.u32(stco->entryCount);
  const uint64_t growth = 4ULL * stco->entryCount;  // every entry widens by 4 bytes
  for (uint64_t i = 0; i < stco->entryCount; ++i) co64.u64(getBE(movie, stco->entryOffset + 4 * i, 4) + growth);
  movie = replaceBox(movie, "moov.trak.mdia.minf.stbl.stco", co64.build());
  movie = replaceBox(movie, "moov.udta", Box("skip").build());
  ASSERT_EQ(framemd5(dir_.write("co64.mp4", movie)), framemd5(dir_.write("orig.mp4", baseline("128x64"))));
  EXPECT_EQ(toHex(rewrite(movie)), toHex(rebuilt(movie)));
}

TEST_F(Set1, UserDataBeforeTheRecordIsNotReused) {
  Bytes movie = clearSet1(baseline("128x64"));
  auto parsed = parse(movie);
  MP4::BOX* udta = findFirst(*parsed, "moov.udta");
  const Bytes udtaBytes = slice(movie, udta->start, udta->end());
  const uint64_t firstChild = parsed->moov->start + 8;
  // The user data moved to the front of the movie box (the media data
  // lies before it, so no offset changes).
  movie = concat({slice(movie, 0, firstChild), udtaBytes, slice(movie, firstChild, udta->start),
                  slice(movie, udta->end(), movie.size())});
  EXPECT_EQ(toHex(rewrite(movie)), toHex(rebuilt(movie)));
}

TEST_F(Set1, TheFreeBoxNeedsRoomForItsHeader) {
  const Bytes base = clearSet1(baseline("128x64"));
  const int64_t delta = static_cast<int64_t>(rewrittenAvcc(base).size()) -
                        static_cast<int64_t>(findFirst(*parse(base), "moov.trak.mdia.minf.stbl.stsd.avc1.avcC")->size);
  // User data just big enough for an empty free box: reused.
  Bytes fits = replaceBox(base, "moov.udta", Box("udta").zeros(static_cast<size_t>(delta)).build());
  const Bytes after = rewrite(fits);
  EXPECT_EQ(after.size(), fits.size());
  EXPECT_EQ(findFirst(*parse(after), "moov.udta"), nullptr);
  // One byte less (the free box would not hold its own header): rebuilt.
  Bytes tooSmall = replaceBox(base, "moov.udta", Box("udta").zeros(static_cast<size_t>(delta) - 1).build());
  EXPECT_EQ(toHex(rewrite(tooSmall)), toHex(rebuilt(tooSmall)));
}

TEST_F(Set1, AnSpsNeedingEmulationPreventionIsLeftAlone) {
  // At 30 fps libx264's timing fields hold 00 00 00 01 (escaped 00 00 03 00 01).
  const Bytes movie = clearSet1(ffmpegMovie("-c:v libx264 -profile:v baseline -pix_fmt yuv420p"));
  const std::string path = dir_.write("movie.mp4", movie);
  const RunResult r = runSondex({"-set1", path});
  EXPECT_NE(r.out.find("Container::appendFullRangeAndConstrainedSet1Flag: emulation prevention in SPS, not "
                       "rewritten.\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.out.find("set constrained_set1_flag to 1."), std::string::npos);
  EXPECT_NE(r.out.find("\"dxvaDecodable\":false}"), std::string::npos);
  EXPECT_EQ(readFile(path), movie);
}

TEST_F(Set1, ARebuildThatRunsIntoTheFileSizeLimitLeavesTheSource) {
  Bytes movie = clearSet1(baseline("128x64"));
  auto parsed = parse(movie);
  std::memcpy(movie.data() + findFirst(*parsed, "moov.udta")->start + 4, "skip", 4);
  const std::string path = dir_.write("limited.mp4", movie);
  ASSERT_GT(movie.size(), 2048u);
  // The copy may grow to 2 KiB only: its writes come up short.
  const std::string out = run("bash -c 'ulimit -f 2; \"$0\" -set1 \"$1\"' " SONDEX_BINARY " '" + path + "'");
  EXPECT_NE(out.find("Container::modifyContainer::appendFullRangeAndConstrainedSet1Flag_NoSpaces(" + path + " to " +
                     path + ".tmp.mp4) failed.\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("\"dxvaDecodable\":false}"), std::string::npos);
  EXPECT_EQ(readFile(path), movie);
  EXPECT_FALSE(std::filesystem::exists(path + ".tmp.mp4"));
}

}  // namespace
