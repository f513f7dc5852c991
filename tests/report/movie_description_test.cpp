// The movie description on movies made by Debian's ffmpeg: one of every
// video codec, and movies that cannot be decoded.
#include <gtest/gtest.h>

#include <unistd.h>

#include "mp4/boxes.h"
#include "report/movie_description.h"
#include "tests/support/files.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

#ifdef SONDEX_FFMPEG_LEAN
constexpr bool kLean = true;
#else
constexpr bool kLean = false;
#endif

// Describes a movie with standard error caught: FFmpeg must never print.
bool describeSilently(const std::string& path, MovieDescription& d) {
  fflush(stderr);
  const int saved = dup(2);
  FILE* sink = std::tmpfile();
  dup2(fileno(sink), 2);
  const bool ok = describeMovie(widen(path), d);
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  EXPECT_EQ(lseek(fileno(sink), 0, SEEK_END), 0) << path;
  fclose(sink);
  return ok;
}

// The default build decodes the codecs the README lists and no others; the
// system's FFmpeg decodes them all. MPEG-4 Part 2 leaves the frame size to
// the stream probe. Files without video, stills and other containers are
// never movies of this program's kind.
TEST(MovieDescription, DecodableExactlyWhenTheBuildDecodesTheMovie) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  TempDir dir;
  const std::string video = "-f lavfi -i testsrc=size=384x192:rate=30000/1001 -t 1 -c:v ";
  const struct {
    const char* file;
    std::string options;
    bool decodable;
  } cases[] = {
      {"h264.mp4", video + "libx264 -movflags +faststart", true},
      {"h265.mp4", video + "libx265 -tag:v hvc1 -x265-params log-level=none", true},
      {"mpeg4.mp4", video + "mpeg4", true},
      {"vp9.mp4", video + "libvpx-vp9 -deadline realtime -cpu-used 8", true},
      {"prores.mov", video + "prores_ks", true},
      {"mjpeg.mp4", video + "mjpeg", true},
      {"mpeg2.mp4", video + "mpeg2video", !kLean},
      {"av1.mp4", video + "libaom-av1 -cpu-used 8", !kLean},
      {"audio.mp4", "-f lavfi -i sine -t 1 -c:a aac", false},
      {"still.jpg", video + "mjpeg -frames:v 1", false},
      {"other.mkv", video + "libx264", false},
  };
  for (const auto& c : cases) {
    const std::string path = dir.file(c.file);
    run("ffmpeg -v error -y " + c.options + " '" + path + "'");
    MovieDescription d;
    ASSERT_EQ(describeSilently(path, d), c.decodable) << c.file;
    if (!c.decodable) continue;
    EXPECT_EQ(d.width, 384) << c.file;
    EXPECT_EQ(d.height, 192) << c.file;
    EXPECT_NEAR(d.frameRate, 29.97, 0.01) << c.file;
    EXPECT_NEAR(d.duration, 1.0, 0.05) << c.file;
  }

  // Not a movie, no file, and a skeleton: the H.264 movie (movie box first)
  // cut right after its movie box, so that its sample tables point past the
  // end of the file.
  MovieDescription d;
  EXPECT_FALSE(describeSilently(dir.write("text.mp4", {'h', 'e', 'l', 'l', 'o'}), d));
  EXPECT_FALSE(describeSilently(dir.write("broken.mp4", Bytes(100, 0x41)), d));
  EXPECT_FALSE(describeSilently(dir.file("missing.mp4"), d));
  const std::string full = dir.file("h264.mp4");
  MP4::Container movie;
  ASSERT_TRUE(movie.attach(widen(full), ~0ULL));
  ASSERT_NE(movie.moov, nullptr);
  const Bytes bytes = readFile(full);
  const Bytes skeleton(bytes.begin(), bytes.begin() + static_cast<long>(movie.moov->end()));
  EXPECT_FALSE(describeSilently(dir.write("skeleton.mp4", skeleton), d));
}

}  // namespace
