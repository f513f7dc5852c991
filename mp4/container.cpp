#include "mp4/container.h"

#include <algorithm>
#include <cstring>

#include "mp4/boxes.h"

namespace MP4 {

Container::~Container() { delete root; }

bool Container::attach(const std::wstring& newPath, uint64_t sizeLimit) {
  return GLTK::FileIO::open(newPath, [&](GLTK::FileIO& file) {
    path = newPath;
    BinFile f(file);
    parse(f, sizeLimit);
  });
}

void Container::parse(BinFile& f, uint64_t sizeLimit) {
  delete root;
  root = nullptr;
  moov = mdat = videoTrak = nullptr;

  root = new ROOT(0, std::min(f.length(), sizeLimit), code("root"), nullptr);
  root->depth = -1;
  root->parseBox(f, sizeLimit);

  find("mdat", [this](BOX& box) {
    mdat = &box;
    return false;
  });
  find("moov", [this](BOX& box) {
    moov = &box;
    return false;
  });
  // The last track whose header has a width is the video track.
  findAs<NestedBox>(*this, "moov.trak", [this](NestedBox& trak) {
    findAs<TKHD>(trak, "tkhd", [this, &trak](TKHD& tkhd) {
      if (tkhd.width > 0) videoTrak = &trak;
      return true;
    });
    return true;
  });
}

void Container::find(const char* path, std::function<bool(BOX&)> predicate) const {
  if (root == nullptr) return;
  // A file has one movie: players read the first movie box, and so does
  // every lookup inside it. A later one (the rewritten box that a -set1
  // interrupted before it retired the old one appends) is not looked into.
  if (moov != nullptr && std::strncmp(path, "moov.", 5) == 0) {
    if (moov->hasChild()) static_cast<const NestedBox*>(moov)->find(path + 5, std::move(predicate));
    return;
  }
  root->find(path, std::move(predicate));
}

void Container::if_not_found(const char* path, const std::function<void()>& action) const {
  if (root != nullptr) {
    root->if_not_found(path, action);
  } else {
    action();
  }
}

bool Container::open(const std::function<void(GLTK::FileIO&)>& callback) const {
  return GLTK::FileIO::open(path, callback);
}

bool Container::open_a(const std::function<void(GLTK::FileIO&)>& callback) const {
  return GLTK::FileIO::open_a(path, callback);
}

bool Container::readPayload(const BOX& box, std::string& out) const {
  out.clear();
  if (refusedAsOversized(box)) return false;
  return open([&](GLTK::FileIO& file) {
    const uint64_t length = file.length();
    if (box.size <= 8 || box.start + 8 >= length) return;
    const uint64_t n = std::min(box.size - 8, length - (box.start + 8));
    BinFile f(file);
    f.seek_set(box.start + 8);
    out.resize(static_cast<size_t>(n));
    out.resize(static_cast<size_t>(f.read(reinterpret_cast<unsigned char*>(out.data()), n)));
  });
}

void Container::dump() const {
  if (root != nullptr) root->dump();
}

}  // namespace MP4
