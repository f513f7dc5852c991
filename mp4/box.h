// The box tree of an MP4 file. Each box records where it lies in the file;
// containers own their children; the typed boxes (boxes.h) decode the
// header fields the program needs while the tree is built. Parsing never
// fails: damaged or short data gives zero fields and ends child lists.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "gltk/checked_range.h"
#include "mp4/bin_file.h"

namespace MP4 {

using FourCC = std::array<uint8_t, 4>;

// Four raw bytes in file order, e.g. code("moov").
constexpr FourCC code(const char (&text)[5]) {
  return {static_cast<uint8_t>(text[0]), static_cast<uint8_t>(text[1]), static_cast<uint8_t>(text[2]),
          static_cast<uint8_t>(text[3])};
}

class BOX {
 public:
  BOX(uint64_t start, uint64_t size, const FourCC& type, BOX* parent);
  BOX(BOX& other, BOX* parent);
  // Reads a box header at the file's position.
  BOX(BinFile& f, int depth, BOX* parent);
  virtual ~BOX() = default;
  BOX(const BOX&) = delete;
  BOX& operator=(const BOX&) = delete;

  virtual bool hasChild() const { return false; }
  virtual void dump() const;
  virtual void parseBox(BinFile& f, uint64_t limit);

  // Writes a new value into the box's size field in the file (8 bytes at
  // start + 8 for the large form); the file position is kept and the
  // in-memory size is not changed. (A method cannot share the name of the
  // size field in C++, hence the verb.)
  void writeSize(BinFile& f, uint64_t newSize);
  // Copies the whole box from src to dst in 1 KiB blocks.
  bool copyTo(GLTK::FileIO& src, GLTK::FileIO& dst);
  // "'type': start=N bytes=N"
  std::wstring basicTag() const;

  bool is(const FourCC& other) const { return type == other; }
  bool typeIsZero() const { return type == FourCC{}; }
  uint64_t end() const { return GLTK::endOf(start, size); }

  int depth = 0;
  uint64_t start = 0;
  uint64_t size = 0;  // total size including the header
  FourCC type{};
  bool largeSize = false;
  BOX* parent = nullptr;

 protected:
  // The indent of this box's dump line: depth x 4 blanks.
  std::wstring indent() const;
  // Narrows f.limit to this box: min(end(), limit).
  void enter(BinFile& f, uint64_t limit) const;
};

class NestedBox : public BOX {
 public:
  using BOX::BOX;
  ~NestedBox() override;

  bool hasChild() const override { return true; }
  void dump() const override;
  void parseBox(BinFile& f, uint64_t limit) override;
  virtual BOX* allocChild(BOX& header);

  // Visits every box matching the dotted path below this box, depth first in
  // file order. The visitor returns true to go on; false ends the walk among
  // the siblings of the box just visited (other branches are still visited).
  void find(const char* path, std::function<bool(BOX&)> predicate) const;
  // Runs action once when nothing matches path.
  void if_not_found(const char* path, const std::function<void()>& action) const;

  std::vector<BOX*> children;

 protected:
  // Reads child boxes from the current position up to this box's end.
  void parseChildren(BinFile& f, uint64_t limit);
  void dumpChildren() const;
};

// Visits the boxes matching path below tree (a NestedBox or a Container)
// that are of class T, as T. A box of the path's type parsed as another
// class is passed over, never cast.
template <class T, class Tree, class Visitor>
void findAs(const Tree& tree, const char* path, Visitor&& visit) {
  tree.find(path, [&visit](BOX& box) {
    T* typed = dynamic_cast<T*>(&box);
    return typed == nullptr || visit(*typed);
  });
}

class NestedBoxWithVersion : public NestedBox {
 public:
  using NestedBox::NestedBox;
  void parseBox(BinFile& f, uint64_t limit) override;

  std::array<uint8_t, 4> versionAndFlags{};
};

// Containers whose only job is to type their children.
class ROOT : public NestedBox {
 public:
  using NestedBox::NestedBox;
  void dump() const override;
  BOX* allocChild(BOX& header) override;
};

class MOOV : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class TRAK : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class MDIA : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class MINF : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class STBL : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class UDTA : public NestedBox {
 public:
  using NestedBox::NestedBox;
  BOX* allocChild(BOX& header) override;
};

class META : public NestedBoxWithVersion {
 public:
  using NestedBoxWithVersion::NestedBoxWithVersion;
  BOX* allocChild(BOX& header) override;
};

class FTYP : public BOX {
 public:
  using BOX::BOX;
};

class MDAT : public BOX {
 public:
  using BOX::BOX;
};

}  // namespace MP4
