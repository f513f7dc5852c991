// The Exif walker and the camera record. Each block of the table is attached and its record read (some dumped
// first, as -dump does); what that gives, up to the failure that ends it, must read as in golden/walks.txt
// (SONDEX_UPDATE_GOLDEN=1 rewrites it).
#include <gtest/gtest.h>

#include <sstream>

#include "exif/exif_parser.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;

std::string failure(const std::function<void()>& f) try { return f(), ""; } catch (const char* m) {
  return m;
}

enum How { kJpeg, kNote, kDng, kDumpJpeg, kDumpNote, kDumpDng };  // attached as JPEG head, KMKN box, raw still
struct Block {
  std::string name;
  How how;
  Bytes bytes;
  uint64_t size = 0;
};  // size: a raw still's, if not bytes'

// What -dump prints (or only the record), the record's extras, the raw still's strip and tables, the source's reads
// and the seeks once more.
std::string walk(const Block& b) {
  ExifParser p;
  ExifParser::ZEPRA r;
  r.model = "reused";  // a bare maker note has no IFD0 to take it from
  uint64_t asked = 0;
  const auto source = [&](unsigned char* dst, uint64_t n, uint64_t pos) {
    const size_t from = std::min<size_t>(pos, b.bytes.size());
    asked += n, n = std::min<uint64_t>(n, b.bytes.size() - from);
    return std::copy_n(b.bytes.begin() + ptrdiff_t(from), n, dst), n;
  };
  ConsoleCapture console;
  const std::string message = failure([&] {
    if (b.how % 3 == kJpeg) p.attachBytes(b.bytes.data(), b.bytes.size());
    if (b.how % 3 == kNote) p.attachKMKN(b.bytes.data(), b.bytes.size());
    if (b.how % 3 == kDng) p.attachDNG(source, b.size ? b.size : b.bytes.size());
    if (b.how >= kDumpJpeg) p.dumpKMKN();
    p.readZERPA(r);
  });
  r.dump();
  std::ostringstream out;
  out << "== " << b.name << console.text() << "-> " << message << " | " << r.model.size() << " " << r.stabilizeFlag1
      << r.stabilizeFlag2 << r.stabilizeEnabled << " | strip " << p.stripOffset << "+" << p.stripByteCount << " tables "
      << p.affineTable1Offset << "+" << p.affineTable1Length << " " << p.affineTable2Offset << "+"
      << p.affineTable2Length << " | asked " << asked << " of " << p.bufferSize
      << " | seeks again: " << failure([&] { p.seekToIFD0(); }) << "; " << failure([&] { p.seekToEXIF(); }) << "; "
      << failure([&] { p.seekToMakerNote(); }) << "; " << failure([&] { p.seekToSubIFD(1); }) << "\n";
  return out.str();
}

// The walks with every line that repeats the line at the same place in the walk above replaced by a count, so
// that the golden file shows what each block changes (and still pins every line).
std::string elideRepeats(const std::vector<std::string>& walks) {
  std::vector<std::string> above;
  std::string out;
  for (const std::string& walk : walks) {
    std::vector<std::string> lines;
    std::istringstream in(walk);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    for (size_t i = 0, same = 0; i <= lines.size(); ++i) {
      const bool repeated = i > 0 && i < lines.size() && i < above.size() && lines[i] == above[i];
      if (!repeated && same > 0) out += "   (" + std::to_string(same) + " lines as above)\n";
      if (!repeated && i < lines.size()) out += lines[i] + "\n";
      same = repeated ? same + 1 : 0;
    }
    above = lines;
  }
  return out;
}

