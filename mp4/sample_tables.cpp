// Sample tables: time-to-sample, sample-to-chunk, sample sizes and chunk
// offsets.
#include <cstdint>
#include <cstring>

#include "gltk/byte_order.h"
#include "gltk/console.h"
#include "mp4/boxes.h"

namespace MP4 {

namespace {

void readFullBoxHeader(BinFile& f, uint8_t& version, std::array<uint8_t, 3>& flags) {
  version = f.read8();
  f.take(flags.data(), 3);
}

}  // namespace

void STTS::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  readFullBoxHeader(f, version, flags);
  entryCount = f.read32();
  if (entryCount == 0) return;
  std::vector<uint8_t> raw;
  const uint64_t stored = f.take_entries(raw, 8, entryCount);
  entries.resize(stored);
  for (uint64_t i = 0; i < stored; ++i) entries[i] = {GLTK::loadBE32(&raw[8 * i]), GLTK::loadBE32(&raw[8 * i + 4])};
}

void STTS::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls entryCount=%d >\n", indent().c_str(), basicTag().c_str(),
                     static_cast<int>(entryCount));
}

void STSC::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  readFullBoxHeader(f, version, flags);
  entryCount = f.read32();
  if (entryCount == 0) return;
  std::vector<uint8_t> raw;
  const uint64_t stored = f.take_entries(raw, 12, entryCount);
  entries.resize(stored);
  for (uint64_t i = 0; i < stored; ++i) {
    entries[i] = {GLTK::loadBE32(&raw[12 * i]), GLTK::loadBE32(&raw[12 * i + 4]), GLTK::loadBE32(&raw[12 * i + 8])};
  }
}

void STSC::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls entryCount=%d >\n", indent().c_str(), basicTag().c_str(),
                     static_cast<int>(entryCount));
}

void STSZ::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  readFullBoxHeader(f, version, flags);
  sampleSize = f.read32();
  sample_count = f.read32();
  sample_total = 0;
  if (sampleSize != 0) {
    // A 32-bit product that wraps for huge tables: the bit rates are computed
    // from it, and programs that read the report depend on those values.
    sample_total = static_cast<uint32_t>(sampleSize * sample_count);
    return;
  }
  if (sample_count == 0) return;
  // Read straight into the table, then put each size in host order.
  entries.resize(f.storable_entries(4, sample_count));
  f.read(reinterpret_cast<unsigned char*>(entries.data()), entries.size() * 4);
  for (uint32_t& size : entries) {
    size = GLTK::loadBE32(reinterpret_cast<const uint8_t*>(&size));
    sample_total += size;
  }
}

void STSZ::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls sampleSize=%d sample_count=%d sample_total=%llu >\n", indent().c_str(),
                     basicTag().c_str(), static_cast<int>(sampleSize), static_cast<int>(sample_count),
                     static_cast<unsigned long long>(sample_total));
}

void STCO::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  readFullBoxHeader(f, version, flags);
  entryCount = f.read32();
  entryOffset = f.tell();
}

void STCO::dump() const {
  GLTK::Console::out(L"MP4: %ls<%ls indexes=%u >\n", indent().c_str(), basicTag().c_str(), entryCount);
}

}  // namespace MP4
