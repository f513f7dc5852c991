// Writes the benchmark corpus (never committed; regenerate on demand):
//   long/long.mp4        one hour at 30 fps (tiny frames) with AAC audio and
//                        one hour of sensor logs: 720,000 gyro records at
//                        200 Hz, 108,000 compass, gravity and KDTG records,
//                        a maker note, location, spherical XML and XMP
//   batch/clip_NNN.mp4   200 two-second 3840x1920 clips with the same kinds
//                        of boxes (two seconds of sensor logs each)
//   full/h264.mp4, full/h265.mp4   full-size clips, no camera boxes
//
//   make_corpus <output folder> [long|batch|full ...]
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

using namespace sondex::test;

namespace {

const std::string kModel = "KORVU ZEPRA LM4";

Bytes encode(const std::string& arguments) {
  TempDir dir;
  const std::string path = dir.file("movie.mp4");
  run("ffmpeg -v error -y " + arguments + " '" + path + "'");
  return readFile(path);
}

CameraBoxes cameraBoxes(double seconds, const std::string& serial) {
  const SensorLog log = turningCamera(seconds, 20.0 * M_PI / 180.0, 0.1);
  SampleBox gyro("KDTB"), compass("KDTC"), gravity("KDTD"), stamps("KDTG");
  gyro.rate(log.gyroRate).add(log.gyro);
  compass.rate(log.gravityRate).add(log.compass);
  gravity.rate(log.gravityRate).add(log.gravity);
  stamps.rate(log.gravityRate).add(log.stamps);
  Ifd makerNote = Ifd().ascii(0x0002, "CPU 2.10").ascii(0x0005, serial).shorts(0x1000, {2}).sub(0x4001, cameraZepra());
  CameraBoxes boxes;
  boxes.model = kModel;
  boxes.makerNote = TiffBuilder(kBigEndian).build(cameraIfd0(makerNote, kModel, "1.20.3"));
  boxes.udta = {gyro.build(), compass.build(), gravity.build(), stamps.build()};
  boxes.location = "+35.6586+139.7454+040.000/";
  boxes.sphericalXml = sphericalXmlText("Bench Stitcher 3.1", 0, 0, 90);
  boxes.xmp = xmpText("Bench Editor 1.0");
  return boxes;
}

void makeLong(const std::string& out) {
  mkdir((out + "/long").c_str(), 0755);
  const Bytes movie = encode(
      "-f lavfi -i color=c=gray:size=64x32:rate=30 -f lavfi -i anullsrc=r=48000:cl=mono -t 3600 "
      "-c:v libx264 -preset ultrafast -threads 1 -c:a aac -b:a 16k");
  writeFile(out + "/long/long.mp4", injectCameraBoxes(movie, cameraBoxes(3600.0, "SN00000001")));
}

void makeBatch(const std::string& out) {
  mkdir((out + "/batch").c_str(), 0755);
  const Bytes movie = encode(
      "-f lavfi -i testsrc2=size=3840x1920:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 2 "
      "-c:v libx264 -preset ultrafast -crf 40 -pix_fmt yuv420p -c:a aac -shortest");
  for (int i = 0; i < 200; ++i) {
    char name[64], serial[32];
    std::snprintf(name, sizeof name, "/batch/clip_%03d.mp4", i);
    std::snprintf(serial, sizeof serial, "SN%08d", 1000 + i);
    writeFile(out + name, injectCameraBoxes(movie, cameraBoxes(2.0, serial)));
  }
}

void makeFull(const std::string& out) {
  mkdir((out + "/full").c_str(), 0755);
  const std::string source =
      "-f lavfi -i testsrc2=size=3840x1920:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 3 ";
  writeFile(out + "/full/h264.mp4",
            encode(source + "-c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -shortest"));
  writeFile(out + "/full/h265.mp4",
            encode(source + "-c:v libx265 -preset ultrafast -tag:v hvc1 -x265-params log-level=none "
                            "-pix_fmt yuv420p -c:a aac -shortest"));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <output folder> [long|batch|full ...]\n", argv[0]);
    return 2;
  }
  const std::string out = argv[1];
  mkdir(out.c_str(), 0755);
  std::set<std::string> parts(argv + 2, argv + argc);
  if (parts.empty()) parts = {"long", "batch", "full"};
  if (parts.count("long")) makeLong(out);
  if (parts.count("batch")) makeBatch(out);
  if (parts.count("full")) makeFull(out);
  return 0;
}
