#include "tests/support/sensor_boxes.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

namespace sondex::test {

namespace {

uint16_t recordSize(const std::string& code) {
  if (code == "KDTD") return 16;
  if (code == "KDTG") return 8;
  if (code == "KDTB" || code == "KDTC" || code == "KDTH" || code == "KDTI") return 24;
  throw std::invalid_argument("not a sample box: " + code);
}

}  // namespace

SampleBox::SampleBox(const std::string& code, bool bigEndian)
    : code_(code), bigEndian_(bigEndian), records_(bigEndian) {
  recordSize(code);
}

SampleBox& SampleBox::add(uint64_t stamp) {
  records_.u64(stamp);
  ++written_;
  return *this;
}

Bytes SampleBox::build() const {
  ByteWriter header(bigEndian_);
  header.u32(count_.value_or(written_)).u16(rate_).u16(unitSize_.value_or(recordSize(code_)));
  // The mark is read as a little-endian value whatever the box's order.
  ByteWriter mark(false);
  mark.u16(mark_.value_or(bigEndian_ ? 0x3210 : 0x0123)).zeros(6);
  return Box(code_).bytes(header.data()).bytes(mark.data()).bytes(records_.data()).build();
}

Bytes sensorMovie(std::initializer_list<Bytes> udtaChildren) {
  Box udta("udta");
  for (const Bytes& child : udtaChildren) udta.bytes(child);
  return concat({Box("ftyp").str("isom").u32(0).build(), Box("moov").child(udta).build()});
}

SensorLog turningCamera(double seconds, double yawRate, double tilt, int gyroHz, int gravityHz) {
  constexpr uint64_t kStart = 1000000000;  // 1 s into the camera's clock
  SensorLog log;
  log.gyroRate = static_cast<uint16_t>(gyroHz);
  log.gravityRate = static_cast<uint16_t>(gravityHz);
  // The true vertical seen from a camera tilted about its first axis.
  const double up[3] = {0, std::cos(tilt), -std::sin(tilt)};
  for (size_t i = 0; i < static_cast<size_t>(seconds * gyroHz); ++i) {
    const uint64_t t = kStart + i * 1000000000ULL / static_cast<uint64_t>(gyroHz);
    log.gyro.push_back({static_cast<float>(up[0] * yawRate), static_cast<float>(up[1] * yawRate),
                        static_cast<float>(up[2] * yawRate), 0, t});
  }
  for (size_t i = 0; i < static_cast<size_t>(seconds * gravityHz); ++i) {
    const uint64_t t = kStart + i * 1000000000ULL / static_cast<uint64_t>(gravityHz);
    const double heading = yawRate * static_cast<double>(t - kStart) / 1e9;
    log.gravity.push_back(
        {0, static_cast<int16_t>(std::lround(up[1] * 16384)), static_cast<int16_t>(std::lround(up[2] * 16384)), 0, t});
    // A horizontal field that turns against the camera.
    log.compass.push_back(
        {static_cast<float>(40 * std::cos(heading)), 0, static_cast<float>(40 * std::sin(heading)), 0, t});
    log.stamps.push_back(t - 5000000);
  }
  return log;
}

Bytes sensorMovie(const SensorLog& log, bool bigEndian, bool withStamps) {
  // KDTG is always little-endian: the camera never writes it the other way.
  const Bytes stamps = withStamps ? SampleBox("KDTG").add(log.stamps).build() : Bytes{};
  return sensorMovie({SampleBox("KDTB", bigEndian).rate(log.gyroRate).add(log.gyro).build(),
                      SampleBox("KDTC", bigEndian).rate(log.gravityRate).add(log.compass).build(),
                      SampleBox("KDTD", bigEndian).rate(log.gravityRate).add(log.gravity).build(), stamps});
}

}  // namespace sondex::test
