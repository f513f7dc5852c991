// The spherical-video members of a movie's --json object: every element of the XML packet, the sample entry's
// st3d and sv3d boxes, and the projection with the source that gave it.
#include "report/spherical.h"

#include <gtest/gtest.h>

#include <chrono>

#include "report/json_writer.h"
#include "report/meta_reader.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;

std::string members(const MetaReader& reader) {
  JsonWriter out;
  out.beginObject();
  sphericalMembers(out, reader);
  return out.endObject().text();
}

std::string v1Object(const std::string& xml) {
  MetaReader reader;
  reader.spherical = {sphericalElements(xml), true, std::nullopt};
  const std::string text = members(reader);
  return text.substr(15, text.find(",\"sphericalV2\"") - 15);
}

TEST(SphericalV1, EveryLeafElementTypedByItsName) {
  const std::pair<std::string, std::string> cases[] = {
      // Declarations, comments and attributes (with '>' inside quotes) are passed over; a name's first element wins;
      // only the numbers JSON can write are numbers; a closing tag of another element is ignored, so an unclosed
      // element is never reported.
      {"<?xml version=\"1.0\"?><!DOCTYPE x><rdf:Video a='b>c'><!-- <G:Spherical>false</G:Spherical> -->\n"
       "<G:Spherical> TRUE </G:Spherical><G:Stitched>yes</G:Stitched><X:Spherical>false</X:Spherical>"
       "<G:StitchingSoftware>A &amp; B &#233;&#xE9; &bogus; &#0; <![CDATA[<x>]]></G:StitchingSoftware>"
       "<G:SourceCount>12px</G:SourceCount><G:Timestamp>99999999999999999999</G:Timestamp>"
       "<G:InitialCameraDolly>-0.5e1</G:InitialCameraDolly><G:InitialViewRollDegrees>1e999</G:InitialViewRollDegrees>"
       "<G:InitialViewPitchDegrees>nan</G:InitialViewPitchDegrees><G:CroppedAreaTopPixels>0x10</G:CroppedAreaTopPixels>"
       "<G:Custom flag=\"1\"/><G:Note>true</G:Note><G:Outer><G:Inner>1</G:Inner></Wrong></G:Outer><:>x</:><G:Open>x"
       "</rdf:Video>",
       R"({"Spherical":true,"Stitched":"yes","StitchingSoftware":"A & B éé &bogus; &#0; <x>","SourceCount":"12px",)"
       R"("Timestamp":1e+20,"InitialCameraDolly":-5,"InitialViewRollDegrees":"1e999","InitialViewPitchDegrees":"nan",)"
       R"("CroppedAreaTopPixels":"0x10","Custom":"","Note":"true","Inner":"1"})"},
      {"not XML at all", "{}"}};
  for (const auto& [xml, json] : cases) EXPECT_EQ(v1Object(xml), json) << xml;
}

TEST(SphericalV1, CraftedPacketsTakeLinearTime) {
  const auto repeated = [](const std::string& unit, const std::string& then = "") {
    std::string text;
    while (text.size() < (4u << 20)) text += unit;
    return text + then;
  };
  std::string distinct;
  for (int i = 0; distinct.size() < (1u << 20); ++i) distinct += "<e" + std::to_string(i) + "/>";
  // Many references, many elements of one name or of many; deep, unclosed, unterminated, quoted to the end: none.
  std::vector<std::pair<std::string, size_t>> cases = {{"<a>" + repeated("&#x", "</a>"), 1}, {repeated("<a/>"), 1}};
  cases.emplace_back(distinct, 1024);
  for (const char* unit : {"<a>", "<a>x</b>", "<a ", "<!--", "<a x='>"}) cases.emplace_back(repeated(unit), 0);
  for (const auto& [xml, count] : cases) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(sphericalElements(xml).size(), count) << xml.substr(0, 12);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2)) << xml.substr(0, 12);
  }
}

Bytes prhd(double yaw, double pitch, double roll) {
  return Box::full("prhd", 0, 0).fixed(yaw).fixed(pitch).fixed(roll).build();
}

Bytes sv3d(const Bytes& svhd, const Bytes& proj) {
  return Box("sv3d").bytes(svhd).child(Box("proj").bytes(proj)).build();
}

// The payload of a visual sample entry: its 78 bytes of fields, then the given boxes.
std::string entryPayload(const Bytes& boxes) { return std::string(78, '\0') + std::string(boxes.begin(), boxes.end()); }

