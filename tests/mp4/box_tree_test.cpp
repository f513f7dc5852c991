// The box tree: header forms, limits, child typing, parent chains and the
// dotted-path search.
#include <gtest/gtest.h>

#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "mp4/container.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
using MP4::BOX;

std::vector<std::string> types(const std::vector<BOX*>& boxes) {
  std::vector<std::string> out;
  for (BOX* box : boxes) out.push_back(typeText(*box));
  return out;
}

std::vector<std::string> childTypes(const MP4::NestedBox& box) { return types(box.children); }

// ------------------------------------------------------------ header forms

TEST(BoxHeader, PlainLargeAndToEndOfFileForms) {
  TempDir dir;
  const Bytes file = concat({Box("ftyp").str("isom").u32(0).build(),
                             Box("free").largeSize().zeros(4).build(),
                             Box("mdat").rawSize(0).zeros(100).build()});
  auto movie = attachBytes(dir, file);
  ASSERT_EQ(childTypes(*movie->root), (std::vector<std::string>{"ftyp", "free", "mdat"}));
  const auto& c = movie->root->children;
  EXPECT_EQ(c[0]->size, 16u);
  EXPECT_FALSE(c[0]->largeSize);
  EXPECT_EQ(c[1]->start, 16u);
  EXPECT_EQ(c[1]->size, 20u);
  EXPECT_TRUE(c[1]->largeSize);
  EXPECT_EQ(c[2]->size, 108u);  // runs to the end of the file
  EXPECT_EQ(movie->root->depth, -1);
  EXPECT_EQ(c[0]->depth, 0);
  EXPECT_EQ(movie->root->size, file.size());
}

TEST(BoxHeader, SizesBelowTheHeaderStillAdvance) {
  TempDir dir;
  // A box claiming 4 bytes: the next header is read 4 bytes after its start.
  const Bytes file = concat({Box("abcd").rawSize(4).build(), Box("free").build()});
  auto movie = attachBytes(dir, file);
  const auto& c = movie->root->children;
  ASSERT_GE(c.size(), 2u);
  EXPECT_EQ(c[0]->size, 4u);
  EXPECT_EQ(c[1]->start, 4u);  // read from the middle of the first header
}

TEST(BoxHeader, ALargeSizeOfZeroEndsTheWalkInsteadOfLooping) {
  TempDir dir;
  const Bytes file = concat({Box("free").build(), Box("wide").largeSize(0).build(), Box("free").build()});
  auto movie = attachBytes(dir, file);
  EXPECT_EQ(childTypes(*movie->root), (std::vector<std::string>{"free", "wide"}));
}

TEST(BoxHeader, AnEmptyFileHasAnEmptyRoot) {
  TempDir dir;
  auto movie = attachBytes(dir, {});
  EXPECT_EQ(movie->root->size, 0u);
  EXPECT_TRUE(movie->root->children.empty());
  EXPECT_EQ(movie->moov, nullptr);
  EXPECT_EQ(movie->mdat, nullptr);
  EXPECT_EQ(movie->videoTrak, nullptr);
}

TEST(BoxHeader, AttachToAMissingFileLeavesTheContainerAsItWas) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov").build());
  ConsoleCapture capture;
  EXPECT_FALSE(movie->attach(dir.wfile("gone.mp4"), ~0ULL));
  EXPECT_NE(movie->moov, nullptr);
  EXPECT_EQ(movie->path, dir.wfile("movie.mp4"));
}

// ------------------------------------------------------------ limits

TEST(BoxLimits, AChildRunningPastItsParentEndsTheParentsWalk) {
  TempDir dir;
  // udta claims 16 bytes; its first child claims 100 and the second lies
  // beyond udta's end.
  const Bytes udta = Box("udta").child(Box("aaaa").rawSize(100)).child(Box("bbbb")).rawSize(16).build();
  const Bytes file = concat({Box("moov").bytes(udta).build(), Box("free").build()});
  auto movie = attachBytes(dir, file);
  auto* moov = dynamic_cast<MP4::NestedBox*>(movie->moov);
  ASSERT_NE(moov, nullptr);
  auto* box = dynamic_cast<MP4::NestedBox*>(moov->children.at(0));
  ASSERT_NE(box, nullptr);
  EXPECT_EQ(childTypes(*box), (std::vector<std::string>{"aaaa"}));
  EXPECT_EQ(childTypes(*movie->root), (std::vector<std::string>{"moov", "free"}));
}

