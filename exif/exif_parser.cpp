// The Exif/TIFF walker: attaching a block, finding the camera's directories
// in it, reading entries under the cursor and dumping directories.
//
// Every read goes through read(), which checks the span against the block
// without adding untrusted numbers first and, for a block read from a
// source, moves the window only when the span lies outside it. The walker
// never follows next-IFD links: each seek goes one fixed step down IFD0 ->
// Exif -> MakerNote -> maker-note IFD -> product IFD and reads at most one
// directory's entries, so directory pointers that loop back cannot make it
// run forever.
#include "exif/exif_parser.h"

#include <algorithm>
#include <cstring>

#include "gltk/byte_order.h"
#include "gltk/console.h"

namespace {

// The maker-note signature: the maker's name padded with zeros to 8 bytes.
constexpr unsigned char kKorvuSignature[8] = {'K', 'o', 'r', 'v', 'u', 0, 0, 0};
constexpr unsigned char kExifSignature[6] = {'E', 'x', 'i', 'f', 0, 0};

constexpr uint16_t kTiffId = 42;
constexpr uint16_t kBigEndianMark = 0x4D4D;  // "MM"
constexpr int kMaxMarkers = 32;
// The window over a source-read block. It starts on a multiple of half its
// size, so any read of up to half a window fits in it; longer reads go
// straight to the source.
constexpr uint64_t kWindow = 65536;

constexpr uint16_t kTypeLong = 4;
constexpr uint16_t kTypeUndefined = 7;

}  // namespace

ExifParser::~ExifParser() { delete[] buffer; }

void ExifParser::attachBytes(const unsigned char* data, size_t size) {
  delete[] buffer;
  buffer = nullptr;
  bufferSize = 0;
  source = nullptr;
  if (data != nullptr && size != 0) {
    buffer = new unsigned char[size];
    std::memcpy(buffer, data, size);
    bufferSize = size;
  }
  windowStart = 0;
  windowLength = bufferSize;
  cursor = 0;
  cursorStack.clear();
  bigEndian = true;
  tiffBase = 0;
  ifd0Pos = exifPos = makerNotePos = korvuMakerNotePos = zepraPos = 0;
  makerNoteOnly = 0;
  subIFDs[0] = subIFDs[1] = 0;
  stripOffset = stripByteCount = 0;
  affineTable1Offset = affineTable1Length = affineTable2Offset = affineTable2Length = 0;
}

void ExifParser::attachSource(Source from, uint64_t size) {
  attachBytes(nullptr, 0);
  if (!from || size == 0) return;
  buffer = new unsigned char[kWindow];
  bufferSize = size;
  source = std::move(from);
  windowLength = 0;
}

void ExifParser::attachKMKN(const unsigned char* data, size_t size) {
  attachBytes(data, size);
  if (size >= sizeof kKorvuSignature && std::memcmp(data, kKorvuSignature, sizeof kKorvuSignature) == 0) {
    // A bare maker note: its offsets count from the signature.
    bigEndian = true;
    makerNoteOnly = 1;
    korvuMakerNotePos = sizeof kKorvuSignature;
    return;
  }
  tiffBase = 0;
  bigEndian = read16() == kBigEndianMark;
  if (read16() != kTiffId) {
    attachBytes(nullptr, 0);
    throw "Invalid TIFF-ID(0x002A).";
  }
  ifd0Pos = read32() + tiffBase;
}

void ExifParser::attachDNG(Source from, uint64_t size) {
  attachSource(std::move(from), size);
  seekToKORVUMakerNote();

  seekToIFD0();
  const bool haveSubIFDs = find(0x014A, [this](uint16_t, uint16_t, uint32_t count, uint32_t value) {
    if (count != 2) throw "Invalid 0th SubIFDs. require length = 2";
    cursor = value + tiffBase;
    subIFDs[0] = read32();
    subIFDs[1] = read32();
  });
  if (!haveSubIFDs) throw "SubIFDs(0x014A) not found.";

  seekToSubIFD(1);
  bool found = find(0x0111, [this](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
    if (type != kTypeLong || count != 1) throw "Invalid StripOffSets(0x0111)";
    stripOffset = value;
  });
  if (found) {
    seekToSubIFD(1);
    found = find(0x0117, [this](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
      if (type != kTypeLong || count != 1) throw "Invalid StripByteCounts(0x0117)";
      stripByteCount = value;
    });
  }
  if (!found) throw "SubIFDs[1] of StripOffSets(0x0111), StripByteCounts(0x0117) not found.";

  seekToZEPRA();
  found = find(0x0201, [this](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
    if (type != kTypeUndefined) throw "Invalid StitchingAffineTable1(0x0201)";
    affineTable1Offset = value;
    affineTable1Length = count;
  });
  if (found) {
    seekToZEPRA();
    found = find(0x0202, [this](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
      if (type != kTypeUndefined) throw "Invalid StitchingAffineTable2(0x0202)";
      affineTable2Offset = value;
      affineTable2Length = count;
    });
  }
  if (!found) throw "ReceptorIFD of StitchingAffineTable1(0x0201), StitchingAffineTable2(0x0202) not found.";
}

