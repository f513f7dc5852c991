// The sensor logs of a movie: the input's first byte picks the yaw mode and
// the sensor pace, the rest becomes the content of moov.udta (the sample
// boxes KDTB, KDTC, KDTD, KDTG, KDTI). Read as the movie reader reads them,
// then the orientation analysis and the yaw table.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "sensor/orientation.h"
#include "sensor/sample_loaders.h"
#include "sensor/yaw_stabilizer.h"

using namespace sondex::fuzz;
using Sensors = AccelSensorStreamEmbed;

namespace {

// A box header: the 32-bit size (header included), then the type.
void appendBox(std::vector<uint8_t>& out, const char* type, size_t payloadSize) {
  const uint32_t size = static_cast<uint32_t>(payloadSize + 8);
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(size >> shift));
  out.insert(out.end(), type, type + 4);
}

// ftyp, then moov holding udta holding the bytes.
std::vector<uint8_t> movieAround(const uint8_t* data, size_t size) {
  std::vector<uint8_t> movie;
  appendBox(movie, "ftyp", 8);
  movie.insert(movie.end(), {'i', 's', 'o', 'm', 0, 0, 2, 0});
  appendBox(movie, "moov", size + 8);
  appendBox(movie, "udta", size);
  movie.insert(movie.end(), data, data + size);
  return movie;
}

// Records are kept only as far as the file backs them: each loaded record
// stands for its own bytes in the file (a gravity sample re-timed onto the
// KDTG clock for its 8-byte stamp).
template <class T, class A>
void checkBacked(const std::vector<T, A>& records, size_t bytesEach, size_t fileSize) {
  if (records.size() > fileSize / bytesEach) fail("more records than the file holds");
}

void readSensors(MP4::Container& movie, uint8_t control, size_t fileSize) {
  const SensorLogs logs = SensorLogs::read(movie);
  checkBacked(logs.gyro.load(), sizeof(Sensors::Gyro), fileSize);
  checkBacked(logs.compass.load(), sizeof(Sensors::Ecompass), fileSize);
  checkBacked(logs.yawCorrections.records, sizeof(Sensors::YawCorrection), fileSize);
  checkBacked(logs.loadRetimed(), sizeof(uint64_t), fileSize);
  const int pace = (control & 4) != 0 ? 30 : 15;
  Sensors sensors;
  sensors.loadGen2(logs, pace);
  static constexpr VideoStabilizationMode::MODE kModes[4] = {
      VideoStabilizationMode::DISABLED, VideoStabilizationMode::ENABLED, VideoStabilizationMode::LOCK_DIR,
      VideoStabilizationMode::ENABLED};
  const VideoStabilizationMode::MODE mode = kModes[control & 3];
  YawStabilizer yaw;
  yaw.init(logs, mode, pace, sensors.reversed, (control & 8) != 0 ? 0x40002 : 0);
  // One value per yaw-correction record or per gravity sample.
  checkBacked(yaw.table(), sizeof(uint64_t), fileSize);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  initProgram();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  DescriptorCheck descriptors;
  const std::vector<uint8_t> bytes = movieAround(data + 1, size - 1);
  const std::wstring path = writeInput("sensors.mp4", bytes.data(), bytes.size());
  MP4::Container movie;
  if (!movie.attach(path, ~0ULL)) fail("cannot attach the input");
  readSensors(movie, data[0], bytes.size());
  return 0;
}
