// NAL unit payloads and their raw byte sequence payloads (RBSP).
//
// Inside a NAL unit no three bytes may read 00 00 00, 00 00 01 or 00 00 02,
// which would look like a start code: the encoder puts an
// emulation_prevention_three_byte (0x03) after every two zero bytes that are
// followed by a byte 0x00-0x03, and a decoder takes every 0x03 that follows
// two zero bytes out again. Parameter sets are parsed from their RBSP and
// written back as NAL unit bytes, so a parse followed by a write gives back
// the bytes of a conforming NAL unit exactly.
#pragma once

#include "gltk/byte_array.h"

namespace h264 {

// The RBSP of a NAL unit: every 0x03 that follows two zero bytes removed.
ByteArray nal_to_rbsp(const ByteArray& nal);

// The NAL unit bytes of an RBSP: a 0x03 inserted after every two zero bytes
// that are followed by a byte 0x00-0x03, and after a final pair of zero
// bytes (a NAL unit may not end in 0x00).
ByteArray rbsp_to_nal(const ByteArray& rbsp);

}  // namespace h264
