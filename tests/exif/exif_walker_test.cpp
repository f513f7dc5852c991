// The Exif walker: the JPEG marker walk, the seeks and their caches, entry
// lookup and bounds, the maker-note box, raw stills, hostile blocks and the
// directory dumps.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <set>

#include "exif/exif_parser.h"
#include "tests/exif/exif_test_util.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
using Seek = void (ExifParser::*)();

const Bytes kApp0 = jpegSegment(0xFFE0, ByteWriter().str("JFIF").zeros(10).data());
const Bytes kXmp = jpegSegment(0xFFE1, ByteWriter().str("http://ns.adobe.com/xap/1.0/").u8(0).str("<x/>").data());
const Bytes kPreview = fromHex("FFD8 FFDB 0004 0000 FFD9");

Bytes cameraJpeg() { return jpegWithExif(TiffBuilder().build(cameraIfd0())); }
Bytes cameraDng(const Ifd& preview = previewIfd(kPreview), const Ifd& makerNote = cameraMakerNote()) {
  return withSyntheticJpegHeader(TiffBuilder().build(cameraDngIfd0(preview, makerNote)));
}

// ------------------------------------------------------------ marker walk

TEST(MarkerWalk, SkipsOtherSegmentsAndFillWordsToTheExifHeader) {
  const Bytes table = jpegSegment(0xFFDB, Bytes(10, 1));
  ExifParser p;
  attach(p, jpegWithExif(TiffBuilder(kLittleEndian).build(Ifd()), {kApp0, kXmp, fromHex("FFFF"), table}));
  p.seekToIFD0();
  const uint64_t base = 2 + kApp0.size() + kXmp.size() + 2 + table.size() + 10;
  EXPECT_EQ(p.tiffBase, base);
  EXPECT_EQ(p.ifd0Pos, base + 8);
  EXPECT_EQ(p.cursor, base + 8);
  EXPECT_FALSE(p.bigEndian);
}

TEST(MarkerWalk, FirstWalkStopsAfterTheHeaderLaterCallsJumpToIFD0) {
  Bytes jpeg = jpegWithExif(TiffBuilder().build(Ifd()));
  jpeg[12 + 7] = 0x20;  // IFD0 offset 8 -> 0x20
  ExifParser p;
  attach(p, jpeg);
  p.seekToIFD0();
  EXPECT_EQ(p.cursor, 12u + 8);
  EXPECT_EQ(p.ifd0Pos, 12u + 0x20);
  p.seekToIFD0();
  EXPECT_EQ(p.cursor, 12u + 0x20);
}

