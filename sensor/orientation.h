// The orientation analysis: from the gravity and compass samples,
// AccelSensorStreamEmbed derives a heading per sample and two whole-clip
// verdicts (camera upside down, front facing backwards). The sample records
// it names are defined in sensor/sample_records.h.
#pragma once

#include <cstdint>
#include <vector>

#include "sensor/geometry.h"

// One entry of the orientation analysis, one per gravity sample.
struct TAccelSensorInfo {
  int16_t axis[3] = {0, 0, 0};  // -x, -z, -y of the gravity sample
  int16_t orientation = 0;      // heading in hundredths of a degree, 0..35999 kept in 16 bits
                                // (read it unsigned: above 32767 it is negative)
  int32_t auxiliary = 0;
};

class SensorLogs;

class AccelSensorStreamEmbed {
 public:
  // The records of the sample boxes and their byte-order fix-ups
  // (sensor/sample_records.h).
  struct Gyro;
  struct Ecompass;
  struct TopBottomCorrection;
  struct Quaternion;
  struct YawCorrection;
  template <class T>
  static void swap_xyzt(T& record);
  template <class T>
  static void swap_KDTI(T& record);

  // Pairs the gravity and compass samples, computes the headings and runs
  // both verdicts (each prints its line). It takes the compass and KDTI logs
  // and, when KDTI has records, the gravity samples as recorded, else those
  // re-timed on KDTG. False, after a three-line message, when either list is
  // empty or the compass list is the shorter.
  bool loadGen2(const SensorLogs& logs, int divisor);

  void calcOrientation(TAccelSensorInfo& entry, const Ecompass& compass);
  // Rotation that carries the direction of a onto b.
  static void tiltMatrix0WithAxis(const GLTK::Vector3& a, const GLTK::Vector3& b, GLTK::Matrix3x3& m);
  // The gravity vector of sample i (clamped to the table).
  GLTK::Vector3 axis(int i) const;
  // The upside-down verdict, then the backwards-front verdict (which needs
  // the first); zero gravity vectors count towards neither.
  void detectReverse();
  void detectReverseFront();

  int32_t sampleCount = 0;
  int32_t rate = 0;
  int32_t scale = 0, bias = 0, gain = 0;
  int32_t offsetX = 0, offsetY = 0, offsetZ = 0;
  int32_t correction = 0;
  int32_t divisor = 0, step = 0;
  std::vector<TAccelSensorInfo> sensorTable;
  bool reversed = false;  // camera upside down
  float positiveSum = 0, negativeSum = 0;
  bool frontReversed = false;  // front facing backwards
  float frontSum = 0;

 private:
  template <class V>
  static void reverseBytes(V& value);
};
