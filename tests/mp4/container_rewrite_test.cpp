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
#include "mp4/container.h"
#include "tests/h264/fixtures.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
using MP4::BinFile;
using MP4::Container;

bool writeBytes(BinFile& f, const Bytes& bytes) { return f.write(bytes.data(), bytes.size()) == bytes.size(); }

// ftyp, moov (mvhd, trak with stco of two offsets into mdat), mdat; the
// offsets point at "AAAA" and "BBBB" in the media data.
Bytes movieWithOffsets(bool moovFirst, const Bytes& header = mvhd(1000, 1000).build()) {
  auto moov = [&](uint32_t base) {
    const Box stbl = Box("stbl").child(Box::full("stco", 0, 0).u32(2).u32(base).u32(base + 4));
    return Box("moov")
        .bytes(header)
        .child(Box("trak").child(tkhd(64, 32)).child(Box("mdia").child(Box("minf").child(stbl))))
        .build();
  };
  const Bytes ftyp = Box("ftyp").str("isom").build();
  const Bytes mdat = Box("mdat").str("AAAABBBB").build();
  if (!moovFirst) return concat({ftyp, mdat, moov(static_cast<uint32_t>(ftyp.size() + 8))});
  const Bytes probe = moov(0);
  return concat({ftyp, moov(static_cast<uint32_t>(ftyp.size() + probe.size() + 8)), mdat});
}

uint32_t be32(const Bytes& bytes, uint64_t at) {
  return static_cast<uint32_t>(bytes[at]) << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3];
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

// ------------------------------------------------------------ insertBox

TEST(InsertBox, ReplacesTheBoxAndFixesSizesAndOffsets) {
  TempDir dir;
  const Bytes before = movieWithOffsets(true);
  auto movie = attachBytes(dir, before);
  MP4::BOX* mvhd = findFirst(*movie, "moov.mvhd");
  const Bytes replacement = Box("mvhd").zeros(4).build();  // 108 bytes become 12
  const int64_t delta = static_cast<int64_t>(replacement.size()) - static_cast<int64_t>(mvhd->size);
  uint64_t limitSeen = 0;
  ASSERT_TRUE(movie->insertBox(
      L"test", *mvhd, true, [&](BinFile& f) { return writeBytes(f, replacement); },
      [&](Container& rebuilt, BinFile& f) {
        limitSeen = rebuilt.root->size;
        return movie->modifyBoxSize(f, *movie->moov, delta);
      },
      [&](Container& rebuilt, BinFile& f) { return rebuilt.modifySTCOIndex(f, delta); }));

  EXPECT_EQ(limitSeen, 12u + 8u);  // the tree before the insertion point: ftyp and moov's header
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_EQ(toHex(after), toHex(movieWithOffsets(true, replacement)));
  // The container now describes the new file, and the offsets point at the data.
  auto* stco = findTyped<MP4::STCO>(*movie, "moov.trak.mdia.minf.stbl.stco");
  ASSERT_NE(stco, nullptr);
  const uint32_t first = be32(after, stco->entryOffset);
  EXPECT_EQ(std::string(after.begin() + first, after.begin() + first + 8), "AAAABBBB");
  EXPECT_FALSE(exists(dir.file("movie.mp4.tmp.mp4")));
}

TEST(InsertBox, WithoutReplaceTheNewBytesFollowTheBox) {
  TempDir dir;
  const Bytes before = concat({Box("aaaa").build(), Box("bbbb").build(), Box("cccc").build()});
  auto movie = attachBytes(dir, before);
  const Bytes extra = Box("xxxx").build();
  ASSERT_TRUE(movie->insertBox(
      L"test", *movie->root->children[1], false, [&](BinFile& f) { return writeBytes(f, extra); },
      [](Container&, BinFile&) { return true; }, [](Container&, BinFile&) { return true; }));
  EXPECT_EQ(readFile(dir.file("movie.mp4")),
            concat({Box("aaaa").build(), Box("bbbb").build(), extra, Box("cccc").build()}));
}

