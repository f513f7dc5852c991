// Orientation analysis: the tilt matrix, compass headings with known
// answers, the clamped gravity accessor, the two verdicts with their console
// lines, and loadGen2 pairing the logs.
#include <gtest/gtest.h>

#include <cmath>

#include "sensor/accel_sensor_stream.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using S = AccelSensorStreamEmbed;

GLTK::Vector3 vec(float x, float y, float z) {
  GLTK::Vector3 v;
  v[0] = x;
  v[1] = y;
  v[2] = z;
  return v;
}

TAccelSensorInfo entry(int16_t a0, int16_t a1, int16_t a2) {
  TAccelSensorInfo e;
  e.axis[0] = a0;
  e.axis[1] = a1;
  e.axis[2] = a2;
  return e;
}

bool isIdentity(const GLTK::Matrix3x3& m) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      if (m.m[r][c] != (r == c ? 1.0f : 0.0f)) return false;
  return true;
}

TEST(TiltMatrix, CarriesTheReversedFirstVectorOntoTheSecond) {
  GLTK::Matrix3x3 m;
  const GLTK::Vector3 b = vec(0, -1, 0);
  S::tiltMatrix0WithAxis(vec(0, 2, 3), b, m);  // taken as (3, 2, 0)
  const float v[3] = {3 / std::sqrt(13.0f), 2 / std::sqrt(13.0f), 0};
  for (int r = 0; r < 3; ++r) {
    EXPECT_NEAR(m.m[r][0] * v[0] + m.m[r][1] * v[1] + m.m[r][2] * v[2], b[r], 1e-6) << r;
  }
}

TEST(TiltMatrix, NoDirectionOrNoTurnGivesTheIdentity) {
  GLTK::Matrix3x3 m;
  m.m[0][1] = 5;
  S::tiltMatrix0WithAxis(vec(0, 0, 0), vec(0, -1, 0), m);
  EXPECT_TRUE(isIdentity(m));
  m.m[0][1] = 5;
  S::tiltMatrix0WithAxis(vec(0, -1000, 0), vec(0, -1, 0), m);
  EXPECT_TRUE(isIdentity(m));
}

TEST(Quaternion, ToMatrixIsTheRotationOfTheQuaternion) {
  const double h = std::sqrt(0.5);
  const GLTK2::Quaternion<double> q{h, 0, 0, h};  // 90 degrees about the third axis
  double m[3][3];
  q.toMatrix(m);
  EXPECT_NEAR(m[1][0], 1, 1e-12);  // first axis onto the second
  EXPECT_NEAR(m[0][1], -1, 1e-12);
  EXPECT_NEAR(m[2][2], 1, 1e-12);
}

TEST(Orientation, HeadingsOfALevelCameraFollowTheCompass) {
  S stream;
  struct Case {
    float x, y;
    uint16_t heading;
  };
  // Level: axes (0, -1000, 0) leave the compass as it is; y = x field, x = y
  // field. Headings past 327.67 degrees only fit the 16 bits unsigned, and
  // 270 degrees lands just below 27000 in float arithmetic.
  for (const Case c : {Case{0, 1, 0}, Case{1, 0, 26999}, Case{-1, 0, 9000}, Case{0, -1, 18000},
                       Case{0.01f, 1, 35942}, Case{-1, 1, 4500}}) {
    TAccelSensorInfo e = entry(0, -1000, 0);
    stream.calcOrientation(e, Ecompass{c.x, c.y, 0, 0, 0});
    EXPECT_EQ(static_cast<uint16_t>(e.orientation), c.heading) << c.x << "," << c.y;
  }
  TAccelSensorInfo e = entry(0, -1000, 0);
  stream.calcOrientation(e, Ecompass{NAN, 1, 0, 0, 0});
  EXPECT_EQ(e.orientation, 0);
}

TEST(Orientation, AxisClampsItsIndexAndAddsTheOffsets) {
  S stream;
  EXPECT_EQ(stream.axis(3)[1], 0.0f);  // empty table
  stream.sensorTable = {entry(1, 2, 3), entry(4, 5, 6)};
  stream.offsetY = 10;
  EXPECT_EQ(stream.axis(-5)[0], 1.0f);
  EXPECT_EQ(stream.axis(99)[2], 6.0f);
  EXPECT_EQ(stream.axis(1)[1], 15.0f);
}

// ------------------------------------------------------------ verdicts

struct Verdicts {
  bool reversed, frontReversed;
  std::string console;
};

