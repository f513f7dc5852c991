// The avcC record and SPS model on hand-made sets: presence conditions the
// libx264 corpus does not reach, the deliberate quirks, damaged input.
#include "h264/avc_config.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/h264/fixtures.h"

namespace {

using namespace sondex::test;

SPS parsed(const std::string& bits) {
  GolombBitStream in;
  in.attach(fromBits(bits));
  SPS model;
  model.parse(in);
  return model;
}

template <class Model>
std::string written(Model& model) {
  GolombBitStream out;
  model.to_s(out);
  return hexOf(out.bytes());
}

AVCC parsedRecord(const std::string& hex) {
  GolombBitStream in;
  in.attach(bytesOf(hex));
  AVCC record;
  record.parse(in);
  return record;
}

TEST(SPS, HighProfilePartExactlyForTheListedProfiles) {
  for (unsigned profile = 0; profile < 256; ++profile) {
    const bool listed = std::string(" 100 110 122 244 44 83 86 118 128 138 ").find(" " + std::to_string(profile) + " ") !=
                        std::string::npos;
    const std::string bits = sps::header(profile) + (listed ? sps::kHigh420 : "") + sps::kBody + sps::tail();
    SPS model = parsed(bits);
    EXPECT_EQ(model.highProfileSpec.chroma_format_idc, listed ? 1u : 0u) << profile;
    EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u) << profile;  // read in step
    EXPECT_EQ(written(model), hexOf(fromBits(bits))) << profile;
  }
}

TEST(SPS, PictureOrderType1OffsetsAreCarriedAndWrittenOnce) {
  const std::string bits = sps::header(66) + "1 010 " +
                           "0 011 010 "                // always_zero 0, two offsets (codes 2 and 1)
                           "00100 00100 00101 00110 "  // three reference offsets (codes 3, 4, 5)
                           "010 0 000010100 0001111 1 1 0 " + sps::tail();
  SPS model = parsed(bits);
  EXPECT_EQ(model.offset_for_non_ref_pic, 2u);
  EXPECT_EQ(model.offset_for_ref_frame.values, (std::deque<uint32_t>{3, 4, 5}));
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);
  EXPECT_EQ(written(model), hexOf(fromBits(bits)));
  GolombBitStream again;
  EXPECT_THROW(model.to_s(again), std::out_of_range);  // the offsets were taken out
}

TEST(SPS, ScalingListsEndWhereTheirScaleReachesZeroAndWriteBackWhole) {
  // List 0 (16 coefficients): codes 2, 3, 18 are -1, +2, -9, which brings
  // the scale from 8 to 0 and ends the list. List 6 (64): code 1 (+1), then
  // 63 codes 0. 4:4:4 would have 12 flags instead of 8.
  const auto withLists = [](const std::string& list0, const std::string& list6) {
    return sps::header(100) + "010 1 1 0 1 " + "1 " + list0 + "0 0 0 0 0 " + "1 " + list6 + "0 " + sps::kBody +
           sps::tail();
  };
  const std::string bits = withLists("011 00100 000010011 ", "010 " + std::string(63, '1'));
  SPS model = parsed(bits);
  EXPECT_EQ(model.highProfileSpec.scaling_list[0].delta_scale, (std::vector<uint32_t>{2, 3, 18}));
  EXPECT_EQ(model.highProfileSpec.scaling_list[6].delta_scale.size(), 64u);
  EXPECT_EQ(model.pic_width_in_mbs_minus1, 19u);
  EXPECT_EQ(written(model), hexOf(fromBits(bits)));

  model.highProfileSpec.scaling_list[0].delta_scale.pop_back();
  EXPECT_THROW(written(model), std::out_of_range);
}

