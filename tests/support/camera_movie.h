// Camera-like movies: the boxes the camera writes, injected into a real
// movie made by ffmpeg, with box sizes and chunk offsets fixed up.
#pragma once

#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace sondex::test {

struct CameraBoxes {
  std::string model;         // "@mod" text (empty: no box)
  Bytes makerNote;           // KMKN payload (empty: no box)
  std::vector<Bytes> udta;   // further user-data boxes, whole (sensor logs...)
  std::string location;      // "@xyz" payload (empty: no box)
  std::string sphericalXml;  // spherical-video uuid payload in the video track
  std::string xmp;           // XMP uuid payload at the top level
};

Bytes xmpUsertype();  // the extended type of the XMP uuid box
// A spherical-video XML with the given stitching software and initial view.
std::string sphericalXmlText(const std::string& software, int heading, int pitch, int fov);
std::string xmpText(const std::string& creatorTool);

// The movie with the camera's boxes added: the user data into moov.udta, the
// spherical XML into the video track, the XMP after the movie box.
Bytes injectCameraBoxes(const Bytes& movie, const CameraBoxes& boxes);

// Makes a movie with ffmpeg (lavfi test source; extra options such as the
// codec are passed through) and returns its bytes.
Bytes ffmpegMovie(const std::string& options, double seconds = 1.0);

}  // namespace sondex::test
