// Reading the camera's sample boxes: the 16-byte sample header with its
// byte-order mark and length checks, the records themselves, and the
// re-timing of the gravity samples onto the KDTG clock.
#include "sensor/sample_loaders.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdarg>
#include <cwchar>
#include <string>

#include "gltk/byte_order.h"
#include "gltk/console.h"
#include "gltk/wchar.h"

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

// The line of a refused box, formatted as the console would print it.
std::wstring complaintLine(const wchar_t* format, ...) {
  wchar_t text[256];
  va_list args;
  va_start(args, format);
  const int n = std::vswprintf(text, sizeof text / sizeof text[0], format, args);
  va_end(args);
  return n > 0 ? std::wstring(text, static_cast<size_t>(n)) : std::wstring();
}

// The first "moov.udta.<code>" box, checked and read from the open file. A
// missing box leaves the log empty with rate 0. A box with records marked
// 0x3210 needs a swap routine: without one (the timestamp box, which its
// camera generation writes little-endian only) none is guessed and the box
// counts as one without records.
template <class T>
SampleLog<T> readLog(const MP4::Container& movie, GLTK::FileIO& file, const char* code, void (*swap)(T&)) {
  SampleLog<T> log;
  const MP4::BOX* box = nullptr;
  const std::string path = std::string("moov.udta.") + code;
  movie.find(path.c_str(), [&box](MP4::BOX& found) {
    box = &found;
    return false;
  });
  if (box == nullptr) return log;

  constexpr uint32_t recordSize = sizeof(T);
  const std::wstring name = GLTK::wchar::mbs2wcs(code);
  const uint64_t start = box->start;
  const uint64_t size = box->size;
  // "except" (for "expect") is kept as written: other programs match these lines.
  if (size < kHeaderSize) {
    log.complaint = complaintLine(L"%ls: Not enough length. except less than %u, but %u.\n", name.c_str(), kHeaderSize,
                                  static_cast<uint32_t>(size));
    return log;
  }
  uint8_t header[16] = {};
  if (!file.seek_set(start + 8)) return log;
  readFully(file, header, sizeof header);
  // The mark is read little-endian; the big-endian mark turns the order of
  // the other header fields.
  const uint16_t endian = GLTK::loadLE16(header + 8);
  const bool big = endian == kBigEndianMark;
  const uint32_t entryCount = big ? GLTK::loadBE32(header) : GLTK::loadLE32(header);
  const uint16_t rate = big ? GLTK::loadBE16(header + 4) : GLTK::loadLE16(header + 4);
  const uint16_t unitSize = big ? GLTK::loadBE16(header + 6) : GLTK::loadLE16(header + 6);
  if (unitSize != recordSize || (endian != kLittleEndianMark && endian != kBigEndianMark)) {
    log.complaint =
        complaintLine(L"%ls: Invalid header. unitSize(expect %u, but %u), endian(expect %04X/%04X, but %04X).\n",
                      name.c_str(), recordSize, static_cast<unsigned>(unitSize), static_cast<unsigned>(kBigEndianMark),
                      static_cast<unsigned>(kLittleEndianMark), static_cast<unsigned>(endian));
    return log;
  }
  // The length check is made in 32 bits, so a huge count can wrap around
  // and pass; what is read is bounded by the box and the file anyway.
  const uint32_t needed = kHeaderSize + entryCount * recordSize;
  if (size < needed) {
    log.complaint =
        complaintLine(L"%ls: Not enough length. except less than %u+%u*%u(=%u), but %u.\n", name.c_str(), kHeaderSize,
                      static_cast<unsigned>(unitSize), entryCount, needed, static_cast<uint32_t>(size));
    return log;
  }
  log.samplingRate = rate;
  // Only whole records inside both the box and the file are kept; stated
  // records that the box or the file cannot back are dropped, not made up.
  const uint64_t first = start + kHeaderSize;
  const uint64_t fileLength = file.length();
  uint64_t count = std::min<uint64_t>(entryCount, (size - kHeaderSize) / recordSize);
  count = std::min<uint64_t>(count, fileLength > first ? (fileLength - first) / recordSize : 0);
  const bool bigEndian = endian == kBigEndianMark;
  if (bigEndian && swap == nullptr && count > 0) {
    log.complaint = complaintLine(L"%ls: byte order %04X not supported, box read as empty.\n", name.c_str(),
                                  static_cast<unsigned>(endian));
    return log;
  }
  if (count == 0 || !file.seek_set(first)) return log;
  log.records.resize(count);
  log.records.resize(readFully(file, log.records.data(), count * recordSize) / recordSize);
  if (bigEndian) {
    for (T& record : log.records) swap(record);
  }
  return log;
}

}  // namespace