TEST(BoxLimits, ASizeLimitCutsTheTree) {
  TempDir dir;
  const Bytes file = concat({Box("ftyp").zeros(8).build(), Box("free").build(), Box("moov").build()});
  dir.write("m.mp4", file);
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(dir.wfile("m.mp4"), 24));
  EXPECT_EQ(movie.root->size, 24u);
  EXPECT_EQ(childTypes(*movie.root), (std::vector<std::string>{"ftyp", "free"}));
}

TEST(BoxLimits, ATruncatedFileGivesZeroFieldsNotACrash) {
  TempDir dir;
  Bytes file = Box("moov").child(mvhd(1000, 5000)).child(videoTrak(1920, 960, Box("stsd"))).build();
  for (size_t cut = 0; cut < file.size(); cut += 7) {
    auto movie = attachBytes(dir, Bytes(file.begin(), file.begin() + static_cast<long>(cut)));
    ASSERT_NE(movie->root, nullptr);
  }
}

TEST(BoxLimits, DeepUuidTrackChainsStopNesting) {
  TempDir dir;
  // trak > uuid(spatial) > KATR > uuid > KATR ... far deeper than any movie.
  Box inner("tkhd");
  Bytes nested = inner.build();
  for (int i = 0; i < 200; ++i) {
    Box katr("KATR");
    katr.bytes(nested);
    Box uuid("uuid");
    uuid.bytes(Bytes(MP4::UUID::kSpatialAudio.begin(), MP4::UUID::kSpatialAudio.end())).child(katr);
    nested = uuid.build();
  }
  auto movie = attachBytes(dir, Box("moov").child(Box("trak").bytes(nested)).build());
  int depth = 0;
  for (BOX* box = movie->moov; box != nullptr && box->hasChild();) {
    auto* nestedBox = static_cast<MP4::NestedBox*>(box);
    box = nestedBox->children.empty() ? nullptr : nestedBox->children.front();
    ++depth;
  }
  EXPECT_LE(depth, 70);
}

// ------------------------------------------------------------ typing and parents

Bytes avcMovie() {
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(1920, 960).child(Box("avcC").bytes({1, 0x42, 0, 0x1F})));
  return concat({Box("ftyp").str("isom").build(), Box("mdat").zeros(16).build(),
                 Box("moov").child(mvhd(1000, 2000)).child(videoTrak(1920, 960, stsd)).build()});
}

