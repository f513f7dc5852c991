// Fields of each typed box, including damaged and hostile payloads.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <tuple>

#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

template <class T>
T* only(const MP4::Container& movie, const char* path) {
  T* box = findTyped<T>(movie, path);
  EXPECT_NE(box, nullptr) << path;
  return box;
}

// A movie whose stbl holds the given boxes.
Bytes withStbl(const Bytes& children) {
  return Box("moov").child(videoTrak(1920, 960, Box::full("stsd", 0, 0).u32(0), children)).build();
}
constexpr const char* kStbl = "moov.trak.mdia.minf.stbl.";

std::string at(const char* leaf) { return std::string(kStbl) + leaf; }

// ------------------------------------------------------------ headers

TEST(MVHD, Version0ReadsCreationTimeAndADurationInSecondsVersion1AnUnsignedDuration) {
  TempDir dir;
  Box v1 = Box::full("mvhd", 1, 0);
  v1.u64(0x123456789ULL).u64(0).u32(1000).u64(0x9000000000000000ULL);
  auto movie = attachBytes(dir, Box("moov").child(mvhd(600, 1500, 77)).child(v1).build());
  auto all = findAll(*movie, "moov.mvhd");
  ASSERT_EQ(all.size(), 2u);
  auto* v0box = static_cast<MP4::MVHD*>(all[0]);
  EXPECT_EQ(v0box->version, 0);
  EXPECT_EQ(v0box->timeStamp, 77u);
  EXPECT_FLOAT_EQ(v0box->timeScale, 600.0f);
  EXPECT_FLOAT_EQ(v0box->duration, 2.5f);
  auto* v1box = static_cast<MP4::MVHD*>(all[1]);
  EXPECT_EQ(v1box->timeStamp, 0x123456789ULL);
  EXPECT_FLOAT_EQ(v1box->duration, static_cast<float>(0x9000000000000000ULL) / 1000.0f);  // positive
}

TEST(TKHD, WidthAndHeightAreTheIntegerPartsOfSigned16Dot16AfterTheVersionsTimes) {
  TempDir dir;
  Box negative = Box::full("tkhd", 0, 0);
  negative.zeros(20).zeros(52).i32(-(5 << 16) - 0x8000).u32(0x07800000);
  Box v1 = Box::full("tkhd", 1, 0);
  v1.u64(5).zeros(24).zeros(52).u32(640 << 16).u32(320 << 16);
  auto movie = attachBytes(dir, Box("moov")
                                    .child(Box("trak").child(tkhd(1920, 960, 9)))
                                    .child(Box("trak").child(negative))
                                    .child(Box("trak").child(tkhd(0, 0)))
                                    .child(Box("trak").child(v1))
                                    .build());
  auto all = findAll(*movie, "moov.trak.tkhd");
  ASSERT_EQ(all.size(), 4u);
  auto* first = static_cast<MP4::TKHD*>(all[0]);
  EXPECT_EQ(first->width, 1920u);
  EXPECT_EQ(first->height, 960u);
  EXPECT_EQ(first->timeStamp, 9u);
  auto* second = static_cast<MP4::TKHD*>(all[1]);
  EXPECT_EQ(static_cast<int32_t>(second->width), -5);  // truncated toward zero
  EXPECT_EQ(second->height, 1920u);
  EXPECT_EQ(static_cast<MP4::TKHD*>(all[2])->width, 0u);
  auto* fourth = static_cast<MP4::TKHD*>(all[3]);
  EXPECT_EQ(std::make_tuple(fourth->timeStamp, fourth->width, fourth->height), std::make_tuple(5u, 640u, 320u));
}

