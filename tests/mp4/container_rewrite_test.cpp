// Rewriting a movie's boxes: the rebuild protocol, its faults, and the
// size and chunk-offset fix-ups.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "tests/h264/fixtures.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;
using MP4::BinFile;
using MP4::Container;
const auto kYes = [](Container&, BinFile&) { return true; };

// ftyp, moov (header, a track whose stco holds two offsets into mdat), mdat
// holding "AAAABBBB" at those offsets.
Bytes movieWithOffsets(const Bytes& header = mvhd(1000, 1000).build()) {
  auto moov = [&](uint32_t base) {
    const Box stbl = Box("stbl").child(Box::full("stco", 0, 0).u32(2).u32(base).u32(base + 4));
    return Box("moov").bytes(header).child(Box("trak").child(tkhd(64, 32)).child(Box("mdia").child(Box("minf").child(stbl)))).build();
  };
  return concat({Box("ftyp").str("isom").build(), moov(static_cast<uint32_t>(12 + moov(0).size() + 8)),
                 Box("mdat").str("AAAABBBB").build()});
}

TEST(ContainerRewrite, InsertBoxRebuildsWithFixedSizesAndOffsetsAndKeepsThePermissions) {
  TempDir dir;
  auto movie = attachBytes(dir, movieWithOffsets());
  chmod(dir.file("movie.mp4").c_str(), 0604);
  const Bytes replacement = Box("mvhd").zeros(4).build();  // 108 bytes become 12
  uint64_t limitSeen = 0;
  ASSERT_TRUE(movie->insertBox(
      L"test", *findFirst(*movie, "moov.mvhd"), true, [&](BinFile& f) { return f.write(replacement.data(), 12) == 12; },
      [&](Container& rebuilt, BinFile& f) { return limitSeen = rebuilt.root->size, movie->modifyBoxSize(f, *movie->moov, -96); },
      [&](Container& rebuilt, BinFile& f) { return rebuilt.modifySTCOIndex(f, -96); }));
  EXPECT_EQ(limitSeen, 12u + 8u);  // the tree before the insertion point: ftyp and moov's header
  EXPECT_EQ(readFile(dir.file("movie.mp4")), movieWithOffsets(replacement));
  EXPECT_NE(findFirst(*movie, "moov.trak"), nullptr);  // attached to the new file
  struct stat st;
  ASSERT_EQ(stat(dir.file("movie.mp4").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0604u);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);  // no temporary file left
  // Without replace the new bytes follow the box.
  const Bytes before = readFile(dir.file("movie.mp4"));
  ASSERT_TRUE(movie->insertBox(L"test", *movie->root->children[0], false,
                               [&](BinFile& f) { return f.write(replacement.data(), 12) == 12; }, kYes, kYes));
  EXPECT_EQ(readFile(dir.file("movie.mp4")), concat({Bytes(before.begin(), before.begin() + 12), replacement,
                                                      Bytes(before.begin() + 12, before.end())}));
}

TEST(ContainerRewrite, AFailedRebuildLeavesTheSourceAndNoTemporaryFile) {
  TempDir dir;
  const Bytes original = movieWithOffsets();
  auto movie = attachBytes(dir, original);
  const std::string source = dir.file("movie.mp4"), temporary = dir.file("movie.mp4.tmp.mp4");
  const std::string failed = "Container::modifyContainer::fault(" + source + " to " + temporary + ") failed.\n";
  auto rebuild = [&](Container& m, bool writes, bool fixes) {
    return m.insertBox(L"fault", *m.moov, true, [&](BinFile&) { return writes; }, kYes,
                       [&](Container&, BinFile&) { return fixes; });
  };
  for (const auto& [writes, fixes] : {std::pair{false, true}, {true, false}}) {
    ConsoleCapture capture;
    EXPECT_FALSE(rebuild(*movie, writes, fixes));
    EXPECT_EQ(capture.text(), failed);
    EXPECT_EQ(readFile(source), original);
    EXPECT_FALSE(std::filesystem::exists(temporary));
    EXPECT_NE(movie->moov, nullptr);  // attached again to the untouched source
  }
  // Whatever stands under the temporary name is neither used nor removed.
  std::filesystem::create_directory(temporary);
  ConsoleCapture capture;
  EXPECT_FALSE(rebuild(*movie, true, true));
  EXPECT_EQ(capture.text(), "open(" + temporary + ", 'x') failed.\n" + failed);
  EXPECT_TRUE(std::filesystem::is_directory(temporary) && readFile(source) == original);
  // A source that ends before its boxes do, and writes cut short by a file-size limit (in a child process).
  auto cut = attachBytes(dir, concat({Box("aaaa").build(), Box("moov").rawSize(1000).build()}), "cut.mp4");
  EXPECT_FALSE(rebuild(*cut, true, true));
  const Bytes big = concat({Box("free").zeros(20000).build(), original});
  auto large = attachBytes(dir, big, "big.mp4");
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(rebuild(*large, true, true) ? 1 : 0);
  }
  int status = 1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(readFile(dir.file("big.mp4")), big);
  EXPECT_EQ(readFile(dir.file("cut.mp4")), concat({Box("aaaa").build(), Box("moov").rawSize(1000).build()}));
  EXPECT_FALSE(std::filesystem::exists(dir.file("big.mp4.tmp.mp4")) || std::filesystem::exists(dir.file("cut.mp4.tmp.mp4")));
}

