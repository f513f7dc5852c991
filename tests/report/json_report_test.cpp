// The result lines: the fixed head, the tail's conditions and order, and
// the value quoting.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "report/meta_reader.h"
#include "tests/support/files.h"

namespace {

using sondex::test::ConsoleCapture;

// With no frame size, 0 / 2 == 0 makes an unknown camera's movie "equi".
const std::string kEmptyHead =
    "result: {\"status\":\"succeed\", \"hasKDTD\":false, \"type\":\"equi\", \"codec\":\"unknown\", "
    "\"decodable\":false, \"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":0.00, \"videoBitRate\":0}\n";

std::string movieLine(const MetaReader& reader) {
  ConsoleCapture capture;
  reader.dumpToJSON();
  return capture.text();
}

TEST(ToJsonValueL, BlanksQuotesBackslashesControlsAndEveryHighByte) {
  EXPECT_EQ(toJsonValueL("KORVU ZEPRA"), L"\"KORVU ZEPRA\"");
  EXPECT_EQ(toJsonValueL("a\"b\tc\x7f\x01\x1f."), L"\"a b c   .\"");
  EXPECT_EQ(toJsonValueL("caf\xC3\xA9!"), L"\"caf  !\"");
  EXPECT_EQ(toJsonValueL("+040.000\\"), L"\"+040.000\"");
  EXPECT_EQ(toJsonValueL("trail \xC3\xA9 \n"), L"\"trail\"");
  EXPECT_EQ(toJsonValueL(std::string("cut\0here", 8)), L"\"cut\"");
  EXPECT_EQ(toJsonValueL(""), L"\"\"");
}

TEST(DumpToJSON, HeadValues) {
  MetaReader reader;
  reader.probe.codec = 2;
  reader.probe.width = 3840;
  reader.probe.height = 1920;
  reader.probe.duration = 12.345f;
  reader.probe.videoBitRate = 12345678.9f;
  reader.hasSpatialSound = true;
  reader.hasSA3DSound = true;
  reader.sensorLogs.retimed.resize(1);
  const std::string line = movieLine(reader);
  EXPECT_EQ(line.substr(0, line.find(", \"KDTD")),
            "result: {\"status\":\"succeed\", \"hasKDTD\":true, \"type\":\"equi\", \"codec\":\"H265\", "
            "\"decodable\":true, \"hasSpatialSound\":true, \"hasSA3DSound\":true, \"duration\":12.35, "
            "\"videoBitRate\":12345679");
}

TEST(DumpToJSON, ProjectionType) {
  // camera generation, panorama image type, frame height (width 1920)
  const std::tuple<uint32_t, int, int32_t, std::string> cases[] = {
      {0, 0, 960, "equi"},  {0x10001, 0, 960, "unknown"},  {0x10001, 1, 960, "equi"},
      {0x10001, 2, 960, "dualfish"}, {0x10001, 3, 960, "unknown"}, {0, 0, 961, "unknown"}};
  for (const auto& [version, projection, height, type] : cases) {
    MetaReader reader;
    reader.probe.cameraVersion = version;
    reader.probe.record.projectionType = projection;
    reader.probe.width = 1920;
    reader.probe.height = height;
    EXPECT_NE(movieLine(reader).find("\"type\":\"" + type + "\""), std::string::npos) << version << projection;
  }
}

TEST(DumpToJSON, NumbersThatAreNotFiniteOrTooLarge) {
  MetaReader reader;
  EXPECT_EQ(movieLine(reader), kEmptyHead);  // nothing known: the head only
  auto rate = [&](float value) {
    reader.probe.videoBitRate = value;
    const std::string line = movieLine(reader);
    const size_t at = line.find("\"videoBitRate\":") + 15;
    return line.substr(at, line.find('}', at) - at);
  };
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_EQ(rate(inf), "0");
  EXPECT_EQ(rate(nan), "0");
  EXPECT_EQ(rate(4294967296.0f + 8192.0f), "8192");  // modulo 2^32
  EXPECT_EQ(rate(0.99f), "0");                       // truncated, never rounded up
  // A value that is not finite is absent; a duration prints 0.00.
  reader.probe.videoBitRate = 0;
  reader.probe.duration = -inf;
  reader.viewHeading.heading = inf;
  reader.viewHeading.dolly = -nan;
  EXPECT_EQ(movieLine(reader), kEmptyHead);
  reader.probe.duration = nan;
  EXPECT_EQ(movieLine(reader), kEmptyHead);
  reader.stillRecord.pitch = -inf;
  ConsoleCapture capture;
  reader.dumpToJSON_still(false);
  EXPECT_EQ(capture.text(), "result: {\"status\":\"succeed\", \"type\":\"JPEG\"}\n");
}

TEST(DumpToJSON, TailElementsInOrderUnderTheirConditions) {
  MetaReader reader;
  ExifParser::ZEPRA& r = reader.probe.record;
  r.model = "KORVU ZEPRA \"X\"";
  r.software = "1.20";
  r.cpuVersion = "cpu 3  ";
  r.cameraSerial = "00112233";
  r.adjZenith = 1;
  r.stabilize = 3;
  r.stabilizeFlag2 = true;
  r.vQuality = 2;
  reader.locationText = "+35.6586+139.7454/";
  reader.frameWidth = 3840;
  reader.frameHeight = 1920;
  reader.viewHeading.heading = 90;
  reader.viewHeading.pitch = -12.5f;
  reader.viewHeading.fov = 1234567;
  reader.viewHeading.dolly = 0;
  reader.probe.stitchingSoftware = "Stitcher ";
  reader.probe.creatorTool = "Tool";
  reader.probe.codec = 1;
  reader.profileIdc = 66;
  reader.constrainedSet1Flag = true;
  reader.sensorLogs.retimed.resize(2);
  reader.topBottomCorrectionSamplingRate = 30;
  reader.gyroSamplingRate = 200;
  reader.ecompassSamplingRate = 30;
  const std::string line = movieLine(reader);
  EXPECT_EQ(line.substr(line.find("\"videoBitRate\":0") + 16),
            ", \"model\":\"KORVU ZEPRA  X\", \"software\":\"1.20\", \"cpuVersion\":\"cpu 3\", "
            "\"cameraSerial\":\"00112233\", \"gps\":\"+35.6586+139.7454/\", \"frameWidth\":3840, "
            "\"frameHeight\":1920, \"GSpherical:InitialViewHeadingDegrees\":90, "
            "\"GSpherical:InitialViewPitchDegrees\":-12.5, \"GSpherical:InitialHorizontalFOVDegrees\":1.23457e+06, "
            "\"GSpherical:InitialCameraDolly\":0, \"GSpherical:StitchingSoftware\":\"Stitcher\", "
            "\"creatorTool\":\"Tool\", \"topBottomCorrection\":true, \"dxvaDecodable\":true, "
            "\"directionLocked\":true, \"videoStabilization\":3, \"KDTDSamplingRate\":30, \"KDTBSamplingRate\":200, "
            "\"KDTCSamplingRate\":30, \"videoQuality\":\"fine\"}\n");
}

TEST(DumpToJSON, AbsentSettingsAndOtherValues) {
  MetaReader reader;
  reader.probe.codec = 1;
  reader.profileIdc = 66;  // constrained_set1_flag 0
  reader.probe.record.adjZenith = 0;
  reader.probe.record.vQuality = 1;
  reader.gyroSamplingRate = 200;  // gyro without gravity: no rates at all
  const std::string line = movieLine(reader);
  EXPECT_NE(line.find("\"topBottomCorrection\":false, \"dxvaDecodable\":false, \"videoQuality\":\"normal\"}"),
            std::string::npos)
      << line;
  EXPECT_EQ(line.find("directionLocked"), std::string::npos);
  EXPECT_EQ(line.find("SamplingRate"), std::string::npos);
}

}  // namespace
