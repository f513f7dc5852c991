// The movie probe: model, maker note, codec, spherical XML, XMP, frame size
// and rate, duration and bit rates of one movie.
#include "report/sondex_probe.h"

#include <algorithm>
#include <cmath>

#include "exif/camera_model.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/boxes.h"
#include "report/describer_process.h"
#include "report/xml_text.h"

namespace {

// Extended types of the uuid boxes the probe reads.
constexpr MP4::UUID::Usertype kSphericalVideo = {0xFF, 0xCC, 0x82, 0x63, 0xF8, 0x55, 0x4A, 0x93,
                                                 0x88, 0x14, 0x58, 0x7A, 0x02, 0x52, 0x1F, 0xDD};
constexpr MP4::UUID::Usertype kXmp = {0xBE, 0x7A, 0xCF, 0xCB, 0x97, 0xA9, 0x42, 0xE8,
                                      0x9C, 0x71, 0x99, 0x94, 0x91, 0xE3, 0xAF, 0xAC};

// The uuid box of the given extended type, or null; also null, after a
// line, when the box is too large for its payload to have been read.
const MP4::UUID* uuidOfType(MP4::BOX& box, const MP4::UUID::Usertype& usertype) {
  const auto* uuid = dynamic_cast<const MP4::UUID*>(&box);
  if (uuid == nullptr || box.size < 24 || uuid->usertype != usertype || MP4::refusedAsOversized(box)) return nullptr;
  return uuid;
}

}  // namespace

void Sondex::init() {
  cameraVersion = 0;
  frameRate = 0;
  width = height = 0;
  codec = 0;
  gyroData = -1;
  record.clear();
  hasMakerNote = false;
  sphericalXML.clear();
  stitchingSoftware.clear();
  xmpPacket.clear();
  creatorTool.clear();
  reserved = 0;
  duration = audioBitRate = videoBitRate = 0;
}

bool Sondex::probe(const std::wstring& path, MP4::Container& movie) {
  init();
  // The describer process works on the movie while its boxes are read
  // here; detect_movie takes its answer where the report needs it.
  describer().ask(path);
  if (!movie.attach(path, ~0ULL)) {
    describer().drop();
    return false;
  }
  readModel(movie);
  readKMKN(movie);
  readCodec(movie);
  readSphericalXML(movie);
  readXMP(movie);
  detectGyroData(movie);
  detect_movie();
  detectBitRate(movie);
  return width >= 1;
}

void Sondex::readModel(MP4::Container& movie) {
  movie.find("moov.udta.@mod", [&](MP4::BOX& box) {
    if (box.size < 9 || MP4::refusedAsOversized(box)) return true;
    std::string text;
    movie.readPayload(box, text);
    cameraVersion = MetaBuilder::camera_version(text);
    GLTK::Console::out(L"source movie model: %ls (%x)\n", GLTK::wchar::mbs2wcs(text).c_str(), cameraVersion);
    return true;
  });
}

void Sondex::readKMKN(MP4::Container& movie) {
  bool handled = false;
  movie.find("moov.udta.KMKN", [&](MP4::BOX& box) {
    if (box.size < 9) return true;
    handled = true;  // a box over the limit is reported as such, not as missing
    if (MP4::refusedAsOversized(box)) return true;
    std::string payload;
    movie.readPayload(box, payload);
    try {
      ExifParser parser;
      parser.attachKMKN(reinterpret_cast<const unsigned char*>(payload.data()), payload.size());
      parser.readZERPA(record);
      hasMakerNote = true;
      GLTK::Console::out(L"source movie panoramaImageType: %d\n", record.projectionType);
    } catch (const char*) {
      GLTK::Console::out(L"EXIF can't read.\n");
    }
    return true;
  });
  if (!handled) GLTK::Console::out(L"KMKN not found.\n");
}

void Sondex::readCodec(MP4::Container& movie) {
  codec = 0;
  movie.find("moov.trak.mdia.minf.stbl.stsd.avc1", [&](MP4::BOX&) {
    codec = 1;
    GLTK::Console::out(L"H.264 detected.\n");
    return true;
  });
  MP4::findAs<MP4::NestedBox>(movie, "moov.trak.mdia.minf.stbl.stsd", [&](MP4::NestedBox& stsd) {
    for (const MP4::BOX* entry : stsd.children) {
      if (entry->is(MP4::code("hvc1"))) {
        codec = 2;
        GLTK::Console::out(L"H.265/HEVC detected(hvc1).\n");
      } else if (entry->is(MP4::code("hev1"))) {
        codec = 2;
        GLTK::Console::out(L"H.265/HEVC detected(hev1).\n");
      }
    }
    return true;
  });
  if (codec == 0) GLTK::Console::out(L"Unknown codec.\n");
}

void Sondex::readSphericalXML(MP4::Container& movie) {
  movie.find("moov.trak.uuid", [&](MP4::BOX& box) {
    const MP4::UUID* uuid = uuidOfType(box, kSphericalVideo);
    if (uuid == nullptr) return true;
    sphericalXML = uuid->payloadText();
    stitchingSoftware = captureElement(sphericalXML, "GSpherical:StitchingSoftware");
    return true;
  });
}

void Sondex::readXMP(MP4::Container& movie) {
  movie.find("uuid", [&](MP4::BOX& box) {
    const MP4::UUID* uuid = uuidOfType(box, kXmp);
    if (uuid == nullptr) return true;
    xmpPacket = uuid->payloadText();
    creatorTool = captureElement(xmpPacket, "x:CreatorTool");
    return true;
  });
}

void Sondex::detectGyroData(MP4::Container& movie) {
  // Remembers whether the movie carries a gyro log; the report does not
  // use it.
  movie.find("moov.udta.KDTB", [&](MP4::BOX&) {
    gyroData = 1;
    return false;
  });
}

void Sondex::detect_movie() {
  MovieDescription description;
  if (!describer().take(description)) return;
  frameRate = description.frameRate;
  width = static_cast<int32_t>(description.width);
  height = static_cast<int32_t>(description.height);
}

void Sondex::detectBitRate(MP4::Container& movie) {
  MP4::findAs<MP4::MVHD>(movie, "moov.mvhd", [&](MP4::MVHD& mvhd) {
    duration = mvhd.duration;
    return false;
  });
  MP4::findAs<MP4::NestedBox>(movie, "moov.trak", [&](MP4::NestedBox& track) {
    bool video = false;
    MP4::findAs<MP4::TKHD>(track, "tkhd", [&](MP4::TKHD& tkhd) {
      video = tkhd.width >= 1;
      return false;
    });
    MP4::findAs<MP4::STSZ>(track, "mdia.minf.stbl.stsz", [&](MP4::STSZ& stsz) {
      const float rate = static_cast<float>(stsz.sample_total * 8) / duration;
      if (video && videoBitRate == 0) {
        videoBitRate = rate;
      } else if (audioBitRate == 0) {
        audioBitRate = rate;
      } else {
        GLTK::Console::out(L"3rd(or more) track is found.\n");
      }
      return false;
    });
    return true;
  });
}
