// The still readers: the camera record of a JPEG (first 64 KiB) and of a
// DNG (read where the walk goes, with its preview and stitching tables),
// their dumps and failure lines; real stills of other makers refused.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "exif/exif_parser.h"
#include "report/meta_reader.h"
#include "tests/support/files.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;

struct Outcome {
  bool ok;
  std::string console;
};

Outcome parse(MetaReader& reader, const std::string& path, bool dump = false) {
  ConsoleCapture console;
  const std::wstring wide = widen(path);
  const bool ok = path.ends_with(".jpg") ? reader.parse_JPEG(wide.c_str(), dump) : reader.parse_DNG(wide.c_str(), dump);
  return {ok, console.text()};
}

Bytes ffmpegJpeg(const TempDir& dir) {
  run("ffmpeg -v error -y -f lavfi -i testsrc=size=64x32 -frames:v 1 '" + dir.file("plain.jpg") + "'");
  return readFile(dir.file("plain.jpg"));
}

TEST(StillReader, JpegReadsQuietlyDumpsOnRequestAndPrintsItsFailures) {
  TempDir dir;
  Bytes jpeg = jpegWithExif(TiffBuilder().build(cameraIfd0()));
  const std::string path = dir.write("still.jpg", jpeg);
  MetaReader reader;
  EXPECT_EQ(parse(reader, path).console, "");
  EXPECT_STREQ(reader.stillRecord.model.c_str(), "KV-360 S1");
  EXPECT_FLOAT_EQ(reader.stillRecord.yaw, 123.25f);
  const Outcome dumped = parse(reader, path, true);
  EXPECT_TRUE(dumped.ok);
  EXPECT_TRUE(dumped.console.starts_with("\nIFD0 (3)\n")) << dumped.console;
  EXPECT_TRUE(dumped.console.ends_with("     samplingRate: 29.970030\n\n")) << dumped.console;

  const std::string far = dir.write(  // the Exif block starts near 64 KiB and runs past it
      "far.jpg", jpegWithExif(TiffBuilder().build(cameraIfd0()), {jpegSegment(0xFFE2, Bytes(65400, 0))}));
  const std::string empty = dir.write("empty.jpg", {});
  const std::string missing = dir.file("missing.jpg");
  for (const auto& [file, line] : std::vector<std::pair<std::string, std::string>>{
           {far, "ExifParser::attachJPEG() for '" + far + "' failed - Invalid position\n"},
           {empty, "FileIO.read(" + empty + ") failed.\n"},
           {missing, "open(" + missing + ", 'r') failed.\n"}}) {
    const Outcome out = parse(reader, file);
    EXPECT_FALSE(out.ok);
    EXPECT_EQ(out.console, line);
    EXPECT_EQ(reader.stillRecord.cpuVersion, "");
  }

  // The record reads but the dump runs off the buffer: still a success.
  ExifParser locate;
  locate.attachBytes(jpeg.data(), jpeg.size());
  locate.seekToZEPRA();
  jpeg[locate.zepraPos] = jpeg[locate.zepraPos + 1] = 0xFF;  // product IFD entry count 65535
  dir.write("still.jpg", jpeg);
  const Outcome out = parse(reader, path, true);
  EXPECT_TRUE(out.ok);
  EXPECT_TRUE(out.console.ends_with("ExifParser::attachJPEG() for '" + path + "' failed - Invalid position\n"));
}

