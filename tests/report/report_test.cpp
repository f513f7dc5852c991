// The report layer: result lines, dump files, XML values, stills, movie descriptions.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "exif/exif_parser.h"
#include "report/audio_tracks.h"
#include "report/describer_process.h"
#include "report/meta_reader.h"
#include "report/xml_text.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
using Clock = std::chrono::steady_clock;
const float kInf = INFINITY, kNaN = NAN;

std::string movieLine(const MetaReader& reader) {
  ConsoleCapture capture;
  reader.dumpToJSON();
  return capture.text();
}

TEST(ToJsonValueL, BlanksQuotesBackslashesControlsAndEveryHighByte) {
  const std::pair<std::string, std::wstring> cases[] = {{"a\"b\tc\x7f\x01\x1f.", L"\"a b c   .\""},
                                                        {"caf\xC3\xA9!\\", L"\"caf  !\""},
                                                        {"trail \xC3\xA9 \n", L"\"trail\""},
                                                        {std::string("cut\0here", 8), L"\"cut\""},
                                                        {"", L"\"\""}};
  for (const auto& [text, json] : cases) EXPECT_EQ(toJsonValueL(text), json) << text;
}

TEST(DumpToJSON, WholeLinesWithTheTailUnderItsConditions) {
  const std::string head = "result: {\"status\":\"succeed\", \"hasKDTD\":";
  MetaReader reader;  // nothing known, or not finite: the head only; 0 / 2 == 0 makes the movie "equi"
  std::tie(reader.probe.duration, reader.probe.videoBitRate, reader.viewHeading.heading) =
      std::tuple(-kInf, kNaN, kInf);
  EXPECT_EQ(movieLine(reader),
            head +
                "false, \"type\":\"equi\", \"codec\":\"unknown\", \"decodable\":false, "
                "\"hasSpatialSound\":false, \"hasSA3DSound\":false, \"duration\":0.00, \"videoBitRate\":0}\n");
  for (const auto& [version, projection, type] : {std::tuple(1u, 0, "unknown"), {1u, 1, "equi"}, {0u, 3, "unknown"}}) {
    std::tie(reader.probe.cameraVersion, reader.probe.record.projectionType) = std::tuple(version, projection);
    EXPECT_NE(movieLine(reader).find(std::string("\"type\":\"") + type + "\""), std::string::npos) << type;
  }
  ExifParser::ZEPRA& r = reader.probe.record;
  std::tie(r.model, r.adjZenith, r.stabilize, r.stabilizeFlag2, r.vQuality) =
      std::tuple("KORVU \"X\" ", 0, 0, false, 1);
  std::tie(reader.viewHeading.fov, reader.viewHeading.dolly, reader.viewHeading.heading) = std::tuple(1234567, 0, kNaN);
  std::tie(reader.probe.codec, reader.profileIdc, reader.probe.width) = std::tuple(1, 66, 4);  // constrained_set1 0
  std::tie(reader.probe.duration, reader.probe.videoBitRate) = std::tuple(12.345f, 4294967296.0f + 8192.0f);
  reader.hasSpatialSound = true;
  reader.sensorLogs.retimed.resize(1);
  std::tie(reader.topBottomCorrectionSamplingRate, reader.gyroSamplingRate, reader.ecompassSamplingRate) =
      std::tuple(30, 200, 29);
  EXPECT_EQ(
      movieLine(reader),
      head +
          "true, \"type\":\"unknown\", \"codec\":\"H264\", \"decodable\":true, "
          "\"hasSpatialSound\":true, \"hasSA3DSound\":false, \"duration\":12.35, \"videoBitRate\":8192, \"model\":"
          "\"KORVU  X\", \"GSpherical:InitialHorizontalFOVDegrees\":1.23457e+06, \"GSpherical:InitialCameraDolly\":0, "
          "\"topBottomCorrection\":false, \"dxvaDecodable\":false, \"directionLocked\":false, "
          "\"videoStabilization\":0, "
          "\"KDTDSamplingRate\":30, \"KDTBSamplingRate\":200, \"KDTCSamplingRate\":29, \"videoQuality\":\"normal\"}\n");
}

