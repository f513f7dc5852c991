// The camera record: defaults, the conversion of each tag, the stabilisation
// flags, the compass correction at its thresholds and the record dump.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "exif/exif_parser.h"
#include "tests/exif/exif_test_util.h"
#include "tests/support/files.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
using Record = ExifParser::ZEPRA;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Reads a record from a bare maker note whose product IFD is zepra.
std::string readFrom(const Ifd& zepra, Record& out) {
  ExifParser p;
  attachKMKN(p, TiffBuilder().buildMakerNote(cameraMakerNote(zepra)));
  return failure([&] { p.readZERPA(out); });
}

std::string dumpText(const Record& r) {
  ConsoleCapture console;
  r.dump();
  return console.text();
}

TEST(Record, CameraStillDumpsEveryField) {
  ExifParser p;
  attach(p, jpegWithExif(TiffBuilder().build(cameraIfd0())));
  Record r;
  p.readZERPA(r);
  EXPECT_EQ(r.model, std::string("KV-360 S1\0", 10));  // the zero byte counted in the entry stays
  EXPECT_EQ(dumpText(r),
            "\n   model: KV-360 S1\nsoftware: KV-360 Ver 1.20\n     ver: CPU 2.10\n     S/N: SN10034567\n"
            "    type: 2\n     HDR: 0\n     yaw: 123.250000\n   pitch: 3.250000\n    roll: -15.000000\n"
            "   a/acc: 3\n compass: 123.250000\nadjZenith: 1\nstabilize: 3\n   adjRs: 1\nv-quality: 2\n"
            "stitching.isValid: 1\n   convertVersion: 1\n    fishImgCenter: 960, 950\n"
            "    fishMovCenter: 1920, 940\n     samplingRate: 29.970030\n");
}

TEST(Record, AbsentTagsKeepDefaultsAndAReusedRecordKeepsModelAndSoftware) {
  Record r;
  r.model = "M";
  ASSERT_EQ(readFrom(Ifd(), r), "");  // a bare maker note has no IFD0
  EXPECT_EQ(r.model, "M");
  EXPECT_NE(dumpText(r).find("    type: 0\n     HDR: 0\n     yaw: nan\n   pitch: nan\n    roll: nan\n"
                             "   a/acc: 0\n compass: nan\nadjZenith: -1\nstabilize: -1\n   adjRs: -1\n"
                             "v-quality: 2\nstitching.isValid: 0\n   convertVersion: -1\n"),
            std::string::npos);
  Record::STITCHING s{0, {1, 1}, {1, 1}, 0.5f};
  EXPECT_TRUE(s.isValid());
  s.samplingRate = kNaN;
  EXPECT_FALSE(s.isValid());
}

