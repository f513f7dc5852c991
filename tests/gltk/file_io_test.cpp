#include "gltk/file_io.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <vector>

#include "tests/support/files.h"

namespace {

using GLTK::FileIO;
using sondex::test::Bytes;
using sondex::test::ConsoleCapture;
using sondex::test::readFile;
using sondex::test::TempDir;

TEST(FileIO, AMissingFileIsReportedOnceWithItsMode) {
  TempDir dir;
  const std::wstring path = dir.wfile("missing.mp4");
  ConsoleCapture capture;
  FileIO file(path, 'r');
  EXPECT_FALSE(file.is_open());
  EXPECT_EQ(file.length(), 0u);
  EXPECT_FALSE(file.seek_set(10));  // quietly
  EXPECT_FALSE(file.seek_cur(10));
  unsigned char byte;
  EXPECT_EQ(file.read(&byte, 1), ~0ULL);
  EXPECT_EQ(file.write(&byte, 1), ~0ULL);
  EXPECT_EQ(capture.text(), "open(" + dir.file("missing.mp4") + ", 'r') failed.\n");
}

TEST(FileIO, OpenForUpdateDoesNotCreate) {
  TempDir dir;
  ConsoleCapture capture;
  bool called = false;
  EXPECT_FALSE(FileIO::open_a(dir.wfile("none"), [&](FileIO&) { called = true; }));
  EXPECT_FALSE(called);
  EXPECT_EQ(capture.text(), "open(" + dir.file("none") + ", 'a') failed.\n");
}

TEST(FileIO, ExistGoesThroughTheReadOpenAndItsMessage) {
  TempDir dir;
  dir.write("here", {1});
  ConsoleCapture capture;
  EXPECT_TRUE(FileIO::exist(dir.wfile("here")));
  EXPECT_FALSE(FileIO::exist(dir.wfile("gone")));
  EXPECT_EQ(capture.text(), "open(" + dir.file("gone") + ", 'r') failed.\n");
}

TEST(FileIO, ReadsWritesAndSeeksKeepThePosition) {
  TempDir dir;
  const std::wstring path = dir.wfile("data");
  ASSERT_TRUE(FileIO::open_w(path, [](FileIO& f) {
    const unsigned char text[] = "hello world";
    EXPECT_EQ(f.write(text, 11), 11u);
    EXPECT_EQ(f.tell(), 11u);
  }));
  struct stat st;
  ASSERT_EQ(stat(dir.file("data").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);

  ASSERT_TRUE(FileIO::open(path, [](FileIO& f) {
    EXPECT_EQ(f.length(), 11u);
    unsigned char buffer[16] = {};
    EXPECT_TRUE(f.seek_set(6));
    EXPECT_EQ(f.read(buffer, 16), 5u);  // short read at the end
    EXPECT_EQ(f.tell(), 11u);
    EXPECT_EQ(f.read(buffer, 16), 0u);
    EXPECT_TRUE(f.seek_cur(-5));
    EXPECT_EQ(f.tell(), 6u);
  }));

  // Update mode writes where the position is, without truncating.
  ASSERT_TRUE(FileIO::open_a(path, [](FileIO& f) {
    const unsigned char text[] = "W";
    f.seek_set(6);
    f.write(text, 1);
  }));
  const Bytes after = readFile(dir.file("data"));
  EXPECT_EQ(std::string(after.begin(), after.end()), "hello World");
}

TEST(FileIO, AFailedSeekPrintsTheSystemError) {
  TempDir dir;
  dir.write("f", {1, 2, 3});
  ConsoleCapture capture;
  FileIO::open(dir.wfile("f"), [](FileIO& f) {
    EXPECT_FALSE(f.seek_set(1ULL << 63));
    EXPECT_FALSE(f.seek_cur(-10));
    EXPECT_EQ(f.tell(), 0u);
  });
  EXPECT_EQ(capture.text(),
            "seek_set(-9223372036854775808) failed - Invalid argument(22)\n"
            "seek_cur(-10) failed - Invalid argument(22)\n");
}

// Counts the system-call-level operations that copyTo asks for.
class CountingFile : public FileIO {
 public:
  using FileIO::FileIO;
  uint64_t read(unsigned char* buffer, uint64_t n) override {
    reads.push_back(n);
    return FileIO::read(buffer, n);
  }
  uint64_t write(const unsigned char* buffer, uint64_t n) override {
    writes.push_back(n);
    return FileIO::write(buffer, n);
  }
  std::vector<uint64_t> reads, writes;
};

TEST(FileIO, CopyToMovesWholeChunksAndTheRemainder) {
  TempDir dir;
  Bytes data(65537);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
  dir.write("src", data);
  const std::wstring src = dir.wfile("src"), dst = dir.wfile("dst");
  {
    CountingFile in(src, 'r');
    CountingFile out(dst, 'w');
    EXPECT_EQ(in.copyTo(out, 65537), 65537u);
    EXPECT_EQ(in.reads, (std::vector<uint64_t>{65536, 1}));
    EXPECT_EQ(out.writes, (std::vector<uint64_t>{65536, 1}));
    EXPECT_EQ(in.copyTo(out, 0), 0u);
  }
  EXPECT_EQ(readFile(dir.file("dst")), data);
}

TEST(FileIO, RenameUnlinkAndUtf8Names) {
  TempDir dir;
  dir.write("caf\xC3\xA9.mp4", {7});
  EXPECT_TRUE(FileIO::rename(dir.wfile("caf\xC3\xA9.mp4"), dir.wfile("\xE6\x97\xA5.mp4")));
  EXPECT_TRUE(FileIO::open(dir.wfile("\xE6\x97\xA5.mp4"), [](FileIO& f) { EXPECT_EQ(f.length(), 1u); }));
  EXPECT_TRUE(FileIO::unlink(dir.wfile("\xE6\x97\xA5.mp4")));
  EXPECT_FALSE(FileIO::unlink(dir.wfile("\xE6\x97\xA5.mp4")));
}

TEST(FileIO, AnEmptyCallbackIsAProgrammingError) {
  TempDir dir;
  dir.write("f", {1});
  EXPECT_THROW(FileIO::open(dir.wfile("f"), std::function<void(FileIO&)>()), std::bad_function_call);
}

TEST(FileIO, ShowProcessFileNameAnnouncesEachOpen) {
  TempDir dir;
  dir.write("f", {1});
  ConsoleCapture capture;
  GLTK::FileIO_show_process_file_name = true;
  FileIO::open(dir.wfile("f"), [](FileIO&) {});
  GLTK::FileIO_show_process_file_name = false;
  EXPECT_EQ(capture.text(), "processing " + dir.file("f") + " ...\n");
}

}  // namespace
