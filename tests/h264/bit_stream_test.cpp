// Bit order, byte boundaries and the exp-Golomb codes of the bit streams.
#include "h264/bit_stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "tests/h264/bit_text.h"

namespace {

using namespace sondex::test;

// A stream attached to bytes.
struct Reader : GolombBitStream {
  explicit Reader(const ByteArray& bytes) { attach(bytes); }
};

// ------------------------------------------------ bit order and boundaries

TEST(BitStream, ReadsMostSignificantBitFirstAcrossBytes) {
  BitStream s;
  s.attach(bytesOf("A5 3C"));  // 1010 0101 0011 1100
  EXPECT_EQ(s.next_bit(), 1);
  EXPECT_EQ(s.next_bit(), 0);
  const Bits nine = s.read_bits(9);
  EXPECT_EQ(nine.value, 0b100101001u);
  EXPECT_EQ(nine.count, 9);
  EXPECT_EQ(s.read_bits(5).value, 0b11100u);
  EXPECT_EQ(thrownMessage([&] { s.next_bit(); }), "no more data");
}

TEST(BitStream, ReadBitsBelowOneConsumesNothing) {
  BitStream s;
  s.attach(bytesOf("7F"));
  const Bits none = s.read_bits(0);
  EXPECT_EQ(none.value, 0u);
  EXPECT_EQ(none.count, 0);
  EXPECT_EQ(s.read_bits(-3).count, -3);
  EXPECT_EQ(s.read8(), 0x7F);
}

TEST(BitStream, ThirtyTwoBitReadsSpanFiveBytes) {
  BitStream s;
  s.attach(bytesOf("F1 23 45 67 8F"));
  s.read_bits(4);
  EXPECT_EQ(s.read_bits(32).value, 0x12345678u);
  EXPECT_EQ(s.read_bits(4).value, 0xFu);
}

TEST(BitStream, ByteReadsNeedAByteBoundary) {
  BitStream s;
  s.attach(bytesOf("E0 12 34 56 78"));
  s.read_bits(3);
  EXPECT_EQ(thrownMessage([&] { s.read8(); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { s.read16n(); }), "bits existed");
  ByteArray out;
  EXPECT_EQ(thrownMessage([&] { s.read_bytes(1, out); }), "bits existed");
  s.read_bits(5);  // the rest of the first byte
  EXPECT_EQ(s.read8(), 0x12);
  EXPECT_EQ(s.read16n(), 0x3456);
  s.read_bytes(1, out);
  EXPECT_EQ(hexOf(out), "78");
  EXPECT_EQ(s.remaining(), 0u);
}

TEST(BitStream, ShortByteReadsFailWithoutConsuming) {
  BitStream s;
  s.attach(bytesOf("01 02 03"));
  EXPECT_EQ(s.read16n(), 0x0102);
  EXPECT_EQ(thrownMessage([&] { s.read16n(); }), "no more data");
  ByteArray out = bytesOf("AA");
  // A length from the input far beyond the data fails before any allocation.
  EXPECT_EQ(thrownMessage([&] { s.read_bytes(std::numeric_limits<size_t>::max(), out); }), "no more data");
  EXPECT_EQ(thrownMessage([&] { s.read_bytes(2, out); }), "no more data");
  EXPECT_EQ(hexOf(out), "AA");
  EXPECT_EQ(s.read8(), 0x03);
  EXPECT_EQ(thrownMessage([&] { s.read8(); }), "no more data");
  s.read_bytes(0, out);
  EXPECT_TRUE(out.empty());
}

TEST(BitStream, WriterPacksMostSignificantBitFirst) {
  BitStream s;
  s.write_bits(0b101, 3);
  s.write_bits(0b001010011, 9);
  s.write_bits(0b1100, 4);
  s.write_bits(1, 1);
  EXPECT_EQ(hexOf(s.bytes()), "A5 3C 80");  // the last byte padded with zeros
  EXPECT_EQ(hexOf(s.bytes()), "A5 3C 80");  // taking the bytes again adds nothing
}

TEST(BitStream, WritesOfEveryWidthKeepEveryBit) {
  BitStream s;
  s.write_bits(0, 7);
  s.write_bits(0xFFFFFFFF, 32);
  s.write_bits(0, 1);
  s.write_bits(0x12345678, 32);
  s.write_bits(1, 40);  // 39 zeros, then the one
  EXPECT_EQ(hexOf(s.bytes()), "01 FF FF FF FE 12 34 56 78 00 00 00 00 01");
}

TEST(BitStream, ByteWritesNeedAByteBoundary) {
  BitStream s;
  s.write_bits(1, 1);
  EXPECT_EQ(thrownMessage([&] { s.write8(0x12); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { s.write16n(0x1234); }), "bits existed");
  EXPECT_EQ(thrownMessage([&] { s.write_bytes(bytesOf("56")); }), "bits existed");
  s.flush_bits();
  s.flush_bits();  // nothing held: no byte added
  s.write8(0x12);
  s.write16n(0x3456);
  s.write_bytes(bytesOf("78 9A"));
  EXPECT_EQ(hexOf(s.bytes()), "80 12 34 56 78 9A");
}

TEST(BitStream, BytesOfAReaderAreThoseNotYetConsumed) {
  BitStream s;
  s.attach(bytesOf("01 02 03"));
  s.read8();
  EXPECT_EQ(hexOf(s.bytes()), "02 03");
}

// ------------------------------------------------------- unsigned codes

TEST(GolombBitStream, ReadsTheShortestCodes) {
  Reader s(fromBits("1 010 011 00100 00101 00110 00111 0001000 0001111"));
  for (uint32_t expected : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 14u}) EXPECT_EQ(s.read_golomb(), expected);
}

TEST(GolombBitStream, AcceptsFifteenLeadingZerosAndNoMore) {
  const std::string zeros15 = "000000000000000";
  EXPECT_EQ(Reader(fromBits(zeros15 + "1" + "111111111111111")).read_golomb(), 65534u);
  EXPECT_EQ(Reader(fromBits(zeros15 + "1" + "000000000000000")).read_golomb(), 32767u);
  EXPECT_EQ(thrownMessage([&] { Reader(fromBits(zeros15 + "01" + "1111111111111111")).read_golomb(); }),
            "too log golomb sream");
  // Sixteen zero bits end the input before the code is known to be too long.
  EXPECT_EQ(thrownMessage([] { Reader(bytesOf("00 00")).read_golomb(); }), "no more data");
  EXPECT_EQ(thrownMessage([] { Reader(bytesOf("00 00 00 00")).read_golomb(); }), "too log golomb sream");
  EXPECT_EQ(thrownMessage([] { Reader(bytesOf("01")).read_golomb(); }), "no more data");
}

TEST(GolombBitStream, EveryReadableCodeRoundTrips) {
  GolombBitStream writer;
  for (uint32_t v = 0; v <= 65534; ++v) writer.write_golomb(v);
  Reader reader(writer.bytes());
  for (uint32_t v = 0; v <= 65534; ++v) {
    ASSERT_EQ(reader.read_golomb(), v);
  }
}

TEST(GolombBitStream, WriteZeroIsTheSingleBitOne) {
  GolombBitStream s;
  s.write_golomb(0);
  EXPECT_EQ(hexOf(s.bytes()), "80");
}

TEST(GolombBitStream, WritesCodesBeyondTheReadableRange) {
  GolombBitStream s;
  s.write_golomb(65535);  // 16 zeros, then 1 and 16 zeros
  EXPECT_EQ(hexOf(s.bytes()), "00 00 80 00 00");
  EXPECT_EQ(thrownMessage([&] { Reader(s.bytes()).read_golomb(); }), "too log golomb sream");

  GolombBitStream most;
  most.write_golomb(0xFFFFFFFE);  // 31 zeros, then 32 ones
  EXPECT_EQ(hexOf(most.bytes()), "00 00 00 01 FF FF FF FE");
  GolombBitStream all;
  all.write_golomb(0xFFFFFFFF);  // the 33-bit code 2^32 after 32 zeros
  EXPECT_EQ(hexOf(all.bytes()), "00 00 00 00 80 00 00 00 00");
}

TEST(GolombBitStream, EncodeAndDecode) {
  const Bits zero = GolombBitStream::encode(0);
  EXPECT_EQ(zero.value, 1u);
  EXPECT_EQ(zero.count, 1);
  const Bits six = GolombBitStream::encode(6);
  EXPECT_EQ(six.value, 7u);
  EXPECT_EQ(six.count, 5);
  const Bits top = GolombBitStream::encode(0xFFFFFFFF);
  EXPECT_EQ(top.value, 0u);
  EXPECT_EQ(top.count, 65);

  EXPECT_EQ(GolombBitStream::decode(six), 6u);
  EXPECT_EQ(GolombBitStream::decode(Bits{7, 3}), 0xFFFFFFFFu);  // not yet a whole code
  EXPECT_EQ(GolombBitStream::decode(Bits{0, 1}), 0xFFFFFFFFu);
  EXPECT_EQ(GolombBitStream::decode(Bits{0, 65}), 0xFFFFFFFFu);
  EXPECT_EQ(GolombBitStream::decode(Bits{0x80000000, 63}), 0x7FFFFFFFu);
  for (uint32_t v : {1u, 2u, 3u, 254u, 255u, 65534u, 65535u, 0x7FFFFFFFu, 0xFFFFFFFEu}) {
    EXPECT_EQ(GolombBitStream::decode(GolombBitStream::encode(v)), v) << v;
  }
}

// ------------------------------------------------- the signed mapping

TEST(GolombBitStream, SignedReadingTakesOddCodesAsNegative) {
  Reader s(fromBits("1 010 011 00100 00101 00110"));  // codes 0 to 5
  for (int32_t expected : {0, 0, 1, -1, 2, -2}) EXPECT_EQ(s.read_golombs(), expected);
}

TEST(GolombBitStream, SignedWritingGivesNegativesTheOddCodeBelow) {
  GolombBitStream s;
  for (int32_t v : {0, -1, 1, -2, 2, -128, 127}) s.write_golombs(v);
  Reader codes(s.bytes());
  for (uint32_t expected : {0u, 1u, 2u, 3u, 4u, 255u, 254u}) EXPECT_EQ(codes.read_golomb(), expected);

  GolombBitStream minusOne;
  minusOne.write_golombs(-1);
  EXPECT_EQ(hexOf(minusOne.bytes()), "40");  // 010
  EXPECT_EQ(Reader(minusOne.bytes()).read_golombs(), 0);
}

TEST(GolombBitStream, SignedValuesRoundTripOnlyWhenNotNegative) {
  GolombBitStream s;
  for (int32_t v = -32767; v <= 32767; ++v) s.write_golombs(v);
  Reader r(s.bytes());
  for (int32_t v = -32767; v <= 32767; ++v) {
    ASSERT_EQ(r.read_golombs(), v < 0 ? v + 1 : v) << v;
  }
}

TEST(GolombBitStream, SignedExtremesWriteWithoutOverflow) {
  GolombBitStream low;
  low.write_golombs(std::numeric_limits<int32_t>::min());  // code number 0xFFFFFFFF
  EXPECT_EQ(hexOf(low.bytes()), "00 00 00 00 80 00 00 00 00");
  GolombBitStream high;
  high.write_golombs(std::numeric_limits<int32_t>::max());  // code number 0xFFFFFFFE
  EXPECT_EQ(hexOf(high.bytes()), "00 00 00 01 FF FF FF FE");
}

}  // namespace
