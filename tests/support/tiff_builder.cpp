#include "tests/support/tiff_builder.h"

#include <stdexcept>

namespace sondex::test {

Ifd& Ifd::add(Entry entry) {
  entries_.push_back(std::move(entry));
  return *this;
}

Ifd& Ifd::ascii(uint16_t tag, const std::string& text) {
  Bytes data(text.begin(), text.end());
  data.push_back(0);
  return bytes(tag, kAscii, data);
}

Ifd& Ifd::bytes(uint16_t tag, uint16_t type, const Bytes& data) {
  return add({.kind = Entry::kData, .tag = tag, .type = type, .elements = {data.begin(), data.end()}});
}

Ifd& Ifd::shorts(uint16_t tag, std::vector<uint16_t> values) {
  return add({.kind = Entry::kData, .tag = tag, .type = kShort, .unit = 2, .elements = {values.begin(), values.end()}});
}

Ifd& Ifd::longs(uint16_t tag, std::vector<uint32_t> values) {
  return add({.kind = Entry::kData, .tag = tag, .type = kLong, .unit = 4, .elements = std::move(values)});
}

Ifd& Ifd::rationals(uint16_t tag, std::vector<uint32_t> pairs, uint16_t type) {
  Entry entry{.kind = Entry::kData, .tag = tag, .type = type, .unit = 4, .elements = std::move(pairs)};
  entry.count = static_cast<uint32_t>(entry.elements.size() / 2);
  return add(std::move(entry));
}

Ifd& Ifd::srationals(uint16_t tag, const std::vector<int32_t>& pairs) {
  return rationals(tag, {pairs.begin(), pairs.end()}, kSRational);
}

Ifd& Ifd::sub(uint16_t tag, const Ifd& child) {
  return add({.kind = Entry::kChild, .tag = tag, .type = kLong, .children = {child}});
}

Ifd& Ifd::subs(uint16_t tag, const std::vector<Ifd>& children) {
  return add({.kind = Entry::kChildren, .tag = tag, .type = kLong, .children = children});
}

Ifd& Ifd::makerNote(uint16_t tag, const Ifd& child, const std::string& signature) {
  return add({.kind = Entry::kMakerNote,
              .tag = tag,
              .type = kUndefined,
              .blob = {signature.begin(), signature.end()},
              .children = {child}});
}

Ifd& Ifd::offsetOf(uint16_t tag, const Bytes& data) {
  return add({.kind = Entry::kOffset, .tag = tag, .type = kLong, .blob = data});
}

Ifd& Ifd::raw(uint16_t tag, uint16_t type, uint32_t count, uint32_t value) {
  return add({.kind = Entry::kRaw, .tag = tag, .type = type, .count = count, .value = value});
}

Ifd& Ifd::withCount(uint32_t count) {
  entries_.back().count = count;
  return *this;
}

namespace {

// Lays directories out one after another, each followed by its own data.
class Layout {
 public:
  // origin: where out[0] lies in the block; offsets written count from the block's start.
  Layout(bool bigEndian, Bytes start, uint32_t origin = 0)
      : bigEndian_(bigEndian), origin_(origin), out(std::move(start)) {}

  uint32_t place(const Ifd& ifd) {
    align();
    const size_t at = out.size();
    const auto& entries = ifd.entries();
    out.resize(at + 2 + 12 * entries.size() + 4, 0);  // count, entries, next-IFD link 0
    put(at, 2, entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
      const Ifd::Entry& e = entries[i];
      const size_t field = at + 2 + 12 * i;
      put(field, 2, e.tag);
      put(field + 2, 2, e.type);
      uint32_t count = 1;
      switch (e.kind) {
        case Ifd::Entry::kData: {
          const Bytes data = encode(e);
          count = static_cast<uint32_t>(e.elements.size());
          if (data.size() <= 4) {
            std::copy(data.begin(), data.end(), out.begin() + static_cast<std::ptrdiff_t>(field + 8));
          } else {
            put(field + 8, 4, origin_ + append(data));
          }
          break;
        }
        case Ifd::Entry::kRaw:
          put(field + 8, 4, e.value);
          break;
        case Ifd::Entry::kChild:
          put(field + 8, 4, origin_ + place(e.children[0]));
          break;
        case Ifd::Entry::kChildren: {
          count = static_cast<uint32_t>(e.children.size());
          const size_t array = count == 1 ? field + 8 : append(Bytes(4 * count, 0));
          if (count != 1) put(field + 8, 4, origin_ + array);
          for (size_t j = 0; j < e.children.size(); ++j) put(array + 4 * j, 4, origin_ + place(e.children[j]));
          break;
        }
        case Ifd::Entry::kMakerNote: {
          const uint32_t start = append(e.blob);
          place(e.children[0]);
          count = static_cast<uint32_t>(out.size() - start);
          put(field + 8, 4, origin_ + start);
          break;
        }
        case Ifd::Entry::kOffset:
          put(field + 8, 4, origin_ + append(e.blob));
          break;
      }
      put(field + 4, 4, e.count.value_or(count));
    }
    return static_cast<uint32_t>(at);
  }

  void put(size_t pos, int n, uint64_t v) {
    for (int i = 0; i < n; ++i) {
      const int shift = bigEndian_ ? 8 * (n - 1 - i) : 8 * i;
      out[pos + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> shift);
    }
  }

