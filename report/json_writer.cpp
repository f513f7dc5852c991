#include "report/json_writer.h"

#include <charconv>
#include <cmath>

namespace {

// The length of the valid UTF-8 sequence at the start of text, or 0.
size_t utf8Sequence(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return 1;
  size_t n;
  uint32_t code;
  if (lead >= 0xC2 && lead <= 0xDF) {
    n = 2, code = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    n = 3, code = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    n = 4, code = lead & 0x07;
  } else {
    return 0;
  }
  if (text.size() < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  // Overlong forms, UTF-16 surrogates and values past U+10FFFF are not text.
  const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < least[n] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return 0;
  return n;
}

template <class T>
void appendNumber(std::string& out, T number) {
  char digits[64];
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  out.append(digits, end);
}

}  // namespace

void JsonWriter::beforeValue() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!empty_.empty()) {
    if (!empty_.back()) out_ += ',';
    empty_.back() = false;
  }
}

JsonWriter& JsonWriter::beginObject() {
  beforeValue();
  out_ += '{';
  empty_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  beforeValue();
  out_ += '[';
  empty_.push_back(true);
  return *this;
}

JsonWriter& JsonWriter::close(char bracket) {
  out_ += bracket;
  if (!empty_.empty()) empty_.pop_back();
  return *this;
}

JsonWriter& JsonWriter::endObject() { return close('}'); }
JsonWriter& JsonWriter::endArray() { return close(']'); }

JsonWriter& JsonWriter::key(std::string_view name) {
  value(name);
  out_ += ':';
  afterKey_ = true;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
  beforeValue();
  out_ += '"';
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\') {
      out_ += '\\';
      out_ += static_cast<char>(c);
    } else if (c == '\n') {
      out_ += "\\n";
    } else if (c == '\t') {
      out_ += "\\t";
    } else if (c == '\r') {
      out_ += "\\r";
    } else if (c < 0x20 || c == 0x7F) {
      static const char kHex[] = "0123456789abcdef";
      out_ += "\\u00";
      out_ += kHex[c >> 4];
      out_ += kHex[c & 15];
    } else {
      const size_t n = utf8Sequence(text.substr(i));
      if (n == 0) {
        out_ += "\xEF\xBF\xBD";  // U+FFFD for a byte that starts no valid sequence
        ++i;
        continue;
      }
      out_.append(text.substr(i, n));
      i += n;
      continue;
    }
    ++i;
  }
  out_ += '"';
  return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
  beforeValue();
  out_ += flag ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::value(int64_t number) {
  beforeValue();
  appendNumber(out_, number);
  return *this;
}

JsonWriter& JsonWriter::value(uint64_t number) {
  beforeValue();
  appendNumber(out_, number);
  return *this;
}

JsonWriter& JsonWriter::value(float number) {
  if (!std::isfinite(number)) return null();
  beforeValue();
  appendNumber(out_, number);
  return *this;
}

JsonWriter& JsonWriter::value(double number) {
  if (!std::isfinite(number)) return null();
  beforeValue();
  appendNumber(out_, number);
  return *this;
}

JsonWriter& JsonWriter::null() {
  beforeValue();
  out_ += "null";
  return *this;
}
