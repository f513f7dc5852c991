// The model of an avcC decoder configuration record and of the H.264
// sequence parameter set it carries, made to parse a record and write it
// back bit for bit.
//
// Every composite has a single process_stream(stream, write) that walks its
// syntax once and reads (write false) or writes (write true) each element in
// the same order, so the two directions cannot drift apart. parse() starts
// from a cleared structure; a cleared structure holds 0 in every element and
// empty queues, and those are the values an absent part is written with.
//
// The SPS model reads and writes the raw byte sequence payload (RBSP); the
// record's entries are NAL unit bytes, so AVCC takes the emulation-prevention
// bytes out before an SPS is parsed and puts them back when it is written.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "gltk/byte_array.h"
#include "h264/bit_stream.h"
#include "h264/stream_entity.h"

// A structure of the parameter-set syntax.
class GolombStreamStructure : public GolombStreamEntity {
 public:
  void parse(GolombBitStream& stream) override {
    clear();
    process_stream(stream, false);
  }
  void to_s(GolombBitStream& stream) override { process_stream(stream, true); }
  virtual void process_stream(GolombBitStream& stream, bool write) = 0;
};

// One scaling list: the code numbers of its delta_scale values (se(v)),
// carried as they are read so that they write back bit for bit; the
// coefficients themselves are not kept.
class ScalingList {
 public:
  void clear() { delta_scale.clear(); }
  // size is 16 or 64 coefficients.
  void process_stream(GolombBitStream& stream, bool write, int size);
  // The signed value of an se(v) code number: 0, 1, -1, 2, -2, ...
  static int64_t signed_value(uint32_t code) {
    return code % 2 == 1 ? (static_cast<int64_t>(code) + 1) / 2 : -static_cast<int64_t>(code / 2);
  }

  std::vector<uint32_t> delta_scale;
};

// The part of the SPS that the high profiles add after seq_parameter_set_id.
class HighProfileSpec : public GolombStreamStructure {
 public:
  // Whether an SPS of this profile carries the part.
  static bool present_for(uint32_t profile_idc);

  void clear() override { *this = HighProfileSpec(); }
  void process_stream(GolombBitStream& stream, bool write) override;

  GolombData chroma_format_idc;
  BitData<1> separate_colour_plane_flag;
  GolombData bit_depth_luma_minus8;
  GolombData bit_depth_chroma_minus8;
  BitData<1> qpprime_y_zero_transform_bypass_flag;
  BitData<1> seq_scaling_matrix_present_flag;
  // The scaling matrix: one flag per list (8, or 12 for 4:4:4) and the
  // lists whose flag is 1, at their own index.
  BitDataVector<1> seq_scaling_list_present_flag;
  std::array<ScalingList, 12> scaling_list;
};

// Hypothetical reference decoder parameters (NAL or VCL).
class HRD : public GolombStreamStructure {
 public:
  void clear() override { *this = HRD(); }
  void process_stream(GolombBitStream& stream, bool write) override;

  GolombData cpb_cnt_minus1;
  BitData<4> bit_rate_scale;
  BitData<4> cpb_size_scale;
  // One value per schedule, cpb_cnt_minus1 + 1 of each.
  GolombDataVector bit_rate_value_minus1;
  GolombDataVector cpb_size_value_minus1;
  BitDataVector<1> cbr_flag;
  BitData<5> initial_cpb_removal_delay_length_minus1;
  BitData<5> cpb_removal_delay_length_minus1;
  BitData<5> dpb_output_delay_length_minus1;
  BitData<5> time_offset_length;
};

// Video usability information.
class VUI : public GolombStreamStructure {
 public:
  void clear() override { *this = VUI(); }
  void process_stream(GolombBitStream& stream, bool write) override;

