// Writes the seed inputs of the fuzz targets, made with the test fixture
// builders: small camera-like movies, avcC records of several profiles,
// Exif blocks in each form the walker is handed, and sensor logs. Needs
// Debian's ffmpeg for the movies.
//
//   make_fuzz_seeds <corpus folder>      (writes <folder>/<target>/seed-*)
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/h264/fixtures.h"
#include "tests/support/camera_movie.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"
#include "tests/support/sensor_boxes.h"
#include "tests/support/tiff_builder.h"

using namespace sondex::test;

namespace {

std::string g_root;

void seed(const std::string& target, const std::string& name, const Bytes& bytes) {
  const std::string folder = g_root + "/" + target;
  std::filesystem::create_directories(folder);
  writeFile(folder + "/seed-" + name, bytes);
}

Bytes prefixed(uint8_t control, const Bytes& bytes) {
  Bytes out{control};
  out.insert(out.end(), bytes.begin(), bytes.end());
  return out;
}

Bytes toBytes(const ByteArray& a) { return Bytes(a.data(), a.data() + a.size()); }

// The avcC payload of a movie's first video track.
Bytes avccOf(const Bytes& movie) {
  const std::string code = "avcC";
  for (size_t i = 4; i + 4 <= movie.size(); ++i) {
    if (std::equal(code.begin(), code.end(), movie.begin() + static_cast<long>(i))) {
      const size_t size =
          size_t{movie[i - 4]} << 24 | size_t{movie[i - 3]} << 16 | size_t{movie[i - 2]} << 8 | movie[i - 1];
      return Bytes(movie.begin() + static_cast<long>(i + 4), movie.begin() + static_cast<long>(i - 4 + size));
    }
  }
  return {};
}

// An avcC record around one SPS given as bits, with a two-byte PPS.
Bytes record(unsigned profile, const std::string& spsBits) {
  const ByteArray sps = fromBits(spsBits);
  ByteWriter w;
  w.u8(1).u8(static_cast<uint8_t>(profile)).u8(0).u8(30).u8(0xFF).u8(0xE1);
  w.u16(static_cast<uint16_t>(sps.size())).bytes(toBytes(sps));
  w.u8(1).u16(2).bytes({0x68, 0xCE});
  return w.data();
}

// ftyp, the media data, then a movie box with one 64 x 32 video track at
// 29.97 frames a second whose avcC holds the record, more boxes inside the
// movie box, and more boxes at the end.
Bytes handMadeMovie(const Bytes& avcc, const Bytes& moreInMoov, const Bytes& moreAtEnd = {}) {
  const Bytes tables =
      concat({Box::full("stts", 0, 0).u32(1).u32(3).u32(1001).build(),
              Box::full("stsc", 0, 0).u32(1).u32(1).u32(3).u32(1).build(),
              Box::full("stsz", 0, 0).u32(0).u32(3).u32(16).u32(8).u32(8).build(),
              Box::full("stco", 0, 0).u32(1).u32(28).build(), Box::full("co64", 0, 0).u32(1).u64(28).build()});
  const Box stsd = Box::full("stsd", 0, 0).u32(1).child(avc1(64, 32).child(Box("avcC").bytes(avcc)));
  const Bytes moov =
      Box("moov").child(mvhd(1000, 100)).child(videoTrak(64, 32, stsd, tables)).bytes(moreInMoov).build();
  return concat(
      {Box("ftyp").str("isom").u32(0x200).str("isom").build(), Box("mdat").zeros(32).build(), moov, moreAtEnd});
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
    return 2;
  }
  g_root = argv[1];
  const std::string model = "KORVU ZEPRA LM4";
  const Bytes tiff = TiffBuilder(kBigEndian).build(cameraIfd0(cameraMakerNote(), model, "1.20.3"));

  // A short sensor log: a tilted camera turning at 30 degrees a second.
  const SensorLog log = turningCamera(0.2, 30.0 * M_PI / 180.0, 0.3, 100, 30);
  SampleBox gyro("KDTB"), compass("KDTC"), gravity("KDTD"), stamps("KDTG");
  gyro.rate(log.gyroRate).add(log.gyro);
  compass.rate(log.gravityRate).add(log.compass);
  gravity.rate(log.gravityRate).add(log.gravity);
  stamps.rate(log.gravityRate).add(log.stamps);
  SampleBox bigGyro("KDTB", kBigEndian), bigGravity("KDTD", kBigEndian);
  bigGyro.rate(log.gyroRate).add(log.gyro);
  bigGravity.rate(log.gravityRate).add(log.gravity);
  SampleBox corrections("KDTI"), quaternions("KDTH");
  corrections.rate(30)
      .add(YawCorrection{0.1f, 0.2f, -0.1f, -0.2f, 1000})
      .add(YawCorrection{0.3f, 0.4f, -0.3f, -0.4f, 2000});
  quaternions.rate(30).add(Orientation{1, 0, 0, 0, 1000});

