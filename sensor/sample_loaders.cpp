// Loading the camera's sample boxes: the 16-byte sample header with its
// byte-order mark and length checks, the records themselves, and the
// re-timing of the gravity samples onto the KDTG clock.
#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <typeinfo>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "sensor/accel_sensor_stream.h"

// Records are copied from the file as they lie in memory; boxes marked
// 0x0123 are little-endian, like every host this is built for.
static_assert(std::endian::native == std::endian::little, "sample records are taken as little-endian memory");

using GLTK::Console;
using TopBottomCorrection = AccelSensorStreamEmbed::TopBottomCorrection;

namespace {

constexpr uint32_t kHeaderSize = 24;  // box header and sample header, counted from the box start
// The two marks the camera writes. They are deliberately not a value and
// its byte reversal: files in the field carry exactly these two.
constexpr uint16_t kLittleEndianMark = 0x0123;
constexpr uint16_t kBigEndianMark = 0x3210;
// KDTG stamps are taken 4 ms before the KDTD clock they pace.
constexpr uint64_t kKDTGOffset = 4000000;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t* p) { return static_cast<uint32_t>(le16(p)) | static_cast<uint32_t>(le16(p + 2)) << 16; }
uint16_t reversed16(uint16_t v) { return static_cast<uint16_t>(v >> 8 | v << 8); }
uint32_t reversed32(uint32_t v) {
  return static_cast<uint32_t>(reversed16(static_cast<uint16_t>(v))) << 16 | reversed16(static_cast<uint16_t>(v >> 16));
}

// Reads n bytes at the file's position in as few calls as the system needs;
// returns how many arrived.
uint64_t readFully(GLTK::FileIO& file, void* buffer, uint64_t n) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  uint64_t done = 0;
  while (done < n) {
    const uint64_t got = file.read(bytes + done, n - done);
    if (got == 0 || got == ~0ULL) break;
    done += got;
  }
  return done;
}

}  // namespace

template <class T>
std::shared_ptr<const AccelSensorStreamEmbed::SampleLog<T>> AccelSensorStreamEmbed::openLog(
    MP4::Container& movie, const char* code, std::function<void(T&)> swap) {
  const std::string key = std::string("sample log ") + code + " " + typeid(T).name();
  if (const auto& known = movie.derived[key]) {
    auto log = std::static_pointer_cast<const SampleLog<T>>(known);
    Console::write(log->messages_);
    return log;
  }

  auto log = std::make_shared<SampleLog<T>>();
  log->path_ = movie.path;
  log->swap_ = std::move(swap);
  Console::Record printed;
  const std::string path = std::string("moov.udta.") + code;
  MP4::BOX* box = nullptr;
  movie.find(path.c_str(), [&box](MP4::BOX& found) {
    if (box == nullptr) box = &found;
    return false;
  });
  if (box != nullptr) checkHeader(movie, *box, code, *log);
  log->messages_ = printed.text();
  movie.derived[key] = log;
  return log;
}

