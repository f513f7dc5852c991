// Orientation analysis of the gravity and compass samples: their pairing,
// a compass heading per sample, and whether the camera was held upside down
// or with its front turned backwards over the whole clip. All in 32-bit
// floats.
#include "sensor/orientation.h"

#include <cmath>

#include "gltk/console.h"
#include "sensor/sample_loaders.h"

using GLTK::Console;
using GLTK::Matrix3x3;
using GLTK::Vector3;

namespace {

float length(float x, float y, float z) { return std::sqrt(x * x + y * y + z * z); }

}  // namespace

void AccelSensorStreamEmbed::tiltMatrix0WithAxis(const Vector3& a, const Vector3& b, Matrix3x3& m) {
  // The gravity axes arrive last-to-first relative to b's frame, so a is
  // read in reverse; the headings depend on exactly this order.
  float v[3] = {a[2], a[1], a[0]};
  const float vn = length(v[0], v[1], v[2]);
  if (static_cast<double>(vn) < 0.0001) {
    m = Matrix3x3{};
    return;
  }
  for (float& e : v) e /= vn;
  const float c[3] = {v[1] * b[2] - v[2] * b[1], v[2] * b[0] - v[0] * b[2], v[0] * b[1] - v[1] * b[0]};
  const float cn = length(c[0], c[1], c[2]);
  if (cn < 0.0001f) {
    m = Matrix3x3{};
    return;
  }
  const float k0 = c[0] / cn, k1 = c[1] / cn, k2 = c[2] / cn;
  const float norms = length(b[0], b[1], b[2]) * length(v[0], v[1], v[2]);
  const float cos = (v[0] * b[0] + v[1] * b[1] + v[2] * b[2]) / norms;
  const float sin = cn / norms;
  const float t = 1 - cos;
  m.m[0][0] = k0 * k0 * t + cos;
  m.m[0][1] = k0 * k1 * t - sin * k2;
  m.m[0][2] = k0 * k2 * t + sin * k1;
  m.m[1][0] = k0 * k1 * t + sin * k2;
  m.m[1][1] = k1 * k1 * t + cos;
  m.m[1][2] = k1 * k2 * t - sin * k0;
  m.m[2][0] = k0 * k2 * t - sin * k1;
  m.m[2][1] = k1 * k2 * t + sin * k0;
  m.m[2][2] = k2 * k2 * t + cos;
}

void AccelSensorStreamEmbed::calcOrientation(TAccelSensorInfo& entry, const Ecompass& compass) {
  Matrix3x3 m;
  Vector3 a;
  for (int i = 0; i < 3; ++i) a[i] = static_cast<float>(entry.axis[i]);
  Vector3 b;
  b[1] = -1;
  tiltMatrix0WithAxis(a, b, m);
  const float y = m.m[0][0] * compass.x + m.m[0][1] * compass.y + m.m[0][2] * compass.z;
  const float x = m.m[1][0] * compass.x + m.m[1][1] * compass.y + m.m[1][2] * compass.z;
  const float h = std::atan2(y, x);
  // A y of +0 with x < 0 gives h = +pi; it is taken like y > 0 so that the
  // heading stays within [0, 2 pi) there too.
  const float heading = (y > 0 || (y == 0 && h > 0)) ? 6.2831855f - h : -h;
  // A compass sample without numbers truncates to 0 rather than to garbage.
  entry.orientation =
      static_cast<int16_t>(static_cast<uint16_t>(GLTK::truncate_to_int32(heading * 18000.0f / 3.1415927f)));
}

Vector3 AccelSensorStreamEmbed::axis(int i) const {
  static const Vector3 kZero;
  if (sensorTable.empty()) return kZero;
  const int last = static_cast<int>(sensorTable.size()) - 1;
  i = i < 0 ? 0 : (i > last ? last : i);
  const TAccelSensorInfo& entry = sensorTable.at(static_cast<size_t>(i));
  Vector3 g;
  g[0] = static_cast<float>(entry.axis[0] + offsetX);
  g[1] = static_cast<float>(entry.axis[1] + offsetY);
  g[2] = static_cast<float>(entry.axis[2] + offsetZ);
  if (correction != 0) {
    // The auxiliary value is the sensor temperature; the term is the offset
    // the sensor drifts by at that temperature, added to every axis.
    const int64_t temperature = static_cast<int16_t>(entry.auxiliary & 0xFFFF);
    const int64_t term = ((temperature * scale + bias) / 100 + 25) * gain / 100;
    for (int k = 0; k < 3; ++k) g[k] += static_cast<float>(term);
  }
  return g;
}

