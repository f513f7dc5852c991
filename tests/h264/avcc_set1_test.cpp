// The two avcC box operations: reading profile and flags, and the record
// rewritten with constraint_set1_flag 1 and a chosen full-range flag.
#include <gtest/gtest.h>

#include <stdexcept>

#include "mp4/avcc.h"
#include "tests/h264/fixtures.h"
#include "tests/support/files.h"

namespace {

using namespace sondex::test;

// A record around one SPS (and one PPS), header bytes as encoders write
// them; written back, the reserved bits of bytes 4 and 5 are cleared.
std::string record(const std::string& spsBits, bool asWritten = false, const std::string& after = "") {
  const ByteArray bytes = fromBits(spsBits);
  const uint8_t length = static_cast<uint8_t>(bytes.size());
  return std::string(asWritten ? "01 42 C0 1E 03 01 00 " : "01 42 C0 1E FF E1 00 ") + hexOf(ByteArray(&length, 1)) +
         " " + hexOf(bytes) + " 01 00 02 68 CE" + after;
}

class AvccBox : public testing::Test {
 protected:
  bool report(const std::string& payload) {
    box.payload = bytesOf(payload);
    return box.get_profile_idc_and_constrained_set1_flag(profile, set1, full);
  }
  // The rewritten record, "" when the rewrite fails.
  std::string assign(const std::string& payload, bool fullRange) {
    box.payload = bytesOf(payload);
    out = bytesOf("DE AD");  // emptied whatever happens
    const bool ok = box.assign_fullRange_and_constrained_set1_flag(out, fullRange, wasFullRange, wasSet1);
    EXPECT_EQ(ok, !out.empty());
    return hexOf(out);
  }

  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  unsigned char profile = 0;
  bool set1 = true, full = true, wasFullRange = true, wasSet1 = true;
  ByteArray out;
};

TEST_F(AvccBox, ReportsProfileSet1AndFullRange) {
  ASSERT_TRUE(report(record(sps::baseline())));
  EXPECT_EQ(profile, 66);
  EXPECT_FALSE(set1);
  EXPECT_FALSE(full);  // no VUI
  ASSERT_TRUE(report(record(sps::header(100, "0100") + sps::kHigh420 + sps::kBody + sps::tail(sps::kFullVui))));
  EXPECT_EQ(profile, 100);
  EXPECT_TRUE(set1);
  EXPECT_TRUE(full);
  ASSERT_TRUE(report(record(sps::baseline("0 0 1 101 0 0 0 0 0 0 0 0 0 "))));  // signal type, not full
  EXPECT_FALSE(full);
}

TEST_F(AvccBox, AnSpsWithoutVuiGetsOneWithOnlyTheVideoSignalType) {
  // Video format 5, the full-range flag, no colour description; every other
  // VUI flag zero.
  const std::string added = "0 0 1 101 1 0 0 0 0 0 0 0 ";
  EXPECT_EQ(assign(record(sps::baseline()), true), record(sps::baseline(added, "1100"), true));
  EXPECT_FALSE(wasFullRange);
  EXPECT_FALSE(wasSet1);
  ASSERT_TRUE(report(hexOf(out)));
  EXPECT_TRUE(set1);
  EXPECT_TRUE(full);

  // The same for a High SPS with a scaling list (+2, then -10, which ends
  // it): its codes come back as they were.
  const auto high = [](const std::string& flags, const std::string& list, const std::string& vui) {
    return sps::header(100, flags) + "010 1 1 0 1 1 " + list + "0000000 " + sps::kBody + sps::tail(vui);
  };
  EXPECT_EQ(assign(record(high("0000", "00100 000010101 ", "")), false),
            record(high("0100", "00100 000010101 ", "0 0 1 101 0 0 0 0 0 0 0 0 "), true));
}

TEST_F(AvccBox, OnlyTheFlagsAndAComponentVideoFormatChange) {
  const auto vuiWith = [](const std::string& signal) {
    std::string vui = sps::kFullVui;
    return vui.replace(vui.find("1 101 1 "), 8, signal);
  };
  // Format 0 becomes 5 even though the SPS carried it; trailing bytes stay.
  EXPECT_EQ(assign(record(sps::baseline(vuiWith("1 000 1 "), "1000"), false, " FD F8"), true),
            record(sps::baseline(vuiWith("1 101 1 "), "1100"), true, " FD F8"));
  EXPECT_TRUE(wasFullRange);
  EXPECT_FALSE(wasSet1);
  EXPECT_EQ(assign(record(sps::baseline(vuiWith("1 010 1 "), "1100")), false),
            record(sps::baseline(vuiWith("1 010 0 "), "1100"), true));
  EXPECT_TRUE(wasSet1);
}

TEST_F(AvccBox, FailuresPrintTheirMessageAndLeaveTheOutputsAlone) {
  ConsoleCapture console;
  EXPECT_FALSE(report("01 64 00"));
  EXPECT_EQ(assign("01 64 00", true), "");
  EXPECT_FALSE(report(record(sps::header(66) + "0000000000000000 1 1111111111111111")));
  EXPECT_EQ(assign(record(sps::header(66) + "1 011"), true), "");  // cut after pic_order_cnt_type
  EXPECT_EQ(profile, 0);
  EXPECT_TRUE(set1 && full && wasFullRange && wasSet1);
  EXPECT_EQ(console.text(),
            "avcc.parse() failed: no more data\n"
            "avcc.parse() failed: no more data\n"
            "avcc.sps_parse() failed: too log golomb sream\n"
            "avcc.sps_parse() failed: no more data\n");
}

TEST_F(AvccBox, AnEmptySpsListIsLeftToTheCallerAsOutOfRange) {
  ConsoleCapture console;
  box.payload = bytesOf("01 42 C0 1E FF E0 00");
  EXPECT_THROW(box.get_profile_idc_and_constrained_set1_flag(profile, set1, full), std::out_of_range);
  out = bytesOf("DE AD");
  EXPECT_THROW(box.assign_fullRange_and_constrained_set1_flag(out, true, wasFullRange, wasSet1), std::out_of_range);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(console.text(), "");
}

}  // namespace