TEST(ContainerRewrite, InPlaceEditsReportFailuresAndKeepWhatWasWritten) {
  TempDir dir;
  auto movie = attachBytes(dir, concat({Box("aaaa").build(), Box("bbbb").build()}));
  const std::string path = dir.file("movie.mp4");
  ConsoleCapture capture;
  EXPECT_FALSE(movie->modifyContainer(L"edit", [](BinFile& f) { return f.seek_set(12), f.write(MP4::code("zzzz").data(), 4), false; }));
  EXPECT_EQ(findAll(*movie, "zzzz").size(), 1u);  // attached again
  std::filesystem::remove(path);
  EXPECT_FALSE(movie->modifyContainer(L"edit", [](BinFile&) { return true; }));
  EXPECT_EQ(capture.text(), "Container::modifyContainer::edit(" + path + ") failed.\nopen(" + path + ", 'a') failed.\n"
                            "Container::modifyContainer::edit(" + path + ") failed.\nopen(" + path + ", 'r') failed.\n");
}

TEST(ContainerRewrite, SizeAndChunkOffsetFixUps) {
  TempDir dir;
  auto track = [](const Box& table) { return Box("trak").child(Box("mdia").child(Box("minf").child(Box("stbl").child(table)))); };
  // moov in the large form; stco wraps at 32 bits, co64 carries; a count past the table writes nothing more.
  const Bytes before = concat({Box("ftyp").build(), Box("moov").largeSize()
                                   .child(track(Box::full("stco", 0, 0).u32(2).u32(100).u32(0xFFFFFFF0)))
                                   .child(track(Box::full("co64", 0, 0).u32(1).u64(0xFFFFFFF0ULL)))
                                   .child(track(Box::full("stco", 0, 0).u32(1000000).u32(7))).build(), Box("mdat").build()});
  auto movie = attachBytes(dir, before);
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifyBoxSize(f, *findAll(*movie, "moov.trak.mdia")[1], 5) && movie->modifySTCOIndex(f, 0x20));
    EXPECT_FALSE(movie->modifySpatialTrakSTCOIndex(f, 1));
  });
  Bytes expected = before;
  for (const auto& [at, value] : {std::pair{23, 0xB9}, {83, 0x3D}, {91, 0x35}, {75, 0x84}, {76, 0}, {77, 0}, {78, 0},
                                  {79, 0x10}, {131, 1}, {132, 0}, {133, 0}, {134, 0}, {135, 0x10}, {187, 0x27}}) {
    expected[at] = static_cast<uint8_t>(value);
  }
  EXPECT_EQ(toHex(readFile(dir.file("movie.mp4"))), toHex(expected));
}

TEST(ContainerRewrite, Set1AppendsAMovieBoxOnlyWhenTheTopLevelBoxesTileTheFile) {
  // A Baseline SPS with constraint_set1_flag 0 and no VUI: the record grows.
  const ByteArray sps = fromBits(sps::baseline());
  const Bytes record = ByteWriter().bytes({1, 66, 0, 30, 0xFF, 0xE1}).u16(static_cast<uint16_t>(sps.size()))
                           .bytes(Bytes(sps.data(), sps.data() + sps.size())).bytes({1, 0, 2, 0x68, 0xCE}).data();
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(64, 32).child(Box("avcC").bytes(record)));
  auto moov = [&](const Box& extra) {
    return Box("moov").child(videoTrak(64, 32, stsd)).child(extra).child(Box("udta").child(Box("KMKN").str("note"))).build();
  };
  const Bytes ftyp = Box("ftyp").str("isom").build(), mdat = Box("mdat").str("DATA").build(), movie = moov(Box("skip"));
  const struct {
    const char* name;
    Bytes file;
    bool appends;
  } cases[] = {
      {"tiled", concat({ftyp, mdat, movie}), true},
      {"tiled, movie first", concat({ftyp, movie, mdat}), true},
      {"tiled, 64-bit media size", concat({ftyp, Box("mdat").largeSize().str("DATA").build(), movie}), true},
      {"bytes after the last box", concat({ftyp, mdat, movie, Bytes{0}}), false},
      {"last box running to the end", concat({ftyp, mdat, movie, Box("free").rawSize(0).zeros(4).build()}), false},
      {"last box claiming more than the file", concat({ftyp, mdat, movie, Box("free").rawSize(1 << 20).build()}), false},
      {"two movie boxes", concat({ftyp, mdat, movie, movie}), false},
      {"movie fragment", concat({ftyp, mdat, movie, Box("moof").build()}), false},
      {"fragmented movie box", concat({ftyp, mdat, moov(Box("mvex"))}), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    auto container = attachBytes(dir, c.file);
    const uint64_t moovAt = container->moov->start, moovSize = container->moov->size;
    ASSERT_TRUE(container->appendFullRangeAndConstrainedSet1Flag(false));
    const Bytes after = readFile(dir.file("movie.mp4"));
    // Appended: the old movie box is free space and the file grew by a whole
    // movie box; rebuilt: it grew by the record's growth only.
    EXPECT_EQ(std::string(after.begin() + moovAt + 4, after.begin() + moovAt + 8), c.appends ? "free" : "moov");
    EXPECT_EQ(after.size() > c.file.size() + moovSize, c.appends);
    EXPECT_EQ(container->moov->start, c.appends ? c.file.size() : moovAt);
    // (With two movie boxes, the record of the last one is rewritten.)
    auto* avcc = dynamic_cast<MP4::AVCC*>(findAll(*container, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC").back());
    unsigned char profile = 0;
    bool set1 = false, fullRange = true;
    ASSERT_TRUE(avcc->get_profile_idc_and_constrained_set1_flag(profile, set1, fullRange));
    EXPECT_TRUE(set1 && !fullRange);
    EXPECT_NE(findFirst(*container, "moov.udta.KMKN"), nullptr);
  }
}

}  // namespace
