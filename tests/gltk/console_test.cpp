#include "gltk/console.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"

namespace {

using sondex::test::ConsoleCapture;

TEST(Console, OutFormatsWideTextAsUtf8) {
  ConsoleCapture capture;
  GLTK::Console::out(L"%ls=%d %s\n", L"caf\u00e9", 42, "narrow");
  EXPECT_EQ(capture.text(), "caf\xC3\xA9=42 narrow\n");
}

TEST(Console, DumpPrintsLabelThenEachByteThenNewline) {
  ConsoleCapture capture;
  const unsigned char bytes[] = {0x01, 0xAB, 0xFF};
  GLTK::Console::dump(L"label:", bytes, 3);
  GLTK::Console::dump(L"none:", bytes, 0);
  EXPECT_EQ(capture.text(), "label: 01 AB FF\nnone:\n");
}

TEST(Console, DumpUsesTheLabelAsAFormat) {
  ConsoleCapture capture;
  GLTK::Console::dump(L"100%% ", nullptr, 0);
  EXPECT_EQ(capture.text(), "100% \n");
}

}  // namespace
