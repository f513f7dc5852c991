// The box tree: header forms, limits, typing, parents and the dotted-path search.
#include <gtest/gtest.h>

#include "mp4/boxes.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;
using MP4::BOX;

// "type@start+size[children]" for each box below box.
std::string tree(const MP4::NestedBox& box) {
  std::string out;
  for (const BOX* c : box.children) {
    out += std::string(out.empty() ? "" : " ") +
           std::string(c->type.begin(), std::find(c->type.begin(), c->type.end(), 0)) + "@" + std::to_string(c->start) +
           "+" + std::to_string(c->size);
    if (c->hasChild()) out += "[" + tree(static_cast<const MP4::NestedBox&>(*c)) + "]";
  }
  return out;
}

TEST(BoxTree, HeaderFormsAndDamagedSizesGiveThisTree) {
  const Bytes spatial(MP4::UUID::kSpatialAudio.begin(), MP4::UUID::kSpatialAudio.end());
  const struct {
    const char* name;
    Bytes file;
    uint64_t limit;
    std::string tree;
  } rows[] = {
      {"plain, large and to-the-end forms",
       concat({Box("ftyp").str("isom").u32(0).build(), Box("free").largeSize().zeros(4).build(),
               Box("mdat").rawSize(0).zeros(100).build()}),
       ~0ULL, "144: ftyp@0+16 free@16+20 mdat@36+108"},
      {"a child past its parent ends the parent's walk",
       concat({Box("moov").child(Box("udta").child(Box("aaaa").rawSize(100)).child(Box("bbbb")).rawSize(16)).build(),
               Box("free").build()}),
       ~0ULL, "40: moov@0+32[udta@8+16[aaaa@16+100] bbbb@24+8] free@32+8"},
      {"a size limit cuts the tree", concat({Box("ftyp").zeros(8).build(), Box("free").build(), Box("moov").build()}),
       24, "24: ftyp@0+16 free@16+8"},
      {"only a whole spatial-audio uuid holds a track",
       concat({Box("uuid").bytes(spatial).child(Box("KATR").child(tkhd(2, 1)).child(Box("mdia"))).build(),
               Box("uuid").zeros(16).child(Box("KATR")).build(),
               Box("uuid").bytes(Bytes(spatial.begin(), spatial.begin() + 15)).build()}),
       ~0ULL, "187: uuid@0+132[KATR@24+108[tkhd@32+92 mdia@124+8[]]] uuid@132+32 uuid@164+23"},
  };
  for (const auto& row : rows) {
    TempDir dir;
    auto movie = attachBytes(dir, row.file);
    ASSERT_TRUE(movie->attach(dir.wfile("movie.mp4"), row.limit));
    EXPECT_EQ(std::to_string(movie->root->size) + ": " + tree(*movie->root), row.tree) << row.name;
  }
}

TEST(BoxTree, TopLevelParentsTheChoiceOfMovieMediaAndVideoTrackAndThePathSearch) {
  TempDir dir;
  auto movie = attachBytes(
      dir, concat({Box("mdat").build(), Box("ftyp").build(),
                   Box("moov")
                       .child(videoTrak(1920, 960, Box("stsd")))
                       .child(videoTrak(640, 320, Box("stsd")))
                       .child(videoTrak(0, 0, Box("stsd")))
                       .build(),
                   Box("mdat").build(), Box("moov").child(videoTrak(8, 8, Box("stsd"))).build(), Box("meta").build()}));
  const auto& top = movie->root->children;
  EXPECT_EQ(
      std::vector<BOX*>({top[0]->parent, top[1]->parent, top[5]->parent, movie->mdat, movie->moov, movie->videoTrak}),
      std::vector<BOX*>({movie->root, movie->root, nullptr, top[0], top[2], findAll(*movie, "moov.trak")[1]}));
  EXPECT_TRUE(typeid(*top[0]) == typeid(MP4::MDAT) && typeid(*top[1]) == typeid(MP4::FTYP) &&
              typeid(*top[5]) == typeid(MP4::META));
  // The path search visits matches depth first in file order; false ends the walk among the siblings only.
  Box moov("moov");
  for (int i = 0; i < 3; ++i) moov.child(Box("trak").child(Box("mdia").zeros(i)).child(Box("mdia").zeros(10 + i)));
  moov.child(
      Box("udta").child(Box("\xA9xyz").u32(0)).child(Box("@xyz").str("+1")).child(Box("free").child(Box("skip"))));
  movie = attachBytes(dir, moov.build(), "search.mp4");
  for (const bool goOn : {true, false}) {
    std::vector<uint64_t> sizes;
    movie->find("moov.trak.mdia", [&](BOX& box) { return sizes.push_back(box.size), goOn; });
    EXPECT_EQ(sizes, (goOn ? std::vector<uint64_t>{8, 18, 9, 19, 10, 20} : std::vector<uint64_t>{8, 9, 10}));
  }
  EXPECT_TRUE(typeid(*findFirst(*movie, "moov.udta.@xyz")) == typeid(BOX) &&
              findTyped<MP4::XYZ>(*movie, "moov.udta.\xA9xyz"));  // '@' is not A9
  EXPECT_TRUE(findAll(*movie, "moov.udta.free.skip").empty() &&
              findAll(*movie, "MOOV").empty());  // plain boxes hold nothing
  int runs = 0;                                  // if_not_found acts only when nothing matches
  for (const char* path : {"moov.trak.mdia", "moov.meta", "moov.trak.mdix"}) movie->if_not_found(path, [&] { ++runs; });
  EXPECT_EQ(runs, 2);
}

}  // namespace
