// The model on real parameter sets from Debian's ffmpeg with libx264: each
// record writes back bit for bit, and after the set1 rewrite ffmpeg's own
// SPS parser reads only the intended changes and the movie decodes to the
// same frames.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "h264/avc_config.h"
#include "mp4/avcc.h"
#include "tests/h264/fixtures.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
using Fields = std::map<std::string, long long>;

// The first SPS that ffmpeg's trace_headers filter prints, by element name
// ("[trace_headers @ 0x...] 8   profile_idc   01000010 = 66"); HRD
// elements are prefixed "nal." or "vcl.".
Fields ffmpegFields(const std::string& h264) {
  std::istringstream lines(
      run("ffmpeg -hide_banner -nostdin -f h264 -i '" + h264 + "' -c:v copy -bsf:v trace_headers -f null - 2>&1"));
  Fields fields;
  std::string prefix;
  bool inSps = false;
  for (std::string line; std::getline(lines, line);) {
    const size_t tag = line.find("[trace_headers @ ");
    if (tag == std::string::npos) continue;
    std::istringstream words(line.substr(line.find("] ", tag) + 2));
    std::string position, name;
    words >> position >> name;
    if (!inSps) {
      inSps = line.find("Sequence Parameter Set") != std::string::npos;
      continue;
    }
    if (!std::isdigit(static_cast<unsigned char>(position[0]))) break;  // the next unit
    if (name == "rbsp_alignment_zero_bit") continue;
    if (name.ends_with("_hrd_parameters_present_flag")) prefix = name.substr(0, 3) + ".";
    const bool hrd = name.starts_with("cpb_") || name.starts_with("bit_rate_") || name.starts_with("cbr_flag") ||
                     name.ends_with("delay_length_minus1") || name == "time_offset_length";
    fields[(hrd ? prefix : "") + name] = std::stoll(line.substr(line.rfind(" = ") + 3));
  }
  return fields;
}

// The Annex B stream with every SPS replaced by sps. The model neither
// removes nor inserts emulation-prevention bytes, so they are inserted here.
void writeWithSps(const std::string& annexB, const ByteArray& sps, const std::string& path) {
  Bytes escaped;
  for (uint64_t i = 0; i < sps.size(); ++i) {
    if (i >= 2 && sps[i] <= 3 && escaped.end()[-1] == 0 && escaped.end()[-2] == 0) escaped.push_back(3);
    escaped.push_back(sps[i]);
  }
  const Bytes in = readFile(annexB);
  std::vector<size_t> starts;  // first byte of each unit, behind 00 00 01
  for (size_t i = 0; i + 3 <= in.size(); ++i) {
    if (in[i] == 0 && in[i + 1] == 0 && in[i + 2] == 1) starts.push_back(i + 3);
  }
  Bytes out;
  for (size_t k = 0; k < starts.size(); ++k) {
    const bool last = k + 1 == starts.size();
    size_t end = last ? in.size() : starts[k + 1] - 3;
    while (!last && end > starts[k] && in[end - 1] == 0) --end;  // a four-byte start code's zero
    const bool isSps = (in[starts[k]] & 0x1F) == 7;
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), isSps ? escaped.begin() : in.begin() + starts[k], isSps ? escaped.end() : in.begin() + end);
  }
  writeFile(path, out);
}

std::vector<std::string> frameHashes(const std::string& input) {
  std::istringstream lines(run("ffmpeg -v fatal -nostdin -i '" + input + "' -f framemd5 -"));
  std::vector<std::string> hashes;
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] != '#') hashes.push_back(line.substr(line.rfind(' ') + 1));
  }
  return hashes;
}

ByteArray written(GolombStreamEntity& model) {
  GolombBitStream out;
  model.to_s(out);
  return out.bytes();
}

struct Variant {
  std::string name;
  std::string options;    // ffmpeg's video output options
  bool stripVui = false;  // give the rewrite the SPS without its VUI
};
void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

class FfmpegCorpus : public testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
    // This time base gives timing fields without long runs of zero bits, so
    // the SPS holds no emulation-prevention bytes: its bytes are its syntax.
    run("ffmpeg -v error -nostdin -f lavfi -i testsrc=size=64x48:rate=25 -frames:v 5 -enc_time_base 65537/1638401"
        " -c:v libx264 " + GetParam().options + " '" + dir_.file("movie.mp4") + "'");
    run("ffmpeg -v error -nostdin -i '" + dir_.file("movie.mp4") + "' -c:v copy -bsf:v h264_mp4toannexb '" +
        dir_.file("movie.h264") + "'");
    MP4::Container movie;
    ASSERT_TRUE(movie.attach(widen(dir_.file("movie.mp4")), ~0ULL));
    auto* box = findTyped<MP4::AVCC>(movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
    ASSERT_NE(box, nullptr);
    payload_ = box->payload;
    GolombBitStream in;
    in.attach(payload_);
    record_.parse(in);
    record_.sps_parse(sps_);
  }

  TempDir dir_;
  ByteArray payload_;
  ::AVCC record_;
  SPS sps_;
};

TEST_P(FfmpegCorpus, RecordAndSpsWriteBackBitForBit) {
  const ByteArray spsBytes = record_.sequenceParameterSets.entries.at(0).bytes;
  EXPECT_EQ(hexOf(written(sps_)), hexOf(spsBytes));
  ByteArray expected = payload_;
  expected[4] &= 3;  // the reserved bits are not kept
  expected[5] &= 31;
  EXPECT_EQ(hexOf(written(record_)), hexOf(expected));
}