template <class T>
void AccelSensorStreamEmbed::checkHeader(MP4::Container& movie, const MP4::BOX& box, const char* code,
                                         SampleLog<T>& log) {
  constexpr uint32_t recordSize = sizeof(T);
  const std::wstring name = GLTK::wchar::mbs2wcs(code);
  const uint64_t start = box.start;
  const uint64_t size = box.size;
  // "except" (for "expect") is kept as written: other programs match these lines.
  if (size < kHeaderSize) {
    Console::out(L"%ls: Not enough length. except less than %u, but %u.\n", name.c_str(), kHeaderSize,
                 static_cast<uint32_t>(size));
    return;
  }

  movie.open([&](GLTK::FileIO& file) {
    uint8_t header[16] = {};
    if (!file.seek_set(start + 8)) return;
    readFully(file, header, sizeof header);
    uint32_t entryCount = le32(header);
    uint16_t rate = le16(header + 4);
    uint16_t unitSize = le16(header + 6);
    const uint16_t endian = le16(header + 8);
    if (endian == kBigEndianMark) {
      entryCount = reversed32(entryCount);
      rate = reversed16(rate);
      unitSize = reversed16(unitSize);
    }
    if (unitSize != recordSize || (endian != kLittleEndianMark && endian != kBigEndianMark)) {
      Console::out(L"%ls: Invalid header. unitSize(expect %u, but %u), endian(expect %04X/%04X, but %04X).\n",
                   name.c_str(), recordSize, static_cast<unsigned>(unitSize), static_cast<unsigned>(kBigEndianMark),
                   static_cast<unsigned>(kLittleEndianMark), static_cast<unsigned>(endian));
      return;
    }
    // The length check is made in 32 bits, so a huge count can wrap around
    // and pass; what is read is bounded by the box and the file anyway.
    const uint32_t needed = kHeaderSize + entryCount * recordSize;
    if (size < needed) {
      Console::out(L"%ls: Not enough length. except less than %u+%u*%u(=%u), but %u.\n", name.c_str(), kHeaderSize,
                   static_cast<unsigned>(unitSize), entryCount, needed, static_cast<uint32_t>(size));
      return;
    }
    log.samplingRate = rate;
    // Only whole records inside both the box and the file are kept; stated
    // records that the box or the file cannot back are dropped, not made up.
    const uint64_t first = start + kHeaderSize;
    const uint64_t fileLength = file.length();
    uint64_t count = std::min<uint64_t>(entryCount, (size - kHeaderSize) / recordSize);
    count = std::min<uint64_t>(count, fileLength > first ? (fileLength - first) / recordSize : 0);
    // The timestamp box has no byte-order fix-up, and none is guessed: a
    // big-endian one counts as a box without records.
    log.bigEndian_ = endian == kBigEndianMark;
    if (log.bigEndian_ && !log.swap_ && count > 0) {
      Console::out(L"%ls: byte order %04X not supported, box read as empty.\n", name.c_str(),
                   static_cast<unsigned>(endian));
      count = 0;
    }
    log.first_ = first;
    log.count_ = count;
  });
}

template <class T>
const std::vector<T>& AccelSensorStreamEmbed::SampleLog<T>::records() const {
  if (!records_) {
    std::vector<T> records;
    if (count_ > 0) {
      GLTK::FileIO::open(path_, [&](GLTK::FileIO& file) {
        if (!file.seek_set(first_)) return;
        records.resize(count_);
        records.resize(readFully(file, records.data(), count_ * sizeof(T)) / sizeof(T));
      });
    }
    // A box marked 0x3210 has each record byte-reversed.
    if (bigEndian_) {
      for (T& record : records) swap_(record);
    }
    records_ = std::move(records);
  }
  return *records_;
}

template <class T>
void AccelSensorStreamEmbed::loadGen2_KDTx(MP4::Container& movie, const char* code, std::vector<T>& out,
                                           uint16_t& samplingRate, std::function<void(T&)> swap) {
  const auto log = openLog<T>(movie, code, std::move(swap));
  out = log->records();
  samplingRate = log->samplingRate;
}

template std::shared_ptr<const AccelSensorStreamEmbed::SampleLog<AccelSensorStreamEmbed::Gyro>>
AccelSensorStreamEmbed::openLog(MP4::Container&, const char*, std::function<void(Gyro&)>);
template std::shared_ptr<const AccelSensorStreamEmbed::SampleLog<uint64_t>> AccelSensorStreamEmbed::openLog(
    MP4::Container&, const char*, std::function<void(uint64_t&)>);

template void AccelSensorStreamEmbed::loadGen2_KDTx<AccelSensorStreamEmbed::Gyro>(MP4::Container&, const char*,
                                                                                  std::vector<Gyro>&, uint16_t&,
                                                                                  std::function<void(Gyro&)>);
template void AccelSensorStreamEmbed::loadGen2_KDTx<AccelSensorStreamEmbed::Ecompass>(MP4::Container&, const char*,
                                                                                      std::vector<Ecompass>&, uint16_t&,
                                                                                      std::function<void(Ecompass&)>);
template void AccelSensorStreamEmbed::loadGen2_KDTx<TopBottomCorrection>(MP4::Container&, const char*,
                                                                         std::vector<TopBottomCorrection>&, uint16_t&,
                                                                         std::function<void(TopBottomCorrection&)>);
template void AccelSensorStreamEmbed::loadGen2_KDTx<AccelSensorStreamEmbed::Quaternion>(
    MP4::Container&, const char*, std::vector<Quaternion>&, uint16_t&, std::function<void(Quaternion&)>);
