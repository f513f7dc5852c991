// Reading one movie: the probe first, then, when the movie can be
// described, its sensor logs, yaw table, view settings, location, frame
// size, spatial-audio flags and avcC flags.
#include "report/meta_reader.h"

#include <limits>
#include <stdexcept>

#include "gltk/console.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"

namespace {

constexpr MP4::UUID::Usertype kSphericalVideo = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                                 0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};

}  // namespace

bool MetaReader::parse(const wchar_t* file) {
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
  dropSamples();

  // While the movie is being described on another thread, the boxes are
  // read and the sensor logs loaded and analysed here, ahead of time. What
  // that prints is held back and written, in its place after the probe's
  // own lines, only when the movie turns out readable; otherwise it is
  // dropped with the samples, as if it had never been read.
  probe.start(path);
  GLTK::Console::Capture opening;
  MP4::Container movie;
  const bool opened = movie.attach(path, ~0ULL);
  const std::string openingText = opening.release();
  GLTK::Console::Capture ahead;
  AccelSensorStreamEmbed sensors;
  if (opened) {
    gyroLog_ = AccelSensorStreamEmbed::openLog<AccelSensorStreamEmbed::Gyro>(
        movie, "KDTB", AccelSensorStreamEmbed::swap_xyzt<AccelSensorStreamEmbed::Gyro>);
    gyroSamplingRate = gyroLog_->samplingRate;
    compassLog_ = AccelSensorStreamEmbed::openLog<AccelSensorStreamEmbed::Ecompass>(
        movie, "KDTC", AccelSensorStreamEmbed::swap_xyzt<AccelSensorStreamEmbed::Ecompass>);
    ecompassSamplingRate = compassLog_->samplingRate;
    gravity_ = AccelSensorStreamEmbed::retimedGravity(movie);
    topBottomCorrectionSamplingRate = gravity_->samplingRate;
    // Its divisor only fills fields nothing here reads, so it need not
    // wait for the pace, which comes with the movie's description.
    sensors.loadGen2(movie, 30);
  }
  const std::string aheadText = ahead.release();
  const bool ok = probe.finish();
  GLTK::Console::write(openingText);
  if (!opened || !ok) {
    dropSamples();
    return ok;
  }
  GLTK::Console::write(aheadText);

  // Sensor logs are paced at 30 or 15 per second depending on the movie.
  const int pace = probe.frameRate > 29.0f ? 30 : 15;
  const auto mode =
      VideoStabilizationMode::yawMode(static_cast<ExifParser::VIDEO_STABILIZATION>(probe.record.stabilize));
  // An upside-down camera turns the other way about the vertical axis.
  yawStabilizer.init(movie, mode, pace, sensors.reversed, probe.cameraVersion);

  movie.find("moov.trak.uuid", [&](MP4::BOX& box) {
    const auto* uuid = dynamic_cast<const MP4::UUID*>(&box);
    if (uuid == nullptr || box.size < 24 || uuid->usertype != kSphericalVideo) return true;
    sphericalText = uuid->payloadText();
    viewHeading.attach(sphericalText);
    return true;
  });
  movie.find("moov.udta.@xyz", [&](MP4::BOX& box) {
    if (box.size >= 10) movie.readPayload(box, locationText);
    return true;
  });
  bool sized = false;
  movie.find("moov.trak.tkhd", [&](MP4::BOX& box) {
    const auto& tkhd = static_cast<MP4::TKHD&>(box);
    if (sized || tkhd.width == 0 || tkhd.height == 0) return true;
    frameWidth = tkhd.width;
    frameHeight = tkhd.height;
    sized = true;
    return false;
  });
  movie.find("uuid", [&](MP4::BOX& box) {
    const auto* uuid = dynamic_cast<const MP4::UUID*>(&box);
    if (uuid == nullptr || !uuid->hasChild()) return true;
    static_cast<MP4::NestedBox&>(box).find("KATR.tkhd", [&](MP4::BOX&) {
      hasSpatialSound = true;
      return true;
    });
    return true;
  });
  movie.find("moov.trak.mdia.minf.stbl.stsd.sowt.SA3D", [&](MP4::BOX&) {
    hasSA3DSound = true;
    return true;
  });
  movie.find("moov.trak.mdia.minf.stbl.stsd.avc1.avcC", [&](MP4::BOX& box) {
    try {
      static_cast<MP4::AVCC&>(box).get_profile_idc_and_constrained_set1_flag(profileIdc, constrainedSet1Flag,
                                                                            fullRange);
    } catch (const std::out_of_range&) {
      // A record without any SPS: the flags stay unknown.
    }
    return true;
  });
  return ok;
}

void MetaReader::dropSamples() {
  gyro.clear();
  ecompass.clear();
  topBottomCorrection.clear();
  gyroLog_.reset();
  compassLog_.reset();
  gravity_.reset();
  gyroSamplingRate = ecompassSamplingRate = topBottomCorrectionSamplingRate = 0;
}

const std::vector<AccelSensorStreamEmbed::Gyro>& MetaReader::gyroSamples() const {
  return gyroLog_ ? gyroLog_->records() : gyro;
}

const std::vector<AccelSensorStreamEmbed::Ecompass>& MetaReader::compassSamples() const {
  return compassLog_ ? compassLog_->records() : ecompass;
}

const std::vector<AccelSensorStreamEmbed::TopBottomCorrection>& MetaReader::gravitySamples() const {
  return gravity_ ? gravity_->samples : topBottomCorrection;
}