TEST(MDHD, Version1KeepsTheModificationTimeVersion0TheCreationTime) {
  TempDir dir;
  Box v1 = Box::full("mdhd", 1, 0);
  v1.u64(111).u64(222).u32(48000).u64(96000);
  auto movie = attachBytes(dir, Box("moov")
                                    .child(Box("trak").child(Box("mdia").child(mdhd(30000, 60000, 333))))
                                    .child(Box("trak").child(Box("mdia").child(v1)))
                                    .build());
  auto all = findAll(*movie, "moov.trak.mdia.mdhd");
  ASSERT_EQ(all.size(), 2u);
  auto* v0box = static_cast<MP4::MDHD*>(all[0]);
  EXPECT_EQ(v0box->timeStamp, 333u);
  EXPECT_EQ(v0box->timeScale, 30000u);
  EXPECT_EQ(v0box->duration, 60000u);
  auto* v1box = static_cast<MP4::MDHD*>(all[1]);
  EXPECT_EQ(v1box->timeStamp, 222u);
  EXPECT_EQ(v1box->timeScale, 48000u);
  EXPECT_EQ(v1box->duration, 96000u);
}

TEST(Headers, SetTimeStampWritesTheCreationTimeInTheVersionsWidth) {
  TempDir dir;
  Box v1 = Box::full("mdhd", 1, 0);
  v1.u64(111).u64(222).u32(48000).u64(96000);
  auto movie = attachBytes(dir, Box("moov").child(mvhd(1, 1)).child(Box("trak").child(Box("mdia").child(v1))).build());
  auto* mvhd = only<MP4::MVHD>(*movie, "moov.mvhd");
  auto* mdhd = only<MP4::MDHD>(*movie, "moov.trak.mdia.mdhd");
  movie->open_a([&](GLTK::FileIO& file) {
    MP4::BinFile f(file);
    f.seek_set(5);
    EXPECT_TRUE(mvhd->setTimeStamp(f, 0xAABBCCDD));
    EXPECT_TRUE(mdhd->setTimeStamp(f, 0x0102030405060708ULL));
    EXPECT_EQ(f.tell(), 5u);
  });
  const Bytes after = readFile(dir.file("movie.mp4"));
  EXPECT_EQ(toHex(Bytes(after.begin() + mvhd->start + 12, after.begin() + mvhd->start + 16)), "AA BB CC DD");
  EXPECT_EQ(toHex(Bytes(after.begin() + mdhd->start + 12, after.begin() + mdhd->start + 20)),
            "01 02 03 04 05 06 07 08");
}

// ------------------------------------------------------------ sample tables

TEST(STTS, ACountBeyondThePayloadKeepsTheCountAndReadsZeros) {
  TempDir dir;
  auto movie = attachBytes(dir, withStbl(Box::full("stts", 0, 0).u32(3).u32(1).u32(1001).build()));
  auto* stts = only<MP4::STTS>(*movie, at("stts").c_str());
  EXPECT_EQ(stts->entryCount, 3u);
  EXPECT_EQ(stts->entry(0).sample_delta, 1001u);
  EXPECT_EQ(stts->entry(2).sample_count, 0u);
}

TEST(STSZ, TableSizesAreSummedIn64Bits) {
  TempDir dir;
  auto movie = attachBytes(
      dir, withStbl(Box::full("stsz", 0, 0).u32(0).u32(3).u32(0xFFFFFFFF).u32(0xFFFFFFFF).u32(2).build()));
  auto* stsz = only<MP4::STSZ>(*movie, at("stsz").c_str());
  EXPECT_EQ(stsz->sample_count, 3u);
  EXPECT_EQ(stsz->sample_total, 0x1FFFFFFFFULL + 1);
}

TEST(STSZ, AFixedSizeIsMultipliedIn32Bits) {
  TempDir dir;
  auto movie = attachBytes(dir, withStbl(Box::full("stsz", 0, 0).u32(4).u32(0x80000000).build()));
  auto* stsz = only<MP4::STSZ>(*movie, at("stsz").c_str());
  EXPECT_EQ(stsz->sample_total, 0u);
  EXPECT_TRUE(stsz->entries.empty());
}

