// The Exif walker: the JPEG marker walk, the seeks and their caches, entry
// lookup and bounds, the maker-note box, raw stills read on demand and the
// directory dumps.
#include <gtest/gtest.h>


#include "exif/exif_parser.h"
#include "tests/exif/exif_test_util.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
using Seek = void (ExifParser::*)();
using Cases = std::vector<std::pair<Bytes, std::string>>;

const Bytes kApp0 = jpegSegment(0xFFE0, ByteWriter().str("JFIF").zeros(10).data());
const Bytes kXmp = jpegSegment(0xFFE1, ByteWriter().str("http://ns.adobe.com/xap/1.0/").u8(0).str("<x/>").data());

Bytes cameraJpeg() { return jpegWithExif(TiffBuilder().build(cameraIfd0())); }
Bytes cameraDng(const Ifd& preview = previewIfd(fromHex("FFD8 FFD9")), const Ifd& makerNote = cameraMakerNote()) {
  return withSyntheticJpegHeader(TiffBuilder().build(cameraDngIfd0(preview, makerNote)));
}

TEST(MarkerWalk, SkipsSegmentsAndFillWordsButOnlyFor32Markers) {
  const Bytes tiff = TiffBuilder(kLittleEndian).build(Ifd());
  std::vector<Bytes> segments(29, kApp0);
  segments.insert(segments.end(), {fromHex("FFFF"), kXmp});  // the Exif APP1 is the 32nd marker
  ExifParser p;
  attach(p, jpegWithExif(tiff, segments));
  p.seekToIFD0();
  const uint64_t base = 2 + 29 * kApp0.size() + 2 + kXmp.size() + 10;
  EXPECT_EQ(p.tiffBase, base);
  EXPECT_EQ(p.ifd0Pos, base + 8);
  EXPECT_FALSE(p.bigEndian);

  segments.insert(segments.begin(), fromHex("FFFF"));  // now the 33rd: a quiet give-up
  attach(p, jpegWithExif(tiff, segments));
  EXPECT_EQ(failure([&] { p.seekToIFD0(); }), "");
  EXPECT_EQ(p.ifd0Pos, 0u);
  EXPECT_EQ(p.cursor, base + 2 - 10);                               // on the Exif APP1 marker
  EXPECT_EQ(failure([&] { p.seekToEXIF(); }), "Invalid position");  // which is read as a directory

  // The first walk stops just after the TIFF header; later calls jump to IFD0.
  Bytes jpeg = jpegWithExif(TiffBuilder().build(Ifd()));
  jpeg[12 + 7] = 0x20;  // IFD0 offset 8 -> 0x20
  attach(p, jpeg);
  p.seekToIFD0();
  EXPECT_EQ(p.cursor, 12u + 8);
  p.seekToIFD0();
  EXPECT_EQ(p.cursor, 12u + 0x20);
}

TEST(MarkerWalk, RefusesBrokenStreamsWithTheirMessages) {
  const Cases cases = {
      {{}, "Invalid position"},
      {fromHex("FFD9 FFD8"), "SOI(0xFFD8) not found."},
      {fromHex("FFD8 FFD8"), "Invalid SOI(0xFFD8) found."},
      {fromHex("FFD8 FFD9"), "Invalid EOI(0xFFD9) found."},
      {concat({fromHex("FFD8"), kApp0, fromHex("FFDA 0002"), cameraJpeg()}), "Invalid SOS(0xFFDA) found."},
      {fromHex("FFD8 1234"), "Unknown marker."},
      {fromHex("FFD8 FFE1 0006 4578 6966"), "Invalid position"},  // APP1 shorter than its signature
      {fromHex("FFD8 FFE0 4000 0000"), "Invalid position"},       // segment runs past the end
      {jpegWithExif(TiffBuilder().tiffId(43).build(Ifd())), "Invalid TIFF-ID(0x002A)."},
  };
  for (const auto& [bytes, message] : cases) {
    ExifParser p;
    attach(p, bytes);
    EXPECT_EQ(failure([&] { p.seekToIFD0(); }), message) << toHex(bytes);
  }
}

