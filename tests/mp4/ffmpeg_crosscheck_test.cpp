// The tree against an independent reader: movies made by Debian's ffmpeg,
// checked against what ffprobe reports for the same files.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "mp4/boxes.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

struct Variant {
  std::string name;
  std::string codec;  // libx264 or libx265
  bool audio;
  bool faststart;
};

void PrintTo(const Variant& v, std::ostream* os) { *os << v.name; }

std::map<std::string, std::string> probe(const std::string& path) {
  const std::string out = run("ffprobe -v error -show_entries "
                              "format=duration:stream=index,codec_type,width,height,nb_frames,time_base "
                              "-of flat '" + path + "'");
  std::map<std::string, std::string> values;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    std::string value = line.substr(eq + 1);
    if (value.size() >= 2 && value.front() == '"') value = value.substr(1, value.size() - 2);
    values[line.substr(0, eq)] = value;
  }
  return values;
}

class FfmpegCrossCheck : public testing::TestWithParam<Variant> {
 protected:
  static void SetUpTestSuite() {
    if (!haveProgram("ffmpeg") || !haveProgram("ffprobe")) return;
    dir_ = new TempDir;
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static TempDir* dir_;
};
TempDir* FfmpegCrossCheck::dir_ = nullptr;

TEST_P(FfmpegCrossCheck, TreeAgreesWithFfprobe) {
  if (dir_ == nullptr) GTEST_SKIP() << "ffmpeg not installed";
  const Variant& v = GetParam();
  const std::string path = dir_->file(v.name + ".mp4");
  std::string command = "ffmpeg -v error -y -f lavfi -i testsrc=size=320x160:rate=25 ";
  if (v.audio) command += "-f lavfi -i sine=frequency=440:sample_rate=48000 ";
  command += "-t 2 -c:v " + v.codec + " -pix_fmt yuv420p ";
  if (v.codec == "libx265") command += "-tag:v hvc1 -x265-params log-level=none ";
  if (v.audio) command += "-c:a aac -shortest ";
  if (v.faststart) command += "-movflags +faststart ";
  run(command + "'" + path + "'");

  auto expected = probe(path);
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(widen(path), ~0ULL));

  // Layout: faststart puts the movie box before the media data.
  ASSERT_NE(movie.moov, nullptr);
  ASSERT_NE(movie.mdat, nullptr);
  EXPECT_EQ(movie.moov->start < movie.mdat->start, v.faststart);

  auto* mvhd = findTyped<MP4::MVHD>(movie, "moov.mvhd");
  ASSERT_NE(mvhd, nullptr);
  EXPECT_NEAR(mvhd->duration, std::stod(expected["format.duration"]), 0.001);

  const auto tracks = findAll(movie, "moov.trak");
  ASSERT_EQ(tracks.size(), v.audio ? 2u : 1u);
  for (size_t i = 0; i < tracks.size(); ++i) {
    const std::string key = "streams.stream." + std::to_string(i) + ".";
    auto& trak = static_cast<MP4::NestedBox&>(*tracks[i]);
    MP4::TKHD* tkhd = nullptr;
    MP4::MDHD* mdhd = nullptr;
    MP4::STSZ* stsz = nullptr;
    trak.find("tkhd", [&](MP4::BOX& b) { return tkhd = dynamic_cast<MP4::TKHD*>(&b), false; });
    trak.find("mdia.mdhd", [&](MP4::BOX& b) { return mdhd = dynamic_cast<MP4::MDHD*>(&b), false; });
    trak.find("mdia.minf.stbl.stsz", [&](MP4::BOX& b) { return stsz = dynamic_cast<MP4::STSZ*>(&b), false; });
    ASSERT_TRUE(tkhd && mdhd && stsz);
    const bool video = expected[key + "codec_type"] == "video";
    if (video) {
      EXPECT_EQ(std::to_string(tkhd->width), expected[key + "width"]);
      EXPECT_EQ(std::to_string(tkhd->height), expected[key + "height"]);
      EXPECT_EQ(movie.videoTrak, tracks[i]);
    } else {
      EXPECT_EQ(tkhd->width, 0u);
    }
    EXPECT_EQ(std::to_string(stsz->sample_count), expected[key + "nb_frames"]);
    EXPECT_EQ("1/" + std::to_string(mdhd->timeScale), expected[key + "time_base"]);
    uint64_t sum = 0;
    for (uint64_t s = 0; s < stsz->sample_count; ++s) sum += stsz->entry(s);
    EXPECT_EQ(stsz->sample_total, sum);
  }
  if (v.codec == "libx264") {
    EXPECT_NE(findFirst(movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC"), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(Muxer, FfmpegCrossCheck,
                         testing::Values(Variant{"h264", "libx264", false, false},
                                         Variant{"h264_audio", "libx264", true, false},
                                         Variant{"h264_faststart", "libx264", false, true},
                                         Variant{"h264_audio_faststart", "libx264", true, true},
                                         Variant{"h265", "libx265", false, false},
                                         Variant{"h265_audio_faststart", "libx265", true, true}),
                         [](const testing::TestParamInfo<Variant>& info) { return info.param.name; });

}  // namespace