TEST(SampleTables, HugeCountsInATinyFileCostNoMemory) {
  TempDir dir;
  const Bytes file = withStbl(concat({Box::full("stts", 0, 0).u32(0xFFFFFFFF).u32(7).u32(8).build(),
                                      Box::full("stsc", 0, 0).u32(0xFFFFFFFF).build(),
                                      Box::full("stsz", 0, 0).u32(0).u32(0xFFFFFFFF).u32(5).build(),
                                      Box::full("stco", 0, 0).u32(0xFFFFFFFF).build()}));
  auto movie = attachBytes(dir, file);
  auto* stts = only<MP4::STTS>(*movie, at("stts").c_str());
  auto* stsc = only<MP4::STSC>(*movie, at("stsc").c_str());
  auto* stsz = only<MP4::STSZ>(*movie, at("stsz").c_str());
  EXPECT_EQ(stts->entryCount, 0xFFFFFFFFu);
  EXPECT_LE(stts->entries.size(), 1u);
  EXPECT_EQ(stts->entry(0).sample_delta, 8u);
  EXPECT_EQ(stsc->entryCount, 0xFFFFFFFFu);
  EXPECT_TRUE(stsc->entries.empty());
  EXPECT_EQ(stsz->sample_count, 0xFFFFFFFFu);
  EXPECT_LE(stsz->entries.size(), 1u);
  EXPECT_EQ(stsz->sample_total, 5u);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024);  // kilobytes
}

TEST(SampleTables, ABoxClaimingMoreThanTheFileReadsOnlyTheFile) {
  TempDir dir;
  // stsz claims 4 GB of payload in a small file that ends inside its table.
  Bytes file = withStbl(Box::full("stsz", 0, 0).u32(0).u32(1000).u32(1).u32(2).u32(3).rawSize(0xFFFFFFF0).build());
  file.resize(file.size() - 2);  // the last entry is cut in half
  auto movie = attachBytes(dir, file);
  auto* stsz = only<MP4::STSZ>(*movie, at("stsz").c_str());
  EXPECT_EQ(stsz->sample_count, 1000u);
  EXPECT_EQ(stsz->entry(2), 0u);  // its two bytes are the high half
  EXPECT_EQ(stsz->sample_total, 3u);
}

TEST(STCO, RecordsWhereItsTableStartsForBothWidths) {
  TempDir dir;
  auto movie = attachBytes(dir, withStbl(concat({Box::full("stco", 0, 0).u32(2).u32(100).u32(200).build(),
                                                 Box::full("co64", 0, 0).u32(1).u64(1ULL << 40).build()})));
  auto* stco = only<MP4::STCO>(*movie, at("stco").c_str());
  auto* co64 = only<MP4::CO64>(*movie, at("co64").c_str());
  EXPECT_EQ(stco->entryCount, 2u);
  EXPECT_EQ(stco->entryOffset, stco->start + 16);
  EXPECT_EQ(co64->entryCount, 1u);
  EXPECT_EQ(co64->entryOffset, co64->start + 16);
}

// ------------------------------------------------------------ sample entries

TEST(STSD, EntriesStartBehindVersionAndCount) {
  TempDir dir;
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(640, 320).child(Box("avcC").bytes({1, 2, 3})));
  auto movie = attachBytes(dir, Box("moov").child(videoTrak(640, 320, stsd)).build());
  auto* box = only<MP4::STSD>(*movie, at("stsd").c_str());
  EXPECT_EQ(box->entryCount, 1u);
  auto* avcc = only<MP4::AVCC>(*movie, at("stsd.avc1.avcC").c_str());
  EXPECT_EQ(avcc->payload, ByteArray("\x01\x02\x03", 3));
}

