// Gravity samples re-timed onto the KDTG clock: bracketing and the turn
// between two samples, copied samples, the end of the data, and times that
// go backwards.
#include <gtest/gtest.h>

#include "sensor/accel_sensor_stream.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;

constexpr uint64_t kShift = 4000000;  // KDTG stamps sit 4 ms before the gravity clock

struct Retimed {
  std::vector<Gravity> out;
  uint16_t rate = 0;
  std::string console;
};

// KDTD holding gravity (rate 30), KDTG holding the given stamps (already
// shifted: each is the gravity time wanted).
Retimed retime(const std::vector<Gravity>& gravity, const std::vector<uint64_t>& times) {
  SampleBox kdtg("KDTG");
  for (const uint64_t t : times) kdtg.add(t - kShift);
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTD").rate(30).add(gravity).build(), kdtg.build()}));
  Retimed r;
  ConsoleCapture capture;
  AccelSensorStreamEmbed::loadGen3_KDTD_with_KDTG(*movie, r.out, r.rate);
  r.console = capture.text();
  return r;
}

void expectSample(const Gravity& g, int16_t x, int16_t y, int16_t z, uint64_t t) {
  EXPECT_EQ(g.x, x);
  EXPECT_EQ(g.y, y);
  EXPECT_EQ(g.z, z);
  EXPECT_EQ(g.t, t);
  EXPECT_EQ(g.reserved, 0);
}

TEST(Retiming, WithoutStampsTheGravityLogIsTakenAsItStands) {
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTD").rate(25).add(Gravity{1, 2, 3, 7, 100}).build()}));
  std::vector<Gravity> out;
  uint16_t rate = 0;
  ConsoleCapture capture;
  AccelSensorStreamEmbed::loadGen3_KDTD_with_KDTG(*movie, out, rate);
  EXPECT_EQ(capture.text(), "KDTD: No KDTG entries.\n");
  EXPECT_EQ(rate, 25);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].reserved, 7);  // untouched
}

TEST(Retiming, ATimeBetweenTwoSamplesTurnsTheFirstTowardsTheSecond) {
  const Retimed r = retime({{8000, 0, 0, 0, 10000000}, {0, 3000, 0, 0, 20000000}},
                           {5000000, 10000000, 15000000, 17500000});
  EXPECT_EQ(r.rate, 30);
  EXPECT_EQ(r.console, "");
  ASSERT_EQ(r.out.size(), 4u);
  expectSample(r.out[0], 8000, 0, 0, 5000000);   // before the first: copied, own length
  expectSample(r.out[1], 8000, 0, 0, 10000000);   // at the first: still copied
  expectSample(r.out[2], 11585, 11585, 0, 15000000);  // half way: 45 degrees, unit length x 16384
  expectSample(r.out[3], 6270, 15137, 0, 17500000);   // three quarters: 67.5 degrees
}

TEST(Retiming, ParallelOrZeroSamplesAreCopiedOrVanishWithoutNonNumbers) {
  const Retimed parallel = retime({{0, 0, 100, 0, 10}, {0, 0, 200, 0, 20}}, {15});
  expectSample(parallel.out.at(0), 0, 0, 100, 15);
  const Retimed zero = retime({{0, 0, 0, 0, 10}, {0, 0, 200, 0, 20}}, {15});
  expectSample(zero.out.at(0), 0, 0, 0, 15);
}

TEST(Retiming, PastTheEndTheLastSampleRepeatsWithItsOwnTimeAndALineEachTime) {
  const Retimed r = retime({{1, 2, 3, 0, 10}, {4, 5, 6, 0, 20}}, {12, 25, 30});
  ASSERT_EQ(r.out.size(), 3u);
  expectSample(r.out[1], 4, 5, 6, 20);
  expectSample(r.out[2], 4, 5, 6, 20);
  EXPECT_EQ(r.console, "KDTD: End of data : use 20 for 25\nKDTD: End of data : use 20 for 30\n");
}

TEST(Retiming, ATimeThatGoesBackwardsRunsTheCursorToTheEnd) {
  // 25 moves the cursor past the second bracket; 12 then finds no bracket
  // ahead, and so does every later time.
  const Retimed r = retime({{1, 0, 0, 0, 10}, {1, 0, 0, 0, 20}, {1, 0, 0, 0, 30}}, {25, 12, 28});
  ASSERT_EQ(r.out.size(), 3u);
  EXPECT_EQ(r.out[0].t, 25u);
  EXPECT_EQ(r.out[1].t, 30u);
  EXPECT_EQ(r.out[2].t, 30u);
  EXPECT_EQ(r.console, "KDTD: End of data : use 30 for 12\nKDTD: End of data : use 30 for 28\n");
}

TEST(Retiming, StampsWithoutGravitySamplesGiveNothing) {
  const Retimed r = retime({}, {10, 20});
  EXPECT_TRUE(r.out.empty());
  EXPECT_EQ(r.console, "");
}

}  // namespace
