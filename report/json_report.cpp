// The "result: " lines: one JSON object per file, a fixed head printed with
// one format and a tail of the values that are known.
#include <cmath>
#include <cstdint>
#include <cwctype>
#include <sstream>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "report/meta_reader.h"

namespace {

const wchar_t* yesNo(bool value) { return value ? L"true" : L"false"; }

// A bit rate as the report's unsigned 32-bit integer: truncated toward
// zero, wrapped modulo 2^32, and 0 for a value that is not a number (a
// movie header with a zero time scale).
unsigned bitRateField(float rate) {
  if (!std::isfinite(rate)) return 0;
  const double whole = std::trunc(static_cast<double>(rate));
  const double wrapped = std::fmod(whole, 4294967296.0);
  const double positive = wrapped < 0 ? wrapped + 4294967296.0 : wrapped;
  return static_cast<unsigned>(static_cast<uint64_t>(positive));
}

void quotedIfPresent(std::wostringstream& tail, const wchar_t* key, const std::string& text) {
  if (!text.empty()) tail << key << toJsonValueL(text);
}

// The camera record's four texts, which both lines carry first.
void recordTexts(std::wostringstream& tail, const ExifParser::ZEPRA& record) {
  quotedIfPresent(tail, L", \"model\":", record.model);
  quotedIfPresent(tail, L", \"software\":", record.software);
  quotedIfPresent(tail, L", \"cpuVersion\":", record.cpuVersion);
  quotedIfPresent(tail, L", \"cameraSerial\":", record.cameraSerial);
}

// A value that is not finite (absent, or damaged into an infinity) has no
// JSON number and is left out.
void floatIfPresent(std::wostringstream& tail, const wchar_t* key, float value) {
  if (std::isfinite(value)) tail << key << value;
}

constexpr int32_t kAbsent = -1;  // a setting whose tag the maker note lacks

}  // namespace

std::wstring toJsonValueL(const std::string& text) {
  std::string blanked(text.c_str());
  for (char& c : blanked) {
    // Nothing is escaped: what JSON would need escaped becomes a blank, and
    // (signed on purpose) so does every byte above 0x7F.
    if (c == '"' || c == '\\' || c == 0x7F || static_cast<signed char>(c) < 32) c = ' ';
  }
  std::wstring wide = GLTK::wchar::mbs2wcs(blanked);
  while (!wide.empty() && std::iswspace(static_cast<wint_t>(wide.back()))) wide.pop_back();
  return L"\"" + wide + L"\"";
}

const char* MetaReader::typeName() const {
  const int32_t projection = probe.record.projectionType;
  if (projection == ExifParser::PROJECTION_DUAL_FISHEYE) return "dualfish";
  if (projection == ExifParser::PROJECTION_EQUIRECTANGULAR) return "equi";
  // An unknown camera's 2:1 movie.
  if (projection == 0 && probe.cameraVersion == 0 && probe.width / 2 == probe.height) return "equi";
  return "unknown";
}

const char* MetaReader::codecName() const { return probe.codec == 1 ? "H264" : probe.codec == 2 ? "H265" : "unknown"; }

void MetaReader::dumpToJSON() const {
  const ExifParser::ZEPRA record = probe.record;

  std::wostringstream tail;
  recordTexts(tail, record);
  quotedIfPresent(tail, L", \"gps\":", locationText);
  if (frameWidth > 0) tail << L", \"frameWidth\":" << frameWidth;
  if (frameHeight > 0) tail << L", \"frameHeight\":" << frameHeight;
  floatIfPresent(tail, L", \"GSpherical:InitialViewHeadingDegrees\":", viewHeading.heading);
  floatIfPresent(tail, L", \"GSpherical:InitialViewPitchDegrees\":", viewHeading.pitch);
  floatIfPresent(tail, L", \"GSpherical:InitialHorizontalFOVDegrees\":", viewHeading.fov);
  floatIfPresent(tail, L", \"GSpherical:InitialCameraDolly\":", viewHeading.dolly);
  quotedIfPresent(tail, L", \"GSpherical:StitchingSoftware\":", probe.stitchingSoftware);
  quotedIfPresent(tail, L", \"creatorTool\":", probe.creatorTool);
  if (record.adjZenith != kAbsent) tail << L", \"topBottomCorrection\":" << (record.adjZenith == 1 ? "true" : "false");
  if (probe.codec == 1) {
    tail << L", \"dxvaDecodable\":" << (profileIdc == 66 && constrainedSet1Flag ? "true" : "false");
  }
  if (record.stabilize != kAbsent) {
    tail << L", \"directionLocked\":" << (record.stabilizeFlag2 ? "true" : "false");
    tail << L", \"videoStabilization\":" << record.stabilize;
  }
  if (!gravitySamples().empty()) {
    tail << L", \"KDTDSamplingRate\":" << topBottomCorrectionSamplingRate << L", \"KDTBSamplingRate\":"
         << gyroSamplingRate << L", \"KDTCSamplingRate\":" << ecompassSamplingRate;
  }
  if (record.vQuality == 1) tail << L", \"videoQuality\":\"normal\"";
  if (record.vQuality == 2) tail << L", \"videoQuality\":\"fine\"";

  // A movie header with a zero time scale gives a duration that is not
  // finite; like its bit rate, it prints as 0.
  const double duration = std::isfinite(probe.duration) ? probe.duration : 0.0;
  GLTK::Console::out(
      L"result: {\"status\":\"succeed\", \"hasKDTD\":%ls, \"type\":\"%s\", \"codec\":\"%s\", \"decodable\":%ls, "
      L"\"hasSpatialSound\":%ls, \"hasSA3DSound\":%ls, \"duration\":%0.2f, \"videoBitRate\":%u%ls}\n",
      yesNo(!gravitySamples().empty()), typeName(), codecName(), yesNo(probe.width >= 1), yesNo(hasSpatialSound),
      yesNo(hasSA3DSound), duration, bitRateField(probe.videoBitRate), tail.str().c_str());
}

void MetaReader::dumpToJSON_still(bool isDNG) const {
  std::wostringstream tail;
  recordTexts(tail, stillRecord);
  floatIfPresent(tail, L", \"yaw\":", stillRecord.yaw);
  floatIfPresent(tail, L", \"pitch\":", stillRecord.pitch);
  floatIfPresent(tail, L", \"roll\":", stillRecord.roll);
  if (isDNG) tail << L", \"jpeg\":{\"offset\":" << previewOffset << L", \"bytes\":" << previewLength << L"}";
  GLTK::Console::out(L"result: {\"status\":\"succeed\", \"type\":\"%ls\"%ls}\n", isDNG ? L"DNG" : L"JPEG",
                     tail.str().c_str());
}
