// Typed boxes: the movie, track and media headers, the sample tables, the
// sample entries for H.264 video and little-endian PCM audio, the handler,
// the two location boxes of the user data and the uuid box. Each decodes its
// fields while the tree is built and prints them in its dump line.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "gltk/byte_array.h"
#include "mp4/box.h"

namespace MP4 {

// No camera writes a box larger than this. The payload of a larger box is
// never read whole (not when the tree is built, not by readPayload), so
// that a crafted size cannot make one read allocate gigabytes; such a box
// reads as empty.
constexpr uint64_t kPayloadLimit = 16 << 20;

// True, after the line "<path>: <size> bytes, over the 16 MiB limit, not
// read.", when box is larger than kPayloadLimit. The path runs from the
// top-level box down to box, e.g. "moov.udta.KMKN".
bool refusedAsOversized(const BOX& box);

class MVHD : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  bool setTimeStamp(BinFile& f, uint64_t value);

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint64_t timeStamp = 0;  // creation time
  float duration = 0;      // seconds
  float timeScale = 0;
};

class TKHD : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  bool setTimeStamp(BinFile& f, uint64_t value);

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint64_t timeStamp = 0;  // creation time
  uint32_t width = 0;      // integer part of the 16.16 value
  uint32_t height = 0;
  // The display matrix, row by row: a, b, u, c, d, v (16.16), x, y, w (2.30).
  std::array<int32_t, 9> matrix{0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000};
};

class MDHD : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  bool setTimeStamp(BinFile& f, uint64_t value);

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint64_t timeStamp = 0;  // creation time (version 0) or modification time (version 1)
  uint64_t duration = 0;   // in time-scale units
  uint32_t timeScale = 0;
};

class STSD : public NestedBoxWithVersion {
 public:
  using NestedBoxWithVersion::NestedBoxWithVersion;
  void parseBox(BinFile& f, uint64_t limit) override;
  BOX* allocChild(BOX& header) override;

  uint32_t entryCount = 0;
};

class AVC1 : public NestedBox {
 public:
  using NestedBox::NestedBox;
  void parseBox(BinFile& f, uint64_t limit) override;
  BOX* allocChild(BOX& header) override;
};

class SOWT : public NestedBox {
 public:
  using NestedBox::NestedBox;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  uint16_t data_reference_index = 0;
  uint16_t channel_count = 0;
  uint16_t pre_defined = 0;
  uint16_t sample_size = 0;
  uint32_t sampleRate = 0;  // 16.16 fixed point as stored
};

// The sample tables keep their counts as the file states them but store
// only the entries the file actually holds: entries past the payload read
// as zero, exactly as if each had been read past the box's end.
class STTS : public BOX {
 public:
  struct Entry {
    uint32_t sample_count = 0;
    uint32_t sample_delta = 0;
  };

  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  Entry entry(uint64_t i) const { return i < entries.size() ? entries[i] : Entry{}; }

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint32_t entryCount = 0;
  std::vector<Entry> entries;  // the first entries.size() of entryCount
};

class STSC : public BOX {
 public:
  struct StscEntry {
    uint32_t first_chunk = 0;
    uint32_t samples_per_chunk = 0;
    uint32_t sample_description_index = 0;
  };

  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  StscEntry entry(uint64_t i) const { return i < entries.size() ? entries[i] : StscEntry{}; }

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint32_t entryCount = 0;
  std::vector<StscEntry> entries;  // the first entries.size() of entryCount
};

class STSZ : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  uint32_t entry(uint64_t i) const { return i < entries.size() ? entries[i] : 0; }

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint32_t sampleSize = 0;
  uint32_t sample_count = 0;
  std::vector<uint32_t> entries;  // the first entries.size() of sample_count
  uint64_t sample_total = 0;
};

// Chunk offsets are not read while parsing; the box records where its
// table starts so that a rewrite can patch it in the file.
class STCO : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  uint8_t version = 0;
  std::array<uint8_t, 3> flags{};
  uint32_t entryCount = 0;
  uint64_t entryOffset = 0;  // file offset of the first entry
};

class CO64 : public STCO {
 public:
  using STCO::STCO;
};

// The user-data location text box whose type is the byte A9 then "xyz".
class XYZ : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  uint16_t textLength = 0;
  uint16_t language = 0x15C7;  // packed ISO 639-2 "eng"
  std::string text;
};

class LOCI : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  double longitude = 0;
  double latitude = 0;
  double altitude = 0;
  bool hasPosition = false;
  bool hasAltitude = false;
};

class HDLR : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  std::array<uint8_t, 4> versionAndFlags{};
  std::array<uint8_t, 4> pre_defined{};
  FourCC handler{};
  std::array<uint8_t, 12> reserved{};
  std::string name;  // empty unless the name lay within the box (and the box is not over kPayloadLimit)
  uint64_t nameLength = 0;
};

class UUID : public NestedBox {
 public:
  using Usertype = std::array<uint8_t, 16>;
  // The extended type of the maker's spatial-audio container.
  static constexpr Usertype kSpatialAudio = {0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F,
                                             0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01};

  using NestedBox::NestedBox;
  // A box to be written: the payload behind a 24-byte header; the caller
  // sets usertype.
  explicit UUID(const std::string& payload);

  bool hasChild() const override;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  BOX* allocChild(BOX& header) override;

  // The complete box: size, "uuid", usertype, payload.
  void to_byteArray(ByteArray& out) const;
  // Writes the box at the file's position; true when all of it was written.
  bool write(BinFile& f) const;
  // usertype as 8-4-4-4-12 upper-case hexadecimal.
  std::wstring usertypeText() const;
  std::string payloadText() const { return std::string(payload.begin(), payload.end()); }

  Usertype usertype{};
  std::vector<uint8_t> payload;  // the payload bytes the file holds; empty over kPayloadLimit
};

}  // namespace MP4