  // Movies: small ffmpeg movies with the camera's boxes, and hand-made ones
  // whose SPS makes the -set1 rewrite take place (profile 66,
  // constraint_set1_flag 0).
  const Bytes baseline = ffmpegMovie("-vf scale=64:32 -c:v libx264 -profile:v baseline -pix_fmt yuv420p -crf 51", 0.1);
  const Bytes high = ffmpegMovie("-vf scale=64:32 -c:v libx264 -profile:v high -pix_fmt yuv420p -crf 51", 0.1);
  CameraBoxes boxes;
  boxes.model = model;
  boxes.makerNote = tiff;
  boxes.udta = {gyro.build(), compass.build(), gravity.build(), stamps.build()};
  boxes.location = "+35.6586+139.7454+040.000/";
  boxes.sphericalXml = sphericalXmlText("Sondex Seed Stitcher", 90, 0, 90);
  boxes.xmp = xmpText("Sondex seed maker");
  const Bytes camera = injectCameraBoxes(baseline, boxes);
  const Bytes set1Able = injectCameraBoxes(handMadeMovie(record(66, sps::baseline("", "1000")), {}), boxes);
  // Every typed box the tree knows.
  const Bytes typed = handMadeMovie(
      record(66, sps::baseline(sps::kFullVui, "0000")),
      concat(
          {Box("udta")
               .child(Box("loci").zeros(8).fixed(139.5).fixed(-35.25).fixed(12.0))
               .child(Box("\xA9xyz").u16(26).u16(0x15C7).str("+35.6586+139.7454+040.000/"))
               .child(Box("@mod").str(model))
               .build(),
           Box("trak")
               .child(tkhd(0, 0))
               .child(
                   Box("mdia")
                       .child(mdhd(48000, 48000))
                       .child(Box("minf").child(Box("stbl").child(
                           Box::full("stsd", 0, 0).u32(1).child(Box("sowt").zeros(28).child(Box("SA3D").zeros(4)))))))
               .build()}),
      concat(
          {Box("meta").u32(0).child(Box("hdlr").zeros(8).str("mdir").zeros(12).str("name").u8(0)).build(),
           Box("uuid")
               .bytes({0x28, 0xF3, 0x11, 0xE2, 0xB7, 0x91, 0x4F, 0x6F, 0x94, 0xE2, 0x4F, 0x5D, 0xEA, 0xCB, 0x3C, 0x01})
               .child(Box("KATR").child(tkhd(0, 0)).child(Box("mdia").child(mdhd(48000, 48000))))
               .build(),
           Box("uuid").bytes(xmpUsertype()).str(xmpText("Sondex seed maker")).build(),
           Box("free").largeSize().zeros(8).build()}));
  seed("mp4_container_fuzzer", "camera-movie", camera);
  seed("mp4_container_fuzzer", "high-profile-movie", high);
  seed("mp4_container_fuzzer", "typed-boxes", typed);

  // avcC records.
  seed("h264_avcc_fuzzer", "baseline-movie", avccOf(baseline));
  seed("h264_avcc_fuzzer", "high-movie", avccOf(high));
  seed("h264_avcc_fuzzer", "baseline-full-vui", record(66, sps::baseline(sps::kFullVui, "0000")));
  seed("h264_avcc_fuzzer", "high-scaling-lists",
       record(100, sps::header(100) + "010 1 1 0 1 " +  // 4:2:0, 8 bits, scaling matrix present
                       "1 000010010 " +                 // list 0: delta -8 ends it at once
                       "1 " + std::string(16, '1') +    // list 1: sixteen zero deltas
                       " 000000 " + sps::kBody + sps::tail()));
  seed("h264_avcc_fuzzer", "poc-type-1",
       record(66, sps::header(66) + "1 010 0 011 010 011 1 010 011 " + "0 000010100 0001111 1 1 0 " + sps::tail()));

  // Exif blocks: a maker-note box (TIFF, little-endian TIFF, bare maker
  // note), a JPEG and a DNG (without the header the reader adds).
  Bytes jpeg = jpegWithExif(tiff, {jpegSegment(0xFFE0, ByteWriter().str("JFIF").zeros(10).data())});
  seed("exif_attach_fuzzer", "maker-note-box", tiff);
  seed("exif_attach_fuzzer", "little-endian", TiffBuilder(kLittleEndian).build(cameraIfd0()));
  seed("exif_attach_fuzzer", "bare-maker-note", TiffBuilder(kBigEndian).buildMakerNote(cameraMakerNote()));
  seed("exif_attach_fuzzer", "jpeg", jpeg);
  const Bytes dng = TiffBuilder(kBigEndian).build(cameraDngIfd0(previewIfd(Bytes{0xFF, 0xD8, 0xFF, 0xD9})));
  seed("exif_attach_fuzzer", "dng", dng);

  // Sensor logs: the control byte (yaw mode, pace), then moov.udta's content.
  const Bytes little = concat({gyro.build(), compass.build(), gravity.build(), stamps.build()});
  seed("sensor_loader_fuzzer", "gen3-log", prefixed(0x05, little));
  seed("sensor_loader_fuzzer", "gen2-big-endian",
       prefixed(0x06, concat({bigGyro.build(), compass.build(), bigGravity.build()})));
  seed("sensor_loader_fuzzer", "yaw-corrections",
       prefixed(0x01, concat({compass.build(), gravity.build(), corrections.build(), quaternions.build()})));

  // The whole program: the control byte (mode, name, options), then the file.
  seed("cli_process_file_fuzzer", "movie", prefixed(0x00, set1Able));
  seed("cli_process_file_fuzzer", "movie-set1-dump-sensors", prefixed(0x38, set1Able));
  seed("cli_process_file_fuzzer", "movie-request", prefixed(0x21, set1Able));
  seed("cli_process_file_fuzzer", "jpeg-dump", prefixed(0x12, jpeg));
  seed("cli_process_file_fuzzer", "dng-request", prefixed(0x05, dng));
  return 0;
}
