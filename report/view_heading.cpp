#include "report/view_heading.h"

#include <cmath>
#include <cstdio>
#include <limits>

#include "gltk/console.h"

namespace {

const float kAbsent = std::numeric_limits<float>::quiet_NaN();

// Finds the template's text before its first conversion, literally (so an
// element indented other than by exactly two blanks is not found), and
// scans the text there with the whole template.
template <class T>
float readValue(const std::string& xml, const char* pattern) {
  const std::string text(pattern);
  const std::string prefix = text.substr(0, text.find('%'));
  const size_t at = xml.find(prefix);
  if (at == std::string::npos) return kAbsent;
  T value{};
  if (std::sscanf(xml.c_str() + at, pattern, &value) != 1) return kAbsent;
  return static_cast<float>(value);
}

}  // namespace

ViewHeading::ViewHeading() : heading(kAbsent), pitch(kAbsent), fov(kAbsent), dolly(kAbsent) {}

void ViewHeading::attach(const std::string& xml) {
  GLTK::Console::LocaleC scope;
  stitchingSoftware.clear();
  static const std::string kName = "GSpherical:StitchingSoftware";
  const size_t first = xml.find(kName);
  if (first != std::string::npos) {
    const size_t from = first + kName.size() + 1;  // past the name and its '>'
    const size_t second = xml.find(kName, from);
    // The value ends before the "</" of the closing tag; without a closing
    // tag there is no value.
    if (second != std::string::npos && second >= from + 2) {
      stitchingSoftware = xml.substr(from, second - 2 - from);
    }
  }
  heading = readValue<int>(xml, "  <GSpherical:InitialViewHeadingDegrees>%d</GSpherical:InitialViewHeadingDegrees>\n");
  pitch = readValue<int>(xml, "  <GSpherical:InitialViewPitchDegrees>%d</GSpherical:InitialViewPitchDegrees>\n");
  fov = readValue<int>(xml, "  <GSpherical:InitialHorizontalFOVDegrees>%d</GSpherical:InitialHorizontalFOVDegrees>\n");
  dolly = readValue<float>(xml, "  <GSpherical:InitialCameraDolly>%f</GSpherical:InitialCameraDolly>\n");

  static const char kTimestamp[] = "  <GSpherical:Timestamp>%lu</GSpherical:Timestamp>\n";
  timestamp = 0;
  const size_t at = xml.find(std::string(kTimestamp, 24));
  unsigned long value = 0;
  if (at != std::string::npos && std::sscanf(xml.c_str() + at, kTimestamp, &value) == 1) timestamp = value;
}
