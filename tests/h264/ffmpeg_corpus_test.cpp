// The model on real parameter sets: movies made by Debian's ffmpeg with
// libx264 across profiles and VUI options. Each record must write back bit
// for bit, the model's fields must agree with ffmpeg's own SPS parser, and
// a rewritten SPS must read back in ffmpeg with only the intended changes
// and decode to the same frames.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "h264/avc_config.h"
#include "mp4/avcc.h"
#include "tests/h264/bit_text.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
using Record = ::AVCC;
using Fields = std::map<std::string, long long>;

struct Variant {
  std::string name;
  std::string options;    // ffmpeg output options for the video
  bool stripVui = false;  // feed the rewrite an SPS whose VUI was taken out
};

void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

// ------------------------------------------------ SPS fields by name

// The model's elements under the names ffmpeg's trace gives them; HRD
// elements are prefixed "nal." or "vcl.".
Fields modelFields(const SPS& s) {
  Fields f;
  f["forbidden_zero_bit"] = s.forbidden_zero_bit;
  f["nal_ref_idc"] = s.nal_ref_idc;
  f["nal_unit_type"] = s.nal_unit_type;
  f["profile_idc"] = s.profile_idc;
  f["constraint_set0_flag"] = s.constraint_set0_flag;
  f["constraint_set1_flag"] = s.constraint_set1_flag;
  f["constraint_set2_flag"] = s.constraint_set2_flag;
  f["constraint_set3_flag"] = s.constraint_set3_flag;
  f["constraint_set4_flag"] = s.reserved_zero_4bits >> 3;  // ffmpeg splits the four bits
  f["constraint_set5_flag"] = s.reserved_zero_4bits >> 2 & 1;
  f["reserved_zero_2bits"] = s.reserved_zero_4bits & 3;
  f["level_idc"] = s.level_idc;
  f["seq_parameter_set_id"] = s.seq_parameter_set_id;
  const HighProfileSpec& h = s.highProfileSpec;
  f["chroma_format_idc"] = h.chroma_format_idc;
  f["separate_colour_plane_flag"] = h.separate_colour_plane_flag;
  f["bit_depth_luma_minus8"] = h.bit_depth_luma_minus8;
  f["bit_depth_chroma_minus8"] = h.bit_depth_chroma_minus8;
  f["qpprime_y_zero_transform_bypass_flag"] = h.qpprime_y_zero_transform_bypass_flag;
  f["seq_scaling_matrix_present_flag"] = h.seq_scaling_matrix_present_flag;
  f["log2_max_frame_num_minus4"] = s.log2_max_frame_num_minus4;
  f["pic_order_cnt_type"] = s.pic_order_cnt_type;
  f["log2_max_pic_order_cnt_lsb_minus4"] = s.log2_max_pic_order_cnt_lsb_minus4;
  f["max_num_ref_frames"] = s.max_num_ref_frames;
  f["gaps_in_frame_num_allowed_flag"] = s.gaps_in_frame_num_value_allowed_flag;
  f["pic_width_in_mbs_minus1"] = s.pic_width_in_mbs_minus1;
  f["pic_height_in_map_units_minus1"] = s.pic_height_in_map_units_minus1;
  f["frame_mbs_only_flag"] = s.frame_mbs_only_flag;
  f["mb_adaptive_frame_field_flag"] = s.mb_adaptive_frame_field_flag;
  f["direct_8x8_inference_flag"] = s.direct_8x8_inference_flag;
  f["frame_cropping_flag"] = s.frame_cropping_flag;
  f["frame_crop_left_offset"] = s.frame_crop_left_offset;
  f["frame_crop_right_offset"] = s.frame_crop_right_offset;
  f["frame_crop_top_offset"] = s.frame_crop_top_offset;
  f["frame_crop_bottom_offset"] = s.frame_crop_bottom_offset;
  f["vui_parameters_present_flag"] = s.vui_parameters_present_flag;
  const VUI& v = s.vui;
  f["aspect_ratio_info_present_flag"] = v.aspect_ratio_info_present_flag;
  f["aspect_ratio_idc"] = v.aspect_ratio_idc;
  f["sar_width"] = v.sar_width;
  f["sar_height"] = v.sar_height;
  f["overscan_info_present_flag"] = v.overscan_info_present_flag;
  f["overscan_appropriate_flag"] = v.overscan_appropriate_flag;
  f["video_signal_type_present_flag"] = v.video_signal_type_present_flag;
  f["video_format"] = v.video_format;
  f["video_full_range_flag"] = v.video_full_range_flag;
  f["colour_description_present_flag"] = v.colour_description_present_flag;
  f["colour_primaries"] = v.colour_primaries;
  f["transfer_characteristics"] = v.transfer_characteristics;
  f["matrix_coefficients"] = v.matrix_coefficients;
  f["chroma_loc_info_present_flag"] = v.chroma_loc_info_present_flag;
  f["chroma_sample_loc_type_top_field"] = v.chroma_sample_loc_type_top_field;
  f["chroma_sample_loc_type_bottom_field"] = v.chroma_sample_loc_type_bottom_field;
  f["timing_info_present_flag"] = v.timing_info_present_flag;
  f["num_units_in_tick"] = v.num_units_in_tick;
  f["time_scale"] = v.time_scale;
  f["fixed_frame_rate_flag"] = v.fixed_frame_rate_flag;
  f["nal_hrd_parameters_present_flag"] = v.nal_hrd_parameters_present_flag;
  f["vcl_hrd_parameters_present_flag"] = v.vcl_hrd_parameters_present_flag;
  for (const auto& [prefix, hrd] : {std::pair<std::string, const HRD*>{"nal.", &v.nal_hrd}, {"vcl.", &v.vcl_hrd}}) {
    f[prefix + "cpb_cnt_minus1"] = hrd->cpb_cnt_minus1;
    f[prefix + "bit_rate_scale"] = hrd->bit_rate_scale;
    f[prefix + "cpb_size_scale"] = hrd->cpb_size_scale;
    for (size_t i = 0; i < hrd->cbr_flag.values.size(); ++i) {
      const std::string at = "[" + std::to_string(i) + "]";
      f[prefix + "bit_rate_value_minus1" + at] = hrd->bit_rate_value_minus1.values.at(i);
      f[prefix + "cpb_size_value_minus1" + at] = hrd->cpb_size_value_minus1.values.at(i);
      f[prefix + "cbr_flag" + at] = hrd->cbr_flag.values.at(i);
    }
    f[prefix + "initial_cpb_removal_delay_length_minus1"] = hrd->initial_cpb_removal_delay_length_minus1;
    f[prefix + "cpb_removal_delay_length_minus1"] = hrd->cpb_removal_delay_length_minus1;
    f[prefix + "dpb_output_delay_length_minus1"] = hrd->dpb_output_delay_length_minus1;
    f[prefix + "time_offset_length"] = hrd->time_offset_length;
  }
  f["low_delay_hrd_flag"] = v.low_delay_hrd_flag;
  f["pic_struct_present_flag"] = v.pic_struct_present_flag;
  f["bitstream_restriction_flag"] = v.bitstream_restriction_flag;
  f["motion_vectors_over_pic_boundaries_flag"] = v.motion_vectors_over_pic_boundaries_flag;
  f["max_bytes_per_pic_denom"] = v.max_bytes_per_pic_denom;
  f["max_bits_per_mb_denom"] = v.max_bits_per_mb_denom;
  f["log2_max_mv_length_horizontal"] = v.log2_max_mv_length_horizontal;
  f["log2_max_mv_length_vertical"] = v.log2_max_mv_length_vertical;
  f["max_num_reorder_frames"] = v.max_num_reorder_frames;
  f["max_dec_frame_buffering"] = v.max_dec_frame_buffering;
  f["rbsp_stop_one_bit"] = s.rbsp_stop_one_bit;
  return f;
}

