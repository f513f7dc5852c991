// The initial view read from the spherical-video XML.
#include <gtest/gtest.h>

#include <cmath>

#include "report/view_heading.h"

namespace {

const char kXml[] =
    "<?xml version=\"1.0\"?><rdf:SphericalVideo>\n"
    "  <GSpherical:Spherical>true</GSpherical:Spherical>\n"
    "  <GSpherical:StitchingSoftware>Stitcher 2.0</GSpherical:StitchingSoftware>\n"
    "  <GSpherical:InitialViewHeadingDegrees>90</GSpherical:InitialViewHeadingDegrees>\n"
    "  <GSpherical:InitialViewPitchDegrees>-15</GSpherical:InitialViewPitchDegrees>\n"
    "  <GSpherical:InitialHorizontalFOVDegrees>75</GSpherical:InitialHorizontalFOVDegrees>\n"
    "  <GSpherical:InitialCameraDolly>0.25</GSpherical:InitialCameraDolly>\n"
    "  <GSpherical:Timestamp>1561000000</GSpherical:Timestamp>\n"
    "</rdf:SphericalVideo>";

TEST(ViewHeading, ReadsTheFourValuesTheTimestampAndTheSoftware) {
  ViewHeading view;
  view.attach(kXml);
  EXPECT_EQ(view.heading, 90.0f);
  EXPECT_EQ(view.pitch, -15.0f);
  EXPECT_EQ(view.fov, 75.0f);
  EXPECT_EQ(view.dolly, 0.25f);
  EXPECT_EQ(view.timestamp, 1561000000u);
  EXPECT_EQ(view.stitchingSoftware, "Stitcher 2.0");
}

TEST(ViewHeading, ValuesThatAreNotIndentedByTwoBlanksOrDoNotScanAreAbsent) {
  ViewHeading view;
  view.attach(
      "<GSpherical:InitialViewHeadingDegrees>90</GSpherical:InitialViewHeadingDegrees>\n"
      "    <GSpherical:InitialViewPitchDegrees>10</GSpherical:InitialViewPitchDegrees>\n"
      "\t<GSpherical:InitialHorizontalFOVDegrees>75</GSpherical:InitialHorizontalFOVDegrees>\n"
      "  <GSpherical:InitialCameraDolly>near</GSpherical:InitialCameraDolly>\n"
      "<GSpherical:StitchingSoftware>Stitcher");
  EXPECT_TRUE(std::isnan(view.heading));
  EXPECT_EQ(view.pitch, 10.0f);  // "    <" holds "  <" two characters in
  EXPECT_TRUE(std::isnan(view.fov));
  EXPECT_TRUE(std::isnan(view.dolly));
  EXPECT_EQ(view.timestamp, 0u);
  EXPECT_EQ(view.stitchingSoftware, "");  // no closing tag
  view.attach("  <GSpherical:InitialViewPitchDegrees>7.9</GSpherical:InitialViewPitchDegrees>\n");
  EXPECT_EQ(view.pitch, 7.0f);  // an integer element keeps its integer part
}

}  // namespace
