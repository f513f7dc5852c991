// The Exif walker from each of its three callers, with the camera record
// and the directory dump: a movie's maker-note box (attachKMKN), the first
// 64 KiB of a JPEG (attachBytes) and a DNG read on demand behind the
// synthetic JPEG header (attachDNG). Failures are thrown as message texts, which the
// callers catch; anything else escaping is a finding.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "exif/exif_parser.h"
#include "fuzz/fuzz_support.h"

using namespace sondex::fuzz;

namespace {

constexpr size_t kJpegHeadBytes = 65536;
constexpr uint8_t kSyntheticJpegHeader[12] = {0xFF, 0xD8, 0xFF, 0xE1, 0xFF, 0xFF, 0x45, 0x78, 0x69, 0x66, 0x00, 0x00};

// A fresh parser for each step, as each caller makes one.
void withParser(const std::function<void(ExifParser&)>& steps) {
  ExifParser parser;
  try {
    steps(parser);
  } catch (const char*) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  initProgram();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ExifParser::ZEPRA record;
  // The movie probe, then the -dump of the maker-note box.
  withParser([&](ExifParser& p) {
    p.attachKMKN(data, size);
    p.readZERPA(record);
  });
  withParser([&](ExifParser& p) {
    p.attachKMKN(data, size);
    p.dumpKMKN();
  });
  // A JPEG still.
  withParser([&](ExifParser& p) {
    p.attachBytes(data, std::min(size, kJpegHeadBytes));
    p.seekToKORVUMakerNote();
    p.readZERPA(record);
    p.dumpKMKN();
  });
  // A DNG still.
  std::vector<uint8_t> dng(std::begin(kSyntheticJpegHeader), std::end(kSyntheticJpegHeader));
  dng.insert(dng.end(), data, data + size);
  withParser([&](ExifParser& p) {
    p.attachDNG(
        [&dng](unsigned char* dst, uint64_t n, uint64_t pos) {
          n = std::min<uint64_t>(n, dng.size() - pos);
          std::copy_n(dng.begin() + static_cast<std::ptrdiff_t>(pos), n, dst);
          return n;
        },
        dng.size());
    p.readZERPA(record);
    p.dumpKMKN();
  });
  record.attachCompass();
  record.dump();
  return 0;
}
