// The two avcC box operations: reading profile and flags, and the record
// rewritten with constraint_set1_flag 1 and a chosen full-range flag.
#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "mp4/avcc.h"
#include "tests/h264/bit_text.h"
#include "tests/h264/sps_bits.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;
namespace sps = sondex::test::sps;

const std::string kPps = "01 00 02 68 CE";  // PPS count and one PPS

// A record around one SPS, header bytes as an encoder writes them.
std::string record(const std::string& spsBits, const std::string& after = kPps) {
  const ByteArray bytes = fromBits(spsBits);
  char length[8];
  std::snprintf(length, sizeof length, "%02X %02X", static_cast<unsigned>(bytes.size() >> 8),
                static_cast<unsigned>(bytes.size() & 0xFF));
  return "01 42 C0 1E FF E1 " + std::string(length) + " " + hexOf(bytes) + " " + after;
}

// The same record as written back: reserved header bits cleared.
std::string rewritten(const std::string& spsBits, const std::string& after = kPps) {
  std::string hex = record(spsBits, after);
  return hex.replace(12, 5, "03 01");
}

class AvccBox : public testing::Test {
 protected:
  void load(const std::string& hex) { box.payload = bytesOf(hex); }

  // Runs the rewrite and returns its record, checking the result flag.
  std::string assign(bool fullRange, bool expectedResult = true) {
    out = bytesOf("DE AD");  // emptied whatever happens
    EXPECT_EQ(box.assign_fullRange_and_constrained_set1_flag(out, fullRange, wasFullRange, wasSet1),
              expectedResult);
    return hexOf(out);
  }

  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  ByteArray out;
  bool wasFullRange = false;
  bool wasSet1 = false;
};

// The VUI that the rewrite adds to an SPS without one: only the video
// signal type, with every other element zero.
std::string addedVui(const std::string& fullRange) {
  return "0 0 "             // aspect ratio, overscan
         "1 101 " + fullRange + " 0 "  // video signal: format 5 (unspecified), no colour description
         "0 0 0 0 0 0 ";    // chroma location, timing, NAL HRD, VCL HRD, pic_struct, restriction
}

// ------------------------------------------------------------ reading

TEST_F(AvccBox, ReportsProfileSet1AndFullRange) {
  unsigned char profile = 0;
  bool set1 = true;
  bool full = true;
  load(record(sps::baseline()));
  ASSERT_TRUE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(profile, 66);
  EXPECT_FALSE(set1);
  EXPECT_FALSE(full);  // no VUI

  load(record(sps::header(100, "0100") + sps::kSpsId + sps::kHigh420 + sps::kBody + sps::tail(sps::kFullVui)));
  ASSERT_TRUE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(profile, 100);
  EXPECT_TRUE(set1);
  EXPECT_TRUE(full);

  // A video signal type without the full-range flag, and a full-range flag
  // whose video signal type is absent (never read, so zero).
  load(record(sps::baseline("0 0 1 101 0 0 0 0 0 0 0 0 0 ")));
  ASSERT_TRUE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_FALSE(full);
}

// ------------------------------------------------------------ rewriting

TEST_F(AvccBox, AddsAVuiWithTheVideoSignalTypeWhenThereIsNone) {
  load(record(sps::baseline()));
  EXPECT_EQ(assign(true), rewritten(sps::baseline(addedVui("1"), "1100")));
  EXPECT_FALSE(wasFullRange);
  EXPECT_FALSE(wasSet1);

  // The new record reads back with both flags set.
  load(hexOf(out));
  unsigned char profile = 0;
  bool set1 = false;
  bool full = false;
  ASSERT_TRUE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(profile, 66);
  EXPECT_TRUE(set1);
  EXPECT_TRUE(full);

  load(record(sps::baseline()));
  EXPECT_EQ(assign(false), rewritten(sps::baseline(addedVui("0"), "1100")));
}

