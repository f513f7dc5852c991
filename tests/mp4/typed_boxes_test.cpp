// Fields of each typed box, as dumped and as read, including damaged and hostile payloads.
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
  const Box stsd = Box::full("stsd", 0, 0)
                       .u32(2)
                       .child(avc1(1920, 960).child(Box("avcC").bytes({1})))
                       .child(Box("sowt")
                                  .zeros(6)
                                  .u16(1)
                                  .zeros(8)
                                  .u16(2)
                                  .u16(16)
                                  .u16(0)
                                  .zeros(2)
                                  .u32(48000u << 16)
                                  .child(Box("SA3D").zeros(2)))
                       .child(Box("avc1").child(Box("avcC").bytes({9})));  // too short for its fields
  const Bytes stbl = concat({Box::full("stts", 0, 0).u32(0xFFFFFFFF).u32(1).u32(1001).build(),
                             Box::full("stsc", 0, 0).u32(0xFFFFFFFF).u32(1).u32(2).u32(3).build(),
                             Box::full("stsz", 0, 0).u32(0).u32(3).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u32(2).build(),
                             Box::full("stsz", 0, 0).u32(4).u32(0x80000000).build(),  // a 32-bit product
                             Box::full("stco", 0, 0).u32(1).u32(48).build()});
  auto movie = attachBytes(
      dir,
      concat(
          {Box("ftyp").str("isom").build(),
           Box("moov")
               .child(mvhd(600, 1500, 3))
               .child(Box::full("mvhd", 1, 0).u64(0x123456789ULL).u64(0).u32(1000).u64(0x9000000000000000ULL))
               .child(videoTrak(1920, 960, stsd, stbl))
               .child(
                   Box("trak")
                       .child(
                           Box::full("tkhd", 1, 0).u64(5).zeros(24 + 52).u32(0xFFFA8000).u32(0x07800000))  // width -5.5
                       .child(Box("mdia").child(Box::full("mdhd", 1, 0).u64(1).u64(2).u32(48000).u64(96000))))
               .child(Box("udta")
                          .child(Box("\xA9xyz").u16(5).u16(0x15C7).str("+1+2/"))
                          .child(Box("\xA9xyz").u16(0).u16(1).str(std::string(588, 'x')))
                          .child(Box("loci").zeros(8).fixed(1.0).fixed(2.0))
                          .child(Box("loci").zeros(8).fixed(1.5).fixed(-2.5).fixed(3.0)))
               .build(),
           Box("meta").u32(0).child(Box("hdlr").zeros(8).str("mdir").zeros(12).str("ab").u8(0)).build(),
           Box("uuid")
               .bytes({0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93, 0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD})
               .str("<x/>")
               .build(),
           Box("mdat").zeros(3).build()}));
  ConsoleCapture capture;
  movie->dump();
  EXPECT_EQ(
      capture.text(),
      "MP4: == 'root': start=0 bytes=1545 ==\nMP4: <'ftyp': start=0 bytes=12 >\n"
      "MP4: <'moov': start=12 bytes=1447 children=5 >\nMP4:     <'mvhd': start=20 bytes=108 timeStamp=3 >\n"
      "MP4:     <'mvhd': start=128 bytes=40 timeStamp=4886718345 >\nMP4:     <'trak': start=168 bytes=454 children=2 "
      ">\n"
      "MP4:         <'tkhd': start=176 bytes=92 timeStamp=0 width=1920 height=960 >\n"
      "MP4:         <'mdia': start=268 bytes=354 children=2 >\n"
      "MP4:             <'mdhd': start=276 bytes=32 timeStamp=0 duration=60000.000000 time_scale=30000.000000 >\n"
      "MP4:             <'minf': start=308 bytes=314 children=1 >\n"
      "MP4:                 <'stbl': start=316 bytes=306 children=6 >\n"
      "MP4:                     <'stsd': start=324 bytes=174 children=3 >\n"
      "MP4:                         <'avc1': start=340 bytes=95 children=1 >\n"
      "MP4:                             <'avcC': start=426 bytes=9 >\n"
      "MP4:                         <'sowt': start=435 bytes=46 data_reference_index=1 channel_count=2 sample_size=16 "
      "pre_defined=0 samplelate=bb800000>\n"
      "MP4:                             <'SA3D': start=471 bytes=10 >\n"
      "MP4:                         <'avc1': start=481 bytes=17 children=1 >\n"
      "MP4:                             <'avcC': start=489 bytes=9 >\n"
      "MP4:                     <'stts': start=498 bytes=24 entryCount=-1 >\n"
      "MP4:                     <'stsc': start=522 bytes=28 entryCount=-1 >\n"
      "MP4:                     <'stsz': start=550 bytes=32 sampleSize=0 sample_count=3 sample_total=8589934592 >\n"
      "MP4:                     <'stsz': start=582 bytes=20 sampleSize=4 sample_count=-2147483648 sample_total=0 >\n"
      "MP4:                     <'stco': start=602 bytes=20 indexes=1 >\nMP4:     <'trak': start=622 bytes=160 "
      "children=2 >\n"
      "MP4:         <'tkhd': start=630 bytes=104 timeStamp=5 width=4294967291 height=1920 >\n"
      "MP4:         <'mdia': start=734 bytes=48 children=1 >\n"
      "MP4:             <'mdhd': start=742 bytes=40 timeStamp=2 duration=96000.000000 time_scale=48000.000000 >\n"
      "MP4:     <'udta': start=782 bytes=677 children=4 >\nMP4:         <'\xC2\xA9xyz': start=790 bytes=17 xyz=+1+2/ "
      "15c7 >\n"
      "MP4:         <'\xC2\xA9xyz': start=807 bytes=600 xyz=" +
          std::string(512, 'x') +
          " 0001 >\n"
          "MP4:         <'loci': start=1407 bytes=24 loci=1.000000 2.000000 0.000000 >\n"
          "MP4:         <'loci': start=1431 bytes=28 loci=1.500000 -2.500000 3.000000 >\n"
          "MP4: <'meta': start=1459 bytes=47 children=1 >\nMP4:     <'hdlr': start=1471 bytes=35 handler=mdir "
          "name=ab(3) >\n"
          "MP4: <'uuid': start=1506 bytes=28 uuid=FFCC8263-F855-4A93-8814-587A02521FDD >\nMP4: <'mdat': start=1534 "
          "bytes=11 >\n");
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
