// Reading the sample boxes: both byte orders, the header and length checks
// with their console lines, and boxes whose counts or sizes lie.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>

#include "sensor/sample_loaders.h"
#include "tests/support/movie.h"
#include "tests/support/sensor_boxes.h"

namespace {

using namespace sondex::test;

template <class R, class A>
Bytes bytesOf(const std::vector<R, A>& records) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(records.data());
  return Bytes(bytes, bytes + records.size() * sizeof(R));
}

// The records (as raw bytes) and the rate of a log.
template <class R>
std::pair<Bytes, int> read(const SampleLog<R>& log) {
  return {bytesOf(log.records), log.samplingRate};
}

// The logs of the movie, which reading must not print.
SensorLogs readQuietly(const MP4::Container& movie) {
  ConsoleCapture capture;
  SensorLogs logs = SensorLogs::read(movie);
  EXPECT_EQ(capture.text(), "");
  return logs;
}

TEST(SampleLoaders, BothByteOrdersReadTheSameRecordsForEveryType) {
  const std::vector<Gyro> gyro = {{0.5f, -1.25f, 3e-3f, 0, 1000}, {-7, 0, 1e6f, 0, 0x0102030405060708ULL}};
  const std::vector<Gravity> gravity = {{-16384, 258, 32767, 0, 5}, {1, -2, -32768, 0, ~0ULL}};
  const std::vector<YawCorrection> yaws = {{0.1f, 0.2f, -0.3f, -0.4f, 11}};
  for (const bool big : {false, true}) {
    TempDir dir;
    auto movie = attachBytes(
        dir, sensorMovie({SampleBox("KDTB", big).rate(200).add(gyro).build(), SampleBox("KDTC", big).rate(50).build(),
                          SampleBox("KDTD", big).rate(30).add(gravity).build(),
                          SampleBox("KDTI", big).rate(29).add(yaws).build()}));
    const SensorLogs logs = readQuietly(*movie);
    EXPECT_EQ(read(logs.gyro), (std::pair{bytesOf(gyro), 200}));
    EXPECT_EQ(read(logs.compass), (std::pair{Bytes{}, 50}));
    EXPECT_EQ(read(logs.gravity), (std::pair{bytesOf(gravity), 30}));
    EXPECT_EQ(read(logs.yawCorrections), (std::pair{bytesOf(yaws), 29}));
    EXPECT_EQ(read(logs.stamps), (std::pair{Bytes{}, 0}));  // missing: quietly empty
    EXPECT_EQ(bytesOf(logs.retimed), bytesOf(gravity));     // no KDTG: as recorded
  }
}

TEST(SampleLoaders, BadHeadersPrintTheirLineAndLoadNothing) {
  const std::pair<Bytes, std::string> cases[] = {
      {Box("KDTD").zeros(15).build(), "KDTD: Not enough length. except less than 24, but 23.\n"},
      {SampleBox("KDTD").unitSize(24).add(Gravity{}).build(),
       "KDTD: Invalid header. unitSize(expect 16, but 24), endian(expect 3210/0123, but 0123).\n"},
      {SampleBox("KDTD", kBigEndian).unitSize(24).build(),  // swapped before the check
       "KDTD: Invalid header. unitSize(expect 16, but 24), endian(expect 3210/0123, but 3210).\n"},
      {SampleBox("KDTD").mark(0x2301).add(Gravity{}).build(),
       "KDTD: Invalid header. unitSize(expect 16, but 16), endian(expect 3210/0123, but 2301).\n"},
      {SampleBox("KDTD").count(3).add(Gravity{}).build(),
       "KDTD: Not enough length. except less than 24+16*3(=72), but 40.\n"},
  };
  for (const auto& [box, line] : cases) {
    TempDir dir;
    auto movie = attachBytes(dir, sensorMovie({box}));
    const SensorLogs logs = readQuietly(*movie);
    ConsoleCapture capture;
    EXPECT_TRUE(logs.gravity.load().empty());
    EXPECT_EQ(capture.text(), line);
    EXPECT_EQ(logs.gravity.samplingRate, 0);
  }
}

TEST(SampleLoaders, UntrustedCountsAndCutBoxesReadOnlyWhatIsThere) {
  TempDir dir;
  // 24 + 0xFFFFFFFF * 24 wraps to 0 and 24 + 0x10000001 * 16 to 40, so both
  // pass the check; the boxes really hold no gyro record and one gravity one.
  // KDTC claims ten records but the file ends inside its third.
  SampleBox kdtc("KDTC");
  for (int i = 0; i < 10; ++i) kdtc.add(Ecompass{float(i), 0, 0, 0, 0});
  Bytes file = sensorMovie({SampleBox("KDTB").count(0xFFFFFFFF).zeros(16).build(),
                            SampleBox("KDTD").count(0x10000001).add(Gravity{1, 2, 3, 0, 4}).build(), kdtc.build()});
  file.resize(file.size() - 7 * 24 - 5);
  auto movie = attachBytes(dir, file);
  const SensorLogs logs = readQuietly(*movie);
  const auto& gravity = logs.gravity.records;
  const auto& compass = logs.compass.records;
  EXPECT_TRUE(logs.gyro.complaint.empty() && logs.gravity.complaint.empty() && logs.compass.complaint.empty());
  EXPECT_TRUE(logs.gyro.records.empty());
  ASSERT_EQ(gravity.size(), 1u);
  EXPECT_EQ(gravity[0].z, 3);
  ASSERT_EQ(compass.size(), 2u);
  EXPECT_EQ(compass[1].x, 1.0f);
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024);  // kilobytes
}

}  // namespace