TEST(DumpXYZT, OneObjectPerLineInBlocksAndAFailureRemovesTheFile) {
  TempDir dir;
  MetaReader reader;
  GLTK::LargeVector<AccelSensorStreamEmbed::Gyro> samples(100000, {1, 2, 3, 0, 9});  // written in many blocks
  EXPECT_TRUE(reader.dumpXYZT(samples, dir.wfile("g.json"), [](std::ostream& out) { out << ",\"w\":" << 1.5; }));
  const std::string line = "{\"x\":1,\"y\":2,\"z\":3,\"w\":1.5,\"timestamp\":9}", text = readText(dir.file("g.json"));
  EXPECT_EQ(text.size(), 1 + samples.size() * (line.size() + 2));
  EXPECT_EQ(text.substr(text.size() - line.size() - 2), line + "]\n");
  size_t objects = 0;  // the last object fails, when blocks have been written: no half array is left
  const auto failLast = [&](std::ostream&) {
    if (++objects == samples.size()) throw std::bad_alloc();
  };
  EXPECT_THROW(reader.dumpXYZT(samples, dir.wfile("g.json"), failLast), std::bad_alloc);
  EXPECT_FALSE(std::filesystem::exists(dir.file("g.json")));
}

TEST(CaptureElement, AgreesWithTheEcmaScriptRegex) {
  const std::regex regex("<a:b> *(.+) *</a:b>", std::regex::ECMAScript);
  for (const std::string text : {"x<a:b>  T  </a:b>y</a:b>", "<a:b> </a:b>", "<a:b>  </a:b>", "<a:b></a:b>",
                                 "<a:b>a\n</a:b>", "<a:b>a\r</a:b>", "<a:b><a:b>x</a:b>", "<a:b>\n<a:b>y</a:b>",
                                 "</a:b><a:b>", "<a:b> x\n</a:b><a:b>y </a:b>", "<a:b>   </a:b> </a:b>"}) {
    std::smatch match;
    EXPECT_EQ(captureElement(text, "a:b"), std::regex_search(text, match, regex) ? match[1].str() : "") << text;
  }
  EXPECT_EQ(captureElement(std::string("<a>a\0b</a>", 10), "a"), std::string("a\0b", 3));
}

TEST(ViewHeading, ReadsValuesIndentedByTwoBlanksThatScan) {
  const auto element = [](const std::string& indent, const std::string& name, const std::string& value) {
    return indent + "<GSpherical:" + name + ">" + value + "</GSpherical:" + name + ">\n";
  };
  ViewHeading view;
  view.attach(element("  ", "InitialViewHeadingDegrees", "90") + element("  ", "InitialHorizontalFOVDegrees", "75") +
              element("  ", "InitialCameraDolly", "0.25") + element("  ", "Timestamp", "1561000000") +
              element("", "StitchingSoftware", "Stitcher 2.0") + element("    ", "InitialViewPitchDegrees", "7.9"));
  EXPECT_EQ(std::tuple(view.heading, view.pitch, view.fov, view.dolly, view.timestamp, view.stitchingSoftware),
            std::tuple(90.0f, 7.0f, 75.0f, 0.25f, 1561000000u, "Stitcher 2.0"));  // "    <" holds "  <"
  view.attach(element("", "InitialViewHeadingDegrees", "9") + element("  ", "InitialCameraDolly", "near") +
              "<GSpherical:StitchingSoftware>S");
  EXPECT_TRUE(std::isnan(view.heading) && std::isnan(view.pitch) && std::isnan(view.fov) && std::isnan(view.dolly));
  EXPECT_EQ(std::tuple(view.timestamp, view.stitchingSoftware), std::tuple(0u, ""));
}

