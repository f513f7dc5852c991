// Reading one movie, in the order of its console lines: the probe first,
// then, when the movie can be described, its sensor logs, yaw table, view
// settings, location, frame size, spatial-audio flags and avcC flags.
#include "report/meta_reader.h"

#include <limits>
#include <stdexcept>

#include "gltk/console.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "sensor/orientation.h"

namespace {

constexpr MP4::UUID::Usertype kSphericalVideo = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                                 0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};

}  // namespace

void MetaReader::readVideoTrack(const MP4::Container& movie) {
  videoTrack = VideoTrack();
  const auto* track = dynamic_cast<const MP4::NestedBox*>(movie.videoTrak);
  if (track == nullptr) return;
  MP4::findAs<MP4::TKHD>(*track, "tkhd", [&](MP4::TKHD& tkhd) { return videoTrack.matrix = tkhd.matrix, false; });
  MP4::findAs<MP4::MDHD>(*track, "mdia.mdhd", [&](MP4::MDHD& mdhd) {
    if (mdhd.timeScale > 0) videoTrack.duration = static_cast<double>(mdhd.duration) / mdhd.timeScale;
    return false;
  });
  MP4::findAs<MP4::NestedBox>(*track, "mdia.minf.stbl.stsd", [&](MP4::NestedBox& stsd) {
    if (!stsd.children.empty())
      videoTrack.sampleEntry.assign(stsd.children[0]->type.begin(), stsd.children[0]->type.end());
    return false;
  });
  MP4::findAs<MP4::STSZ>(*track, "mdia.minf.stbl.stsz",
                         [&](MP4::STSZ& stsz) { return videoTrack.bytes = stsz.sample_total, false; });
  MP4::findAs<MP4::AVCC>(*track, "mdia.minf.stbl.stsd.avc1.avcC", [&](MP4::AVCC& avcc) {
    if (avcc.payload.size() > 3) videoTrack.levelIdc = avcc.payload[3];
    return false;
  });
}

bool MetaReader::parse(const wchar_t* file, bool forJson) {
  path = file;
  sphericalText.clear();
  locationText.clear();
  viewHeading = ViewHeading();
  frameWidth = frameHeight = 0;
  hasSpatialSound = false;
  profileIdc = 0;
  constrainedSet1Flag = false;
  fullRange = false;
  hasSA3DSound = false;
  sensorLogs = SensorLogs();
  yawStabilizer = YawStabilizer();
  gyroSamplingRate = ecompassSamplingRate = topBottomCorrectionSamplingRate = 0;
  orientationKnown = upsideDown = frontReversed = false;
  videoTrack = VideoTrack();
  audioTracks.clear();
  identity = MovieIdentity();
  spherical = SphericalVideo();

  MP4::Container movie;
  const bool ok = probe.probe(path, movie);
  hasMovieBox = movie.moov != nullptr;
  hasVideoTrack = movie.videoTrak != nullptr;
  if (!ok && (!forJson || movie.moov == nullptr)) {
    // A movie that cannot be opened is tried once more, and says so again.
    if (movie.root == nullptr) movie.attach(path, ~0ULL);
    return false;
  }

  // The sensor logs, read once; each step then takes what it needs in
  // turn: the three streams of the report, the orientation analysis, the
  // yaw table. The logs are paced at 30 or 15 per second with the movie.
  sensorLogs = SensorLogs::read(movie);
  sensorLogs.gyro.load();
  sensorLogs.compass.load();
  sensorLogs.loadRetimed();
  gyroSamplingRate = sensorLogs.gyro.samplingRate;
  ecompassSamplingRate = sensorLogs.compass.samplingRate;
  topBottomCorrectionSamplingRate = sensorLogs.gravity.samplingRate;
  const int pace = probe.frameRate > 29.0f ? 30 : 15;
  AccelSensorStreamEmbed sensors;
  orientationKnown = sensors.loadGen2(sensorLogs, pace);
  upsideDown = sensors.reversed;
  frontReversed = sensors.frontReversed;
  const auto mode =
      VideoStabilizationMode::yawMode(static_cast<ExifParser::VIDEO_STABILIZATION>(probe.record.stabilize));
  // An upside-down camera turns the other way about the vertical axis.
  yawStabilizer.init(sensorLogs, mode, pace, sensors.reversed, probe.cameraVersion);

  MP4::findAs<MP4::UUID>(movie, "moov.trak.uuid", [&](MP4::UUID& uuid) {
    if (uuid.size < 24 || uuid.usertype != kSphericalVideo) return true;
    sphericalText = uuid.payloadText();
    viewHeading.attach(sphericalText);
    return true;
  });
  movie.find("moov.udta.@xyz", [&](MP4::BOX& box) {
    if (box.size >= 10) movie.readPayload(box, locationText);
    return true;
  });
  bool sized = false;
  MP4::findAs<MP4::TKHD>(movie, "moov.trak.tkhd", [&](MP4::TKHD& tkhd) {
    if (sized || tkhd.width == 0 || tkhd.height == 0) return true;
    frameWidth = tkhd.width;
    frameHeight = tkhd.height;
    sized = true;
    return false;
  });
  MP4::findAs<MP4::UUID>(movie, "uuid", [&](MP4::UUID& uuid) {
    if (!uuid.hasChild()) return true;
    uuid.find("KATR.tkhd", [&](MP4::BOX&) {
      hasSpatialSound = true;
      return true;
    });
    return true;
  });
  movie.find("moov.trak.mdia.minf.stbl.stsd.sowt.SA3D", [&](MP4::BOX&) {
    hasSA3DSound = true;
    return true;
  });
  // What only the --json object shows: the result line and its messages
  // are the same without it, and a request costs no more.
  if (forJson) {
    readVideoTrack(movie);
    audioTracks = readAudioTracks(movie);
    identity = readMovieIdentity(movie, probe.xmpPacket);
    spherical = readSphericalVideo(movie, sphericalText);
  }
  MP4::findAs<MP4::AVCC>(movie, "moov.trak.mdia.minf.stbl.stsd.avc1.avcC", [&](MP4::AVCC& avcc) {
    try {
      avcc.get_profile_idc_and_constrained_set1_flag(profileIdc, constrainedSet1Flag, fullRange);
    } catch (const std::out_of_range&) {
      // A record without any SPS: the flags stay unknown.
    }
    return true;
  });
  return true;
}