template void AccelSensorStreamEmbed::loadGen2_KDTx<AccelSensorStreamEmbed::YawCorrection>(
    MP4::Container&, const char*, std::vector<YawCorrection>&, uint16_t&, std::function<void(YawCorrection&)>);
template void AccelSensorStreamEmbed::loadGen2_KDTx<uint64_t>(MP4::Container&, const char*, std::vector<uint64_t>&,
                                                              uint16_t&, std::function<void(uint64_t&)>);

void AccelSensorStreamEmbed::loadGen2_KDTB(MP4::Container& movie, std::vector<Gyro>& out, uint16_t& samplingRate) {
  loadGen2_KDTx<Gyro>(movie, "KDTB", out, samplingRate, swap_xyzt<Gyro>);
}

void AccelSensorStreamEmbed::loadGen2_KDTC(MP4::Container& movie, std::vector<Ecompass>& out, uint16_t& samplingRate) {
  loadGen2_KDTx<Ecompass>(movie, "KDTC", out, samplingRate, swap_xyzt<Ecompass>);
}

void AccelSensorStreamEmbed::loadGen2_KDTD(MP4::Container& movie, std::vector<TopBottomCorrection>& out,
                                           uint16_t& samplingRate) {
  loadGen2_KDTx<TopBottomCorrection>(movie, "KDTD", out, samplingRate, swap_xyzt<TopBottomCorrection>);
}

void AccelSensorStreamEmbed::loadGen2_KDTI(MP4::Container& movie, std::vector<YawCorrection>& out,
                                           uint16_t& samplingRate) {
  loadGen2_KDTx<YawCorrection>(movie, "KDTI", out, samplingRate, swap_KDTI<YawCorrection>);
}

void AccelSensorStreamEmbed::loadGen3_KDTG(MP4::Container& movie, std::vector<uint64_t>& out, uint16_t& samplingRate) {
  // No swap routine on purpose: the generation that writes KDTG writes it
  // little-endian only, so a 0x3210 KDTG is read as a box without records.
  loadGen2_KDTx<uint64_t>(movie, "KDTG", out, samplingRate, std::function<void(uint64_t&)>());
}

void AccelSensorStreamEmbed::loadGen1_KDTH(MP4::Container& movie, std::vector<Quaternion>& out,
                                           uint16_t& samplingRate) {
  loadGen2_KDTx<Quaternion>(movie, "KDTH", out, samplingRate, swap_wxyzt<Quaternion>);
}

namespace {

TopBottomCorrection withTime(const TopBottomCorrection& sample, uint64_t t) {
  return {sample.x, sample.y, sample.z, 0, t};
}

// The gravity direction at T between two samples: a turned towards b by the
// share of the angle between them that T has reached, as a unit vector
// scaled to 16384.
TopBottomCorrection between(const TopBottomCorrection& a, const TopBottomCorrection& b, uint64_t T) {
  if (a.t == b.t) return withTime(a, T);
  double va[3] = {static_cast<double>(a.x), static_cast<double>(a.y), static_cast<double>(a.z)};
  double vb[3] = {static_cast<double>(b.x), static_cast<double>(b.y), static_cast<double>(b.z)};
  for (double* v : {va, vb}) {
    const double n = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    for (int i = 0; i < 3; ++i) v[i] /= n;  // a zero vector turns into non-numbers, which end as 0
  }
  const double c[3] = {va[1] * vb[2] - va[2] * vb[1], va[2] * vb[0] - va[0] * vb[2], va[0] * vb[1] - va[1] * vb[0]};
  const double cn = std::sqrt(c[0] * c[0] + c[1] * c[1] + c[2] * c[2]);
  if (cn == 0) return withTime(a, T);
  // Rounding can push the dot product of two unit vectors just past 1.
  const double angle = std::acos(std::clamp(va[0] * vb[0] + va[1] * vb[1] + va[2] * vb[2], -1.0, 1.0));
  const double f = static_cast<double>(T - a.t) / static_cast<double>(b.t - a.t);
  const double half = angle * f / 2;
  const double s = std::sin(half) / cn;
  const GLTK2::Quaternion<double> q{std::cos(half), c[0] * s, c[1] * s, c[2] * s};
  double m[3][3];
  q.toMatrix(m);
  int16_t out[3];
  for (int r = 0; r < 3; ++r) {
    const double v = (m[r][0] * va[0] + m[r][1] * va[1] + m[r][2] * va[2]) * 16384.0 + 0.5;
    out[r] = static_cast<int16_t>(static_cast<uint16_t>(GLTK::truncate_to_int32(v)));
  }
  return {out[0], out[1], out[2], 0, T};
}

// The gravity sample for KDTG time T. The cursor k only moves forward, so a
// time that goes backwards runs it to the end of the list.
TopBottomCorrection sampleAt(const std::vector<TopBottomCorrection>& work, size_t& k, uint64_t T) {
  for (;; ++k) {
    if (k == work.size()) {
      const TopBottomCorrection& last = work.back();
      Console::out(L"KDTD: End of data : use %lld for %lld\n", static_cast<long long>(last.t),
                   static_cast<long long>(T));
      return withTime(last, last.t);
    }
    if (k == 0) {
      if (T <= work[0].t) return withTime(work[0], T);
      continue;
    }
    if (T < work[k].t && T >= work[k - 1].t) return between(work[k - 1], work[k], T);
  }
}

}  // namespace

