// The texts the program writes: result lines, value quoting, sensor dump
// files, and the values read back from the spherical-video XML.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <regex>

#include "report/meta_reader.h"
#include "report/xml_text.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
const float kInf = INFINITY, kNaN = NAN;

std::string movieLine(const MetaReader& reader) {
  ConsoleCapture capture;
  reader.dumpToJSON();
  return capture.text();
}

TEST(ToJsonValueL, BlanksQuotesBackslashesControlsAndEveryHighByte) {
  const std::pair<std::string, std::wstring> cases[] = {
      {"a\"b\tc\x7f\x01\x1f.", L"\"a b c   .\""}, {"caf\xC3\xA9!\\", L"\"caf  !\""}, {"trail \xC3\xA9 \n", L"\"trail\""},
      {std::string("cut\0here", 8), L"\"cut\""},    {"", L"\"\""}};
  for (const auto& [text, json] : cases) EXPECT_EQ(toJsonValueL(text), json) << text;
}

TEST(DumpToJSON, WholeLinesWithTheTailUnderItsConditions) {
  const std::string head = "result: {\"status\":\"succeed\", \"hasKDTD\":";
  MetaReader reader;  // nothing known, or not finite: the head only; 0 / 2 == 0 makes the movie "equi"
  std::tie(reader.probe.duration, reader.probe.videoBitRate, reader.viewHeading.heading) = std::tuple(-kInf, kNaN, kInf);
  EXPECT_EQ(movieLine(reader), head + "false, \"type\":\"equi\", \"codec\":\"unknown\", \"decodable\":false, "
            "\"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":0.00, \"videoBitRate\":0}\n");
  ExifParser::ZEPRA& r = reader.probe.record;
  std::tie(r.model, r.adjZenith, r.stabilize, r.stabilizeFlag2, r.vQuality) = std::tuple("KORVU \"X\" ", 0, 0, false, 1);
  std::tie(reader.viewHeading.fov, reader.viewHeading.dolly, reader.viewHeading.heading) = std::tuple(1234567, 0, kNaN);
  std::tie(reader.probe.codec, reader.profileIdc, reader.probe.width) = std::tuple(1, 66, 4);  // constrained_set1 0
  std::tie(reader.probe.duration, reader.probe.videoBitRate) = std::tuple(12.345f, 4294967296.0f + 8192.0f);
  reader.hasSpatialSound = true;
  reader.sensorLogs.retimed.resize(1);
  std::tie(reader.topBottomCorrectionSamplingRate, reader.gyroSamplingRate, reader.ecompassSamplingRate) =
      std::tuple(30, 200, 29);
  EXPECT_EQ(movieLine(reader), head + "true, \"type\":\"unknown\", \"codec\":\"H264\", \"decodable\":true, "
            "\"hasSpatialSound\":true, \"hasSA3DSound\":false, \"duration\":12.35, \"videoBitRate\":8192, \"model\":"
            "\"KORVU  X\", \"GSpherical:InitialHorizontalFOVDegrees\":1.23457e+06, \"GSpherical:InitialCameraDolly\":0, "
            "\"topBottomCorrection\":false, \"dxvaDecodable\":false, \"directionLocked\":false, \"videoStabilization\":0, "
            "\"KDTDSamplingRate\":30, \"KDTBSamplingRate\":200, \"KDTCSamplingRate\":29, \"videoQuality\":\"normal\"}\n");
  reader.probe.codec = 2;
  EXPECT_NE(movieLine(reader).find("\"codec\":\"H265\""), std::string::npos);
  reader.stillRecord.pitch = -kInf;
  ConsoleCapture capture;
  reader.dumpToJSON_still(false);
  EXPECT_EQ(capture.text(), "result: {\"status\":\"succeed\", \"type\":\"JPEG\"}\n");
}

TEST(DumpToJSON, ProjectionTypeByGenerationImageTypeAndFrameSize) {
  const std::tuple<uint32_t, int, int32_t, std::string> cases[] = {
      {0, 0, 960, "equi"}, {1, 0, 960, "unknown"}, {1, 1, 960, "equi"}, {1, 2, 960, "dualfish"}, {1, 3, 960, "unknown"},
      {0, 0, 961, "unknown"}};
  for (const auto& [version, projection, height, type] : cases) {
    MetaReader reader;
    std::tie(reader.probe.cameraVersion, reader.probe.record.projectionType, reader.probe.height) =
        std::tuple(version, projection, height);
    reader.probe.width = 1920;
    EXPECT_NE(movieLine(reader).find("\"type\":\"" + type + "\""), std::string::npos) << version << projection;
  }
}