// Copies of the sample stills: read, damaged, cut, emptied or grown to
// 1 GiB without a header (which the DNG reader must not load).
TEST(StillReader, FailuresPrintTheirLineAndLeaveNothingBehind) {
  const std::string samples = sourcePath("samples/");
  TempDir dir;
  Bytes jpeg = readFile(samples + "sample.jpg");
  const std::string jpg = dir.write("s.jpg", jpeg), dng = dir.write("s.dng", readFile(samples + "sample.dng"));
  const std::string far = dir.write("far.jpg", concat({Bytes{0xFF, 0xD8}, jpegSegment(0xFFE2, Bytes(65400, 0)),
                                                       Bytes(jpeg.begin() + 2, jpeg.end())}));  // Exif past 64 KiB
  MetaReader reader;
  const auto parse = [&](const std::string& path, bool ok, bool dump = false) {
    ConsoleCapture console;
    const std::wstring wide = widen(path);
    EXPECT_EQ(path.ends_with("jpg") ? reader.parse_JPEG(wide.c_str(), dump) : reader.parse_DNG(wide.c_str(), dump), ok);
    return console.text();
  };
  EXPECT_EQ(parse(jpg, true), "");
  EXPECT_EQ(parse(far, false), "ExifParser::attachJPEG() for '" + far + "' failed - Invalid position\n");
  EXPECT_EQ(reader.stillRecord.cpuVersion, "");  // a failed still leaves no record behind
  EXPECT_EQ(parse(dir.write("e.jpg", {}), false), "FileIO.read(" + dir.file("e.jpg") + ") failed.\n");
  ExifParser locate;  // the record reads but the dump runs off the buffer: still a success
  locate.attachBytes(jpeg.data(), jpeg.size());
  locate.seekToZEPRA();
  jpeg[locate.zepraPos] = jpeg[locate.zepraPos + 1] = 0xFF;  // product IFD entry count 65535
  dir.write("s.jpg", jpeg);
  EXPECT_TRUE(parse(jpg, true, true).ends_with("for '" + jpg + "' failed - Invalid position\n"));
  EXPECT_NE(reader.stillRecord.cpuVersion, "");

  EXPECT_EQ(parse(dng, true), "");
  std::filesystem::resize_file(dng, 2000);  // cut inside the maker note
  EXPECT_EQ(parse(dng, false), "ExifParser::attachDNG() failed - Invalid position\n");
  std::filesystem::resize_file(dng, 0);
  EXPECT_EQ(parse(dng, false), "FileIO.read(" + dng + ") failed.\n");
  EXPECT_EQ(reader.previewOffset + reader.previewLength + reader.affineTable2Offset, 0u);
  std::filesystem::resize_file(dng, uint64_t{1} << 30);
  EXPECT_EQ(parse(dng, false), "ExifParser::attachDNG() failed - Invalid TIFF-ID(0x002A).\n");
}

// Describes a movie with standard error caught: FFmpeg must never print.
bool describeSilently(const std::string& path, MovieDescription& d) {
  testing::internal::CaptureStderr();
  const bool ok = describeMovie(widen(path), d);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << path;
  return ok;
}

// The default build decodes the codecs the README lists and no others; nor are audio, stills, other containers.
TEST(MovieDescription, DecodableExactlyWhenTheBuildDecodesTheMovie) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
#ifdef SONDEX_FFMPEG_LEAN
  constexpr bool kAll = false;
#else
  constexpr bool kAll = true;
#endif
  TempDir dir;
  const std::string video = "-f lavfi -i testsrc=size=384x192:rate=30000/1001 -t 1 -c:v ";
  const std::tuple<const char*, std::string, bool> cases[] = {{"h264.mp4", video + "libx264", true},
                                                              {"mpeg4.mp4", video + "mpeg4", true},
                                                              {"mpeg2.mp4", video + "mpeg2video", kAll},
                                                              {"audio.mp4", "-f lavfi -i sine -t 1 -c:a aac", false},
                                                              {"still.jpg", video + "mjpeg -frames:v 1", false},
                                                              {"other.mkv", video + "libx264", false}};
  for (const auto& [file, options, decodable] : cases) {
    run("ffmpeg -v error -y " + options + " '" + dir.file(file) + "'");
    MovieDescription d;
    ASSERT_EQ(describeSilently(dir.file(file), d), decodable) << file;
    if (!decodable) continue;
    EXPECT_EQ(std::tuple(d.width, d.height, d.frameRate, std::lround(d.duration * 10)),
              std::tuple(384, 192, 30000.0 / 1001, 10))
        << file;
  }
  MovieDescription d;  // not a movie, and no file
  EXPECT_FALSE(describeSilently(dir.write("bad.mp4", {'h', 'i'}), d) || describeSilently(dir.file("no.mp4"), d));
}

