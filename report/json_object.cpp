#include "report/json_object.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>

#include "report/movie_identity.h"
#include "report/spherical.h"
#include "report/xmp_values.h"

namespace {

constexpr int32_t kAbsent = -1;  // a setting whose tag the maker note lacks

void textOrNull(JsonWriter& out, const char* name, const std::string& field) {
  out.textOrNull(name, recordText(field));
}

void positiveOrNull(JsonWriter& out, const char* name, uint64_t number) {
  if (number > 0) {
    out.member(name, number);
  } else {
    out.nullMember(name);
  }
}

// A sensor log in brief: its number of samples, the rate its header gives
// and the times of its first and last samples (null when it has none).
template <class T>
void logSummary(JsonWriter& out, const char* name, const GLTK::LargeVector<T>& records, uint16_t rate) {
  out.key(name).beginObject().member("count", records.size()).member("rate", rate);
  if (records.empty()) {
    out.nullMember("first").nullMember("last");
  } else {
    out.member("first", records.front().t).member("last", records.back().t);
  }
  out.endObject();
}

// The codec of a video sample entry by the names ffprobe gives them.
const char* codecOfSampleEntry(const std::string& entry) {
  const std::pair<const char*, const char*> names[] = {
      {"avc1", "h264"},   {"avc3", "h264"},   {"hvc1", "hevc"},   {"hev1", "hevc"},   {"mp4v", "mpeg4"},
      {"vp09", "vp9"},    {"av01", "av1"},    {"mjpa", "mjpeg"},  {"mjpb", "mjpeg"},  {"jpeg", "mjpeg"},
      {"apch", "prores"}, {"apcn", "prores"}, {"apcs", "prores"}, {"apco", "prores"}, {"ap4h", "prores"}};
  for (const auto& [type, name] : names) {
    if (entry == type) return name;
  }
  return nullptr;
}

// The rotation the track matrix applies, in whole degrees counterclockwise
// as ffprobe reports it (a matrix turning the picture a quarter clockwise
// gives -90).
long rotationOf(const std::array<int32_t, 9>& m) {
  const double scale0 = std::hypot(m[0], m[3]), scale1 = std::hypot(m[1], m[4]);
  if (scale0 == 0 || scale1 == 0) return 0;
  const long degrees = std::lround(-std::atan2(m[1] / scale1, m[0] / scale0) * 180 / M_PI);
  return degrees == 0 ? 0 : degrees;  // never -0
}

void videoMembers(JsonWriter& out, const MetaReader& reader) {
  const MetaReader::VideoTrack& track = reader.videoTrack;
  const Sondex& probe = reader.probe;
  const bool h264 = probe.codec == 1, described = probe.width >= 1;
  out.key("video").beginObject();
  textOrNull(out, "sampleEntry", track.sampleEntry);
  if (const char* codec = codecOfSampleEntry(track.sampleEntry)) {
    out.member("codec", codec);
  } else {
    out.nullMember("codec");
  }
  positiveOrNull(out, "profileIdc", h264 ? reader.profileIdc : 0);
  positiveOrNull(out, "levelIdc", h264 ? track.levelIdc : 0);
  if (h264 && reader.profileIdc > 0) {
    out.member("constrained_set1_flag", reader.constrainedSet1Flag).member("fullRange", reader.fullRange);
  } else {
    out.nullMember("constrained_set1_flag").nullMember("fullRange");
  }
  positiveOrNull(out, "codedWidth", described ? static_cast<uint64_t>(probe.width) : 0);
  positiveOrNull(out, "codedHeight", described ? static_cast<uint64_t>(probe.height) : 0);
  positiveOrNull(out, "displayWidth", reader.frameWidth);
  positiveOrNull(out, "displayHeight", reader.frameHeight);
  out.member("rotation", rotationOf(track.matrix));
  out.member("frameRate", described && probe.frameRate > 0 ? probe.frameRate : NAN);
  // The track's own duration, and its bit rate over it (the result line's
  // is over the movie's duration).
  const bool timed = std::isfinite(track.duration) && track.duration > 0;
  out.member("duration", track.duration).member("bitRate", timed ? std::trunc(track.bytes * 8 / track.duration) : NAN);
  out.endObject();
}

// A number that has a name when it is the one the format defines.
void namedOrNumber(JsonWriter& out, const char* name, uint32_t value, std::initializer_list<const char*> names) {
  if (value < names.size()) {
    out.member(name, names.begin()[value]);
  } else {
    out.member(name, value);
  }
}

void audioMembers(JsonWriter& out, const std::vector<AudioTrack>& tracks) {
  out.key("audio").beginArray();
  for (const AudioTrack& track : tracks) {
    out.beginObject().member("sampleEntry", track.sampleEntry).textOrNull("codec", track.codec);
    out.member("channels", track.channels).member("sampleRate", track.sampleRate);
    out.member("sampleSize", track.sampleSize).member("cameraSpatial", track.cameraSpatial);
    if (track.sa3d) {
      const SpatialAudio& sa3d = *track.sa3d;
      out.key("sa3d").beginObject().member("version", sa3d.version).member("headLockedStereo", sa3d.headLockedStereo);
      namedOrNumber(out, "ambisonicType", sa3d.ambisonicType, {"periphonic"});
      out.member("ambisonicOrder", sa3d.ambisonicOrder);
      namedOrNumber(out, "channelOrdering", sa3d.channelOrdering, {"ACN"});
      namedOrNumber(out, "normalization", sa3d.normalization, {"SN3D", "N3D"});
      out.key("channelMap").beginArray();
      for (const uint32_t channel : sa3d.channelMap) out.value(channel);
      out.endArray().endObject();
    } else {
      out.nullMember("sa3d");
    }
    out.endObject();
  }
  out.endArray();
}

void settingOrNull(JsonWriter& out, const char* name, int32_t value) {
  if (value != kAbsent) {
    out.member(name, value);
  } else {
    out.nullMember(name);
  }
}

// Every field of the camera's record, as read from its maker note (the
// result line shows some of them, some turned into other words).
void makerNoteMembers(JsonWriter& out, const ExifParser::ZEPRA& record) {
  out.key("makerNote").beginObject().member("projectionType", record.projectionType).member("hdr", record.hdr);
  out.member("yaw", record.yaw).member("pitch", record.pitch).member("roll", record.roll);
  out.member("aAcc", record.aAcc).member("compass", record.compass);
  settingOrNull(out, "topBottomCorrection", record.adjZenith);
  settingOrNull(out, "videoStabilization", record.stabilize);
  settingOrNull(out, "rollingShutterCorrection", record.adjRs);
  out.member("stabilizeFlag1", record.stabilizeFlag1).member("directionLocked", record.stabilizeFlag2);
  out.member("stabilizeEnabled", record.stabilizeEnabled).member("videoQuality", record.vQuality);
  const ExifParser::ZEPRA::STITCHING& stitching = record.stitching;
  out.key("stitching").beginObject().member("valid", stitching.isValid());
  out.member("convertVersion", stitching.convertVersion);
  for (const auto& [name, point] :
       {std::pair{"fishImgCenter", stitching.fishImgCenter}, std::pair{"fishMovCenter", stitching.fishMovCenter}}) {
    out.key(name).beginArray().value(point[0]).value(point[1]).endArray();
  }
  out.member("samplingRate", stitching.samplingRate).endObject().endObject();
}

void recordTexts(JsonWriter& out, const ExifParser::ZEPRA& record) {
  textOrNull(out, "model", record.model);
  textOrNull(out, "software", record.software);
  textOrNull(out, "cpuVersion", record.cpuVersion);
  textOrNull(out, "cameraSerial", record.cameraSerial);
}

}  // namespace

