// Bit order, byte boundaries and the exp-Golomb codes of the bit streams.
#include "h264/bit_stream.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/h264/fixtures.h"

namespace {

using namespace sondex::test;

struct Reader : GolombBitStream {
  explicit Reader(const ByteArray& bytes) { attach(bytes); }
};

TEST(BitStream, BitsGoMostSignificantFirstAcrossBytes) {
  Reader r(bytesOf("A5 3C F1 23 45 67 8F"));  // 1010 0101 0011 1100 ...
  EXPECT_EQ(r.next_bit(), 1);
  EXPECT_EQ(r.read_bits(9).value, 0b010010100u);
  const Bits none = r.read_bits(0);  // consumes nothing
  EXPECT_EQ(none.count, 0);
  EXPECT_EQ(r.read_bits(6).value, 0b111100u);
  EXPECT_EQ(r.read_bits(4).value, 0xFu);
  EXPECT_EQ(r.read_bits(32).value, 0x12345678u);

  BitStream w;
  w.write_bits(0b101, 3);
  w.write_bits(0b001010011, 9);
  w.write_bits(0xFFFFFFFF, 32);
  w.write_bits(1, 40);  // 39 zeros, then the one
  w.write_bits(1, 1);
  EXPECT_EQ(hexOf(w.bytes()), "A5 3F FF FF FF F0 00 00 00 00 18");  // padded with zeros
  EXPECT_EQ(hexOf(w.bytes()), "A5 3F FF FF FF F0 00 00 00 00 18");
}

TEST(BitStream, ByteOperationsNeedAByteBoundaryAndEnoughBytes) {
  Reader r(bytesOf("E0 12 34 56"));
  ByteArray out = bytesOf("AA");
  r.read_bits(3);
  EXPECT_EQ(thrownMessage([&] { r.read8(); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { r.read16n(); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { r.read_bytes(1, out); }), "bits existed");
  r.read_bits(5);
  EXPECT_EQ(r.read16n(), 0x1234);
  // A length from the input beyond the data fails before anything is taken.
  EXPECT_EQ(thrownMessage([&] { r.read_bytes(std::numeric_limits<size_t>::max(), out); }), "no more data");
  EXPECT_EQ(thrownMessage([&] { r.read16n(); }), "no more data");
  EXPECT_EQ(hexOf(out), "AA");
  EXPECT_EQ(r.read8(), 0x56);
  EXPECT_EQ(thrownMessage([&] { r.read8(); }), "no more data");
  EXPECT_EQ(thrownMessage([&] { r.next_bit(); }), "no more data");

  BitStream w;
  w.write_bits(1, 1);
  EXPECT_EQ(thrownMessage([&] { w.write8(0x12); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { w.write16n(0x1234); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { w.write_bytes(bytesOf("56")); }), "bits existed");
  w.flush_bits();
  w.flush_bits();  // nothing held: nothing added
  w.write16n(0x1234);
  w.write_bytes(bytesOf("56"));
  EXPECT_EQ(hexOf(w.bytes()), "80 12 34 56");
}

TEST(GolombBitStream, UnsignedCodesUpToFifteenLeadingZeros) {
  Reader shortest(fromBits("1 010 011 00100 00101 0001111"));
  for (uint32_t expected : {0u, 1u, 2u, 3u, 4u, 14u}) EXPECT_EQ(shortest.read_golomb(), expected);

  const std::string zeros15(15, '0');
  EXPECT_EQ(Reader(fromBits(zeros15 + "1" + std::string(15, '1'))).read_golomb(), 65534u);
  EXPECT_EQ(thrownMessage([&] { Reader(fromBits(zeros15 + "01" + std::string(16, '1'))).read_golomb(); }),
            "too log golomb sream");
  EXPECT_EQ(thrownMessage([] { Reader(bytesOf("00 00 00 00")).read_golomb(); }), "too log golomb sream");
  EXPECT_EQ(thrownMessage([] { Reader(bytesOf("00 00")).read_golomb(); }), "no more data");

  GolombBitStream w;
  for (uint32_t v = 0; v <= 65534; ++v) w.write_golomb(v);
  Reader all(w.bytes());
  for (uint32_t v = 0; v <= 65534; ++v) ASSERT_EQ(all.read_golomb(), v);

  // Beyond what can be read back, codes are still written whole.
  for (const auto& [v, hex] : {std::pair<uint32_t, const char*>{0, "80"},
                               {65535, "00 00 80 00 00"},
                               {0xFFFFFFFE, "00 00 00 01 FF FF FF FE"},
                               {0xFFFFFFFF, "00 00 00 00 80 00 00 00 00"}}) {
    GolombBitStream one;
    one.write_golomb(v);
    EXPECT_EQ(hexOf(one.bytes()), hex) << v;
    EXPECT_EQ(GolombBitStream::decode(GolombBitStream::encode(v)), v) << v;  // 2^32 wraps to 0, decoded as all ones
  }
  EXPECT_EQ(GolombBitStream::encode(6).count, 5);
  EXPECT_EQ(GolombBitStream::decode(Bits{7, 3}), 0xFFFFFFFFu);  // not a whole code
}

}  // namespace
