// Yaw stabilisation: a per-sample yaw table built either from the camera's
// own yaw corrections (KDTI) or by integrating the gyro log re-anchored on
// gravity; and the stabilisation setting of the maker note mapped to a yaw
// mode.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "exif/camera_model.h"
#include "exif/exif_parser.h"
#include "sensor/sample_loaders.h"

class VideoStabilizationMode {
 public:
  enum MODE : int32_t {
    DISABLED = 0,  // "disabled"
    ENABLED = 1,   // "enabled"
    LOCK_DIR = 2,  // "lockDir": the view keeps one compass direction
  };

  static MODE yawMode(ExifParser::VIDEO_STABILIZATION v);
  // "disabled", "enabled", "lockDir" or "UNDEF".
  static const wchar_t* yawText(MODE mode);
};

class YawStabilizer {
 public:
  // Builds the yaw table: nothing when disabled, the camera's own KDTI
  // values when present, else integrated from KDTB and KDTD (re-timed on
  // KDTG when there is one). False, with a line, when there is nothing to
  // integrate. An integration keeps a reference to the logs until table()
  // runs it, so they must outlive that first call.
  bool init(const SensorLogs& logs, VideoStabilizationMode::MODE mode, int frameRate, bool alternate,
            MetaBuilder::CAMERA_VERSION version);
  // One yaw per gyro sample (radians, relative to the first), resampled
  // onto the gravity samples; the table starts at 0. Drift is removed
  // unless lockDir; alternate negates the vertical and the result.
  void generate(const GLTK::LargeVector<AccelSensorStreamEmbed::Gyro>& gyro, unsigned short gyroRate,
                const GLTK::LargeVector<AccelSensorStreamEmbed::TopBottomCorrection>& gravity, bool lockDir,
                bool alternate, MetaBuilder::CAMERA_VERSION version, unsigned long frameRate);
  // The same integration walked along the gravity samples (no KDTG). The
  // frame rate stands in for the gravity rate when KDTD carries none.
  void generate_by_kdtd(const GLTK::LargeVector<AccelSensorStreamEmbed::Gyro>& gyro, unsigned short gyroRate,
                        const GLTK::LargeVector<AccelSensorStreamEmbed::TopBottomCorrection>& gravity, bool lockDir,
                        bool alternate, MetaBuilder::CAMERA_VERSION version, unsigned long frameRate);

  // The yaw table. An integration that init prepared runs here, on first
  // use: only the gravity dump needs the table, and integrating an hour of
  // gyro samples is the costliest step of reading a movie.
  const std::vector<float>& table();

  std::vector<float> yawTable;  // one value per KDTI record or per gravity sample
  uint16_t samplingRate = 30;   // the KDTD rate once the gravity log is loaded
  float frameRate = 30.0f;

 private:
  struct Integration {
    const SensorLogs* logs;
    unsigned short gyroRate;
    bool byGravity;  // no KDTG: walk the gravity samples
    bool lockDir;
    bool alternate;
    MetaBuilder::CAMERA_VERSION version;
    unsigned long frameRate;
  };
  std::optional<Integration> pending_;
};
