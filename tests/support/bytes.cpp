#include "tests/support/bytes.h"

#include <string>

namespace sondex::test {

ByteWriter& ByteWriter::uint(uint64_t v, int n) {
  for (int i = 0; i < n; ++i) data_.push_back(static_cast<uint8_t>(v >> (bigEndian_ ? 8 * (n - 1 - i) : 8 * i)));
  return *this;
}

Bytes fromHex(const std::string& hex) {
  Bytes out;
  for (size_t at = hex.find_first_not_of(" \n"); at != std::string::npos; at = hex.find_first_not_of(" \n", at + 2))
    out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(at, 2), nullptr, 16)));
  return out;
}

std::string toHex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (uint8_t byte : bytes) out += std::string(out.empty() ? "" : " ") + kDigits[byte >> 4] + kDigits[byte & 15];
  return out;
}

}  // namespace sondex::test
