// Gravity samples re-timed onto the KDTG clock.
#include <gtest/gtest.h>

#include "sensor/sample_loaders.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;

struct Retimed {
  GLTK::LargeVector<Gravity> out;
  uint16_t rate = 0;
  std::string console;
};

// KDTD holding gravity at rate 30, KDTG holding stamps that become the
// given times once shifted by 4 ms.
Retimed retime(const std::vector<Gravity>& gravity, const std::vector<uint64_t>& times) {
  SampleBox kdtg("KDTG");
  for (const uint64_t t : times) kdtg.add(t - 4000000);
  TempDir dir;
  auto movie = attachBytes(dir, sensorMovie({SampleBox("KDTD").rate(30).add(gravity).build(), kdtg.build()}));
  const SensorLogs logs = SensorLogs::read(*movie);
  ConsoleCapture capture;
  Retimed r{logs.loadRetimed(), logs.gravity.samplingRate, ""};
  r.console = capture.text();
  return r;
}

std::vector<int64_t> fields(const Gravity& g) { return {g.x, g.y, g.z, g.reserved, static_cast<int64_t>(g.t)}; }

TEST(Retiming, ATimeInsideABracketTurnsTheFirstSampleTowardsTheSecond) {
  const Retimed r = retime({{8000, 0, 0, 0, 10}, {0, 3000, 0, 0, 20}, {0, 3000, 0, 0, 30}, {0, 0, 0, 0, 40}},
                           {5, 10, 15, 17, 25, 35});
  EXPECT_EQ(r.rate, 30);
  EXPECT_EQ(r.console, "");
  ASSERT_EQ(r.out.size(), 6u);
  EXPECT_EQ(fields(r.out[0]), (std::vector<int64_t>{8000, 0, 0, 0, 5}));        // before the first: copied
  EXPECT_EQ(fields(r.out[1]), (std::vector<int64_t>{8000, 0, 0, 0, 10}));       // at the first: copied
  EXPECT_EQ(fields(r.out[2]), (std::vector<int64_t>{11585, 11585, 0, 0, 15}));  // 45 degrees, unit x 16384
  EXPECT_EQ(fields(r.out[3]), (std::vector<int64_t>{7438, 14598, 0, 0, 17}));   // 63 degrees
  EXPECT_EQ(fields(r.out[4]), (std::vector<int64_t>{0, 3000, 0, 0, 25}));       // parallel: copied
  EXPECT_EQ(fields(r.out[5]), (std::vector<int64_t>{0, 0, 0, 0, 35}));          // towards zero: nothing
}

TEST(Retiming, PastTheEndOrBackInTimeTheLastSampleRepeatsWithALineEachTime) {
  // 25 moves the cursor into the last bracket; 12 finds none ahead of it.
  const Retimed r = retime({{1, 0, 0, 0, 10}, {1, 0, 0, 0, 20}, {4, 5, 6, 0, 30}}, {25, 12, 40});
  ASSERT_EQ(r.out.size(), 3u);
  EXPECT_EQ(r.out[0].t, 25u);
  EXPECT_EQ(fields(r.out[1]), (std::vector<int64_t>{4, 5, 6, 0, 30}));
  EXPECT_EQ(fields(r.out[2]), (std::vector<int64_t>{4, 5, 6, 0, 30}));
  EXPECT_EQ(r.console, "KDTD: End of data : use 30 for 12\nKDTD: End of data : use 30 for 40\n");
}

}  // namespace
