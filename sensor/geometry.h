// Small vector, matrix and quaternion types for the sensor maths, and the
// float-to-integer conversion the sample arithmetic relies on.
#pragma once

#include <cmath>
#include <cstdint>

namespace GLTK {

struct Vector3 {
  float v[3] = {0, 0, 0};
  float& operator[](int i) { return v[i]; }
  float operator[](int i) const { return v[i]; }
};

// Three rows of three floats, row-major.
struct Matrix3x3 {
  float m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
};

// Truncation toward zero to 32 bits as the processor does it: a value that
// has no 32-bit integer (a non-number, an infinity, anything out of range)
// gives INT32_MIN, whose low 16 bits are 0, instead of undefined behaviour.
inline int32_t truncate_to_int32(double value) {
  if (!(value > -2147483649.0 && value < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(value);
}

}  // namespace GLTK

namespace GLTK2 {

template <class T>
struct Quaternion {
  T w = 1, x = 0, y = 0, z = 0;

  // 3x3 rotation matrix of a unit quaternion, row-major.
  void toMatrix(T (&out)[3][3]) const {
    const T xx = x * x, yy = y * y, zz = z * z;
    const T xy = x * y, xz = x * z, yz = y * z;
    const T wx = w * x, wy = w * y, wz = w * z;
    out[0][0] = 1 - 2 * (yy + zz);
    out[0][1] = 2 * (xy - wz);
    out[0][2] = 2 * (xz + wy);
    out[1][0] = 2 * (xy + wz);
    out[1][1] = 1 - 2 * (xx + zz);
    out[1][2] = 2 * (yz - wx);
    out[2][0] = 2 * (xz - wy);
    out[2][1] = 2 * (yz + wx);
    out[2][2] = 1 - 2 * (xx + yy);
  }

  // Hamilton product: the rotation other followed by this one.
  Quaternion operator*(const Quaternion& o) const {
    return {w * o.w - x * o.x - y * o.y - z * o.z, w * o.x + x * o.w + y * o.z - z * o.y,
            w * o.y - x * o.z + y * o.w + z * o.x, w * o.z + x * o.y - y * o.x + z * o.w};
  }

  // Back to unit length; a quaternion without a usable length stays as it is.
  void normalize() {
    const T n = std::sqrt(w * w + x * x + y * y + z * z);
    if (!(n > 0) || !std::isfinite(n)) return;
    w /= n;
    x /= n;
    y /= n;
    z /= n;
  }
};

}  // namespace GLTK2
