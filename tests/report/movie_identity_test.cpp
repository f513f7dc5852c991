// Location, identity, creation time and fragmented duration of a movie, as its --json object gives them.
#include <gtest/gtest.h>

#include <cmath>

#include "report/json_writer.h"
#include "report/meta_reader.h"
#include "report/movie_identity.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;

// The members identityMembers writes for the movie, in an object of their own.
std::string identityJson(const Bytes& movie) {
  TempDir dir;
  dir.write("movie.mp4", movie);
  MetaReader reader;
  ConsoleCapture quiet;
  reader.parse(dir.wfile("movie.mp4").c_str(), true);
  JsonWriter out;
  out.beginObject();
  identityMembers(out, reader);
  return out.endObject().text();
}

// A movie box with a 2-second video track (time scale 30000, track 1) and the given further children.
Bytes movie(const Bytes& moovChildren, const Bytes& after = {}, uint32_t creation = 0) {
  const Box moov = Box("moov").child(mvhd(1000, 0, creation)).child(videoTrak(64, 32, Box::full("stsd", 0, 0).u32(0)));
  return concat({Box("ftyp").str("isom").build(), Box(moov).bytes(moovChildren).build(), after});
}

Box qtText(const char* type, uint16_t length, const std::string& text) {
  return Box(type).u16(length).u16(0x55C4).str(text);
}
Box traf(uint32_t track, uint32_t flags, std::initializer_list<uint32_t> tfhdFields, const Bytes& rest) {
  Box tfhd = Box::full("tfhd", 0, flags).u32(track);
  for (const uint32_t field : tfhdFields) tfhd.u32(field);
  return Box("traf").child(tfhd).bytes(rest);
}

TEST(MovieIdentity, Iso6709TextsInTheirThreeFormsAndWhatIsNotOne) {
  // A latitude of NaN: not a point.
  const struct Case {
    const char* text;
    double latitude, longitude, altitude;
  } cases[] = {{"+35.6586+139.7454+040.000/", 35.6586, 139.7454, 40},
               {"+3545.5-13930.25/", 35.758333333333333, -139.50416666666666, NAN},
               {"-354530+1393015.6-12.5CRSWGS_84/", -35.758333333333333, 139.50433333333334, -12.5},
               {"+1+2", 1, 2, NAN},
               {"+91.0+000.0/", NAN, 0, 0},
               {"+3560+13900/", NAN, 0, 0},
               {"+123+000/", NAN, 0, 0},
               {"+35.5/", NAN, 0, 0},
               {"35.5+139.5/", NAN, 0, 0},
               {"", NAN, 0, 0}};
  for (const Case& c : cases) {
    GeoPoint point;
    ASSERT_EQ(parseIso6709(c.text, point), !std::isnan(c.latitude)) << c.text;
    if (std::isnan(c.latitude)) continue;
    EXPECT_DOUBLE_EQ(point.latitude, c.latitude) << c.text;
    EXPECT_DOUBLE_EQ(point.longitude, c.longitude) << c.text;
    EXPECT_TRUE(std::isnan(c.altitude) ? std::isnan(point.altitude) : point.altitude == c.altitude) << c.text;
  }
}

const std::string kNothing =
    "{\"location\":{\"camera\":null,\"quicktime\":null,\"latitude\":null,\"longitude\":null,\"altitude\":null,"
    "\"loci\":null},\"identity\":{\"cameraModel\":null,\"quicktimeModel\":null,\"xmpCreatorTool\":null,"
    "\"creatorTool\":null},\"creationTime\":null,\"fragmented\":";

