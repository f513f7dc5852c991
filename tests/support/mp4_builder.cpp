#include "tests/support/mp4_builder.h"

namespace sondex::test {

Box::Box(const std::string& type) : type_(type) {}

Box Box::full(const std::string& type, uint8_t version, uint32_t flags) { return Box(type).u8(version).u24(flags); }

Bytes Box::build() const {
  ByteWriter out;
  const uint64_t total = (large_ ? 16 : 8) + data_.size();
  out.u32(rawSize_.value_or(large_ ? 1 : static_cast<uint32_t>(total))).str(type_);
  if (large_) out.u64(total);
  return out.bytes(data_).data();
}

// The identity transformation matrix of the movie and track headers.
Bytes unityMatrix() { return ByteWriter().u32(0x00010000).zeros(12).u32(0x00010000).zeros(12).u32(0x40000000).data(); }

Box mvhd(uint32_t timeScale, uint32_t duration, uint32_t creation) {
  Box box = Box::full("mvhd", 0, 0).u32(creation).u32(0).u32(timeScale).u32(duration).u32(0x00010000).u16(0x0100);
  return box.zeros(10).bytes(unityMatrix()).zeros(24).u32(2);  // reserved, matrix, pre-defined, next track ID
}

Box tkhd(uint32_t width, uint32_t height, uint32_t creation) {
  Box box = Box::full("tkhd", 0, 3).u32(creation).u32(0).u32(1).zeros(24);  // times, track ID; duration to volume
  return box.bytes(unityMatrix()).u32(width << 16).u32(height << 16);
}

Box mdhd(uint32_t timeScale, uint32_t duration, uint32_t creation) {
  return Box::full("mdhd", 0, 0).u32(creation).u32(0).u32(timeScale).u32(duration).u16(0x55C4).u16(0);
}

Box avc1(uint16_t width, uint16_t height) {
  // Reserved, data reference index, reserved, size, resolution, reserved, frame count, compressor name, depth,
  // pre-defined.
  Box box = Box("avc1").zeros(6).u16(1).zeros(16).u16(width).u16(height).u32(0x00480000).u32(0x00480000).u32(0);
  return box.u16(1).zeros(32).u16(0x0018).u16(0xFFFF);
}

Box videoTrak(uint32_t width, uint32_t height, const Box& stsd, const Bytes& otherStblChildren) {
  const Box minf = Box("minf").child(Box("stbl").child(stsd).bytes(otherStblChildren));
  return Box("trak").child(tkhd(width, height)).child(Box("mdia").child(mdhd(30000, 60000)).child(minf));
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

}  // namespace sondex::test
