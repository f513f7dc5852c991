// Byte writers for the fixture builders: big-endian (as a sensor box marked 0x3210) unless told otherwise.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace sondex::test {

using Bytes = std::vector<uint8_t>;

inline constexpr bool kBigEndian = true;
inline constexpr bool kLittleEndian = false;

class ByteWriter {
 public:
  explicit ByteWriter(bool bigEndian = true) : bigEndian_(bigEndian) {}

  ByteWriter& u8(uint8_t v) { return uint(v, 1); }
  ByteWriter& u16(uint16_t v) { return uint(v, 2); }
  ByteWriter& u24(uint32_t v) { return uint(v, 3); }
  ByteWriter& u32(uint32_t v) { return uint(v, 4); }
  ByteWriter& u64(uint64_t v) { return uint(v, 8); }
  // Signed 16.16 fixed point.
  ByteWriter& fixed(double v) { return u32(static_cast<uint32_t>(static_cast<int32_t>(v * 65536.0))); }
  ByteWriter& str(const std::string& text) { return bytes(Bytes(text.begin(), text.end())); }
  ByteWriter& bytes(const Bytes& more) { return data_.insert(data_.end(), more.begin(), more.end()), *this; }
  ByteWriter& bytes(std::initializer_list<uint8_t> more) { return data_.insert(data_.end(), more), *this; }
  ByteWriter& zeros(size_t n) { return data_.insert(data_.end(), n, 0), *this; }

  const Bytes& data() const { return data_; }
  size_t size() const { return data_.size(); }

 protected:
  ByteWriter& uint(uint64_t v, int n);

  bool bigEndian_;
  Bytes data_;
};

// Hex text ("01 ab FF", blanks between bytes optional) to bytes, and bytes to "01 AB FF".
Bytes fromHex(const std::string& hex);
std::string toHex(const Bytes& bytes);

}  // namespace sondex::test