TEST(MovieIdentity, StandardBoxesBesideTheCamerasOwnDamagedOnesAndFragmentDurations) {
  const Bytes xmp = Box("uuid")
                        .bytes(xmpUsertype())
                        .str("<rdf:Description xmp:CreatorTool=\"A &amp; B\">\n<x:CreatorTool>Proto</x:CreatorTool>")
                        .build();
  // A UTF-16 name with a surrogate pair and a lone low surrogate; role "real".
  const Box utf16Loci = Box::full("loci", 0, 0).u16(0x15C7).bytes({0xFE, 0xFF, 0, 'T', 0x01, 0x4D, 0xD8, 0x3D, 0xDE});
  const Bytes loci =
      Box(utf16Loci).bytes({0, 0xDC, 0, 0, 0, 1}).fixed(-139.5).fixed(35.25).fixed(12.5).str("earth").u16(0).build();
  const Bytes fragmentsAt2 =
      Box("moof")
          .child(traf(1, 8, {500},
                      concat({Box::full("tfdt", 1, 0).u64(30000).build(),
                              Box::full("trun", 0, 0x101).u32(~0u).u32(0).u32(100).u32(200).u32(300).build()})))
          .child(traf(2, 8, {50},
                      concat({Box::full("tfdt", 0, 0).u32(999999).build(), Box::full("trun", 0, 0).u32(1000).build()})))
          .build();
  const Bytes trex750 = Box::full("trex", 0, 0).u32(1).u32(1).u32(750).u32(0).u32(0).build();
  const std::pair<Bytes, std::string> cases[] = {
      {movie(Box("udta")
                 .child(Box("@mod").str("ZEPRA LM4 "))
                 .child(qtText("\xA9mod", 3, "Camera"))
                 .child(qtText("\xA9xyz", 25, "+3545.000-13930.000+40.5/"))
                 .bytes(loci)
                 .build(),
             xmp, 3797824089u),
       "{\"location\":{\"camera\":null,\"quicktime\":\"+3545.000-13930.000+40.5/\",\"latitude\":35.75,\"longitude\":"
       "-139.5,\"altitude\":40.5,\"loci\":{\"name\":\"T\xC5\x8D\xF0\x9F\x98\x80\xEF\xBF\xBD\",\"role\":\"real\","
       "\"longitude\":-139.5,\"latitude\":35.25,\"altitude\":12.5}},\"identity\":{\"cameraModel\":\"ZEPRA LM4\","
       "\"quicktimeModel\":\"Cam\",\"xmpCreatorTool\":\"A & B\",\"creatorTool\":\"Proto\"},\"creationTime\":"
       "\"2024-05-06T07:08:09.000000Z\",\"fragmented\":null}"},
      // A cut text box, a text longer than its box and a name without its end; a time counted from 1970.
      {movie(Box("udta")
                 .child(Box("\xA9xyz").u16(5))
                 .child(qtText("\xA9mod", 0xFFFF, "Long"))
                 .child(Box::full("loci", 0, 0).u16(0).str("Paris"))
                 .child(Box("@xyz").str("+48.8584+002.2945/"))
                 .build(),
             Box("uuid").bytes(xmpUsertype()).str("<xmp:CreatorTool>Tool 2</xmp:CreatorTool>").build(), 1000),
       "{\"location\":{\"camera\":\"+48.8584+002.2945/\",\"quicktime\":null,\"latitude\":48.8584,\"longitude\":"
       "2.2945,\"altitude\":null,\"loci\":null},\"identity\":{\"cameraModel\":null,\"quicktimeModel\":\"Long\","
       "\"xmpCreatorTool\":\"Tool 2\",\"creatorTool\":null},\"creationTime\":\"1970-01-01T00:16:40.000000Z\","
       "\"fragmented\":null}"},
      // Only the 3GPP box: its point is the movie's; a role past the defined ones stays a number.
      {movie(Box("udta")
                 .child(
                     Box::full("loci", 0, 0).u16(0).str("Paris").u8(0).u8(7).fixed(2.25).fixed(48.75).fixed(0).zeros(2))
                 .build()),
       "{\"location\":{\"camera\":null,\"quicktime\":null,\"latitude\":48.75,\"longitude\":2.25,\"altitude\":0,"
       "\"loci\":{\"name\":\"Paris\",\"role\":7,\"longitude\":2.25,\"latitude\":48.75,\"altitude\":0}},"
       "\"identity\":{\"cameraModel\":null,\"quicktimeModel\":null,\"xmpCreatorTool\":null,\"creatorTool\":null},"
       "\"creationTime\":null,\"fragmented\":null}"},
      {movie(Box("mvex").child(Box::full("mehd", 1, 0).u64(2600)).build()),
       kNothing + "{\"duration\":2.6,\"source\":\"mehd\"}}"},
      // The last decode time, 30000, plus the 600 of its fragment (of the three samples the box holds); the
      // other track's fragment does not count.
      {movie(
           Box("mvex").build(),
           concat({Box("moof").child(traf(1, 0, {}, Box::full("trun", 0, 0).u32(30).build())).build(), fragmentsAt2})),
       kNothing + "{\"duration\":1.02,\"source\":\"fragments\"}}"},
      // No decode times: the movie box's 60000, then 3000 in two samples and 4 x 750 (the trex default).
      {movie(Box("mvex").bytes(trex750).build(),
             concat({Box("moof")
                         .child(traf(1, 0, {},
                                     Box::full("trun", 0, 0x300).u32(~0u).u32(1500).u32(9).u32(1500).u32(9).build()))
                         .build(),
                     Box("moof").child(traf(1, 0, {}, Box::full("trun", 0, 0).u32(4).build())).build()})),
       kNothing + "{\"duration\":2.2,\"source\":\"fragments\"}}"},
      // A cut "mehd" and no fragment of the video track.
      {movie(Box("mvex").child(Box::full("mehd", 1, 0).u16(1)).build(),
             Box("moof").child(traf(2, 0, {}, Box::full("trun", 0, 0).u32(1).build())).build()),
       kNothing + "{\"duration\":null,\"source\":\"fragments\"}}"},
  };
  for (const auto& [bytes, json] : cases) EXPECT_EQ(identityJson(bytes), json);
  EXPECT_EQ(creationTimeText(2082844800u + 253402300799u), "9999-12-31T23:59:59.000000Z");
  EXPECT_EQ(creationTimeText(2082844800u + 253402300800u), "");
}

TEST(MovieIdentity, FfmpegQuickTimeTextsAndFragments) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  const std::string json = identityJson(ffmpegMovie(
      "-g 10 -metadata location=-35.5+139.25/ -metadata model=Cam -metadata creation_time=2020-02-29T12:00:00Z "
      "-movflags frag_keyframe+empty_moov -f mov"));
  EXPECT_EQ(json,
            "{\"location\":{\"camera\":null,\"quicktime\":\"-35.5+139.25/\",\"latitude\":-35.5,\"longitude\":139.25,"
            "\"altitude\":null,\"loci\":null},\"identity\":{\"cameraModel\":null,\"quicktimeModel\":\"Cam\","
            "\"xmpCreatorTool\":null,\"creatorTool\":null},\"creationTime\":\"2020-02-29T12:00:00.000000Z\","
            "\"fragmented\":{\"duration\":1,\"source\":\"fragments\"}}");
}

}  // namespace
