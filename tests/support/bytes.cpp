#include "tests/support/bytes.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace sondex::test {

ByteWriter& ByteWriter::uint(uint64_t v, int n) {
  for (int i = 0; i < n; ++i) {
    const int shift = bigEndian_ ? 8 * (n - 1 - i) : 8 * i;
    data_.push_back(static_cast<uint8_t>(v >> shift));
  }
  return *this;
}

ByteWriter& ByteWriter::f32(float v) {
  uint32_t bits;
  std::memcpy(&bits, &v, 4);
  return u32(bits);
}

Bytes fromHex(const std::string& hex) {
  Bytes out;
  int high = -1;
  for (char c : hex) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) throw std::invalid_argument("not hex: " + hex);
    const int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10;
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<uint8_t>(high << 4 | v));
      high = -1;
    }
  }
  if (high >= 0) throw std::invalid_argument("odd hex: " + hex);
  return out;
}

std::string toHex(const Bytes& bytes) {
  std::string out;
  char two[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    std::snprintf(two, sizeof two, "%02X", bytes[i]);
    if (i > 0) out += ' ';
    out += two;
  }
  return out;
}

}  // namespace sondex::test
