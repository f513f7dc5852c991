// Element capture and number formatting against the standard library
// facilities they stand in for.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <regex>
#include <sstream>

#include "report/number_text.h"
#include "report/xml_text.h"

namespace {

std::string viaRegex(const std::string& text, const std::string& name) {
  const std::regex pattern("<" + name + "> *(.+) *</" + name + ">", std::regex::ECMAScript);
  std::smatch match;
  return std::regex_search(text, match, pattern) ? match[1].str() : std::string();
}

TEST(CaptureElement, Examples) {
  const std::string tag = "x:CreatorTool";
  EXPECT_EQ(captureElement("<x:CreatorTool>Tool 1.0</x:CreatorTool>", tag), "Tool 1.0");
  // Greedy: the blanks before the closing tag are kept, the ones after the
  // opening tag are not.
  EXPECT_EQ(captureElement("<x:CreatorTool>  Tool  </x:CreatorTool>", tag), "Tool  ");
  EXPECT_EQ(captureElement("<x:CreatorTool>a\n</x:CreatorTool>", tag), "");  // one line only
  EXPECT_EQ(captureElement(std::string("<x:CreatorTool>a\0b</x:CreatorTool>", 35), tag), std::string("a\0b", 3));
}

TEST(CaptureElement, AgreesWithTheEcmaScriptRegexOnRandomTexts) {
  const std::string name = "a:b";
  const std::vector<std::string> pieces = {"<a:b>", "</a:b>", " ", "  ", "x", "\n", "\r", "<", ">", "/", "a:b"};
  std::mt19937 random(12345);
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    const int n = static_cast<int>(random() % 12);
    for (int i = 0; i < n; ++i) text += pieces[random() % pieces.size()];
    ASSERT_EQ(captureElement(text, name), viaRegex(text, name)) << "text: [" << text << "]";
  }
}

TEST(CaptureElement, ALongLineAndManyLinesAreLinear) {
  // Elements that are opened and not closed, on one line or one per line:
  // looking for the closing tag must not run back over what came before.
  for (const std::string open : {"<a:b>x", "<a:b>x\n"}) {
    std::string text;
    for (int i = 0; i < 100000; ++i) text += open;
    EXPECT_EQ(captureElement(text, "a:b"), "");
    text += "<a:b>y</a:b>";
    EXPECT_EQ(captureElement(text, "a:b"), open.ends_with('\n') ? "y" : text.substr(5, text.size() - 11));
  }
}

TEST(NumberText, FloatsMatchTheStreamDefault) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> uniform(-1e6f, 1e6f);
  std::vector<float> values = {0.0f, -0.0f, 1.0f, 0.1f, 123456.0f, 1234567.0f, 1e-5f, 9.999995f, 0.0001f,
                               std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::infinity(),
                               std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::max(),
                               std::numeric_limits<float>::denorm_min()};
  for (int i = 0; i < 100000; ++i) {
    float v = uniform(random);
    if (i % 3 == 0) v = std::ldexp(v, static_cast<int>(random() % 200) - 100);
    values.push_back(v);
  }
  for (float v : values) {
    std::string mine;
    numtext::append(mine, v);
    std::ostringstream expected;
    expected << v;
    ASSERT_EQ(mine, expected.str()) << v;
  }
}

}  // namespace
