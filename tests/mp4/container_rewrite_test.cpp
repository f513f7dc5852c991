// Rewriting a movie's boxes: the rebuild protocol, its faults, and the size and chunk-offset fix-ups.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "mp4/boxes.h"
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
    return Box("moov").bytes(header).child(Box("trak").child(Box("mdia").child(Box("minf").child(
        Box("stbl").child(Box::full("stco", 0, 0).u32(2).u32(at).u32(at + 4)))))).build();
  };
  return concat({Box("ftyp").str("isom").build(), moov(static_cast<uint32_t>(12 + moov(0).size() + 8)), Box("mdat").str("AAAABBBB").build()});
}

TEST(ContainerRewrite, InsertBoxRebuildsWithFixedSizesAndOffsetsAndKeepsThePermissions) {
  TempDir dir;
  auto movie = attachBytes(dir, movieWithOffsets());
  fs::permissions(dir.file("movie.mp4"), fs::perms(0604));
  const Bytes box = Box("mvhd").zeros(4).build();  // 108 bytes become 12
  auto write = [&](BinFile& f) { return f.write(box.data(), 12) == 12; };
  uint64_t limitSeen = 0;
  ASSERT_TRUE(movie->insertBox(L"test", *findFirst(*movie, "moov.mvhd"), true, write,
      [&](Container& rebuilt, BinFile& f) { return limitSeen = rebuilt.root->size, movie->modifyBoxSize(f, *movie->moov, -96); },
      [&](Container& rebuilt, BinFile& f) { return rebuilt.modifySTCOIndex(f, -96); }));
  EXPECT_EQ(limitSeen, 12u + 8u);  // the tree before the insertion point: ftyp and moov's header
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_EQ(after, movieWithOffsets(box));
  EXPECT_EQ(fs::status(dir.file("movie.mp4")).permissions(), fs::perms(0604));
  // Without replace the new bytes follow the box; the container follows the new file.
  ASSERT_TRUE(movie->insertBox(L"test", *movie->root->children[0], false, write, kYes, kYes));
  EXPECT_EQ(readFile(dir.file("movie.mp4")), concat({Bytes(after.begin(), after.begin() + 12), box, Bytes(after.begin() + 12, after.end())}));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);  // no temporary file left
}

TEST(ContainerRewrite, AFailedRebuildOrEditLeavesTheSourceAndNoTemporaryFile) {
  TempDir dir;
  const Bytes original = movieWithOffsets(), cutShort = concat({Box("aaaa").build(), Box("moov").rawSize(1000).build()});
  const Bytes big = concat({Box("free").zeros(20000).build(), original});
  auto movie = attachBytes(dir, original), cut = attachBytes(dir, cutShort, "cut.mp4"), large = attachBytes(dir, big, "big.mp4");
  const std::string source = dir.file("movie.mp4"), temporary = source + ".tmp.mp4";
  auto rebuild = [&](Container& m, bool writes, bool fixes) {
    return m.insertBox(L"fault", *m.moov, true, [&](BinFile&) { return writes; }, kYes, [&](Container&, BinFile&) { return fixes; });
  };
  ConsoleCapture capture;
  EXPECT_FALSE(rebuild(*movie, false, true) || rebuild(*movie, true, false) || rebuild(*cut, true, true));  // cut: ends before its boxes
  EXPECT_NE(movie->moov, nullptr);  // attached again to the untouched source
  if (fork() == 0) {  // writes cut short by a file-size limit
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(rebuild(*large, true, true) ? 1 : 0);
  }
  int status = 1;
  waitpid(-1, &status, 0);
  fs::create_directory(temporary);  // whatever stands under the temporary name is neither used nor removed
  EXPECT_FALSE(rebuild(*movie, true, true));
  EXPECT_EQ(std::make_tuple(status, fs::is_directory(temporary) && fs::remove(temporary)), std::make_tuple(0, true));
  EXPECT_FALSE(movie->modifyContainer(L"edit", [](BinFile& f) { return f.seek_set(12), f.write(MP4::code("zzzz").data(), 4), false; }));
  EXPECT_TRUE(readFile(dir.file("cut.mp4")) == cutShort && readFile(dir.file("big.mp4")) == big);
  EXPECT_EQ(readFile(source), concat({Bytes(original.begin(), original.begin() + 12), fromHex("7A7A7A7A"), Bytes(original.begin() + 16, original.end())}));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 3);
  EXPECT_FALSE(fs::remove(source) && movie->modifyContainer(L"edit", [](BinFile&) { return true; }));  // a missing file
  auto fault = [&](const std::string& name) { return "Container::modifyContainer::fault(" + dir.file(name) + " to " + dir.file(name) + ".tmp.mp4) failed.\n"; };
  const std::string edit = "Container::modifyContainer::edit(" + source + ") failed.\n";
  EXPECT_EQ(capture.text(), fault("movie.mp4") + fault("movie.mp4") + fault("cut.mp4") + fault("big.mp4") + "open(" + temporary + ", 'x') failed.\n" +
                                fault("movie.mp4") + edit + "open(" + source + ", 'a') failed.\n" + edit + "open(" + source + ", 'r') failed.\n");
}

TEST(ContainerRewrite, SizeAndChunkOffsetFixUps) {
  TempDir dir;
  auto track = [](const Box& table) { return Box("trak").child(Box("mdia").child(Box("minf").child(Box("stbl").child(table)))); };
  // moov in the large form; stco wraps at 32 bits, co64 carries; a count past the table writes nothing more.
  const Bytes before = concat({Box("ftyp").build(), Box("moov").largeSize().child(track(Box::full("stco", 0, 0).u32(2).u32(100).u32(0xFFFFFFF0)))
                                   .child(track(Box::full("co64", 0, 0).u32(1).u64(0xFFFFFFF0ULL)))
                                   .child(track(Box::full("stco", 0, 0).u32(1000000).u32(7))).build(), Box("mdat").build()});
  auto movie = attachBytes(dir, before);
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifyBoxSize(f, *findAll(*movie, "moov.trak.mdia")[1], 5) && movie->modifySTCOIndex(f, 0x20));
    EXPECT_FALSE(movie->modifySpatialTrakSTCOIndex(f, 1));
  });
  Bytes expected = before;
  // Sizes of moov (64-bit), trak and mdia; the two stco entries, the co64 entry, the one real entry of the last stco.
  for (const auto& [at, hex] : {std::pair{20, "000000B9"}, {80, "0000003D"}, {88, "00000035"}, {72, "0000008400000010"},
                                {128, "0000000100000010"}, {184, "00000027"}}) std::ranges::copy(fromHex(hex), expected.begin() + at);
  EXPECT_EQ(toHex(readFile(dir.file("movie.mp4"))), toHex(expected));
}

}  // namespace