TEST(Record, ConvertsOrRefusesEachCheckedTag) {
  struct Case {
    Ifd zepra;
    std::string message;
    std::function<void(const Record&)> check;
  };
  const std::vector<Case> cases = {
      {Ifd().rationals(0x0003, {1, 1, 2, 1}), "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.", nullptr},
      {Ifd().rationals(0x0003, {10, 2, 20, 4, 9, 9}), "",  // lax: a wrong type with another count passes
       [](const Record& r) { EXPECT_EQ(r.roll + r.pitch, 10.0f); }},
      {Ifd().srationals(0x0003, {-90, 1, 45, 0}), "",  // signed numerators, float division by zero
       [](const Record& r) { EXPECT_EQ(std::make_pair(r.roll, r.pitch), std::make_pair(-90.0f, INFINITY)); }},
      {Ifd().rationals(0x0004, {4000000000u, 2}), "", [](const Record& r) { EXPECT_EQ(r.yaw, 2e9f); }},
      {Ifd().rationals(0x0004, {1, 1}, kSRational), "Invalid entry for Compass(0x0004): RATIONAL[1] required.",
       nullptr},
      {Ifd().rationals(0x0004, {1, 1, 2, 2}), "Invalid entry for Compass(0x0004): RATIONAL[1] required.", nullptr},
      {Ifd().shorts(0x0204, {7, 65535}), "", [](const Record& r) { EXPECT_EQ(r.stitching.fishImgCenter[1], 65535); }},
      {Ifd().longs(0x0204, {1}), "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required.", nullptr},
      {Ifd().shorts(0x0205, {1, 2, 3}), "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required.",
       nullptr},
      {Ifd().shorts(0x0206, {30}), "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required.", nullptr},
      {Ifd().raw(0x0001, kAscii, 9, 0x00020000), "",  // no type check: the value word's upper half
       [](const Record& r) { EXPECT_EQ(r.projectionType, 2); }},
  };
  for (const Case& c : cases) {
    Record r;
    EXPECT_EQ(readFrom(c.zepra, r), c.message);
    if (c.check) c.check(r);
  }

  // Little-endian blocks read text and rationals, but no shorts.
  ExifParser p;
  Record r;
  const Ifd note = Ifd().ascii(0x0002, "CPU 2.10").sub(0x4001, Ifd().srationals(0x0003, {-30, 2, 60, 1}));
  attachKMKN(p, TiffBuilder(kLittleEndian).build(cameraIfd0(note)));
  ASSERT_EQ(failure([&] { p.readZERPA(r); }), "");
  EXPECT_EQ(r.model, std::string("KV-360 S1\0", 10));
  EXPECT_EQ(r.roll, -15.0f);
  attachKMKN(p, TiffBuilder(kLittleEndian).build(cameraIfd0()));
  EXPECT_EQ(failure([&] { p.readZERPA(r); }), "bigEndian reqired.");
  attach(p, jpegWithExif(TiffBuilder().build(Ifd().ascii(0x0110, "KV1"))));
  EXPECT_EQ(failure([&] { p.readZERPA(r); }), "Invalid Type: ASCII[>4] or UNDEF[>4] required.");
}

TEST(Record, StabilisationFlagsFollowTheLowThreeBits) {
  struct Case {
    uint16_t stored;
    int32_t stabilize;
    bool flag1, flag2, enabled;
  };
  const Case cases[] = {{0, 0, false, false, false},  {1, 1, true, false, true},  {2, 0, false, false, false},
                        {3, 3, true, true, true},     {4, 4, true, false, true},  {5, 5, true, true, true},
                        {6, 6, false, false, true},   {7, 7, false, false, true}, {9, 9, true, false, true},
                        {10, 0, false, false, false}, {13, 13, true, true, true}};
  for (const Case& c : cases) {
    Record r;
    ASSERT_EQ(readFrom(Ifd().shorts(0x1014, {c.stored}), r), "");
    EXPECT_EQ(std::make_tuple(r.stabilize, r.stabilizeFlag1, r.stabilizeFlag2, r.stabilizeEnabled),
              std::make_tuple(c.stabilize, c.flag1, c.flag2, c.enabled))
        << c.stored;
  }
}

TEST(Record, CompassIsCorrectedOnlyBeyondFortyFiveDegreesOfPitch) {
  struct Case {
    float pitch, roll, yaw, compass;
  };
  const Case cases[] = {{45, 30, 10, 10},  {-45, 30, 10, 10}, {44.9f, 80, 10, 10}, {kNaN, 0, 10, 10},
                        {60, 0, 200, 200}, {60, 0, 540, 180}, {60, 0, -200, -200},  // fmod keeps the sign
                        {90, 30, 10, 40},  {-90, 30, 10, 340}};
  for (const Case& c : cases) {
    Record r;
    r.pitch = c.pitch;
    r.roll = c.roll;
    r.yaw = c.yaw;
    r.attachCompass();
    EXPECT_NEAR(r.compass, c.compass, 1e-3) << c.pitch << " " << c.roll << " " << c.yaw;
  }

  // Zenith is looked up before Compass whatever the directory's order.
  Record r;
  ASSERT_EQ(readFrom(Ifd().rationals(0x0004, {10, 1}).srationals(0x0003, {30, 1, 90, 1}), r), "");
  EXPECT_NEAR(r.compass, 40, 1e-3);
}

}  // namespace
