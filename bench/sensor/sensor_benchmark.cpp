// Speed of the sensor layer on one hour of logs: 720,000 gyro records at
// 200 Hz, 108,000 gravity and compass records and 108,000 KDTG stamps.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "gltk/console.h"
#include "sensor/yaw_stabilizer.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;
using S = AccelSensorStreamEmbed;

// A tilted camera turning for an hour, its gravity wobbling by a few units
// so that re-timing takes the interpolation path. One movie file serves
// every benchmark; the verdict lines go nowhere.
SensorLog wobblingHour() {
  SensorLog log = turningCamera(3600, 0.3, 0.2);
  for (size_t i = 0; i < log.gravity.size(); ++i) log.gravity[i].x = static_cast<int16_t>(i % 7) - 3;
  return log;
}

struct HourOfLogs {
  HourOfLogs() : log(wobblingHour()), movie(attachBytes(dir, sensorMovie(log))) {
    GLTK::Console::set_sink(std::fopen("/dev/null", "w"));
  }
  TempDir dir;
  SensorLog log;
  std::unique_ptr<MP4::Container> movie;
};

HourOfLogs& hour() {
  static HourOfLogs logs;
  return logs;
}

// All five sample boxes read, the gravity samples re-timed onto KDTG.
void BM_SensorLogs_Read(benchmark::State& state) {
  MP4::Container& movie = *hour().movie;
  for (auto _ : state) {
    const SensorLogs logs = SensorLogs::read(movie);
    if (logs.retimed.size() != hour().log.stamps.size()) state.SkipWithError("short load");
    benchmark::DoNotOptimize(logs.gyro.records.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(hour().log.gyro.size()));
}
BENCHMARK(BM_SensorLogs_Read)->Unit(benchmark::kMillisecond);

void BM_AccelSensorStreamEmbed_LoadGen2(benchmark::State& state) {
  const SensorLogs logs = SensorLogs::read(*hour().movie);
  for (auto _ : state) {
    S stream;
    benchmark::DoNotOptimize(stream.loadGen2(logs, 30));
  }
}
BENCHMARK(BM_AccelSensorStreamEmbed_LoadGen2)->Unit(benchmark::kMillisecond);

void BM_YawStabilizer_Generate(benchmark::State& state) {
  const SensorLog& log = hour().log;
  const GLTK::LargeVector<AccelSensorStreamEmbed::Gyro> gyro(log.gyro.begin(), log.gyro.end());
  const GLTK::LargeVector<AccelSensorStreamEmbed::TopBottomCorrection> gravity(log.gravity.begin(), log.gravity.end());
  YawStabilizer yaw;
  for (auto _ : state) {
    yaw.generate(gyro, log.gyroRate, gravity, state.range(0) != 0, false, 0, 30);
    benchmark::DoNotOptimize(yaw.yawTable.data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(log.gyro.size()));
}
BENCHMARK(BM_YawStabilizer_Generate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The whole path: read the logs, re-time the gravity onto KDTG, integrate.
void BM_YawStabilizer_Init(benchmark::State& state) {
  MP4::Container& movie = *hour().movie;
  YawStabilizer yaw;
  for (auto _ : state) {
    const SensorLogs logs = SensorLogs::read(movie);
    benchmark::DoNotOptimize(yaw.init(logs, VideoStabilizationMode::ENABLED, 30, false, 0));
    benchmark::DoNotOptimize(yaw.table().data());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(hour().log.gyro.size()));
}
BENCHMARK(BM_YawStabilizer_Init)->Unit(benchmark::kMillisecond);

}  // namespace