TEST(MarkerWalk, RefusesBrokenStreamsWithTheirMessages) {
  const Bytes tiff = TiffBuilder().build(Ifd());
  const std::vector<std::pair<Bytes, std::string>> cases = {
      {{}, "Invalid position"},
      {fromHex("FFD9 FFD8"), "SOI(0xFFD8) not found."},
      {fromHex("FFD8 FFD8"), "Invalid SOI(0xFFD8) found."},
      {fromHex("FFD8 FFD9"), "Invalid EOI(0xFFD9) found."},
      {concat({fromHex("FFD8"), kApp0, fromHex("FFDA 0002"), exifSegment(tiff)}), "Invalid SOS(0xFFDA) found."},
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

TEST(MarkerWalk, GivesUpQuietlyAfter32Markers) {
  const Bytes tiff = TiffBuilder().build(Ifd());
  std::vector<Bytes> segments(31, kApp0);  // the Exif APP1 is the 32nd marker
  ExifParser reached;
  attach(reached, jpegWithExif(tiff, segments));
  reached.seekToIFD0();
  EXPECT_NE(reached.ifd0Pos, 0u);

  segments.push_back(fromHex("FFFF"));  // a fill word uses up a marker too
  ExifParser p;
  attach(p, jpegWithExif(tiff, segments));
  EXPECT_EQ(failure([&] { p.seekToIFD0(); }), "");
  EXPECT_EQ(p.ifd0Pos, 0u);
  EXPECT_EQ(p.cursor, 2 + 31 * kApp0.size() + 2);  // on the Exif APP1 marker
  // The next lookup reads whatever lies there as a directory.
  EXPECT_EQ(failure([&] { p.seekToEXIF(); }), "Invalid position");
}

// ------------------------------------------------------------ seeks

TEST(Seeks, WalkDownToEveryDirectoryAndCacheIt) {
  ExifParser p;
  attach(p, cameraJpeg());
  p.seekToZEPRA();
  EXPECT_EQ(p.ifd0Pos, 20u);
  EXPECT_GT(p.exifPos, p.ifd0Pos);
  EXPECT_GT(p.makerNotePos, p.exifPos);
  EXPECT_EQ(p.korvuMakerNotePos, p.makerNotePos + 8);
  EXPECT_GT(p.zepraPos, p.korvuMakerNotePos);
  EXPECT_EQ(p.cursor, p.zepraPos);
  EXPECT_EQ(p.read16(), 14);

  // Once cached, a seek only moves the cursor: the bytes are not read again.
  std::fill(p.buffer, p.buffer + p.bufferSize, 0);
  const std::pair<Seek, uint64_t> seeks[] = {{&ExifParser::seekToIFD0, p.ifd0Pos},
                                             {&ExifParser::seekToEXIF, p.exifPos},
                                             {&ExifParser::seekToMakerNote, p.makerNotePos},
                                             {&ExifParser::seekToKORVUMakerNote, p.korvuMakerNotePos},
                                             {&ExifParser::seekToZEPRA, p.zepraPos}};
  for (const auto& [seek, position] : seeks) {
    p.cursor = 1;
    (p.*seek)();
    EXPECT_EQ(p.cursor, position);
  }
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
      // The Exif pointer loops back to IFD0: one more directory is searched, then it stops.
      {Ifd().ascii(0x0110, "MODEL").raw(0x8769, kLong, 1, 8), "MakerNote-IFD(0x927C) not found."},
  };
  for (const auto& [ifd0, message] : cases) {
    ExifParser p;
    attach(p, jpegWithExif(TiffBuilder().build(ifd0)));
    EXPECT_EQ(failure([&] { p.seekToZEPRA(); }), message);
  }

  ExifParser p;
  attach(p, cameraJpeg());
  EXPECT_EQ(failure([&] { p.seekToSubIFD(1); }), "Only attachDNG() or No SubIFDs entry.");
  p.subIFDs[0] = p.subIFDs[1] = 8;
  EXPECT_EQ(failure([&] { p.seekToSubIFD(2); }), "Only attachDNG() or No SubIFDs entry.");
  EXPECT_EQ(failure([&] { p.seekToSubIFD(-1); }), "Only attachDNG() or No SubIFDs entry.");
}

// ------------------------------------------------------------ entries and bounds

TEST(Entries, FindStopsAtTheFirstMatchAndEnumerationCountsDown) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(Ifd().shorts(0x0001, {5}).shorts(0x0002, {6}).shorts(0x0001, {7})));
  p.seekToKORVUMakerNote();
  uint32_t value = 0;
  EXPECT_TRUE(p.find(0x0001, [&](uint16_t, uint16_t, uint32_t, uint32_t v) { value = v; }));
  EXPECT_EQ(p.toUINT16(value), 5);
  p.seekToKORVUMakerNote();
  EXPECT_FALSE(p.find(0x0009, [](auto...) { FAIL(); }));

  p.seekToKORVUMakerNote();
  uint16_t remaining = p.read16();
  int visits = 0;
  EXPECT_FALSE(p.enumEntry(remaining, [&](auto...) { return ++visits < 2; }));
  EXPECT_EQ(remaining, 1);
  EXPECT_TRUE(p.enumEntry(remaining, [&](auto...) { return ++visits > 0; }));
  EXPECT_EQ(remaining, 0);
  EXPECT_TRUE(p.enumEntry(remaining, [](auto...) { return false; }));  // nothing left: not called
  EXPECT_EQ(visits, 3);

  ExifParser empty;
  attachKMKN(empty, TiffBuilder().buildMakerNote(Ifd()));
  empty.seekToKORVUMakerNote();
  EXPECT_FALSE(empty.find(0x0001, [](auto...) { FAIL(); }));

  // An entry count far beyond the bytes ends in a message, not a long walk.
  ExifParser huge;
  attachKMKN(huge, fromHex("4B6F 7276 7500 0000 FFFF 0001 0003"));
  huge.seekToKORVUMakerNote();
  EXPECT_EQ(failure([&] { huge.find(0x4001, [](auto...) {}); }), "Invalid position");
}