std::shared_ptr<const AccelSensorStreamEmbed::RetimedGravity> AccelSensorStreamEmbed::retimedGravity(
    MP4::Container& movie) {
  static const std::string kKey = "gravity on KDTG";
  if (const auto& known = movie.derived[kKey]) {
    auto gravity = std::static_pointer_cast<const RetimedGravity>(known);
    Console::write(gravity->messages);
    return gravity;
  }
  auto gravity = std::make_shared<RetimedGravity>();
  Console::Record printed;
  std::vector<uint64_t> stamps;
  uint16_t stampRate = 0;
  loadGen3_KDTG(movie, stamps, stampRate);
  if (stamps.empty()) {
    Console::out(L"KDTD: No KDTG entries.\n");
    loadGen2_KDTD(movie, gravity->samples, gravity->samplingRate);
  } else {
    std::vector<TopBottomCorrection> work;
    loadGen2_KDTD(movie, work, gravity->samplingRate);
    // Without gravity samples there is nothing to put on the KDTG clock.
    if (!work.empty()) {
      gravity->samples.reserve(stamps.size());
      size_t k = 0;
      for (const uint64_t stamp : stamps) gravity->samples.push_back(sampleAt(work, k, stamp + kKDTGOffset));
    }
  }
  gravity->messages = printed.text();
  movie.derived[kKey] = gravity;
  return gravity;
}

void AccelSensorStreamEmbed::loadGen3_KDTD_with_KDTG(MP4::Container& movie, std::vector<TopBottomCorrection>& out,
                                                     uint16_t& samplingRate) {
  const auto gravity = retimedGravity(movie);
  out = gravity->samples;
  samplingRate = gravity->samplingRate;
}

bool AccelSensorStreamEmbed::loadGen2(MP4::Container& movie, int stepDivisor) {
  sensorTable.clear();
  sampleCount = rate = 0;
  scale = bias = gain = 0;
  offsetX = offsetY = offsetZ = 0;
  correction = divisor = step = 0;
  reversed = frontReversed = false;
  positiveSum = negativeSum = frontSum = 0;

  // The logs as opened for this parse of the movie, used in place.
  const auto compassLog = openLog<Ecompass>(movie, "KDTC", swap_xyzt<Ecompass>);
  const std::vector<Ecompass>& compass = compassLog->records();
  const auto corrections = openLog<YawCorrection>(movie, "KDTI", swap_KDTI<YawCorrection>);
  std::shared_ptr<const SampleLog<TopBottomCorrection>> plainGravity;
  std::shared_ptr<const RetimedGravity> retimed;
  if (!corrections->records().empty()) {
    plainGravity = openLog<TopBottomCorrection>(movie, "KDTD", swap_xyzt<TopBottomCorrection>);
  } else {
    retimed = retimedGravity(movie);
  }
  const std::vector<TopBottomCorrection>& gravity = plainGravity ? plainGravity->records() : retimed->samples;
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