TEST(AVC1, AnEntryTooShortForItsFieldsWalksChildrenAtOnce) {
  TempDir dir;
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(Box("avc1").child(Box("avcC").bytes({9})));
  auto movie = attachBytes(dir, Box("moov").child(videoTrak(640, 320, stsd)).build());
  auto* avcc = only<MP4::AVCC>(*movie, at("stsd.avc1.avcC").c_str());
  EXPECT_EQ(avcc->payload.size(), 1u);
}

TEST(AVCC, APayloadClaimingMoreThanTheFileHoldsIsCut) {
  TempDir dir;
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(1, 1).child(Box("avcC").bytes({1, 2}).rawSize(1 << 20)));
  auto movie = attachBytes(dir, Box("moov").child(videoTrak(640, 320, stsd)).build());
  auto* avcc = only<MP4::AVCC>(*movie, at("stsd.avc1.avcC").c_str());
  EXPECT_EQ(avcc->payload, ByteArray("\x01\x02", 2));
}

TEST(XYZ, TextIsCappedAt512Bytes) {
  TempDir dir;
  const std::string location = "+35.6586+139.7454+010.000/";
  auto movie = attachBytes(dir, Box("moov")
                                    .child(Box("udta")
                                               .child(Box("\xA9xyz").u16(26).u16(0x15C7).str(location))
                                               .child(Box("\xA9xyz").u16(0).u16(1).str(std::string(588, 'x'))))
                                    .build());
  auto all = findAll(*movie, "moov.udta.\xA9xyz");
  ASSERT_EQ(all.size(), 2u);
  auto* first = static_cast<MP4::XYZ*>(all[0]);
  EXPECT_EQ(first->textLength, 26);
  EXPECT_EQ(first->language, 0x15C7);
  EXPECT_EQ(first->text, location);
  EXPECT_EQ(static_cast<MP4::XYZ*>(all[1])->text, std::string(512, 'x'));
}

TEST(LOCI, ACutAfterTheLatitudeHasAPositionButNoAltitude) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("moov")
                                    .child(Box("udta")
                                               .child(Box("loci").zeros(8).fixed(139.5).fixed(-35.25).fixed(12.0))
                                               .child(Box("loci").zeros(8).fixed(1.0).fixed(2.0)))
                                    .build());
  auto all = findAll(*movie, "moov.udta.loci");
  ASSERT_EQ(all.size(), 2u);
  auto* full = static_cast<MP4::LOCI*>(all[0]);
  EXPECT_DOUBLE_EQ(full->longitude, 139.5);
  EXPECT_DOUBLE_EQ(full->latitude, -35.25);
  EXPECT_DOUBLE_EQ(full->altitude, 12.0);
  EXPECT_TRUE(full->hasAltitude);
  auto* cut = static_cast<MP4::LOCI*>(all[1]);
  EXPECT_TRUE(cut->hasPosition);
  EXPECT_FALSE(cut->hasAltitude);
}

TEST(HDLR, ANameIsKeptOnlyAsFarAsTheBoxAndTheFileHoldIt) {
  TempDir dir;
  auto movie = attachBytes(dir, Box("meta").u32(0).child(Box("hdlr").zeros(20)).build());
  auto* hdlr = only<MP4::HDLR>(*movie, "meta.hdlr");
  EXPECT_EQ(static_cast<int>(hdlr->nameLength), -4);
  EXPECT_TRUE(hdlr->name.empty());
  // Both sizes claim 16 MiB: the name must not be sized from them.
  movie = attachBytes(dir, Box("meta")
                               .rawSize(0x7FFFFFFF)
                               .u32(0)
                               .child(Box("hdlr").rawSize(1 << 24).zeros(8).str("mdir").zeros(12).str("ab"))
                               .build());
  hdlr = only<MP4::HDLR>(*movie, "meta.hdlr");
  EXPECT_EQ(std::string(hdlr->handler.begin(), hdlr->handler.end()), "mdir");
  EXPECT_EQ(hdlr->nameLength, (1u << 24) - 32);
  EXPECT_EQ(hdlr->name, "ab");
}