TEST(SphericalV2, TheSampleEntryBoxesAndTheProjectionTheyGive) {
  const Bytes svhd = Box::full("svhd", 0, 0).str(std::string("Spatial Media\0junk", 18)).build();
  const Bytes equi = Box::full("equi", 0, 0).u32(0x40000000).u32(0x40000000).u32(0x20000000).u32(0x80000000).build();
  const Bytes cbmp = Box::full("cbmp", 0, 0).u32(0).u32(16).build();
  const Bytes st3d = Box::full("st3d", 0, 0).u8(1).build();
  const std::pair<Bytes, std::string> cases[] = {
      {concat({st3d, sv3d(svhd, concat({prhd(90, -45.5, -1.25), equi}))}),
       R"({"stereoMode":"top-bottom","metadataSource":"Spatial Media","projection":"equirectangular","pose":)"
       R"({"yaw":90,"pitch":-45.5,"roll":-1.25},"bounds":{"top":0.25,"bottom":0.25,"left":0.125,"right":0.5},)"
       R"("cubemap":null,"mesh":null},"projection":{"type":"equirectangular","source":"spherical v2"}})"},
      // The first projection data box counts; a text without its NUL runs to the box's end.
      {concat({Box::full("st3d", 0, 0).u8(7).build(),
               sv3d(Box::full("svhd", 0, 0).str("cube").build(), concat({cbmp, equi, prhd(0, 0, 0)}))}),
       R"({"stereoMode":7,"metadataSource":"cube","projection":"cubemap","pose":{"yaw":0,"pitch":0,"roll":0},)"
       R"("bounds":null,"cubemap":{"layout":0,"padding":16},"mesh":null},"projection":{"type":"cubemap",)"
       R"("source":"spherical v2"}})"},
      {sv3d({}, Box::full("mshp", 0, 0).u32(0xDEADBEEF).str("dfl8").zeros(9).build()),
       R"({"stereoMode":null,"metadataSource":null,"projection":"mesh","pose":null,"bounds":null,"cubemap":null,)"
       R"("mesh":{"crc":3735928559,"encoding":"dfl8"}},"projection":{"type":"mesh","source":"spherical v2"}})"},
      // Boxes too short for their fields count as absent; a box past its parent's end ends the walk.
      {concat({Box::full("st3d", 0, 0).build(),
               sv3d(svhd, concat({Box::full("prhd", 0, 0).u32(1).build(), Box::full("equi", 0, 0).zeros(12).build(),
                                  Box("cbmp").rawSize(99).zeros(12).build()}))}),
       R"({"stereoMode":null,"metadataSource":"Spatial Media","projection":null,"pose":null,"bounds":null,)"
       R"("cubemap":null,"mesh":null},"projection":{"type":"unknown","source":null}})"},
      {Box("avcC").zeros(8).build(), R"(null,"projection":{"type":"unknown","source":null}})"}};
  for (const auto& [boxes, json] : cases) {
    MetaReader reader;
    reader.probe.cameraVersion = 1;
    reader.spherical.v2 = parseSphericalV2(entryPayload(boxes));
    EXPECT_EQ(members(reader), R"({"sphericalV1":null,"sphericalV2":)" + json) << toHex(boxes);
  }
  EXPECT_FALSE(parseSphericalV2(entryPayload({})));
  EXPECT_FALSE(parseSphericalV2(std::string(entryPayload(st3d), 0, 78 + 12)));
}

TEST(SphericalVideo, TheProjectionByTheFirstSourceThatNamesOne) {
  const auto cubemap = parseSphericalV2(entryPayload(sv3d({}, Box::full("cbmp", 0, 0).zeros(8).build())));
  // Maker note's projection, V2 boxes, V1 projection type, camera version, width, then the type and source.
  const std::tuple<int32_t, bool, const char*, uint32_t, int32_t, const char*> cases[] = {
      {2, true, "equirectangular", 1, 2, R"({"type":"dual-fisheye","source":"maker note"})"},
      {1, false, "", 1, 2, R"({"type":"equirectangular","source":"maker note"})"},
      {0, true, "equirectangular", 0, 4, R"({"type":"cubemap","source":"spherical v2"})"},
      {0, false, "Equirectangular", 1, 2, R"({"type":"equirectangular","source":"spherical v1"})"},
      {0, false, "fisheye", 0, 4, R"({"type":"equirectangular","source":"frame size"})"},
      {0, false, "fisheye", 0, 3, R"({"type":"unknown","source":null})"},
      {3, false, "", 0, 4, R"({"type":"unknown","source":null})"}};
  for (const auto& [noted, v2, v1, version, width, json] : cases) {
    MetaReader reader;
    std::tie(reader.probe.record.projectionType, reader.probe.cameraVersion) = std::tuple(noted, version);
    std::tie(reader.probe.width, reader.probe.height) = std::tuple(width, 2);
    reader.spherical.v1 = {{"ProjectionType", v1}};
    if (v2) reader.spherical.v2 = cubemap;
    const std::string text = members(reader);
    EXPECT_EQ(text.substr(text.find("\"projection\":{") + 13), std::string(json) + "}") << json;
  }
}

TEST(SphericalVideo, ReadFromTheVideoTrackOfAMovie) {
  const Bytes boxes = concat({Box::full("st3d", 0, 0).u8(2).build(),
                              sv3d(Box::full("svhd", 0, 0).str(std::string("Tool\0", 5)).build(),
                                   concat({prhd(-90, 0, 0), Box::full("equi", 0, 0).zeros(16).build()}))});
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(Box("hvc1").zeros(78).bytes(boxes));
  const Bytes movie = concat({Box("ftyp").str("isom").build(), Box("moov").child(videoTrak(3840, 1920, stsd)).build()});
  TempDir dir;
  CameraBoxes camera;
  camera.sphericalXml = "<G:ProjectionType>cubemap</G:ProjectionType><G:StereoMode>left-right</G:StereoMode>";
  dir.write("v.mp4", injectCameraBoxes(movie, camera));
  MetaReader reader;
  ConsoleCapture capture;
  EXPECT_TRUE(reader.parse(dir.wfile("v.mp4").c_str(), true));
  EXPECT_EQ(members(reader),
            R"({"sphericalV1":{"ProjectionType":"cubemap","StereoMode":"left-right"},"sphericalV2":{"stereoMode":)"
            R"("left-right","metadataSource":"Tool","projection":"equirectangular","pose":{"yaw":-90,"pitch":0,)"
            R"("roll":0},"bounds":{"top":0,"bottom":0,"left":0,"right":0},"cubemap":null,"mesh":null},)"
            R"("projection":{"type":"equirectangular","source":"spherical v2"}})");
}

}  // namespace
