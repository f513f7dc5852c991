#include "gltk/wchar.h"

#include <gtest/gtest.h>

namespace {

using GLTK::wchar::mbs2wcs;
using GLTK::wchar::wcs2mbs;

TEST(Mbs2wcs, ConvertsUtf8AndStopsAtTheFirstZero) {
  EXPECT_EQ(mbs2wcs("caf\xC3\xA9"), L"caf\u00e9");
  EXPECT_EQ(mbs2wcs("\xE6\x97\xA5\xE6\x9C\xAC.mp4"), L"\u65e5\u672c.mp4");
  EXPECT_EQ(mbs2wcs(std::string("ab\0cd", 5)), L"ab");
  EXPECT_EQ(mbs2wcs(""), L"");
}

TEST(Mbs2wcs, CapsAt2048Characters) {
  EXPECT_EQ(mbs2wcs(std::string(1500, 'a')).size(), 1500u);
  EXPECT_EQ(mbs2wcs(std::string(3000, 'a')).size(), 2048u);
}

TEST(Mbs2wcs, AnInvalidSequenceKeepsWhatCameBefore) {
  EXPECT_EQ(mbs2wcs("ab\xFF" "cd"), L"ab");
  EXPECT_EQ(mbs2wcs("ab\xC3"), L"ab");  // cut in the middle of a character
}

TEST(Wcs2mbs, ReservesSixBytesPerCharacterCappedAt2048) {
  const std::string one = wcs2mbs(L"\u00e9");
  ASSERT_EQ(one.size(), 6u);
  EXPECT_STREQ(one.c_str(), "\xC3\xA9");
  EXPECT_EQ(wcs2mbs(std::wstring(400, L'x')).size(), 2048u);
  EXPECT_EQ(wcs2mbs(L"").size(), 0u);
}

TEST(Wcs2mbs, ALongTextIsCutAtTheCap) {
  const std::string cut = wcs2mbs(std::wstring(3000, L'x'));
  EXPECT_EQ(std::string(cut.c_str()).size(), 2048u);
}

}  // namespace