Bytes jpeg(const Ifd& ifd0, bool big = kBigEndian) { return jpegWithExif(TiffBuilder(big).build(ifd0)); }
Bytes note(const Ifd& zepra) { return TiffBuilder().buildMakerNote(Ifd().sub(0x4001, zepra)); }
// Compass comes first, but Zenith is read before it.
Bytes attitude(int r, int p, uint32_t y) { return note(Ifd().rationals(4, {y, 1}).srationals(3, {r, 1, p, 1})); }
// What the raw-still reader hands the walker: SOI, an APP1 of length 0xFFFF, "Exif\0\0", the file.
Bytes dng(const Ifd& ifd0) { return concat({fromHex("FFD8 FFE1 FFFF 4578 6966 0000"), TiffBuilder().build(ifd0)}); }
Bytes camera(const Ifd& zepra) { return dng(cameraDngIfd0(previewIfd({}), cameraMakerNote(zepra))); }
Bytes subIFDs(Ifd ifd0) { return dng(ifd0.sub(0x8769, Ifd().makerNote(0x927C, cameraMakerNote()))); }
Bytes patched(Bytes b, size_t at, uint8_t v) { return b[at] = v, b; }
Bytes afterMarkers(size_t n) {  // the Exif APP1 after n - 2 APP0s, a fill word and an APP1 of "Exif\0\1"
  std::vector<Bytes> before(n - 2, jpegSegment(0xFFE0, Bytes(14, 0)));
  before.insert(before.end(), {fromHex("FFFF"), jpegSegment(0xFFE1, fromHex("4578 6966 0001"))});
  return jpegWithExif(TiffBuilder(kLittleEndian).build(cameraIfd0()), before);
}

