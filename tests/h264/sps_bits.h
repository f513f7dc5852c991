// Sequence parameter sets written out bit by bit, element by element, for
// the model tests. Each piece is a bit string (see bit_text.h).
#pragma once

#include <string>

namespace sondex::test::sps {

inline std::string bin(unsigned value, int width) {
  std::string out;
  for (int i = width - 1; i >= 0; --i) out += (value >> i & 1) ? '1' : '0';
  return out + " ";
}

// NAL header byte (nal_ref_idc 3, type 7), profile_idc, the four
// constraint flags and reserved_zero_4bits, level_idc 30.
inline std::string header(unsigned profile, const std::string& constraintFlags = "1000") {
  return "0 11 00111 " + bin(profile, 8) + constraintFlags + " 0000 " + bin(30, 8);
}

const std::string kSpsId = "1 ";  // seq_parameter_set_id 0

// chroma_format_idc 1, 8-bit, no bypass, no scaling matrix.
const std::string kHigh420 = "010 1 1 0 0 ";

// From log2_max_frame_num_minus4 to frame_cropping_flag: picture order
// type 2, one reference frame, 20 x 15 macroblocks, progressive, no crop.
const std::string kBody =
    "1 "           // log2_max_frame_num_minus4 0
    "011 "         // pic_order_cnt_type 2
    "010 "         // max_num_ref_frames 1
    "0 "           // gaps_in_frame_num_value_allowed_flag
    "000010100 "   // pic_width_in_mbs_minus1 19
    "0001111 "     // pic_height_in_map_units_minus1 14
    "1 "           // frame_mbs_only_flag
    "1 "           // direct_8x8_inference_flag
    "0 ";          // frame_cropping_flag

// The rest of an SPS: no VUI when vui is empty, then the stop bit.
inline std::string tail(const std::string& vui = "") { return (vui.empty() ? "0 " : "1 " + vui) + "1"; }

// A Baseline SPS (profile 66, constraint_set0_flag 1), with the given VUI.
inline std::string baseline(const std::string& vui = "", const std::string& constraintFlags = "1000") {
  return header(66, constraintFlags) + kSpsId + kBody + tail(vui);
}

// A VUI with every optional part present.
const std::string kFullVui =
    "1 11111111 "                                  // aspect_ratio_idc 255 (Extended_SAR)
    "0000000000000100 0000000000000011 "           // sar 4:3
    "1 1 "                                         // overscan present, appropriate
    "1 101 1 "                                     // video signal: format 5, full range
    "1 00000001 00000001 00000001 "                // colour description 1, 1, 1
    "1 010 011 "                                   // chroma sample locations 1, 2
    "1 00000000000000000000001111101001 "          // num_units_in_tick 1001
    "00000000000000001110101001100000 1 "          // time_scale 60000, fixed rate
    "1 "                                           // NAL HRD:
    "010 0100 0011 "                               //   two schedules, scales 4, 3
    "00100 00101 0 "                               //   3, 4, vbr
    "00110 00111 1 "                               //   5, 6, cbr
    "10111 10111 10111 11000 "                     //   lengths 23, 23, 23, 24
    "1 "                                           // VCL HRD:
    "1 0000 0000 1 1 1 00000 00000 00000 00000 "   //   one schedule
    "1 "                                           // low_delay_hrd_flag
    "1 "                                           // pic_struct_present_flag
    "1 1 1 1 0001011 0001011 010 011 ";            // bitstream restriction

}  // namespace sondex::test::sps