Verdicts judge(const std::vector<TAccelSensorInfo>& table) {
  S stream;
  stream.sensorTable = table;
  ConsoleCapture capture;
  stream.detectReverse();
  stream.detectReverseFront();
  return {stream.reversed, stream.frontReversed, capture.text()};
}

TEST(Verdicts, GravityNearTheSecondAxisDecidesUpsideDown) {
  // Exactly on the axis weighs 1 / 1e-5; 20 degrees off weighs 1 / sin 20.
  const Verdicts up = judge({entry(0, 1000, 0), entry(342, 940, 0), entry(0, -1000, 0)});
  EXPECT_TRUE(up.reversed);
  EXPECT_EQ(up.console.substr(0, up.console.find('\n')), "rev-up/down: [P]100002.921875, [N]:100000.000000 -> Y");
  // Tilted beyond 30 degrees nothing counts; zero vectors never count.
  const Verdicts flat = judge({entry(600, 700, 0), entry(0, 0, 0)});
  EXPECT_FALSE(flat.reversed);
  EXPECT_EQ(flat.console.substr(0, flat.console.find('\n')), "rev-up/down: [P]0.000000, [N]:0.000000 -> N");
  EXPECT_FALSE(judge({}).reversed);
}

TEST(Verdicts, TheFrontSumFlipsTheFrontVerdict) {
  const Verdicts level = judge({entry(0, -1000, 0), entry(0, -1000, 0)});
  EXPECT_FALSE(level.frontReversed);
  EXPECT_NE(level.console.find("rev-front:   [F]2.000000 -> N\n"), std::string::npos);
  // Gravity 64 degrees off the axis, on the side the verdict does not count.
  const Verdicts leaning = judge({entry(0, 8000, 16384)});
  EXPECT_FALSE(leaning.reversed);
  EXPECT_TRUE(leaning.frontReversed);
  EXPECT_NE(leaning.console.find("rev-front:   [F]-0.438769 -> Y\n"), std::string::npos);
  // Upside down and level: the front sum stays positive, so the front
  // verdict follows the upside-down one.
  const Verdicts upside = judge({entry(0, 1000, 0)});
  EXPECT_TRUE(upside.reversed);
  EXPECT_TRUE(upside.frontReversed);
}

// ------------------------------------------------------------ loadGen2

TEST(LoadGen2, TooFewCompassSamplesFailWithThreeLines) {
  TempDir dir;
  const SensorLog log = turningCamera(101.0 / 30, 0.1);
  std::vector<Ecompass> compass(log.compass.begin(), log.compass.end() - 1);
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTC").add(compass).build(),
                                             SampleBox("KDTD").add(log.gravity).build()}));
  S stream;
  ConsoleCapture capture;
  EXPECT_FALSE(stream.loadGen2(*movie, 30));
  EXPECT_EQ(capture.text(),
            "KDTD: No KDTG entries.\nKDTC/KDTD is not enough size.\n  KDTC:   100\n  KDTD/G: 101\n");
  EXPECT_TRUE(stream.sensorTable.empty());
}

TEST(LoadGen2, PairsGravityWithCompassAndJudgesTheClip) {
  TempDir dir;
  // Upside down (gravity along -z as the camera stores it), compass field
  // along the camera's -x: after the half turn that reads as heading 90.
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTC").add(Ecompass{-30, 0, 0, 0, 1}).build(),
                                             SampleBox("KDTD").add(Gravity{0, 0, -16384, 0, 1}).build(),
                                             SampleBox("KDTI").add(YawCorrection{}).build()}));
  S stream;
  ConsoleCapture capture;
  ASSERT_TRUE(stream.loadGen2(*movie, 15));
  EXPECT_EQ(stream.sampleCount, 1);
  EXPECT_EQ(stream.rate, 100);
  EXPECT_EQ(stream.step, 2);
  const TAccelSensorInfo& e = stream.sensorTable.at(0);
  EXPECT_EQ(std::vector<int>(e.axis, e.axis + 3), (std::vector<int>{0, 16384, 0}));
  EXPECT_EQ(e.auxiliary, 20);
  EXPECT_EQ(e.orientation, 9000);
  EXPECT_TRUE(stream.reversed);
  EXPECT_EQ(capture.text(), "rev-up/down: [P]100000.000000, [N]:0.000000 -> Y\nrev-front:   [F]1.000000 -> Y\n");
}

}  // namespace
