#include "mp4/box.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"

namespace MP4 {

namespace {

// Containers deeper than this are kept as plain boxes. Real movies nest
// about eight levels; the bound keeps a crafted chain of uuid/track boxes
// from exhausting the stack in the parse, the dump or the destructor.
constexpr int kMaxNestingDepth = 64;

using Creator = BOX* (*)(BOX& header, BOX* parent);

template <class T>
BOX* make(BOX& header, BOX* parent) {
  return new T(header, parent);
}

struct ChildClass {
  FourCC type;
  Creator create;
};

template <size_t N>
BOX* allocFrom(const ChildClass (&table)[N], BOX& header, BOX* parent) {
  for (const ChildClass& row : table) {
    if (row.type == header.type) return row.create(header, parent);
  }
  return new BOX(header, parent);
}

constexpr ChildClass kRootChildren[] = {
    {code("ftyp"), make<FTYP>}, {code("mdat"), make<MDAT>}, {code("meta"), make<META>},
    {code("moov"), make<MOOV>}, {code("uuid"), make<UUID>},
};
constexpr ChildClass kMoovChildren[] = {
    {code("mvhd"), make<MVHD>},
    {code("trak"), make<TRAK>},
    {code("udta"), make<UDTA>},
};
constexpr ChildClass kTrakChildren[] = {
    {code("tkhd"), make<TKHD>},
    {code("mdia"), make<MDIA>},
    {code("uuid"), make<UUID>},
};
constexpr ChildClass kMdiaChildren[] = {
    {code("mdhd"), make<MDHD>},
    {code("minf"), make<MINF>},
};
constexpr ChildClass kMinfChildren[] = {
    {code("stbl"), make<STBL>},
};
constexpr ChildClass kStblChildren[] = {
    {code("stsd"), make<STSD>}, {code("stts"), make<STTS>}, {code("stsc"), make<STSC>},
    {code("stsz"), make<STSZ>}, {code("stco"), make<STCO>}, {code("co64"), make<CO64>},
};
constexpr ChildClass kStsdChildren[] = {
    {code("avc1"), make<AVC1>},
    {code("sowt"), make<SOWT>},
};
constexpr ChildClass kAvc1Children[] = {
    {code("avcC"), make<AVCC>},
};
constexpr ChildClass kUdtaChildren[] = {
    {code("loci"), make<LOCI>},
    {{0xA9, 'x', 'y', 'z'}, make<XYZ>},
};
constexpr ChildClass kMetaChildren[] = {
    {code("hdlr"), make<HDLR>},
};
// A track stored inside the spatial-audio uuid box: typed like moov.trak so
// that its own children are decoded the same way.
constexpr ChildClass kUuidChildren[] = {
    {code("KATR"), make<TRAK>},
};

bool segmentMatches(const char* path, const FourCC& type) {
  for (int i = 0; i < 4; ++i) {
    if (path[i] == '\0' || static_cast<uint8_t>(path[i]) != type[i]) return false;
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------- BOX

BOX::BOX(uint64_t start_, uint64_t size_, const FourCC& type_, BOX* parent_)
    : start(start_), size(size_), type(type_), parent(parent_) {}

BOX::BOX(BOX& other, BOX* parent_)
    : depth(other.depth),
      start(other.start),
      size(other.size),
      type(other.type),
      largeSize(other.largeSize),
      parent(parent_) {}

BOX::BOX(BinFile& f, int depth_, BOX* parent_) : depth(depth_), start(f.tell()), parent(parent_) {
  const uint32_t size32 = f.read32();
  f.take(type.data(), 4);
  if (size32 == 1) {
    largeSize = true;
    size = f.read64();
  } else if (size32 == 0) {
    size = f.length() - start;  // runs to the end of the file
  } else {
    size = size32;
  }
}

void BOX::parseBox(BinFile&, uint64_t) {}

void BOX::enter(BinFile& f, uint64_t limit) const { f.limit = std::min(end(), limit); }

std::wstring BOX::indent() const { return std::wstring(depth > 0 ? static_cast<size_t>(depth) * 4 : 0, L' '); }

std::wstring BOX::basicTag() const {
  wchar_t name[5] = {};
  for (int i = 0; i < 4 && type[i] != 0; ++i) name[i] = type[i];
  char text[64];
  snprintf(text, sizeof text, "'%ls': start=%llu bytes=%llu", name, static_cast<unsigned long long>(start),
           static_cast<unsigned long long>(size));
  return GLTK::wchar::mbs2wcs(text);
}

void BOX::dump() const {
  if (typeIsZero()) {
    GLTK::Console::out(L"MP4: %ls== EOF total=%lld ==\n", indent().c_str(), static_cast<long long>(start));
    return;
  }
  GLTK::Console::out(L"MP4: %ls<%ls >\n", indent().c_str(), basicTag().c_str());
}

void BOX::writeSize(BinFile& f, uint64_t newSize) {
  const uint64_t saved = f.tell();
  uint8_t bytes[8];
  if (largeSize) {
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(newSize >> (56 - 8 * i));
    f.seek_set(start + 8);
    f.write(bytes, 8);
  } else {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(newSize >> (24 - 8 * i));
    f.seek_set(start);
    f.write(bytes, 4);
  }
  f.seek_set(saved);
}

bool BOX::copyTo(GLTK::FileIO& src, GLTK::FileIO& dst) {
  if (!src.seek_set(start)) return false;
  unsigned char block[1024];
  for (uint64_t left = size; left > 0;) {
    const uint64_t n = std::min<uint64_t>(left, sizeof block);
    if (src.read(block, n) != n) return false;
    if (dst.write(block, n) != n) return false;
    left -= n;
  }
  return true;
}

// ---------------------------------------------------------------- NestedBox

NestedBox::~NestedBox() {
  for (BOX* child : children) delete child;
}

BOX* NestedBox::allocChild(BOX& header) { return new BOX(header, this); }

void NestedBox::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  parseChildren(f, limit);
}

void NestedBox::parseChildren(BinFile& f, uint64_t limit) {
  enter(f, limit);
  for (;;) {
    BOX header(f, depth + 1, this);
    if (header.typeIsZero()) break;  // also what a read past the limit yields
    BOX* child = header.depth > kMaxNestingDepth ? new BOX(header, this) : allocChild(header);
    child->parseBox(f, limit);
    children.push_back(child);
    const uint64_t next = header.start + header.size;
    // A size of 0 in the large form, or one that wraps, would stand still
    // or walk backwards for ever.
    if (next <= header.start) break;
    f.seek_set(next);
    enter(f, limit);
  }
}

void NestedBox::find(const char* path, std::function<bool(BOX&)> predicate) const {
  for (BOX* child : children) {
    if (!segmentMatches(path, child->type)) continue;
    if (path[4] == '\0') {
      if (!predicate(*child)) return;
    } else if (path[4] == '.' && child->hasChild()) {
      static_cast<const NestedBox*>(child)->find(path + 5, predicate);
    }
  }
}

void NestedBox::if_not_found(const char* path, const std::function<void()>& action) const {
  bool found = false;
  find(path, [&found](BOX&) {
    found = true;
    return false;
  });
  if (!found) action();
}

void NestedBox::dumpChildren() const {
  for (const BOX* child : children) child->dump();
}

void NestedBox::dump() const {
  if (typeIsZero()) {
    BOX::dump();
  } else {
    GLTK::Console::out(L"MP4: %ls<%ls children=%lu >\n", indent().c_str(), basicTag().c_str(),
                       static_cast<unsigned long>(children.size()));
  }
  dumpChildren();
}

void NestedBoxWithVersion::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  f.take(versionAndFlags.data(), 4);
  parseChildren(f, limit);
}

// ---------------------------------------------------------------- containers

void ROOT::dump() const {
  GLTK::Console::out(L"MP4: == %ls ==\n", basicTag().c_str());
  dumpChildren();
}

BOX* ROOT::allocChild(BOX& header) {
  // Top-level moov, meta and uuid get no parent on purpose: walking up from
  // anything inside the movie box ends at the movie box, never at the root.
  const bool orphan = header.is(code("moov")) || header.is(code("meta")) || header.is(code("uuid"));
  return allocFrom(kRootChildren, header, orphan ? nullptr : this);
}

BOX* MOOV::allocChild(BOX& header) { return allocFrom(kMoovChildren, header, this); }
BOX* TRAK::allocChild(BOX& header) { return allocFrom(kTrakChildren, header, this); }
BOX* MDIA::allocChild(BOX& header) { return allocFrom(kMdiaChildren, header, this); }
BOX* MINF::allocChild(BOX& header) { return allocFrom(kMinfChildren, header, this); }
BOX* STBL::allocChild(BOX& header) { return allocFrom(kStblChildren, header, this); }
BOX* UDTA::allocChild(BOX& header) { return allocFrom(kUdtaChildren, header, this); }
BOX* META::allocChild(BOX& header) { return allocFrom(kMetaChildren, header, this); }
BOX* STSD::allocChild(BOX& header) { return allocFrom(kStsdChildren, header, this); }
BOX* AVC1::allocChild(BOX& header) { return allocFrom(kAvc1Children, header, this); }
BOX* UUID::allocChild(BOX& header) { return allocFrom(kUuidChildren, header, this); }

}  // namespace MP4