TEST_P(FfmpegCorpus, RewriteReadsBackInFfmpegAndDecodesTheSameFrames) {
  // The rewrite's input: the SPS with constraint_set1_flag cleared (and, for
  // one variant, without VUI), so that every flag changes.
  sps_.constraint_set1_flag = 0;
  if (GetParam().stripVui) sps_.vui_parameters_present_flag = 0;
  ParameterSet& entry = record_.sequenceParameterSets.entries.at(0);
  entry.bytes = written(sps_);
  entry.length = static_cast<uint16_t>(entry.bytes.size());
  writeWithSps(dir_.file("movie.h264"), entry.bytes, dir_.file("before.h264"));
  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  box.payload = written(record_);
  const Fields input = ffmpegFields(dir_.file("before.h264"));
  ASSERT_EQ(input.at("constraint_set1_flag"), 0);

  // Ask for the full-range flag the SPS does not have.
  const bool wasFull = input.contains("video_full_range_flag") && input.at("video_full_range_flag") == 1;
  ByteArray out;
  bool wasFullRange = !wasFull, wasSet1 = true;
  ASSERT_TRUE(box.assign_fullRange_and_constrained_set1_flag(out, !wasFull, wasFullRange, wasSet1));
  EXPECT_EQ(wasFullRange, wasFull);
  EXPECT_FALSE(wasSet1);
  GolombBitStream in;
  in.attach(out);
  ::AVCC rewritten;
  rewritten.parse(in);
  writeWithSps(dir_.file("movie.h264"), rewritten.sequenceParameterSets.entries.at(0).bytes, dir_.file("after.h264"));

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
  expected.try_emplace("colour_description_present_flag", 0);
  EXPECT_EQ(ffmpegFields(dir_.file("after.h264")), expected);

  const std::vector<std::string> frames = frameHashes(dir_.file("movie.mp4"));
  EXPECT_EQ(frames.size(), 5u);
  EXPECT_EQ(frameHashes(dir_.file("after.h264")), frames);
}

INSTANTIATE_TEST_SUITE_P(
    Libx264, FfmpegCorpus,
    testing::Values(
        Variant{"baseline", "-profile:v baseline -pix_fmt yuv420p"},
        Variant{"baseline_without_vui", "-profile:v baseline -pix_fmt yuv420p", true},
        Variant{"main", "-profile:v main -pix_fmt yuv420p"},
        Variant{"high10", "-profile:v high10 -pix_fmt yuv420p10le"},
        Variant{"high422", "-profile:v high422 -pix_fmt yuv422p"},
        Variant{"high444_lossless", "-pix_fmt yuv444p -qp 0"},
        Variant{"interlaced_cropped", "-pix_fmt yuv420p -vf scale=70:44 -x264-params tff=1"},
        Variant{"nal_hrd_vbr", "-pix_fmt yuv420p -b:v 200k -maxrate 200k -bufsize 400k -x264-params nal-hrd=vbr"},
        Variant{"nal_hrd_cbr", "-pix_fmt yuv420p -b:v 200k -maxrate 200k -bufsize 400k -x264-params nal-hrd=cbr"},
        Variant{"colour", "-pix_fmt yuv420p -vf setsar=33/17 -x264-params "
                          "colorprim=bt709:transfer=bt709:colormatrix=bt709:fullrange=on:overscan=show:chromaloc=1"},
        Variant{"component", "-pix_fmt yuv420p -x264-params videoformat=component:fullrange=on"},
        // libx264 sends these matrices in the PPS, which the record carries raw.
        Variant{"high_cqm_jvt", "-profile:v high -pix_fmt yuv420p -x264-params cqm=jvt"}),
    [](const testing::TestParamInfo<Variant>& info) { return info.param.name; });

// Records as libx264 writes them at 25 frames per second: the timing fields
// bring emulation-prevention bytes (00 00 03) into the SPS, which the model
// reads as syntax, so everything after them is read out of step.
TEST(RealSps, EmulationPreventionBytesAreReadAsSyntax) {
  // Main profile: the stop bit is found early and what follows is dropped.
  GolombBitStream in;
  in.attach(bytesOf("01 4D 40 0A FF E1 00 17 67 4D 40 0A EC A2 3D 80 88 00 00 03 00 08 00 00 03 01 90 78 91 2C B0"
                    " 01 00 05 68 EB E3 CB 20"));
  ::AVCC record;
  record.parse(in);
  SPS sps;
  record.sps_parse(sps);
  EXPECT_EQ(sps.vui.num_units_in_tick, 0x60u);  // 1 in the stream; the 03 is read as part of it
  EXPECT_EQ(hexOf(written(sps)), "67 4D 40 0A EC A2 3D 80 88 00 00 03 00 08 00 00 03 01 90 78 91 2C");

  // High profile with a sample aspect ratio: reading runs off the end.
  ConsoleCapture console;
  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  box.payload = bytesOf("01 64 00 0A FF E1 00 1E 67 64 00 0A AC D9 44 7B FF 00 21 00 01 6E 04 02 02 80 00 00 03"
                        " 00 80 00 00 19 07 89 12 CB 01 00 06 68 EB E3 CB 22 C0 FD F8 F8 00");
  unsigned char profile = 0;
  bool set1 = false, full = false;
  EXPECT_FALSE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(console.text(), "avcc.sps_parse() failed: no more data\n");
}

}  // namespace