TEST(Entries, ReadsStayInsideTheBufferWithoutOverflowing) {
  ExifParser p;
  attach(p, fromHex("01 02 03 04 05 06"));
  unsigned char out[8];
  EXPECT_EQ(failure([&] { p.read(out, 6, 0); }), "");
  EXPECT_EQ(failure([&] { p.read(out, 0, 6); }), "");
  EXPECT_EQ(failure([&] { p.read(out, 2, 5); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.read(out, 7, 0); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.read(out, 2, SIZE_MAX); }), "Invalid position");
  EXPECT_EQ(failure([&] { p.read(out, SIZE_MAX, 2); }), "Invalid position");  // pos + n would wrap to 1

  EXPECT_EQ(p.read16(), 0x0102);
  EXPECT_EQ(p.read32(), 0x03040506u);
  p.bigEndian = false;
  p.cursor = 0;
  EXPECT_EQ(p.read16(), 0x0201);
  EXPECT_EQ(p.read32(), 0x06050403u);
  EXPECT_EQ(failure([&] { p.read16(); }), "Invalid position");
  EXPECT_EQ(p.cursor, 6u);  // a failed read does not move the cursor

  p.pushCursor(1);
  p.pushCursor(2);
  p.popCursor();
  EXPECT_EQ(p.cursor, 1u);
  p.popCursor();
  p.popCursor();  // empty stack: nothing happens
  EXPECT_EQ(p.cursor, 6u);

  ExifParser detached;
  attach(detached, fromHex("01 02"));
  detached.attachBytes(nullptr, 2);
  EXPECT_EQ(detached.buffer, nullptr);
  EXPECT_EQ(failure([&] { detached.read16(); }), "Invalid position");
}

TEST(Entries, ShortsNeedBigEndianAndStringsNeedOutOfLineText) {
  ExifParser p;
  attach(p, ByteWriter().str("xxABCD").u8(0).str("EFGHIJ").data());  // 13 bytes
  EXPECT_EQ(p.toUINT16(0x12345678), 0x1234);
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

// ------------------------------------------------------------ the maker-note box

TEST(AttachKMKN, BareMakerNoteServesOnlyTheMakerNoteDirectories) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(cameraMakerNote()));
  EXPECT_EQ(p.makerNoteOnly, 1);
  EXPECT_EQ(p.korvuMakerNotePos, 8u);
  for (Seek seek : {&ExifParser::seekToIFD0, &ExifParser::seekToEXIF, &ExifParser::seekToMakerNote}) {
    EXPECT_EQ(failure([&] { (p.*seek)(); }), "Only KORVU Meta");
  }
  p.seekToZEPRA();
  EXPECT_EQ(p.read16(), 14);

  // A product-IFD pointer back to the maker-note IFD is read as such and ends.
  ExifParser loop;
  attachKMKN(loop, TiffBuilder().buildMakerNote(Ifd().ascii(0x0002, "CPU 2.10").raw(0x4001, kLong, 1, 8)));
  ExifParser::ZEPRA record;
  EXPECT_EQ(failure([&] { loop.readZERPA(record); }), "");
  EXPECT_EQ(record.cpuVersion, std::string("CPU 2.10\0", 9));
}

TEST(AttachKMKN, TiffFormReadsItsHeaderAndResetsEverything) {
  for (bool bigEndian : {kBigEndian, kLittleEndian}) {
    ExifParser p;
    attach(p, cameraJpeg());
    p.seekToZEPRA();
    attachKMKN(p, TiffBuilder(bigEndian).build(cameraIfd0()));
    EXPECT_EQ(p.bigEndian, bigEndian);
    EXPECT_EQ(p.ifd0Pos, 8u);
    EXPECT_EQ(p.tiffBase, 0u);
    EXPECT_EQ(p.exifPos + p.makerNotePos + p.korvuMakerNotePos + p.zepraPos, 0u);
    EXPECT_EQ(failure([&] { p.seekToZEPRA(); }), "");
  }
}

TEST(AttachKMKN, ShortOrForeignHeadersFail) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"4D", "Invalid position"},
      {"4D4D 00", "Invalid position"},
      {"4D4D 002B", "Invalid TIFF-ID(0x002A)."},
      {"4D4D 002A 0000", "Invalid position"},
      {"4B6F 7276 7500 0000", ""},          // exactly the signature: a maker note without entries
      {"4B6F 7276 7500 00", "Invalid TIFF-ID(0x002A)."},  // one zero short: taken as TIFF
  };
  for (const auto& [hex, message] : cases) {
    ExifParser p;
    EXPECT_EQ(failure([&] { attachKMKN(p, fromHex(hex)); }), message) << hex;
  }
  ExifParser p;
  EXPECT_EQ(failure([&] { attachKMKN(p, fromHex("4949 2B00 0800 0000")); }), "Invalid TIFF-ID(0x002A).");
  EXPECT_EQ(p.buffer, nullptr);  // detached
  EXPECT_EQ(p.bufferSize, 0u);
}

// ------------------------------------------------------------ raw stills

