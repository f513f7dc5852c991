// Boxes of the user data and of the top level: the location text box
// (A9 "xyz"), "loci", the handler and "uuid".
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "gltk/byte_order.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/boxes.h"

namespace MP4 {

namespace {
constexpr uint64_t kUuidHeader = 24;  // size, "uuid", 16-byte usertype
constexpr uint64_t kUuidPiece = 512;
constexpr int64_t kMaxXyzText = 512;

double fixedToDouble(uint32_t raw) { return static_cast<int32_t>(raw) * 1.52587890625e-5; }

}  // namespace

void XYZ::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  textLength = f.read16();
  language = f.read16();
  // The text is capped at 512 bytes.
  const int64_t n =
      static_cast<int32_t>(static_cast<uint32_t>(size)) < 524 ? static_cast<int64_t>(size) - 12 : kMaxXyzText;
  // A size below the header or one with the high bits set (n past the cap)
  // leaves no text.
  if (n <= 0 || n > kMaxXyzText + 12) return;
  text.assign(static_cast<size_t>(n), '\0');
  if (f.fits(static_cast<uint64_t>(n))) f.read(reinterpret_cast<unsigned char*>(text.data()), static_cast<uint64_t>(n));
}

void XYZ::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls xyz=%ls %04x >\n", indent().c_str(), basicTag().c_str(),
                     GLTK::wchar::mbs2wcs(text).c_str(), language);
}

void LOCI::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  // Version and flags, language, an empty name's terminator and the role.
  f.seek_cur(8);
  longitude = fixedToDouble(f.read32());
  latitude = fixedToDouble(f.read32());
  hasPosition = true;
  if (f.fits(4)) {
    altitude = fixedToDouble(f.read32());
    hasAltitude = true;
  }
}

void LOCI::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls loci=%f %f %f >\n", indent().c_str(), basicTag().c_str(), longitude, latitude,
                     altitude);
}

void HDLR::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  uint8_t block[24];
  if (f.take(block, sizeof block)) {
    std::copy(block, block + 4, versionAndFlags.begin());
    std::copy(block + 4, block + 8, pre_defined.begin());
    std::copy(block + 8, block + 12, handler.begin());
    std::copy(block + 12, block + 24, reserved.begin());
  }
  nameLength = size - 32;
  if (size > kPayloadLimit || !f.fits(nameLength)) return;
  // The box may claim more than the file holds (a top-level box's limit is
  // its own size): only the bytes that are there are kept. The rest would
  // read as zeros, and the name ends at its first zero anyway.
  const uint64_t inFile = f.length() > f.tell() ? f.length() - f.tell() : 0;
  name.assign(static_cast<size_t>(std::min(nameLength, inFile)), '\0');
  f.read(reinterpret_cast<unsigned char*>(name.data()), name.size());
}

void HDLR::dump() const {
  wchar_t code[5] = {};
  for (int i = 0; i < 4; ++i) code[i] = handler[i];
  GLTK::Console::out(L"MP4: %ls<%ls handler=%ls name=%ls(%d) >\n", indent().c_str(), basicTag().c_str(), code,
                     GLTK::wchar::mbs2wcs(name.c_str()).c_str(), static_cast<int>(nameLength));
}

bool refusedAsOversized(const BOX& box) {
  if (box.size <= kPayloadLimit) return false;
  std::wstring path;
  // The parent chain ends at the top-level box (the movie box has none) or
  // at the root, whose depth is -1.
  for (const BOX* at = &box; at != nullptr && at->depth >= 0; at = at->parent) {
    std::wstring code(at->type.begin(), at->type.end());
    path = path.empty() ? code : code + L"." + path;
  }
  GLTK::Console::out(L"%ls: %llu bytes, over the 16 MiB limit, not read.\n", path.c_str(),
                     static_cast<unsigned long long>(box.size));
  return true;
}

UUID::UUID(const std::string& text) : NestedBox(0, text.size() + kUuidHeader, code("uuid"), nullptr) {
  payload.assign(text.begin(), text.end());
}

bool UUID::hasChild() const { return size >= kUuidHeader && usertype == kSpatialAudio; }

void UUID::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  payload.clear();
  f.take(usertype.data(), usertype.size());
  if (hasChild()) {
    parseChildren(f, limit);
    return;
  }
  // Too small to hold even its usertype, or too large to read whole.
  if (size < kUuidHeader || size > kPayloadLimit) return;
  // The payload is read in pieces of up to 512 bytes; it ends at the first
  // piece that lies past the box's limit or at the end of the file.
  for (uint64_t left = size - kUuidHeader; left > 0;) {
    const uint64_t piece = std::min(left, kUuidPiece);
    if (!f.fits(piece)) break;
    const size_t at = payload.size();
    payload.resize(at + piece);
    const uint64_t got = f.read(payload.data() + at, piece);
    if (got != piece) {
      payload.resize(at + (got > piece ? 0 : got));
      break;
    }
    left -= piece;
  }
}

std::wstring UUID::usertypeText() const {
  const Usertype& u = usertype;
  wchar_t text[40];
  swprintf(text, 40, L"%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", u[0], u[1], u[2], u[3],
           u[4], u[5], u[6], u[7], u[8], u[9], u[10], u[11], u[12], u[13], u[14], u[15]);
  return text;
}

void UUID::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls uuid=%ls >\n", indent().c_str(), basicTag().c_str(), usertypeText().c_str());
  dumpChildren();
}

void UUID::to_byteArray(ByteArray& out) const {
  const uint64_t total = payload.size() + kUuidHeader;
  uint8_t header[8] = {0, 0, 0, 0, 'u', 'u', 'i', 'd'};
  GLTK::storeBE(header, total, 4);
  out.assign(header, sizeof header);
  out.append(usertype.data(), usertype.size());
  out.append(payload.data(), payload.size());
}

bool UUID::write(BinFile& f) const {
  ByteArray bytes;
  const uint64_t total = size;
  uint8_t header[4];
  GLTK::storeBE(header, total, 4);
  bytes.append(header, 4);
  bytes.append(type.data(), 4);
  bytes.append(usertype.data(), usertype.size());
  bytes.append(payload.data(), payload.size());
  return f.write(bytes.data(), bytes.size()) == size;
}

}  // namespace MP4
