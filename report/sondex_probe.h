// Sondex: the movie probe. It answers the basic questions about one MP4
// movie: camera model and generation, the maker-note record, codec,
// spherical-video XML, XMP, frame size and rate (from the movie
// description), duration and bit rates.
#pragma once

#include <cstdint>
#include <string>

#include "exif/exif_parser.h"
#include "mp4/container.h"

class Sondex {
 public:
  virtual ~Sondex() = default;

  void init();
  // Attaches the movie and reads it; true when the movie description could
  // describe it. The container stays attached for the caller.
  bool probe(const std::wstring& path, MP4::Container& movie);

  void readModel(MP4::Container& movie);
  void readKMKN(MP4::Container& movie);
  void readCodec(MP4::Container& movie);
  void readSphericalXML(MP4::Container& movie);
  void readXMP(MP4::Container& movie);
  void detectGyroData(MP4::Container& movie);
  void detect_movie();
  void detectBitRate(MP4::Container& movie);

  uint32_t cameraVersion = 0;
  double frameRate = 0;
  int32_t width = 0;
  int32_t height = 0;
  int32_t codec = 0;  // 0 unknown, 1 H.264, 2 H.265
  int32_t gyroData = -1;
  ExifParser::ZEPRA record;
  bool hasMakerNote = false;  // the KMKN box was read into record
  std::string sphericalXML;
  std::string stitchingSoftware;
  std::string xmpPacket;
  std::string creatorTool;
  uint32_t reserved = 0;
  float duration = 0;  // seconds
  float audioBitRate = 0;
  float videoBitRate = 0;
};
