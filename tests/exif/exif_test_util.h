// Small helpers for driving the Exif walker in tests.
#pragma once

#include <algorithm>
#include <functional>
#include <string>

#include "exif/exif_parser.h"
#include "tests/support/bytes.h"

namespace sondex::test {

// The message f throws, or "" when it returns normally.
inline std::string failure(const std::function<void()>& f) {
  try {
    f();
  } catch (const char* message) {
    return message;
  }
  return "";
}

inline void attach(ExifParser& parser, const Bytes& bytes) { parser.attachBytes(bytes.data(), bytes.size()); }
inline void attachKMKN(ExifParser& parser, const Bytes& bytes) { parser.attachKMKN(bytes.data(), bytes.size()); }
// A raw still is read through a source; this one serves a copy of bytes.
inline void attachDNG(ExifParser& parser, const Bytes& bytes) {
  parser.attachDNG(
      [bytes](unsigned char* dst, uint64_t n, uint64_t pos) {
        n = std::min<uint64_t>(n, bytes.size() - pos);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(pos), n, dst);
        return n;
      },
      bytes.size());
}

}  // namespace sondex::test