template <class T>
const GLTK::LargeVector<T>& SampleLog<T>::load() const {
  if (!complaint.empty()) Console::out(L"%ls", complaint.c_str());
  return records;
}

template struct SampleLog<AccelSensorStreamEmbed::Gyro>;
template struct SampleLog<AccelSensorStreamEmbed::Ecompass>;
template struct SampleLog<TopBottomCorrection>;
template struct SampleLog<uint64_t>;
template struct SampleLog<AccelSensorStreamEmbed::YawCorrection>;

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
// time that goes backwards runs it to the end of the list, where the last
// sample stands whole (with its own time) for T and every later time.
TopBottomCorrection sampleAt(const GLTK::LargeVector<TopBottomCorrection>& work, size_t& k, uint64_t T) {
  for (;; ++k) {
    if (k == work.size()) return work.back();
    if (k == 0) {
      if (T <= work[0].t) return withTime(work[0], T);
      continue;
    }
    if (T < work[k].t && T >= work[k - 1].t) return between(work[k - 1], work[k], T);
  }
}

}  // namespace

SensorLogs SensorLogs::read(const MP4::Container& movie) {
  SensorLogs logs;
  movie.open([&](GLTK::FileIO& file) {
    using S = AccelSensorStreamEmbed;
    logs.gyro = readLog<S::Gyro>(movie, file, "KDTB", S::swap_xyzt<S::Gyro>);
    logs.compass = readLog<S::Ecompass>(movie, file, "KDTC", S::swap_xyzt<S::Ecompass>);
    logs.gravity = readLog<Gravity>(movie, file, "KDTD", S::swap_xyzt<Gravity>);
    logs.stamps = readLog<uint64_t>(movie, file, "KDTG", nullptr);
    logs.yawCorrections = readLog<S::YawCorrection>(movie, file, "KDTI", S::swap_KDTI<S::YawCorrection>);
  });

  const GLTK::LargeVector<Gravity>& work = logs.gravity.records;
  const GLTK::LargeVector<uint64_t>& stamps = logs.stamps.records;
  logs.pastTheEnd_ = stamps.size();
  if (stamps.empty()) {
    logs.retimed = work;
  } else if (!work.empty()) {  // without gravity samples there is nothing to put on the KDTG clock
    logs.retimed.reserve(stamps.size());
    size_t k = 0;
    for (size_t i = 0; i < stamps.size(); ++i) {
      logs.retimed.push_back(sampleAt(work, k, stamps[i] + kKDTGOffset));
      if (k == work.size() && logs.pastTheEnd_ == stamps.size()) logs.pastTheEnd_ = i;
    }
  }
  return logs;
}

const GLTK::LargeVector<TopBottomCorrection>& SensorLogs::loadRetimed() const {
  const GLTK::LargeVector<uint64_t>& times = stamps.load();
  if (times.empty()) Console::out(L"KDTD: No KDTG entries.\n");
  gravity.load();
  for (size_t i = pastTheEnd_; i < times.size() && !gravity.records.empty(); ++i) {
    Console::out(L"KDTD: End of data : use %lld for %lld\n", static_cast<long long>(gravity.records.back().t),
                 static_cast<long long>(times[i] + kKDTGOffset));
  }
  return retimed;
}
