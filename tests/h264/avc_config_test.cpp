// The avcC record and SPS model: presence conditions, bit-exact writing,
// the deliberate quirks and damaged input.
#include "h264/avc_config.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/h264/bit_text.h"
#include "tests/h264/sps_bits.h"

namespace {

using namespace sondex::test;
namespace sps = sondex::test::sps;

SPS parsed(const std::string& bits) {
  GolombBitStream in;
  in.attach(fromBits(bits));
  SPS model;
  model.parse(in);
  return model;
}

ByteArray written(SPS& model) {
  GolombBitStream out;
  model.to_s(out);
  return out.bytes();
}

// Parses bits and writes them back.
std::string roundTrip(const std::string& bits) {
  SPS model = parsed(bits);
  return hexOf(written(model));
}

AVCC parsedRecord(const std::string& hex) {
  GolombBitStream in;
  in.attach(bytesOf(hex));
  AVCC record;
  record.parse(in);
  return record;
}

std::string writtenRecord(AVCC& record) {
  GolombBitStream out;
  record.to_s(out);
  return hexOf(out.bytes());
}

// ------------------------------------------------------------------ SPS

TEST(SPS, BaselineFieldsAndExactRoundTrip) {
  const std::string bits = sps::baseline();
  SPS model = parsed(bits);
  EXPECT_EQ(model.nal_ref_idc, 3u);
  EXPECT_EQ(model.nal_unit_type, 7u);
  EXPECT_EQ(model.profile_idc, 66u);
  EXPECT_EQ(model.constraint_set0_flag, 1u);
  EXPECT_EQ(model.constraint_set1_flag, 0u);
  EXPECT_EQ(model.level_idc, 30u);
  EXPECT_EQ(model.pic_order_cnt_type, 2u);
  EXPECT_EQ(model.max_num_ref_frames, 1u);
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);
  EXPECT_EQ(model.pic_height_in_map_units_minus1, 14u);
  EXPECT_EQ(model.vui_parameters_present_flag, 0u);
  EXPECT_EQ(model.rbsp_stop_one_bit, 1u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

TEST(SPS, HighProfilePartIsReadExactlyForTheListedProfiles) {
  for (unsigned profile : {100u, 110u, 122u, 244u, 44u, 83u, 86u, 118u, 128u, 138u}) {
    const std::string bits = sps::header(profile) + sps::kSpsId + sps::kHigh420 + sps::kBody + sps::tail();
    SPS model = parsed(bits);
    EXPECT_EQ(model.highProfileSpec.chroma_format_idc, 1u) << profile;
    EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u) << profile;
    EXPECT_EQ(roundTrip(bits), hexOf(fromBits(bits))) << profile;
  }
  // 139, 134 and 135 also carry the part in H.264, but not for this model.
  for (unsigned profile : {0u, 66u, 77u, 88u, 134u, 135u, 139u, 255u}) {
    const std::string bits = sps::header(profile) + sps::kSpsId + sps::kBody + sps::tail();
    SPS model = parsed(bits);
    EXPECT_EQ(model.highProfileSpec.chroma_format_idc, 0u) << profile;
    EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u) << profile;
    EXPECT_EQ(roundTrip(bits), hexOf(fromBits(bits))) << profile;
  }
}

TEST(SPS, FourFourFourHasTheColourPlaneFlagAndTwelveListFlags) {
  const std::string bits = sps::header(244) + sps::kSpsId +
                           "00100 1 "   // chroma_format_idc 3, separate_colour_plane_flag
                           "010 011 1 "  // bit depths 9 and 10, lossless bypass
                           "1 000000000000 " +  // scaling matrix with no list present
                           sps::kBody + sps::tail();
  SPS model = parsed(bits);
  const HighProfileSpec& high = model.highProfileSpec;
  EXPECT_EQ(high.chroma_format_idc, 3u);
  EXPECT_EQ(high.separate_colour_plane_flag, 1u);
  EXPECT_EQ(high.bit_depth_luma_minus8, 1u);
  EXPECT_EQ(high.bit_depth_chroma_minus8, 2u);
  EXPECT_EQ(high.qpprime_y_zero_transform_bypass_flag, 1u);
  EXPECT_EQ(high.seq_scaling_list_present_flag.values.size(), 12u);
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

TEST(SPS, ScalingListsAreWrittenWithTheSignedMapping) {
  // List 0 (16 coefficients): codes 2, 3, 17 read as +1, -1, -8; the -8
  // takes the scale to 0 and ends the list. List 6 (64 coefficients): code
  // 1 reads as 0, then 63 codes 0.
  const std::string ones63(63, '1');
  const auto withLists = [&](const std::string& list0, const std::string& list6) {
    return sps::header(100) + sps::kSpsId + "010 1 1 0 1 " +  // 4:2:0, scaling matrix present
           "1 " + list0 + "0 0 0 0 0 " + "1 " + list6 + "0 " + sps::kBody + sps::tail();
  };
  const std::string bits = withLists("011 00100 000010010 ", "010 " + ones63);
  SPS model = parsed(bits);
  const HighProfileSpec& high = model.highProfileSpec;
  EXPECT_EQ(high.scaling_list[0].delta_scale, (std::vector<int32_t>{1, -1, -8}));
  EXPECT_EQ(high.scaling_list[6].delta_scale, std::vector<int32_t>(64, 0));
  EXPECT_TRUE(high.scaling_list[1].delta_scale.empty());
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);
  // Negative deltas come back one code lower (-1 as code 1, -8 as code
  // 15), and the code-1 zero as code 0: a shorter SPS.
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(withLists("011 010 000010000 ", "1 " + ones63))));
}

