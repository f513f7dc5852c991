// Parameter-set fixtures written as text: bit strings ("0 11 00111 ...", blanks ignored, zero-padded to whole
// bytes) and hex ("01 64 00 1F"), and an SPS spelled out element by element.
#pragma once

#include <bitset>
#include <string>

#include "gltk/byte_array.h"
#include "tests/support/bytes.h"

namespace sondex::test {

inline ByteArray fromBits(const std::string& bits) {
  ByteArray out;
  int byte = 0, count = 0;
  for (char c : bits) {
    if (c != '0' && c != '1') continue;
    byte = byte << 1 | (c - '0');
    if (++count == 8) out.push_back(static_cast<uint8_t>(byte)), byte = count = 0;
  }
  if (count > 0) out.push_back(static_cast<uint8_t>(byte << (8 - count)));
  return out;
}
inline ByteArray bytesOf(const std::string& hex) { return ByteArray(fromHex(hex).data(), fromHex(hex).size()); }
inline std::string hexOf(const ByteArray& b) { return toHex(Bytes(b.data(), b.data() + b.size())); }

namespace sps {

// NAL header (nal_ref_idc 3, type 7), profile_idc, constraint flags 0-3, reserved_zero_4bits, level_idc 30, id 0.
inline std::string header(unsigned profile, const std::string& constraintFlags = "1000") {
  return "0 11 00111 " + std::bitset<8>(profile).to_string() + " " + constraintFlags + " 0000 00011110 1 ";
}
// log2_max_frame_num_minus4 0, picture order type 2, one reference frame, 20 x 15 macroblocks, progressive, 8x8
// inference, no cropping.
const std::string kBody = "1 011 010 0 000010100 0001111 1 1 0 ";
// The VUI flag and VUI (none when empty), then the stop bit.
inline std::string tail(const std::string& vui = "") { return (vui.empty() ? "0 " : "1 " + vui) + "1"; }
inline std::string baseline(const std::string& vui = "", const std::string& constraintFlags = "1000") {
  return header(66, constraintFlags) + kBody + tail(vui);
}

// A VUI with every optional part present: Extended_SAR 4:3, overscan appropriate; format 5, full range, BT.709;
// chroma sample locations 1, 2; num_units_in_tick 1001, time_scale 60000, fixed rate; a NAL HRD with schedules
// (3, 4, vbr), (5, 6, cbr) and delay lengths 23, 23, 23, 24; a VCL HRD with one schedule; low_delay_hrd_flag,
// pic_struct_present_flag; bitstream restriction.
const std::string kFullVui =
    "1 11111111 0000000000000100 0000000000000011 1 1 1 101 1 1 00000001 00000001 00000001 1 010 011 "
    "1 00000000000000000000001111101001 00000000000000001110101001100000 1 "
    "1 010 0100 0011 00100 00101 0 00110 00111 1 10111 10111 10111 11000 1 1 0000 0000 1 1 1 00000 00000 00000 00000 "
    "1 1 1 1 1 1 0001011 0001011 010 011 ";

}  // namespace sps
}  // namespace sondex::test
