// The sample box loaders: byte orders, header and length checks with their
// console lines, and boxes whose counts or sizes cannot be trusted.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <functional>

#include "sensor/accel_sensor_stream.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using S = AccelSensorStreamEmbed;

template <class R>
bool sameBytes(const std::vector<R>& a, const std::vector<R>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(R)) == 0;
}

// ------------------------------------------------------------ byte orders

TEST(SampleLoaders, BothByteOrdersLoadTheSameRecordsForEveryType) {
  const std::vector<Gyro> gyro = {{0.5f, -1.25f, 3e-3f, 0, 1000}, {-7.0f, 0, 1e6f, 0, 0x0102030405060708ULL}};
  const std::vector<Ecompass> compass = {{12.5f, -40, 0.25f, 0, 77}};
  const std::vector<Gravity> gravity = {{-16384, 258, 32767, 0, 5}, {1, -2, -32768, 0, ~0ULL}};
  const std::vector<Orientation> quats = {{1, 0, 0.5f, -0.5f, 9}};
  const std::vector<YawCorrection> yaws = {{0.1f, 0.2f, -0.3f, -0.4f, 11}};
  for (const bool big : {false, true}) {
    TempDir dir;
    auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTB", big).rate(200).add(gyro).build(),
                                               SampleBox("KDTC", big).rate(50).add(compass).build(),
                                               SampleBox("KDTD", big).rate(30).add(gravity).build(),
                                               SampleBox("KDTH", big).rate(60).add(quats).build(),
                                               SampleBox("KDTI", big).rate(29).add(yaws).build(),
                                               SampleBox("KDTG").rate(31).add(uint64_t{42}).build()}));
    SCOPED_TRACE(big ? "0x3210" : "0x0123");
    std::vector<Gyro> g;
    std::vector<Ecompass> c;
    std::vector<Gravity> d;
    std::vector<Orientation> h;
    std::vector<YawCorrection> i;
    std::vector<uint64_t> stamps;
    uint16_t rates[6] = {};
    S::loadGen2_KDTB(*movie, g, rates[0]);
    S::loadGen2_KDTC(*movie, c, rates[1]);
    S::loadGen2_KDTD(*movie, d, rates[2]);
    S::loadGen1_KDTH(*movie, h, rates[3]);
    S::loadGen2_KDTI(*movie, i, rates[4]);
    S::loadGen3_KDTG(*movie, stamps, rates[5]);
    EXPECT_TRUE(sameBytes(g, gyro));
    EXPECT_TRUE(sameBytes(c, compass));
    EXPECT_TRUE(sameBytes(d, gravity));
    EXPECT_TRUE(sameBytes(h, quats));
    EXPECT_TRUE(sameBytes(i, yaws));
    EXPECT_EQ(stamps, std::vector<uint64_t>{42});
    EXPECT_EQ(std::vector<uint16_t>(rates, rates + 6), (std::vector<uint16_t>{200, 50, 30, 60, 29, 31}));
  }
}

TEST(SampleLoaders, SwapsReverseEachValueAndLeaveReservedWordsAlone) {
  Gyro g{0, 0, 0, 0xAABBCCDD, 0x0102030405060708ULL};
  std::memcpy(&g.x, "\x01\x02\x03\x04", 4);
  S::swap_xyzt(g);
  uint32_t x;
  std::memcpy(&x, &g.x, 4);
  EXPECT_EQ(x, 0x01020304u);  // bytes 04 03 02 01 in memory
  EXPECT_EQ(g.reserved, 0xAABBCCDDu);
  EXPECT_EQ(g.t, 0x0807060504030201ULL);
  Gravity d{0x0102, -2, 3, 0x1234, 1};
  S::swap_xyzt(d);
  EXPECT_EQ(d.x, 0x0201);
  EXPECT_EQ(d.y, static_cast<int16_t>(0xFEFF));
  EXPECT_EQ(d.reserved, 0x1234);
}

TEST(SampleLoaders, ABigEndianTimestampBoxWithRecordsEndsTheRunButAnEmptyOneLoads) {
  TempDir dir;
  auto empty = attachBytes(dir, sensorMovie({SampleBox("KDTG", kBigEndian).rate(30).build()}), "a.mp4");
  std::vector<uint64_t> stamps;
  uint16_t rate = 0;
  S::loadGen3_KDTG(*empty, stamps, rate);
  EXPECT_EQ(rate, 30);
  auto full = attachBytes(dir, sensorMovie({SampleBox("KDTG", kBigEndian).add(uint64_t{1}).build()}), "b.mp4");
  EXPECT_THROW(S::loadGen3_KDTG(*full, stamps, rate), std::bad_function_call);
}

