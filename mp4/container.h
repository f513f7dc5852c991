// MP4::Container: a parsed movie file. The tree does not keep the file
// open: payload reads open it again by path.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "gltk/file_io.h"
#include "mp4/box.h"

namespace MP4 {

class Container {
 public:
  Container() = default;
  ~Container();
  Container(const Container&) = delete;
  Container& operator=(const Container&) = delete;

  // Opens the file and parses its boxes up to sizeLimit (all ones: the
  // whole file). False, leaving the container as it was, when the file
  // cannot be opened.
  bool attach(const std::wstring& path, uint64_t sizeLimit);
  void parse(BinFile& f, uint64_t sizeLimit);

  void find(const char* path, std::function<bool(BOX&)> predicate) const;
  void if_not_found(const char* path, const std::function<void()>& action) const;
  // Runs callback on the attached file opened for reading / for update.
  bool open(const std::function<void(GLTK::FileIO&)>& callback) const;
  bool open_a(const std::function<void(GLTK::FileIO&)>& callback) const;
  void dump() const;
  // Reads the box's payload (its size - 8 bytes from start + 8) as far as
  // the file holds it; false when the file cannot be opened.
  bool readPayload(const BOX& box, std::string& out) const;

  std::wstring path;
  const wchar_t* outputPath = nullptr;  // where a rebuilt file goes instead of path
  ROOT* root = nullptr;
  BOX* moov = nullptr;       // first top-level "moov"
  BOX* mdat = nullptr;       // first top-level "mdat"
  BOX* videoTrak = nullptr;  // last track whose header has a width
};

}  // namespace MP4
