// The camera's motion-sensor logs: gyro (KDTB), e-compass (KDTC), gravity
// for top-bottom correction (KDTD), the timestamps that pace the gravity
// samples on the third camera generation (KDTG), orientation quaternions
// (KDTH) and yaw corrections (KDTI). All six boxes under moov.udta share
// one layout: a 16-byte header behind the box header, then fixed-size
// records. AccelSensorStreamEmbed loads them and derives, from the gravity
// and compass samples, a heading per sample and two whole-clip verdicts
// (camera upside down, front facing backwards).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mp4/container.h"
#include "sensor/geometry.h"

// One entry of the orientation analysis, one per gravity sample.
struct TAccelSensorInfo {
  int16_t axis[3] = {0, 0, 0};  // -x, -z, -y of the gravity sample
  int16_t orientation = 0;      // heading in hundredths of a degree, 0..35999 kept in 16 bits
                                // (read it unsigned: above 32767 it is negative)
  int32_t auxiliary = 0;
};

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
  static void swap_wxyzt(T& record) {
    reverseBytes(record.w);
    swap_xyzt(record);
  }
  template <class T>
  static void swap_KDTI(T& record) {
    reverseBytes(record.yaw);
    reverseBytes(record.lockDir);
    reverseBytes(record.yawAlternate);
    reverseBytes(record.lockDirAlternate);
    reverseBytes(record.t);
  }

  // A sample box as read for one parse of a movie. Its header is checked
  // when it is opened, and what the check printed is printed again by every
  // later load of the same box; its records are read from the file when
  // first asked for, so a log nothing uses is never read.
  template <class T>
  class SampleLog {
   public:
    uint16_t samplingRate = 0;  // 0 unless the header passed its checks
    // The records the box and the file hold.
    uint64_t size() const { return count_; }
    const std::vector<T>& records() const;

   private:
    friend class AccelSensorStreamEmbed;
    std::string messages_;
    std::wstring path_;
    uint64_t first_ = 0;  // file offset of the first record
    uint64_t count_ = 0;
    bool bigEndian_ = false;
    std::function<void(T&)> swap_;
    mutable std::optional<std::vector<T>> records_;
  };

  // The first "moov.udta.<code>" box as a sample log, opened once per parse
  // of the movie.
  template <class T>
  static std::shared_ptr<const SampleLog<T>> openLog(MP4::Container& movie, const char* code,
                                                     std::function<void(T&)> swap);

  // The gravity samples on the KDTG clock, worked out once per parse of the
  // movie (what it printed is printed again by every later call).
  struct RetimedGravity {
    std::vector<TopBottomCorrection> samples;
    uint16_t samplingRate = 0;
    std::string messages;
  };
  static std::shared_ptr<const RetimedGravity> retimedGravity(MP4::Container& movie);

 private:
  template <class T>
  static void checkHeader(MP4::Container& movie, const MP4::BOX& box, const char* code, SampleLog<T>& log);

 public:

  // The generic loader: the first "moov.udta.<code>" box, checked and read
  // into out. A missing box leaves out empty and samplingRate 0, quietly.
  // A failed check prints one line and leaves out empty. Only records that
  // lie wholly inside both the box and the file are kept, so a count that
  // slips through the 32-bit length check never sizes a buffer beyond the
  // bytes that are really there. A 0x3210 box with records but no swap
  // routine prints one line and loads as a box without records.
  template <class T>
  static void loadGen2_KDTx(MP4::Container& movie, const char* code, std::vector<T>& out, uint16_t& samplingRate,
                            std::function<void(T&)> swap);

  static void loadGen2_KDTB(MP4::Container& movie, std::vector<Gyro>& out, uint16_t& samplingRate);
  static void loadGen2_KDTC(MP4::Container& movie, std::vector<Ecompass>& out, uint16_t& samplingRate);
  static void loadGen2_KDTD(MP4::Container& movie, std::vector<TopBottomCorrection>& out, uint16_t& samplingRate);
  static void loadGen2_KDTI(MP4::Container& movie, std::vector<YawCorrection>& out, uint16_t& samplingRate);
  static void loadGen3_KDTG(MP4::Container& movie, std::vector<uint64_t>& out, uint16_t& samplingRate);
  static void loadGen1_KDTH(MP4::Container& movie, std::vector<Quaternion>& out, uint16_t& samplingRate);
  // Gravity samples re-timed onto the KDTG clock.
  static void loadGen3_KDTD_with_KDTG(MP4::Container& movie, std::vector<TopBottomCorrection>& out,
                                      uint16_t& samplingRate);

  // Pairs the gravity and compass samples, computes the headings and runs
  // both verdicts (each prints its line). False, after a three-line
  // message, when either log is empty or the compass log is the shorter.
  bool loadGen2(MP4::Container& movie, int divisor);

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
