// Floor: the sensor work of one movie: its logs read (from the page cache)
// with the gravity samples re-timed onto their timestamps, a heading per
// sample with the two verdicts, and the yaw integrated over the gyro log.
// Prints the median time in milliseconds of several runs.
//   sensor_math <movie>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <vector>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/container.h"
#include "sensor/orientation.h"
#include "sensor/sample_loaders.h"
#include "sensor/yaw_stabilizer.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  GLTK::Console::init_locale();
  FILE* quiet = std::fopen("/dev/null", "w");
  GLTK::Console::set_sink(quiet);
  MP4::Container movie;
  if (!movie.attach(GLTK::wchar::mbs2wcs(argv[1]), ~0ULL)) return 1;

  std::vector<double> times;
  for (int run = 0; run < 5; ++run) {
    const auto start = std::chrono::steady_clock::now();
    const SensorLogs logs = SensorLogs::read(movie);
    const auto& gravity = logs.retimed;
    const auto& compass = logs.compass.records;
    AccelSensorStreamEmbed sensors;
    for (size_t i = 0; i < gravity.size() && i < compass.size(); ++i) {
      TAccelSensorInfo entry;
      entry.axis[0] = static_cast<int16_t>(-gravity[i].x);
      entry.axis[1] = static_cast<int16_t>(-gravity[i].z);
      entry.axis[2] = static_cast<int16_t>(-gravity[i].y);
      sensors.calcOrientation(entry, compass[i]);
      sensors.sensorTable.push_back(entry);
    }
    sensors.sampleCount = static_cast<int32_t>(sensors.sensorTable.size());
    sensors.detectReverse();
    sensors.detectReverseFront();
    YawStabilizer yaw;
    yaw.generate(logs.gyro.records, logs.gyro.samplingRate, gravity, false, false, 0, 30);
    times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(times.begin(), times.end());
  std::printf("%.3f\n", times[times.size() / 2]);
  return 0;
}