// Writes bytes at offset of an existing file, leaving a hole before them.
void writeAt(const std::string& path, uint64_t offset, const Bytes& bytes) {
  std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
  out.seekp(static_cast<std::streamoff>(offset));
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

TEST(StillReader, DngIsReadWhereTheWalkGoesWhateverTheFileSize) {
  // IFD0 at the front; the SubIFDs, the Exif IFD, the maker note (with a
  // version text longer than the walker's window) and the preview 3 GiB in.
  constexpr uint32_t kFar = 0xC0000000;
  const Bytes preview = fromHex("FFD8 FFDB 0004 0000 FFD9");
  const std::string version(40000, 'V');
  const Bytes far = TiffBuilder().buildAt(
      Ifd()
          .subs(0x014A, {Ifd().longs(0x00FE, {0}), previewIfd(preview)})
          .sub(0x8769, Ifd().makerNote(0x927C, Ifd().ascii(0x0002, version).sub(0x4001, cameraZepra()))),
      kFar);
  const auto valueOf = [&](size_t entry) {  // of the holding directory's entries
    const size_t at = 2 + 12 * entry + 8;
    return uint32_t{far[at]} << 24 | uint32_t{far[at + 1]} << 16 | uint32_t{far[at + 2]} << 8 | far[at + 3];
  };
  TempDir dir;
  const std::string path = dir.write("far.dng", TiffBuilder().build(Ifd()
                                                                        .ascii(0x0131, "KV-360 Ver 1.20")
                                                                        .raw(0x014A, kLong, 2, valueOf(0))
                                                                        .raw(0x8769, kLong, 1, valueOf(1))));
  writeAt(path, kFar, far);
  MetaReader reader;
  const Outcome out = parse(reader, path, true);
  ASSERT_TRUE(out.ok) << out.console;
  EXPECT_EQ(reader.stillRecord.software, "KV-360 Ver 1.20" + std::string(1, '\0'));
  EXPECT_EQ(reader.stillRecord.cpuVersion, version + '\0');
  EXPECT_FLOAT_EQ(reader.stillRecord.yaw, 123.25f);
  const auto found = std::search(far.begin(), far.end(), preview.begin(), preview.end());
  EXPECT_EQ(reader.previewOffset, kFar + (found - far.begin()));
  EXPECT_EQ(reader.previewLength, preview.size());
  EXPECT_EQ(far[reader.affineTable1Offset - kFar] + far[reader.affineTable2Offset - kFar], 0xA1 + 0xA2);
  EXPECT_NE(out.console.find("\nSubIFDs[1] (4)\n"), std::string::npos);
  EXPECT_TRUE(
      out.console.ends_with("     samplingRate: 29.970030\n\nTable1: " + std::to_string(reader.affineTable1Offset) +
                            ", 24\nTable2: " + std::to_string(reader.affineTable2Offset) + ", 40\n\n"))
      << out.console;

  std::filesystem::resize_file(path, kFar + 100);  // cut inside the maker note
  EXPECT_EQ(parse(reader, path).console, "ExifParser::attachDNG() failed - Invalid position\n");
  std::filesystem::resize_file(path, 0);
  EXPECT_EQ(parse(reader, path).console, "FileIO.read(" + path + ") failed.\n");
  EXPECT_EQ(reader.previewOffset + reader.previewLength + reader.affineTable2Offset, 0u);
  std::filesystem::resize_file(path, uint64_t{1} << 30);  // 1 GiB, no TIFF header
  EXPECT_EQ(parse(reader, path).console, "ExifParser::attachDNG() failed - Invalid TIFF-ID(0x002A).\n");
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss, 256 * 1024);  // kilobytes
}

TEST(StillReader, StillsFromOtherMakersAreRefused) {
  const char* source = std::getenv("SONDEX_SOURCE_DIR");
  if (source == nullptr) GTEST_SKIP() << "SONDEX_SOURCE_DIR not set";
  const std::string dir = std::string(source) + "/tests/data/realworld/";
  const std::string jpegLine = "ExifParser::attachJPEG() for '" + dir;
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Canon.jpg", jpegLine + "Canon.jpg' failed - Not a KORVU image.\n"},
      {"Nikon.jpg", jpegLine + "Nikon.jpg' failed - Not a KORVU image.\n"},
      {"GPS.jpg", jpegLine + "GPS.jpg' failed - MakerNote-IFD(0x927C) not found.\n"},
      {"Writer.jpg", jpegLine + "Writer.jpg' failed - Invalid SOS(0xFFDA) found.\n"},
      {"DNG.dng", "ExifParser::attachDNG() failed - MakerNote-IFD(0x927C) not found.\n"},
      {"Nikon.nef", "ExifParser::attachDNG() failed - Not a KORVU image.\n"},
      {"CanonRaw.cr2", "ExifParser::attachDNG() failed - Invalid position\n"},
  };
  for (const auto& [name, line] : cases) {
    MetaReader reader;
    const Outcome out = parse(reader, dir + name, true);
    EXPECT_FALSE(out.ok) << name;
    EXPECT_EQ(out.console, line);
  }

  // A still that ffmpeg wrote and exiftool tagged, step by step.
  if (!haveProgram("ffmpeg") || !haveProgram("exiftool")) GTEST_SKIP() << "ffmpeg or exiftool not installed";
  TempDir temp;
  const std::string path = temp.write("other.jpg", ffmpegJpeg(temp));
  const std::string line = "ExifParser::attachJPEG() for '" + path + "' failed - ";
  MetaReader reader;
  run("exiftool -q -overwrite_original -Model='Other Cam' -Software='Other 1.0' '" + path + "'");
  EXPECT_EQ(parse(reader, path).console, line + "EXIF-IFD(0x8769) not found.\n");
  run("exiftool -q -overwrite_original -ExposureTime=0.01 '" + path + "'");
  EXPECT_EQ(parse(reader, path).console, line + "MakerNote-IFD(0x927C) not found.\n");
}

}  // namespace