// Positioning ---------------------------------------------------------------

void ExifParser::seekToIFD0() {
  if (makerNoteOnly != 0) throw "Only KORVU Meta";
  if (ifd0Pos != 0) {
    cursor = ifd0Pos;
    return;
  }
  bigEndian = true;
  cursor = 0;
  if (read16() != 0xFFD8) throw "SOI(0xFFD8) not found.";
  for (int examined = 0; examined < kMaxMarkers; ++examined) {
    const uint16_t marker = read16();
    if (marker == 0xFFD8) throw "Invalid SOI(0xFFD8) found.";
    if (marker == 0xFFD9) throw "Invalid EOI(0xFFD9) found.";
    if (marker == 0xFFDA) throw "Invalid SOS(0xFFDA) found.";
    if (marker == 0xFFFF) continue;  // fill word: nothing to skip
    if (marker < 0xFF00) throw "Unknown marker.";
    const uint64_t lengthPos = cursor;
    const uint16_t length = read16();
    if (marker == 0xFFE1) {
      unsigned char signature[sizeof kExifSignature];
      read(signature, sizeof signature, cursor);
      cursor += sizeof signature;
      if (std::memcmp(signature, kExifSignature, sizeof signature) == 0) {
        tiffBase = cursor;
        bigEndian = read16() == kBigEndianMark;
        if (read16() != kTiffId) throw "Invalid TIFF-ID(0x002A).";
        ifd0Pos = read32() + tiffBase;
        // The first walk leaves the cursor just after the TIFF header; later
        // calls jump to ifd0Pos. With the usual IFD0 offset of 8 they agree.
        return;
      }
    }
    cursor = lengthPos + length;
  }
  // No Exif within the first 32 markers: give up quietly and leave the
  // cursor where the walk ended; the caller's next lookup reports the damage.
}

void ExifParser::seekByTag(uint16_t tag, uint64_t& cache, const char* missing) {
  const bool found = find(tag, [this, &cache](uint16_t, uint16_t, uint32_t, uint32_t value) {
    cache = value + tiffBase;
    cursor = cache;
  });
  if (!found) throw missing;
}

void ExifParser::seekToEXIF() {
  if (makerNoteOnly != 0) throw "Only KORVU Meta";
  if (exifPos != 0) {
    cursor = exifPos;
    return;
  }
  seekToIFD0();
  seekByTag(0x8769, exifPos, "EXIF-IFD(0x8769) not found.");
}

void ExifParser::seekToMakerNote() {
  if (makerNoteOnly != 0) throw "Only KORVU Meta";
  if (makerNotePos != 0) {
    cursor = makerNotePos;
    return;
  }
  seekToEXIF();
  seekByTag(0x927C, makerNotePos, "MakerNote-IFD(0x927C) not found.");
}

void ExifParser::seekToKORVUMakerNote() {
  if (korvuMakerNotePos != 0) {
    cursor = korvuMakerNotePos;
    return;
  }
  seekToMakerNote();
  unsigned char signature[sizeof kKorvuSignature];
  read(signature, sizeof signature, cursor);
  if (std::memcmp(signature, kKorvuSignature, sizeof signature) != 0) throw "Not a KORVU image.";
  cursor += sizeof signature;
  korvuMakerNotePos = cursor;
}

void ExifParser::seekToZEPRA() {
  if (zepraPos != 0) {
    cursor = zepraPos;
    return;
  }
  seekToKORVUMakerNote();
  seekByTag(0x4001, zepraPos, "ZEPRA-IFD(0x4001) not found.");
}

void ExifParser::seekToSubIFD(int i) {
  if (i < 0 || i > 1 || subIFDs[i] == 0) throw "Only attachDNG() or No SubIFDs entry.";
  cursor = subIFDs[i] + tiffBase;
}

// Reading -------------------------------------------------------------------

bool ExifParser::inWindow(uint64_t pos, uint64_t n) const {
  return pos >= windowStart && pos - windowStart <= windowLength && n <= windowLength - (pos - windowStart);
}

