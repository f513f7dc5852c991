// MP4::Container: a parsed movie file. The tree does not keep the file
// open: payload reads open it again by path.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "gltk/byte_array.h"
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
  // the file holds it; false, leaving out empty, when the file cannot be
  // opened or the box is over kPayloadLimit (which prints a line).
  bool readPayload(const BOX& box, std::string& out) const;

  // ---- Rewriting (each ends with the container attached again, so box
  // pointers taken before are stale afterwards).

  // Edits the file in place through edit; prints a failure line when the
  // file cannot be opened for update or edit returns false.
  bool modifyContainer(const wchar_t* name, const std::function<bool(BinFile&)>& edit);
  // Rebuilds the file through a temporary copy: copy writes the new file
  // (and tells up to where the new file's tree may be parsed for fixBefore),
  // then fixBefore and fixAfter patch it; the copy replaces the source with
  // one atomic rename once it is on disk. The temporary file is always a new
  // one (an existing file or link of its name fails the rebuild). The source
  // is never changed when any step fails.
  bool modifyContainer(const wchar_t* name,
                       const std::function<bool(BinFile& src, BinFile& dst, uint64_t& parseLimit)>& copy,
                       const std::function<bool(Container&, BinFile&)>& fixBefore,
                       const std::function<bool(Container&, BinFile&)>& fixAfter);
  // A rebuild that writes new bytes at box at (in its place when replace).
  bool insertBox(const wchar_t* name, BOX& at, bool replace, const std::function<bool(BinFile&)>& writeNew,
                 const std::function<bool(Container&, BinFile&)>& fixBefore,
                 const std::function<bool(Container&, BinFile&)>& fixAfter);
  // Adds delta to the size of box and of every box up to the movie box.
  bool modifyBoxSize(BinFile& f, BOX& box, int64_t delta);
  // Shifts every chunk offset of the movie's tracks (or of the spatial-audio
  // track) by delta; false when no table was found.
  bool modifySTCOIndex(BinFile& f, int64_t delta);
  bool modifySpatialTrakSTCOIndex(BinFile& f, int64_t delta);
  bool modifySTCOIndexImpl(const std::string& prefix, BinFile& f, int64_t delta);
  // Gives the video track's avcC constraint_set1_flag 1 and the requested
  // full-range flag: in place when the new box has the old one's length,
  // else by appending a rewritten movie box and retiring the old one when
  // the file's top-level boxes allow it, else by rebuilding the file.
  bool appendFullRangeAndConstrainedSet1Flag(bool fullRange);

  std::wstring path;
  const wchar_t* outputPath = nullptr;  // where a rebuilt file goes instead of path
  ROOT* root = nullptr;
  BOX* moov = nullptr;       // first top-level "moov"
  BOX* mdat = nullptr;       // first top-level "mdat"
  BOX* videoTrak = nullptr;  // last track whose header has a width
};

}  // namespace MP4
