// The camera record: model and firmware from IFD0, version and serial from
// the maker-note IFD, and shot attitude, correction, stabilisation and
// stitching settings from the product IFD inside the maker note.
#include <cmath>
#include <limits>

#include "exif/exif_parser.h"
#include "gltk/console.h"

namespace {

constexpr uint16_t kTypeShort = 3;
constexpr uint16_t kTypeRational = 5;
constexpr uint16_t kTypeSRational = 10;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

}  // namespace

ExifParser::ZEPRA::ZEPRA() { clear(); }

void ExifParser::ZEPRA::clear() {
  // model and software stay: they come from IFD0, which a bare maker note
  // does not have, so a reused record keeps those of its previous use.
  cpuVersion.clear();
  cameraSerial.clear();
  projectionType = PROJECTION_UNKNOWN;
  hdr = 0;
  roll = pitch = yaw = kNaN;
  aAcc = 0;
  compass = kNaN;
  adjZenith = TOPBOTTOM_CORRECTION_ABSENT;
  stabilize = VIDEO_STABILIZATION_ABSENT;
  adjRs = RS_CORRECTION_ABSENT;
  stabilizeFlag1 = stabilizeFlag2 = stabilizeEnabled = false;
  vQuality = 0;
  stitching = STITCHING();
}

void ExifParser::ZEPRA::attachCompass() {
  const float pi = 3.1415927f;
  const float pr = pitch * pi / 180.0f;
  const float rr = pi * roll / 180.0f;
  float a;
  if (pitch < -45.0f) {
    a = std::atan2(-std::sin(rr), std::cos(rr) * std::sin(pr));
  } else if (pitch > 45.0f) {
    a = std::atan2(std::sin(rr), -std::sin(pr) * std::cos(rr));
  } else {
    // Near upright (and when the attitude is unknown) the compass reads true.
    compass = yaw;
    return;
  }
  compass = std::fmod(a * 180.0f / -pi + yaw + 180.0f, 360.0f);
}

bool ExifParser::ZEPRA::STITCHING::isValid() const {
  return convertVersion >= 0 && fishImgCenter[0] > 0 && fishImgCenter[1] > 0 && fishMovCenter[0] > 0 &&
         fishMovCenter[1] > 0 && samplingRate > 0;
}

void ExifParser::ZEPRA::dump() const {
  using GLTK::Console;
  Console::out(L"\n");
  Console::out(L"   model: %s\n", model.c_str());
  Console::out(L"software: %s\n", software.c_str());
  Console::out(L"     ver: %s\n", cpuVersion.c_str());
  Console::out(L"     S/N: %s\n", cameraSerial.c_str());
  Console::out(L"    type: %d\n", projectionType);
  Console::out(L"     HDR: %d\n", hdr);
  Console::out(L"     yaw: %f\n", double{yaw});
  Console::out(L"   pitch: %f\n", double{pitch});
  Console::out(L"    roll: %f\n", double{roll});
  Console::out(L"   a/acc: %d\n", aAcc);
  Console::out(L" compass: %f\n", double{compass});
  Console::out(L"adjZenith: %d\n", adjZenith);
  Console::out(L"stabilize: %d\n", stabilize);
  Console::out(L"   adjRs: %d\n", adjRs);
  Console::out(L"v-quality: %d\n", vQuality);
  Console::out(L"stitching.isValid: %d\n", stitching.isValid() ? 1 : 0);
  Console::out(L"   convertVersion: %d\n", stitching.convertVersion);
  Console::out(L"    fishImgCenter: %d, %d\n", stitching.fishImgCenter[0], stitching.fishImgCenter[1]);
  Console::out(L"    fishMovCenter: %d, %d\n", stitching.fishMovCenter[0], stitching.fishMovCenter[1]);
  Console::out(L"     samplingRate: %f\n", double{stitching.samplingRate});
}

