#include "mp4/bin_file.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "gltk/byte_order.h"

namespace MP4 {

namespace {
constexpr uint64_t kWindow = 64 * 1024;
constexpr uint64_t kMaxOffset = static_cast<uint64_t>(INT64_MAX);
}  // namespace

BinFile::BinFile(GLTK::FileIO& file) : GLTK::FileIO(file, Borrow{}) {}

bool BinFile::fill(uint64_t at) {
  window_.resize(kWindow);
  const ssize_t got = pread(descriptor, window_.data(), kWindow, static_cast<off_t>(at));
  windowStart_ = at;
  windowLength_ = got > 0 ? static_cast<uint64_t>(got) : 0;
  return got > 0;
}

uint64_t BinFile::read(unsigned char* buffer, uint64_t n) {
  if (descriptor == 0) return ~0ULL;
  uint64_t done = 0;
  while (done < n && position <= kMaxOffset) {
    if (position >= windowStart_ && position < windowStart_ + windowLength_) {
      const uint64_t from = position - windowStart_;
      const uint64_t step = std::min(n - done, windowLength_ - from);
      std::memcpy(buffer + done, window_.data() + from, step);
      done += step;
      position += step;
      continue;
    }
    const uint64_t rest = n - done;
    if (rest >= kWindow) {
      const ssize_t got =
          pread(descriptor, buffer + done, std::min<uint64_t>(rest, 1ULL << 30), static_cast<off_t>(position));
      if (got <= 0) break;
      done += static_cast<uint64_t>(got);
      position += static_cast<uint64_t>(got);
      continue;
    }
    if (!fill(position)) break;
  }
  return done;
}

uint64_t BinFile::write(const unsigned char* buffer, uint64_t n) {
  if (descriptor == 0) return ~0ULL;
  const ssize_t put = pwrite(descriptor, buffer, n, static_cast<off_t>(position));
  if (put <= 0) return static_cast<uint64_t>(put);
  const uint64_t written = static_cast<uint64_t>(put);
  // Keep the read window in step with what was written under it.
  const uint64_t begin = std::max(position, windowStart_);
  const uint64_t end = std::min(position + written, windowStart_ + windowLength_);
  if (begin < end) std::memcpy(window_.data() + (begin - windowStart_), buffer + (begin - position), end - begin);
  position += written;
  return written;
}

bool BinFile::seek_set(uint64_t offset) {
  // Offsets the system cannot take go to lseek, which fails and reports.
  if (offset > kMaxOffset) return GLTK::FileIO::seek_set(offset);
  if (descriptor == 0) return false;
  position = offset;
  return true;
}

bool BinFile::seek_cur(int64_t offset) {
  if (descriptor == 0) return false;
  const uint64_t target = position + static_cast<uint64_t>(offset);
  const bool wraps = offset < 0 ? target > position : target < position;
  if (wraps || target > kMaxOffset) {
    lseek(descriptor, static_cast<off_t>(position), SEEK_SET);
    return GLTK::FileIO::seek_cur(offset);
  }
  position = target;
  return true;
}

bool BinFile::take(void* dst, uint64_t n) {
  std::memset(dst, 0, n);
  if (!fits(n)) return false;
  read(static_cast<unsigned char*>(dst), n);
  return true;
}

uint8_t BinFile::read8() {
  uint8_t b[1];
  take(b, 1);
  return b[0];
}

uint16_t BinFile::read16() {
  uint8_t b[2];
  take(b, 2);
  return GLTK::loadBE16(b);
}

uint32_t BinFile::read32() {
  uint8_t b[4];
  take(b, 4);
  return GLTK::loadBE32(b);
}

uint64_t BinFile::read64() {
  const uint64_t high = read32();
  return high << 32 | read32();
}

uint64_t BinFile::take_entries(std::vector<uint8_t>& out, uint64_t entrySize, uint64_t count) {
  out.clear();
  const uint64_t stored = storable_entries(entrySize, count);
  if (stored == 0) return 0;
  out.assign(stored * entrySize, 0);
  read(out.data(), out.size());
  return stored;
}

uint64_t BinFile::storable_entries(uint64_t entrySize, uint64_t count) {
  if (count == 0 || entrySize == 0) return 0;
  // How many entries pass the guard one after another.
  const uint64_t allowed = fits(entrySize) ? std::min((limit - position - entrySize) / entrySize + 1, count) : 0;
  // Of those, only the ones that lie in the file are worth storing.
  const uint64_t fileEnd = length();
  const uint64_t inFile = fileEnd > position ? (fileEnd - position + entrySize - 1) / entrySize : 0;
  return std::min(allowed, inFile);
}

}  // namespace MP4