TEST(Seeks, WalkDownToEveryDirectoryAndThenOnlyMoveTheCursor) {
  ExifParser p;
  attach(p, cameraJpeg());
  p.seekToZEPRA();
  EXPECT_EQ(p.korvuMakerNotePos, p.makerNotePos + 8);
  EXPECT_EQ(p.read16(), 14);  // the product IFD's entry count

  std::fill(p.buffer, p.buffer + p.bufferSize, 0);  // cached seeks never look at the bytes again
  for (auto [seek, position] : {std::pair<Seek, uint64_t>{&ExifParser::seekToIFD0, 20},
                                {&ExifParser::seekToEXIF, p.exifPos},
                                {&ExifParser::seekToMakerNote, p.makerNotePos},
                                {&ExifParser::seekToZEPRA, p.zepraPos}}) {
    (p.*seek)();
    EXPECT_EQ(p.cursor, position);
  }
  p.subIFDs[0] = 8;
  for (int i : {1, 2, -1}) EXPECT_EQ(failure([&] { p.seekToSubIFD(i); }), "Only attachDNG() or No SubIFDs entry.");
}

TEST(Seeks, MissingOrMisplacedDirectoriesHaveTheirMessages) {
  const std::vector<std::pair<Ifd, std::string>> cases = {
      {Ifd().ascii(0x0110, "MODEL"), "EXIF-IFD(0x8769) not found."},
      {Ifd().sub(0x8769, Ifd().shorts(0xA001, {1})), "MakerNote-IFD(0x927C) not found."},
      {Ifd().sub(0x8769, Ifd().makerNote(0x927C, cameraMakerNote(), std::string("Korvo\0\0\0", 8))),
       "Not a KORVU image."},
      {cameraIfd0(Ifd().ascii(0x0002, "CPU 2.10")), "ZEPRA-IFD(0x4001) not found."},
      {Ifd().raw(0x8769, kLong, 1, 0xFFFFFFFF), "Invalid position"},
      {Ifd().sub(0x8769, Ifd().raw(0x927C, kUndefined, 8, 0xFFFFFFF8)), "Invalid position"},
      // An Exif pointer back to IFD0: one more directory is searched, then it stops.
      {Ifd().ascii(0x0110, "MODEL").raw(0x8769, kLong, 1, 8), "MakerNote-IFD(0x927C) not found."},
  };
  for (const auto& [ifd0, message] : cases) {
    ExifParser p;
    attach(p, jpegWithExif(TiffBuilder().build(ifd0)));
    EXPECT_EQ(failure([&] { p.seekToZEPRA(); }), message);
  }
}

TEST(Entries, LookupTakesTheFirstMatchAndEveryReadStaysInsideTheBuffer) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(Ifd().shorts(0x0001, {5}).shorts(0x0002, {6}).shorts(0x0001, {7})));
  p.seekToKORVUMakerNote();
  uint32_t value = 0;
  EXPECT_TRUE(p.find(0x0001, [&](uint16_t, uint16_t, uint32_t, uint32_t v) { value = v; }));
  EXPECT_EQ(p.toUINT16(value), 5);
  p.seekToKORVUMakerNote();
  uint16_t remaining = p.read16();
  EXPECT_FALSE(p.findEntry(remaining, 0x0009, [](auto...) { FAIL(); }));
  EXPECT_TRUE(p.enumEntry(remaining, [](auto...) { return false; }));  // nothing left: not called

  // An entry count far beyond the bytes ends in a message, not a long walk.
  attachKMKN(p, fromHex("4B6F 7276 7500 0000 FFFF 0001 0003"));
  p.seekToKORVUMakerNote();
  EXPECT_EQ(failure([&] { p.find(0x4001, [](auto...) {}); }), "Invalid position");

  attach(p, fromHex("01 02 03 04 05 06"));
  unsigned char out[8];
  EXPECT_EQ(failure([&] { p.read(out, 6, 0); }), "");
  EXPECT_EQ(failure([&] { p.read(out, 0, 6); }), "");
  EXPECT_EQ(failure([&] { p.read(out, 2, 5); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.read(out, 2, SIZE_MAX); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.read(out, SIZE_MAX, 2); }), "Invalid position");  // pos + n would wrap to 1
  p.cursor = 3;
  EXPECT_EQ(failure([&] { p.read32(); }), "Invalid position");
  EXPECT_EQ(p.cursor, 3u);  // a failed read does not move the cursor
}