std::string recordText(const std::string& field) {
  std::string text(field.c_str());
  while (!text.empty() && std::strchr(" \t\r\n\f\v", text.back()) != nullptr) text.pop_back();
  return text;
}

void movieMembers(JsonWriter& out, const MetaReader& reader) {
  const Sondex& probe = reader.probe;
  const ExifParser::ZEPRA& record = probe.record;
  const bool hasKDTD = !reader.gravitySamples().empty();
  out.member("hasKDTD", hasKDTD).member("type", reader.typeName()).member("codec", reader.codecName());
  out.member("decodable", probe.width >= 1);
  out.member("hasSpatialSound", reader.hasSpatialSound).member("hasSA3DSound", reader.hasSA3DSound);
  out.member("duration", probe.duration);
  // Bits per second over the movie's duration, whole: the result line's
  // value without its 32-bit wrap.
  out.member("videoBitRate", std::trunc(static_cast<double>(probe.videoBitRate)));
  recordTexts(out, record);
  textOrNull(out, "gps", reader.locationText);
  positiveOrNull(out, "frameWidth", reader.frameWidth);
  positiveOrNull(out, "frameHeight", reader.frameHeight);
  out.member("GSpherical:InitialViewHeadingDegrees", reader.viewHeading.heading);
  out.member("GSpherical:InitialViewPitchDegrees", reader.viewHeading.pitch);
  out.member("GSpherical:InitialHorizontalFOVDegrees", reader.viewHeading.fov);
  out.member("GSpherical:InitialCameraDolly", reader.viewHeading.dolly);
  textOrNull(out, "GSpherical:StitchingSoftware", probe.stitchingSoftware);
  textOrNull(out, "creatorTool", probe.creatorTool);
  if (record.adjZenith != kAbsent) {
    out.member("topBottomCorrection", record.adjZenith == 1);
  } else {
    out.nullMember("topBottomCorrection");
  }
  if (probe.codec == 1) {
    out.member("dxvaDecodable", reader.profileIdc == 66 && reader.constrainedSet1Flag);
  } else {
    out.nullMember("dxvaDecodable");
  }
  if (record.stabilize != kAbsent) {
    out.member("directionLocked", record.stabilizeFlag2).member("videoStabilization", record.stabilize);
  } else {
    out.nullMember("directionLocked").nullMember("videoStabilization");
  }
  const std::pair<const char*, uint16_t> rates[] = {{"KDTDSamplingRate", reader.topBottomCorrectionSamplingRate},
                                                    {"KDTBSamplingRate", reader.gyroSamplingRate},
                                                    {"KDTCSamplingRate", reader.ecompassSamplingRate}};
  for (const auto& [name, rate] : rates) {
    if (hasKDTD) {
      out.member(name, rate);
    } else {
      out.nullMember(name);
    }
  }
  if (record.vQuality == 1 || record.vQuality == 2) {
    out.member("videoQuality", record.vQuality == 1 ? "normal" : "fine");
  } else {
    out.nullMember("videoQuality");
  }
  identityMembers(out, reader);
  if (probe.hasMakerNote) {
    makerNoteMembers(out, record);
  } else {
    out.nullMember("makerNote");
  }
  const SensorLogs& logs = reader.sensorLogs;
  out.key("sensors").beginObject();
  logSummary(out, "gyro", logs.gyro.records, logs.gyro.samplingRate);
  logSummary(out, "compass", logs.compass.records, logs.compass.samplingRate);
  logSummary(out, "gravity", reader.gravitySamples(), logs.gravity.samplingRate);
  out.endObject();
  if (reader.orientationKnown) {
    out.key("orientation").beginObject().member("upsideDown", reader.upsideDown);
    out.member("frontReversed", reader.frontReversed).endObject();
  } else {
    out.nullMember("orientation");
  }
  sphericalMembers(out, reader);
  videoMembers(out, reader);
  audioMembers(out, reader.audioTracks);
  // The description's nominal frame rate, which the result line never shows.
  if (probe.width >= 1 && probe.frameRate > 0) {
    out.member("frameRate", probe.frameRate);
  } else {
    out.nullMember("frameRate");
  }
}

