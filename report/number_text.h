// Number formatting for the report and the dump files, byte for byte what
// the standard streams print with their default settings (six significant
// digits for floating point, "%g" style), but without a stream per number.
#pragma once

#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

namespace numtext {

inline void append(std::string& out, double value) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 6);
  out.append(buffer, result.ptr);
}

inline void append(std::string& out, float value) { append(out, static_cast<double>(value)); }

template <class Integer>
inline void appendInteger(std::string& out, Integer value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

}  // namespace numtext