// The first SPS that ffmpeg's trace_headers filter prints for a stream.
// Lines look like "[trace_headers @ 0x...] 8   profile_idc   01000010 = 66".
Fields ffmpegFields(const std::string& h264Path) {
  const std::string trace =
      run("ffmpeg -hide_banner -nostdin -f h264 -i '" + h264Path + "' -c:v copy -bsf:v trace_headers -f null - 2>&1");
  Fields fields;
  std::string prefix;
  bool inSps = false;
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);) {
    const size_t tag = line.find("[trace_headers @ ");
    if (tag == std::string::npos) continue;
    std::istringstream words(line.substr(line.find("] ", tag) + 2));
    std::string position, name;
    words >> position >> name;
    if (line.find("Sequence Parameter Set") != std::string::npos) {
      inSps = true;
      continue;
    }
    if (!inSps) continue;
    if (position.empty() || !std::isdigit(static_cast<unsigned char>(position[0]))) break;  // next unit
    if (name == "rbsp_alignment_zero_bit") continue;
    if (name == "nal_hrd_parameters_present_flag") prefix = "nal.";
    if (name == "vcl_hrd_parameters_present_flag") prefix = "vcl.";
    const bool hrd = name.starts_with("cpb_") || name.starts_with("bit_rate_") || name.starts_with("cbr_flag") ||
                     name.ends_with("_length_minus1") || name == "time_offset_length";
    const size_t eq = line.rfind(" = ");
    fields[(hrd ? prefix : "") + name] = std::stoll(line.substr(eq + 3));
  }
  return fields;
}