void ExifParser::read(unsigned char* dst, size_t n, size_t pos) const {
  if (n > bufferSize || pos > bufferSize - n) throw "Invalid position";
  if (n == 0) return;
  if (!inWindow(pos, n)) {
    // Only a source-read block gets here; one that ends early (a file cut
    // short while it is read) fails like any read past the block.
    if (!source) throw "Invalid position";
    if (n > kWindow / 2) {
      if (source(dst, n, pos) != n) throw "Invalid position";
      return;
    }
    windowStart = pos - pos % (kWindow / 2);
    const uint64_t wanted = std::min(kWindow, bufferSize - windowStart);
    const uint64_t got = source(buffer, wanted, windowStart);
    windowLength = got <= wanted ? got : 0;
    if (!inWindow(pos, n)) throw "Invalid position";
  }
  std::memcpy(dst, buffer + (pos - windowStart), n);
}

uint16_t ExifParser::read16() {
  unsigned char b[2];
  read(b, sizeof b, cursor);
  cursor += sizeof b;
  return bigEndian ? GLTK::loadBE16(b) : GLTK::loadLE16(b);
}

uint32_t ExifParser::read32() {
  unsigned char b[4];
  read(b, sizeof b, cursor);
  cursor += sizeof b;
  return bigEndian ? GLTK::loadBE32(b) : GLTK::loadLE32(b);
}

void ExifParser::readEntry(uint16_t& tag, uint16_t& type, uint32_t& count, uint32_t& value) {
  tag = read16();
  type = read16();
  count = read32();
  value = read32();
}

bool ExifParser::enumEntry(uint16_t& remaining, const EntryVisitor& fn) {
  bool more = true;
  while (remaining != 0) {
    uint16_t tag, type;
    uint32_t count, value;
    readEntry(tag, type, count, value);
    more = fn(tag, type, count, value);
    --remaining;
    if (!more) break;
  }
  return more;
}

bool ExifParser::findEntry(uint16_t& remaining, uint16_t tag, const EntryHandler& fn) {
  bool found = false;
  enumEntry(remaining, [&](uint16_t t, uint16_t type, uint32_t count, uint32_t value) {
    if (t != tag) return true;
    found = true;
    fn(t, type, count, value);
    return false;
  });
  return found;
}

bool ExifParser::find(uint16_t tag, const EntryHandler& fn) {
  uint16_t remaining = read16();
  return findEntry(remaining, tag, fn);
}

uint16_t ExifParser::toUINT16(uint32_t value) const {
  // A SHORT is the upper half of the value word only in big-endian blocks.
  // The message is kept byte for byte, misspelling included: programs that
  // read the output match on it.
  if (!bigEndian) throw "bigEndian reqired.";
  return static_cast<uint16_t>(value >> 16);
}

void ExifParser::toString(uint16_t type, uint32_t count, uint32_t value, std::string& out) const {
  if ((type != 2 && type != kTypeUndefined) || count < 5) throw "Invalid Type: ASCII[>4] or UNDEF[>4] required.";
  const uint64_t pos = value + tiffBase;
  // Checked before the string is sized: a string running past the block is
  // refused like any other read.
  if (count > bufferSize || pos > bufferSize - count) throw "Invalid position";
  std::string text(count, '\0');
  read(reinterpret_cast<unsigned char*>(text.data()), count, pos);
  out = std::move(text);
}

void ExifParser::pushCursor(size_t pos) {
  cursorStack.push_back(cursor);
  cursor = pos;
}

void ExifParser::popCursor() {
  if (cursorStack.empty()) return;
  cursor = cursorStack.back();
  cursorStack.pop_back();
}

void ExifParser::readPairs(uint32_t value, uint32_t* words, int n) {
  pushCursor(value + tiffBase);
  for (int i = 0; i < n; ++i) words[i] = read32();
  popCursor();
}

// Dumps ---------------------------------------------------------------------

void ExifParser::dump(const char* label) {
  const uint16_t count = read16();
  GLTK::Console::out(L"\n%s (%u)\n", label, unsigned{count});
  for (unsigned i = 0; i < count; ++i) {
    uint16_t tag, type;
    uint32_t entryCount, value;
    readEntry(tag, type, entryCount, value);
    GLTK::Console::out(L"%3d: %04X %04X %08X %08X\n", static_cast<int>(i), unsigned{tag}, unsigned{type},
                       unsigned{entryCount}, unsigned{value});
  }
}

void ExifParser::dumpKMKN() {
  if (bufferSize == 0) return;
  if (makerNoteOnly == 0) {
    seekToIFD0();
    dump("IFD0");
    seekToEXIF();
    dump("EXIF");
  } else {
    GLTK::Console::out(L"*** KORVU MakerNote ONLY ***\n");
  }
  seekToKORVUMakerNote();
  dump("MakerNote");
  seekToZEPRA();
  dump("RECEPTOR");
  if (subIFDs[0] != 0) {
    seekToSubIFD(0);
    dump("SubIFDs[0]");
  }
  if (subIFDs[1] != 0) {
    seekToSubIFD(1);
    dump("SubIFDs[1]");
  }
  ZEPRA record;
  readZERPA(record);
  record.dump();
}
