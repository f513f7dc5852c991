// Yaw stabilisation: modes, camera generations, the KDTI path, and the
// physics of both integrators on synthetic logs with known answers.
#include "sensor/yaw_stabilizer.h"

#include <gtest/gtest.h>

#include <cmath>

#include "exif/camera_model.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using Mode = VideoStabilizationMode;

TEST(StabilizationMode, LowThreeBitsPickTheYawModeAndModelsTheirGeneration) {
  const int modes[] = {0, 1, 0, 2, 1, 2, 0, 0, 0, 1, 0, 2};
  for (int v = 0; v < 12; ++v) EXPECT_EQ(Mode::yawMode(ExifParser::VIDEO_STABILIZATION(v)), modes[v]) << v;
  EXPECT_EQ(Mode::yawMode(ExifParser::VIDEO_STABILIZATION_ABSENT), Mode::DISABLED);
  EXPECT_STREQ(Mode::yawText(Mode::MODE(3)), L"UNDEF");
  EXPECT_EQ(MetaBuilder::camera_version("KORVU ZEPRA LM"), 0x11001u);
  EXPECT_EQ(MetaBuilder::camera_version("KORVU ZEPRA LM4"), 0x40002u);
  for (const char* model : {"KORVU ZEPRA ", "KORVU ZEPRA L ", "KORVU ZEPRA LM5", "korvu zepra L", "L"}) {
    EXPECT_EQ(MetaBuilder::camera_version(model), 0u) << model;
  }
}

TEST(YawStabilizer, KDTIValuesAreChosenByModeAndSignAndDisabledTakesNoLog) {
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTI").add(YawCorrection{1, 2, 3, 4, 0}).build()}));
  const SensorLogs logs = SensorLogs::read(*movie);
  YawStabilizer yaw;
  float expected = 1;
  for (const bool alternate : {false, true}) {
    for (const Mode::MODE mode : {Mode::ENABLED, Mode::LOCK_DIR}) {
      ASSERT_TRUE(yaw.init(logs, mode, 15, alternate, 0));
      EXPECT_EQ(yaw.table(), std::vector<float>{expected++});
      EXPECT_EQ(yaw.frameRate, 15.0f);
    }
  }
  SensorLogs damaged;
  damaged.stamps.complaint = L"KDTG: damaged\n";  // printed by any step that loads it
  ConsoleCapture capture;
  EXPECT_TRUE(yaw.init(damaged, Mode::DISABLED, 15, false, 0));
  EXPECT_TRUE(yaw.table().empty());
  EXPECT_EQ(capture.text(), "");
  EXPECT_FALSE(yaw.init(damaged, Mode::ENABLED, 15, false, 0));
  EXPECT_EQ(capture.text(), "KDTG: damaged\nKDTD: No KDTG entries.\nKDTG: damaged\nNo metadata for yaw-stabilizer.\n");
}

// The yaw table init builds from a movie holding the log (with KDTG: per
// gyro sample then resampled; without: along the gravity samples).
std::vector<float> yawOf(const SensorLog& log, Mode::MODE mode, bool alternate, bool withStamps) {
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie(log, false, withStamps));
  const SensorLogs logs = SensorLogs::read(*movie);
  YawStabilizer yaw;
  ConsoleCapture quiet;
  EXPECT_TRUE(yaw.init(logs, mode, 30, alternate, 0));
  EXPECT_EQ(yaw.samplingRate, log.gravityRate);
  EXPECT_EQ(yaw.table().size(), log.gravity.size());
  return yaw.table();
}

// Each entry is rate x time since the first gravity sample, within 1 %.
void expectTurn(const std::vector<float>& table, const SensorLog& log, double rate) {
  for (size_t i = 0; i < table.size(); ++i) {
    const double want = rate * static_cast<double>(log.gravity[i].t - log.gravity[0].t) / 1e9;
    ASSERT_NEAR(table[i], want, std::max(0.01 * std::abs(want), 1e-3)) << i;
  }
}

TEST(YawPhysics, ALockedConstantTurnGrowsAtItsRateAboutTheTrueVertical) {
  // 0.7 rad/s for 20 s winds through pi four times. Level, tilted by 25
  // degrees, and upside down with the alternate sign all give the same turn.
  for (const auto& [tilt, alternate] : {std::pair{0.0, false}, {0.436, false}, {M_PI + 0.436, true}}) {
    const SensorLog log = turningCamera(20, 0.7, tilt);
    for (const bool stamps : {true, false}) {
      SCOPED_TRACE(std::to_string(tilt) + (stamps ? " by gyro" : " by gravity"));
      expectTurn(yawOf(log, Mode::LOCK_DIR, alternate, stamps), log, 0.7);
    }
  }
}

TEST(YawPhysics, GravityPullsATiltedIntegrationBackToLevel) {
  // A spurious 60-degree jolt about the first axis in 25 ms: left in the
  // integration, the later rates would turn it about the wrong axis.
  SensorLog log = turningCamera(10, 0.5, 0.436);
  for (size_t i = 200; i < 205; ++i) log.gyro[i].x += static_cast<float>(M_PI / 3 / 0.025);
  expectTurn(yawOf(log, Mode::LOCK_DIR, false, true), log, 0.5);
}

TEST(YawPhysics, DriftRemovalSettlesAConstantTurnAtRateTimesItsTimeConstant) {
  const SensorLog log = turningCamera(20, 0.4);
  const double settled = 0.4 * 10 / (2 * M_PI);  // time constant 1 / (2 pi x 0.1 Hz)
  for (const bool stamps : {true, false}) {
    const std::vector<float> table = yawOf(log, Mode::ENABLED, false, stamps);
    EXPECT_NEAR(table[table.size() / 2], settled, 0.01 * settled);
    EXPECT_NEAR(table.back(), settled, 0.01 * settled);
  }
}

TEST(YawPhysics, BrokenSamplesNeverBreakTheTable) {
  SensorLog log = turningCamera(3, 0.5);
  log.gyro[10].y = NAN;
  log.gyro[11].z = INFINITY;
  log.gyro[300].t = 0;                      // back in time
  log.gyro.back().t = ~0ULL;                // far ahead
  log.gravity[5] = Gravity{0, 0, 0, 0, 1};  // no direction, and back in time
  const GLTK::LargeVector<Gyro> gyro(log.gyro.begin(), log.gyro.end());
  const GLTK::LargeVector<Gravity> gravity(log.gravity.begin(), log.gravity.end());
  YawStabilizer yaw;
  for (int run = 0; run < 4; ++run) {
    if (run < 2) {
      yaw.generate(gyro, 200, gravity, run == 0, false, 0, 30);
    } else {
      yaw.generate_by_kdtd(gyro, 0, gravity, run == 2, false, 0, 30);
    }
    ASSERT_EQ(yaw.yawTable.size(), log.gravity.size());
    for (const float v : yaw.yawTable) ASSERT_TRUE(std::isfinite(v)) << run;
  }
  yaw.generate_by_kdtd(gyro, 0, {}, false, false, 0, 30);
  EXPECT_EQ(yaw.yawTable.size(), log.gravity.size());  // left as it was
}

}  // namespace