// ------------------------------------------------ Annex B streams

std::vector<Bytes> nalUnits(const Bytes& stream) {
  std::vector<Bytes> units;
  size_t i = 0;
  const auto startCodeAt = [&](size_t at) {
    return at + 3 <= stream.size() && stream[at] == 0 && stream[at + 1] == 0 && stream[at + 2] == 1;
  };
  while (i < stream.size() && !startCodeAt(i)) ++i;
  while (i < stream.size()) {
    const size_t begin = i + 3;
    size_t end = begin;
    while (end < stream.size() && !startCodeAt(end)) ++end;
    size_t last = end;
    while (last > begin && stream[last - 1] == 0 && end < stream.size()) --last;  // zero bytes of the next start code
    units.emplace_back(stream.begin() + begin, stream.begin() + last);
    i = end;
  }
  return units;
}

// The model works on bytes as they stand in the record, so a written SPS
// gets its emulation-prevention bytes here, before it goes into a stream.
Bytes escaped(const ByteArray& rbsp) {
  Bytes out;
  int zeros = 0;
  for (uint64_t i = 0; i < rbsp.size(); ++i) {
    if (zeros >= 2 && rbsp[i] <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(rbsp[i]);
    zeros = rbsp[i] == 0 ? zeros + 1 : 0;
  }
  return out;
}

bool hasEmulationPrevention(const ByteArray& bytes) {
  for (uint64_t i = 2; i < bytes.size(); ++i) {
    if (bytes[i - 2] == 0 && bytes[i - 1] == 0 && bytes[i] == 3) return true;
  }
  return false;
}

// The movie's stream with every SPS replaced.
void writeWithSps(const std::string& annexB, const Bytes& sps, const std::string& path) {
  Bytes out;
  for (const Bytes& unit : nalUnits(readFile(annexB))) {
    out.insert(out.end(), {0, 0, 0, 1});
    const Bytes& bytes = !unit.empty() && (unit[0] & 0x1F) == 7 ? sps : unit;
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  writeFile(path, out);
}

std::vector<std::string> frameHashes(const std::string& input) {
  const std::string out = run("ffmpeg -v fatal -nostdin -i '" + input + "' -f framemd5 -");
  std::vector<std::string> hashes;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') continue;
    hashes.push_back(line.substr(line.rfind(' ') + 1));
  }
  return hashes;
}

// ------------------------------------------------ the corpus

class FfmpegCorpus : public testing::TestWithParam<Variant> {
 protected:
  static void SetUpTestSuite() {
    if (haveProgram("ffmpeg")) dir_ = new TempDir;
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }

  void SetUp() override {
    if (dir_ == nullptr) GTEST_SKIP() << "ffmpeg not installed";
    const Variant& v = GetParam();
    movie_ = dir_->file(v.name + ".mp4");
    annexB_ = dir_->file(v.name + ".h264");
    if (readFile(movie_).empty()) {
      // A time base whose timing fields hold no long run of zero bits keeps
      // emulation-prevention bytes out of the SPS, so its bytes are its
      // syntax (the model reads them as they stand).
      run("ffmpeg -v error -nostdin -y -f lavfi -i testsrc=size=64x48:rate=25 -frames:v 5 "
          "-enc_time_base 65537/1638401 -c:v libx264 " + v.options + " '" + movie_ + "'");
      run("ffmpeg -v error -nostdin -y -i '" + movie_ + "' -c:v copy -bsf:v h264_mp4toannexb '" + annexB_ + "'");
    }
    MP4::Container container;
    ASSERT_TRUE(container.attach(widen(movie_), ~0ULL));
    auto* box = findTyped<MP4::AVCC>(container, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    ASSERT_NE(box, nullptr);
    payload_ = box->payload;
    ASSERT_GE(payload_.size(), 8u);
  }

  static TempDir* dir_;
  std::string movie_;
  std::string annexB_;
  ByteArray payload_;
};
TempDir* FfmpegCorpus::dir_ = nullptr;

TEST_P(FfmpegCorpus, RecordAndSpsWriteBackBitForBit) {
  GolombBitStream in;
  in.attach(payload_);
  Record record;
  record.parse(in);
  ASSERT_EQ(record.sequenceParameterSets.entries.size(), 1u);
  const ByteArray spsBytes = record.sequenceParameterSets.entries[0].bytes;
  ASSERT_FALSE(hasEmulationPrevention(spsBytes)) << hexOf(spsBytes);

  SPS sps;
  record.sps_parse(sps);
  GolombBitStream spsOut;
  sps.to_s(spsOut);
  EXPECT_EQ(hexOf(spsOut.bytes()), hexOf(spsBytes));

  // Only the reserved bits of bytes 4 and 5 change.
  ByteArray expected = payload_;
  expected[4] &= 3;
  expected[5] &= 31;
  GolombBitStream recordOut;
  record.to_s(recordOut);
  EXPECT_EQ(hexOf(recordOut.bytes()), hexOf(expected));
}

TEST_P(FfmpegCorpus, FieldsAgreeWithFfmpeg) {
  Record record;
  GolombBitStream in;
  in.attach(payload_);
  record.parse(in);
  SPS sps;
  record.sps_parse(sps);
  const Fields ours = modelFields(sps);
  const Fields theirs = ffmpegFields(annexB_);
  ASSERT_GT(theirs.size(), 20u);
  for (const auto& [name, value] : theirs) {
    const auto it = ours.find(name);
    ASSERT_NE(it, ours.end()) << name;
    EXPECT_EQ(it->second, value) << name;
  }
}

TEST_P(FfmpegCorpus, RewriteReadsBackInFfmpegAndDecodesTheSameFrames) {
  // The rewrite's input: the movie's SPS with constraint_set1_flag cleared
  // (and its VUI taken out for one variant), so that every flag changes.
  Record inputRecord;
  GolombBitStream in;
  in.attach(payload_);
  inputRecord.parse(in);
  SPS inputSps;
  inputRecord.sps_parse(inputSps);
  inputSps.constraint_set1_flag = 0;
  if (GetParam().stripVui) inputSps.vui_parameters_present_flag = 0;
  GolombBitStream inputSpsStream;
  inputSps.to_s(inputSpsStream);
  const ByteArray inputSpsBytes = inputSpsStream.bytes();
  ParameterSet& entry = inputRecord.sequenceParameterSets.entries.at(0);
  entry.bytes = inputSpsBytes;
  entry.length = static_cast<uint16_t>(inputSpsBytes.size());
  GolombBitStream inputRecordStream;
  inputRecord.to_s(inputRecordStream);

  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  box.payload = inputRecordStream.bytes();
  const std::string before = dir_->file(GetParam().name + ".before.h264");
  writeWithSps(annexB_, escaped(inputSpsBytes), before);
  const Fields input = ffmpegFields(before);
  ASSERT_EQ(input.at("constraint_set1_flag"), 0);

  // Ask for the full-range flag the SPS does not have.
  const bool wasFull = input.contains("video_full_range_flag") && input.at("video_full_range_flag") == 1;
  ByteArray out;
  bool wasFullRange = true;
  bool wasSet1 = true;
  ASSERT_TRUE(box.assign_fullRange_and_constrained_set1_flag(out, !wasFull, wasFullRange, wasSet1));
  EXPECT_EQ(wasFullRange, wasFull);
  EXPECT_FALSE(wasSet1);

  GolombBitStream outStream;
  outStream.attach(out);
  Record outRecord;
  outRecord.parse(outStream);
  const std::string after = dir_->file(GetParam().name + ".after.h264");
  writeWithSps(annexB_, escaped(outRecord.sequenceParameterSets.entries.at(0).bytes), after);

  Fields expected = input;
  expected["constraint_set1_flag"] = 1;
  if (input.at("vui_parameters_present_flag") == 0) {
    expected["vui_parameters_present_flag"] = 1;
    for (const char* flag : {"aspect_ratio_info_present_flag", "overscan_info_present_flag",
                             "chroma_loc_info_present_flag", "timing_info_present_flag",
                             "nal_hrd_parameters_present_flag", "vcl_hrd_parameters_present_flag",
                             "pic_struct_present_flag", "bitstream_restriction_flag"}) {
      expected[flag] = 0;
    }
  }
  expected["video_signal_type_present_flag"] = 1;
  expected["video_format"] = input.contains("video_format") && input.at("video_format") != 0 ? input.at("video_format") : 5;
  expected["video_full_range_flag"] = !wasFull;
  if (!input.contains("colour_description_present_flag")) expected["colour_description_present_flag"] = 0;
  EXPECT_EQ(ffmpegFields(after), expected);

  const std::vector<std::string> frames = frameHashes(movie_);
  EXPECT_EQ(frames.size(), 5u);
  EXPECT_EQ(frameHashes(after), frames);
}

INSTANTIATE_TEST_SUITE_P(
    Libx264, FfmpegCorpus,
    testing::Values(
        Variant{"baseline", "-profile:v baseline -pix_fmt yuv420p"},
        Variant{"baseline_without_vui", "-profile:v baseline -pix_fmt yuv420p", true},
        Variant{"main", "-profile:v main -pix_fmt yuv420p"},
        Variant{"high", "-profile:v high -pix_fmt yuv420p"},
        Variant{"high10", "-profile:v high10 -pix_fmt yuv420p10le"},
        Variant{"high422", "-profile:v high422 -pix_fmt yuv422p"},
        Variant{"high444_lossless", "-pix_fmt yuv444p -qp 0"},
        Variant{"interlaced", "-pix_fmt yuv420p -x264-params tff=1"},
        Variant{"cropped", "-pix_fmt yuv420p -vf scale=70:46"},
        Variant{"nal_hrd_vbr", "-pix_fmt yuv420p -b:v 200k -maxrate 200k -bufsize 400k -x264-params nal-hrd=vbr"},
        Variant{"nal_hrd_cbr", "-pix_fmt yuv420p -b:v 200k -maxrate 200k -bufsize 400k -x264-params nal-hrd=cbr"},
        Variant{"colour", "-pix_fmt yuv420p -vf setsar=33/17 -x264-params "
                          "colorprim=bt709:transfer=bt709:colormatrix=bt709:fullrange=on:overscan=show:chromaloc=1"},
        Variant{"component", "-pix_fmt yuv420p -x264-params videoformat=component:fullrange=on"},
        // x264 sends these matrices in the PPS, which the record carries raw.
        Variant{"cqm_jvt", "-profile:v high -pix_fmt yuv420p -x264-params cqm=jvt"}),
    [](const testing::TestParamInfo<Variant>& info) { return info.param.name; });

// ------------------------------------------------ emulation prevention

// Records as libx264 writes them at 25 frames per second: the timing
// fields put emulation-prevention bytes (00 00 03) in the SPS. The model
// reads those bytes as syntax, so what follows them is read out of step.
TEST(RealSps, EmulationPreventionBytesAreReadAsSyntax) {
  // Main profile: reading ends early; what follows the stop bit it found
  // is dropped.
  GolombBitStream in;
  in.attach(bytesOf("01 4D 40 0A FF E1 00 17 67 4D 40 0A EC A2 3D 80 88 00 00 03 00 08 00 00 03 01 90 78 91 2C B0"
                    " 01 00 05 68 EB E3 CB 20"));
  Record record;
  record.parse(in);
  SPS sps;
  record.sps_parse(sps);
  EXPECT_EQ(sps.vui.num_units_in_tick, 0x60u);  // 1 in the stream; the 03 is read as part of it
  GolombBitStream out;
  sps.to_s(out);
  EXPECT_EQ(hexOf(out.bytes()), "67 4D 40 0A EC A2 3D 80 88 00 00 03 00 08 00 00 03 01 90 78 91 2C");

  // High profile with a sample aspect ratio: reading runs off the end.
  ConsoleCapture console;
  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  box.payload = bytesOf("01 64 00 0A FF E1 00 1E 67 64 00 0A AC D9 44 7B FF 00 21 00 01 6E 04 02 02 80 00 00 03"
                        " 00 80 00 00 19 07 89 12 CB 01 00 06 68 EB E3 CB 22 C0 FD F8 F8 00");
  unsigned char profile = 0;
  bool set1 = false;
  bool full = false;
  EXPECT_FALSE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(console.text(), "avcc.sps_parse() failed: no more data\n");
}

}  // namespace