void ExifParser::readZERPA(ZEPRA& out) {
  out.clear();

  auto shortInto = [this](int32_t& field) {
    return [this, &field](uint16_t, uint16_t, uint32_t, uint32_t value) { field = toUINT16(value); };
  };
  auto stringInto = [this](std::string& field) {
    return [this, &field](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
      toString(type, count, value, field);
    };
  };
  auto shortPairInto = [this](int32_t* field, const char* refusal) {
    return [this, field, refusal](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
      if (type != kTypeShort || count != 2) throw refusal;
      field[0] = toUINT16(value);
      field[1] = static_cast<int32_t>(value & 0xFFFF);
    };
  };
  auto unsignedRatio = [this](uint32_t value) {
    uint32_t w[2];
    readPairs(value, w, 2);
    return static_cast<float>(w[0]) / static_cast<float>(w[1]);
  };

  if (makerNoteOnly == 0) {
    seekToIFD0();
    find(0x0110, stringInto(out.model));
    seekToIFD0();
    find(0x0131, stringInto(out.software));
  }

  seekToKORVUMakerNote();
  find(0x0002, stringInto(out.cpuVersion));
  seekToKORVUMakerNote();
  find(0x0005, stringInto(out.cameraSerial));
  seekToKORVUMakerNote();
  find(0x1000, shortInto(out.vQuality));

  // Zenith comes before Compass: the compass correction uses roll and pitch.
  seekToZEPRA();
  find(0x0001, shortInto(out.projectionType));
  seekToZEPRA();
  find(0x0002, shortInto(out.hdr));
  seekToZEPRA();
  find(0x0003, [this, &out](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
    // Lax on purpose: only a wrong type with the usual count of 2 is refused,
    // so entries the camera wrote with other counts still read.
    if (type != kTypeSRational && count == 2) throw "Invalid entry for Zenith(0x0003): SRATIONAL[2] required.";
    uint32_t w[4];
    readPairs(value, w, 4);
    out.roll = static_cast<float>(static_cast<int32_t>(w[0])) / static_cast<float>(w[1]);
    out.pitch = static_cast<float>(static_cast<int32_t>(w[2])) / static_cast<float>(w[3]);
  });
  seekToZEPRA();
  find(0x0004, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
    if (type != kTypeRational || count != 1) throw "Invalid entry for Compass(0x0004): RATIONAL[1] required.";
    out.yaw = unsignedRatio(value);
    out.attachCompass();
  });
  seekToZEPRA();
  find(0x0005, shortInto(out.aAcc));
  seekToZEPRA();
  find(0x0007, shortInto(out.adjZenith));
  seekToZEPRA();
  find(0x1014, [this, &out](uint16_t, uint16_t, uint32_t, uint32_t value) {
    out.stabilize = toUINT16(value);
    int mode = out.stabilize & 7;
    if (mode == 1 || mode == 4) {
      out.stabilizeFlag1 = true;
    } else if (mode == 3 || mode == 5) {
      out.stabilizeFlag1 = true;
      out.stabilizeFlag2 = true;
    } else if (mode == 2) {
      // Mode 2 is reported as stabilisation off.
      out.stabilize = 0;
      mode = 0;
    }
    out.stabilizeEnabled = mode != 0;
  });
  seekToZEPRA();
  find(0x0013, shortInto(out.adjRs));
  seekToZEPRA();
  find(0x0203, shortInto(out.stitching.convertVersion));
  seekToZEPRA();
  find(0x0204, shortPairInto(out.stitching.fishImgCenter,
                             "Invalid entry for StitchingFishImgCenter(0x0204): SHORT[2] required."));
  seekToZEPRA();
  find(0x0205, shortPairInto(out.stitching.fishMovCenter,
                             "Invalid entry for StitchingFishMovCenter(0x0205): SHORT[2] required."));
  seekToZEPRA();
  find(0x0206, [&](uint16_t, uint16_t type, uint32_t count, uint32_t value) {
    if (type != kTypeRational || count != 1) {
      throw "Invalid entry for StitchingSamplingRate(0x0206): RATIONAL[1] required.";
    }
    out.stitching.samplingRate = unsignedRatio(value);
  });
}
