#include "report/movie_identity.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <vector>

#include "gltk/byte_order.h"
#include "gltk/file_io.h"
#include "mp4/box_bytes.h"
#include "mp4/boxes.h"
#include "report/json_object.h"
#include "report/json_writer.h"
#include "report/meta_reader.h"
#include "report/xml_text.h"

namespace {

using MP4::bytesOf;
using MP4::forEachBox;
uint32_t be32(std::string_view bytes, size_t at) { return MP4::be32At(bytes, at); }

// The payload of a box in the open file, as far as the file holds it; empty
// for a box over the payload limit (left unread without a word, as the
// result line's readers report such boxes themselves).
std::string payloadOf(GLTK::FileIO& file, const MP4::BOX& box) {
  const uint64_t header = box.largeSize ? 16 : 8, length = file.length();
  if (box.size > MP4::kPayloadLimit || box.size <= header || box.start + header >= length) return {};
  std::string out(static_cast<size_t>(std::min(box.size - header, length - (box.start + header))), '\0');
  out.resize(
      static_cast<size_t>(file.read_at(reinterpret_cast<unsigned char*>(out.data()), out.size(), box.start + header)));
  return out;
}

// The text of a QuickTime user-data text box: a 16-bit length, a 16-bit
// language, the text (up to its first NUL).
std::string quickTimeText(std::string_view payload) {
  if (payload.size() < 4) return {};
  const std::string_view text = payload.substr(4, GLTK::loadBE16(bytesOf(payload)));
  return std::string(text.substr(0, text.find('\0')));
}

// The UTF-16 text of units (big-endian unless little), as UTF-8; a lone
// surrogate becomes U+FFFD.
std::string utf8OfUtf16(std::string_view units, bool little) {
  std::string out;
  auto unit = [&](size_t i) {
    return little ? GLTK::loadLE16(bytesOf(units) + i) : GLTK::loadBE16(bytesOf(units) + i);
  };
  for (size_t i = 0; i + 2 <= units.size(); i += 2) {
    uint32_t c = unit(i);
    if (c >= 0xD800 && c < 0xDC00 && i + 4 <= units.size() && unit(i + 2) >= 0xDC00 && unit(i + 2) < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
      i += 2;
    } else if (c >= 0xD800 && c < 0xE000) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += {static_cast<char>(0xC0 | c >> 6), static_cast<char>(0x80 | (c & 0x3F))};
    } else if (c < 0x10000) {
      out += {static_cast<char>(0xE0 | c >> 12), static_cast<char>(0x80 | (c >> 6 & 0x3F)),
              static_cast<char>(0x80 | (c & 0x3F))};
    } else {
      out += {static_cast<char>(0xF0 | c >> 18), static_cast<char>(0x80 | (c >> 12 & 0x3F)),
              static_cast<char>(0x80 | (c >> 6 & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
    }
  }
  return out;
}

// One number of an ISO 6709 text at at: a sign, digits and an optional
// fraction. With degreeDigits (2 for a latitude, 3 for a longitude), read as
// degrees, degrees and minutes, or degrees, minutes and seconds by the count
// of whole digits.
bool isoNumber(std::string_view text, size_t& at, int degreeDigits, double& value) {
  if (at >= text.size() || (text[at] != '+' && text[at] != '-')) return false;
  const bool negative = text[at++] == '-';
  size_t end = at;
  while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  const size_t whole = end - at;
  if (end < text.size() && text[end] == '.') {
    ++end;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
  }
  // The parts are read from their own digits, so that minutes and seconds
  // carry no rounding of the whole number.
  const auto part = [&](size_t from, size_t to) {
    double number = 0;
    std::from_chars(text.data() + from, text.data() + to, number);
    return number;
  };
  const size_t degrees = static_cast<size_t>(degreeDigits);
  if (whole == 0 || (degreeDigits > 0 && whole > degrees && whole != degrees + 2 && whole != degrees + 4)) return false;
  double number = part(at, end);
  if (degreeDigits > 0 && whole > degrees) {
    // DDMM[.M] or DDMMSS[.S] (a longitude has one degree digit more).
    const size_t minutesAt = at + whole - (whole == degrees + 4 ? 4 : 2);
    const double minutes = part(minutesAt, whole == degrees + 4 ? minutesAt + 2 : end);
    const double seconds = whole == degrees + 4 ? part(minutesAt + 2, end) : 0;
    if (minutes >= 60 || seconds >= 60) return false;
    number = part(at, minutesAt) + minutes / 60 + seconds / 3600;
  }
  value = negative ? -number : number;
  at = end;
  return true;
}

std::string xmlUnescaped(std::string text) {
  const std::pair<std::string_view, char> entities[] = {
      {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const auto it = std::ranges::find_if(
        entities, [&](const auto& entity) { return std::string_view(text).substr(at).starts_with(entity.first); });
    out += it == std::end(entities) ? text[at] : it->second;
    at += it == std::end(entities) ? 1 : it->first.size();
  }
  return out;
}

// ---- Fragments

struct TrackFragments {
  uint32_t trackId = 0;
  uint32_t defaultDuration = 0;  // of the track's "trex"
};

// The duration of the track's samples in one track fragment's "trun"
// boxes, in media time-scale units; baseTime gets its "tfdt" time.
uint64_t trafDuration(std::string_view traf, const TrackFragments& track, std::optional<uint64_t>& baseTime) {
  std::string_view tfhd;
  forEachBox(traf, [&](std::string_view type, std::string_view body) {
    if (type == "tfhd" && tfhd.empty()) tfhd = body;
  });
  if (tfhd.size() < 8 || be32(tfhd, 4) != track.trackId) return 0;
  const uint32_t tfhdFlags = be32(tfhd, 0) & 0xFFFFFF;
  // base_data_offset, sample_description_index, then default_sample_duration.
  const size_t durationAt = 8 + (tfhdFlags & 1 ? 8 : 0) + (tfhdFlags & 2 ? 4 : 0);
  uint32_t defaultDuration = track.defaultDuration;
  if ((tfhdFlags & 8) && tfhd.size() >= durationAt + 4) defaultDuration = be32(tfhd, durationAt);
  uint64_t total = 0;
  forEachBox(traf, [&](std::string_view type, std::string_view body) {
    if (type == "tfdt" && body.size() >= 8 && !baseTime) {
      baseTime = body[0] == 1 ? (body.size() >= 12 ? GLTK::loadBE(bytesOf(body) + 4, 8) : 0) : be32(body, 4);
    }
    if (type != "trun" || body.size() < 8) return;
    const uint32_t flags = be32(body, 0) & 0xFFFFFF;
    const size_t first = 8 + (flags & 1 ? 4 : 0) + (flags & 4 ? 4 : 0);
    const size_t stride = 4 * static_cast<size_t>(std::popcount(flags & 0xF00));
    if (body.size() < first) return;
    // Only the samples whose fields the box holds, whatever the count says.
    uint64_t count = be32(body, 4);
    if (stride > 0) count = std::min<uint64_t>(count, (body.size() - first) / stride);
    if (!(flags & 0x100)) {
      total += count * defaultDuration;
      return;
    }
    for (uint64_t i = 0; i < count; ++i) total += be32(body, first + i * stride);
  });
  return total;
}

// The video track's duration over its fragments: the decode time of the
// last fragment that states one plus the samples from there on; without
// any such time, the samples of the movie box plus every fragment's.
FragmentedDuration fragmentsDuration(const MP4::Container& movie, GLTK::FileIO& file, std::string_view mvex) {
  FragmentedDuration result;
  const auto* video = dynamic_cast<const MP4::NestedBox*>(movie.videoTrak);
  if (video == nullptr) return result;
  TrackFragments track;
  video->find("tkhd", [&](MP4::BOX& box) {
    const std::string tkhd = payloadOf(file, box);
    const size_t at = !tkhd.empty() && tkhd[0] == 1 ? 20 : 12;  // after the creation and modification times
    if (tkhd.size() >= at + 4) track.trackId = be32(tkhd, at);
    return false;
  });
  forEachBox(mvex, [&](std::string_view type, std::string_view body) {
    if (type == "trex" && body.size() >= 16 && be32(body, 4) == track.trackId) track.defaultDuration = be32(body, 12);
  });
  uint64_t movieBoxDuration = 0;
  uint32_t timeScale = 0;
  MP4::findAs<MP4::MDHD>(*video, "mdia.mdhd", [&](MP4::MDHD& mdhd) {
    movieBoxDuration = mdhd.duration, timeScale = mdhd.timeScale;
    return false;
  });
  std::vector<const MP4::BOX*> fragments;
  movie.find("moof", [&](MP4::BOX& box) { return fragments.push_back(&box), true; });
  uint64_t after = 0;  // the samples of the fragments read so far, from the last back
  bool found = false;
  std::optional<uint64_t> baseTime;
  for (auto it = fragments.rbegin(); it != fragments.rend() && !baseTime; ++it) {
    const std::string moof = payloadOf(file, **it);
    forEachBox(moof, [&](std::string_view type, std::string_view body) {
      if (type != "traf") return;
      std::optional<uint64_t> time;
      const uint64_t duration = trafDuration(body, track, time);
      if (duration == 0 && !time) return;
      found = true;
      after += duration;
      if (!baseTime) baseTime = time;
    });
  }
  if (found && timeScale > 0) {
    result.duration = static_cast<double>(baseTime.value_or(movieBoxDuration) + after) / timeScale;
  }
  return result;
}

std::optional<FragmentedDuration> readFragmented(const MP4::Container& movie, GLTK::FileIO& file) {
  std::optional<FragmentedDuration> result;
  movie.find("moov.mvex", [&](MP4::BOX& box) {
    const std::string mvex = payloadOf(file, box);
    forEachBox(mvex, [&](std::string_view type, std::string_view body) {
      if (type != "mehd" || body.size() < 8 || (result && result->fromMehd)) return;
      const uint64_t ticks =
          body[0] == 1 ? (body.size() >= 12 ? GLTK::loadBE(bytesOf(body) + 4, 8) : 0) : be32(body, 4);
      result = FragmentedDuration{NAN, true};
      MP4::findAs<MP4::MVHD>(movie, "moov.mvhd", [&](MP4::MVHD& mvhd) {
        if (mvhd.timeScale > 0) result->duration = static_cast<double>(ticks) / mvhd.timeScale;
        return false;
      });
    });
    if (!result) result = fragmentsDuration(movie, file, mvex);
    return false;
  });
  return result;
}

}  // namespace

bool parseIso6709(std::string_view text, GeoPoint& point) {
  size_t at = 0;
  GeoPoint read;
  if (!isoNumber(text, at, 2, read.latitude) || !isoNumber(text, at, 3, read.longitude)) return false;
  if (std::abs(read.latitude) > 90 || std::abs(read.longitude) > 180) return false;
  if (!isoNumber(text, at, 0, read.altitude)) read.altitude = NAN;
  point = read;
  return true;
}

std::optional<PlaceBox> parseLoci(std::string_view payload) {
  // Version and flags, the packed language, then the name.
  if (payload.size() < 6) return std::nullopt;
  PlaceBox place;
  size_t at = 6;
  const std::string_view rest = payload.substr(at);
  if (rest.starts_with("\xFE\xFF") || rest.starts_with("\xFF\xFE")) {
    size_t end = at + 2;
    while (end + 2 <= payload.size() && (payload[end] != 0 || payload[end + 1] != 0)) end += 2;
    if (end + 2 > payload.size()) return std::nullopt;
    place.name = utf8OfUtf16(payload.substr(at + 2, end - at - 2), rest[0] == '\xFF');
    at = end + 2;
  } else {
    const size_t end = payload.find('\0', at);
    if (end == std::string_view::npos) return std::nullopt;
    place.name = payload.substr(at, end - at);
    at = end + 1;
  }
  if (payload.size() - at < 13) return std::nullopt;
  place.role = static_cast<uint8_t>(payload[at]);
  const auto fixed = [&](size_t i) { return static_cast<int32_t>(be32(payload, i)) / 65536.0; };
  place.longitude = fixed(at + 1), place.latitude = fixed(at + 5), place.altitude = fixed(at + 9);
  return place;
}

std::string creationTimeText(uint64_t seconds) {
  // Seconds since 1970 in place of 1904 are taken as they are, as ffprobe and ExifTool read such movies.
  constexpr uint64_t k1904To1970 = 2082844800, kLast = 253402300799;  // 9999-12-31T23:59:59
  const uint64_t unix = seconds >= k1904To1970 ? seconds - k1904To1970 : seconds;
  if (seconds == 0 || unix > kLast) return {};
  const std::chrono::sys_seconds time{std::chrono::seconds(unix)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day date{day};
  const std::chrono::hh_mm_ss clock{time - day};
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.000000Z", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()));
  return text;
}

std::string xmpCreatorTool(const std::string& packet) {
  std::string text = captureElement(packet, "xmp:CreatorTool");
  for (const char quote : {'"', '\''}) {
    if (!text.empty()) break;
    const std::string attribute = std::string("xmp:CreatorTool=") + quote;
    const size_t at = packet.find(attribute), end = packet.find(quote, at + attribute.size());
    if (at != std::string::npos && end != std::string::npos)
      text = packet.substr(at + attribute.size(), end - at - attribute.size());
  }
  return xmlUnescaped(text);
}

MovieIdentity readMovieIdentity(const MP4::Container& movie, const std::string& xmpPacket) {
  MovieIdentity identity;
  identity.xmpCreatorTool = xmpCreatorTool(xmpPacket);
  MP4::findAs<MP4::MVHD>(movie, "moov.mvhd",
                         [&](MP4::MVHD& mvhd) { return identity.creationTime = mvhd.timeStamp, false; });
  movie.open([&](GLTK::FileIO& file) {
    MP4::findAs<MP4::NestedBox>(movie, "moov.udta", [&](MP4::NestedBox& udta) {
      // The first box of each type; the others (sensor logs among them) are not read.
      for (const MP4::BOX* box : udta.children) {
        if (box->is({0xA9, 'x', 'y', 'z'}) && identity.quicktimeLocation.empty()) {
          identity.quicktimeLocation = quickTimeText(payloadOf(file, *box));
        } else if (box->is({0xA9, 'm', 'o', 'd'}) && identity.quicktimeModel.empty()) {
          identity.quicktimeModel = quickTimeText(payloadOf(file, *box));
        } else if (box->is(MP4::code("@mod")) && identity.cameraModel.empty()) {
          identity.cameraModel = payloadOf(file, *box);
        } else if (box->is(MP4::code("loci")) && !identity.loci) {
          identity.loci = parseLoci(payloadOf(file, *box));
        }
      }
      return false;
    });
    identity.fragmented = readFragmented(movie, file);
  });
  return identity;
}

void identityMembers(JsonWriter& out, const MetaReader& reader) {
  const MovieIdentity& identity = reader.identity;
  const std::string camera = recordText(reader.locationText);
  out.key("location").beginObject();
  out.textOrNull("camera", camera);
  out.textOrNull("quicktime", identity.quicktimeLocation);
  GeoPoint point;
  if (!parseIso6709(camera, point) && !parseIso6709(identity.quicktimeLocation, point) && identity.loci) {
    point = {identity.loci->latitude, identity.loci->longitude, identity.loci->altitude};
  }
  out.member("latitude", point.latitude).member("longitude", point.longitude).member("altitude", point.altitude);
  if (const auto& loci = identity.loci) {
    out.key("loci").beginObject().member("name", loci->name);
    const char* roles[] = {"shooting", "real", "fictional"};
    if (loci->role < std::size(roles)) {
      out.member("role", roles[loci->role]);
    } else {
      out.member("role", loci->role);
    }
    out.member("longitude", loci->longitude).member("latitude", loci->latitude).member("altitude", loci->altitude);
    out.endObject();
  } else {
    out.nullMember("loci");
  }
  out.endObject().key("identity").beginObject();
  out.textOrNull("cameraModel", recordText(identity.cameraModel));
  out.textOrNull("quicktimeModel", identity.quicktimeModel);
  out.textOrNull("xmpCreatorTool", identity.xmpCreatorTool);
  out.textOrNull("creatorTool", recordText(reader.probe.creatorTool));
  out.endObject();
  out.textOrNull("creationTime", creationTimeText(identity.creationTime));
  if (const auto& fragmented = identity.fragmented) {
    out.key("fragmented").beginObject().member("duration", fragmented->duration);
    out.member("source", fragmented->fromMehd ? "mehd" : "fragments").endObject();
  } else {
    out.nullMember("fragmented");
  }
}
