#include "h264/avc_config.h"

#include <utility>

#include "h264/nal_unit.h"

// ------------------------------------------------------------ avcC record

void AVCC::parse(GolombBitStream& stream) {
  clear();
  configurationVersion = stream.read8();
  AVCProfileIndication = stream.read8();
  profile_compatibility = stream.read8();
  AVCLevelIndication = stream.read8();
  lengthSizeMinusOne = stream.read8() & 3;
  numOfSequenceParameterSets = stream.read8() & 31;
  for (int i = 0; i < numOfSequenceParameterSets; ++i) sequenceParameterSets.parse(stream);
  numOfPictureParameterSets = stream.read8();
  // As many PPS entries are parsed as there are SPS entries (one of each is
  // the usual case); further PPS entries stay in the trailing bytes and are
  // written back unchanged, so no byte of the record is lost.
  for (int i = 0; i < numOfSequenceParameterSets; ++i) pictureParameterSets.parse(stream);
  stream.read_bytes(stream.remaining(), trailingBytes);
}

void AVCC::to_s(GolombBitStream& stream) {
  // The reserved high bits of the fifth and sixth bytes are not kept, so
  // they are written as zeros.
  stream.write8(configurationVersion);
  stream.write8(AVCProfileIndication);
  stream.write8(profile_compatibility);
  stream.write8(AVCLevelIndication);
  stream.write8(lengthSizeMinusOne);
  stream.write8(numOfSequenceParameterSets);
  for (int i = 0; i < numOfSequenceParameterSets; ++i) sequenceParameterSets.to_s(stream);
  stream.write8(numOfPictureParameterSets);
  for (int i = 0; i < numOfSequenceParameterSets; ++i) pictureParameterSets.to_s(stream);
  stream.write_bytes(trailingBytes);
}

void AVCC::sps_parse(SPS& sps) const {
  GolombBitStream stream;
  stream.attach(h264::nal_to_rbsp(sequenceParameterSets.entries.at(0).bytes));
  sps.parse(stream);
}

bool AVCC::sps_assign(SPS& sps) {
  ParameterSet& first = sequenceParameterSets.entries.at(0);
  GolombBitStream stream;
  sps.to_s(stream);
  ByteArray nal = h264::rbsp_to_nal(stream.bytes());
  if (nal.size() > 0xFFFF) return false;
  first.length = static_cast<uint16_t>(nal.size());
  first.bytes = std::move(nal);
  return true;
}

// --------------------------------------------------- sequence parameter set

void SPS::process_stream(GolombBitStream& s, bool write) {
  forbidden_zero_bit.process(s, write);
  nal_ref_idc.process(s, write);
  nal_unit_type.process(s, write);
  profile_idc.process(s, write);
  constraint_set0_flag.process(s, write);
  constraint_set1_flag.process(s, write);
  constraint_set2_flag.process(s, write);
  constraint_set3_flag.process(s, write);
  reserved_zero_4bits.process(s, write);
  level_idc.process(s, write);
  seq_parameter_set_id.process(s, write);
  if (HighProfileSpec::present_for(profile_idc)) highProfileSpec.process(s, write);
  log2_max_frame_num_minus4.process(s, write);
  pic_order_cnt_type.process(s, write);
  if (pic_order_cnt_type == 0) {
    log2_max_pic_order_cnt_lsb_minus4.process(s, write);
  } else if (pic_order_cnt_type == 1) {
    delta_pic_order_always_zero_flag.process(s, write);
    offset_for_non_ref_pic.process(s, write);
    offset_for_top_to_bottom_field.process(s, write);
    num_ref_frames_in_pic_order_cnt_cycle.process(s, write);
    // The count comes from the input: values are stored as they are read,
    // so a count the bytes cannot back ends in "no more data".
    for (uint32_t i = 0; i < num_ref_frames_in_pic_order_cnt_cycle; ++i) offset_for_ref_frame.process(s, write);
  }
  max_num_ref_frames.process(s, write);
  gaps_in_frame_num_value_allowed_flag.process(s, write);
  pic_width_in_mbs_minus1.process(s, write);
  pic_height_in_map_units_minus1.process(s, write);
  frame_mbs_only_flag.process(s, write);
  if (frame_mbs_only_flag == 0) mb_adaptive_frame_field_flag.process(s, write);
  direct_8x8_inference_flag.process(s, write);
  frame_cropping_flag.process(s, write);
  if (frame_cropping_flag == 1) {
    frame_crop_left_offset.process(s, write);
    frame_crop_right_offset.process(s, write);
    frame_crop_top_offset.process(s, write);
    frame_crop_bottom_offset.process(s, write);
  }
  vui_parameters_present_flag.process(s, write);
  if (vui_parameters_present_flag == 1) vui.process(s, write);
  rbsp_stop_one_bit.process(s, write);
  if (write) {
    // The stored alignment bits fit only where the stop bit still is.
    const int fill = s.bits_held() == 0 ? 0 : 8 - s.bits_held();
    s.write_bits(fill == rbsp_alignment_count ? rbsp_alignment_bits : 0, fill);
    s.write_bytes(rbsp_trailing_bytes);
  } else {
    rbsp_alignment_count = s.bits_held();
    rbsp_alignment_bits = s.read_bits(rbsp_alignment_count).value;
    s.read_bytes(static_cast<size_t>(s.remaining()), rbsp_trailing_bytes);
  }
}