 private:
  void align() {
    if (out.size() % 2 != 0) out.push_back(0);
  }
  uint32_t append(const Bytes& data) {
    align();
    const size_t at = out.size();
    out.insert(out.end(), data.begin(), data.end());
    return static_cast<uint32_t>(at);
  }
  Bytes encode(const Ifd::Entry& e) const {
    ByteWriter w(bigEndian_);
    for (uint32_t v : e.elements) {
      if (e.unit == 1) w.u8(static_cast<uint8_t>(v));
      if (e.unit == 2) w.u16(static_cast<uint16_t>(v));
      if (e.unit == 4) w.u32(v);
    }
    return w.data();
  }

  bool bigEndian_;
  uint32_t origin_;

 public:
  Bytes out;
};

}  // namespace

Bytes TiffBuilder::build(const Ifd& ifd0) const {
  Layout layout(bigEndian_, Bytes(8, 0));
  layout.put(0, 2, orderWord_.value_or(bigEndian_ ? 0x4D4D : 0x4949));
  layout.put(2, 2, tiffId_.value_or(42));
  layout.put(4, 4, 8);
  layout.place(ifd0);
  return layout.out;
}

Bytes TiffBuilder::buildAt(const Ifd& ifd, uint32_t origin) const {
  Layout layout(bigEndian_, {}, origin);
  layout.place(ifd);
  return layout.out;
}

Bytes TiffBuilder::buildMakerNote(const Ifd& ifd) const {
  Layout layout(bigEndian_, {'K', 'o', 'r', 'v', 'u', 0, 0, 0});
  layout.place(ifd);
  return layout.out;
}

Ifd cameraZepra() {
  return Ifd()
      .shorts(0x0001, {2})
      .shorts(0x0002, {0})
      .srationals(0x0003, {-150, 10, 325, 100})  // roll -15, pitch 3.25
      .rationals(0x0004, {12325, 100})           // yaw 123.25
      .shorts(0x0005, {3})
      .shorts(0x0007, {1})
      .shorts(0x0013, {1})
      .bytes(0x0201, kUndefined, Bytes(24, 0xA1))
      .bytes(0x0202, kUndefined, Bytes(40, 0xA2))
      .shorts(0x0203, {1})
      .shorts(0x0204, {960, 950})
      .shorts(0x0205, {1920, 940})
      .rationals(0x0206, {30000, 1001})
      .shorts(0x1014, {3});
}

Ifd cameraMakerNote(const Ifd& zepra) {
  return Ifd().ascii(0x0002, "CPU 2.10").ascii(0x0005, "SN10034567").shorts(0x1000, {2}).sub(0x4001, zepra);
}

Ifd cameraIfd0(const Ifd& makerNote, const std::string& model, const std::string& software) {
  return Ifd()
      .ascii(0x0110, model)
      .ascii(0x0131, software)
      .sub(0x8769, Ifd().bytes(0x9000, kUndefined, {'0', '2', '3', '0'}).makerNote(0x927C, makerNote));
}

Ifd cameraDngIfd0(const Ifd& preview, const Ifd& makerNote) {
  return Ifd()
      .ascii(0x0110, "KV-360 S1")
      .ascii(0x0131, "KV-360 Ver 1.20")
      .subs(0x014A, {Ifd().longs(0x00FE, {0}), preview})
      .sub(0x8769, Ifd().makerNote(0x927C, makerNote))
      .bytes(0xC612, kByte, {1, 4, 0, 0});
}

Ifd previewIfd(const Bytes& jpeg) {
  return Ifd()
      .longs(0x00FE, {1})
      .shorts(0x0103, {7})
      .offsetOf(0x0111, jpeg)
      .longs(0x0117, {static_cast<uint32_t>(jpeg.size())});
}

Bytes withSyntheticJpegHeader(const Bytes& tiff) {
  return ByteWriter().bytes({0xFF, 0xD8, 0xFF, 0xE1, 0xFF, 0xFF, 'E', 'x', 'i', 'f', 0, 0}).bytes(tiff).data();
}

Bytes jpegSegment(uint16_t marker, const Bytes& payload) {
  if (payload.size() + 2 > 0xFFFF) throw std::length_error("JPEG segment too long");
  return ByteWriter().u16(marker).u16(static_cast<uint16_t>(payload.size() + 2)).bytes(payload).data();
}

Bytes exifSegment(const Bytes& tiff) {
  return jpegSegment(0xFFE1, ByteWriter().str(std::string("Exif\0\0", 6)).bytes(tiff).data());
}

Bytes jpegWithExif(const Bytes& tiff, const std::vector<Bytes>& segmentsBefore) {
  ByteWriter w;
  w.u16(0xFFD8);
  for (const Bytes& segment : segmentsBefore) w.bytes(segment);
  return w.bytes(exifSegment(tiff)).u16(0xFFD9).data();
}

Bytes spliceExif(const Bytes& jpeg, const Bytes& tiff) {
  size_t at = 2;  // after SOI
  while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] == 0xE0)
    at += 2 + (jpeg[at + 2] << 8 | jpeg[at + 3]);
  Bytes out(jpeg.begin(), jpeg.begin() + static_cast<std::ptrdiff_t>(at));
  const Bytes segment = exifSegment(tiff);
  out.insert(out.end(), segment.begin(), segment.end());
  out.insert(out.end(), jpeg.begin() + static_cast<std::ptrdiff_t>(at), jpeg.end());
  return out;
}

}  // namespace sondex::test
