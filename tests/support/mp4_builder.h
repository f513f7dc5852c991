// A readable builder for MP4 boxes of four-byte types ("\xA9xyz" is fine), Box("moov").child(Box("udta")).build();
// the size is patched in when the box is built, unless rawSize() or largeSize() asks for a header form.
#pragma once

#include <optional>
#include <string>

#include "tests/support/bytes.h"

namespace sondex::test {

class Box : public ByteWriter {
 public:
  explicit Box(const std::string& type);
  // A full box: version and 24-bit flags open the payload.
  static Box full(const std::string& type, uint8_t version, uint32_t flags);

  Box& child(const Box& box) { return bytes(box.build()); }
  // Write this value in the 32-bit size field instead of the real size.
  Box& rawSize(uint32_t size) { return rawSize_ = size, *this; }
  // The 64-bit header form (size field 1, then the real size).
  Box& largeSize() { return large_ = true, *this; }

  Box& u8(uint8_t v) { return as(ByteWriter::u8(v)); }
  Box& u16(uint16_t v) { return as(ByteWriter::u16(v)); }
  Box& u24(uint32_t v) { return as(ByteWriter::u24(v)); }
  Box& u32(uint32_t v) { return as(ByteWriter::u32(v)); }
  Box& u64(uint64_t v) { return as(ByteWriter::u64(v)); }
  Box& fixed(double v) { return as(ByteWriter::fixed(v)); }
  Box& str(const std::string& t) { return as(ByteWriter::str(t)); }
  Box& bytes(const Bytes& b) { return as(ByteWriter::bytes(b)); }
  Box& bytes(std::initializer_list<uint8_t> b) { return as(ByteWriter::bytes(b)); }
  Box& zeros(size_t n) { return as(ByteWriter::zeros(n)); }

  Bytes build() const;

 private:
  Box& as(ByteWriter&) { return *this; }

  std::string type_;
  std::optional<uint32_t> rawSize_;
  bool large_ = false;
};

Box mvhd(uint32_t timeScale, uint32_t duration, uint32_t creation = 0);
Box tkhd(uint32_t width, uint32_t height, uint32_t creation = 0);
Box mdhd(uint32_t timeScale, uint32_t duration, uint32_t creation = 0);
// An avc1 sample entry with 78 bytes of visual fields, then children.
Box avc1(uint16_t width, uint16_t height);
// A "trak" holding tkhd, mdia/mdhd and mdia/minf/stbl with the given stbl children.
Box videoTrak(uint32_t width, uint32_t height, const Box& stsd, const Bytes& otherStblChildren = {});
Bytes concat(std::initializer_list<Bytes> parts);

}  // namespace sondex::test
