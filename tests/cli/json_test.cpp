// sondex --json: the strict JSON writer, and the objects, statuses and exit codes of the long-option interface.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>

#include "mp4/boxes.h"
#include "report/json_writer.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/tiff_builder.h"

namespace {

using namespace sondex::test;
namespace fs = std::filesystem;

TEST(JsonWriter, EscapesTextsReplacesInvalidBytesAndWritesNumbersExactly) {
  JsonWriter out;
  out.beginObject().member("q\"b\\", "tab\tline\nret\r\x01\x1f\x7f");
  // Valid: 2-, 3- and 4-byte characters. Invalid: a lone continuation byte, a cut sequence, an overlong slash, a
  // surrogate, a value past U+10FFFF.
  out.member("utf8", "\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80|\x80|\xE6\x97|\xC0\xAF|\xED\xA0\x80|\xF4\x90\x80\x80");
  out.key("numbers").beginArray().value(0.1f).value(0.1).value(-0.0f).value(1e21).value(16777217.0);
  out.value(std::numeric_limits<float>::infinity()).value(std::nan("")).value(std::numeric_limits<int64_t>::min());
  out.value(std::numeric_limits<uint64_t>::max()).value(true).null().beginObject().endObject().endArray();
  out.key("empty").beginArray().endArray().endObject();
  const std::string bad = "\xEF\xBF\xBD";
  EXPECT_EQ(
      out.text(),
      "{\"q\\\"b\\\\\":\"tab\\tline\\nret\\r\\u0001\\u001f\\u007f\",\"utf8\":\"\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80|" +
          bad + "|" + bad + bad + "|" + bad + bad + "|" + bad + bad + bad + "|" + bad + bad + bad + bad +
          "\",\"numbers\":[0.1,0.1,-0,1e+21,16777217,null,null,-9223372036854775808,"
          "18446744073709551615,true,null,{}],\"empty\":[]}");
}

struct Answer {
  std::string out, err;
  int status;
};

// Runs sondex in dir with the arguments; standard output and error are kept apart.
Answer sondex(const TempDir& dir, const std::string& arguments) {
  const std::string command = "cd '" + dir.path() + "' && " SONDEX_BINARY " " + arguments;
  const int status = std::system((command + " > out.txt 2> err.txt").c_str());
  return {readText(dir.file("out.txt")), readText(dir.file("err.txt")), WEXITSTATUS(status)};
}

// Each line parses as strict JSON (no NaN or Infinity) and comes back the same from Python's encoder.
bool strictJsonLines(const TempDir& dir, const std::string& text) {
  writeFile(dir.file("lines.json"), Bytes(text.begin(), text.end()));
  return std::system(("python3 -c 'import json, sys\nfor line in open(sys.argv[1], encoding=\"utf-8\"):\n"
                      "  json.loads(line, parse_constant=lambda c: sys.exit(1))' '" +
                      dir.file("lines.json") + "'")
                         .c_str()) == 0;
}

TEST(JsonMode, OneStrictObjectPerFileWithTheReasonOfEachFailure) {
  TempDir dir;
  fs::create_directories(dir.file("tree/a/b"));
  for (const char* name : {"tree/b.mp4", "tree/a/b/b.mp4", "tree/a/z.JPG"}) {
    fs::copy_file(sourcePath(std::string("samples/sample.") + (name[std::strlen(name) - 1] == 'G' ? "jpg" : "mp4")),
                  dir.file(name));
  }
  fs::copy_file(sourcePath("samples/sample.dng"), dir.file("tree/a/r.dng"));
  dir.write("tree/notes.txt", {'x'});
  dir.write("text.mp4", {'h', 'i'});
  dir.write("q\"\n\xC3\xA9.jpg", {});
  dir.write("\xFF.jpg", {});
  dir.write("bad.dng", {'I', 'I', 0, 0});
  dir.write("audio.mp4",
            concat({Box("ftyp").str("isom").build(), Box("moov").child(Box("trak").child(tkhd(0, 0))).build()}));
  dir.write("cut.jpg", {0xFF, 0xD8, 0xFF, 0xE1, 0x00, 0x10});
  // XMP with the pose as attributes and as an element (entities decoded, a value that is no number is null).
  const std::string xmp = std::string("http://ns.adobe.com/xap/1.0/", 29) +
                          "<rdf:Description GPano:ProjectionType='equi&amp;rect' GPano:PoseHeadingDegrees=\"45.5\" "
                          "GPano:PoseRollDegrees=\"1x\"><GPano:PosePitchDegrees> -3 </GPano:PosePitchDegrees>";
  const Bytes jpeg = readFile(sourcePath("samples/sample.jpg"));
  dir.write(
      "pano.jpg",
      concat({{0xFF, 0xD8}, jpegSegment(0xFFE1, Bytes(xmp.begin(), xmp.end())), Bytes(jpeg.begin() + 2, jpeg.end())}));
  // A raw still's packet is IFD0's tag 700.
  const Ifd raw = cameraDngIfd0(previewIfd({0xFF, 0xD9})).bytes(0x02BC, kByte, Bytes(xmp.begin() + 29, xmp.end()));
  dir.write("pano.dng", TiffBuilder().build(raw));
  fs::create_directory(dir.file("dumps"));
  const Answer all = sondex(dir,
                            "--json -r --dumps dumps tree text.mp4 'q\"\n\xC3\xA9.jpg' '\xFF.jpg' bad.dng audio.mp4 "
                            "cut.jpg pano.jpg pano.dng none.mp4");
  EXPECT_EQ(all.status, 1);
  EXPECT_TRUE(strictJsonLines(dir, all.out));
  EXPECT_EQ(all.out, golden("tests/cli/golden/json.txt", all.out));
  EXPECT_NE(all.err.find("H.264 detected.\n"), std::string::npos);  // the reader's messages go to standard error
  // Dump files named after each movie (a second movie of the same name numbered), each as -kdtd: etc. writes them.
  for (const char* name : {"b", "b-2"}) {
    EXPECT_EQ(readText(dir.file(std::string("dumps/") + name + ".gravity.json")),
              readText(sourcePath("tests/cli/golden/sample.kdtd.json")));
    EXPECT_EQ(readText(dir.file(std::string("dumps/") + name + ".compass.json")),
              readText(sourcePath("tests/cli/golden/sample.kdtc.json")));
  }

  const Answer quiet = sondex(dir, "-q --json tree/b.mp4");
  EXPECT_EQ(std::tuple(quiet.status, quiet.err, quiet.out.substr(0, 50)),
            std::tuple(0, "", "{\"path\":\"tree/b.mp4\",\"kind\":\"movie\",\"status\":\"ok\","));
  const std::pair<std::string, int> usage[] = {{"--json", 2},
                                               {"--json -set1 x.mp4", 2},
                                               {"--json --dumps", 2},
                                               {"--json --dumps nowhere x.mp4", 2},
                                               {"-set1 --help", 0}};
  for (const auto& [arguments, status] : usage) {
    const Answer r = sondex(dir, arguments);
    EXPECT_EQ(r.status, status) << arguments;
    EXPECT_EQ(r.out.find("usage: sondex --json"), status == 0 ? 0 : std::string::npos) << arguments;
  }
  EXPECT_EQ(sondex(dir, "--version").out, "sondex 2.8.3\n");
  // A track matrix turning the picture a quarter clockwise reads as ffprobe gives it.
  Bytes movie = readFile(sourcePath("samples/sample.mp4"));
  const size_t matrix = std::string(movie.begin(), movie.end()).find("tkhd") + 4 + 4 + 20 + 16;
  std::ranges::copy(fromHex("00000000 00010000 00000000 FFFF0000 00000000"), movie.begin() + matrix);
  dir.write("turned.mp4", movie);
  EXPECT_NE(sondex(dir, "--json turned.mp4").out.find("\"rotation\":-90,"), std::string::npos);
}

// A sound track whose first sample entry holds the given boxes: 4 channels of 16 bits at 48 kHz.
Box soundTrack(const char* container, const char* entry, const Bytes& children) {
  const Box sound = Box(entry).zeros(6).u16(1).zeros(8).u16(4).u16(16).zeros(4).u32(48000u << 16).bytes(children);
  const Box stbl = Box("stbl").child(Box::full("stsd", 0, 0).u32(1).child(sound));
  return Box(container).child(tkhd(0, 0)).child(Box("mdia").child(mdhd(48000, 48000)).child(Box("minf").child(stbl)));
}

TEST(JsonMode, AudioTracksWithTheirSpatialAudioBoxes) {
  // AAC (an elementary-stream descriptor of object type 0x40) with first-order ambisonics; the camera's PCM
  // track in its uuid box with a box that claims more channels than it holds.
  const Bytes esds = Box::full("esds", 0, 0).bytes(fromHex("03 80 80 19 0001 00 04 11 40")).zeros(20).build();
  const Bytes sa3d = Box("SA3D").u8(0).u8(0).u32(1).u8(0).u8(0).u32(4).u32(0).u32(1).u32(3).u32(2).build();
  const Bytes claims = Box("SA3D").u8(0).u8(0x81).u32(2).u8(1).u8(1).u32(9).u32(7).build();
  const MP4::UUID::Usertype& spatial = MP4::UUID::kSpatialAudio;
  TempDir dir;
  dir.write("audio.mp4", concat({Box("ftyp").str("isom").build(),
                                 Box("moov")
                                     .child(videoTrak(64, 32, Box::full("stsd", 0, 0).u32(0)))
                                     .child(soundTrack("trak", "mp4a", concat({esds, sa3d})))
                                     .build(),
                                 Box("uuid")
                                     .bytes(Bytes(spatial.begin(), spatial.end()))
                                     .child(soundTrack("KATR", "sowt", claims))
                                     .build()}));
  const std::string out = sondex(dir, "--json -q audio.mp4").out;
  EXPECT_NE(out.find("\"hasSpatialSound\":true,"), std::string::npos);
  EXPECT_EQ(out.substr(out.find("\"audio\":"), out.rfind(",\"frameRate\"") - out.find("\"audio\":")),
            "\"audio\":[{\"sampleEntry\":\"mp4a\",\"codec\":\"aac\",\"channels\":4,\"sampleRate\":48000,"
            "\"sampleSize\":16,\"cameraSpatial\":false,\"sa3d\":{\"version\":0,\"headLockedStereo\":false,"
            "\"ambisonicType\":\"periphonic\",\"ambisonicOrder\":1,\"channelOrdering\":\"ACN\",\"normalization\":"
            "\"SN3D\",\"channelMap\":[0,1,3,2]}},{\"sampleEntry\":\"sowt\",\"codec\":\"pcm_s16le\",\"channels\":4,"
            "\"sampleRate\":48000,\"sampleSize\":16,\"cameraSpatial\":true,\"sa3d\":{\"version\":0,"
            "\"headLockedStereo\":true,\"ambisonicType\":1,\"ambisonicOrder\":2,\"channelOrdering\":1,"
            "\"normalization\":\"N3D\",\"channelMap\":[7]}}]");
}

}  // namespace
