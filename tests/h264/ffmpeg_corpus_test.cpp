// The model on real parameter sets from Debian's ffmpeg with libx264 (with
// timing information, so emulation-prevention bytes in most SPSs): each
// record writes back bit for bit, and after the set1 rewrite of the movie
// ffmpeg's own SPS parser reads only the intended changes and the movie
// decodes to the same frames.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "h264/avc_config.h"
#include "h264/nal_unit.h"
#include "mp4/avcc.h"
#include "tests/h264/fixtures.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;
using Fields = std::map<std::string, long long>;

// The first SPS that ffmpeg's trace_headers filter prints (the record's), by element name
// ("[trace_headers @ 0x...] 8   profile_idc   01000010 = 66"); HRD
// elements are prefixed "nal." or "vcl.".
Fields ffmpegFields(const std::string& movie) {
  std::istringstream lines(
      run("ffmpeg -hide_banner -nostdin -i '" + movie + "' -c:v copy -bsf:v trace_headers -f null - 2>&1"));
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

// Replaces the movie's avcC record by record, in the file at path.
void replaceRecord(const std::string& path, const ByteArray& record) {
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(widen(path), ~0ULL));
  MP4::BOX& avcc = *findFirst(movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC");
  const int64_t delta = static_cast<int64_t>(record.size() + 8) - static_cast<int64_t>(avcc.size);
  ASSERT_TRUE(movie.insertBox(
      L"test", avcc, true,
      [&](MP4::BinFile& f) {
        const uint8_t header[8] = {0, 0, static_cast<uint8_t>((record.size() + 8) >> 8),
                                   static_cast<uint8_t>(record.size() + 8), 'a', 'v', 'c', 'C'};
        return f.write(header, 8) == 8 && f.write(record.data(), record.size()) == record.size();
      },
      [&](MP4::Container&, MP4::BinFile& f) { return movie.modifyBoxSize(f, avcc, delta); },
      [&](MP4::Container& rebuilt, MP4::BinFile& f) {
        return movie.mdat->start < movie.moov->start || rebuilt.modifySTCOIndex(f, delta);
      }));
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
  std::string rate = "25";
};
void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

class FfmpegCorpus : public testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
    run("ffmpeg -v error -nostdin -f lavfi -i testsrc=size=64x48:rate=" + GetParam().rate +
        " -frames:v 5 -c:v libx264 " + GetParam().options + " '" + dir_.file("movie.mp4") + "'");
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
  EXPECT_EQ(hexOf(h264::rbsp_to_nal(written(sps_))), hexOf(spsBytes));
  ByteArray expected = payload_;
  expected[4] &= 3;  // the reserved bits are not kept
  expected[5] &= 31;
  EXPECT_EQ(hexOf(written(record_)), hexOf(expected));
}

TEST_P(FfmpegCorpus, Set1RewriteReadsBackInFfmpegAndDecodesTheSameFrames) {
  // The rewrite's input: the movie with constraint_set1_flag cleared (and,
  // for one variant, without VUI), so that every flag changes.
  sps_.constraint_set1_flag = 0;
  if (GetParam().stripVui) sps_.vui_parameters_present_flag = 0;
  ASSERT_TRUE(record_.sps_assign(sps_));
  const std::string movie = dir_.file("movie.mp4");
  replaceRecord(movie, written(record_));
  const Fields input = ffmpegFields(movie);
  ASSERT_EQ(input.at("constraint_set1_flag"), 0);
  const std::vector<std::string> frames = frameHashes(movie);
  EXPECT_EQ(frames.size(), 5u);

  // Ask for the full-range flag the SPS does not have.
  const bool wasFull = input.contains("video_full_range_flag") && input.at("video_full_range_flag") == 1;
  {
    ConsoleCapture console;
    MP4::Container container;
    ASSERT_TRUE(container.attach(widen(movie), ~0ULL));
    ASSERT_TRUE(container.appendFullRangeAndConstrainedSet1Flag(!wasFull));
    EXPECT_EQ(console.text().substr(0, console.text().find('\n')),
              "Container::appendFullRangeAndConstrainedSet1Flag: " + std::to_string(wasFull) + " - " +
                  std::to_string(!wasFull) + ", constrained_set1_flag:  0 - 1");
  }

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
  EXPECT_EQ(ffmpegFields(movie), expected);
  EXPECT_EQ(frameHashes(movie), frames);
}

INSTANTIATE_TEST_SUITE_P(
    Libx264, FfmpegCorpus,
    testing::Values(
        Variant{"baseline_23_976", "-profile:v baseline -pix_fmt yuv420p", false, "24000/1001"},
        Variant{"baseline_25", "-profile:v baseline -pix_fmt yuv420p"},
        Variant{"baseline_29_97", "-profile:v baseline -pix_fmt yuv420p", false, "30000/1001"},
        Variant{"baseline_30", "-profile:v baseline -pix_fmt yuv420p", false, "30"},
        Variant{"baseline_60", "-profile:v baseline -pix_fmt yuv420p", false, "60"},
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
// bring emulation-prevention bytes (00 00 03) into the SPS, which are taken
// out before the SPS is read and put back when it is written.
TEST(RealSps, EmulationPreventionBytesAreNotSyntax) {
  const std::string mainSps = "67 4D 40 0A EC A2 3D 80 88 00 00 03 00 08 00 00 03 01 90 78 91 2C B0";
  GolombBitStream in;
  in.attach(bytesOf("01 4D 40 0A FF E1 00 17 " + mainSps + " 01 00 05 68 EB E3 CB 20"));
  ::AVCC record;
  record.parse(in);
  SPS sps;
  record.sps_parse(sps);
  EXPECT_EQ(sps.vui.num_units_in_tick, 1u);
  EXPECT_EQ(sps.vui.time_scale, 50u);
  ASSERT_TRUE(record.sps_assign(sps));
  EXPECT_EQ(hexOf(record.sequenceParameterSets.entries.at(0).bytes), mainSps);

  // High profile with a sample aspect ratio, through the box operations.
  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  box.payload = bytesOf("01 64 00 0A FF E1 00 1E 67 64 00 0A AC D9 44 7B FF 00 21 00 01 6E 04 02 02 80 00 00 03"
                        " 00 80 00 00 19 07 89 12 CB 01 00 06 68 EB E3 CB 22 C0 FD F8 F8 00");
  unsigned char profile = 0;
  bool set1 = true, full = false;
  EXPECT_TRUE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(profile, 100);
  EXPECT_FALSE(set1);
  EXPECT_TRUE(full);  // its VUI, after the escaped timing fields, says so
}

// Two zero bytes followed by 00-03 take a 03 between; any 03 after two zero
// bytes is taken out again.
TEST(NalUnit, EmulationPreventionBothWays) {
  const std::pair<const char*, const char*> cases[] = {
      {"00 00 00", "00 00 03 00"},       {"00 00 01 00 00 02", "00 00 03 01 00 00 03 02"},
      {"00 00 03 00 00 04", "00 00 03 03 00 00 04"}, {"00 00 00 00", "00 00 03 00 00 03"},
      {"67 42 00 00", "67 42 00 00 03"}, {"00 01 00 00 FF", "00 01 00 00 FF"},
  };
  for (const auto& [rbsp, nal] : cases) {
    EXPECT_EQ(hexOf(h264::rbsp_to_nal(bytesOf(rbsp))), nal) << rbsp;
    EXPECT_EQ(hexOf(h264::nal_to_rbsp(bytesOf(nal))), rbsp) << nal;
  }
}

}  // namespace