void AccelSensorStreamEmbed::detectReverse() {
  positiveSum = negativeSum = 0;
  for (int i = 0; i < static_cast<int>(sensorTable.size()); ++i) {
    const Vector3 g = axis(i);
    const float n = length(g[0], g[1], g[2]);
    const float u0 = g[0] / n, u2 = g[2] / n;
    float r = std::sqrt(u2 * u2 + u0 * u0);
    if (r < 1e-05f) r = 1e-05f;
    // Only samples within 30 degrees of the vertical axis (w > 2) count.
    const float w = 1.0f / r;
    if (w > 2.0f) {
      if (g[1] > 0) {
        positiveSum += w;
      } else if (g[1] < 0) {
        negativeSum += w;
      }
    }
  }
  reversed = negativeSum < positiveSum;
  GLTK::Console::LocaleC localeC;
  Console::out(L"rev-up/down: [P]%f, [N]:%f -> %c\n", static_cast<double>(positiveSum),
               static_cast<double>(negativeSum), reversed ? 'Y' : 'N');
}

void AccelSensorStreamEmbed::detectReverseFront() {
  frontSum = 0;
  const float s = reversed ? -1.0f : 1.0f;
  for (const TAccelSensorInfo& entry : sensorTable) {
    const float n = length(entry.axis[0], entry.axis[1], entry.axis[2]);
    // A zero gravity vector has no direction and adds nothing, as in detectReverse.
    if (n == 0) continue;
    const float a0 = -entry.axis[2] / n, a1 = -entry.axis[1] / n, a2 = -entry.axis[0] / n;
    const float c0 = -s * a2, c2 = s * a0;
    const float cn = std::sqrt(c0 * c0 + c2 * c2);
    if (cn != 0) {
      // First diagonal element of the rotation carrying a onto (0, s, 0).
      const float d = s * a1;
      const float k0 = c0 / cn;
      frontSum += (1 - d) * k0 * k0 + d;
    } else {
      frontSum += 1;
    }
  }
  frontReversed = reversed != (frontSum < 0);
  GLTK::Console::LocaleC localeC;
  Console::out(L"rev-front:   [F]%f -> %c\n", static_cast<double>(frontSum), frontReversed ? 'Y' : 'N');
}

bool AccelSensorStreamEmbed::loadGen2(const SensorLogs& logs, int stepDivisor) {
  sensorTable.clear();
  sampleCount = rate = 0;
  scale = bias = gain = 0;
  offsetX = offsetY = offsetZ = 0;
  correction = divisor = step = 0;
  reversed = frontReversed = false;
  positiveSum = negativeSum = frontSum = 0;

  const GLTK::LargeVector<Ecompass>& compass = logs.compass.load();
  const bool corrected = !logs.yawCorrections.load().empty();
  const GLTK::LargeVector<TopBottomCorrection>& gravity = corrected ? logs.gravity.load() : logs.loadRetimed();
  if (compass.empty() || gravity.empty() || compass.size() < gravity.size()) {
    Console::out(L"KDTC/KDTD is not enough size.\n");
    Console::out(L"  KDTC:   %d\n", static_cast<int>(compass.size()));
    Console::out(L"  KDTD/G: %d\n", static_cast<int>(gravity.size()));
    return false;
  }

  sampleCount = static_cast<int32_t>(gravity.size());
  rate = 100;
  divisor = stepDivisor;
  step = stepDivisor != 0 ? 30 / stepDivisor : 0;  // a zero divisor leaves no step rather than trapping
  sensorTable.reserve(gravity.size());
  for (size_t i = 0; i < gravity.size(); ++i) {
    TAccelSensorInfo entry;
    entry.axis[0] = static_cast<int16_t>(-gravity[i].x);
    entry.axis[1] = static_cast<int16_t>(-gravity[i].z);
    entry.axis[2] = static_cast<int16_t>(-gravity[i].y);
    entry.auxiliary = 20;
    calcOrientation(entry, compass[i]);
    sensorTable.push_back(entry);
  }
  detectReverse();
  detectReverseFront();
  return sensorTable.size() == static_cast<size_t>(sampleCount);
}
