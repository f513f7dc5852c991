#include "report/spherical.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_set>

#include "gltk/byte_order.h"
#include "mp4/box_bytes.h"
#include "mp4/boxes.h"
#include "report/json_writer.h"
#include "report/meta_reader.h"

namespace {

// A packet is a few dozen elements; these bound what a crafted one costs.
constexpr size_t kMaxDepth = 64;
constexpr size_t kMaxElements = 1024;

// ASCII letters compared without their case.
bool sameWord(std::string_view text, std::string_view word) {
  if (text.size() != word.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != word[i]) return false;
  }
  return true;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

void appendUTF8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | c >> 6);
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | c >> 12);
    out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | c >> 18);
    out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
    out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// Appends the character a reference stands for ("&amp;", "&#233;",
// "&#xE9;") and returns its length, or 0 when text does not open with one.
size_t appendReference(std::string_view text, std::string& out) {
  const size_t end = text.substr(0, 12).find(';');
  if (end == std::string_view::npos) return 0;
  const std::string_view name = text.substr(1, end - 1);
  const std::pair<const char*, char> named[] = {{"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
  for (const auto& [entity, c] : named) {
    if (name == entity) return out += c, end + 1;
  }
  if (!name.starts_with('#')) return 0;
  const bool hex = name.starts_with("#x");
  const std::string_view digits = name.substr(hex ? 2 : 1);
  uint32_t c = 0;
  const auto [ptr, error] = std::from_chars(digits.data(), digits.data() + digits.size(), c, hex ? 16 : 10);
  if (digits.empty() || error != std::errc() || ptr != digits.data() + digits.size()) return 0;
  if (c == 0 || (c >= 0xD800 && c < 0xE000) || c > 0x10FFFF) return 0;
  appendUTF8(out, c);
  return end + 1;
}

void appendCharacters(std::string_view text, std::string& out) {
  for (size_t at = 0; at < text.size();) {
    const size_t amp = text.find('&', at);
    out.append(text.substr(at, amp - at));
    if (amp == std::string_view::npos) return;
    const size_t taken = appendReference(text.substr(amp), out);
    if (taken == 0) out += '&';
    at = amp + (taken == 0 ? 1 : taken);
  }
}

std::string_view localName(std::string_view name) {
  const size_t colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

uint32_t word(std::string_view body, size_t at) { return MP4::be32At(body, at); }

// The projection box: its header and its first projection data box.
void readProjection(std::string_view proj, SphericalV2& v2) {
  MP4::forEachBox(proj, [&](std::string_view type, std::string_view body) {
    if (type == "prhd" && body.size() >= 16) {
      v2.pose = {static_cast<int32_t>(word(body, 4)) / 65536.0, static_cast<int32_t>(word(body, 8)) / 65536.0,
                 static_cast<int32_t>(word(body, 12)) / 65536.0};
    }
    if (!v2.projection.empty()) return;
    if (type == "equi" && body.size() >= 20) {
      v2.projection = "equirectangular";
      for (size_t i = 0; i < 4; ++i) v2.bounds[i] = word(body, 4 + 4 * i) / 4294967296.0;
    } else if (type == "cbmp" && body.size() >= 12) {
      v2.projection = "cubemap";
      v2.cubemap = {word(body, 4), word(body, 8)};
    } else if (type == "mshp" && body.size() >= 12) {
      v2.projection = "mesh";
      v2.meshCRC = word(body, 4);
      v2.meshEncoding = body.substr(8, 4);
    }
  });
}

// A value as the XML packet's format types it: the flags as booleans, the
// counts, angles, sizes and times as numbers; the text itself when it is
// not one of those, and for any other element.
void typedValue(JsonWriter& out, std::string_view name, const std::string& text) {
  static const std::unordered_set<std::string_view> kFlags = {"Spherical", "Stitched"};
  if (kFlags.contains(name) && (sameWord(text, "true") || sameWord(text, "false"))) {
    out.value(sameWord(text, "true"));
    return;
  }
  if (name.ends_with("Degrees") || name.ends_with("Pixels") || name == "SourceCount" || name == "Timestamp" ||
      name == "InitialCameraDolly") {
    // JSON's own number form: an optional minus, digits, then optionally a
    // fraction and an exponent.
    const char *const begin = text.data(), *const end = begin + text.size(), *p = begin + (text.starts_with('-'));
    const auto digits = [&] {
      const char* from = p;
      while (p != end && *p >= '0' && *p <= '9') ++p;
      return p != from;
    };
    bool valid = digits(), integral = true;
    if (valid && p != end && *p == '.') ++p, valid = digits(), integral = false;
    if (valid && p != end && (*p == 'e' || *p == 'E')) {
      ++p, integral = false;
      if (p != end && (*p == '+' || *p == '-')) ++p;
      valid = digits();
    }
    int64_t whole = 0;
    double real = 0;
    if (valid && p == end && integral && std::from_chars(begin, end, whole).ec == std::errc()) {
      out.value(whole);
      return;
    }
    if (valid && p == end && std::from_chars(begin, end, real).ec == std::errc() && std::isfinite(real)) {
      out.value(real);
      return;
    }
  }
  out.value(text);
}

void stereoModeMember(JsonWriter& out, const std::optional<uint8_t>& mode) {
  static const char* const kNames[] = {"mono", "top-bottom", "left-right", "stereo-custom", "right-left"};
  out.key("stereoMode");
  if (!mode) {
    out.null();
  } else if (*mode < std::size(kNames)) {
    out.value(kNames[*mode]);
  } else {
    out.value(static_cast<unsigned>(*mode));
  }
}

void v2Members(JsonWriter& out, const SphericalV2& v2) {
  out.key("sphericalV2").beginObject();
  stereoModeMember(out, v2.stereoMode);
  if (v2.metadataSource) {
    out.member("metadataSource", *v2.metadataSource);
  } else {
    out.nullMember("metadataSource");
  }
  out.textOrNull("projection", v2.projection);
  if (v2.pose) {
    const auto& [yaw, pitch, roll] = *v2.pose;
    out.key("pose").beginObject().member("yaw", yaw).member("pitch", pitch).member("roll", roll).endObject();
  } else {
    out.nullMember("pose");
  }
  if (v2.projection == "equirectangular") {
    const auto& [top, bottom, left, right] = v2.bounds;
    out.key("bounds").beginObject().member("top", top).member("bottom", bottom);
    out.member("left", left).member("right", right).endObject();
  } else {
    out.nullMember("bounds");
  }
  if (v2.projection == "cubemap") {
    out.key("cubemap").beginObject().member("layout", v2.cubemap[0]).member("padding", v2.cubemap[1]).endObject();
  } else {
    out.nullMember("cubemap");
  }
  if (v2.projection == "mesh") {
    out.key("mesh").beginObject().member("crc", v2.meshCRC).member("encoding", v2.meshEncoding).endObject();
  } else {
    out.nullMember("mesh");
  }
  out.endObject();
}

// The projection by the first source that names one: the camera's maker
// note, the sample entry's boxes, the XML packet, and last a 2:1 frame from
// an unknown camera (the result line's "type").
std::pair<const char*, const char*> projectionOf(const MetaReader& reader) {
  const int32_t noted = reader.probe.record.projectionType;
  if (noted == ExifParser::PROJECTION_DUAL_FISHEYE) return {"dual-fisheye", "maker note"};
  if (noted == ExifParser::PROJECTION_EQUIRECTANGULAR) return {"equirectangular", "maker note"};
  const SphericalVideo& spherical = reader.spherical;
  for (const char* type : {"equirectangular", "cubemap", "mesh"}) {
    if (spherical.v2 && spherical.v2->projection == type) return {type, "spherical v2"};
  }
  for (const auto& [name, text] : spherical.v1) {
    if (name != "ProjectionType") continue;
    for (const char* type : {"equirectangular", "cubemap", "mesh"}) {
      if (sameWord(text, type)) return {type, "spherical v1"};
    }
  }
  if (std::strcmp(reader.typeName(), "equi") == 0) return {"equirectangular", "frame size"};
  return {"unknown", nullptr};
}

}  // namespace

std::vector<std::pair<std::string, std::string>> sphericalElements(std::string_view xml) {
  std::vector<std::pair<std::string, std::string>> elements;
  std::unordered_set<std::string_view> seen;
  std::vector<std::string_view> open;  // the names of the open elements, innermost last
  size_t unkept = 0;                   // open elements past kMaxDepth, not in open
  bool leaf = false;                   // the innermost open element holds no element (yet)
  std::string text;                    // and this text
  const auto add = [&](std::string_view name, std::string_view value) {
    const std::string_view local = localName(name);
    if (!local.empty() && elements.size() < kMaxElements && seen.insert(local).second) {
      elements.emplace_back(local, trimmed(value));
    }
  };
  for (size_t at = 0; at < xml.size();) {
    const size_t lt = xml.find('<', at);
    if (leaf) appendCharacters(xml.substr(at, lt - at), text);
    if (lt == std::string_view::npos) break;
    const std::string_view rest = xml.substr(lt);
    // Comments, character data, processing instructions, declarations:
    // each runs to its own terminator; without one, nothing follows.
    const std::pair<const char*, const char*> skipped[] = {
        {"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<!", ">"}};
    bool wasSkipped = false;
    for (const auto& [opening, closing] : skipped) {
      if (!rest.starts_with(opening)) continue;
      const size_t end = xml.find(closing, lt + std::strlen(opening));
      if (end == std::string_view::npos) return elements;
      if (leaf && std::strcmp(opening, "<![CDATA[") == 0) text.append(xml.substr(lt + 9, end - lt - 9));
      at = end + std::strlen(closing);
      wasSkipped = true;
      break;
    }
    if (wasSkipped) continue;
    // A tag ends at the first '>' outside a quoted attribute value.
    size_t end = lt + 1;
    for (char quote = 0; end < xml.size() && (quote != 0 || xml[end] != '>'); ++end) {
      if (quote == 0 && (xml[end] == '"' || xml[end] == '\'')) {
        quote = xml[end];
      } else if (xml[end] == quote) {
        quote = 0;
      }
    }
    if (end == xml.size()) break;
    std::string_view tag = xml.substr(lt + 1, end - lt - 1);
    at = end + 1;
    const bool closing = tag.starts_with('/');
    if (closing) tag.remove_prefix(1);
    const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n/"));
    if (name.empty()) continue;
    if (closing) {
      // A closing tag that is not the innermost element's is passed over.
      if (unkept > 0) {
        --unkept;
      } else if (!open.empty() && open.back() == name) {
        if (leaf) add(name, text);
        open.pop_back();
        leaf = false;
      }
      continue;
    }
    leaf = false;
    if (tag.ends_with('/')) {
      if (unkept == 0) add(name, "");
    } else if (open.size() < kMaxDepth && unkept == 0) {
      open.push_back(name);
      leaf = true;
      text.clear();
    } else {
      ++unkept;
    }
  }
  return elements;
}

std::optional<SphericalV2> parseSphericalV2(std::string_view entryPayload) {
  constexpr size_t kVisualFields = 78;
  if (entryPayload.size() <= kVisualFields) return std::nullopt;
  SphericalV2 v2;
  MP4::forEachBox(entryPayload.substr(kVisualFields), [&](std::string_view type, std::string_view body) {
    if (type == "st3d" && body.size() >= 5) v2.stereoMode = static_cast<uint8_t>(body[4]);
    if (type != "sv3d" || v2.hasSV3D) return;
    v2.hasSV3D = true;
    MP4::forEachBox(body, [&](std::string_view inner, std::string_view content) {
      if (inner == "svhd" && content.size() >= 4 && !v2.metadataSource) {
        const std::string_view source = content.substr(4);
        v2.metadataSource = std::string(source.substr(0, source.find('\0')));
      }
      if (inner == "proj") readProjection(content, v2);
    });
  });
  if (!v2.stereoMode && !v2.hasSV3D) return std::nullopt;
  return v2;
}

SphericalVideo readSphericalVideo(const MP4::Container& movie, const std::string& xml) {
  SphericalVideo spherical;
  spherical.hasV1 = !xml.empty();
  spherical.v1 = sphericalElements(xml);
  const auto* track = dynamic_cast<const MP4::NestedBox*>(movie.videoTrak);
  if (track == nullptr) return spherical;
  MP4::findAs<MP4::NestedBox>(*track, "mdia.minf.stbl.stsd", [&](MP4::NestedBox& stsd) {
    std::string payload;
    // An entry over the payload limit is passed over without the line
    // readPayload would print: the report must read the same with or
    // without these members.
    if (stsd.children.empty() || stsd.children[0]->size > MP4::kPayloadLimit) return false;
    if (!movie.readPayload(*stsd.children[0], payload)) return false;
    // readPayload starts right after the 32-bit size and the type.
    const size_t largeSize = stsd.children[0]->largeSize ? std::min<size_t>(8, payload.size()) : 0;
    spherical.v2 = parseSphericalV2(std::string_view(payload).substr(largeSize));
    return false;
  });
  return spherical;
}

void sphericalMembers(JsonWriter& out, const MetaReader& reader) {
  const SphericalVideo& spherical = reader.spherical;
  if (spherical.hasV1) {
    out.key("sphericalV1").beginObject();
    for (const auto& [name, text] : spherical.v1) typedValue(out.key(name), name, text);
    out.endObject();
  } else {
    out.nullMember("sphericalV1");
  }
  if (spherical.v2) {
    v2Members(out, *spherical.v2);
  } else {
    out.nullMember("sphericalV2");
  }
  const auto [type, source] = projectionOf(reader);
  out.key("projection").beginObject().member("type", type);
  if (source != nullptr) {
    out.member("source", source);
  } else {
    out.nullMember("source");
  }
  out.endObject();
}
