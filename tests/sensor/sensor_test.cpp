// Sample boxes read in both byte orders with their header checks, gravity
// re-timed onto the KDTG clock, the orientation verdicts, and yaw tables
// with known answers on synthetic logs.
#include <gtest/gtest.h>

#include <cmath>

#include "exif/camera_model.h"
#include "sensor/yaw_stabilizer.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using Mode = VideoStabilizationMode;
using S = AccelSensorStreamEmbed;

template <class R, class A>
Bytes bytesOf(const std::vector<R, A>& records) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(records.data());
  return Bytes(bytes, bytes + records.size() * sizeof(R));
}

// The logs of a movie holding the boxes (kept open), and what reading them printed.
struct Read {
  explicit Read(const Bytes& bytes, bool retime = false) : movie(attachBytes(dir, bytes)) {
    ConsoleCapture capture;
    logs = SensorLogs::read(*movie);
    if (retime) logs.retimed = logs.loadRetimed();
    logs.gravity.load();
    console = capture.text();
  }
  TempDir dir;
  std::unique_ptr<MP4::Container> movie;
  SensorLogs logs;
  std::string console;
};

TEST(SampleLoaders, BothByteOrdersReadTheSameRecordsAndLyingCountsReadWhatIsThere) {
  const std::vector<Gyro> gyro = {{0.5f, -1.25f, 3e-3f, 0, 1000}, {-7, 0, 1e6f, 0, 0x0102030405060708ULL}};
  const std::vector<Gravity> gravity = {{-16384, 258, 32767, 0, 5}, {1, -2, -32768, 0, ~0ULL}};
  const std::vector<YawCorrection> yaws = {{0.1f, 0.2f, -0.3f, -0.4f, 11}};
  for (const bool big : {false, true}) {
    const Read r(sensorMovie({SampleBox("KDTB", big).rate(200).add(gyro).build(),
                              SampleBox("KDTD", big).rate(30).add(gravity).build(),
                              SampleBox("KDTI", big).rate(29).add(yaws).build()}));
    const auto& [d, m, logs, console] = r;
    EXPECT_EQ(
        std::tuple(bytesOf(logs.gyro.records), bytesOf(logs.gravity.records), bytesOf(logs.yawCorrections.records),
                   bytesOf(logs.retimed), logs.gyro.samplingRate, logs.gravity.samplingRate,
                   logs.yawCorrections.samplingRate, logs.stamps.records.size(), console),
        std::tuple(bytesOf(gyro), bytesOf(gravity), bytesOf(yaws), bytesOf(gravity), 200, 30, 29, 0u, ""));
  }
  // 24 + 0xFFFFFFFF * 24 wraps to 0 and 24 + 0x10000001 * 16 to 40: both
  // pass the check. KDTC claims ten records but the file ends in its third.
  SampleBox kdtc("KDTC");
  for (int i = 0; i < 10; ++i) kdtc.add(Ecompass{float(i), 0, 0, 0, 0});
  Bytes file = sensorMovie({SampleBox("KDTB").count(0xFFFFFFFF).build(),
                            SampleBox("KDTD").count(0x10000001).add(Gravity{1, 2, 3, 0, 4}).build(), kdtc.build()});
  file.resize(file.size() - 7 * 24 - 5);
  const Read r(file);
  const auto& [d, m, logs, console] = r;
  EXPECT_EQ(std::tuple(logs.gyro.records.size(), logs.gravity.records.size(), logs.compass.records.size(), console),
            std::tuple(0u, 1u, 2u, ""));
  EXPECT_EQ(std::tuple(logs.gravity.records[0].z, logs.compass.records[1].x), std::tuple(3, 1.0f));
}

