// The sample description box and the two sample entries the program reads:
// H.264 video ("avc1") and little-endian PCM audio ("sowt").
#include <cstdint>

#include "gltk/console.h"
#include "mp4/boxes.h"

namespace MP4 {

void STSD::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  f.take(versionAndFlags.data(), 4);
  entryCount = f.read32();
  parseChildren(f, limit);
}

void AVC1::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  // The visual sample entry fields up to its last pre-defined word; when
  // the box is too short for them the child walk starts right here.
  uint8_t fields[78];
  f.take(fields, sizeof fields);
  parseChildren(f, limit);
}

void SOWT::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  f.seek_cur(6);  // reserved
  data_reference_index = f.read16();
  f.seek_cur(8);  // version, revision level, vendor
  channel_count = f.read16();
  sample_size = f.read16();
  pre_defined = f.read16();
  f.seek_cur(2);
  sampleRate = f.read32();
  parseChildren(f, limit);
}

void SOWT::dump() const {
  GLTK::Console::out(
      L"MP4: %ls<%ls data_reference_index=%u channel_count=%u sample_size=%u pre_defined=%u samplelate=%x>\n",
      indent().c_str(), basicTag().c_str(), data_reference_index, channel_count, sample_size, pre_defined, sampleRate);
  dumpChildren();
}

}  // namespace MP4
