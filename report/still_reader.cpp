// JPEG and DNG stills: the camera record from the Exif block, and for DNG
// also where the embedded JPEG preview and the two stitching tables lie.
#include <algorithm>
#include <memory>

#include "exif/exif_parser.h"
#include "gltk/console.h"
#include "gltk/file_io.h"
#include "gltk/wchar.h"
#include "report/meta_reader.h"
#include "report/xmp_values.h"

namespace {

// The camera writes its Exif block at the front; nothing past this is read.
constexpr uint64_t kJpegHeadBytes = 65536;

// SOI, an APP1 marker with length 0xFFFF and "Exif\0\0": put in front of a
// DNG so that the walker's JPEG marker walk finds the TIFF header at 12.
constexpr unsigned char kSyntheticJpegHeader[12] = {0xFF, 0xD8, 0xFF, 0xE1, 0xFF, 0xFF,
                                                    0x45, 0x78, 0x69, 0x66, 0x00, 0x00};

// The most of a raw still's XMP packet that is read.
constexpr uint32_t kXmpLimit = 1 << 20;

// A read's result as the system call gave it: all ones on error, 0 at end.
bool readFailed(uint64_t count) { return static_cast<int64_t>(count) < 1; }

}  // namespace

bool MetaReader::parse_JPEG(const wchar_t* path, bool dump) {
  this->path = path;
  stillRecord.clear();
  stillFailure = "cannot be opened";
  stillXmp.clear();
  bool ok = false;
  GLTK::FileIO::open(this->path, [&](GLTK::FileIO& file) {
    auto bytes = std::make_unique_for_overwrite<unsigned char[]>(kJpegHeadBytes);
    const uint64_t count = file.read(bytes.get(), kJpegHeadBytes);
    if (readFailed(count)) {
      GLTK::Console::out(L"FileIO.read(%ls) failed.\n", path);
      stillFailure = count == 0 ? "empty file" : "cannot be read";
      return;
    }
    stillXmp = jpegXmp(bytes.get(), count);
    try {
      ExifParser parser;
      parser.attachBytes(bytes.get(), count);
      parser.seekToKORVUMakerNote();
      parser.readZERPA(stillRecord);
      ok = true;
      stillFailure.clear();
      if (dump) {
        parser.dumpKMKN();
        GLTK::Console::out(L"\n");
      }
    } catch (const char* message) {
      GLTK::Console::out(L"ExifParser::attachJPEG() for '%ls' failed - %ls\n", path,
                         GLTK::wchar::mbs2wcs(message).c_str());
      if (!ok) stillFailure = message;
    }
  });
  return ok;
}

bool MetaReader::parse_DNG(const wchar_t* path, bool dump) {
  this->path = path;
  stillRecord.clear();
  previewOffset = previewLength = 0;
  affineTable1Offset = affineTable1Length = affineTable2Offset = affineTable2Length = 0;
  stillFailure = "cannot be opened";
  stillXmp.clear();
  bool ok = false;
  GLTK::FileIO::open(this->path, [&](GLTK::FileIO& file) {
    // The walker reads the file on demand, behind the synthetic header, so
    // only the ranges it visits are read: the directories, the maker note
    // and the strings, wherever in the file they lie.
    const uint64_t length = file.length();
    constexpr uint64_t headerSize = sizeof kSyntheticJpegHeader;
    unsigned char first;
    if (length == 0 || readFailed(file.read_at(&first, 1, 0))) {
      GLTK::Console::out(L"FileIO.read(%ls) failed.\n", path);
      stillFailure = length == 0 ? "empty file" : "cannot be read";
      return;
    }
    const auto source = [&file](unsigned char* dst, uint64_t n, uint64_t pos) {
      uint64_t done = 0;
      for (; done < n && pos + done < headerSize; ++done) dst[done] = kSyntheticJpegHeader[pos + done];
      while (done < n) {
        const uint64_t got = file.read_at(dst + done, n - done, pos + done - headerSize);
        if (readFailed(got)) break;
        done += got;
      }
      return done;
    };
    try {
      ExifParser parser;
      parser.attachDNG(source, length + headerSize);
      parser.readZERPA(stillRecord);
      previewOffset = parser.stripOffset;
      previewLength = parser.stripByteCount;
      affineTable1Offset = parser.affineTable1Offset;
      affineTable1Length = parser.affineTable1Length;
      affineTable2Offset = parser.affineTable2Offset;
      affineTable2Length = parser.affineTable2Length;
      ok = true;
      stillFailure.clear();
      // IFD0's XMP packet (tag 700), for --json. It never fails the still: a
      // packet that lies outside the file is left out.
      try {
        parser.seekToIFD0();
        parser.find(0x02BC, [&](uint16_t, uint16_t, uint32_t count, uint32_t value) {
          if (count <= 4) return;
          stillXmp.resize(std::min(count, kXmpLimit));
          parser.read(reinterpret_cast<unsigned char*>(stillXmp.data()), stillXmp.size(), parser.tiffBase + value);
        });
      } catch (const char*) {
        stillXmp.clear();
      }
      if (dump) {
        parser.dumpKMKN();
        GLTK::Console::out(L"\n");
        GLTK::Console::out(L"Table1: %u, %u\n", affineTable1Offset, affineTable1Length);
        GLTK::Console::out(L"Table2: %u, %u\n", affineTable2Offset, affineTable2Length);
        GLTK::Console::out(L"\n");
      }
    } catch (const char* message) {
      GLTK::Console::out(L"ExifParser::attachDNG() failed - %ls\n", GLTK::wchar::mbs2wcs(message).c_str());
      if (!ok) stillFailure = message;
    }
  });
  return ok;
}
