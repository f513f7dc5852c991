// Console output, file I/O with its failure lines, and wide-character conversion.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "gltk/console.h"
#include "gltk/file_io.h"
#include "gltk/wchar.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
using GLTK::FileIO;

TEST(Console, FormatsWideTextAsUtf8AndDumpsBytes) {
  ConsoleCapture capture;
  GLTK::Console::out(L"%ls=%d %s\n", L"caf\u00e9", 42, "narrow");
  const unsigned char bytes[] = {0x01, 0xAB, 0xFF};
  GLTK::Console::dump(L"100%%:", bytes, 3);
  GLTK::Console::dump(L"none:", bytes, 0);
  EXPECT_EQ(capture.text(), "caf\xC3\xA9=42 narrow\n100%: 01 AB FF\nnone:\n");
}

TEST(FileIO, FailuresPrintOneLineEachAndWritesKeepThePosition) {
  TempDir dir;
  ConsoleCapture capture;
  FileIO missing(dir.wfile("none"), 'r');
  unsigned char buffer[16] = {'h', 'e', 'l', 'l', 'o', ' ', 'w'};
  EXPECT_EQ(std::tuple(missing.is_open(), missing.length(), missing.seek_set(1), missing.read(buffer, 1)),
            std::tuple(false, 0u, false, ~0ULL));
  EXPECT_FALSE(FileIO::open_a(dir.wfile("none"), [](FileIO&) { ADD_FAILURE(); }));  // update mode does not create
  EXPECT_FALSE(FileIO::exist(dir.wfile("none")));
  ASSERT_TRUE(FileIO::open_w(dir.wfile("f"), [&](FileIO& f) { EXPECT_EQ(f.write(buffer, 7), 7u); }));
  ASSERT_TRUE(FileIO::open_a(dir.wfile("f"), [&](FileIO& f) {
    EXPECT_TRUE(f.seek_set(6) && f.write(buffer + 4, 1) == 1 && f.tell() == 7 && f.seek_cur(-3));
    EXPECT_EQ(f.read(buffer, 16), 3u);  // a short read at the end, then none
    EXPECT_EQ(f.read(buffer, 16) + f.length(), 7u);
    EXPECT_FALSE(f.seek_set(1ULL << 63) || f.seek_cur(-10));
  }));
  struct stat st;
  ASSERT_EQ(stat(dir.file("f").c_str(), &st), 0);
  GLTK::FileIO_show_process_file_name = true;
  EXPECT_TRUE(FileIO::rename(dir.wfile("f"), dir.wfile("\xE6\x97\xA5")) && FileIO::exist(dir.wfile("\xE6\x97\xA5")));
  GLTK::FileIO_show_process_file_name = false;
  EXPECT_EQ(std::tuple(readText(dir.file("\xE6\x97\xA5")), st.st_mode & 0777), std::tuple("hello o", 0644u));
  const std::string none = dir.file("none");
  EXPECT_EQ(capture.text(), "open(" + none + ", 'r') failed.\nopen(" + none + ", 'a') failed.\nopen(" + none +
                                ", 'r') failed.\nseek_set(-9223372036854775808) failed - Invalid argument(22)\n"
                                "seek_cur(-10) failed - Invalid argument(22)\nprocessing " +
                                dir.file("\xE6\x97\xA5") + " ...\n");
}

TEST(Wchar, ConvertsUtf8UpTo2048CharactersAndStopsAtAZeroOrAnInvalidSequence) {
  using namespace GLTK::wchar;
  EXPECT_EQ(mbs2wcs("caf\xC3\xA9 \xE6\x97\xA5"), L"caf\u00e9 \u65e5");
  for (const std::string& cut : {std::string("ab\0cd", 5), std::string("ab\xFF") + "cd", std::string("ab\xC3")}) {
    EXPECT_EQ(mbs2wcs(cut), L"ab");
  }
  EXPECT_EQ(std::tuple(mbs2wcs(std::string(2048, 'a')).size(), mbs2wcs(std::string(3000, 'a')).size()),
            std::tuple(2048u, 2048u));
  const std::string one = wcs2mbs(L"\u00e9");  // six bytes per character are reserved
  EXPECT_EQ(std::tuple(one.size(), std::string(one.c_str()), wcs2mbs(L"").size()), std::tuple(6u, "\xC3\xA9", 0u));
  EXPECT_EQ(std::tuple(wcs2mbs(std::wstring(400, L'x')).size(),
                       std::string(wcs2mbs(std::wstring(3000, L'x')).c_str()).size()),
            std::tuple(2048u, 2048u));
}

}  // namespace
