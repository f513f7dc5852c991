// A builder for TIFF/Exif blocks in either byte order, e.g.
//   jpegWithExif(TiffBuilder().build(Ifd().ascii(0x0110, "M").sub(0x8769, Ifd().makerNote(0x927C, ...))))
// Each directory is followed by its data and child directories; raw() writes hostile entries.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace sondex::test {

enum TiffType : uint16_t { kByte = 1, kAscii, kShort, kLong, kRational, kUndefined = 7, kSRational = 10 };

struct TiffLayout;

// One directory. Entries are written in the order they are added; data of
// up to 4 bytes stands in the entry itself; ASCII counts include the zero byte.
class Ifd {
 public:
  Ifd& ascii(uint16_t tag, const std::string& s) { return bytes(tag, kAscii, {s.c_str(), s.c_str() + s.size() + 1}); }
  Ifd& bytes(uint16_t tag, uint16_t type, const Bytes& d) { return data(tag, type, 1, {d.begin(), d.end()}, d.size()); }
  Ifd& shorts(uint16_t tag, std::vector<uint16_t> v) { return data(tag, kShort, 2, {v.begin(), v.end()}, v.size()); }
  Ifd& longs(uint16_t tag, std::vector<uint32_t> v) { return data(tag, kLong, 4, v, v.size()); }
  // Numerator/denominator pairs; SRATIONAL numerators are passed as their bits.
  Ifd& rationals(uint16_t tag, std::vector<uint32_t> p, uint16_t type = kRational) {
    return data(tag, type, 4, p, p.size() / 2);
  }
  Ifd& srationals(uint16_t tag, std::vector<int32_t> p) { return rationals(tag, {p.begin(), p.end()}, kSRational); }
  Ifd& sub(uint16_t tag, const Ifd& child) { return subs(tag, {child}); }  // a LONG pointer to a child directory
  Ifd& subs(uint16_t tag, const std::vector<Ifd>& children);               // LONG[n] pointers (SubIFDs)
  // An UNDEFINED maker note: the signature, then the directory right after it.
  Ifd& makerNote(uint16_t tag, const Ifd& child, const std::string& signature = std::string("Korvu\0\0\0", 8));
  Ifd& offsetOf(uint16_t tag, const Bytes& data);  // a LONG[1]: the offset of data placed after the directory
  Ifd& raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t value);  // exactly as given

  // place() lays the entry's data out, fills its value field (at the offset given) and returns its count.
  using Place = std::function<uint32_t(TiffLayout&, size_t)>;
  struct Entry {
    uint16_t tag, type;
    Place place;
  };
  std::vector<Entry> entries;

 private:
  Ifd& add(uint16_t tag, uint16_t type, Place place) { return entries.push_back({tag, type, std::move(place)}), *this; }
  Ifd& data(uint16_t tag, uint16_t type, int unit, const std::vector<uint32_t>& elements, size_t count);
};

struct TiffBuilder {
  explicit TiffBuilder(bool big = kBigEndian) : bigEndian(big) {}
  // The TIFF header at 0, then IFD0 at 8 with everything it points at.
  Bytes build(const Ifd& ifd0) const;
  // A bare maker note: the signature, then the directory; offsets count from the signature.
  Bytes buildMakerNote(const Ifd& ifd) const;
  bool bigEndian;
};

// The camera's directories with plausible values, tags in ascending order; IFD0
// has Model, Software and the Exif IFD holding the maker note.
Ifd cameraZepra();
Ifd cameraMakerNote(const Ifd& zepra = cameraZepra());
Ifd cameraIfd0(const Ifd& makerNote = cameraMakerNote(), const std::string& model = "KV-360 S1",
               const std::string& software = "KV-360 Ver 1.20");
// A raw still's IFD0: the camera IFD0 plus SubIFDs (a raw-image directory
// and the preview directory) and the DNG version tag.
Ifd cameraDngIfd0(const Ifd& preview, const Ifd& makerNote = cameraMakerNote());
// The preview directory: a JPEG strip at an offset the layout chooses.
Ifd previewIfd(const Bytes& jpeg);

// A JPEG marker segment (marker, length, payload) and a minimal JPEG (SOI,
// segments, the Exif APP1, EOI).
Bytes jpegSegment(uint16_t marker, const Bytes& payload);
Bytes jpegWithExif(const Bytes& tiff, const std::vector<Bytes>& segmentsBefore = {});
// A real JPEG with the Exif APP1 inserted after its SOI and APP0 segments.
Bytes spliceExif(const Bytes& jpeg, const Bytes& tiff);

}  // namespace sondex::test