  BitData<1> aspect_ratio_info_present_flag;
  BitData<8> aspect_ratio_idc;
  BitData<16> sar_width;
  BitData<16> sar_height;
  BitData<1> overscan_info_present_flag;
  BitData<1> overscan_appropriate_flag;
  BitData<1> video_signal_type_present_flag;
  BitData<3> video_format;
  BitData<1> video_full_range_flag;
  BitData<1> colour_description_present_flag;
  BitData<8> colour_primaries;
  BitData<8> transfer_characteristics;
  BitData<8> matrix_coefficients;
  BitData<1> chroma_loc_info_present_flag;
  GolombData chroma_sample_loc_type_top_field;
  GolombData chroma_sample_loc_type_bottom_field;
  BitData<1> timing_info_present_flag;
  BitData<32> num_units_in_tick;
  BitData<32> time_scale;
  BitData<1> fixed_frame_rate_flag;
  BitData<1> nal_hrd_parameters_present_flag;
  HRD nal_hrd;
  BitData<1> vcl_hrd_parameters_present_flag;
  HRD vcl_hrd;
  BitData<1> low_delay_hrd_flag;
  BitData<1> pic_struct_present_flag;
  BitData<1> bitstream_restriction_flag;
  BitData<1> motion_vectors_over_pic_boundaries_flag;
  GolombData max_bytes_per_pic_denom;
  GolombData max_bits_per_mb_denom;
  GolombData log2_max_mv_length_horizontal;
  GolombData log2_max_mv_length_vertical;
  GolombData max_num_reorder_frames;
  GolombData max_dec_frame_buffering;
};

// A sequence parameter set NAL unit, from its header byte to the stop bit.
class SPS : public GolombStreamStructure {
 public:
  void clear() override { *this = SPS(); }
  void process_stream(GolombBitStream& stream, bool write) override;

  BitData<1> forbidden_zero_bit;
  BitData<2> nal_ref_idc;
  BitData<5> nal_unit_type;
  BitData<8> profile_idc;
  BitData<1> constraint_set0_flag;
  BitData<1> constraint_set1_flag;
  BitData<1> constraint_set2_flag;
  BitData<1> constraint_set3_flag;
  BitData<4> reserved_zero_4bits;
  BitData<8> level_idc;
  GolombData seq_parameter_set_id;
  HighProfileSpec highProfileSpec;
  GolombData log2_max_frame_num_minus4;
  GolombData pic_order_cnt_type;
  GolombData log2_max_pic_order_cnt_lsb_minus4;
  BitData<1> delta_pic_order_always_zero_flag;
  // The three signed offsets of picture-order type 1 are only carried, never
  // interpreted, so their code numbers are kept as they are.
  GolombData offset_for_non_ref_pic;
  GolombData offset_for_top_to_bottom_field;
  GolombData num_ref_frames_in_pic_order_cnt_cycle;
  GolombDataVector offset_for_ref_frame;
  GolombData max_num_ref_frames;
  BitData<1> gaps_in_frame_num_value_allowed_flag;
  GolombData pic_width_in_mbs_minus1;
  GolombData pic_height_in_map_units_minus1;
  BitData<1> frame_mbs_only_flag;
  BitData<1> mb_adaptive_frame_field_flag;
  BitData<1> direct_8x8_inference_flag;
  BitData<1> frame_cropping_flag;
  GolombData frame_crop_left_offset;
  GolombData frame_crop_right_offset;
  GolombData frame_crop_top_offset;
  GolombData frame_crop_bottom_offset;
  BitData<1> vui_parameters_present_flag;
  VUI vui;
  BitData<1> rbsp_stop_one_bit;
  // What follows the stop bit: the alignment bits of its byte (zeros in a
  // conforming SPS) and any further bytes, carried as they stand so that an
  // SPS writes back whole.
  uint32_t rbsp_alignment_bits = 0;
  int rbsp_alignment_count = 0;
  ByteArray rbsp_trailing_bytes;
};

// The avcC payload: header bytes, the parameter-set lists and whatever
// follows them.
class AVCC : public GolombStreamEntity {
 public:
  void clear() override { *this = AVCC(); }
  void parse(GolombBitStream& stream) override;
  // Writing takes the entries out of the lists: a parsed record is written
  // once.
  void to_s(GolombBitStream& stream) override;
  // Parses the first SPS of the list (its RBSP) into sps; std::out_of_range
  // when the list is empty.
  void sps_parse(SPS& sps) const;
  // Writes sps as the NAL unit bytes of the first SPS entry; false when it
  // would not fit the entry's 16-bit length. std::out_of_range when the list
  // is empty.
  bool sps_assign(SPS& sps);

  uint8_t configurationVersion = 0;
  uint8_t AVCProfileIndication = 0;
  uint8_t profile_compatibility = 0;
  uint8_t AVCLevelIndication = 0;
  uint8_t lengthSizeMinusOne = 0;          // low 2 bits of its byte
  uint8_t numOfSequenceParameterSets = 0;  // low 5 bits of its byte
  ParameterSetVector sequenceParameterSets;
  uint8_t numOfPictureParameterSets = 0;
  ParameterSetVector pictureParameterSets;
  ByteArray trailingBytes;  // kept raw (e.g. the high-profile extension)
};
