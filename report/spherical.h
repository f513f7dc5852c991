// The spherical-video metadata of a movie: the XML packet some cameras and
// tools write in a uuid box of the video track (every element of it), and
// the boxes of the video sample entry (st3d, sv3d) that describe the
// stereo layout and the projection. Both are read from bytes, so the box
// tree the rest of the program walks stays as it is.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mp4/container.h"

class JsonWriter;
class MetaReader;

// The leaf elements of the XML packet, in document order: local name (any
// namespace prefix dropped) and text (entities decoded, white space around
// it trimmed). An element that holds other elements is not one of them; of
// several elements of one name the first is kept. Linear in the text,
// whatever it holds.
std::vector<std::pair<std::string, std::string>> sphericalElements(std::string_view xml);

// The sample entry's boxes. A box too short for its fields counts as absent.
struct SphericalV2 {
  std::optional<uint8_t> stereoMode;  // st3d
  bool hasSV3D = false;
  std::optional<std::string> metadataSource;  // svhd
  std::optional<std::array<double, 3>> pose;  // prhd: yaw, pitch, roll in degrees
  std::string projection;                     // "equirectangular", "cubemap", "mesh"; empty: none known
  std::array<double, 4> bounds{};             // equi: top, bottom, left, right, fractions of the frame
  std::array<uint32_t, 2> cubemap{};          // cbmp: layout, padding
  uint32_t meshCRC = 0;                       // mshp: the CRC it states, and the encoding of its meshes
  std::string meshEncoding;
};

// The boxes of one visual sample entry's payload (the bytes after its box
// header); nullopt when it holds neither st3d nor sv3d.
std::optional<SphericalV2> parseSphericalV2(std::string_view entryPayload);

struct SphericalVideo {
  std::vector<std::pair<std::string, std::string>> v1;
  bool hasV1 = false;
  std::optional<SphericalV2> v2;
};

// The XML text as read (empty: none) and the first sample entry of the
// movie's video track.
SphericalVideo readSphericalVideo(const MP4::Container& movie, const std::string& xml);

// "sphericalV1", "sphericalV2" and "projection" of a movie's --json object.
void sphericalMembers(JsonWriter& out, const MetaReader& reader);
