// The camera's motion-sensor logs: gyro (KDTB), e-compass (KDTC), gravity
// for top-bottom correction (KDTD), the timestamps that pace the gravity
// samples on the third camera generation (KDTG), orientation quaternions
// (KDTH) and yaw corrections (KDTI). All six boxes under moov.udta share
// one layout: a 16-byte header behind the box header, then fixed-size
// records. SensorLogs reads them; AccelSensorStreamEmbed derives, from the
// gravity and compass samples, a heading per sample and two whole-clip
// verdicts (camera upside down, front facing backwards).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "gltk/large_vector.h"
#include "mp4/container.h"
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
  struct Gyro {
    float x, y, z;
    uint32_t reserved;
    uint64_t t;
  };
  struct Ecompass {
    float x, y, z;
    uint32_t reserved;
    uint64_t t;
  };
  struct TopBottomCorrection {
    int16_t x, y, z;
    uint16_t reserved;
    uint64_t t;
  };
  // KDTH: read by nothing here; kept for the metadata writer, which converts it.
  struct Quaternion {
    float w, x, y, z;
    uint64_t t;
  };
  // The camera's own yaw correction: plain stabilisation, direction lock,
  // and the same two for the alternate axis sign.
  struct YawCorrection {
    float yaw, lockDir, yawAlternate, lockDirAlternate;
    uint64_t t;
  };

  // Byte-order fix-ups for boxes marked 0x3210: each value is reversed in
  // place; reserved words are left alone.
  template <class T>
  static void swap_xyzt(T& record) {
    reverseBytes(record.x);
    reverseBytes(record.y);
    reverseBytes(record.z);
    reverseBytes(record.t);
  }
  template <class T>
  static void swap_KDTI(T& record) {
    reverseBytes(record.yaw);
    reverseBytes(record.lockDir);
    reverseBytes(record.yawAlternate);
    reverseBytes(record.lockDirAlternate);
    reverseBytes(record.t);
  }

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
  static void reverseBytes(V& value) {
    unsigned char bytes[sizeof(V)];
    std::memcpy(bytes, &value, sizeof(V));
    std::reverse(bytes, bytes + sizeof(V));
    std::memcpy(&value, bytes, sizeof(V));
  }
};

static_assert(sizeof(AccelSensorStreamEmbed::Gyro) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::Ecompass) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::TopBottomCorrection) == 16);
static_assert(sizeof(AccelSensorStreamEmbed::Quaternion) == 24);
static_assert(sizeof(AccelSensorStreamEmbed::YawCorrection) == 24);

// One sample box of a movie as it was read.
template <class T>
struct SampleLog {
  GLTK::LargeVector<T> records;
  uint16_t samplingRate = 0;  // the header's rate; 0 when the box is missing or refused
  // The line the box's check gave when the box was refused or could not be
  // read as stated; empty for a sound or missing box.
  std::wstring complaint;

  // The records for one step of the reading. Each step that takes a log
  // prints its complaint first, so a damaged box is named wherever it
  // leaves a step without samples.
  const GLTK::LargeVector<T>& load() const;
};

// The camera's sensor logs of one movie, read once: the orientation
// analysis, the yaw table and the dump files all take theirs from here.
class SensorLogs {
 public:
  using Gravity = AccelSensorStreamEmbed::TopBottomCorrection;

  // Reads the five boxes under moov.udta and re-times the gravity samples
  // onto the KDTG clock. Only records that lie wholly inside both the box
  // and the file are read, so a count that slips through the 32-bit length
  // check never sizes a buffer beyond the bytes that are really there.
  // Prints nothing (but a failure to open the file).
  static SensorLogs read(const MP4::Container& movie);

  // The re-timed gravity samples for one step of the reading, after the
  // lines re-timing gives: the complaints of KDTG and KDTD, "No KDTG
  // entries" when there are no stamps, and one line per stamp past the last
  // gravity sample.
  const GLTK::LargeVector<Gravity>& loadRetimed() const;

  SampleLog<AccelSensorStreamEmbed::Gyro> gyro;                     // KDTB
  SampleLog<AccelSensorStreamEmbed::Ecompass> compass;              // KDTC
  SampleLog<Gravity> gravity;                                       // KDTD as recorded
  SampleLog<uint64_t> stamps;                                       // KDTG
  SampleLog<AccelSensorStreamEmbed::YawCorrection> yawCorrections;  // KDTI
  // The gravity samples on the KDTG clock: one per stamp (none without
  // gravity samples), or the recorded ones when there are no stamps.
  GLTK::LargeVector<Gravity> retimed;

 private:
  size_t pastTheEnd_ = 0;  // the first stamp that lies beyond the last gravity sample
};