// ------------------------------------------------------------ header checks

struct Rejected {
  Bytes box;
  std::string line;
};

TEST(SampleLoaders, BadHeadersPrintTheirLineAndLoadNothing) {
  const std::vector<Rejected> cases = {
      {Box("KDTD").zeros(15).build(), "KDTD: Not enough length. except less than 24, but 23.\n"},
      {SampleBox("KDTD").unitSize(24).add(Gravity{}).build(),
       "KDTD: Invalid header. unitSize(expect 16, but 24), endian(expect 3210/0123, but 0123).\n"},
      {SampleBox("KDTD", kBigEndian).unitSize(24).build(),  // swapped before the check
       "KDTD: Invalid header. unitSize(expect 16, but 24), endian(expect 3210/0123, but 3210).\n"},
      {SampleBox("KDTD").mark(0x2301).add(Gravity{}).build(),
       "KDTD: Invalid header. unitSize(expect 16, but 16), endian(expect 3210/0123, but 2301).\n"},
      {SampleBox("KDTD").count(3).add(Gravity{}).build(),
       "KDTD: Not enough length. except less than 24+16*3(=72), but 40.\n"},
  };
  for (const Rejected& c : cases) {
    TempDir dir;
    auto movie = attachBytes(dir, sensorMovie({c.box}));
    std::vector<Gravity> out = {Gravity{}};
    uint16_t rate = 99;
    ConsoleCapture capture;
    S::loadGen2_KDTD(*movie, out, rate);
    EXPECT_EQ(capture.text(), c.line);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(rate, 0);
  }
}

TEST(SampleLoaders, AnEmptyBoxGivesItsRateAndAMissingBoxIsQuiet) {
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTC").rate(50).build()}));
  ConsoleCapture capture;
  std::vector<Ecompass> compass;
  std::vector<Gyro> gyro = {Gyro{}};
  uint16_t compassRate = 0, gyroRate = 7;
  S::loadGen2_KDTC(*movie, compass, compassRate);
  S::loadGen2_KDTB(*movie, gyro, gyroRate);
  EXPECT_EQ(compassRate, 50);
  EXPECT_TRUE(compass.empty());
  EXPECT_TRUE(gyro.empty());
  EXPECT_EQ(gyroRate, 0);
  EXPECT_EQ(capture.text(), "");
}

TEST(SampleLoaders, OnlyTheFirstBoxOfATypeIsRead) {
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTG").add(uint64_t{1}).build(),
                                             SampleBox("KDTG").add(uint64_t{2}).add(uint64_t{3}).build()}));
  std::vector<uint64_t> stamps;
  uint16_t rate = 0;
  S::loadGen3_KDTG(*movie, stamps, rate);
  EXPECT_EQ(stamps, std::vector<uint64_t>{1});
}

// ------------------------------------------------------------ untrusted counts

TEST(SampleLoaders, CountsThatWrapThe32BitCheckReadOnlyWhatTheBoxHolds) {
  TempDir dir;
  // 24 + 0xFFFFFFFF * 24 wraps to 0 and 24 + 0x10000001 * 16 to 40, so both
  // pass the check; the boxes really hold no gyro record and one gravity one.
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTB").count(0xFFFFFFFF).zeros(16).build(),
                                             SampleBox("KDTD").count(0x10000001).add(Gravity{1, 2, 3, 0, 4}).build()}));
  std::vector<Gyro> gyro;
  std::vector<Gravity> gravity;
  uint16_t rate = 0;
  ConsoleCapture capture;
  S::loadGen2_KDTB(*movie, gyro, rate);
  S::loadGen2_KDTD(*movie, gravity, rate);
  EXPECT_EQ(capture.text(), "");
  EXPECT_TRUE(gyro.empty());
  ASSERT_EQ(gravity.size(), 1u);
  EXPECT_EQ(gravity[0].z, 3);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024);  // kilobytes
}

TEST(SampleLoaders, ABoxCutShortByTheEndOfTheFileKeepsItsWholeRecords) {
  TempDir dir;
  SampleBox kdtb("KDTB");
  for (int i = 0; i < 10; ++i) kdtb.add(Gyro{float(i), 0, 0, 0, uint64_t(i)});
  Bytes file = sensorMovie({kdtb.build()});
  file.resize(file.size() - 7 * 24 - 5);  // 2 whole records and part of a third remain
  auto movie = attachBytes(dir, file);
  std::vector<Gyro> gyro;
  uint16_t rate = 0;
  S::loadGen2_KDTB(*movie, gyro, rate);
  ASSERT_EQ(gyro.size(), 2u);
  EXPECT_EQ(gyro[1].x, 1.0f);
}

}  // namespace