TEST(SampleLoaders, BadHeadersPrintTheirLineAndLoadNothing) {
  const std::string invalid = "KDTD: Invalid header. unitSize(expect 16, but ";
  const std::pair<Bytes, std::string> cases[] = {
      {Box("KDTD").zeros(15).build(), "KDTD: Not enough length. except less than 24, but 23.\n"},
      {SampleBox("KDTD").unitSize(24).add(Gravity{}).build(), invalid + "24), endian(expect 3210/0123, but 0123).\n"},
      {SampleBox("KDTD", kBigEndian).unitSize(24).build(), invalid + "24), endian(expect 3210/0123, but 3210).\n"},
      {SampleBox("KDTD").mark(0x2301).add(Gravity{}).build(), invalid + "16), endian(expect 3210/0123, but 2301).\n"},
      {SampleBox("KDTD").count(3).add(Gravity{}).build(),
       "KDTD: Not enough length. except less than 24+16*3(=72), but 40.\n"}};
  for (const auto& [box, line] : cases) {
    const Read r(sensorMovie({box}));
    const auto& [d, m, logs, console] = r;
    EXPECT_EQ(std::tuple(logs.gravity.records.size(), logs.gravity.samplingRate, console), std::tuple(0u, 0, line));
  }
}

TEST(Retiming, TurnsTheSampleBeforeEachTimeTowardsTheNextAndRepeatsTheLastPastTheEnd) {
  SampleBox kdtg("KDTG");  // shifted by 4 ms when read
  for (const uint64_t t : {5, 10, 15, 17, 25, 35, 12, 45}) kdtg.add(t - 4000000);
  const std::vector<Gravity> gravity = {
      {8000, 0, 0, 0, 10}, {0, 3000, 0, 0, 20}, {0, 3000, 0, 0, 30}, {0, 0, 0, 0, 40}};
  const Read r(sensorMovie({SampleBox("KDTD").rate(30).add(gravity).build(), kdtg.build()}), true);
  const auto& [d, m, logs, console] = r;
  std::string fields;  // x,y,z,t of each re-timed sample
  for (const Gravity& g : logs.retimed) {
    fields +=
        std::to_string(g.x) + "," + std::to_string(g.y) + "," + std::to_string(g.z) + "," + std::to_string(g.t) + " ";
  }
  // Copied before and at the first; 45 and 63 degrees on (unit x 16384);
  // parallel: copied; towards zero: nothing; back in time and past the end: the last.
  EXPECT_EQ(fields, "8000,0,0,5 8000,0,0,10 11585,11585,0,15 7438,14598,0,17 0,3000,0,25 0,0,0,35 0,0,0,40 0,0,0,40 ");
  EXPECT_EQ(console, "KDTD: End of data : use 40 for 12\nKDTD: End of data : use 40 for 45\n");
}

TEST(Orientation, HeadingsFollowTheCompassAndVerdictsWeighTheAxes) {
  // Level: y = compass's first value, x = its second; past 327.67 degrees
  // only 16 bits unsigned fit, and 270 lands below 27000 in float arithmetic.
  const std::tuple<float, float, uint16_t> cases[] = {{0, 1, 0},         {1, 0, 26999}, {-1, 0, 9000}, {0, -1, 18000},
                                                      {0.01f, 1, 35942}, {-1, 1, 4500}, {NAN, 1, 0}};
  S stream;
  for (const auto& [y, x, heading] : cases) {
    TAccelSensorInfo e{{0, -1000, 0}, 0, 0};
    stream.calcOrientation(e, Ecompass{y, x, 0, 0, 0});
    EXPECT_EQ(static_cast<uint16_t>(e.orientation), heading) << y << "," << x;
  }
  // A sample weighs 1 / 1e-5 on the axis, 20 degrees off 1 / sin 20; beyond
  // 30 degrees and zero vectors nothing; 64 degrees off counts only in front.
  const std::pair<std::vector<TAccelSensorInfo>, std::string> verdicts[] = {
      {{{{0, 1000, 0}}, {{342, 940, 0}}, {{0, -1000, 0}}, {{600, 700, 0}}},
       "rev-up/down: [P]100002.921875, [N]:100000.000000 -> Y\nrev-front:   [F]4.000000 -> Y\n"},
      {{{{0, -1000, 0}}, {{0, 0, 0}}},
       "rev-up/down: [P]0.000000, [N]:100000.000000 -> N\nrev-front:   [F]1.000000 -> N\n"},
      {{{{0, 8000, 16384}}}, "rev-up/down: [P]0.000000, [N]:0.000000 -> N\nrev-front:   [F]-0.438769 -> Y\n"}};
  for (const auto& [table, text] : verdicts) {
    stream.sensorTable = table;
    ConsoleCapture capture;
    stream.detectReverse();
    stream.detectReverseFront();
    EXPECT_EQ(capture.text(), text);
  }
}