TEST(BoxTyping, ChildrenAreTypedByTheirParentsTable) {
  TempDir dir;
  auto movie = attachBytes(dir, avcMovie());
  EXPECT_NE(dynamic_cast<MP4::FTYP*>(movie->root->children[0]), nullptr);
  EXPECT_NE(dynamic_cast<MP4::MDAT*>(movie->mdat), nullptr);
  EXPECT_NE(dynamic_cast<MP4::MOOV*>(movie->moov), nullptr);
  EXPECT_NE(findTyped<MP4::MVHD>(*movie, "moov.mvhd"), nullptr);
  EXPECT_NE(findTyped<MP4::TKHD>(*movie, "moov.trak.tkhd"), nullptr);
  EXPECT_NE(findTyped<MP4::STSD>(*movie, "moov.trak.mdia.minf.stbl.stsd"), nullptr);
  EXPECT_NE(findTyped<MP4::AVC1>(*movie, "moov.trak.mdia.minf.stbl.stsd.avc1"), nullptr);
  EXPECT_NE(findTyped<MP4::AVCC>(*movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC"), nullptr);
  // The same code elsewhere is a plain box.
  EXPECT_EQ(typeid(*movie->root->children[0]), typeid(MP4::FTYP));
}

TEST(BoxTyping, ParentChainsEndAtTheMovieBox) {
  TempDir dir;
  auto movie = attachBytes(dir, avcMovie());
  BOX* box = findFirst(*movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
  std::vector<std::string> chain;
  for (; box != nullptr; box = box->parent) chain.push_back(typeText(*box));
  EXPECT_EQ(chain, (std::vector<std::string>{"avcC", "avc1", "stsd", "stbl", "minf", "mdia", "trak", "moov"}));
  EXPECT_EQ(movie->root->children[0]->parent, movie->root);  // ftyp
  EXPECT_EQ(movie->mdat->parent, movie->root);
}

TEST(BoxTyping, SpatialAudioUuidHoldsATrackTypedKATR) {
  TempDir dir;
  const Bytes spatial(MP4::UUID::kSpatialAudio.begin(), MP4::UUID::kSpatialAudio.end());
  const Bytes file = Box("uuid").bytes(spatial).child(Box("KATR").child(tkhd(0, 0)).child(Box("mdia"))).build();
  auto movie = attachBytes(dir, file);
  auto* uuid = dynamic_cast<MP4::UUID*>(movie->root->children.at(0));
  ASSERT_NE(uuid, nullptr);
  EXPECT_TRUE(uuid->hasChild());
  EXPECT_EQ(uuid->parent, nullptr);
  EXPECT_NE(findTyped<MP4::TRAK>(*movie, "uuid.KATR"), nullptr);
  EXPECT_NE(findTyped<MP4::TKHD>(*movie, "uuid.KATR.tkhd"), nullptr);
  EXPECT_NE(findTyped<MP4::MDIA>(*movie, "uuid.KATR.mdia"), nullptr);
}

TEST(BoxTyping, OtherUuidBoxesAndShortOnesHaveNoChildren) {
  TempDir dir;
  const Bytes spatial(MP4::UUID::kSpatialAudio.begin(), MP4::UUID::kSpatialAudio.end());
  const Bytes file = concat({Box("uuid").zeros(16).child(Box("KATR")).build(),
                             Box("uuid").bytes(Bytes(spatial.begin(), spatial.begin() + 15)).build()});
  auto movie = attachBytes(dir, file);
  for (BOX* box : movie->root->children) EXPECT_FALSE(box->hasChild());
  EXPECT_TRUE(findAll(*movie, "uuid.KATR").empty());
}

// ------------------------------------------------------------ choice of moov, mdat, video track

TEST(ContainerChoice, FirstMdatFirstMoovLastTrackWithAWidth) {
  TempDir dir;
  const Bytes file = concat({Box("mdat").zeros(4).build(),
                             Box("moov")
                                 .child(videoTrak(1920, 960, Box("stsd")))
                                 .child(videoTrak(0, 0, Box("stsd")))
                                 .child(videoTrak(640, 320, Box("stsd")))
                                 .build(),
                             Box("mdat").zeros(4).build(), Box("moov").build()});
  auto movie = attachBytes(dir, file);
  EXPECT_EQ(movie->mdat, movie->root->children[0]);
  EXPECT_EQ(movie->moov, movie->root->children[1]);
  auto tracks = findAll(*movie, "moov.trak");
  ASSERT_EQ(tracks.size(), 3u);
  EXPECT_EQ(movie->videoTrak, tracks[2]);
}

TEST(ContainerChoice, AnAudioOnlyMovieHasNoVideoTrack) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov").child(videoTrak(0, 0, Box("stsd"))).build());
  EXPECT_EQ(movie->videoTrak, nullptr);
}

TEST(ContainerChoice, AttachingAgainRebuildsTheTree) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov").build());
  dir.write("other.mp4", Box("free").build());
  ASSERT_TRUE(movie->attach(dir.wfile("other.mp4"), ~0ULL));
  EXPECT_EQ(movie->moov, nullptr);
  EXPECT_EQ(childTypes(*movie->root), (std::vector<std::string>{"free"}));
}

// ------------------------------------------------------------ path search

Bytes threeTracks() {
  Box moov("moov");
  for (int i = 0; i < 3; ++i) {
    moov.child(Box("trak").child(Box("mdia").zeros(i)).child(Box("mdia").zeros(10 + i)));
  }
  return moov.build();
}

TEST(PathSearch, VisitsEveryMatchDepthFirstInFileOrder) {
  TempDir dir;
  auto movie = attachBytes(dir, threeTracks());
  std::vector<uint64_t> sizes;
  movie->find("moov.trak.mdia", [&](BOX& box) {
    sizes.push_back(box.size);
    return true;
  });
  EXPECT_EQ(sizes, (std::vector<uint64_t>{8, 18, 9, 19, 10, 20}));
}

TEST(PathSearch, FalseStopsOnlyAmongTheSiblingsOfTheBoxVisited) {
  TempDir dir;
  auto movie = attachBytes(dir, threeTracks());
  std::vector<uint64_t> sizes;
  movie->find("moov.trak.mdia", [&](BOX& box) {
    sizes.push_back(box.size);
    return false;
  });
  EXPECT_EQ(sizes, (std::vector<uint64_t>{8, 9, 10}));  // once per track
  int calls = 0;
  movie->find("moov.trak", [&](BOX&) {
    ++calls;
    return false;
  });
  EXPECT_EQ(calls, 1);
}

TEST(PathSearch, PlainBoxesHaveNothingBelowThem) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov").child(Box("free").child(Box("skip"))).build());
  EXPECT_TRUE(findAll(*movie, "moov.free.skip").empty());
  EXPECT_EQ(findAll(*movie, "moov.free").size(), 1u);
}