void stillMembers(JsonWriter& out, const MetaReader& reader, bool isDNG) {
  out.member("type", isDNG ? "DNG" : "JPEG");
  recordTexts(out, reader.stillRecord);
  out.member("yaw", reader.stillRecord.yaw).member("pitch", reader.stillRecord.pitch);
  out.member("roll", reader.stillRecord.roll);
  makerNoteMembers(out, reader.stillRecord);
  // The panorama pose an editing tool may have put into the still's XMP,
  // each property looked up once.
  const std::pair<const char*, const char*> pano[] = {{"GPano:ProjectionType", "projectionType"},
                                                      {"GPano:PoseHeadingDegrees", "poseHeadingDegrees"},
                                                      {"GPano:PosePitchDegrees", "posePitchDegrees"},
                                                      {"GPano:PoseRollDegrees", "poseRollDegrees"}};
  std::string values[std::size(pano)];
  bool hasPano = false;
  for (size_t i = 0; i < std::size(pano); ++i) {
    values[i] = xmpValue(reader.stillXmp, pano[i].first);
    hasPano = hasPano || !values[i].empty();
  }
  if (hasPano) {
    out.key("gpano").beginObject();
    textOrNull(out, pano[0].second, values[0]);
    for (size_t i = 1; i < std::size(pano); ++i) {
      char* end = nullptr;
      const double value = values[i].empty() ? NAN : std::strtod(values[i].c_str(), &end);
      // A value that does not read whole as a number is null.
      out.member(pano[i].second, end != nullptr && *end == '\0' ? value : NAN);
    }
    out.endObject();
  } else {
    out.nullMember("gpano");
  }
  if (isDNG) {
    out.key("jpeg").beginObject().member("offset", reader.previewOffset).member("bytes", reader.previewLength);
    out.endObject();
  } else {
    out.nullMember("jpeg");
  }
}
