// An avcC record: the parse of the record and its first SPS, and the -set1
// rewrite (parse, assign, re-parse). The rewritten record must parse again
// with constraint_set1_flag 1, the same profile and the requested full-range
// flag, and rewriting it again must change nothing. An SPS whose NAL unit is
// escaped as an encoder escapes it writes back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <stdexcept>

#include "fuzz/fuzz_support.h"
#include "h264/avc_config.h"
#include "h264/nal_unit.h"
#include "mp4/avcc.h"

using namespace sondex::fuzz;

namespace {

// An avcC box holding the payload, as the tree gives it.
struct Box : MP4::AVCC {
  explicit Box(const ByteArray& bytes) : MP4::AVCC(0, bytes.size() + 8, MP4::code("avcC"), nullptr) { payload = bytes; }
};

// A parsed SPS written back unchanged is its own NAL unit again.
void checkWrittenExactly(const ByteArray& payload) {
  GolombBitStream stream;
  stream.attach(payload);
  ::AVCC record;
  SPS sps;
  record.parse(stream);
  record.sps_parse(sps);
  const ByteArray nal = record.sequenceParameterSets.entries.at(0).bytes;
  if (h264::rbsp_to_nal(h264::nal_to_rbsp(nal)) == nal &&
      (!record.sps_assign(sps) || record.sequenceParameterSets.entries.at(0).bytes != nal)) {
    fail("an SPS did not write back to its own bytes");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  initProgram();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Box box(ByteArray(data, size));
  unsigned char profile = 0;
  bool set1 = false, fullRange = false;
  try {
    if (!box.get_profile_idc_and_constrained_set1_flag(profile, set1, fullRange)) return 0;
  } catch (const std::out_of_range&) {
    return 0;  // no SPS in the record: the callers catch this
  }
  checkWrittenExactly(box.payload);
  for (const bool wanted : {false, true}) {
    ByteArray record;
    bool wasFullRange = false, wasSet1 = false;
    if (!box.assign_fullRange_and_constrained_set1_flag(record, wanted, wasFullRange, wasSet1)) continue;
    if (wasFullRange != fullRange || wasSet1 != set1) fail("the rewrite saw other flags than the parse");
    Box rewritten(record);
    unsigned char newProfile = 0;
    bool newSet1 = false, newFullRange = false;
    const bool parsed = rewritten.get_profile_idc_and_constrained_set1_flag(newProfile, newSet1, newFullRange);
    if (!parsed) fail("the rewritten record does not parse");
    if (newProfile != profile || !newSet1 || newFullRange != wanted) fail("the rewritten record has other flags");
    ByteArray again;
    if (!rewritten.assign_fullRange_and_constrained_set1_flag(again, wanted, wasFullRange, wasSet1) ||
        again != record) {
      fail("rewriting the rewritten record changed it");
    }
  }
  return 0;
}
