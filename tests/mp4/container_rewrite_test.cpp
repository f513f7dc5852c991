// Rewriting a movie's boxes: the rebuild protocol, its faults, and the size and chunk-offset fix-ups.
#include <gtest/gtest.h>
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
namespace fs = std::filesystem;
const auto kYes = [](Container&, BinFile&) { return true; };

// ftyp, moov (header, a track whose stco points at "AAAA" and "BBBB"), mdat.
Bytes movieWithOffsets(const Bytes& header = mvhd(1000, 1000).build()) {
  auto moov = [&](uint32_t at) {
    return Box("moov")
        .bytes(header)
        .child(Box("trak").child(Box("mdia").child(
            Box("minf").child(Box("stbl").child(Box::full("stco", 0, 0).u32(2).u32(at).u32(at + 4))))))
        .build();
  };
  return concat({Box("ftyp").str("isom").build(), moov(static_cast<uint32_t>(12 + moov(0).size() + 8)),
                 Box("mdat").str("AAAABBBB").build()});
}

TEST(ContainerRewrite, InsertBoxRebuildsWithFixedSizesAndOffsetsAndKeepsThePermissions) {
  TempDir dir;
  auto movie = attachBytes(dir, movieWithOffsets());
  fs::permissions(dir.file("movie.mp4"), fs::perms(0604));
  const Bytes box = Box("mvhd").zeros(4).build();  // 108 bytes become 12
  auto write = [&](BinFile& f) { return f.write(box.data(), 12) == 12; };
  uint64_t limitSeen = 0;
  ASSERT_TRUE(movie->insertBox(
      L"test", *findFirst(*movie, "moov.mvhd"), true, write,
      [&](Container& rebuilt, BinFile& f) {
        return limitSeen = rebuilt.root->size, movie->modifyBoxSize(f, *movie->moov, -96);
      },
      [&](Container& rebuilt, BinFile& f) { return rebuilt.modifySTCOIndex(f, -96); }));
  EXPECT_EQ(limitSeen, 12u + 8u);  // the tree before the insertion point: ftyp and moov's header
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_TRUE(after == movieWithOffsets(box) && fs::status(dir.file("movie.mp4")).permissions() == fs::perms(0604));
  // Without replace the new bytes follow the box; the container follows the new file.
  ASSERT_TRUE(movie->insertBox(L"test", *movie->root->children[0], false, write, kYes, kYes));
  EXPECT_EQ(readFile(dir.file("movie.mp4")),
            concat({Bytes(after.begin(), after.begin() + 12), box, Bytes(after.begin() + 12, after.end())}));
}

TEST(ContainerRewrite, AFailedRebuildOrEditLeavesTheSourceAndNoTemporaryFile) {
  TempDir dir;
  const Bytes original = movieWithOffsets(),
              cutShort = concat({Box("aaaa").build(), Box("moov").rawSize(1000).build()});
  auto movie = attachBytes(dir, original), cut = attachBytes(dir, cutShort, "cut.mp4");
  const std::string source = dir.file("movie.mp4");
  auto rebuild = [&](Container& m, bool writes, bool fixes) {
    return m.insertBox(
        L"fault", *m.moov, true, [&](BinFile&) { return writes; }, kYes, [&](Container&, BinFile&) { return fixes; });
  };
  ConsoleCapture capture;
  EXPECT_FALSE(rebuild(*movie, false, true) || rebuild(*movie, true, false) ||
               rebuild(*cut, true, true));  // cut: ends before its boxes
  EXPECT_FALSE(movie->modifyContainer(
      L"edit", [](BinFile& f) { return f.seek_set(12), f.write(MP4::code("zzzz").data(), 4), false; }));
  EXPECT_TRUE(readFile(dir.file("cut.mp4")) == cutShort &&
              readFile(source) == concat({Bytes(original.begin(), original.begin() + 12), fromHex("7A7A7A7A"),
                                          Bytes(original.begin() + 16, original.end())}));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 2);
  EXPECT_FALSE(fs::remove(source) && movie->modifyContainer(L"edit", [](BinFile&) { return true; }));  // a missing file
  auto fault = [&](const std::string& name) {
    return "Container::modifyContainer::fault(" + dir.file(name) + " to " + dir.file(name) + ".tmp.mp4) failed.\n";
  };
  const std::string edit = "Container::modifyContainer::edit(" + source + ") failed.\n";
  EXPECT_EQ(capture.text(), fault("movie.mp4") + fault("movie.mp4") + fault("cut.mp4") + edit + "open(" + source +
                                ", 'a') failed.\n" + edit + "open(" + source + ", 'r') failed.\n");
}

