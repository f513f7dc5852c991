// Movie, track and media headers.
#include <cstdint>

#include "gltk/byte_order.h"
#include "gltk/console.h"
#include "mp4/boxes.h"

namespace MP4 {

namespace {

// The creation time sits at start + 12 in all three headers: behind the
// 8-byte header and the version and flags.
bool writeTimeStamp(const BOX& box, uint8_t version, BinFile& f, uint64_t value) {
  const uint64_t saved = f.tell();
  uint8_t bytes[8];
  const int n = version == 1 ? 8 : 4;
  GLTK::storeBE(bytes, value, n);
  f.seek_set(box.start + 12);
  f.write(bytes, static_cast<uint64_t>(n));
  f.seek_set(saved);
  return true;
}

// A signed 16.16 fixed-point value, integer part truncated toward zero.
uint32_t fixedToInteger(uint32_t raw) {
  return static_cast<uint32_t>(static_cast<int32_t>(static_cast<int32_t>(raw) * 1.52587890625e-5));
}

}  // namespace

void MVHD::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  version = f.read8();
  f.take(flags.data(), 3);
  if (version != 1) {
    timeStamp = f.read32();
    f.seek_cur(4);  // modification time
    timeScale = static_cast<float>(f.read32());
    duration = static_cast<float>(f.read32()) / timeScale;
  } else {
    timeStamp = f.read64();
    f.seek_cur(8);  // modification time
    timeScale = static_cast<float>(f.read32());
    // Single precision on purpose: the duration is reported as a float.
    duration = static_cast<float>(f.read64()) / timeScale;
  }
}

void MVHD::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%lu >\n", indent().c_str(), basicTag().c_str(),
                     static_cast<unsigned long>(timeStamp));
}

bool MVHD::setTimeStamp(BinFile& f, uint64_t value) { return writeTimeStamp(*this, version, f, value); }

void TKHD::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  version = f.read8();
  f.take(flags.data(), 3);
  timeStamp = version == 1 ? f.read64() : f.read32();
  f.seek_cur(version == 1 ? 24 : 16);  // modification time, track ID, reserved, duration
  f.seek_cur(16);                      // reserved, layer, alternate group, volume, reserved
  for (int32_t& value : matrix) value = static_cast<int32_t>(f.read32());
  width = fixedToInteger(f.read32());
  height = fixedToInteger(f.read32());
}

void TKHD::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%lu width=%u height=%u >\n", indent().c_str(), basicTag().c_str(),
                     static_cast<unsigned long>(timeStamp), width, height);
}

bool TKHD::setTimeStamp(BinFile& f, uint64_t value) { return writeTimeStamp(*this, version, f, value); }

void MDHD::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  version = f.read8();
  f.take(flags.data(), 3);
  if (version != 1) {
    timeStamp = f.read32();  // creation time
    f.read32();              // modification time
    timeScale = f.read32();
    duration = f.read32();
  } else {
    // Version 1 keeps the modification time, version 0 the creation time:
    // reports made from either stay as they always were.
    f.read64();
    timeStamp = f.read64();
    timeScale = f.read32();
    duration = f.read64();
  }
}

void MDHD::dump() const {
  GLTK::Console::LocaleC scope;
  GLTK::Console::out(L"MP4: %ls<%ls timeStamp=%lu duration=%f time_scale=%f >\n", indent().c_str(), basicTag().c_str(),
                     static_cast<unsigned long>(timeStamp), static_cast<double>(duration),
                     static_cast<double>(timeScale));
}

bool MDHD::setTimeStamp(BinFile& f, uint64_t value) { return writeTimeStamp(*this, version, f, value); }

}  // namespace MP4