TEST(InsertBox, TheRebuiltFileKeepsTheSourcesPermissions) {
  TempDir dir;
  auto movie = attachBytes(dir, concat({Box("aaaa").build(), Box("bbbb").build()}));
  chmod(dir.file("movie.mp4").c_str(), 0600);
  ASSERT_TRUE(movie->insertBox(
      L"test", *movie->root->children[0], true, [](BinFile&) { return true; },
      [](Container&, BinFile&) { return true; }, [](Container&, BinFile&) { return true; }));
  struct stat st;
  ASSERT_EQ(stat(dir.file("movie.mp4").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

// ------------------------------------------------------------ faults leave the source untouched

class RebuildFault : public testing::Test {
 protected:
  void SetUp() override {
    original_ = movieWithOffsets(true);
    movie_ = attachBytes(dir_, original_);
  }
  void expectUntouched() {
    EXPECT_EQ(readFile(dir_.file("movie.mp4")), original_);
    EXPECT_FALSE(std::filesystem::is_regular_file(dir_.file("movie.mp4.tmp.mp4")));
  }
  bool rebuild(const std::function<bool(BinFile&)>& writeNew,
               const std::function<bool(Container&, BinFile&)>& fixAfter = [](Container&, BinFile&) {
                 return true;
               }) {
    return movie_->insertBox(L"fault", *movie_->moov, true, writeNew, [](Container&, BinFile&) { return true; },
                             fixAfter);
  }
  std::string failureLine() const {
    return "Container::modifyContainer::fault(" + dir_.file("movie.mp4") + " to " + dir_.file("movie.mp4.tmp.mp4") +
           ") failed.\n";
  }

  TempDir dir_;
  Bytes original_;
  std::unique_ptr<Container> movie_;
};

TEST_F(RebuildFault, TemporaryFileCannotBeCreated) {
  std::filesystem::create_directory(dir_.file("movie.mp4.tmp.mp4"));
  ConsoleCapture capture;
  EXPECT_FALSE(rebuild([](BinFile&) { return true; }));
  EXPECT_EQ(capture.text(), "open(" + dir_.file("movie.mp4.tmp.mp4") + ", 'x') failed.\n" + failureLine());
  EXPECT_EQ(readFile(dir_.file("movie.mp4")), original_);
}

TEST_F(RebuildFault, WritingTheNewBytesOrAFixStepFails) {
  for (const bool writeFails : {true, false}) {
    ConsoleCapture capture;
    EXPECT_FALSE(rebuild([&](BinFile&) { return !writeFails; }, [](Container&, BinFile&) { return false; }));
    EXPECT_EQ(capture.text(), failureLine());
    expectUntouched();
    EXPECT_NE(movie_->moov, nullptr);  // attached again to the untouched source
  }
}

TEST_F(RebuildFault, TheSourceEndsBeforeItsBoxes) {
  // A box claiming more than the file holds cannot be copied past.
  auto movie = attachBytes(dir_, concat({Box("aaaa").build(), Box("bbbb").rawSize(1000).build()}), "cut.mp4");
  const Bytes before = readFile(dir_.file("cut.mp4"));
  ConsoleCapture capture;
  EXPECT_FALSE(movie->insertBox(
      L"fault", *movie->root->children[1], true, [](BinFile&) { return true; },
      [](Container&, BinFile&) { return true; }, [](Container&, BinFile&) { return true; }));
  EXPECT_EQ(readFile(dir_.file("cut.mp4")), before);
  EXPECT_FALSE(exists(dir_.file("cut.mp4.tmp.mp4")));
}

TEST_F(RebuildFault, WritesComeUpShortUnderAFileSizeLimit) {
  // In a child process: a limit smaller than the copy makes a write fail.
  const Bytes big = concat({Box("free").zeros(20000).build(), original_});
  auto movie = attachBytes(dir_, big, "big.mp4");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &limit);
    const bool ok = movie->insertBox(
        L"fault", *movie->moov, true, [](BinFile&) { return true; }, [](Container&, BinFile&) { return true; },
        [](Container&, BinFile&) { return true; });
    _exit(ok ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(readFile(dir_.file("big.mp4")), big);
  EXPECT_FALSE(exists(dir_.file("big.mp4.tmp.mp4")));
}

// ------------------------------------------------------------ in place

TEST(ModifyInPlace, AFailingEditIsReportedAndWhatItWroteStays) {
  TempDir dir;
  auto movie = attachBytes(dir, concat({Box("aaaa").build(), Box("bbbb").build()}));
  ConsoleCapture capture;
  EXPECT_FALSE(movie->modifyContainer(L"edit", [](BinFile& f) {
    f.seek_set(12);
    const uint8_t code[4] = {'z', 'z', 'z', 'z'};
    f.write(code, 4);
    return false;
  }));
  EXPECT_EQ(capture.text(), "Container::modifyContainer::edit(" + dir.file("movie.mp4") + ") failed.\n");
  EXPECT_EQ(typeText(*movie->root->children[1]), "zzzz");  // attached again
}

TEST(ModifyInPlace, AMissingFileFails) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("aaaa").build());
  std::filesystem::remove(dir.file("movie.mp4"));
  ConsoleCapture capture;
  EXPECT_FALSE(movie->modifyContainer(L"edit", [](BinFile&) { return true; }));
  EXPECT_EQ(capture.text(), "open(" + dir.file("movie.mp4") + ", 'a') failed.\n"
                                "Container::modifyContainer::edit(" + dir.file("movie.mp4") + ") failed.\n"
                                "open(" + dir.file("movie.mp4") + ", 'r') failed.\n");
}

// ------------------------------------------------------------ sizes and chunk offsets

TEST(ModifyBoxSize, WritesEveryBoxUpToTheMovieBox) {
  TempDir dir;
  const Bytes before = concat({Box("ftyp").build(),
                               Box("moov").largeSize().child(Box("trak").child(Box("mdia").zeros(4))).build()});
  auto movie = attachBytes(dir, before);
  MP4::BOX* mdia = findFirst(*movie, "moov.trak.mdia");
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifyBoxSize(f, *mdia, 5));
  });
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_EQ(be32(after, 0), 8u);                                       // ftyp (outside the chain)
  EXPECT_EQ(be32(after, 8), 1u);                                       // moov keeps its large form
  EXPECT_EQ(be32(after, 16 + 4), be32(before, 16 + 4) + 5);            // moov's 64-bit size
  EXPECT_EQ(be32(after, 24), be32(before, 24) + 5);                    // trak
  EXPECT_EQ(be32(after, 32), be32(before, 32) + 5);                    // mdia
}

