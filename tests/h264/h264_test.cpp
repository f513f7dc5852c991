// Bit streams and the avcC record with its SPS: hand-made records must write back and rewrite for -set1 as in
// golden/records.txt (SONDEX_UPDATE_GOLDEN=1 rewrites it), records of movies made by Debian's ffmpeg with libx264
// must write back bit for bit, and after -set1 ffmpeg's own SPS parser must read only the intended changes.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "h264/avc_config.h"
#include "mp4/avcc.h"
#include "tests/h264/fixtures.h"
#include "tests/support/movie.h"

namespace {

using namespace sondex::test;

std::string thrown(const std::function<void()>& f) try { return f(), ""; } catch (const char* m) {
  return m;
} catch (const std::out_of_range&) {
  return "out of range";
}

TEST(BitStream, ByteOperationsNeedAByteBoundaryAndCodesGoWhole) {
  GolombBitStream w, r;
  ByteArray out;
  for (auto [value, n] : {std::pair{0b101u, 3}, {0b001010011u, 9}, {0xFFFFFFFFu, 32}, {1u, 40}, {1u, 1}})
    w.write_bits(value, n);
  EXPECT_EQ(thrown([&] { w.read8(); }) + thrown([&] { w.read16n(); }) + thrown([&] { w.read_bytes(1, out); }) +
                thrown([&] { w.write8(1); }) + thrown([&] { w.write16n(1); }) + thrown([&] { w.write_bytes(out); }),
            "bits existedbits existedbits existedbits existedbits existedbits existed");  // 85 bits written
  w.flush_bits(), w.flush_bits();                                               // the second has nothing to add
  for (uint32_t v : {0u, 65535u, 0xFFFFFFFEu, 0xFFFFFFFFu}) w.write_golomb(v);  // beyond what can be read back
  EXPECT_EQ(hexOf(w.bytes()),
            "A5 3F FF FF FF F0 00 00 00 00 18 80 00 40 00 00 00 00 00 7F FF FF FF 80 00 00 00 40"
            " 00 00 00 00");
  for (uint32_t v = 0; v <= 65534; ++v) r.write_golomb(v);
  r.flush_bits();  // then read from the front of what was written
  for (uint32_t v = 0; v <= 65534; ++v) ASSERT_EQ(r.read_golomb(), v);
  for (uint32_t v : {0u, 6u, 0xFFFFFFFFu}) EXPECT_EQ(GolombBitStream::decode(GolombBitStream::encode(v)), v);
  EXPECT_EQ(GolombBitStream::decode(Bits{7, 3}), 0xFFFFFFFFu);  // not a whole code
  std::string profiles;
  for (unsigned p = 0; p < 256; ++p) profiles += HighProfileSpec::present_for(p) ? std::to_string(p) + " " : "";
  EXPECT_EQ(profiles, "44 83 86 100 110 118 122 128 138 244 ");
}

// A record around one SPS and one PPS, header bytes as encoders write them.
std::string record(const std::string& spsBits, const std::string& after = "") {
  const ByteArray sps = fromBits(spsBits);
  return "01 42 C0 1E FF E1 00 " + toHex({uint8_t(sps.size())}) + " " + hexOf(sps) + " 01 00 02 68 CE" + after;
}

// The record and its SPS written back (twice: the second time finds the lists empty), and the box's -set1
// rewrites to full and to limited range (with what they print).
std::string walk(const std::string& name, const std::string& hex) {
  ::AVCC avcc;
  SPS sps;
  MP4::AVCC box{0, 8, MP4::code("avcC"), nullptr};
  GolombBitStream in, out, out2;
  in.attach(box.payload = bytesOf(hex));
  ConsoleCapture console;
  std::ostringstream text;
  text << "== " << name << "\nmodel: " << thrown([&] { avcc.parse(in), avcc.sps_parse(sps), avcc.sps_assign(sps); });
  text << ',' << thrown([&] { avcc.to_s(out); }) << ',' << thrown([&] { avcc.to_s(out2); }) << ' '
       << hexOf(out.bytes());
  for (bool fullRange : {true, false}) {
    bool ok = false, was[2] = {true, true};
    ByteArray set1 = bytesOf("DE AD");  // emptied whatever happens
    const auto rewrite = [&] { ok = box.assign_fullRange_and_constrained_set1_flag(set1, fullRange, was[0], was[1]); };
    text << "\nset1: " << thrown(rewrite) << ok << " " << was[0] << was[1] << " " << hexOf(set1);
  }
  return text.str() + "\n" + console.text();
}

TEST(AVCC, EveryRecordWritesBackAndRewritesAsInTheGoldenFile) {
  const auto high = [](const std::string& chroma, const std::string& lists, const std::string& vui = "") {
    return record(sps::header(100, "0000") + chroma + " 1 1 0 1 " + lists + sps::kBody + sps::tail(vui));
  };
  const std::vector<std::pair<std::string, std::string>> records = {
      {"baseline without VUI", record(sps::baseline())},
      {"with every VUI part", record(sps::baseline(sps::kFullVui), " FD F8")},
      {"only a VCL HRD", record(sps::baseline("0 0 0 0 0 0 1 1 0000 0000 1 1 0 00000 00000 00000 00000 1 1 0 "))},
      {"no HRD, aspect ratio 1, no colour", record(sps::baseline("1 00000001 0 1 010 0 0 0 0 0 0 1 0 "))},
      {"component video, full range", record(sps::baseline("0 0 1 000 1 0 0 0 0 0 0 0 ", "1100"))},
      // List 0: -1, +2, -9 bring the scale to 0 and end it; list 6: +1, then 63 zeros.
      {"scaling lists",
       high("010", "1 011 00100 000010011 0 0 0 0 0 1 010 " + std::string(63, '1') + " 0 ", sps::kFullVui)},
      {"4:4:4 with 12 list flags", high("00100 0", "0 0 0 0 0 0 0 0 1 000010001 0 0 0 ")},  // list 8: -8 ends it
      {"picture order type 1", record(sps::header(66) +
                                      "1 010 0 011 010 00100 00100 00101 00110 010 0 000010100 "
                                      "0001111 1 1 0 " +
                                      sps::tail())},
      {"trailing bytes to escape", record(sps::baseline() + "0000000 00000000 00000000 00000011 00000000 00000000 "
                                                            "00000010 11111111 00000000 00000000")},
      {"two PPS for one SPS: the second is trailing", "01 42 00 1E FF E1 00 01 67 02 00 01 68 00 01 69"},
      {"no SPS", "01 42 00 1E FF E0 01 00 01 68"},
      {"header cut", "01 64 00"},
      {"second SPS missing", "01 42 00 1E FF E2 00 01 67 00 01 67 01 00 01 68"},
      {"SPS longer than the record", "01 42 00 1E FF E1 FF FF 67 42"},
      {"code too long", record(sps::header(66) + "0000000000000000 1 1111111111111111")},
      {"cut after the picture order type", record(sps::header(66) + "1 011")},
  };
  std::string text;
  for (const auto& [name, hex] : records) text += walk(name, hex);
  EXPECT_EQ(text, golden("tests/h264/golden/records.txt", text));
}

// The record's SPS as ffmpeg's trace_headers reads it, by element name (HRD elements prefixed "nal_" or "vcl_").
std::map<std::string, long long> ffmpegFields(const std::string& movie) {
  std::istringstream lines(
      run("ffmpeg -hide_banner -nostdin -i '" + movie +
          "' -c:v copy -bsf:v trace_headers -f null - 2>&1 | awk '"
          "/Sequence Parameter Set/ { sps = 1; next } sps && $4 !~ /^[0-9]/ { exit } /_hrd_parameters_present_flag/ { "
          "hrd = substr($5, 1, 4) } sps && $5 != \"rbsp_alignment_zero_bit\" { print ($5 ~ /^(cpb_|bit_rate_|cbr_flag)|"
          "delay_length_minus1|time_offset_length/ ? hrd : \"\") $5, $NF }'"));
  std::map<std::string, long long> fields;
  for (std::string name; lines >> name;) lines >> fields[name];
  return fields;
}

TEST(FfmpegCorpus, RecordsWriteBackAndSet1RewritesReadBackInFfmpeg) {
  if (!haveProgram("ffmpeg")) GTEST_SKIP() << "ffmpeg not installed";
  const std::string hrd = "-b:v 200k -maxrate 200k -bufsize 400k -x264-params nal-hrd=";
  for (const std::string& options : std::initializer_list<std::string>{
           "-profile:v baseline", "-r 60 -profile:v main", "-profile:v high10 -pix_fmt yuv420p10le",
           "-pix_fmt yuv444p -qp 0", "-vf scale=70:44 -x264-params tff=1", hrd + "vbr", hrd + "cbr",
           "-x264-params videoformat=component:fullrange=on", "-profile:v high -x264-params cqm=jvt",  // PPS matrices
           "-vf setsar=33/17 -x264-params colorprim=bt709:transfer=bt709:colormatrix=bt709:fullrange=on:overscan=show:"
           "chromaloc=1"}) {
    SCOPED_TRACE(options);
    TempDir dir;
    const std::string movie = dir.file("movie.mp4");
    run("ffmpeg -v error -nostdin -f lavfi -i testsrc=size=64x48 -frames:v 5 -c:v libx264 -pix_fmt yuv420p " + options +
        " '" + movie + "'");
    Bytes file = readFile(movie);
    const size_t at = std::string(file.begin(), file.end()).find("avcC") + 4, size = file[at - 6] << 8 | file[at - 5];
    ByteArray expected(file.data() + at, size - 8);
    const std::string payload = hexOf(expected);
    expected[4] &= 3, expected[5] &= 31;  // the reserved bits are not kept
    EXPECT_NE(walk(options, payload).find(",out of range " + hexOf(expected) + "\n"), std::string::npos);
    file[at + 10] &= 0xBF;  // the rewrite's input: constraint_set1_flag cleared, so that every flag changes
    writeFile(movie, file);
    auto fields = ffmpegFields(movie);
    const bool wasFull = fields["video_full_range_flag"] == 1;
    ASSERT_EQ(fields["constraint_set1_flag"], 0);
    {
      MP4::Container c;
      ASSERT_TRUE(c.attach(widen(movie), ~0ULL) && c.appendFullRangeAndConstrainedSet1Flag(!wasFull));
    }
    fields["constraint_set1_flag"] = fields["video_signal_type_present_flag"] = 1;
    if (fields["video_format"] == 0) fields["video_format"] = 5;  // never component video, absent or not
    fields["video_full_range_flag"] = !wasFull;
    fields.try_emplace("colour_description_present_flag", 0);
    EXPECT_EQ(ffmpegFields(movie), fields);
  }
}

}  // namespace
