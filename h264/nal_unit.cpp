#include "h264/nal_unit.h"

#include <cstdint>
#include <vector>

namespace h264 {

namespace {

constexpr uint8_t kEmulationPrevention = 0x03;

}  // namespace

ByteArray nal_to_rbsp(const ByteArray& nal) {
  std::vector<uint8_t> out;
  out.reserve(static_cast<size_t>(nal.size()));
  int zeros = 0;
  for (uint64_t i = 0; i < nal.size(); ++i) {
    const uint8_t byte = nal[i];
    if (zeros >= 2 && byte == kEmulationPrevention) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    out.push_back(byte);
  }
  return ByteArray(out.data(), out.size());
}

ByteArray rbsp_to_nal(const ByteArray& rbsp) {
  std::vector<uint8_t> out;
  out.reserve(static_cast<size_t>(rbsp.size() + rbsp.size() / 2 + 1));
  int zeros = 0;
  for (uint64_t i = 0; i < rbsp.size(); ++i) {
    const uint8_t byte = rbsp[i];
    if (zeros >= 2 && byte <= kEmulationPrevention) {
      out.push_back(kEmulationPrevention);
      zeros = 0;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    out.push_back(byte);
  }
  if (zeros >= 2) out.push_back(kEmulationPrevention);
  return ByteArray(out.data(), out.size());
}

}  // namespace h264