TEST_F(AvccBox, ChangesOnlyTheFlagsAndAComponentVideoFormat) {
  // A full VUI whose video format is 0 (component) and full range 1.
  const auto vuiWith = [](const std::string& signal) {
    std::string vui = sps::kFullVui;
    return vui.replace(vui.find("1 101 1 "), 8, signal);
  };
  load(record(sps::baseline(vuiWith("1 000 1 "), "1000"), kPps + " FD F8 F8 00"));
  EXPECT_EQ(assign(true), rewritten(sps::baseline(vuiWith("1 101 1 "), "1100"), kPps + " FD F8 F8 00"));
  EXPECT_TRUE(wasFullRange);
  EXPECT_FALSE(wasSet1);

  // Other formats are kept; an SPS that had set1 already says so.
  load(record(sps::baseline(vuiWith("1 010 1 "), "1100")));
  EXPECT_EQ(assign(false), rewritten(sps::baseline(vuiWith("1 010 0 "), "1100")));
  EXPECT_TRUE(wasFullRange);
  EXPECT_TRUE(wasSet1);
}

TEST_F(AvccBox, AVuiWithoutVideoSignalTypeGetsOne) {
  load(record(sps::baseline("1 00000001 0 0 0 0 0 0 0 0 ")));
  EXPECT_EQ(assign(false), rewritten(sps::baseline("1 00000001 0 1 101 0 0 0 0 0 0 0 0 ", "1100")));
  EXPECT_FALSE(wasFullRange);
}

TEST_F(AvccBox, NegativeScalingDeltasComeBackOneCodeLower) {
  // One 4x4 list: deltas -1 (code 3) and -7 (code 15) take the scale to 0.
  const auto high = [](const std::string& flags, const std::string& list, const std::string& vui) {
    return sps::header(100, flags) + sps::kSpsId + "010 1 1 0 1 " + "1 " + list + "0000000 " + sps::kBody +
           sps::tail(vui);
  };
  load(record(high("0000", "00100 000010000 ", "")));
  // Written as codes 1 and 13.
  EXPECT_EQ(assign(false), rewritten(high("0100", "010 0001110 ", addedVui("0"))));
}

// ------------------------------------------------------------ failures

TEST_F(AvccBox, ARecordTooShortForItsHeader) {
  ConsoleCapture console;
  unsigned char profile = 7;
  bool set1 = true;
  bool full = true;
  load("01 64 00");
  EXPECT_FALSE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  EXPECT_EQ(profile, 7);  // outputs untouched
  EXPECT_TRUE(set1);
  wasFullRange = wasSet1 = true;
  EXPECT_EQ(assign(true, false), "");
  EXPECT_TRUE(wasFullRange);
  EXPECT_EQ(console.text(), "avcc.parse() failed: no more data\navcc.parse() failed: no more data\n");
}

TEST_F(AvccBox, AnSpsThatCannotBeRead) {
  ConsoleCapture console;
  unsigned char profile = 0;
  bool set1 = false;
  bool full = false;
  load(record(sps::header(66) + "0000000000000000 1 " + std::string(16, '1')));
  EXPECT_FALSE(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full));
  load(record(sps::header(66) + "1 1 011"));  // cut after pic_order_cnt_type
  EXPECT_EQ(assign(true, false), "");
  EXPECT_EQ(console.text(),
            "avcc.sps_parse() failed: too log golomb sream\n"
            "avcc.sps_parse() failed: no more data\n");
}

TEST_F(AvccBox, AnEmptySpsListIsAnOutOfRangeError) {
  ConsoleCapture console;
  unsigned char profile = 0;
  bool set1 = false;
  bool full = false;
  load("01 42 C0 1E FF E0 00");
  EXPECT_THROW(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full), std::out_of_range);
  out = bytesOf("DE AD");
  EXPECT_THROW(box.assign_fullRange_and_constrained_set1_flag(out, true, wasFullRange, wasSet1), std::out_of_range);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(console.text(), "");
}

}  // namespace
