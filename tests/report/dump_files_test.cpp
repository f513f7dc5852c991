// The sensor dump files.
#include <gtest/gtest.h>

#include "report/meta_reader.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
using Gyro = AccelSensorStreamEmbed::Gyro;
using Gravity = AccelSensorStreamEmbed::TopBottomCorrection;

TEST(DumpXYZT, AnEmptyStreamIsALoneBracket) {
  TempDir dir;
  MetaReader reader;
  EXPECT_TRUE(reader.dumpXYZT(std::vector<Gyro>{}, dir.wfile("g.json"), nullptr));
  EXPECT_EQ(readText(dir.file("g.json")), "[");
}

TEST(DumpXYZT, OneObjectPerLineWithoutBlanks) {
  TempDir dir;
  MetaReader reader;
  std::vector<Gyro> samples = {{0.5f, -1.25f, 1e-7f, 0, 1000}, {123456789.0f, 0, -0.0f, 0, 18446744073709551615ULL}};
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), [](std::ostream&) {}));
  EXPECT_EQ(readText(dir.file("g.json")),
            "[{\"x\":0.5,\"y\":-1.25,\"z\":1e-07,\"timestamp\":1000},\n"
            "{\"x\":1.23457e+08,\"y\":0,\"z\":-0,\"timestamp\":18446744073709551615}]\n");
}

TEST(DumpXYZT, GravityCarriesTheYawWhileItLasts) {
  TempDir dir;
  MetaReader reader;
  std::vector<Gravity> samples = {{1, -2, 16384, 0, 5}, {-32768, 0, 0, 0, 6}, {0, 0, 0, 0, 7}};
  const std::vector<float> yaw = {0.0f, 0.125f};
  size_t next = 0;
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("d.json"), [&](std::ostream& out) {
    if (next < yaw.size()) out << ",\"yaw\":" << yaw[next++];
  }));
  EXPECT_EQ(readText(dir.file("d.json")),
            "[{\"x\":1,\"y\":-2,\"z\":16384,\"yaw\":0,\"timestamp\":5},\n"
            "{\"x\":-32768,\"y\":0,\"z\":0,\"yaw\":0.125,\"timestamp\":6},\n"
            "{\"x\":0,\"y\":0,\"z\":0,\"timestamp\":7}]\n");
}

TEST(DumpXYZT, AFileThatCannotBeCreatedFails) {
  TempDir dir;
  MetaReader reader;
  ConsoleCapture capture;
  EXPECT_FALSE(reader.dumpXYZT(std::vector<Gyro>{{1, 2, 3, 0, 4}}, dir.wfile("no/such.json"), nullptr));
  EXPECT_EQ(capture.text(), "open(" + dir.file("no/such.json") + ", 'w') failed.\n");
}

TEST(DumpXYZT, ALongStreamIsWrittenWhole) {
  TempDir dir;
  MetaReader reader;
  std::vector<Gyro> samples(100000, Gyro{1, 2, 3, 0, 9});
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), nullptr));
  const std::string text = readText(dir.file("g.json"));
  const std::string line = "{\"x\":1,\"y\":2,\"z\":3,\"timestamp\":9}";
  EXPECT_EQ(text.size(), 1 + samples.size() * (line.size() + 2));
  EXPECT_EQ(text.substr(text.size() - line.size() - 2), line + "]\n");
}

}  // namespace
