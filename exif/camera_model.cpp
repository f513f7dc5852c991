#include "exif/camera_model.h"

#include <array>
#include <string_view>

namespace MetaBuilder {

CAMERA_VERSION camera_version(const std::string& model) {
  static constexpr std::string_view kPrefix = "KORVU ZEPRA ";
  struct Row {
    std::string_view suffix;
    CAMERA_VERSION version;
  };
  // Suffixes of the camera models, first match wins. These are stand-in
  // names: the models' own names go here as they are confirmed.
  static constexpr std::array<Row, 7> kModels = {{
      {"K", 0x1},
      {"L", 0x10001},
      {"LM", 0x11001},
      {"LM4", 0x40002},
      {"N", 0x20001},
      {"N2", 0x30001},
      {"N4", 0x40001},
  }};
  const std::string_view text(model);
  if (text.size() <= kPrefix.size() || text.substr(0, kPrefix.size()) != kPrefix) return 0;
  const std::string_view suffix = text.substr(kPrefix.size());
  for (const Row& row : kModels) {
    if (row.suffix == suffix) return row.version;
  }
  return 0;
}

}  // namespace MetaBuilder
