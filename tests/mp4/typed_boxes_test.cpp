// Fields of each typed box, as dumped (golden/dump.txt; SONDEX_UPDATE_GOLDEN=1 rewrites it) and as read, including
// damaged and hostile payloads.
#include <gtest/gtest.h>

#include <filesystem>

#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "tests/support/movie.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;
constexpr const char* kStbl = "moov.trak.mdia.minf.stbl.";

TEST(TypedBoxes, EveryBoxPrintsOneIndentedDumpLineAndKeepsItsFields) {
  TempDir dir;
  // Sample entries: avc1; sowt (2 channels of 16 bits at 48 kHz) holding SA3D; an avc1 too short for its fields.
  Box sowt = Box("sowt").zeros(6).u16(1).zeros(8).u16(2).u16(16).u16(0).zeros(2).u32(48000u << 16);
  Box stsd = Box::full("stsd", 0, 0).u32(2).child(avc1(1920, 960).child(Box("avcC").bytes({1})));
  stsd.child(sowt.child(Box("SA3D").zeros(2))).child(Box("avc1").child(Box("avcC").bytes({9})));
  const Bytes stbl = concat({Box::full("stts", 0, 0).u32(0xFFFFFFFF).u32(1).u32(1001).build(),
                             Box::full("stsc", 0, 0).u32(0xFFFFFFFF).u32(1).u32(2).u32(3).build(),
                             Box::full("stsz", 0, 0).u32(0).u32(3).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u32(2).build(),
                             Box::full("stsz", 0, 0).u32(4).u32(0x80000000).build(),  // a 32-bit product
                             Box::full("stco", 0, 0).u32(1).u32(48).build()});
  // A second movie header and an audio track, both version 1; the track claims a width of -5.5.
  const Box mvhd1 = Box::full("mvhd", 1, 0).u64(0x123456789ULL).u64(0).u32(1000).u64(0x9000000000000000ULL);
  const Box tkhd1 = Box::full("tkhd", 1, 0).u64(5).zeros(24 + 52).u32(0xFFFA8000).u32(0x07800000);
  const Box mdhd1 = Box::full("mdhd", 1, 0).u64(1).u64(2).u32(48000).u64(96000);
  Box udta = Box("udta").child(Box("\xA9xyz").u16(5).u16(0x15C7).str("+1+2/"));
  udta.child(Box("\xA9xyz").u16(0).u16(1).str(std::string(588, 'x'))).child(Box("loci").zeros(8).fixed(1.0).fixed(2.0));
  udta.child(Box("loci").zeros(8).fixed(1.5).fixed(-2.5).fixed(3.0));
  Box moov = Box("moov").child(mvhd(600, 1500, 3)).child(mvhd1).child(videoTrak(1920, 960, stsd, stbl));
  moov.child(Box("trak").child(tkhd1).child(Box("mdia").child(mdhd1))).child(udta);
  const Bytes spherical = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                           0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};
  auto movie = attachBytes(
      dir, concat({Box("ftyp").str("isom").build(), moov.build(),
                   Box("meta").u32(0).child(Box("hdlr").zeros(8).str("mdir").zeros(12).str("ab").u8(0)).build(),
                   Box("uuid").bytes(spherical).str("<x/>").build(), Box("mdat").zeros(3).build()}));
  ConsoleCapture capture;
  movie->dump();
  EXPECT_EQ(capture.text(), golden("tests/mp4/golden/dump.txt", capture.text()));
  const auto mvhds = findAll(*movie, "moov.mvhd");
  EXPECT_EQ(std::make_pair(static_cast<MP4::MVHD*>(mvhds[0])->duration, static_cast<MP4::MVHD*>(mvhds[1])->duration),
            std::make_pair(2.5f, static_cast<float>(0x9000000000000000ULL) / 1000.0f));
  EXPECT_EQ(static_cast<MP4::AVCC*>(findAll(*movie, (std::string(kStbl) + "stsd.avc1.avcC").c_str())[1])->payload,
            ByteArray("\x09", 1));
}

// Boxes claiming 2 GiB in a sparse file that backs the claims: none is read
// whole, and each refusal is named. One of exactly the limit is still read.
TEST(TypedBoxes, BoxesOverThePayloadLimitAreNotRead) {
  TempDir dir;
  constexpr uint32_t kClaim = 0x80000000;
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(1, 1).child(Box("avcC").bytes({1, 2}).rawSize(kClaim)));
  const Bytes bytes = concat({Box("moov")
                                  .child(videoTrak(640, 320, stsd))
                                  .child(Box("udta").child(Box("@mod").str("KV-360 S1").rawSize(kClaim)))
                                  .child(Box("udta").child(Box("@mod").rawSize(MP4::kPayloadLimit)))
                                  .build(),
                              Box("meta").u32(0).child(Box("hdlr").zeros(24).str("name").rawSize(kClaim)).build(),
                              Box("uuid").zeros(16).str("<x/>").rawSize(kClaim).build()});
  std::filesystem::resize_file(dir.write("movie.mp4", bytes), bytes.size() + kClaim);
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(dir.wfile("movie.mp4"), ~0ULL));
  ConsoleCapture console;
  std::string over = "stale", limit;
  EXPECT_FALSE(movie.readPayload(*findAll(movie, "moov.udta.@mod")[0], over));
  EXPECT_TRUE(movie.readPayload(*findAll(movie, "moov.udta.@mod")[1], limit) && over.empty() &&
              limit.size() == MP4::kPayloadLimit - 8);
  EXPECT_TRUE(findTyped<MP4::UUID>(movie, "uuid")->payload.empty() &&
              MP4::refusedAsOversized(*findFirst(movie, "uuid")) &&
              findTyped<MP4::HDLR>(movie, "meta.hdlr")->name.empty() &&
              findTyped<MP4::AVCC>(movie, (std::string(kStbl) + "stsd.avc1.avcC").c_str())->payload.empty());
  EXPECT_EQ(console.text(),
            "moov.udta.@mod: 2147483648 bytes, over the 16 MiB limit, not read.\n"
            "uuid: 2147483648 bytes, over the 16 MiB limit, not read.\n");
}

}  // namespace
