// Small vector, matrix and quaternion types for the sensor maths.
#pragma once

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
};

}  // namespace GLTK2
