// The elements of the parameter-set model. Each element reads itself from a
// GolombBitStream (parse) and writes itself back (to_s, "to stream").
// Composite structures (avc_config.h) walk their elements once with
// process(stream, write), so that their reading and writing follow one
// syntax description.
//
// The queue elements hand out their values in the order they were read and
// drop each one as it is written: a parsed model is written once. Writing
// from an empty queue throws std::out_of_range.
#pragma once

#include <cstdint>
#include <deque>
#include <utility>

#include "gltk/byte_array.h"
#include "h264/bit_stream.h"

class GolombStreamEntity {
 public:
  virtual ~GolombStreamEntity() = default;
  virtual void clear() = 0;
  virtual void parse(GolombBitStream& stream) = 0;
  virtual void to_s(GolombBitStream& stream) = 0;

  // Reads (write false) or writes (write true) this element.
  void process(GolombBitStream& stream, bool write) {
    if (write) {
      to_s(stream);
    } else {
      parse(stream);
    }
  }
};

// An unsigned N-bit field.
template <int N>
class BitData : public GolombStreamEntity {
  static_assert(N == 1 || N == 2 || N == 3 || N == 4 || N == 5 || N == 8 || N == 16 || N == 32);

 public:
  BitData& operator=(uint32_t v) {
    value = v;
    return *this;
  }
  operator uint32_t() const { return value; }

  void clear() override { value = 0; }
  void parse(GolombBitStream& stream) override { value = stream.read_bits(N).value; }
  void to_s(GolombBitStream& stream) override { stream.write_bits(value, N); }

  uint32_t value = 0;
};

// An unsigned exp-Golomb code number (ue).
class GolombData : public GolombStreamEntity {
 public:
  GolombData& operator=(uint32_t v) {
    value = v;
    return *this;
  }
  operator uint32_t() const { return value; }

  void clear() override { value = 0; }
  void parse(GolombBitStream& stream) override { value = stream.read_golomb(); }
  void to_s(GolombBitStream& stream) override { stream.write_golomb(value); }

  uint32_t value = 0;
};

// A queue of values of one kind: parse appends one value read from the
// stream, to_s writes the front value and removes it.
template <class Element>
class ValueQueue : public GolombStreamEntity {
 public:
  void clear() override { values.clear(); }
  void parse(GolombBitStream& stream) override {
    Element element;
    element.parse(stream);
    values.push_back(element.value);
  }
  void to_s(GolombBitStream& stream) override {
    Element element;
    element.value = values.at(0);
    element.to_s(stream);
    values.pop_front();
  }
  // process() for one value, returning the value read or written.
  uint32_t process_next(GolombBitStream& stream, bool write) {
    const uint32_t value = write ? values.at(0) : 0;
    process(stream, write);
    return write ? value : values.back();
  }

  std::deque<uint32_t> values;
};

template <int N>
class BitDataVector : public ValueQueue<BitData<N>> {};

class GolombDataVector : public ValueQueue<GolombData> {};

// One parameter set of the configuration record: its 16-bit length and its
// NAL unit bytes, header byte included, as they stand in the record.
struct ParameterSet {
  uint16_t length = 0;
  ByteArray bytes;
};

// A queue of parameter sets, each stored as a 16-bit length and its bytes.
class ParameterSetVector : public GolombStreamEntity {
 public:
  void clear() override { entries.clear(); }
  void parse(GolombBitStream& stream) override {
    ParameterSet entry;
    entry.length = stream.read16n();
    stream.read_bytes(entry.length, entry.bytes);
    entries.push_back(std::move(entry));
  }
  void to_s(GolombBitStream& stream) override {
    const ParameterSet& entry = entries.at(0);
    stream.write16n(entry.length);
    stream.write_bytes(entry.bytes);
    entries.pop_front();
  }

  std::deque<ParameterSet> entries;
};
