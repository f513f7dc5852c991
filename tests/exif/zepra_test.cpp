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

TEST(Record, DefaultsMarkFieldsAbsentAndClearKeepsModelAndSoftware) {
  Record r;
  EXPECT_TRUE(std::isnan(r.roll) && std::isnan(r.pitch) && std::isnan(r.yaw) && std::isnan(r.compass));
  EXPECT_EQ(r.projectionType, 0);
  EXPECT_EQ(r.adjZenith, -1);
  EXPECT_EQ(r.stabilize, -1);
  EXPECT_EQ(r.adjRs, -1);
  EXPECT_EQ(r.stitching.convertVersion, -1);
  EXPECT_FALSE(r.stitching.isValid());

  r.model = "M";
  r.software = "S";
  r.cpuVersion = "C";
  r.stabilizeFlag2 = true;
  r.stitching.samplingRate = 2;
  r.clear();
  EXPECT_EQ(r.model, "M");
  EXPECT_EQ(r.software, "S");
  EXPECT_EQ(r.cpuVersion, "");
  EXPECT_FALSE(r.stabilizeFlag2);
  EXPECT_EQ(r.stitching.samplingRate, 0);
}

TEST(Record, ReadsEveryFieldOfTheCameraStill) {
  ExifParser p;
  attach(p, jpegWithExif(TiffBuilder().build(cameraIfd0())));
  Record r;
  p.readZERPA(r);
  EXPECT_EQ(r.model, std::string("KV-360 S1\0", 10));
  EXPECT_EQ(r.software, std::string("KV-360 Ver 1.20\0", 16));
  EXPECT_EQ(r.cpuVersion, std::string("CPU 2.10\0", 9));
  EXPECT_EQ(r.cameraSerial, std::string("SN10034567\0", 11));
  EXPECT_EQ(r.vQuality, 2);
  EXPECT_EQ(r.projectionType, ExifParser::PROJECTION_DUAL_FISHEYE);
  EXPECT_EQ(r.hdr, 0);
  EXPECT_FLOAT_EQ(r.roll, -15.0f);
  EXPECT_FLOAT_EQ(r.pitch, 3.25f);
  EXPECT_FLOAT_EQ(r.yaw, 123.25f);
  EXPECT_FLOAT_EQ(r.compass, 123.25f);
  EXPECT_EQ(r.aAcc, 3);
  EXPECT_EQ(r.adjZenith, 1);
  EXPECT_EQ(r.adjRs, 1);
  EXPECT_EQ(r.stabilize, 3);
  EXPECT_EQ(r.stitching.convertVersion, 1);
  EXPECT_EQ(r.stitching.fishImgCenter[0], 960);
  EXPECT_EQ(r.stitching.fishImgCenter[1], 950);
  EXPECT_EQ(r.stitching.fishMovCenter[0], 1920);
  EXPECT_EQ(r.stitching.fishMovCenter[1], 940);
  EXPECT_FLOAT_EQ(r.stitching.samplingRate, 30000.0f / 1001.0f);
  EXPECT_TRUE(r.stitching.isValid());

  // A bare maker note has no IFD0: a reused record keeps its model and software.
  r.cpuVersion.clear();
  ASSERT_EQ(readFrom(Ifd(), r), "");
  EXPECT_EQ(r.model, std::string("KV-360 S1\0", 10));
  EXPECT_EQ(r.cpuVersion, std::string("CPU 2.10\0", 9));
  EXPECT_TRUE(std::isnan(r.yaw));
  EXPECT_EQ(r.stabilize, -1);
}

