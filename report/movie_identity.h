// Where, with what and when a movie was made, in the standard boxes beside
// the camera's own (the QuickTime location and model texts, the 3GPP
// location box, the XMP creator tool, the movie header's creation time),
// and the duration of a fragmented movie. Read from the boxes' bytes, so
// the box tree the rest of the program walks stays as it is.
#pragma once

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "mp4/container.h"

class JsonWriter;
class MetaReader;

// A point of an ISO 6709 text: decimal degrees (north and east positive)
// and metres; the altitude is NaN when the text has none.
struct GeoPoint {
  double latitude = NAN;
  double longitude = NAN;
  double altitude = NAN;
};

// The 3GPP location box ("loci").
struct PlaceBox {
  std::string name;                                  // UTF-8 (a UTF-16 name is converted)
  uint8_t role = 0;                                  // 0: shooting, 1: real, 2: fictional
  double longitude = 0, latitude = 0, altitude = 0;  // degrees, degrees, metres
};

struct FragmentedDuration {
  double duration = NAN;  // seconds; NaN when the fragments do not tell
  bool fromMehd = false;  // else from the video track's fragments
};

struct MovieIdentity {
  std::string quicktimeLocation;  // the A9 "xyz" text
  std::optional<PlaceBox> loci;
  std::string cameraModel;                       // the "@mod" text
  std::string quicktimeModel;                    // the A9 "mod" text
  std::string xmpCreatorTool;                    // xmp:CreatorTool of the XMP packet
  uint64_t creationTime = 0;                     // of the movie header, seconds since 1904 (0: none)
  std::optional<FragmentedDuration> fragmented;  // for a movie with "mvex"
};

MovieIdentity readMovieIdentity(const MP4::Container& movie, const std::string& xmpPacket);

// The point of an ISO 6709 text ("+35.6586+139.7454+040.000/"; degrees,
// degrees and minutes, or degrees, minutes and seconds); false when the
// text does not start with one.
bool parseIso6709(std::string_view text, GeoPoint& point);
// A "loci" payload (after the box header); none when it is too short for
// the fixed fields.
std::optional<PlaceBox> parseLoci(std::string_view payload);
// Seconds since 1904 as "YYYY-MM-DDTHH:MM:SS.000000Z"; "" for 0 or past
// the year 9999.
std::string creationTimeText(uint64_t seconds);
// xmp:CreatorTool of an XMP packet, as an element or as an attribute.
std::string xmpCreatorTool(const std::string& packet);

// "location", "identity", "creationTime" and "fragmented".
void identityMembers(JsonWriter& out, const MetaReader& reader);