bool HighProfileSpec::present_for(uint32_t profile_idc) {
  switch (profile_idc) {
    case 100:
    case 110:
    case 122:
    case 244:
    case 44:
    case 83:
    case 86:
    case 118:
    case 128:
    case 138:
      return true;
    default:
      return false;
  }
}

void HighProfileSpec::process_stream(GolombBitStream& s, bool write) {
  chroma_format_idc.process(s, write);
  if (chroma_format_idc == 3) separate_colour_plane_flag.process(s, write);
  bit_depth_luma_minus8.process(s, write);
  bit_depth_chroma_minus8.process(s, write);
  qpprime_y_zero_transform_bypass_flag.process(s, write);
  seq_scaling_matrix_present_flag.process(s, write);
  if (seq_scaling_matrix_present_flag == 0) return;
  const int lists = chroma_format_idc == 3 ? 12 : 8;
  for (int i = 0; i < lists; ++i) {
    if (seq_scaling_list_present_flag.process_next(s, write) == 1) {
      scaling_list[i].process_stream(s, write, i < 6 ? 16 : 64);
    }
  }
}

void ScalingList::process_stream(GolombBitStream& s, bool write, int size) {
  if (!write) clear();
  int64_t lastScale = 8;
  int64_t nextScale = 8;
  // A list ends early where nextScale reaches 0 (the rest repeats the last
  // scale), so only that many deltas are in the stream.
  for (int j = 0; j < size && nextScale != 0; ++j) {
    uint32_t code;
    if (write) {
      code = delta_scale.at(j);
      s.write_golomb(code);
    } else {
      code = s.read_golomb();
      delta_scale.push_back(code);
    }
    nextScale = ((lastScale + signed_value(code)) % 256 + 256) % 256;
    if (nextScale != 0) lastScale = nextScale;
  }
}

// ------------------------------------------------------- VUI and HRD

void VUI::process_stream(GolombBitStream& s, bool write) {
  aspect_ratio_info_present_flag.process(s, write);
  if (aspect_ratio_info_present_flag == 1) {
    aspect_ratio_idc.process(s, write);
    if (aspect_ratio_idc == 255) {  // Extended_SAR
      sar_width.process(s, write);
      sar_height.process(s, write);
    }
  }
  overscan_info_present_flag.process(s, write);
  if (overscan_info_present_flag == 1) overscan_appropriate_flag.process(s, write);
  video_signal_type_present_flag.process(s, write);
  if (video_signal_type_present_flag == 1) {
    video_format.process(s, write);
    video_full_range_flag.process(s, write);
    colour_description_present_flag.process(s, write);
    if (colour_description_present_flag == 1) {
      colour_primaries.process(s, write);
      transfer_characteristics.process(s, write);
      matrix_coefficients.process(s, write);
    }
  }
  chroma_loc_info_present_flag.process(s, write);
  if (chroma_loc_info_present_flag == 1) {
    chroma_sample_loc_type_top_field.process(s, write);
    chroma_sample_loc_type_bottom_field.process(s, write);
  }
  timing_info_present_flag.process(s, write);
  if (timing_info_present_flag == 1) {
    num_units_in_tick.process(s, write);
    time_scale.process(s, write);
    fixed_frame_rate_flag.process(s, write);
  }
  nal_hrd_parameters_present_flag.process(s, write);
  if (nal_hrd_parameters_present_flag == 1) nal_hrd.process(s, write);
  vcl_hrd_parameters_present_flag.process(s, write);
  if (vcl_hrd_parameters_present_flag == 1) vcl_hrd.process(s, write);
  if (nal_hrd_parameters_present_flag == 1 || vcl_hrd_parameters_present_flag == 1) {
    low_delay_hrd_flag.process(s, write);
  }
  pic_struct_present_flag.process(s, write);
  bitstream_restriction_flag.process(s, write);
  if (bitstream_restriction_flag == 1) {
    motion_vectors_over_pic_boundaries_flag.process(s, write);
    max_bytes_per_pic_denom.process(s, write);
    max_bits_per_mb_denom.process(s, write);
    log2_max_mv_length_horizontal.process(s, write);
    log2_max_mv_length_vertical.process(s, write);
    max_num_reorder_frames.process(s, write);
    max_dec_frame_buffering.process(s, write);
  }
}

void HRD::process_stream(GolombBitStream& s, bool write) {
  cpb_cnt_minus1.process(s, write);
  bit_rate_scale.process(s, write);
  cpb_size_scale.process(s, write);
  // cpb_cnt_minus1 + 1 schedules; the count is not trusted for any
  // allocation (values are stored as they are read).
  for (uint64_t i = 0; i <= cpb_cnt_minus1; ++i) {
    bit_rate_value_minus1.process(s, write);
    cpb_size_value_minus1.process(s, write);
    cbr_flag.process(s, write);
  }
  initial_cpb_removal_delay_length_minus1.process(s, write);
  cpb_removal_delay_length_minus1.process(s, write);
  dpb_output_delay_length_minus1.process(s, write);
  time_offset_length.process(s, write);
}