TEST(ExifWalker, WalksEveryBlockAsInTheGoldenFile) {
  const Bytes table(8, 0), raw = dng(cameraDngIfd0(previewIfd({0xFF, 0xD9}))), cut(raw.begin(), raw.begin() + 500);
  const std::vector<Block> blocks = {
      {"camera JPEG", kDumpJpeg, jpeg(cameraIfd0())},
      {"Exif as the 32nd marker", kJpeg, afterMarkers(31)},
      {"little-endian: no SHORTs", kDumpJpeg, jpeg(cameraIfd0(), false)},
      {"as the 33rd", kDumpJpeg, afterMarkers(32)},
      {"IFD0 at 0x20: the first walk stops after the header", kDumpJpeg, patched(jpeg(cameraIfd0()), 19, 0x20)},
      {"empty", kJpeg, {}},
      {"no SOI", kJpeg, fromHex("FFD9 FFD8")},
      {"second SOI", kJpeg, fromHex("FFD8 FFD8")},
      {"EOI", kJpeg, fromHex("FFD8 FFD9")},
      {"SOS", kJpeg, fromHex("FFD8 FFDA 0002")},
      {"no marker", kJpeg, fromHex("FFD8 1234")},
      {"TIFF-ID 43", kJpeg, patched(jpeg(Ifd()), 15, 43)},
      {"no Exif IFD", kJpeg, jpeg(Ifd().ascii(0x0110, "MODEL"))},
      {"no maker note", kJpeg, jpeg(Ifd().sub(0x8769, Ifd().shorts(0xA001, {1})))},
      {"other maker", kJpeg, jpeg(Ifd().sub(0x8769, Ifd().makerNote(0x927C, Ifd(), std::string("Korvo\0\0\0", 8))))},
      {"no product IFD", kJpeg, jpeg(cameraIfd0(Ifd().ascii(0x0002, "CPU 2.10")))},
      {"Exif IFD past the end", kJpeg, jpeg(Ifd().raw(0x8769, kLong, 1, 0xFFFFFFFF))},
      {"maker note past the end", kJpeg, jpeg(Ifd().sub(0x8769, Ifd().raw(0x927C, kUndefined, 8, 0xFFFFFFF8)))},
      {"model of 4 bytes", kJpeg, jpeg(Ifd().ascii(0x0110, "KV1"))},
      {"model as SHORT[8]", kJpeg, jpeg(Ifd().raw(0x0110, kShort, 8, 0))},
      {"model past the end", kJpeg, jpeg(Ifd().raw(0x0110, kAscii, 0xFFFFFFFF, 0))},
      {"software past the end", kJpeg, jpeg(Ifd().raw(0x0131, kAscii, 5, 0xFFFFFFFF))},
      {"bare maker note", kDumpNote, TiffBuilder().buildMakerNote(cameraMakerNote())},
      {"TIFF block", kDumpNote, TiffBuilder(kLittleEndian).build(cameraIfd0())},
      {"TIFF block's ID 43", kNote, fromHex("4D4D 002B")},
      {"signature 7 bytes", kNote, fromHex("4B6F 7276 7500 00")},
      {"entry count past the end", kNote, fromHex("4B6F 7276 7500 0000 FFFF 0001 0003")},
      {"pitch 45", kNote, attitude(30, 45, 10)},
      {"pitch -45", kNote, attitude(30, -45, 10)},
      {"pitch 90", kNote, attitude(30, 90, 10)},
      {"pitch -90", kNote, attitude(30, -90, 10)},
      {"pitch 60, yaw 540", kNote, attitude(0, 60, 540)},
      {"compass beyond 2^31", kNote, note(Ifd().rationals(0x0004, {4000000000u, 2}))},
      {"zenith as RATIONAL[2]", kNote, note(Ifd().rationals(0x0003, {1, 1, 2, 1}))},
      {"zenith as RATIONAL[3]: taken", kNote, note(Ifd().rationals(0x0003, {10, 2, 20, 4, 9, 9}))},
      {"zenith over zero", kNote, note(Ifd().srationals(0x0003, {-90, 1, 45, 0}))},
      {"compass as SRATIONAL", kNote, note(Ifd().rationals(0x0004, {1, 1}, kSRational))},
      {"compass as RATIONAL[2]", kNote, note(Ifd().rationals(0x0004, {1, 1, 2, 2}))},
      {"stitching just valid", kNote,
       note(Ifd().shorts(0x0203, {0}).shorts(0x0204, {1, 65535}).shorts(0x0205, {1, 1}).rationals(0x0206, {1, 9}))},
      {"fisheye centre as LONG", kNote, note(Ifd().longs(0x0204, {1}))},
      {"movie fisheye centre as SHORT[3]", kNote, note(Ifd().shorts(0x0205, {1, 2, 3}))},
      {"sampling rate as SHORT", kNote, note(Ifd().shorts(0x0206, {30}))},
      {"projection as ASCII: the upper half taken", kNote, note(Ifd().raw(0x0001, kAscii, 9, 0x00020000))},
      {"camera raw still", kDumpDng, raw},
      {"claiming 1 TiB: one window read", kDng, raw, uint64_t{1} << 40},
      {"cut short", kDng, cut, raw.size()},
      {"SubIFDs count 1", kDng, subIFDs(Ifd().raw(0x014A, kLong, 1, 0))},
      {"no SubIFDs", kDng, subIFDs(Ifd())},
      {"SubIFDs of zeros", kDng, subIFDs(Ifd().longs(0x014A, {0, 0}))},
      {"strip offset as SHORT", kDng, dng(cameraDngIfd0(Ifd().shorts(0x0111, {100}).longs(0x0117, {2})))},
      {"strip size as LONG[2]", kDng, dng(cameraDngIfd0(Ifd().longs(0x0111, {100}).longs(0x0117, {2, 3})))},
      {"no strip size", kDng, dng(cameraDngIfd0(Ifd().longs(0x0111, {100})))},
      {"no strip offset", kDng, dng(cameraDngIfd0(Ifd().longs(0x0117, {100})))},
      {"table 1 as LONG", kDng, camera(Ifd().longs(0x0201, {1}).bytes(0x0202, kUndefined, table))},
      {"table 2 as ASCII", kDng, camera(Ifd().bytes(0x0201, kUndefined, table).ascii(0x0202, "TABLE"))},
      {"no table 2", kDng, camera(Ifd().bytes(0x0201, kUndefined, table))},
  };
  std::vector<std::string> walks;
  for (uint16_t stored : {0, 1, 2, 3, 4, 5, 6, 7, 9, 10, 13}) {
    walks.push_back(walk({"stabilisation " + std::to_string(stored), kNote, note(Ifd().shorts(0x1014, {stored}))}));
  }
  for (const Block& b : blocks) walks.push_back(walk(b));
  const std::string text = elideRepeats(walks);
  EXPECT_EQ(text, golden("tests/exif/golden/walks.txt", text));
}

}  // namespace
