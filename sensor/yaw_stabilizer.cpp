// Yaw stabilisation: the per-sample yaw table, either copied from the
// camera's own corrections (KDTI) or integrated from the gyro log and
// re-anchored on gravity.
//
// Frames and conventions of the integration:
// - The orientation is a unit quaternion carrying camera axes to a level
//   frame whose vertical is the camera's second axis (signed by the
//   alternate flag). Gyro rates are radians per second about the camera
//   axes; timestamps are nanoseconds.
// - First-order step: q <- normalise(q * (1, w dt / 2)), the first two terms
//   of the exponential of the body-rate rotation, normalised so that the
//   quaternion stays a rotation.
// - Yaw: atan2(-(m20 - m02), m00 + m22) of the orientation's matrix m. It is
//   the angle of the rotation about the vertical that lies closest to the
//   whole orientation: it is the heading of a level camera, 0 for a pure
//   tilt, and turning about the vertical (or about the camera's own second
//   axis) by a adds exactly a.
// - Gravity re-anchoring: the tilt that the gravity sample shows replaces
//   the tilt of the integration, and the integration's yaw is kept (the
//   orientation becomes yaw rotation x tilt quaternion). Replacing the whole
//   orientation by the tilt would zero the yaw at every gravity sample.
// - Drift removal (not with the direction locked): value -= sum / F and
//   sum += value, F being the value rate / (2 pi x 0.1 Hz). That is a
//   first-order high-pass with a 1.6 s time constant: shake still reaches
//   the correction, while a steady turn, or a gyro bias, settles at its rate
//   x 1.6 s instead of growing, so the view follows a deliberate pan.
#include "sensor/yaw_stabilizer.h"

#include <algorithm>
#include <cmath>

#include "gltk/console.h"

using Gyro = AccelSensorStreamEmbed::Gyro;
using GLTK::Console;
using TopBottomCorrection = AccelSensorStreamEmbed::TopBottomCorrection;

namespace {

using Quat = GLTK2::Quaternion<double>;

constexpr double kTwoPi = 6.283185307179586;
constexpr double kWrapJump = 5.235987755982989;    // five thirds of pi
constexpr double kDriftBand = 0.6283185307179586;  // two pi times 0.1 Hz

// Seconds from one nanosecond stamp to a later one; a stamp that goes
// backwards gives no time at all.
double seconds(uint64_t from, uint64_t to) {
  if (to <= from) return 0;
  return static_cast<double>(to - from) / 1000.0 / 1000.0 / 1000.0;
}

double yawOf(const Quat& q) {
  double m[3][3];
  q.toMatrix(m);
  return std::atan2(-(m[2][0] - m[0][2]), m[0][0] + m[2][2]);
}

// One orientation integrated along the gyro log, giving one yaw value at a
// time: unwrapped, relative to the first value, with slow drift removed
// unless the direction is locked, and signed.
class YawIntegrator {
 public:
  // driftFactor is the number of values in the drift filter's time
  // constant; 0 or less leaves the drift in.
  YawIntegrator(bool alternate, double driftFactor, bool lockDir)
      : sign_(alternate ? -1.0 : 1.0), driftFactor_(driftFactor), lockDir_(lockDir) {}

  void rotate(const Gyro& rate, double dt) {
    const double wx = rate.x, wy = rate.y, wz = rate.z;
    // A sample without usable rates carries no rotation.
    if (!(dt > 0) || !std::isfinite(wx) || !std::isfinite(wy) || !std::isfinite(wz)) return;
    const double h = dt / 2;
    q_ = q_ * Quat{1, wx * h, wy * h, wz * h};
    q_.normalize();
  }

