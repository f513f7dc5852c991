// Loads and stores of unsigned integers of n bytes (1 to 8) in big-endian
// order (MP4, H.264, TIFF "MM") and little-endian order (TIFF "II", the
// camera's sensor logs), from and to raw bytes. Callers check bounds.
#pragma once

#include <cstdint>

namespace GLTK {

inline uint64_t loadBE(const uint8_t* p, int n) {
  uint64_t value = 0;
  for (int i = 0; i < n; ++i) value = value << 8 | p[i];
  return value;
}

inline uint64_t loadLE(const uint8_t* p, int n) {
  uint64_t value = 0;
  for (int i = n - 1; i >= 0; --i) value = value << 8 | p[i];
  return value;
}

inline void storeBE(uint8_t* out, uint64_t value, int n) {
  for (int i = n - 1; i >= 0; --i, value >>= 8) out[i] = static_cast<uint8_t>(value);
}

inline uint16_t loadBE16(const uint8_t* p) { return static_cast<uint16_t>(loadBE(p, 2)); }
inline uint32_t loadBE32(const uint8_t* p) { return static_cast<uint32_t>(loadBE(p, 4)); }
inline uint16_t loadLE16(const uint8_t* p) { return static_cast<uint16_t>(loadLE(p, 2)); }
inline uint32_t loadLE32(const uint8_t* p) { return static_cast<uint32_t>(loadLE(p, 4)); }

}  // namespace GLTK