TEST(AttachDNG, FindsThePreviewStripAndTheStitchingTables) {
  const Bytes file = cameraDng();
  ExifParser p;
  attachDNG(p, file);
  EXPECT_EQ(p.tiffBase, 12u);
  ASSERT_LE(uint64_t{p.stripOffset} + p.stripByteCount + 12, file.size());
  EXPECT_EQ(Bytes(&file[12 + p.stripOffset], &file[12 + p.stripOffset + p.stripByteCount]), kPreview);
  EXPECT_EQ(p.affineTable1Length, 24u);
  EXPECT_EQ(p.affineTable2Length, 40u);
  EXPECT_EQ(file[12 + p.affineTable1Offset], 0xA1);
  EXPECT_EQ(file[12 + p.affineTable2Offset + 39], 0xA2);
  p.seekToSubIFD(1);
  EXPECT_EQ(p.read16(), 4);
  p.seekToSubIFD(0);
  EXPECT_EQ(p.read16(), 1);
}

TEST(AttachDNG, RefusesMissingOrMistypedEntries) {
  const auto withSubIFDs = [](const std::function<void(Ifd&)>& addSubIFDs) {
    Ifd ifd0;
    addSubIFDs(ifd0);
    return withSyntheticJpegHeader(TiffBuilder().build(ifd0.sub(0x8769, Ifd().makerNote(0x927C, cameraMakerNote()))));
  };
  const auto withTables = [](const Ifd& zepra) { return cameraDng(previewIfd(kPreview), cameraMakerNote(zepra)); };
  const Bytes table(8, 0);
  const std::vector<std::pair<Bytes, std::string>> cases = {
      {withSubIFDs([](Ifd& i) { i.subs(0x014A, {Ifd(), previewIfd(kPreview)}).withCount(1); }),
       "Invalid 0th SubIFDs. require length = 2"},
      {withSubIFDs([](Ifd&) {}), "SubIFDs(0x014A) not found."},
      {withSubIFDs([](Ifd& i) { i.longs(0x014A, {0, 0}); }), "Only attachDNG() or No SubIFDs entry."},
      {withSubIFDs([](Ifd& i) { i.raw(0x014A, kLong, 2, 0xFFFFFFF0); }), "Invalid position"},
      {cameraDng(Ifd().shorts(0x0111, {100}).longs(0x0117, {2})), "Invalid StripOffSets(0x0111)"},
      {cameraDng(Ifd().longs(0x0111, {100}).longs(0x0117, {2, 3})), "Invalid StripByteCounts(0x0117)"},
      {cameraDng(Ifd().longs(0x0111, {100})), "SubIFDs[1] of StripOffSets(0x0111), StripByteCounts(0x0117) not found."},
      {cameraDng(Ifd().longs(0x0117, {100})), "SubIFDs[1] of StripOffSets(0x0111), StripByteCounts(0x0117) not found."},
      {withTables(Ifd().longs(0x0201, {1}).bytes(0x0202, kUndefined, table)), "Invalid StitchingAffineTable1(0x0201)"},
      {withTables(Ifd().bytes(0x0201, kUndefined, table).ascii(0x0202, "TABLE")), "Invalid StitchingAffineTable2(0x0202)"},
      {withTables(Ifd().bytes(0x0201, kUndefined, table)),
       "ReceptorIFD of StitchingAffineTable1(0x0201), StitchingAffineTable2(0x0202) not found."},
      {withSyntheticJpegHeader(TiffBuilder().build(Ifd().ascii(0x0110, "OTHER"))), "EXIF-IFD(0x8769) not found."},
  };
  for (const auto& [bytes, message] : cases) {
    ExifParser p;
    EXPECT_EQ(failure([&] { attachDNG(p, bytes); }), message);
  }
}

// ------------------------------------------------------------ hostile blocks

