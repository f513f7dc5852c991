// The initial view of a spherical movie, read from its spherical-video XML.
#pragma once

#include <cstdint>
#include <string>

struct ViewHeading {
  ViewHeading();
  // Parses the XML text; absent values stay NaN.
  void attach(const std::string& xml);

  std::string stitchingSoftware;
  float heading;  // degrees
  float pitch;    // degrees
  float fov;      // horizontal field of view, degrees
  float dolly;
  uint64_t timestamp = 0;
};