TEST(YawStabilizer, ModesGenerationsAndKDTIValues) {
  const int modes[] = {0, 1, 0, 2, 1, 2, 0, 0, 0, 1, 0, 2};
  for (int v = 0; v < 12; ++v) EXPECT_EQ(Mode::yawMode(ExifParser::VIDEO_STABILIZATION(v)), modes[v]) << v;
  EXPECT_EQ(Mode::yawMode(ExifParser::VIDEO_STABILIZATION_ABSENT), Mode::DISABLED);
  EXPECT_EQ(std::tuple(MetaBuilder::camera_version("KORVU ZEPRA LM"), MetaBuilder::camera_version("KORVU ZEPRA LM5"),
                       MetaBuilder::camera_version("korvu zepra L")),
            std::tuple(0x11001u, 0u, 0u));
  const SensorLogs logs = Read{sensorMovie({SampleBox("KDTI").add(YawCorrection{1, 2, 3, 4, 0}).build()})}.logs;
  YawStabilizer yaw;
  float expected = 1;
  for (const bool alternate : {false, true}) {
    for (const Mode::MODE mode : {Mode::ENABLED, Mode::LOCK_DIR}) {
      ASSERT_TRUE(yaw.init(logs, mode, 15, alternate, 0));
      EXPECT_EQ(yaw.table(), std::vector<float>{expected++});
    }
  }
  SensorLogs damaged;
  damaged.stamps.complaint = L"KDTG: damaged\n";  // printed by any step that loads it
  ConsoleCapture capture;
  EXPECT_TRUE(yaw.init(damaged, Mode::DISABLED, 15, false, 0) && yaw.table().empty());
  EXPECT_FALSE(yaw.init(damaged, Mode::ENABLED, 15, false, 0));
  EXPECT_EQ(capture.text(), "KDTG: damaged\nKDTD: No KDTG entries.\nKDTG: damaged\nNo metadata for yaw-stabilizer.\n");
}

// A locked constant turn grows at its rate about the true vertical (level,
// tilted, upside down with the alternate sign; per gyro sample with KDTG,
// along gravity without); drift removal settles at rate x 1 / (2 pi 0.1 Hz).
TEST(YawPhysics, ConstantTurnsLockedAndWithDriftRemoval) {
  for (const auto& [tilt, mode, alternate] : {std::tuple(0.0, Mode::LOCK_DIR, false),
                                              {0.436, Mode::LOCK_DIR, false},
                                              {M_PI + 0.436, Mode::LOCK_DIR, true},
                                              {0.0, Mode::ENABLED, false}}) {
    const SensorLog log = turningCamera(20, 0.4, tilt);
    for (const bool stamps : {true, false}) {
      const Read movie(sensorMovie(log, false, stamps));
      YawStabilizer yaw;
      ASSERT_TRUE(yaw.init(movie.logs, mode, 30, alternate, 0));
      ASSERT_EQ(yaw.table().size(), log.gravity.size());
      for (size_t i = 0; i < log.gravity.size(); i += 60) {
        const double t = static_cast<double>(log.gravity[i].t - log.gravity[0].t) / 1e9;
        const double want = mode == Mode::LOCK_DIR ? 0.4 * t : i < 300 ? yaw.table()[i] : 0.4 * 10 / (2 * M_PI);
        ASSERT_NEAR(yaw.table()[i], want, std::max(0.01 * std::abs(want), 1e-3)) << tilt << stamps << i;
      }
    }
  }
}

}  // namespace
