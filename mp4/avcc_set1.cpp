// The avcC operations that read and rewrite the first sequence parameter
// set: profile, constraint_set1_flag and full-range flag for the movie
// report, and the record with constraint_set1_flag 1 and a chosen
// full-range flag for the -set1 rewrite.
#include <string>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "h264/avc_config.h"
#include "h264/bit_stream.h"
#include "mp4/avcc.h"

namespace MP4 {

namespace {

// The payload model shares its name with this box class.
using Record = ::AVCC;

// Parses payload into record and its first SPS into sps. A failure thrown
// as a message is printed and gives false; anything else (such as
// std::out_of_range for an empty SPS list) goes on to the caller.
bool parseFirstSps(const ByteArray& payload, Record& record, SPS& sps) {
  GolombBitStream stream;
  stream.attach(payload);
  try {
    record.parse(stream);
  } catch (const char* message) {
    GLTK::Console::out(L"avcc.parse() failed: %ls\n", GLTK::wchar::mbs2wcs(message).c_str());
    return false;
  }
  try {
    record.sps_parse(sps);
  } catch (const char* message) {
    GLTK::Console::out(L"avcc.sps_parse() failed: %ls\n", GLTK::wchar::mbs2wcs(message).c_str());
    return false;
  }
  return true;
}

bool isFullRange(const SPS& sps) {
  return sps.vui_parameters_present_flag == 1 && sps.vui.video_signal_type_present_flag == 1 &&
         sps.vui.video_full_range_flag == 1;
}

}  // namespace

bool AVCC::get_profile_idc_and_constrained_set1_flag(unsigned char& profile_idc, bool& constrained_set1_flag,
                                                     bool& full_range) {
  Record record;
  SPS sps;
  if (!parseFirstSps(payload, record, sps)) return false;
  profile_idc = static_cast<unsigned char>(sps.profile_idc.value);
  constrained_set1_flag = sps.constraint_set1_flag == 1;
  full_range = isFullRange(sps);
  return true;
}

bool AVCC::assign_fullRange_and_constrained_set1_flag(ByteArray& out, bool fullRange, bool& wasFullRange,
                                                      bool& wasConstrainedSet1) {
  out.clear();
  Record record;
  SPS sps;
  if (!parseFirstSps(payload, record, sps)) return false;
  const bool oldFullRange = isFullRange(sps);
  const bool oldConstrainedSet1 = sps.constraint_set1_flag == 1;

  // An SPS without VUI gets one in which only the video signal type is
  // present; every other element keeps the cleared model's zero.
  sps.vui_parameters_present_flag = 1;
  sps.vui.video_signal_type_present_flag = 1;
  // 0 (component) becomes 5 (unspecified), on purpose also when the SPS
  // itself said 0: the rewritten SPS never claims component video.
  if (sps.vui.video_format == 0) sps.vui.video_format = 5;
  sps.vui.video_full_range_flag = fullRange ? 1 : 0;
  sps.constraint_set1_flag = 1;

  // The record stores each length in 16 bits; a longer SPS cannot be
  // written (only a nearly 64 KiB SPS that gained a VUI gets here).
  if (!record.sps_assign(sps)) return false;

  GolombBitStream recordStream;
  record.to_s(recordStream);
  out = recordStream.bytes();
  wasFullRange = oldFullRange;
  wasConstrainedSet1 = oldConstrainedSet1;
  return true;
}

}  // namespace MP4
