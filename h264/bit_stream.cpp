#include "h264/bit_stream.h"

#include <bit>

#include "gltk/byte_order.h"

namespace {

const char* const kNoMoreData = "no more data";
const char* const kBitsExisted = "bits existed";
// Spelled so on purpose: callers print the text as it stands.
const char* const kTooLong = "too log golomb sream";

// floor(log2(x)) for x > 0. For 32-bit values this is exactly what a
// double-precision log2 truncated toward zero gives.
int floorLog2(uint64_t x) { return static_cast<int>(std::bit_width(x)) - 1; }

}  // namespace

// ------------------------------------------------------------- reading

void BitStream::attach(const ByteArray& bytes) {
  pending_ = bytes;
  head_ = 0;
}

int BitStream::next_bit() {
  if (held_ == 0) {
    if (remaining() == 0) throw kNoMoreData;
    accumulator_ = pending_[head_];
    take_bytes(1);
    held_ = 8;
  }
  --held_;
  return static_cast<int>((accumulator_ >> held_) & 1);
}

Bits BitStream::read_bits(int n) {
  Bits bits{0, n};
  for (int i = 0; i < n; ++i) bits.value = (bits.value << 1) | static_cast<uint32_t>(next_bit());
  return bits;
}

uint8_t BitStream::read8() {
  require_byte_boundary();
  if (remaining() < 1) throw kNoMoreData;
  const uint8_t byte = pending_[head_];
  take_bytes(1);
  return byte;
}

uint16_t BitStream::read16n() {
  require_byte_boundary();
  if (remaining() < 2) throw kNoMoreData;
  const uint16_t value = GLTK::loadBE16(&pending_[head_]);
  take_bytes(2);
  return value;
}

void BitStream::read_bytes(size_t n, ByteArray& out) {
  require_byte_boundary();
  // Checked before anything is allocated: n comes from the input.
  if (remaining() < n) throw kNoMoreData;
  out.assign(pending_.data() + head_, n);
  take_bytes(n);
}

void BitStream::take_bytes(uint64_t n) { head_ += n; }

void BitStream::require_byte_boundary() const {
  if (held_ != 0) throw kBitsExisted;
}

// ------------------------------------------------------------- writing

void BitStream::write_bits(uint32_t value, int n) {
  if (n < 1) return;
  // The accumulator holds at most 7 + 32 bits at once: the bits above
  // value's 32 are zeros and go first.
  while (n > 32) {
    const int zeros = n - 32 > 32 ? 32 : n - 32;
    write_bits(0, zeros);
    n -= zeros;
  }
  accumulator_ = (accumulator_ << n) | value;
  held_ += n;
  while (held_ >= 8) {
    pending_.push_back(static_cast<uint8_t>(accumulator_ >> (held_ - 8)));
    held_ -= 8;
    accumulator_ &= (uint64_t{1} << held_) - 1;
  }
}

void BitStream::write8(uint8_t byte) {
  require_byte_boundary();
  pending_.push_back(byte);
}

void BitStream::write16n(uint16_t value) {
  require_byte_boundary();
  uint8_t bytes[2];
  GLTK::storeBE(bytes, value, 2);
  pending_.append(bytes, 2);
}

void BitStream::write_bytes(const ByteArray& bytes) {
  require_byte_boundary();
  pending_.append(bytes);
}

void BitStream::flush_bits() {
  if (held_ > 0) write_bits(0, 8 - held_);
}

const ByteArray& BitStream::bytes() {
  flush_bits();
  pending_.erase_front(head_);
  head_ = 0;
  return pending_;
}

// ---------------------------------------------------------- exp-Golomb

Bits GolombBitStream::encode(uint32_t v) {
  // v = 0xFFFFFFFF has the 33-bit code 2^32: the value wraps to 0, which
  // decode() maps back to all ones.
  const uint64_t code = uint64_t{v} + 1;
  return Bits{static_cast<uint32_t>(code), 2 * floorLog2(code) + 1};
}

uint32_t GolombBitStream::decode(const Bits& b) {
  if (b.value == 0 || b.count != 2 * floorLog2(b.value) + 1) return 0xFFFFFFFF;
  return b.value - 1;
}

uint32_t GolombBitStream::read_golomb() {
  // A code with z leading zeros has 2z + 1 bits, always odd, so it is read
  // two bits at a time until the bit count matches the value's length.
  Bits b = read_bits(1);
  while (b.value == 0 || b.count != 2 * floorLog2(b.value) + 1) {
    if (b.count >= 31) throw kTooLong;
    b.count += 2;
    b.value = (b.value << 2) | read_bits(2).value;
  }
  return b.value - 1;
}

void GolombBitStream::write_golomb(uint32_t v) {
  const Bits code = encode(v);
  if (code.value == 0) {  // v = 0xFFFFFFFF: 32 zeros, a one, 32 zeros
    write_bits(0, 32);
    write_bits(1, 1);
    write_bits(0, 32);
    return;
  }
  write_bits(code.value, code.count);
}