// Boxes claiming 2 GiB in a sparse file that backs the claims: none is
// read whole, and readPayload names each one it refuses. One of exactly
// the limit is still read.
TEST(Payloads, BoxesOverTheLimitAreNotRead) {
  TempDir dir;
  constexpr uint32_t kClaim = 0x80000000;
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(1, 1).child(Box("avcC").bytes({1, 2}).rawSize(kClaim)));
  const Bytes bytes = concat({Box("moov")
                                  .child(videoTrak(640, 320, stsd))
                                  .child(Box("udta").child(Box("@mod").str("KV-360 S1").rawSize(kClaim)))
                                  .child(Box("udta").child(Box("@mod").rawSize(MP4::kPayloadLimit)))
                                  .child(Box("udta").child(Box("KMKN").zeros(8).rawSize(kClaim)))
                                  .build(),
                              Box("meta").u32(0).child(Box("hdlr").zeros(24).str("name").rawSize(kClaim)).build(),
                              Box("uuid").zeros(16).str("<x/>").rawSize(kClaim).build()});
  const std::string path = dir.write("movie.mp4", bytes);
  std::filesystem::resize_file(path, bytes.size() + kClaim);
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(widen(path), ~0ULL));
  ConsoleCapture console;
  std::vector<size_t> read;
  for (const char* box : {"moov.udta.@mod", "moov.udta.KMKN"}) {
    movie.find(box, [&](MP4::BOX& found) {
      std::string out = "stale";
      const bool ok = movie.readPayload(found, out);
      EXPECT_EQ(ok, !out.empty());
      read.push_back(out.size());
      return true;
    });
  }
  EXPECT_EQ(read, (std::vector<size_t>{0, MP4::kPayloadLimit - 8, 0}));
  const auto* uuid = only<MP4::UUID>(movie, "uuid");
  EXPECT_TRUE(uuid->payload.empty());
  EXPECT_TRUE(MP4::refusedAsOversized(*uuid));
  EXPECT_TRUE(only<MP4::HDLR>(movie, "meta.hdlr")->name.empty());
  EXPECT_TRUE(only<MP4::AVCC>(movie, at("stsd.avc1.avcC").c_str())->payload.empty());
  EXPECT_EQ(console.text(),
            "moov.udta.@mod: 2147483648 bytes, over the 16 MiB limit, not read.\n"
            "moov.udta.KMKN: 2147483648 bytes, over the 16 MiB limit, not read.\n"
            "uuid: 2147483648 bytes, over the 16 MiB limit, not read.\n");
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss, 256 * 1024);  // kilobytes
}

TEST(UUID, KeepsItsPayloadInPiecesAsFarAsTheFileHoldsIt) {
  TempDir dir;
  const std::string xml(1300, 'x');
  auto movie = attachBytes(dir, concat({Box("uuid").zeros(15).u8(1).str(xml).build(),
                                        Box("uuid").zeros(16).str("abc").rawSize(1 << 20).build()}));
  auto all = findAll(*movie, "uuid");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(static_cast<MP4::UUID*>(all[0])->payloadText(), xml);
  EXPECT_EQ(static_cast<MP4::UUID*>(all[0])->usertypeText(), L"00000000-0000-0000-0000-000000000001");
  EXPECT_LE(static_cast<MP4::UUID*>(all[1])->payload.size(), 3u);
}

TEST(UUID, SerialisesAsACompleteBox) {
  MP4::UUID box("<xml/>");
  box.usertype = MP4::UUID::kSpatialAudio;
  ByteArray out;
  box.to_byteArray(out);
  ASSERT_EQ(out.size(), 30u);
  EXPECT_EQ(toHex(Bytes(out.data(), out.data() + 8)), "00 00 00 1E 75 75 69 64");
  EXPECT_EQ(std::string(out.data() + 24, out.data() + 30), "<xml/>");
  EXPECT_EQ(box.size, 30u);
}

}  // namespace
