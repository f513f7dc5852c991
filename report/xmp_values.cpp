#include "report/xmp_values.h"

#include <cstring>

#include "gltk/byte_order.h"

namespace {

std::string decodeEntities(std::string_view text) {
  static const std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (size_t at = 0; at < text.size();) {
    bool decoded = false;
    for (const auto& [entity, c] : kEntities) {
      if (text.substr(at, entity.size()) == entity) {
        out += c;
        at += entity.size();
        decoded = true;
        break;
      }
    }
    if (!decoded) out += text[at++];
  }
  const size_t first = out.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return out.substr(first, out.find_last_not_of(" \t\r\n") - first + 1);
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string xmpValue(std::string_view xmp, std::string_view name) {
  const std::string attribute = std::string(name) + "=";
  for (size_t at = xmp.find(attribute); at != std::string_view::npos; at = xmp.find(attribute, at + 1)) {
    const size_t quote = at + attribute.size();
    if (at == 0 || !isSpace(xmp[at - 1]) || quote >= xmp.size() || (xmp[quote] != '"' && xmp[quote] != '\'')) continue;
    const size_t end = xmp.find(xmp[quote], quote + 1);
    if (end != std::string_view::npos) return decodeEntities(xmp.substr(quote + 1, end - quote - 1));
  }
  const std::string open = "<" + std::string(name) + ">", close = "</" + std::string(name) + ">";
  const size_t start = xmp.find(open);
  if (start == std::string_view::npos) return "";
  const size_t end = xmp.find(close, start + open.size());
  if (end == std::string_view::npos) return "";
  return decodeEntities(xmp.substr(start + open.size(), end - start - open.size()));
}

std::string jpegXmp(const unsigned char* bytes, size_t size) {
  static const char kSignature[] = "http://ns.adobe.com/xap/1.0/";  // with its NUL: 29 bytes
  for (size_t at = 2; at + 4 <= size && bytes[at] == 0xFF;) {
    const unsigned char marker = bytes[at + 1];
    if (marker == 0xFF) {  // fill byte
      ++at;
      continue;
    }
    if (marker == 0xD9 || marker == 0xDA) break;  // end of image, start of scan
    if (marker == 0xD8 || marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {
      at += 2;
      continue;
    }
    const size_t length = GLTK::loadBE16(bytes + at + 2);
    if (length < 2 || length > size - at - 2) break;
    const unsigned char* payload = bytes + at + 4;
    const size_t payloadSize = length - 2;
    if (marker == 0xE1 && payloadSize >= sizeof kSignature &&
        std::memcmp(payload, kSignature, sizeof kSignature) == 0) {
      return std::string(reinterpret_cast<const char*>(payload) + sizeof kSignature, payloadSize - sizeof kSignature);
    }
    at += 2 + length;
  }
  return "";
}