TEST(Record, ConvertsOrRefusesEachCheckedTag) {
  struct Case {
    const char* name;
    Ifd zepra;
    std::string message;
    std::function<void(const Record&)> check;
  };
  const std::vector<Case> cases = {
      {"zenith of RATIONAL[2] is refused", Ifd().rationals(0x0003, {1, 1, 2, 1}),
       "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.", nullptr},
      {"zenith of RATIONAL[3] passes the lax test", Ifd().rationals(0x0003, {10, 2, 20, 4, 9, 9}), "",
       [](const Record& r) {
         EXPECT_EQ(r.roll, 5.0f);
         EXPECT_EQ(r.pitch, 5.0f);
       }},
      {"zenith numerators are signed, zero denominators divide as floats",
       Ifd().srationals(0x0003, {-90, 1, 45, 0}), "",
       [](const Record& r) {
         EXPECT_EQ(r.roll, -90.0f);
         EXPECT_EQ(r.pitch, std::numeric_limits<float>::infinity());
       }},
      {"compass is unsigned", Ifd().rationals(0x0004, {4000000000u, 2}), "",
       [](const Record& r) { EXPECT_EQ(r.yaw, 2e9f); }},
      {"compass of SRATIONAL is refused", Ifd().rationals(0x0004, {1, 1}, kSRational),
       "Invalid entry for Compass(0x0004): RATIONAL[1] required.", nullptr},
      {"compass of RATIONAL[2] is refused", Ifd().rationals(0x0004, {1, 1, 2, 2}),
       "Invalid entry for Compass(0x0004): RATIONAL[1] required.", nullptr},
      {"absent compass leaves yaw and compass unknown", Ifd().srationals(0x0003, {0, 1, 80, 1}), "",
       [](const Record& r) { EXPECT_TRUE(std::isnan(r.yaw) && std::isnan(r.compass)); }},
      {"fisheye centers are two shorts", Ifd().shorts(0x0204, {7, 65535}), "",
       [](const Record& r) {
         EXPECT_EQ(r.stitching.fishImgCenter[0], 7);
         EXPECT_EQ(r.stitching.fishImgCenter[1], 65535);
       }},
      {"image center of LONG is refused", Ifd().longs(0x0204, {1}),
       "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required.", nullptr},
      {"movie center of SHORT[3] is refused", Ifd().shorts(0x0205, {1, 2, 3}),
       "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required.", nullptr},
      {"sampling rate of SHORT is refused", Ifd().shorts(0x0206, {30}),
       "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required.", nullptr},
      {"projection of ASCII still reads the value word's upper half", Ifd().raw(0x0001, kAscii, 9, 0x00020000), "",
       [](const Record& r) { EXPECT_EQ(r.projectionType, 2); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Record r;
    EXPECT_EQ(readFrom(c.zepra, r), c.message);
    if (c.check) c.check(r);
  }

  Record r;
  ExifParser p;
  attach(p, jpegWithExif(TiffBuilder().build(Ifd().ascii(0x0110, "KV1").sub(0x8769, Ifd()))));
  EXPECT_EQ(failure([&] { p.readZERPA(r); }), "Invalid Type: ASCII[>4] or UNDEF[>4] required.");
}

TEST(Record, LittleEndianBlocksReadTextAndRationalsButNoShorts) {
  const Ifd zepra = Ifd().srationals(0x0003, {-30, 2, 60, 1}).rationals(0x0004, {10, 1});
  const Ifd note = Ifd().ascii(0x0002, "CPU 2.10").sub(0x4001, zepra);
  ExifParser p;
  attachKMKN(p, TiffBuilder(kLittleEndian).build(cameraIfd0(note)));
  Record r;
  ASSERT_EQ(failure([&] { p.readZERPA(r); }), "");
  EXPECT_EQ(r.model, std::string("KV-360 S1\0", 10));
  EXPECT_EQ(r.roll, -15.0f);
  EXPECT_EQ(r.pitch, 60.0f);
  EXPECT_EQ(r.yaw, 10.0f);

  attachKMKN(p, TiffBuilder(kLittleEndian).build(cameraIfd0()));
  EXPECT_EQ(failure([&] { p.readZERPA(r); }), "bigEndian reqired.");
}

TEST(Record, StabilisationFlagsFollowTheLowThreeBits) {
  struct Case {
    uint16_t stored;
    int32_t stabilize;
    bool flag1, flag2, enabled;
  };
  const Case cases[] = {{0, 0, false, false, false}, {1, 1, true, false, true},   {2, 0, false, false, false},
                        {3, 3, true, true, true},    {4, 4, true, false, true},   {5, 5, true, true, true},
                        {6, 6, false, false, true},  {7, 7, false, false, true},  {9, 9, true, false, true},
                        {10, 0, false, false, false}, {13, 13, true, true, true}};
  for (const Case& c : cases) {
    Record r;
    ASSERT_EQ(readFrom(Ifd().shorts(0x1014, {c.stored}), r), "");
    EXPECT_EQ(r.stabilize, c.stabilize) << c.stored;
    EXPECT_EQ(r.stabilizeFlag1, c.flag1) << c.stored;
    EXPECT_EQ(r.stabilizeFlag2, c.flag2) << c.stored;
    EXPECT_EQ(r.stabilizeEnabled, c.enabled) << c.stored;
  }
}

TEST(Record, CompassIsCorrectedOnlyBeyondFortyFiveDegreesOfPitch) {
  struct Case {
    float pitch, roll, yaw, compass;
  };
  const Case cases[] = {
      {45, 30, 10, 10},    {-45, 30, 10, 10},   {44.9f, 80, 10, 10}, {kNaN, 0, 10, 10},
      {60, 0, 200, 200},   {60, 0, 540, 180},   {60, 0, -200, -200},  // fmod keeps the sign
      {90, 30, 10, 40},    {-90, 30, 10, 340},
  };
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

TEST(Record, StitchingIsValidOnlyWithEveryValuePositive) {
  Record::STITCHING good{0, {1, 1}, {1, 1}, 0.5f};
  EXPECT_TRUE(good.isValid());
  for (auto spoil : std::vector<std::function<void(Record::STITCHING&)>>{
           [](auto& s) { s.convertVersion = -1; }, [](auto& s) { s.fishImgCenter[0] = 0; },
           [](auto& s) { s.fishImgCenter[1] = -5; }, [](auto& s) { s.fishMovCenter[0] = 0; },
           [](auto& s) { s.fishMovCenter[1] = 0; }, [](auto& s) { s.samplingRate = kNaN; }}) {
    Record::STITCHING s = good;
    spoil(s);
    EXPECT_FALSE(s.isValid());
  }
}

TEST(Record, DumpPrintsEveryFieldInItsFixedLayout) {
  ExifParser p;
  attach(p, jpegWithExif(TiffBuilder().build(cameraIfd0())));
  Record r;
  p.readZERPA(r);
  ConsoleCapture console;
  r.dump();
  EXPECT_EQ(console.text(),
            "\n"
            "   model: KV-360 S1\n"
            "software: KV-360 Ver 1.20\n"
            "     ver: CPU 2.10\n"
            "     S/N: SN10034567\n"
            "    type: 2\n"
            "     HDR: 0\n"
            "     yaw: 123.250000\n"
            "   pitch: 3.250000\n"
            "    roll: -15.000000\n"
            "   a/acc: 3\n"
            " compass: 123.250000\n"
            "adjZenith: 1\n"
            "stabilize: 3\n"
            "   adjRs: 1\n"
            "v-quality: 2\n"
            "stitching.isValid: 1\n"
            "   convertVersion: 1\n"
            "    fishImgCenter: 960, 950\n"
            "    fishMovCenter: 1920, 940\n"
            "     samplingRate: 29.970030\n");

  Record empty;
  ConsoleCapture unknown;
  empty.dump();
  EXPECT_NE(unknown.text().find("     yaw: nan\n"), std::string::npos);
  EXPECT_NE(unknown.text().find(" compass: nan\n"), std::string::npos);
}

}  // namespace