TEST(SPS, WritingAScalingListWithoutItsDeltasFails) {
  SPS model = parsed(sps::header(100) + sps::kSpsId + "010 1 1 0 1 " + "1 000010010 " + "0000000 " + sps::kBody +
                     sps::tail());
  model.highProfileSpec.scaling_list[0].delta_scale.pop_back();
  GolombBitStream out;
  EXPECT_THROW(model.to_s(out), std::out_of_range);
}

TEST(SPS, PictureOrderType0And1) {
  const std::string type0 = sps::header(66) + sps::kSpsId + "1 1 00101 " + "010 0 000010100 0001111 1 1 0 " +
                            sps::tail();
  SPS model0 = parsed(type0);
  EXPECT_EQ(model0.log2_max_pic_order_cnt_lsb_minus4, 4u);
  EXPECT_EQ(model0.max_num_ref_frames, 1u);
  EXPECT_EQ(hexOf(written(model0)), hexOf(fromBits(type0)));

  // The signed offsets are carried as code numbers.
  const std::string type1 = sps::header(66) + sps::kSpsId + "1 010 " +
                            "0 011 010 "            // always_zero 0, offsets (codes 2 and 1)
                            "00100 00100 00101 00110 "  // three reference offsets (codes 3, 4, 5)
                            "010 0 000010100 0001111 1 1 0 " + sps::tail();
  SPS model1 = parsed(type1);
  EXPECT_EQ(model1.offset_for_non_ref_pic, 2u);
  EXPECT_EQ(model1.offset_for_top_to_bottom_field, 1u);
  EXPECT_EQ(model1.num_ref_frames_in_pic_order_cnt_cycle, 3u);
  EXPECT_EQ(model1.offset_for_ref_frame.values, (std::deque<uint32_t>{3, 4, 5}));
  EXPECT_EQ(model1.pic_width_in_mbs_minus1, 19u);
  EXPECT_EQ(hexOf(written(model1)), hexOf(fromBits(type1)));
  // Writing took the offsets out of the model: it is written once.
  EXPECT_TRUE(model1.offset_for_ref_frame.values.empty());
  GolombBitStream again;
  EXPECT_THROW(model1.to_s(again), std::out_of_range);
}

