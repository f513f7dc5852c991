// Writes the bundled sample files: a camera-like movie (H.264, with maker
// note, sensor logs, location, spherical-video XML and XMP), a JPEG still
// and a DNG still carrying the camera's maker note. Needs Debian's ffmpeg.
//
//   make_samples <output folder>
#include <cmath>
#include <cstdio>
#include <string>

#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

using namespace sondex::test;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
    return 2;
  }
  const std::string out = argv[1];
  const std::string model = "KORVU ZEPRA LM4";

  // Two seconds of a camera held upright and turning at 30 degrees a second.
  const SensorLog log = turningCamera(2.0, 30.0 * M_PI / 180.0);
  SampleBox gyro("KDTB"), compass("KDTC"), gravity("KDTD"), stamps("KDTG");
  gyro.rate(log.gyroRate).add(log.gyro);
  compass.rate(log.gravityRate).add(log.compass);
  gravity.rate(log.gravityRate).add(log.gravity);
  stamps.rate(log.gravityRate).add(log.stamps);

  CameraBoxes boxes;
  boxes.model = model;
  boxes.makerNote = TiffBuilder(kBigEndian).build(cameraIfd0(cameraMakerNote(), model, "1.20.3"));
  boxes.udta = {gyro.build(), compass.build(), gravity.build(), stamps.build()};
  boxes.location = "+35.6586+139.7454+040.000/";
  boxes.sphericalXml = sphericalXmlText("Sondex Sample Stitcher", 90, 0, 90);
  boxes.xmp = xmpText("Sondex sample maker");
  const Bytes movie = ffmpegMovie("-c:v libx264 -profile:v baseline -pix_fmt yuv420p -crf 40", 2.0);
  writeFile(out + "/sample.mp4", injectCameraBoxes(movie, boxes));

  TempDir dir;
  run("ffmpeg -v error -y -f lavfi -i testsrc=size=384x192 -frames:v 1 -q:v 10 '" + dir.file("frame.jpg") + "'");
  const Bytes jpeg = readFile(dir.file("frame.jpg"));
  const Bytes tiff = TiffBuilder(kBigEndian).build(cameraIfd0(cameraMakerNote(), model, "1.20.3"));
  writeFile(out + "/sample.jpg", spliceExif(jpeg, tiff));
  writeFile(out + "/sample.dng", TiffBuilder(kBigEndian).build(cameraDngIfd0(previewIfd(jpeg))));
  return 0;
}
