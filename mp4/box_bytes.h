// Boxes inside a payload read as bytes (the children of a sample entry, the
// contents of a fragment): the walk over them and the loads their readers
// use, bounds checked against the bytes that are there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "gltk/byte_order.h"

namespace MP4 {

inline const uint8_t* bytesOf(std::string_view bytes) { return reinterpret_cast<const uint8_t*>(bytes.data()); }
// The big-endian 32-bit word at; the caller checks that four bytes are there.
inline uint32_t be32At(std::string_view bytes, size_t at) { return GLTK::loadBE32(bytesOf(bytes) + at); }

// Calls visit(type, body) for each box of bytes in turn (the 32-bit, 64-bit
// and to-the-end size forms), up to the first that does not fit.
template <class Visit>
void forEachBox(std::string_view bytes, Visit&& visit) {
  for (size_t at = 0; bytes.size() - at >= 8;) {
    uint64_t size = be32At(bytes, at);
    size_t header = 8;
    if (size == 1 && bytes.size() - at >= 16) size = GLTK::loadBE(bytesOf(bytes) + at + 8, 8), header = 16;
    if (size == 0) size = bytes.size() - at;
    if (size < header || size > bytes.size() - at) return;
    visit(bytes.substr(at + 4, 4), bytes.substr(at + header, size - header));
    at += size;
  }
}

}  // namespace MP4
