// MP4::AVCC: the H.264 decoder configuration record ("avcC") of a video
// sample entry. The payload is read whole while the tree is built; the
// parameter-set model in h264/ reads and rewrites it.
#pragma once

#include <cstdint>

#include "gltk/byte_array.h"
#include "mp4/box.h"

namespace MP4 {

class AVCC : public BOX {
 public:
  using BOX::BOX;
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;

  // profile_idc, constraint_set1_flag and the full-range flag of the first
  // sequence parameter set. False (after a message) when the record or its
  // SPS cannot be parsed; the outputs are then left alone.
  bool get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrained_set1_flag,
                                                 bool& full_range);
  // A new record payload (no box header) whose first SPS has
  // constraint_set1_flag 1 and the given full-range flag, with the previous
  // two values. out is emptied first; false when the record cannot be parsed.
  bool assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& wasFullRange,
                                                  bool& wasConstrainedSet1);

  ByteArray payload;  // box size - 8 bytes, as far as the box lies in the file
};

}  // namespace MP4
