// Offsets and sizes read from a file are untrusted: their sums and
// differences must not wrap. Every range check of the parsers goes through
// these two.
#pragma once

#include <cstdint>

namespace GLTK {

// True when n bytes from offset end at or before end.
constexpr bool fits(uint64_t offset, uint64_t n, uint64_t end) { return offset <= end && n <= end - offset; }

// offset + size, or all ones when the sum would wrap (the range then runs
// to the end of any file).
constexpr uint64_t endOf(uint64_t offset, uint64_t size) { return size > ~0ULL - offset ? ~0ULL : offset + size; }

}  // namespace GLTK