  void anchor(const TopBottomCorrection& gravity) {
    double g[3] = {static_cast<double>(gravity.x), static_cast<double>(gravity.y), static_cast<double>(gravity.z)};
    const double n = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
    if (!(n > 0)) return;  // no direction to anchor on
    for (double& e : g) e /= n;
    // g x (0, sign, 0) and g . (0, sign, 0)
    const double c0 = -g[2] * sign_, c2 = g[0] * sign_;
    const double cn = std::sqrt(c0 * c0 + c2 * c2);
    const double dot = g[1] * sign_;
    Quat tilt;
    if (cn > 0) {
      const double half = std::acos(std::clamp(dot, -1.0, 1.0)) / 2;
      tilt = Quat{std::cos(half), c0 / cn * std::sin(half), 0, c2 / cn * std::sin(half)};
    } else if (!(dot > 0)) {
      return;  // exactly against the vertical: no axis to turn about, keep the integration
    }
    const double yaw = yawOf(q_);
    q_ = Quat{std::cos(yaw / 2), 0, std::sin(yaw / 2), 0} * tilt;
  }

  double next() {
    const double yaw = yawOf(q_);
    if (first_) {
      first_ = false;
      firstYaw_ = previousYaw_ = yaw;
    }
    const double jump = yaw - previousYaw_;
    if (jump > kWrapJump) {
      offset_ -= kTwoPi;
    } else if (jump < -kWrapJump) {
      offset_ += kTwoPi;
    }
    previousYaw_ = yaw;
    double value = yaw + offset_ - firstYaw_;
    if (!lockDir_ && driftFactor_ > 0) {
      value -= sum_ / driftFactor_;
      sum_ += value;
    }
    return value * sign_;
  }

 private:
  Quat q_;
  double sign_;
  double driftFactor_;
  bool lockDir_;
  bool first_ = true;
  double firstYaw_ = 0, previousYaw_ = 0, offset_ = 0, sum_ = 0;
};

}  // namespace

bool YawStabilizer::init(const SensorLogs& logs, VideoStabilizationMode::MODE mode, int frameRateArg, bool alternate,
                         MetaBuilder::CAMERA_VERSION version) {
  yawTable.clear();
  pending_.reset();
  samplingRate = 30;
  frameRate = 30.0f;
  if (mode == VideoStabilizationMode::DISABLED) return true;

  const GLTK::LargeVector<AccelSensorStreamEmbed::YawCorrection>& corrections = logs.yawCorrections.load();
  if (!corrections.empty()) {
    const bool lockDir = mode == VideoStabilizationMode::LOCK_DIR;
    yawTable.reserve(corrections.size());
    for (const auto& c : corrections) {
      if (alternate) {
        yawTable.push_back(lockDir ? c.lockDirAlternate : c.yawAlternate);
      } else {
        yawTable.push_back(lockDir ? c.lockDir : c.yaw);
      }
    }
    frameRate = static_cast<float>(frameRateArg);
    return true;
  }

  const bool noGyro = logs.gyro.load().empty();
  const bool noGravity = logs.loadRetimed().empty();
  samplingRate = logs.gravity.samplingRate;
  const bool byGravity = logs.stamps.load().empty();
  if (noGyro || noGravity) {
    Console::out(L"No metadata for yaw-stabilizer.\n");
    return false;
  }
  // Without KDTG the integration walks the gravity samples, with no gyro
  // rate for the drift filter; it runs when the table is first used.
  pending_ = Integration{&logs,
                         static_cast<unsigned short>(byGravity ? 0 : logs.gyro.samplingRate),
                         byGravity,
                         mode == VideoStabilizationMode::LOCK_DIR,
                         alternate,
                         version,
                         static_cast<unsigned long>(frameRateArg)};
  frameRate = static_cast<float>(frameRateArg);
  return true;
}

const std::vector<float>& YawStabilizer::table() {
  if (pending_) {
    const Integration run = *pending_;
    pending_.reset();
    const GLTK::LargeVector<Gyro>& gyro = run.logs->gyro.records;
    const GLTK::LargeVector<TopBottomCorrection>& gravity = run.logs->retimed;
    if (run.byGravity) {
      generate_by_kdtd(gyro, run.gyroRate, gravity, run.lockDir, run.alternate, run.version, run.frameRate);
    } else {
      generate(gyro, run.gyroRate, gravity, run.lockDir, run.alternate, run.version, run.frameRate);
    }
  }
  return yawTable;
}