// An "mp4a" entry stating two channels whose elementary-stream descriptor carries the given decoder-specific
// configuration: AAC's AudioSpecificConfig tells the channels, as decoders read them.
TEST(AudioTracks, AacConfigurationGivesTheChannels) {
  const std::tuple<uint8_t, const char*, uint32_t> cases[] = {
      {0x40, "1208", 1},        // LC, 44.1 kHz, mono
      {0x40, "11B8", 8},        // configuration 7: eight channels
      {0x67, "F946C0", 6},      // an escaped object type, six channels
      {0x40, "17805DC020", 4},  // a rate given explicitly, four channels
      {0x40, "1180", 2},        // configuration 0 leaves them to a program config element: the entry's
      {0x40, "12", 2},          // cut short: the entry's
      {0x6B, "1208", 2}};       // not AAC: the entry's
  for (const auto& [objectType, config, channels] : cases) {
    const Bytes asc = fromHex(config);
    const Bytes decoder = ByteWriter().u8(objectType).u8(0x15).zeros(11).u8(5).u8(asc.size()).bytes(asc).data();
    const Bytes es = ByteWriter().u16(1).u8(0).u8(4).u8(decoder.size()).bytes(decoder).data();
    const Bytes esds = Box::full("esds", 0, 0).u8(3).u8(es.size()).bytes(es).build();
    const Bytes entry =
        Box("mp4a").zeros(6).u16(1).zeros(8).u16(2).u16(16).zeros(4).u32(44100u << 16).bytes(esds).build();
    AudioTrack track;
    ASSERT_TRUE(parseSoundEntry("mp4a", std::string(entry.begin() + 8, entry.end()), track)) << config;
    EXPECT_EQ(std::tuple(track.codec, track.channels), std::tuple(objectType == 0x6B ? "mp3" : "aac", channels))
        << config;
  }
}

// "spin" never ends, "die" ends the worker, "fail" fails; others get their length as width.
bool fakeDescribe(const std::wstring& path, MovieDescription& out) {
  for (volatile bool spin = path == L"spin"; spin;) {
  }
  if (path == L"die") _exit(3);
  out.width = static_cast<double>(path.size());
  return path != L"fail";
}

// This process's children (zombies included) and open descriptors.
std::pair<size_t, size_t> childrenAndDescriptors() {
  std::ifstream list("/proc/self/task/" + std::to_string(gettid()) + "/children");
  const std::filesystem::directory_iterator fds("/proc/self/fd");
  return {std::distance(std::istream_iterator<pid_t>(list), {}), std::distance(begin(fds), end(fds))};
}

TEST(DescriberProcess, EndsWorkersThatRunPastTheDeadlineOrDieAndAnswersTheNextAtOnce) {
  const auto before = childrenAndDescriptors();
  {
    DescriberProcess worker(fakeDescribe, 300);
    worker.ask(L"spin");  // dropped untaken: its busy worker ends without a word
    worker.drop();
    const std::tuple<std::wstring, bool, std::string> requests[] = {
        {L"a.mp4", true, ""},
        {L"fail", false, ""},
        {L"spin", false, "movie description of spin took longer than 0.3 s, given up.\n"},
        {L"bc.mp4", true, ""},
        {L"die", false, "movie description of die ended without an answer.\n"},
        {L"def.mp4", true, ""}};
    for (const auto& [path, described, message] : requests) {
      ConsoleCapture capture;
      MovieDescription d;
      const auto start = Clock::now();
      EXPECT_EQ(worker.describe(path, d), described);
      EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
      EXPECT_EQ(d.width, described ? static_cast<double>(path.size()) : -1.0);
      EXPECT_EQ(capture.text(), message);
      EXPECT_EQ(childrenAndDescriptors().first, before.first + (message.empty() ? 1 : 0));  // no zombies
    }
  }
  EXPECT_EQ(childrenAndDescriptors(), before);
}

}  // namespace