TEST(Robustness, TruncatedAndCorruptedBlocksEndInAKnownMessage) {
  const std::set<std::string> known = {
      "", "Invalid position", "Invalid TIFF-ID(0x002A).", "SOI(0xFFD8) not found.", "Invalid SOI(0xFFD8) found.",
      "Invalid EOI(0xFFD9) found.", "Invalid SOS(0xFFDA) found.", "Unknown marker.", "EXIF-IFD(0x8769) not found.",
      "MakerNote-IFD(0x927C) not found.", "Not a KORVU image.", "ZEPRA-IFD(0x4001) not found.",
      "Only attachDNG() or No SubIFDs entry.", "bigEndian reqired.", "Invalid Type: ASCII[>4] or UNDEF[>4] required.",
      "Invalid 0th SubIFDs. require length = 2", "SubIFDs(0x014A) not found.", "Invalid StripOffSets(0x0111)",
      "Invalid StripByteCounts(0x0117)", "SubIFDs[1] of StripOffSets(0x0111), StripByteCounts(0x0117) not found.",
      "Invalid StitchingAffineTable1(0x0201)", "Invalid StitchingAffineTable2(0x0202)",
      "ReceptorIFD of StitchingAffineTable1(0x0201), StitchingAffineTable2(0x0202) not found.",
      "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.",
      "Invalid entry for Compass(0x0004): RATIONAL[1] required.",
      "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required.",
      "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required.",
      "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required."};
  const std::vector<std::pair<Bytes, void (ExifParser::*)(const unsigned char*, size_t)>> inputs = {
      {cameraJpeg(), &ExifParser::attachBytes},
      {cameraDng(), &ExifParser::attachDNG},
      {TiffBuilder().buildMakerNote(cameraMakerNote()), &ExifParser::attachKMKN},
      {TiffBuilder(kLittleEndian).build(cameraIfd0()), &ExifParser::attachKMKN}};
  ConsoleCapture quiet;
  const auto exercise = [&](const Bytes& bytes, auto attachFn) {
    ExifParser p;
    ExifParser::ZEPRA record;
    const std::string message = failure([&] {
      (p.*attachFn)(bytes.data(), bytes.size());
      p.readZERPA(record);
      p.dumpKMKN();
    });
    EXPECT_TRUE(known.count(message)) << message;
  };
  std::mt19937 random(20240601);
  for (const auto& [bytes, attachFn] : inputs) {
    for (size_t n = 0; n <= bytes.size(); ++n) exercise(Bytes(bytes.begin(), bytes.begin() + n), attachFn);
    for (int round = 0; round < 2000; ++round) {
      Bytes damaged = bytes;
      for (int k = 0; k < 3; ++k) damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
      exercise(damaged, attachFn);
    }
  }
}

// ------------------------------------------------------------ dumps

TEST(Dump, PrintsEveryEntryOfTheDirectoryUnderTheCursor) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(Ifd().shorts(0x0001, {2}).raw(0x4001, kLong, 1, 0xDEADBEEF)));
  p.seekToKORVUMakerNote();
  ConsoleCapture console;
  p.dump("MakerNote");
  EXPECT_EQ(console.text(), "\nMakerNote (2)\n  0: 0001 0003 00000001 00020000\n  1: 4001 0004 00000001 DEADBEEF\n");
}

std::vector<std::string> headings(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != ' ' && line.back() == ')') out.push_back(line);
  }
  return out;
}

TEST(Dump, DumpKMKNPrintsEachDirectoryThenTheRecord) {
  ExifParser p;
  attachDNG(p, cameraDng());
  ExifParser::ZEPRA record;
  p.readZERPA(record);
  ConsoleCapture console;
  p.dumpKMKN();
  const std::string text = console.text();
  EXPECT_EQ(headings(text), (std::vector<std::string>{"IFD0 (5)", "EXIF (1)", "MakerNote (4)", "RECEPTOR (14)",
                                                      "SubIFDs[0] (1)", "SubIFDs[1] (4)"}));
  EXPECT_NE(text.find("\nIFD0 (5)\n  0: 0110 0002 0000000A "), std::string::npos);
  ConsoleCapture recordOnly;
  record.dump();
  EXPECT_NE(text.find("SubIFDs[1] (4)\n  0: 00FE 0004 00000001 00000001\n  1: 0103 0003 00000001 00070000\n"),
            std::string::npos);
  EXPECT_TRUE(text.ends_with(recordOnly.text()));
}

TEST(Dump, DumpKMKNVariants) {
  ExifParser bare;
  attachKMKN(bare, TiffBuilder().buildMakerNote(cameraMakerNote()));
  ConsoleCapture console;
  bare.dumpKMKN();
  EXPECT_TRUE(console.text().starts_with("*** KORVU MakerNote ONLY ***\n\nMakerNote (4)\n"));

  ExifParser detached;
  ConsoleCapture nothing;
  detached.dumpKMKN();
  EXPECT_EQ(nothing.text(), "");

  // A failure ends the dump where it happens.
  ExifParser broken;
  attachKMKN(broken, TiffBuilder().buildMakerNote(Ifd().shorts(0x1000, {1})));
  ConsoleCapture partial;
  EXPECT_EQ(failure([&] { broken.dumpKMKN(); }), "ZEPRA-IFD(0x4001) not found.");
  EXPECT_EQ(partial.text(), "*** KORVU MakerNote ONLY ***\n\nMakerNote (1)\n  0: 1000 0003 00000001 00010000\n");
}

}  // namespace
