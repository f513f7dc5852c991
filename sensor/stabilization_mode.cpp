// The camera's stabilisation setting as a yaw mode.
#include "sensor/yaw_stabilizer.h"

VideoStabilizationMode::MODE VideoStabilizationMode::yawMode(ExifParser::VIDEO_STABILIZATION v) {
  static constexpr MODE kModes[5] = {ENABLED, DISABLED, LOCK_DIR, ENABLED, LOCK_DIR};
  const unsigned k = static_cast<unsigned>(v) & 7;
  return (k >= 1 && k <= 5) ? kModes[k - 1] : DISABLED;
}

const wchar_t* VideoStabilizationMode::yawText(MODE mode) {
  switch (mode) {
    case DISABLED:
      return L"disabled";
    case ENABLED:
      return L"enabled";
    case LOCK_DIR:
      return L"lockDir";
  }
  return L"UNDEF";
}
