#include "tests/support/tiff_builder.h"

#include <stdexcept>

namespace sondex::test {

// Lays directories out one after another, each followed by its own data;
// offsets written count from the block's start, out[0].
struct TiffLayout {
  bool big;
  Bytes out;

  void set(size_t pos, const Bytes& bytes) { std::copy(bytes.begin(), bytes.end(), out.begin() + ptrdiff_t(pos)); }
  void put(size_t pos, uint32_t v) { set(pos, ByteWriter(big).u32(v).data()); }
  uint32_t append(const Bytes& data) {  // at an even offset, which it returns
    if (out.size() % 2 != 0) out.push_back(0);
    out.insert(out.end(), data.begin(), data.end());
    return static_cast<uint32_t>(out.size() - data.size());
  }
  uint32_t place(const Ifd& ifd) {  // count, entries, next-IFD link 0, then the data; returns the offset
    const uint32_t at = append(Bytes(6 + 12 * ifd.entries.size(), 0));
    set(at, ByteWriter(big).u16(uint16_t(ifd.entries.size())).data());
    for (size_t i = 0, field = at + 2; i < ifd.entries.size(); ++i, field += 12) {
      set(field, ByteWriter(big).u16(ifd.entries[i].tag).u16(ifd.entries[i].type).data());
      put(field + 4, ifd.entries[i].place(*this, field + 8));
    }
    return at;
  }
  Bytes done(const Ifd& ifd) { return place(ifd), out; }
};

Ifd& Ifd::data(uint16_t tag, uint16_t type, int unit, const std::vector<uint32_t>& elements, size_t count) {
  return add(tag, type, [=](TiffLayout& l, size_t field) {
    ByteWriter w(l.big);
    for (uint32_t v : elements) unit == 1 ? w.u8(uint8_t(v)) : unit == 2 ? w.u16(uint16_t(v)) : w.u32(v);
    w.size() <= 4 ? l.set(field, w.data()) : l.put(field, l.append(w.data()));
    return uint32_t(count);
  });
}

Ifd& Ifd::subs(uint16_t tag, const std::vector<Ifd>& children) {
  return add(tag, kLong, [children](TiffLayout& l, size_t field) {
    // One pointer stands in the entry; more go to an array after the directory.
    const size_t n = children.size(), array = n == 1 ? field : l.append(Bytes(4 * n, 0));
    if (n != 1) l.put(field, uint32_t(array));
    for (size_t j = 0; j < n; ++j) l.put(array + 4 * j, l.place(children[j]));
    return uint32_t(n);
  });
}

Ifd& Ifd::makerNote(uint16_t tag, const Ifd& child, const std::string& signature) {
  return add(tag, kUndefined, [child, signature](TiffLayout& l, size_t field) {
    const uint32_t start = l.append({signature.begin(), signature.end()});
    l.place(child);
    l.put(field, start);
    return uint32_t(l.out.size() - start);
  });
}

Ifd& Ifd::offsetOf(uint16_t tag, const Bytes& data) {
  return add(tag, kLong, [data](TiffLayout& l, size_t field) { return l.put(field, l.append(data)), 1u; });
}

Ifd& Ifd::raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t value) {
  return add(tag, type, [count, value](TiffLayout& l, size_t field) { return l.put(field, value), count; });
}

Bytes TiffBuilder::build(const Ifd& ifd0) const {
  return TiffLayout{bigEndian, ByteWriter(bigEndian).u16(bigEndian ? 0x4D4D : 0x4949).u16(42).u32(8).data()}.done(ifd0);
}
Bytes TiffBuilder::buildMakerNote(const Ifd& ifd) const {
  return TiffLayout{bigEndian, {'K', 'o', 'r', 'v', 'u', 0, 0, 0}}.done(ifd);
}

// Roll -15, pitch 3.25, yaw 123.25; stitching tables, fisheye centres, 29.97 Hz; stabilisation 3.
Ifd cameraZepra() {
  Ifd zepra;
  zepra.shorts(0x0001, {2}).shorts(0x0002, {0}).srationals(0x0003, {-150, 10, 325, 100});
  zepra.rationals(0x0004, {12325, 100}).shorts(0x0005, {3}).shorts(0x0007, {1}).shorts(0x0013, {1});
  zepra.bytes(0x0201, kUndefined, Bytes(24, 0xA1)).bytes(0x0202, kUndefined, Bytes(40, 0xA2)).shorts(0x0203, {1});
  zepra.shorts(0x0204, {960, 950}).shorts(0x0205, {1920, 940}).rationals(0x0206, {30000, 1001}).shorts(0x1014, {3});
  return zepra;
}

Ifd cameraMakerNote(const Ifd& zepra) {
  return Ifd().ascii(0x0002, "CPU 2.10").ascii(0x0005, "SN10034567").shorts(0x1000, {2}).sub(0x4001, zepra);
}

Ifd cameraIfd0(const Ifd& makerNote, const std::string& model, const std::string& software) {
  const Ifd exif = Ifd().bytes(0x9000, kUndefined, {'0', '2', '3', '0'}).makerNote(0x927C, makerNote);
  return Ifd().ascii(0x0110, model).ascii(0x0131, software).sub(0x8769, exif);
}

Ifd cameraDngIfd0(const Ifd& preview, const Ifd& makerNote) {
  Ifd ifd0 = Ifd().ascii(0x0110, "KV-360 S1").ascii(0x0131, "KV-360 Ver 1.20");
  ifd0.subs(0x014A, {Ifd().longs(0x00FE, {0}), preview}).sub(0x8769, Ifd().makerNote(0x927C, makerNote));
  return ifd0.bytes(0xC612, kByte, {1, 4, 0, 0});
}

Ifd previewIfd(const Bytes& jpeg) {
  return Ifd().longs(0x00FE, {1}).shorts(0x0103, {7}).offsetOf(0x0111, jpeg).longs(0x0117, {uint32_t(jpeg.size())});
}

Bytes jpegSegment(uint16_t marker, const Bytes& payload) {
  if (payload.size() + 2 > 0xFFFF) throw std::length_error("JPEG segment too long");
  return ByteWriter().u16(marker).u16(static_cast<uint16_t>(payload.size() + 2)).bytes(payload).data();
}

static Bytes exifSegment(const Bytes& tiff) {
  return jpegSegment(0xFFE1, ByteWriter().str(std::string("Exif\0\0", 6)).bytes(tiff).data());
}

Bytes jpegWithExif(const Bytes& tiff, const std::vector<Bytes>& segmentsBefore) {
  ByteWriter w = ByteWriter().u16(0xFFD8);
  for (const Bytes& segment : segmentsBefore) w.bytes(segment);
  return w.bytes(exifSegment(tiff)).u16(0xFFD9).data();
}

Bytes spliceExif(const Bytes& jpeg, const Bytes& tiff) {
  size_t at = 2;  // after SOI and the APP0 segments
  while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] == 0xE0) at += 2 + jpeg[at + 2] * 256 + jpeg[at + 3];
  Bytes out = jpeg, segment = exifSegment(tiff);
  out.insert(out.begin() + ptrdiff_t(at), segment.begin(), segment.end());
  return out;
}

}  // namespace sondex::test
