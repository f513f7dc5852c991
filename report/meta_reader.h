// MetaReader: everything read from one file, for its report line and its
// sensor dump files. One reader serves one request and is then destroyed.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "exif/exif_parser.h"
#include "report/audio_tracks.h"
#include "report/movie_identity.h"
#include "report/sondex_probe.h"
#include "report/spherical.h"
#include "report/view_heading.h"
#include "sensor/sample_loaders.h"
#include "sensor/yaw_stabilizer.h"

class MetaReader {
 public:
  // Movies. False when the movie cannot be read or cannot be described.
  // forJson: for the --json object, which also reads the video and audio
  // tracks, identity and spherical metadata, and goes on without a
  // description when the file has a movie box.
  bool parse(const wchar_t* path, bool forJson = false);
  void dumpToJSON() const;
  // The report's "type" (projection) and "codec" texts.
  const char* typeName() const;
  const char* codecName() const;
  void readVideoTrack(const MP4::Container& movie);
  template <class T>
  bool dumpXYZT(const GLTK::LargeVector<T>& samples, const std::wstring& path,
                std::function<void(std::ostream&)> extra);

  // The three sample streams of the report and the dump files: gyro and
  // compass as recorded, gravity re-timed on KDTG.
  const GLTK::LargeVector<AccelSensorStreamEmbed::Gyro>& gyroSamples() const { return sensorLogs.gyro.records; }
  const GLTK::LargeVector<AccelSensorStreamEmbed::Ecompass>& compassSamples() const {
    return sensorLogs.compass.records;
  }
  const GLTK::LargeVector<AccelSensorStreamEmbed::TopBottomCorrection>& gravitySamples() const {
    return sensorLogs.retimed;
  }

  // Stills.
  bool parse_JPEG(const wchar_t* path, bool dump);
  bool parse_DNG(const wchar_t* path, bool dump);
  void dumpToJSON_still(bool isDNG) const;

  std::wstring path;
  Sondex probe;
  // Read once from the movie, before anything is written: the analysis, the
  // yaw table and the dump files all work from this snapshot.
  SensorLogs sensorLogs;
  uint16_t gyroSamplingRate = 0;
  uint16_t ecompassSamplingRate = 0;
  uint16_t topBottomCorrectionSamplingRate = 0;
  YawStabilizer yawStabilizer;
  // The orientation verdicts the reader prints ("rev-up/down", "rev-front"),
  // when the gravity and compass logs allowed the analysis.
  bool orientationKnown = false;
  bool upsideDown = false;
  bool frontReversed = false;
  std::string sphericalText;
  ViewHeading viewHeading;
  SphericalVideo spherical;  // the XML packet and the sample entry's boxes
  std::string locationText;
  uint32_t frameWidth = 0;
  uint32_t frameHeight = 0;
  bool hasSpatialSound = false;
  uint8_t profileIdc = 0;
  bool constrainedSet1Flag = false;
  bool fullRange = false;
  bool hasSA3DSound = false;
  // The video track (the last whose header gives a width) on its own.
  struct VideoTrack {
    std::string sampleEntry;  // the type of its first sample entry ("avc1", "hvc1"...)
    uint8_t levelIdc = 0;     // from the avcC record
    std::array<int32_t, 9> matrix{};
    double duration = NAN;  // seconds, from its media header
    uint64_t bytes = 0;     // of its samples
  } videoTrack;
  std::vector<AudioTrack> audioTracks;
  MovieIdentity identity;  // location, model, creation time, fragmented duration
  bool hasMovieBox = false;
  bool hasVideoTrack = false;  // a track whose header gives a width

  // The still's camera record and, for DNG, where the embedded JPEG preview
  // and the two stitching tables lie.
  ExifParser::ZEPRA stillRecord;
  // Why the last still could not be read: the Exif walker's message, or a
  // few words on the file; empty after a success.
  std::string stillFailure;
  // A JPEG's XMP packet, when its head carries one.
  std::string stillXmp;
  uint32_t previewOffset = 0;
  uint32_t previewLength = 0;
  uint32_t affineTable1Offset = 0;
  uint32_t affineTable1Length = 0;
  uint32_t affineTable2Offset = 0;
  uint32_t affineTable2Length = 0;
};

// Widens and blanks a text for the report: double quotes, backslashes and
// control bytes (and, as signed bytes, everything above 0x7F) become
// blanks; trailing white space is trimmed; the result is in double quotes.
std::wstring toJsonValueL(const std::string& text);
