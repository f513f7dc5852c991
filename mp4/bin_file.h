// MP4::BinFile: an open file seen by the box parser, with a read limit.
// Every box field is read through a guarded read: an N-byte value is read
// only when its N bytes end at or before the limit; otherwise nothing is
// read, the position stays, and the value is 0. Bytes past the end of the file read
// as 0 too. Reads are served from a window buffer so that parsing a tree
// costs a handful of system calls, not one per field.
#pragma once

#include <cstdint>
#include <vector>

#include "gltk/byte_array.h"
#include "gltk/checked_range.h"
#include "gltk/file_io.h"

namespace MP4 {

class BinFile : public GLTK::FileIO {
 public:
  // Shares the descriptor of an open file; closing stays with that file.
  explicit BinFile(GLTK::FileIO& file);

  uint64_t limit = ~0ULL;

  uint64_t read(unsigned char* buffer, uint64_t n) override;
  uint64_t write(const unsigned char* buffer, uint64_t n) override;
  bool seek_set(uint64_t offset) override;
  bool seek_cur(int64_t offset) override;

  // True when an n-byte guarded read at the current position may go ahead:
  // the n bytes end at or before the limit.
  bool fits(uint64_t n) const { return GLTK::fits(position, n, limit); }
  // Guarded read of n raw bytes into dst (zero-filled first). Returns
  // whether the read took place.
  bool take(void* dst, uint64_t n);
  uint8_t read8();
  uint16_t read16();
  uint32_t read32();
  uint64_t read64();
  // Guarded read of count consecutive entries of entrySize bytes, as if each
  // were read on its own. Only entries that lie in the file are stored (the
  // last one zero-padded); the others read as zero, so callers keep the
  // count and treat the missing tail as zeros. Returns the stored count.
  uint64_t take_entries(std::vector<uint8_t>& out, uint64_t entrySize, uint64_t count);
  // How many of count entries take_entries would store: those that pass the
  // guard and lie, at least in part, in the file.
  uint64_t storable_entries(uint64_t entrySize, uint64_t count);

 private:
  bool fill(uint64_t at);

  std::vector<uint8_t> window_;
  uint64_t windowStart_ = 0;
  uint64_t windowLength_ = 0;
};

}  // namespace MP4
