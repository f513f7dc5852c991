#include "tests/support/bytes.h"

#include <bit>
#include <cctype>
#include <cstdio>
#include <stdexcept>

namespace sondex::test {

ByteWriter& ByteWriter::uint(uint64_t v, int n) {
  for (int i = 0; i < n; ++i) data_.push_back(static_cast<uint8_t>(v >> (bigEndian_ ? 8 * (n - 1 - i) : 8 * i)));
  return *this;
}

ByteWriter& ByteWriter::f32(float v) { return u32(std::bit_cast<uint32_t>(v)); }

Bytes fromHex(const std::string& hex) {
  std::string digits;
  for (char c : hex) digits += std::isspace(static_cast<unsigned char>(c)) ? "" : std::string(1, c);
  if (digits.size() % 2 != 0 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    throw std::invalid_argument("not hex: " + hex);
  Bytes out;
  for (size_t i = 0; i < digits.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return out;
}

std::string toHex(const Bytes& bytes) {
  std::string out;
  char two[4];
  for (uint8_t byte : bytes) {
    std::snprintf(two, sizeof two, "%02X", byte);
    out += (out.empty() ? "" : " ") + std::string(two);
  }
  return out;
}

}  // namespace sondex::test