TEST(Entries, ShortsNeedBigEndianAndStringsNeedOutOfLineTextInsideTheBuffer) {
  ExifParser p;
  attach(p, ByteWriter().str("xxABCD").u8(0).str("EFGHIJ").data());  // 13 bytes
  p.bigEndian = false;
  EXPECT_EQ(failure([&] { p.toUINT16(0x12345678); }), "bigEndian reqired.");

  const std::string refusal = "Invalid Type: ASCII[>4] or UNDEF[>4] required.";
  std::string s;
  EXPECT_EQ(failure([&] { p.toString(kAscii, 4, 0, s); }), refusal);
  EXPECT_EQ(failure([&] { p.toString(kShort, 8, 0, s); }), refusal);
  p.tiffBase = 2;
  EXPECT_EQ(failure([&] { p.toString(kAscii, 5, 0, s); }), "");
  EXPECT_EQ(s, std::string("ABCD\0", 5));  // the zero byte stays inside
  EXPECT_EQ(failure([&] { p.toString(kUndefined, 6, 5, s); }), "");
  EXPECT_EQ(s, "EFGHIJ");  // ends exactly at the buffer's end
  EXPECT_EQ(failure([&] { p.toString(kUndefined, 7, 5, s); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.toString(kAscii, 0xFFFFFFFF, 0, s); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.toString(kAscii, 5, 0xFFFFFFFF, s); }), "Invalid position");
}

TEST(AttachKMKN, BareMakerNoteOrTiffBlock) {
  ExifParser p;
  attach(p, cameraJpeg());
  p.seekToZEPRA();
  attachKMKN(p, TiffBuilder().buildMakerNote(cameraMakerNote()));
  EXPECT_EQ(p.makerNoteOnly, 1);
  for (Seek seek : {&ExifParser::seekToIFD0, &ExifParser::seekToEXIF, &ExifParser::seekToMakerNote}) {
    EXPECT_EQ(failure([&] { (p.*seek)(); }), "Only KORVU Meta");
  }
  p.seekToZEPRA();
  EXPECT_EQ(p.read16(), 14);

  attachKMKN(p, TiffBuilder(kLittleEndian).build(cameraIfd0()));
  EXPECT_FALSE(p.bigEndian);
  EXPECT_EQ(p.ifd0Pos, 8u);
  EXPECT_EQ(p.makerNoteOnly + p.exifPos + p.makerNotePos + p.korvuMakerNotePos + p.zepraPos + p.tiffBase, 0u);
  EXPECT_EQ(failure([&] { p.seekToZEPRA(); }), "");

  const std::vector<std::pair<std::string, std::string>> cases = {
      {"4D", "Invalid position"},
      {"4D4D 002B", "Invalid TIFF-ID(0x002A)."},
      {"4D4D 002A 0000", "Invalid position"},
      {"4B6F 7276 7500 00", "Invalid TIFF-ID(0x002A)."},  // one zero short of the signature: taken as TIFF
  };
  for (const auto& [hex, message] : cases) {
    EXPECT_EQ(failure([&] { attachKMKN(p, fromHex(hex)); }), message) << hex;
    EXPECT_EQ(p.buffer == nullptr, message.starts_with("Invalid TIFF"));  // detached
  }
}