TEST(VUI, EveryPartPresentAndLowDelayAfterEitherHrd) {
  SPS full = parsed(sps::baseline(sps::kFullVui));
  EXPECT_EQ(full.vui.sar_height, 3u);
  EXPECT_EQ(full.vui.nal_hrd.cpb_size_value_minus1.values, (std::deque<uint32_t>{4, 6}));
  EXPECT_EQ(full.vui.vcl_hrd.cbr_flag.values, (std::deque<uint32_t>{1}));
  EXPECT_EQ(full.vui.max_dec_frame_buffering, 2u);
  EXPECT_EQ(written(full), hexOf(fromBits(sps::baseline(sps::kFullVui))));
  // Only a VCL HRD, then low_delay_hrd_flag 1 and pic_struct_present_flag 1.
  SPS vcl = parsed(sps::baseline("0 0 0 0 0 0 1 1 0000 0000 1 1 0 00000 00000 00000 00000 1 1 0 "));
  EXPECT_EQ(vcl.vui.low_delay_hrd_flag, 1u);
  EXPECT_EQ(vcl.vui.pic_struct_present_flag, 1u);
  // No HRD, no low_delay_hrd_flag; aspect_ratio_idc 1 has no SAR; no
  // colour description.
  SPS none = parsed(sps::baseline("1 00000001 0 1 010 0 0 0 0 0 0 1 0 "));
  EXPECT_EQ(none.vui.sar_width, 0u);
  EXPECT_EQ(none.vui.colour_primaries, 0u);
  EXPECT_EQ(none.vui.pic_struct_present_flag, 1u);
  EXPECT_EQ(none.rbsp_stop_one_bit, 1u);
}

TEST(SPS, DamagedSetsEndInTheirMessages) {
  const ByteArray whole = fromBits(sps::baseline(sps::kFullVui));
  for (uint64_t n = 0; n < whole.size(); ++n) {
    GolombBitStream in;
    in.attach(ByteArray(whole.data(), n));
    SPS model;
    EXPECT_EQ(thrownMessage([&] { model.parse(in); }), "no more data") << n;
  }
  EXPECT_EQ(thrownMessage([] { parsed("0 11 00111 01000010 10000000 00011110 0000000000000000 1 1111111111111111"); }),
            "too log golomb sream");
  // Counts of 65535 entries with a few bytes behind them.
  const std::string most = "000000000000000 1 111111111111111 ";
  EXPECT_EQ(thrownMessage([&] { parsed(sps::header(66) + "1 010 0 1 1 " + most + "1 1 1 1"); }), "no more data");
  EXPECT_EQ(thrownMessage([&] { parsed(sps::baseline("0 0 0 0 0 1 " + most + "0000 0000 1 1 0")); }),
            "no more data");
}

TEST(AVCC, RecordsWriteBackWithReservedBitsCleared) {
  AVCC record = parsedRecord("01 64 00 1F FF E1 00 04 67 64 00 1F 01 00 02 68 EE FD F8 F8 00");
  EXPECT_EQ(record.lengthSizeMinusOne, 3);
  EXPECT_EQ(hexOf(record.sequenceParameterSets.entries.at(0).bytes), "67 64 00 1F");
  EXPECT_EQ(hexOf(record.pictureParameterSets.entries.at(0).bytes), "68 EE");
  EXPECT_EQ(hexOf(record.trailingBytes), "FD F8 F8 00");
  EXPECT_EQ(written(record), "01 64 00 1F 03 01 00 04 67 64 00 1F 01 00 02 68 EE FD F8 F8 00");
  EXPECT_THROW(written(record), std::out_of_range);  // written once
}

TEST(AVCC, PictureSetsAreReadWithTheSequenceSetCount) {
  AVCC twoPps = parsedRecord("01 42 00 1E FF E1 00 01 67 02 00 01 68 00 01 69");
  EXPECT_EQ(hexOf(twoPps.trailingBytes), "00 01 69");
  EXPECT_EQ(written(twoPps), "01 42 00 1E 03 01 00 01 67 02 00 01 68 00 01 69");

  AVCC noSps = parsedRecord("01 42 00 1E FF E0 01 00 01 68");
  EXPECT_EQ(hexOf(noSps.trailingBytes), "00 01 68");
  SPS model;
  EXPECT_THROW(noSps.sps_parse(model), std::out_of_range);

  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF E2 00 01 67 00 01 67 01 00 01 68"); }),
            "no more data");
}

TEST(AVCC, DamagedRecordsEndInNoMoreData) {
  const ByteArray whole = bytesOf("01 64 00 1F FF E1 00 04 67 64 00 1F 01 00 02 68 EE");
  for (uint64_t n = 0; n < whole.size(); ++n) {
    GolombBitStream in;
    in.attach(ByteArray(whole.data(), n));
    AVCC record;
    EXPECT_EQ(thrownMessage([&] { record.parse(in); }), "no more data") << n;
  }
  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF E1 FF FF 67 42"); }), "no more data");
  EXPECT_EQ(thrownMessage([] { parsedRecord("01 42 00 1E FF FF"); }), "no more data");
}

}  // namespace