TEST(PathSearch, CodesAreRawBytesSoAnAtSignIsNotA9) {
  TempDir dir;
  auto movie = attachBytes(
      dir, Box("moov").child(Box("udta").child(Box("\xA9xyz").u16(0).u16(0)).child(Box("@xyz").str("+1+2/"))).build());
  auto at = findAll(*movie, "moov.udta.@xyz");
  ASSERT_EQ(at.size(), 1u);
  EXPECT_EQ(at[0]->type[0], '@');
  EXPECT_EQ(typeid(*at[0]), typeid(BOX));
  EXPECT_NE(findTyped<MP4::XYZ>(*movie, "moov.udta.\xA9xyz"), nullptr);
  EXPECT_TRUE(findAll(*movie, "MOOV").empty());  // no case folding
}

TEST(PathSearch, IfNotFoundRunsOnceOnlyWhenNothingMatches) {
  TempDir dir;
  auto movie = attachBytes(dir, threeTracks());
  int runs = 0;
  movie->if_not_found("moov.trak.mdia", [&] { ++runs; });
  EXPECT_EQ(runs, 0);
  movie->if_not_found("moov.udta", [&] { ++runs; });
  EXPECT_EQ(runs, 1);
}

// ------------------------------------------------------------ writing and copying

TEST(BoxWriting, WriteSizeUsesTheHeaderFormAndKeepsThePosition) {
  TempDir dir;
  const Bytes file = concat({Box("free").zeros(4).build(), Box("wide").largeSize().zeros(4).build()});
  auto movie = attachBytes(dir, file);
  BOX* plain = movie->root->children[0];
  BOX* large = movie->root->children[1];
  movie->open_a([&](GLTK::FileIO& file) {
    MP4::BinFile f(file);
    f.seek_set(3);
    plain->writeSize(f, 0x01020304);
    large->writeSize(f, 0x0A0B0C0D0E0F1011ULL);
    EXPECT_EQ(f.tell(), 3u);
  });
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_EQ(toHex(Bytes(after.begin(), after.begin() + 4)), "01 02 03 04");
  EXPECT_EQ(toHex(Bytes(after.begin() + 12 + 8, after.begin() + 12 + 16)), "0A 0B 0C 0D 0E 0F 10 11");
  EXPECT_EQ(plain->size, 12u);  // the in-memory size is unchanged
}

TEST(BoxWriting, CopyToCopiesTheWholeBoxAndFailsOnAShortSource) {
  TempDir dir;
  const Bytes file = concat({Box("free").zeros(2000).build(), Box("cut!").rawSize(5000).zeros(10).build()});
  auto movie = attachBytes(dir, file);
  const std::wstring out = dir.wfile("copy");
  movie->open([&](GLTK::FileIO& src) {
    GLTK::FileIO::open_w(out, [&](GLTK::FileIO& dst) {
      EXPECT_TRUE(movie->root->children[0]->copyTo(src, dst));
      EXPECT_FALSE(movie->root->children[1]->copyTo(src, dst));
    });
  });
  const Bytes copy = readFile(dir.file("copy"));
  ASSERT_GE(copy.size(), 2008u);
  EXPECT_EQ(Bytes(copy.begin(), copy.begin() + 2008), Bytes(file.begin(), file.begin() + 2008));
}

TEST(BoxWriting, BasicTagNamesTypeStartAndSize) {
  MP4::BOX box(12, 345, MP4::code("moov"), nullptr);
  EXPECT_EQ(box.basicTag(), L"'moov': start=12 bytes=345");
  MP4::BOX odd(0, 8, {'a', 0, 'c', 'd'}, nullptr);
  EXPECT_EQ(odd.basicTag(), L"'a': start=0 bytes=8");
}

}  // namespace
