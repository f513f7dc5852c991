#include "tests/support/mp4_builder.h"

#include <stdexcept>

namespace sondex::test {

Box::Box(const std::string& type) : type_(type) {
  if (type.size() != 4) throw std::invalid_argument("box type must be 4 bytes: " + type);
}

Box Box::full(const std::string& type, uint8_t version, uint32_t flags) {
  Box box(type);
  box.u8(version).u24(flags);
  return box;
}

Bytes Box::build() const {
  ByteWriter out;
  const uint64_t total = headerSize() + data_.size();
  if (large_) {
    out.u32(rawSize_.value_or(1)).str(type_).u64(largeValue_.value_or(total));
  } else {
    out.u32(rawSize_.value_or(static_cast<uint32_t>(total))).str(type_);
  }
  Bytes bytes = out.data();
  bytes.insert(bytes.end(), data_.begin(), data_.end());
  return bytes;
}

Box mvhd(uint32_t timeScale, uint32_t duration, uint32_t creation) {
  Box box = Box::full("mvhd", 0, 0);
  box.u32(creation).u32(0).u32(timeScale).u32(duration);
  box.u32(0x00010000).u16(0x0100).zeros(10);                                   // rate, volume, reserved
  box.u32(0x00010000).zeros(12).u32(0x00010000).zeros(12).u32(0x40000000);     // matrix
  box.zeros(24).u32(2);                                                        // pre-defined, next track ID
  return box;
}

Box tkhd(uint32_t width, uint32_t height, uint32_t creation) {
  Box box = Box::full("tkhd", 0, 3);
  box.u32(creation).u32(0).u32(1).u32(0).u32(0);                             // times, track ID, reserved, duration
  box.zeros(8).u16(0).u16(0).u16(0).u16(0);                                  // reserved, layer, group, volume
  box.u32(0x00010000).zeros(12).u32(0x00010000).zeros(12).u32(0x40000000);   // matrix
  box.u32(width << 16).u32(height << 16);
  return box;
}

Box mdhd(uint32_t timeScale, uint32_t duration, uint32_t creation) {
  Box box = Box::full("mdhd", 0, 0);
  box.u32(creation).u32(0).u32(timeScale).u32(duration).u16(0x55C4).u16(0);
  return box;
}

Box avc1(uint16_t width, uint16_t height) {
  Box box("avc1");
  box.zeros(6).u16(1);                        // reserved, data reference index
  box.zeros(16).u16(width).u16(height);       // pre-defined/reserved, size
  box.u32(0x00480000).u32(0x00480000).u32(0)  // resolution, reserved
      .u16(1)                                 // frame count
      .zeros(32)                              // compressor name
      .u16(0x0018).u16(0xFFFF);               // depth, pre-defined
  return box;
}

Box videoTrak(uint32_t width, uint32_t height, const Box& stsd, const Bytes& otherStblChildren) {
  Box stbl("stbl");
  stbl.child(stsd).bytes(otherStblChildren);
  return Box("trak")
      .child(tkhd(width, height))
      .child(Box("mdia").child(mdhd(30000, 60000)).child(Box("minf").child(stbl)));
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

}  // namespace sondex::test
