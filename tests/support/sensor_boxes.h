// Builders for the camera's sensor sample boxes (KDTB, KDTC, KDTD, KDTG, KDTH, KDTI) in either byte
// order, their header open to deliberate damage; and synthetic sensor logs with known answers.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>
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

  SampleBox& rate(uint16_t v) { return set(rate_, v); }
  // Written instead of the real count / record size / mark.
  SampleBox& count(uint32_t v) { return set(count_, v); }
  SampleBox& unitSize(uint16_t v) { return set(unitSize_, v); }
  SampleBox& mark(uint16_t v) { return set(mark_, v); }

  // Every record is four fields of one width (16 bits in KDTD, 32 in the
  // others) and then its 64-bit time; a KDTG record is the time alone.
  template <class R>
  requires std::is_class_v<R> SampleBox& add(const R& r) {
    using Field = std::conditional_t<sizeof(R) == 16, uint16_t, uint32_t>;
    Field fields[4];
    std::memcpy(fields, &r, sizeof fields);
    for (const Field v : fields) sizeof(Field) == 2 ? records_.u16(v) : records_.u32(v);
    return add(r.t);
  }
  SampleBox& add(uint64_t stamp);
  template <class R>
  SampleBox& add(const std::vector<R>& records) {
    for (const R& r : records) add(r);
    return *this;
  }

  Bytes build() const;

 private:
  template <class T, class V>
  SampleBox& set(T& field, V v) {
    field = v;
    return *this;
  }

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
