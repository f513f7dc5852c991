// Builders for the camera's sensor sample boxes (KDTB, KDTC, KDTD, KDTG,
// KDTH, KDTI): the sample header and fixed-size records in either byte
// order, with the stated count, unit size and byte-order mark open to
// deliberate damage; and synthetic sensor logs with known answers.
//
//   Bytes movie = sensorMovie({SampleBox("KDTD").rate(30).add(Gravity{0, 16384, 0, 0, 1000}).build(),
//                              SampleBox("KDTB", kBigEndian).count(0xFFFFFFFF).build()});
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "sensor/sample_records.h"
#include "tests/support/mp4_builder.h"

namespace sondex::test {

using Gyro = AccelSensorStreamEmbed::Gyro;
using Ecompass = AccelSensorStreamEmbed::Ecompass;
using Gravity = AccelSensorStreamEmbed::TopBottomCorrection;
using Orientation = AccelSensorStreamEmbed::Quaternion;
using YawCorrection = AccelSensorStreamEmbed::YawCorrection;

class SampleBox {
 public:
  // code is one of the six sample box types; its record size is the unit size.
  explicit SampleBox(const std::string& code, bool bigEndian = false);

  SampleBox& rate(uint16_t v) {
    rate_ = v;
    return *this;
  }
  // Written instead of the real count / record size / mark.
  SampleBox& count(uint32_t v) {
    count_ = v;
    return *this;
  }
  SampleBox& unitSize(uint16_t v) {
    unitSize_ = v;
    return *this;
  }
  SampleBox& mark(uint16_t v) {
    mark_ = v;
    return *this;
  }

  SampleBox& add(const Gyro& r) { return xyzt(r, 4); }
  SampleBox& add(const Ecompass& r) { return xyzt(r, 4); }
  SampleBox& add(const Gravity& r) { return xyzt(r, 2); }
  SampleBox& add(const Orientation& r);
  SampleBox& add(const YawCorrection& r);
  SampleBox& add(uint64_t stamp);
  template <class R>
  SampleBox& add(const std::vector<R>& records) {
    for (const R& r : records) add(r);
    return *this;
  }

  // Bytes after the records that are not counted as records.
  SampleBox& zeros(size_t n) {
    records_.zeros(n);
    return *this;
  }

  Box box() const;
  Bytes build() const { return box().build(); }

 private:
  template <class R>
  SampleBox& xyzt(const R& r, int width) {
    value(r.x, width).value(r.y, width).value(r.z, width);
    if (width == 2) {
      records_.u16(r.reserved);
    } else {
      records_.u32(r.reserved);
    }
    records_.u64(r.t);
    ++written_;
    return *this;
  }
  SampleBox& value(float v, int width);
  SampleBox& value(int16_t v, int width);

  std::string code_;
  bool bigEndian_;
  uint16_t rate_ = 0;
  std::optional<uint32_t> count_;
  std::optional<uint16_t> unitSize_;
  std::optional<uint16_t> mark_;
  ByteWriter records_;
  uint32_t written_ = 0;
};

// ftyp, then moov.udta holding the given boxes.
Bytes sensorMovie(std::initializer_list<Bytes> udtaChildren);

// A synthetic sensor log: gyro at gyroHz, gravity and compass at gravityHz,
// and KDTG stamps that put each gravity sample 1 ms after its KDTG time.
struct SensorLog {
  std::vector<Gyro> gyro;
  std::vector<Ecompass> compass;
  std::vector<Gravity> gravity;
  std::vector<uint64_t> stamps;
  uint16_t gyroRate = 0;
  uint16_t gravityRate = 0;
};

// A camera tilted by tilt radians about its first axis, turning at yawRate
// radians per second about the true vertical (the second axis when level),
// for the given seconds. Gyro rates are about the camera axes, gravity is
// the camera's up direction scaled to 16384, timestamps are nanoseconds.
SensorLog turningCamera(double seconds, double yawRate, double tilt = 0, int gyroHz = 200, int gravityHz = 30);

// The log's KDTB, KDTC and KDTD boxes in the given order, and a
// little-endian KDTG when withStamps.
Bytes sensorMovie(const SensorLog& log, bool bigEndian = false, bool withStamps = true);

}  // namespace sondex::test
