// The sensor dump files.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "report/meta_reader.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
using Gyro = AccelSensorStreamEmbed::Gyro;
using Gravity = AccelSensorStreamEmbed::TopBottomCorrection;

TEST(DumpXYZT, OneObjectPerLineWithoutBlanksAndNullForNonNumbers) {
  TempDir dir;
  MetaReader reader;
  GLTK::LargeVector<Gyro> samples = {{0.5f, -1.25f, 1e-7f, 0, 1000}, {123456789.0f, 0, -0.0f, 0, 18446744073709551615ULL},
                               {std::nanf(""), INFINITY, -INFINITY, 0, 2}};
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), [](std::ostream&) {}));
  EXPECT_EQ(readText(dir.file("g.json")),
            "[{\"x\":0.5,\"y\":-1.25,\"z\":1e-07,\"timestamp\":1000},\n"
            "{\"x\":1.23457e+08,\"y\":0,\"z\":-0,\"timestamp\":18446744073709551615},\n"
            "{\"x\":null,\"y\":null,\"z\":null,\"timestamp\":2}]\n");
  // A long stream, written in many blocks, arrives whole.
  samples.assign(100000, Gyro{1, 2, 3, 0, 9});
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), nullptr));
  const std::string text = readText(dir.file("g.json"));
  const std::string line = "{\"x\":1,\"y\":2,\"z\":3,\"timestamp\":9}";
  EXPECT_EQ(text.size(), 1 + samples.size() * (line.size() + 2));
  EXPECT_EQ(text.substr(text.size() - line.size() - 2), line + "]\n");
}

TEST(DumpXYZT, AFailureWhileWritingRemovesTheFile) {
  TempDir dir;
  MetaReader reader;
  GLTK::LargeVector<Gravity> samples(100000, Gravity{1, 2, 3, 0, 4});
  size_t objects = 0;  // the last one fails, when blocks have been written
  EXPECT_THROW(reader.dumpXYZT(samples, dir.wfile("d.json"),
                               [&](std::ostream&) {
                                 if (++objects == samples.size()) throw std::bad_alloc();
                               }),
               std::bad_alloc);
  EXPECT_FALSE(std::filesystem::exists(dir.file("d.json")));
}

}  // namespace
