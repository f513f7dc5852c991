// The records of the camera's motion-sensor logs: gyro (KDTB), e-compass
// (KDTC), gravity for top-bottom correction (KDTD), orientation quaternions
// (KDTH) and yaw corrections (KDTI); the KDTG timestamps that pace the
// gravity samples on the third camera generation are plain 64-bit values.
// All six boxes under moov.udta share one layout: a 16-byte header behind
// the box header, then fixed-size records, laid out here as in the file.
// The records are members of AccelSensorStreamEmbed, which analyses them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "sensor/orientation.h"

struct AccelSensorStreamEmbed::Gyro {
  float x, y, z;
  uint32_t reserved;
  uint64_t t;
};
struct AccelSensorStreamEmbed::Ecompass {
  float x, y, z;
  uint32_t reserved;
  uint64_t t;
};
struct AccelSensorStreamEmbed::TopBottomCorrection {
  int16_t x, y, z;
  uint16_t reserved;
  uint64_t t;
};
// KDTH: read by nothing here; kept for the metadata writer, which converts it.
struct AccelSensorStreamEmbed::Quaternion {
  float w, x, y, z;
  uint64_t t;
};
// The camera's own yaw correction: plain stabilisation, direction lock,
// and the same two for the alternate axis sign.
struct AccelSensorStreamEmbed::YawCorrection {
  float yaw, lockDir, yawAlternate, lockDirAlternate;
  uint64_t t;
};

static_assert(sizeof(AccelSensorStreamEmbed::Gyro) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::Ecompass) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::TopBottomCorrection) == 16);
static_assert(sizeof(AccelSensorStreamEmbed::Quaternion) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::YawCorrection) == 24);

// Byte-order fix-ups for boxes marked 0x3210: each value is reversed in
// place; reserved words are left alone.
template <class T>
void AccelSensorStreamEmbed::swap_xyzt(T& record) {
  reverseBytes(record.x);
  reverseBytes(record.y);
  reverseBytes(record.z);
  reverseBytes(record.t);
}
template <class T>
void AccelSensorStreamEmbed::swap_KDTI(T& record) {
  reverseBytes(record.yaw);
  reverseBytes(record.lockDir);
  reverseBytes(record.yawAlternate);
  reverseBytes(record.lockDirAlternate);
  reverseBytes(record.t);
}

template <class V>
void AccelSensorStreamEmbed::reverseBytes(V& value) {
  unsigned char bytes[sizeof(V)];
  std::memcpy(bytes, &value, sizeof(V));
  std::reverse(bytes, bytes + sizeof(V));
  std::memcpy(&value, bytes, sizeof(V));
}
