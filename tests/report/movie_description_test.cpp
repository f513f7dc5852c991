// The movie description on movies made by Debian's ffmpeg, including ones
// that cannot be decoded.
#include <gtest/gtest.h>

#include <unistd.h>

#include "mp4/boxes.h"
#include "report/movie_description.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

class MovieDescriptionTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  }
  std::string make(const std::string& name, const std::string& options) {
    const std::string path = dir_.file(name);
    run("ffmpeg -v error -y " + options + " '" + path + "'");
    return path;
  }
  TempDir dir_;
};

TEST_F(MovieDescriptionTest, DescribesH264AndH265) {
  for (const char* codec : {"libx264", "libx265 -tag:v hvc1 -x265-params log-level=none"}) {
    const std::string path = make("m.mp4", std::string("-f lavfi -i testsrc=size=384x192:rate=30000/1001 -t 1 -c:v ") +
                                               codec + " -pix_fmt yuv420p");
    MovieDescription d;
    ASSERT_TRUE(describeMovie(widen(path), d)) << codec;
    EXPECT_EQ(d.width, 384);
    EXPECT_EQ(d.height, 192);
    EXPECT_NEAR(d.frameRate, 29.97, 0.01);
    EXPECT_NEAR(d.duration, 1.0, 0.05);
  }
}

TEST_F(MovieDescriptionTest, Mpeg4Part2ReportsItsTrueSize) {
  const std::string path = make("m4v.mp4", "-f lavfi -i testsrc=size=320x240:rate=25 -t 1 -c:v mpeg4");
  MovieDescription d;
  ASSERT_TRUE(describeMovie(widen(path), d));
  EXPECT_EQ(d.width, 320);
  EXPECT_EQ(d.height, 240);
  EXPECT_NEAR(d.frameRate, 25.0, 0.01);
}

TEST_F(MovieDescriptionTest, MoviesThatCannotBeDecoded) {
  MovieDescription d;
  const std::string audio = make("a.mp4", "-f lavfi -i sine=frequency=440 -t 1 -c:a aac");
  EXPECT_FALSE(describeMovie(widen(audio), d));
  EXPECT_FALSE(describeMovie(widen(dir_.write("text.mp4", {'h', 'e', 'l', 'l', 'o'})), d));
  // Stills and other containers are not movies of this program's kind.
  EXPECT_FALSE(describeMovie(widen(make("still.jpg", "-f lavfi -i testsrc=size=64x32 -frames:v 1")), d));
  EXPECT_FALSE(describeMovie(widen(make("other.mkv", "-f lavfi -i testsrc=size=64x32 -t 1 -c:v libx264")), d));
  EXPECT_FALSE(describeMovie(widen(dir_.file("missing.mp4")), d));

  // A skeleton: a movie cut right after its movie box, so that its sample
  // tables point past the end of the file.
  const std::string full =
      make("full.mp4", "-f lavfi -i testsrc=size=320x160:rate=25 -t 1 -c:v libx264 -movflags +faststart");
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(widen(full), ~0ULL));
  ASSERT_NE(movie.moov, nullptr);
  const Bytes bytes = readFile(full);
  const Bytes skeleton(bytes.begin(), bytes.begin() + static_cast<long>(movie.moov->end()));
  EXPECT_FALSE(describeMovie(widen(dir_.write("skeleton.mp4", skeleton)), d));
}

TEST_F(MovieDescriptionTest, StaysSilent) {
  const std::string path = dir_.write("broken.mp4", Bytes(100, 0x41));
  // FFmpeg's own messages would go to standard error: capture it.
  fflush(stderr);
  const int saved = dup(2);
  FILE* sink = std::tmpfile();
  dup2(fileno(sink), 2);
  MovieDescription d;
  describeMovie(widen(path), d);
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  EXPECT_EQ(lseek(fileno(sink), 0, SEEK_END), 0);
  fclose(sink);
}

}  // namespace