TEST(ModifySTCOIndex, ShiftsBothWidthsInAllTracksAndWraps32Bits) {
  TempDir dir;
  auto track = [](const Box& table) {
    return Box("trak").child(Box("mdia").child(Box("minf").child(Box("stbl").child(table))));
  };
  const Bytes before = Box("moov")
                           .child(track(Box::full("stco", 0, 0).u32(2).u32(100).u32(0xFFFFFFF0)))
                           .child(track(Box::full("co64", 0, 0).u32(1).u64(0xFFFFFFF0ULL)))
                           .build();
  auto movie = attachBytes(dir, before);
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifySTCOIndex(f, 0x20));
  });
  const Bytes after = readFile(dir.file("movie.mp4"));
  auto* stco = findTyped<MP4::STCO>(*movie, "moov.trak.mdia.minf.stbl.stco");
  auto* co64 = findTyped<MP4::CO64>(*movie, "moov.trak.mdia.minf.stbl.co64");
  EXPECT_EQ(be32(after, stco->entryOffset), 0x84u);
  EXPECT_EQ(be32(after, stco->entryOffset + 4), 0x10u);  // wrapped
  EXPECT_EQ(be32(after, co64->entryOffset), 1u);          // 64-bit carry
  EXPECT_EQ(be32(after, co64->entryOffset + 4), 0x10u);
}

TEST(ModifySTCOIndex, PhantomEntriesBeyondTheTableAreNotWritten) {
  TempDir dir;
  const Box stbl = Box("stbl").child(Box::full("stco", 0, 0).u32(1000000).u32(7));
  const Bytes table = Box("moov").child(Box("trak").child(Box("mdia").child(Box("minf").child(stbl)))).build();
  const Bytes before = concat({table, Box("mdat").str("DATA").build()});
  auto movie = attachBytes(dir, before);
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_TRUE(movie->modifySTCOIndex(f, 1));
  });
  Bytes expected = before;
  expected[table.size() - 1] = 8;
  EXPECT_EQ(readFile(dir.file("movie.mp4")), expected);
}

TEST(ModifySTCOIndex, NoTableIsAFailure) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov").child(Box("trak")).build());
  movie->open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    EXPECT_FALSE(movie->modifySTCOIndex(f, 1));
    EXPECT_FALSE(movie->modifySpatialTrakSTCOIndex(f, 1));
  });
}

// ------------------------------------------------------------ the -set1 rewrite

TEST(AppendFullRangeAndConstrainedSet1Flag, AppendsAMovieBoxOnlyWhenTheTopLevelBoxesTileTheFile) {
  // A Baseline SPS with constraint_set1_flag 0 and no VUI: the record grows.
  const ByteArray sps = fromBits(sps::baseline());
  const Bytes record = ByteWriter()
                           .bytes({1, 66, 0, 30, 0xFF, 0xE1})
                           .u16(static_cast<uint16_t>(sps.size()))
                           .bytes(Bytes(sps.data(), sps.data() + sps.size()))
                           .bytes({1, 0, 2, 0x68, 0xCE})
                           .data();
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(64, 32).child(Box("avcC").bytes(record)));
  auto moov = [&](const Box& extra) {
    return Box("moov").child(videoTrak(64, 32, stsd)).child(extra).child(Box("udta").child(Box("KMKN").str("note"))).build();
  };
  const Bytes ftyp = Box("ftyp").str("isom").build();
  const Bytes mdat = Box("mdat").str("DATA").build();
  const Bytes movie = moov(Box("skip"));
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
    const uint64_t moovAt = container->moov->start;
    const uint64_t moovSize = container->moov->size;
    ASSERT_TRUE(container->appendFullRangeAndConstrainedSet1Flag(false));
    const Bytes after = readFile(dir.file("movie.mp4"));
    // Appended: the old movie box is free space and the file grew by a
    // whole movie box; rebuilt: it grew by the record's growth only.
    EXPECT_EQ(std::string(after.begin() + moovAt + 4, after.begin() + moovAt + 8), c.appends ? "free" : "moov");
    EXPECT_EQ(after.size() > c.file.size() + moovSize, c.appends);
    EXPECT_EQ(container->moov->start, c.appends ? c.file.size() : moovAt);
    // (With two movie boxes, the record of the last one is rewritten.)
    auto* avcc = dynamic_cast<MP4::AVCC*>(findAll(*container, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC").back());
    unsigned char profile = 0;
    bool set1 = false, fullRange = true;
    ASSERT_TRUE(avcc->get_profile_idc_and_constrained_set1_flag(profile, set1, fullRange));
    EXPECT_TRUE(set1);
    EXPECT_NE(findFirst(*container, "moov.udta.KMKN"), nullptr);
  }
}

}  // namespace