TEST(SPS, InterlacedAndCroppedFields) {
  const std::string bits = sps::header(77) + sps::kSpsId + "1 011 010 0 000010100 0001111 " +
                           "0 1 "                  // fields, macroblock-adaptive
                           "1 1 1 010 011 00100 "  // cropping 0, 1, 2, 3
                           + sps::tail();
  SPS model = parsed(bits);
  EXPECT_EQ(model.frame_mbs_only_flag, 0u);
  EXPECT_EQ(model.mb_adaptive_frame_field_flag, 1u);
  EXPECT_EQ(model.direct_8x8_inference_flag, 1u);
  EXPECT_EQ(model.frame_crop_left_offset, 0u);
  EXPECT_EQ(model.frame_crop_right_offset, 1u);
  EXPECT_EQ(model.frame_crop_top_offset, 2u);
  EXPECT_EQ(model.frame_crop_bottom_offset, 3u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

// ------------------------------------------------------------ VUI, HRD

TEST(VUI, EveryOptionalPartPresent) {
  const std::string bits = sps::baseline(sps::kFullVui);
  SPS model = parsed(bits);
  const VUI& vui = model.vui;
  EXPECT_EQ(vui.aspect_ratio_idc, 255u);
  EXPECT_EQ(vui.sar_width, 4u);
  EXPECT_EQ(vui.sar_height, 3u);
  EXPECT_EQ(vui.overscan_appropriate_flag, 1u);
  EXPECT_EQ(vui.video_format, 5u);
  EXPECT_EQ(vui.video_full_range_flag, 1u);
  EXPECT_EQ(vui.matrix_coefficients, 1u);
  EXPECT_EQ(vui.chroma_sample_loc_type_bottom_field, 2u);
  EXPECT_EQ(vui.num_units_in_tick, 1001u);
  EXPECT_EQ(vui.time_scale, 60000u);
  EXPECT_EQ(vui.nal_hrd.cpb_cnt_minus1, 1u);
  EXPECT_EQ(vui.nal_hrd.bit_rate_scale, 4u);
  EXPECT_EQ(vui.nal_hrd.bit_rate_value_minus1.values, (std::deque<uint32_t>{3, 5}));
  EXPECT_EQ(vui.nal_hrd.cpb_size_value_minus1.values, (std::deque<uint32_t>{4, 6}));
  EXPECT_EQ(vui.nal_hrd.cbr_flag.values, (std::deque<uint32_t>{0, 1}));
  EXPECT_EQ(vui.nal_hrd.time_offset_length, 24u);
  EXPECT_EQ(vui.vcl_hrd.cbr_flag.values, (std::deque<uint32_t>{1}));
  EXPECT_EQ(vui.low_delay_hrd_flag, 1u);
  EXPECT_EQ(vui.pic_struct_present_flag, 1u);
  EXPECT_EQ(vui.log2_max_mv_length_vertical, 10u);
  EXPECT_EQ(vui.max_num_reorder_frames, 1u);
  EXPECT_EQ(vui.max_dec_frame_buffering, 2u);
  EXPECT_EQ(model.rbsp_stop_one_bit, 1u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

TEST(VUI, AbsentPartsAreSkippedAndStayZero) {
  // aspect_ratio_idc 1 has no sample aspect ratio; a video signal type
  // without colour description; no HRD so no low_delay_hrd_flag; then
  // pic_struct_present_flag 1 shows where reading went on.
  const std::string bits = sps::baseline("1 00000001 0 1 010 0 0 0 0 0 0 1 0 ");
  SPS model = parsed(bits);
  const VUI& vui = model.vui;
  EXPECT_EQ(vui.aspect_ratio_idc, 1u);
  EXPECT_EQ(vui.sar_width, 0u);
  EXPECT_EQ(vui.video_format, 2u);
  EXPECT_EQ(vui.video_full_range_flag, 0u);
  EXPECT_EQ(vui.colour_description_present_flag, 0u);
  EXPECT_EQ(vui.colour_primaries, 0u);
  EXPECT_EQ(vui.low_delay_hrd_flag, 0u);
  EXPECT_EQ(vui.pic_struct_present_flag, 1u);
  EXPECT_EQ(vui.bitstream_restriction_flag, 0u);
  EXPECT_EQ(model.rbsp_stop_one_bit, 1u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

TEST(VUI, OnlyAVclHrdStillReadsLowDelay) {
  const std::string bits = sps::baseline("0 0 0 0 0 0 1 1 0000 0000 1 1 0 00000 00000 00000 00000 1 0 0 ");
  SPS model = parsed(bits);
  EXPECT_EQ(model.vui.vcl_hrd_parameters_present_flag, 1u);
  EXPECT_EQ(model.vui.low_delay_hrd_flag, 1u);
  EXPECT_EQ(hexOf(written(model)), hexOf(fromBits(bits)));
}

TEST(SPS, ParsingAgainStartsFromACleanModel) {
  SPS model = parsed(sps::baseline(sps::kFullVui));
  GolombBitStream in;
  in.attach(fromBits(sps::baseline()));
  model.parse(in);
  EXPECT_EQ(model.vui.time_scale, 0u);
  EXPECT_TRUE(model.vui.nal_hrd.bit_rate_value_minus1.values.empty());
}

// ------------------------------------------------------ damaged SPS

TEST(SPS, EveryTruncationEndsInNoMoreData) {
  const ByteArray whole = fromBits(sps::baseline(sps::kFullVui));
  for (uint64_t n = 0; n < whole.size(); ++n) {
    GolombBitStream in;
    in.attach(ByteArray(whole.data(), n));
    SPS model;
    EXPECT_EQ(thrownMessage([&] { model.parse(in); }), "no more data") << n;
  }
}

TEST(SPS, OverLongCodeIsReported) {
  GolombBitStream in;
  in.attach(fromBits(sps::header(66) + "0000000000000000 1 " + std::string(40, '1')));
  SPS model;
  EXPECT_EQ(thrownMessage([&] { model.parse(in); }), "too log golomb sream");
}

TEST(SPS, CountsBeyondTheDataEndInNoMoreData) {
  const std::string most = "000000000000000 1 111111111111111 ";  // code 65534
  GolombBitStream offsets;
  offsets.attach(fromBits(sps::header(66) + sps::kSpsId + "1 010 0 1 1 " + most + "1 1 1 1"));
  SPS model;
  EXPECT_EQ(thrownMessage([&] { model.parse(offsets); }), "no more data");
  EXPECT_EQ(model.offset_for_ref_frame.values.size(), 4u);  // only what was read

  GolombBitStream schedules;
  schedules.attach(fromBits(sps::baseline("0 0 0 0 0 1 " + most + "0000 0000 1 1 0")));
  EXPECT_EQ(thrownMessage([&] { model.parse(schedules); }), "no more data");
}

// --------------------------------------------------------------- avcC

const std::string kRecord = "01 64 00 1F FF E1 00 04 67 64 00 1F 01 00 02 68 EE";

TEST(AVCC, HeaderKeepsOnlyTheValueBitsOfBytesFourAndFive) {
  AVCC record = parsedRecord(kRecord);
  EXPECT_EQ(record.configurationVersion, 1);
  EXPECT_EQ(record.AVCProfileIndication, 0x64);
  EXPECT_EQ(record.profile_compatibility, 0);
  EXPECT_EQ(record.AVCLevelIndication, 0x1F);
  EXPECT_EQ(record.lengthSizeMinusOne, 3);
  EXPECT_EQ(record.numOfSequenceParameterSets, 1);
  ASSERT_EQ(record.sequenceParameterSets.entries.size(), 1u);
  EXPECT_EQ(hexOf(record.sequenceParameterSets.entries[0].bytes), "67 64 00 1F");
  EXPECT_EQ(record.numOfPictureParameterSets, 1);
  EXPECT_EQ(hexOf(record.pictureParameterSets.entries.at(0).bytes), "68 EE");
  EXPECT_TRUE(record.trailingBytes.empty());
  EXPECT_EQ(writtenRecord(record), "01 64 00 1F 03 01 00 04 67 64 00 1F 01 00 02 68 EE");
}

TEST(AVCC, BytesAfterTheListsAreKeptRaw) {
  AVCC record = parsedRecord(kRecord + " FD F8 F8 00");
  EXPECT_EQ(hexOf(record.trailingBytes), "FD F8 F8 00");
  EXPECT_EQ(writtenRecord(record), "01 64 00 1F 03 01 00 04 67 64 00 1F 01 00 02 68 EE FD F8 F8 00");
}

TEST(AVCC, PictureSetsAreReadWithTheSequenceSetCount) {
  // Two PPS, one SPS: the second PPS stays in the trailing bytes.
  AVCC extra = parsedRecord("01 42 00 1E FF E1 00 01 67 02 00 01 68 00 01 69");
  EXPECT_EQ(extra.pictureParameterSets.entries.size(), 1u);
  EXPECT_EQ(hexOf(extra.trailingBytes), "00 01 69");
  EXPECT_EQ(writtenRecord(extra), "01 42 00 1E 03 01 00 01 67 02 00 01 68 00 01 69");

  // No SPS: no PPS entry is read at all.
  AVCC none = parsedRecord("01 42 00 1E FF E0 01 00 01 68");
  EXPECT_TRUE(none.sequenceParameterSets.entries.empty());
  EXPECT_EQ(hexOf(none.trailingBytes), "00 01 68");
  EXPECT_EQ(writtenRecord(none), "01 42 00 1E 03 00 01 00 01 68");

  // Two SPS, one PPS present: the second PPS entry is missing.
  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF E2 00 01 67 00 01 67 01 00 01 68"); }),
            "no more data");
}

TEST(AVCC, IsWrittenOnce) {
  AVCC record = parsedRecord(kRecord);
  writtenRecord(record);
  EXPECT_THROW(writtenRecord(record), std::out_of_range);
}

TEST(AVCC, FirstSpsParseNeedsAnSps) {
  AVCC record = parsedRecord("01 42 C0 1E FF E1 00 08 " + hexOf(fromBits(sps::baseline())) + " 01 00 02 68 CE");
  SPS model;
  record.sps_parse(model);
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);

  AVCC empty = parsedRecord("01 42 00 1E FF E0 00");
  EXPECT_THROW(empty.sps_parse(model), std::out_of_range);
}

TEST(AVCC, DamagedRecordsEndInNoMoreData) {
  const ByteArray whole = bytesOf(kRecord);
  for (uint64_t n = 0; n < whole.size(); ++n) {
    GolombBitStream in;
    in.attach(ByteArray(whole.data(), n));
    AVCC record;
    EXPECT_EQ(thrownMessage([&] { record.parse(in); }), "no more data") << n;
  }
  // A length far beyond the bytes present.
  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF E1 FF FF 67 42"); }), "no more data");
  // Thirty-one SPS announced, none present.
  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF FF"); }), "no more data");
}

}  // namespace