TEST(AttachDNG, RefusesMissingOrMistypedEntries) {
  const auto withSubIFDs = [](const std::function<void(Ifd&)>& addSubIFDs) {
    Ifd ifd0;
    addSubIFDs(ifd0);
    return withSyntheticJpegHeader(TiffBuilder().build(ifd0.sub(0x8769, Ifd().makerNote(0x927C, cameraMakerNote()))));
  };
  const auto withTables = [](const Ifd& zepra) { return cameraDng(previewIfd({}), cameraMakerNote(zepra)); };
  const Bytes table(8, 0);
  const std::string noStrip = "SubIFDs[1] of StripOffSets(0x0111), StripByteCounts(0x0117) not found.";
  const Cases cases = {
      {withSubIFDs([](Ifd& i) {
         i.subs(0x014A, {Ifd(), previewIfd({})}).withCount(1);
       }),
       "Invalid 0th SubIFDs. require length = 2"},
      {withSubIFDs([](Ifd&) {}), "SubIFDs(0x014A) not found."},
      {withSubIFDs([](Ifd& i) {
         i.longs(0x014A, {0, 0});
       }),
       "Only attachDNG() or No SubIFDs entry."},
      {cameraDng(Ifd().shorts(0x0111, {100}).longs(0x0117, {2})), "Invalid StripOffSets(0x0111)"},
      {cameraDng(Ifd().longs(0x0111, {100}).longs(0x0117, {2, 3})), "Invalid StripByteCounts(0x0117)"},
      {cameraDng(Ifd().longs(0x0111, {100})), noStrip},
      {cameraDng(Ifd().longs(0x0117, {100})), noStrip},
      {withTables(Ifd().longs(0x0201, {1}).bytes(0x0202, kUndefined, table)), "Invalid StitchingAffineTable1(0x0201)"},
      {withTables(Ifd().bytes(0x0201, kUndefined, table).ascii(0x0202, "TABLE")),
       "Invalid StitchingAffineTable2(0x0202)"},
      {withTables(Ifd().bytes(0x0201, kUndefined, table)),
       "ReceptorIFD of StitchingAffineTable1(0x0201), StitchingAffineTable2(0x0202) not found."},
  };
  for (const auto& [bytes, message] : cases) {
    ExifParser p;
    EXPECT_EQ(failure([&] { attachDNG(p, bytes); }), message);
  }
}

// A raw still is read through its source only where the walk goes: a block
// far larger than its directories costs one window, and a source that ends
// before the block does (a file cut short while it is read) fails the read.
TEST(AttachDNG, ReadsOnlyTheWindowsTheWalkVisits) {
  const Bytes dng = cameraDng();
  uint64_t requested = 0;
  const auto attachServing = [&](ExifParser& p, size_t served, uint64_t claimed) {
    p.attachDNG(
        [&, served](unsigned char* dst, uint64_t n, uint64_t pos) {
          requested += n;
          n = pos < served ? std::min<uint64_t>(n, served - pos) : 0;
          std::copy_n(dng.data() + std::min<uint64_t>(pos, served), n, dst);
          return n;
        },
        claimed);
  };
  ExifParser p;
  ExifParser::ZEPRA record;
  attachServing(p, dng.size(), uint64_t{1} << 40);
  EXPECT_EQ(failure([&] { p.readZERPA(record); }), "");
  EXPECT_EQ(requested, 65536u);  // one window, though the block claims 1 TiB
  EXPECT_EQ(failure([&] {
              attachServing(p, dng.size() / 2, dng.size());
              p.readZERPA(record);
            }),
            "Invalid position");
}

TEST(DirectoryDump, PrintsTheDirectoriesInOrderAndStopsAtAFailure) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(Ifd().shorts(0x1000, {1}).raw(0x4002, kLong, 1, 0xDEADBEEF)));
  ConsoleCapture partial;
  EXPECT_EQ(failure([&] { p.dumpKMKN(); }), "ZEPRA-IFD(0x4001) not found.");
  EXPECT_EQ(partial.text(),
            "*** KORVU MakerNote ONLY ***\n\nMakerNote (2)\n"
            "  0: 1000 0003 00000001 00010000\n  1: 4002 0004 00000001 DEADBEEF\n");

  attachDNG(p, cameraDng());
  ConsoleCapture console;
  p.dumpKMKN();
  std::vector<std::string> headings;
  std::istringstream lines(console.text());
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != ' ' && line.back() == ')') headings.push_back(line);
  }
  EXPECT_EQ(headings, (std::vector<std::string>{"IFD0 (5)", "EXIF (1)", "MakerNote (4)", "RECEPTOR (14)",
                                                "SubIFDs[0] (1)", "SubIFDs[1] (4)"}));
  EXPECT_TRUE(console.text().ends_with("     samplingRate: 29.970030\n"));

  p.attachBytes(nullptr, 0);
  ConsoleCapture nothing;
  p.dumpKMKN();
  EXPECT_EQ(nothing.text(), "");
}

}  // namespace
