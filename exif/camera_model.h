// The camera generation, told by the model text the camera writes.
#pragma once

#include <cstdint>
#include <string>

namespace MetaBuilder {

// Camera generation code; 0 is an unknown camera.
using CAMERA_VERSION = uint32_t;

CAMERA_VERSION camera_version(const std::string& model);

}  // namespace MetaBuilder
