// Bit-level reading and writing of H.264 parameter sets.
//
// A BitStream is a byte queue with a bit-level front and back: reading
// consumes bits or bytes from the front of the attached bytes, writing
// appends bits or bytes at the back. Bits go most significant first.
// GolombBitStream adds the unsigned exp-Golomb codes (ue); the model keeps
// signed values (se) as their code numbers.
//
// Failures are thrown as bare message strings (const char*):
//   "no more data"          the input is exhausted
//   "bits existed"          a byte operation while the reader or writer is
//                           not on a byte boundary
//   "too log golomb sream"  a code longer than 31 bits
// Nothing is rolled back: what was consumed before a failure stays consumed.
// The bytes are taken as they are: emulation-prevention bytes are dealt
// with by the callers (nal_unit.h).
#pragma once

#include <cstddef>
#include <cstdint>

#include "gltk/byte_array.h"

// The result of a bit read and of GolombBitStream::encode.
struct Bits {
  uint32_t value = 0;
  int32_t count = 0;  // number of bits
};

class BitStream {
 public:
  BitStream() = default;
  BitStream(const BitStream&) = delete;
  BitStream& operator=(const BitStream&) = delete;
  virtual ~BitStream() = default;

  // ---- reading

  // Replaces the pending bytes by a copy of bytes. The bit accumulator is
  // left as it is: a stream is attached once, fresh.
  void attach(const ByteArray& bytes);
  int next_bit();
  // n bits as one value (n < 1 reads nothing and returns value 0, count n).
  // Meant for n <= 32; beyond that only the last 32 bits are kept.
  Bits read_bits(int n);
  uint8_t read8();
  uint16_t read16n();  // big-endian
  // out becomes the next n bytes.
  void read_bytes(size_t n, ByteArray& out);
  // Bytes not yet consumed (bits held in the accumulator not counted).
  uint64_t remaining() const { return pending_.size() - head_; }
  // Bits held between bytes: for a reader, those of the current byte not yet
  // read; for a writer, those of a byte not yet complete.
  int bits_held() const { return held_; }

  // ---- writing

  // Appends the low n bits of value. value is not masked: callers pass
  // values that fit. Widths above 32 are written as leading zero bits
  // followed by the 32 bits of value; n < 1 writes nothing.
  void write_bits(uint32_t value, int n);
  void write8(uint8_t byte);
  void write16n(uint16_t value);  // big-endian
  void write_bytes(const ByteArray& bytes);
  // Completes a partly written byte with zero bits.
  void flush_bits();
  // The pending bytes: for a written stream, everything written, flushed
  // to a whole byte first.
  const ByteArray& bytes();

 private:
  void take_bytes(uint64_t n);
  void require_byte_boundary() const;

  // Pending bytes: those before head_ have been consumed by the reader
  // (dropped lazily, so reading a byte does not move the rest).
  ByteArray pending_;
  uint64_t head_ = 0;
  uint64_t accumulator_ = 0;
  int32_t held_ = 0;  // bits held in the accumulator, 0-7 between calls
};

class GolombBitStream : public BitStream {
 public:
  // {v + 1, 2 * floor(log2(v + 1)) + 1}: the bits of v's code.
  static Bits encode(uint32_t v);
  // The code number of a complete code, or all ones when b is not one.
  static uint32_t decode(const Bits& b);

  uint32_t read_golomb();
  void write_golomb(uint32_t v);
};