TEST(DumpXYZT, OneObjectPerLineInBlocksAndAFailureRemovesTheFile) {
  TempDir dir;
  MetaReader reader;
  GLTK::LargeVector<AccelSensorStreamEmbed::Gyro> samples = {{1e-7f, 9.999995f, kNaN, 0, ~0ULL}};
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), nullptr));
  EXPECT_EQ(readText(dir.file("g.json")), "[{\"x\":1e-07,\"y\":10,\"z\":null,\"timestamp\":18446744073709551615}]\n");
  samples.assign(100000, {1, 2, 3, 0, 9});
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), [](std::ostream& out) { out << ",\"w\":" << 1.5; }));
  const std::string line = "{\"x\":1,\"y\":2,\"z\":3,\"w\":1.5,\"timestamp\":9}", text = readText(dir.file("g.json"));
  EXPECT_EQ(text.size(), 1 + samples.size() * (line.size() + 2));
  EXPECT_EQ(text.substr(text.size() - line.size() - 2), line + "]\n");
  size_t objects = 0;  // the last object fails, when blocks have been written: no half array is left
  const auto failLast = [&](std::ostream&) { if (++objects == samples.size()) throw std::bad_alloc(); };
  EXPECT_THROW(reader.dumpXYZT(samples, dir.wfile("g.json"), failLast), std::bad_alloc);
  EXPECT_FALSE(std::filesystem::exists(dir.file("g.json")));
}

TEST(CaptureElement, AgreesWithTheEcmaScriptRegexAndIsLinear) {
  const std::regex regex("<a:b> *(.+) *</a:b>", std::regex::ECMAScript);
  for (const std::string text : {"x<a:b>  T  </a:b>y</a:b>", "<a:b> </a:b>", "<a:b>  </a:b>", "<a:b></a:b>",
                                 "<a:b>a\n</a:b>", "<a:b>a\r</a:b>", "<a:b><a:b>x</a:b>", "<a:b>\n<a:b>y</a:b>",
                                 "</a:b><a:b>", "<a:b> x\n</a:b><a:b>y </a:b>", "<a:b>   </a:b> </a:b>"}) {
    std::smatch match;
    EXPECT_EQ(captureElement(text, "a:b"), std::regex_search(text, match, regex) ? match[1].str() : "") << text;
  }
  EXPECT_EQ(captureElement(std::string("<a>a\0b</a>", 10), "a"), std::string("a\0b", 3));
  for (const std::string open : {"<a:b>x", "<a:b>x\n"}) {  // opened, never closed: no search runs back
    std::string text;
    for (int i = 0; i < 100000; ++i) text += open;
    text += "<a:b>y</a:b>";
    EXPECT_EQ(captureElement(text, "a:b"), open.ends_with('\n') ? "y" : text.substr(5, text.size() - 11));
  }
}

std::string element(const std::string& indent, const std::string& name, const std::string& value) {
  return indent + "<GSpherical:" + name + ">" + value + "</GSpherical:" + name + ">\n";
}

TEST(ViewHeading, ReadsValuesIndentedByTwoBlanksThatScan) {
  ViewHeading view;
  view.attach(element("  ", "InitialViewHeadingDegrees", "90") + element("  ", "InitialHorizontalFOVDegrees", "75") +
              element("  ", "InitialCameraDolly", "0.25") + element("  ", "Timestamp", "1561000000") +
              element("", "StitchingSoftware", "Stitcher 2.0"));
  EXPECT_EQ(std::tuple(view.heading, view.fov, view.dolly, view.timestamp, view.stitchingSoftware),
            std::tuple(90.0f, 75.0f, 0.25f, 1561000000u, "Stitcher 2.0"));
  EXPECT_TRUE(std::isnan(view.pitch));
  view.attach(element("", "InitialViewHeadingDegrees", "9") + element("    ", "InitialViewPitchDegrees", "7.9") +
              element("  ", "InitialCameraDolly", "near") + "<GSpherical:StitchingSoftware>S");
  EXPECT_TRUE(std::isnan(view.heading) && std::isnan(view.fov) && std::isnan(view.dolly));
  EXPECT_EQ(std::tuple(view.pitch, view.timestamp, view.stitchingSoftware), std::tuple(7.0f, 0u, ""));
}

}  // namespace
