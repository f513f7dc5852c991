// Orientation analysis: headings with known answers, the two verdicts with
// their console lines, and loadGen2 pairing the logs.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "sensor/orientation.h"
#include "sensor/sample_loaders.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using S = AccelSensorStreamEmbed;

TAccelSensorInfo entry(int16_t a0, int16_t a1, int16_t a2) { return TAccelSensorInfo{{a0, a1, a2}, 0, 0}; }

TEST(Orientation, HeadingsOfALevelCameraFollowTheCompass) {
  // Level axes leave the compass as it is (y = its first value, x = its
  // second). Past 327.67 degrees the heading only fits 16 bits unsigned, and
  // 270 degrees lands just below 27000 in float arithmetic.
  const std::tuple<float, float, uint16_t> cases[] = {{0, 1, 0},         {1, 0, 26999}, {-1, 0, 9000}, {0, -1, 18000},
                                                      {0.01f, 1, 35942}, {-1, 1, 4500}, {NAN, 1, 0}};
  S stream;
  for (const auto& [y, x, heading] : cases) {
    TAccelSensorInfo e = entry(0, -1000, 0);
    stream.calcOrientation(e, Ecompass{y, x, 0, 0, 0});
    EXPECT_EQ(static_cast<uint16_t>(e.orientation), heading) << y << "," << x;
  }
}

std::string judge(const std::vector<TAccelSensorInfo>& table) {
  S stream;
  stream.sensorTable = table;
  ConsoleCapture capture;
  stream.detectReverse();
  stream.detectReverseFront();
  return capture.text();
}

TEST(Verdicts, KnownGravityLogsGiveKnownVerdicts) {
  // On the second axis a sample weighs 1 / 1e-5, 20 degrees off 1 / sin 20;
  // beyond 30 degrees and zero vectors it weighs nothing.
  EXPECT_EQ(judge({entry(0, 1000, 0), entry(342, 940, 0), entry(0, -1000, 0), entry(600, 700, 0)}),
            "rev-up/down: [P]100002.921875, [N]:100000.000000 -> Y\nrev-front:   [F]4.000000 -> Y\n");
  EXPECT_EQ(judge({entry(0, -1000, 0), entry(0, 0, 0)}),
            "rev-up/down: [P]0.000000, [N]:100000.000000 -> N\nrev-front:   [F]1.000000 -> N\n");
  // Gravity 64 degrees off the axis, on the side the first verdict ignores.
  EXPECT_EQ(judge({entry(0, 8000, 16384)}),
            "rev-up/down: [P]0.000000, [N]:0.000000 -> N\nrev-front:   [F]-0.438769 -> Y\n");
}

TEST(LoadGen2, TooFewCompassSamplesFailWithThreeLines) {
  TempDir dir;
  const SensorLog log = turningCamera(101.0 / 30, 0.1);
  const std::vector<Ecompass> compass(log.compass.begin(), log.compass.end() - 1);
  auto movie = attachBytes(
      dir, sensorMovie({SampleBox("KDTC").add(compass).build(), SampleBox("KDTD").add(log.gravity).build()}));
  S stream;
  ConsoleCapture capture;
  EXPECT_FALSE(stream.loadGen2(SensorLogs::read(*movie), 30));
  EXPECT_EQ(capture.text(), "KDTD: No KDTG entries.\nKDTC/KDTD is not enough size.\n  KDTC:   100\n  KDTD/G: 101\n");
  EXPECT_TRUE(stream.sensorTable.empty());
}

TEST(LoadGen2, PairsGravityWithCompassAndJudgesTheClip) {
  TempDir dir;
  // Upside down (gravity along -z as stored), KDTI present so KDTD is taken
  // plain; the field along the camera's -x reads as heading 90 degrees.
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTC").add(Ecompass{-30, 0, 0, 0, 1}).build(),
                                             SampleBox("KDTD").add(Gravity{0, 0, -16384, 0, 1}).build(),
                                             SampleBox("KDTI").add(YawCorrection{}).build()}));
  S stream;
  ConsoleCapture capture;
  ASSERT_TRUE(stream.loadGen2(SensorLogs::read(*movie), 15));
  EXPECT_EQ(std::tuple(stream.sampleCount, stream.rate, stream.step), std::tuple(1, 100, 2));
  const TAccelSensorInfo& e = stream.sensorTable.at(0);
  EXPECT_EQ(std::vector<int>(e.axis, e.axis + 3), (std::vector<int>{0, 16384, 0}));
  EXPECT_EQ(std::pair(e.orientation, e.auxiliary), std::pair(int16_t{9000}, 20));
  EXPECT_EQ(capture.text(), "rev-up/down: [P]100000.000000, [N]:0.000000 -> Y\nrev-front:   [F]1.000000 -> Y\n");
}

}  // namespace
