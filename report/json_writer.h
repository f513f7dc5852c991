// Strict JSON text (RFC 8259) for the --json objects: members and elements
// are written in order, texts escaped rather than blanked, numbers in the
// shortest form that reads back as the same value, and null wherever a
// number is not finite.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class JsonWriter {
 public:
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();
  // The name of the next object member.
  JsonWriter& key(std::string_view name);

  // UTF-8 text: quotes, backslashes and control characters are escaped;
  // bytes that are not valid UTF-8 become U+FFFD.
  JsonWriter& value(std::string_view text);
  JsonWriter& value(const char* text) { return value(std::string_view(text)); }
  JsonWriter& value(bool flag);
  JsonWriter& value(int64_t number);
  JsonWriter& value(uint64_t number);
  JsonWriter& value(int number) { return value(static_cast<int64_t>(number)); }
  JsonWriter& value(unsigned number) { return value(static_cast<uint64_t>(number)); }
  // Shortest round-trip form of the float or double itself; null when not finite.
  JsonWriter& value(float number);
  JsonWriter& value(double number);
  JsonWriter& null();

  template <class T>
  JsonWriter& member(std::string_view name, const T& v) {
    return key(name).value(v);
  }
  JsonWriter& nullMember(std::string_view name) { return key(name).null(); }
  // The text as the member's value, or null when it is empty.
  JsonWriter& textOrNull(std::string_view name, std::string_view text) {
    return text.empty() ? nullMember(name) : member(name, text);
  }

  const std::string& text() const { return out_; }

 private:
  void beforeValue();
  JsonWriter& close(char bracket);

  std::string out_;
  std::vector<bool> empty_;  // per open object or array: nothing written in it yet
  bool afterKey_ = false;
};
