// A readable builder for TIFF/Exif blocks in either byte order. Offsets are
// laid out when the block is built: each directory is followed by its
// out-of-line data and the directories it points at. Wrong types, counts,
// offsets and header words can be written on purpose for hostile cases.
//
//   Bytes tiff = TiffBuilder(kBigEndian).build(
//       Ifd().ascii(0x0110, "MODEL-1").sub(0x8769, Ifd().makerNote(0x927C, cameraMakerNote())));
//   Bytes jpeg = jpegWithExif(tiff);
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace sondex::test {


enum TiffType : uint16_t {
  kByte = 1,
  kAscii = 2,
  kShort = 3,
  kLong = 4,
  kRational = 5,
  kUndefined = 7,
  kSRational = 10,
};

// One directory. Entries are written in the order they are added.
class Ifd {
 public:
  Ifd& ascii(uint16_t tag, const std::string& text);           // count includes the zero byte
  Ifd& bytes(uint16_t tag, uint16_t type, const Bytes& data);  // ASCII/UNDEFINED/BYTE data as is
  Ifd& shorts(uint16_t tag, std::vector<uint16_t> values);
  Ifd& longs(uint16_t tag, std::vector<uint32_t> values);
  // Numerator/denominator pairs; SRATIONAL numerators are passed as their bits.
  Ifd& rationals(uint16_t tag, std::vector<uint32_t> pairs, uint16_t type = kRational);
  Ifd& srationals(uint16_t tag, const std::vector<int32_t>& pairs);
  // A LONG pointer to a child directory.
  Ifd& sub(uint16_t tag, const Ifd& child);
  // LONG[n] pointers to n child directories (SubIFDs).
  Ifd& subs(uint16_t tag, const std::vector<Ifd>& children);
  // An UNDEFINED maker note: the signature, then the directory right after it.
  Ifd& makerNote(uint16_t tag, const Ifd& child, const std::string& signature = std::string("Korvu\0\0\0", 8));
  // A LONG[1] whose value is the offset of data placed after the directory.
  Ifd& offsetOf(uint16_t tag, const Bytes& data);
  // Any entry exactly as given: nothing is laid out for it.
  Ifd& raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t value);

  // Overwrite the last entry's count field (its data stays).
  Ifd& withCount(uint32_t count);

  struct Entry {
    enum Kind { kData, kRaw, kChild, kChildren, kMakerNote, kOffset } kind = kData;
    uint16_t tag = 0;
    uint16_t type = 0;
    std::optional<uint32_t> count = {};   // default: from the data
    uint32_t value = 0;                   // kRaw
    int unit = 1;                         // bytes per data element, swapped by byte order
    std::vector<uint32_t> elements = {};  // kData
    Bytes blob = {};                      // kOffset data, kMakerNote signature
    std::vector<Ifd> children = {};       // kChild, kChildren, kMakerNote
  };
  const std::vector<Entry>& entries() const { return entries_; }

 private:
  Ifd& add(Entry entry);
  std::vector<Entry> entries_;
};

class TiffBuilder {
 public:
  explicit TiffBuilder(bool bigEndian = kBigEndian) : bigEndian_(bigEndian) {}

  // Header words to write instead of the real ones.
  TiffBuilder& orderWord(uint16_t word) {
    orderWord_ = word;
    return *this;
  }
  TiffBuilder& tiffId(uint16_t id) {
    tiffId_ = id;
    return *this;
  }

  // The TIFF header at 0, then IFD0 at 8 with everything it points at.
  Bytes build(const Ifd& ifd0) const;
  // ifd and everything it points at, to be put at offset origin (even) of a
  // block whose TIFF header is at 0.
  Bytes buildAt(const Ifd& ifd, uint32_t origin) const;
  // A bare maker note: the signature, then the directory; offsets count from
  // the signature.
  Bytes buildMakerNote(const Ifd& ifd) const;

 private:
  bool bigEndian_;
  std::optional<uint16_t> orderWord_;
  std::optional<uint16_t> tiffId_;
};

// The camera's directories with plausible values. Tags are in ascending
// order so that other tools read the result without complaint.
Ifd cameraZepra();
Ifd cameraMakerNote(const Ifd& zepra = cameraZepra());
// IFD0 with Model, Software and the Exif IFD holding the maker note.
Ifd cameraIfd0(const Ifd& makerNote = cameraMakerNote(), const std::string& model = "KV-360 S1",
               const std::string& software = "KV-360 Ver 1.20");

// A raw still's IFD0: the camera IFD0 plus SubIFDs (a raw-image directory
// and the preview directory) and the DNG version tag.
Ifd cameraDngIfd0(const Ifd& preview, const Ifd& makerNote = cameraMakerNote());
// The preview directory: a JPEG strip at an offset the layout chooses.
Ifd previewIfd(const Bytes& jpeg);
// What the DNG reader hands the walker: SOI, APP1 of length 0xFFFF, "Exif\0\0", the file.
Bytes withSyntheticJpegHeader(const Bytes& tiff);

// JPEG pieces: a marker segment (marker, length, payload), the Exif APP1
// segment, and a minimal JPEG (SOI, segments, EOI).
Bytes jpegSegment(uint16_t marker, const Bytes& payload);
Bytes exifSegment(const Bytes& tiff);
Bytes jpegWithExif(const Bytes& tiff, const std::vector<Bytes>& segmentsBefore = {});
// A real JPEG with the Exif APP1 inserted after its SOI and APP0 segments.
Bytes spliceExif(const Bytes& jpeg, const Bytes& tiff);

}  // namespace sondex::test