void YawStabilizer::generate(const GLTK::LargeVector<Gyro>& gyro, unsigned short gyroRate,
                             const GLTK::LargeVector<TopBottomCorrection>& gravity, bool lockDir, bool alternate,
                             MetaBuilder::CAMERA_VERSION /*version*/, unsigned long /*frameRate*/) {
  yawTable.clear();
  if (gyro.empty() || gravity.empty()) return;

  // One value per gyro sample. Each sample's rates turn the orientation over
  // the time since the previous sample; every gravity sample reached by then
  // re-anchors it. A gyro rate of 0 leaves the drift in.
  YawIntegrator integrator(alternate, gyroRate / kDriftBand, lockDir);
  std::vector<float> values;
  values.reserve(gyro.size());
  uint64_t now = gyro.front().t;
  size_t g = 0;
  for (const Gyro& sample : gyro) {
    integrator.rotate(sample, seconds(now, sample.t));
    now = std::max(now, sample.t);
    while (g < gravity.size() && sample.t >= gravity[g].t) integrator.anchor(gravity[g++]);
    values.push_back(static_cast<float>(integrator.next()));
  }

  // Resampled onto the gravity samples with a forward-only cursor k; a
  // gravity time before t(k-1) runs the cursor to the end, so it and every
  // later gravity sample take the last value.
  yawTable.reserve(gravity.size());
  size_t k = 0;
  double first = 0;
  for (size_t i = 0; i < gravity.size(); ++i) {
    const uint64_t T = gravity[i].t;
    double value = values.back();
    for (; k < gyro.size(); ++k) {
      if (gyro[k].t <= T) continue;
      if (k == 0) {
        value = values[0];
        break;
      }
      const uint64_t t0 = gyro[k - 1].t, t1 = gyro[k].t;
      if (t0 <= T) {
        value = t0 == t1 ? values[k - 1]
                         : values[k - 1] + (static_cast<double>(values[k]) - values[k - 1]) *
                                               (static_cast<double>(T - t0) / static_cast<double>(t1 - t0));
        break;
      }
    }
    if (i == 0) first = value;
    yawTable.push_back(static_cast<float>(value - first));
  }
}

void YawStabilizer::generate_by_kdtd(const GLTK::LargeVector<Gyro>& gyro, unsigned short /*gyroRate*/,
                                     const GLTK::LargeVector<TopBottomCorrection>& gravity, bool lockDir,
                                     bool alternate, MetaBuilder::CAMERA_VERSION /*version*/,
                                     unsigned long frameRateArg) {
  if (gravity.empty()) return;
  yawTable.clear();
  yawTable.reserve(gravity.size());

  // One value per gravity sample, so the drift filter runs at the gravity
  // rate. Without KDTG the gravity log is paced by the video frames, so when
  // its header carries no rate the frame rate stands in for it.
  const double rate = samplingRate != 0 ? samplingRate : static_cast<double>(frameRateArg);
  YawIntegrator integrator(alternate, rate / kDriftBand, lockDir);
  size_t j = 0;
  bool started = false;
  uint64_t now = 0;  // the time the orientation stands at
  double first = 0;
  for (size_t i = 0; i < gravity.size(); ++i) {
    const uint64_t T = gravity[i].t;
    for (; j < gyro.size() && gyro[j].t <= T; ++j) {
      if (started) integrator.rotate(gyro[j], seconds(now, gyro[j].t));
      now = started ? std::max(now, gyro[j].t) : gyro[j].t;
      started = true;
    }
    // The rest of the way to T turns at the rate of the sample that ends
    // the interval holding T.
    if (started && j < gyro.size() && T > now) {
      integrator.rotate(gyro[j], seconds(now, T));
      now = T;
    }
    integrator.anchor(gravity[i]);
    const double value = integrator.next();
    if (i == 0) first = value;
    yawTable.push_back(static_cast<float>(value - first));
  }
}
