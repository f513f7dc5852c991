// Parameter-set fixtures written as text: bit strings ("0 11 00111 ...",
// blanks ignored, zero-padded to whole bytes) and hex ("01 64 00 1F").
#pragma once

#include <string>

#include "gltk/byte_array.h"
#include "tests/support/bytes.h"

namespace sondex::test {

inline ByteArray fromBits(const std::string& bits) {
  ByteArray out;
  int byte = 0;
  int count = 0;
  for (char c : bits) {
    if (c != '0' && c != '1') continue;
    byte = byte << 1 | (c - '0');
    if (++count == 8) {
      out.push_back(static_cast<uint8_t>(byte));
      byte = count = 0;
    }
  }
  if (count > 0) out.push_back(static_cast<uint8_t>(byte << (8 - count)));
  return out;
}

inline ByteArray bytesOf(const std::string& hex) {
  const Bytes bytes = fromHex(hex);
  return ByteArray(bytes.data(), bytes.size());
}

inline ByteArray bytesOf(const Bytes& bytes) { return ByteArray(bytes.data(), bytes.size()); }

inline std::string hexOf(const ByteArray& bytes) {
  return toHex(Bytes(bytes.data(), bytes.data() + bytes.size()));
}

// The message of a failure thrown as a bare string, or "" when f returns.
template <class F>
std::string thrownMessage(F&& f) {
  try {
    f();
  } catch (const char* message) {
    return message;
  }
  return "";
}

}  // namespace sondex::test