TEST(ContainerRewrite, SizeChunkOffsetAndCreationTimeWritesAndBoxCopies) {
  TempDir dir;
  auto track = [](const Box& table) {
    return Box("trak").child(Box("mdia").child(Box("minf").child(Box("stbl").child(table))));
  };
  // moov in the large form; stco wraps at 32 bits, co64 carries; a count past the table writes nothing more.
  const Bytes before =
      concat({Box("ftyp").build(),
              Box("moov")
                  .largeSize()
                  .child(track(Box::full("stco", 0, 0).u32(2).u32(100).u32(0xFFFFFFF0)))
                  .child(track(Box::full("co64", 0, 0).u32(1).u64(0xFFFFFFF0ULL)))
                  .child(track(Box::full("stco", 0, 0).u32(1000000).u32(7)))
                  .child(mvhd(1, 1))
                  .child(Box("trak").child(tkhd(1, 1)).child(Box("mdia").child(Box::full("mdhd", 1, 0).zeros(32))))
                  .build(),
              Box("mdat").zeros(1100).build()});
  auto movie = attachBytes(dir, before);
  const MP4::UUID uuid("<xml/>");
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifyBoxSize(f, *findAll(*movie, "moov.trak.mdia")[1], 5) && movie->modifySTCOIndex(f, 0x20) &&
                !movie->modifySpatialTrakSTCOIndex(f, 1));
    EXPECT_TRUE(findTyped<MP4::MVHD>(*movie, "moov.mvhd")->setTimeStamp(f, 0xAABBCCDD) &&
                findTyped<MP4::TKHD>(*movie, "moov.trak.tkhd")->setTimeStamp(f, 0x11223344) &&
                findTyped<MP4::MDHD>(*movie, "moov.trak.mdia.mdhd")->setTimeStamp(f, 0x0102030405060708ULL) &&
                f.seek_set(f.length()) && uuid.write(f));
    GLTK::FileIO::open_w(dir.wfile("copy"), [&](GLTK::FileIO& copy) { EXPECT_TRUE(movie->mdat->copyTo(file, copy)); });
  });
  ByteArray box;
  uuid.to_byteArray(box);
  const Bytes uuidBox = fromHex("0000001E 75756964" + std::string(32, '0') + "3C786D6C2F3E");
  EXPECT_EQ(Bytes(box.data(), box.data() + box.size()), uuidBox);
  Bytes expected = concat({before, uuidBox});
  // Sizes of moov (64-bit), trak and mdia; the two stco entries, the co64 entry, the one real entry of the last stco;
  // the creation times of mvhd, tkhd and mdhd (version 1).
  for (const auto& [at, hex] : {std::pair{20, "000001BD"},
                                {80, "0000003D"},
                                {88, "00000035"},
                                {72, "0000008400000010"},
                                {128, "0000000100000010"},
                                {184, "00000027"},
                                {200, "AABBCCDD"},
                                {316, "11223344"},
                                {416, "0102030405060708"}})
    std::ranges::copy(fromHex(hex), expected.begin() + at);
  EXPECT_EQ(toHex(readFile(dir.file("movie.mp4"))), toHex(expected));
  EXPECT_EQ(readFile(dir.file("copy")), Bytes(before.end() - 1108, before.end()));
}

TEST(ContainerRewrite, Set1AppendsAMovieBoxOnlyWhenTheTopLevelBoxesTileTheFile) {
  const ByteArray sps = fromBits(sps::baseline());  // constraint_set1_flag 0 and no VUI: the record grows
  const Box avcC = Box("avcC")
                       .bytes({1, 66, 0, 30, 0xFF, 0xE1, 0, static_cast<uint8_t>(sps.size())})
                       .bytes(Bytes(sps.data(), sps.data() + sps.size()))
                       .bytes({1, 0, 2, 0x68, 0xCE});
  auto moov = [&](const char* extra) {
    return Box("moov")
        .child(videoTrak(64, 32, Box::full("stsd", 0, 0).u32(1).child(avc1(64, 32).child(avcC))))
        .child(Box(extra))
        .build();
  };
  const Bytes ftyp = Box("ftyp").str("isom").build(), mdat = Box("mdat").str("DATA").build(), movie = moov("skip");
  for (const auto& [file, appends] : std::initializer_list<std::pair<Bytes, bool>>{
           {concat({ftyp, mdat, movie}), true},
           {concat({ftyp, mdat, movie, movie}), false},
           {concat({ftyp, Box("mdat").largeSize().str("DATA").build(), movie}), true},
           {concat({ftyp, mdat, moov("mvex")}), false},
           // A last box running to the end or claiming more than the file, a fragment.
           {concat({ftyp, mdat, movie, Box("free").rawSize(0).zeros(4).build()}), false},
           {concat({ftyp, mdat, movie, Box("free").rawSize(1 << 20).build()}), false},
           {concat({ftyp, mdat, movie, Box("moof").build()}), false}}) {
    TempDir dir;
    auto container = attachBytes(dir, file);
    const uint64_t at = container->moov->start;
    ASSERT_TRUE(container->appendFullRangeAndConstrainedSet1Flag(false));
    // Appended: the old movie box is free space and the new one follows the file's old end.
    const Bytes after = readFile(dir.file("movie.mp4"));
    EXPECT_EQ(std::string(after.begin() + at + 4, after.begin() + at + 8) + std::to_string(container->moov->start),
              (appends ? "free" + std::to_string(file.size()) : "moov" + std::to_string(at)));
  }
}

}  // namespace
