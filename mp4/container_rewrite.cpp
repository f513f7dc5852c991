// Rewriting a movie file: in place when the new bytes fit, by appending a
// new movie box and retiring the old one when the file allows it, otherwise
// through a temporary copy that replaces the source in one atomic rename
// once it is safely on disk. No rewrite drops anything from the file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "gltk/byte_order.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "mp4/container.h"

namespace MP4 {

namespace {

constexpr uint64_t kCopyBlock = 1 << 20;

bool writeAll(BinFile& f, const uint8_t* data, uint64_t n) { return n == 0 || f.write(data, n) == n; }

// Copies exactly n bytes from src to dst at their positions; a short read
// or write fails (the copy never writes bytes it did not read).
bool copyExactly(BinFile& src, BinFile& dst, uint64_t n) {
  std::vector<uint8_t> block(static_cast<size_t>(std::min(n, kCopyBlock)));
  while (n > 0) {
    const uint64_t step = std::min<uint64_t>(n, block.size());
    if (src.read(block.data(), step) != step) return false;
    if (!writeAll(dst, block.data(), step)) return false;
    n -= step;
  }
  return true;
}

// Makes a rename into dir durable.
void syncDirectoryOf(const std::wstring& file) {
  std::string name(GLTK::wchar::wcs2mbs(file).c_str());
  const size_t slash = name.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : name.substr(0, slash);
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  ::close(fd);
}

// Chunk-offset tables: each entry read, shifted by delta and written back
// in the table's width (32-bit entries wrap modulo 2^32). Only entries that
// lie inside the table's box are real: a count claiming more is not allowed
// to overwrite whatever follows the box.
template <class Table, class Entry>
bool modifyIndex(BinFile& f, Table& table, int64_t delta) {
  constexpr int kWidth = sizeof(Entry);
  if (table.entryCount == 0) return true;
  const uint64_t end = std::min(table.end(), f.length());
  if (table.entryOffset >= end) return true;
  const uint64_t count = std::min<uint64_t>(table.entryCount, (end - table.entryOffset) / kWidth);
  std::vector<uint8_t> bytes(static_cast<size_t>(count * kWidth));
  f.seek_set(table.entryOffset);
  if (f.read(bytes.data(), bytes.size()) != bytes.size()) return false;
  for (uint64_t i = 0; i < count; ++i) {
    uint8_t* at = &bytes[static_cast<size_t>(i * kWidth)];
    const Entry shifted = static_cast<Entry>(static_cast<Entry>(GLTK::loadBE(at, kWidth)) + static_cast<Entry>(delta));
    GLTK::storeBE(at, shifted, kWidth);
  }
  f.seek_set(table.entryOffset);
  return writeAll(f, bytes.data(), bytes.size());
}

}  // namespace

bool Container::modifyContainer(const wchar_t* name, const std::function<bool(BinFile&)>& edit) {
  bool ok = false;
  open_a([&](GLTK::FileIO& file) {
    BinFile f(file);
    ok = edit(f);
    file.sync();
  });
  if (!ok) GLTK::Console::out(L"Container::modifyContainer::%ls(%ls) failed.\n", name, path.c_str());
  attach(path, ~0ULL);
  return ok;
}

bool Container::modifyContainer(const wchar_t* name,
                                const std::function<bool(BinFile& src, BinFile& dst, uint64_t& parseLimit)>& copy,
                                const std::function<bool(Container&, BinFile&)>& fixBefore,
                                const std::function<bool(Container&, BinFile&)>& fixAfter) {
  const std::wstring temporary = outputPath != nullptr ? std::wstring(outputPath) : path + L".tmp.mp4";
  bool ok = false;
  uint64_t parseLimit = 0;
  mode_t mode = 0644;
  bool created = false;  // only a file made here is deleted on failure

  GLTK::FileIO::open(path, [&](GLTK::FileIO& source) {
    struct stat st;
    if (fstat(source.fd(), &st) == 0) mode = st.st_mode & 07777;
    // A new file only: whatever stands under the temporary name (a file of
    // the user's, a link) is neither truncated nor followed, nor deleted.
    created = GLTK::FileIO::open_x(temporary, (mode & 0777) | 0600, [&](GLTK::FileIO& target) {
      BinFile src(source);
      BinFile dst(target);
      ok = copy(src, dst, parseLimit);
    });
  });
  if (ok) {
    Container rebuilt;
    ok = rebuilt.attach(temporary, parseLimit) && rebuilt.open_a([&](GLTK::FileIO& file) {
      BinFile f(file);
      ok = fixBefore(rebuilt, f);
    }) && ok;
    if (ok) {
      ok = rebuilt.attach(temporary, ~0ULL) && rebuilt.open_a([&](GLTK::FileIO& file) {
        BinFile f(file);
        ok = fixAfter(rebuilt, f);
        // The copy must be on disk before it replaces the source.
        ok = ok && fchmod(file.fd(), mode) == 0 && file.sync();
      }) && ok;
    }
  }
  if (ok) {
    if (outputPath != nullptr) {
      path = outputPath;
      outputPath = nullptr;
    } else {
      // One atomic step: at every moment either the old or the new file is
      // under the path.
      ok = GLTK::FileIO::rename(temporary, path);
      if (ok) syncDirectoryOf(path);
    }
  }
  if (!ok) {
    GLTK::Console::out(L"Container::modifyContainer::%ls(%ls to %ls) failed.\n", name, path.c_str(), temporary.c_str());
    if (created) GLTK::FileIO::unlink(temporary);
  }
  attach(path, ~0ULL);
  return ok;
}

bool Container::insertBox(const wchar_t* name, BOX& at, bool replace, const std::function<bool(BinFile&)>& writeNew,
                          const std::function<bool(Container&, BinFile&)>& fixBefore,
                          const std::function<bool(Container&, BinFile&)>& fixAfter) {
  const uint64_t atStart = at.start;
  const uint64_t atSize = at.size;
  return modifyContainer(
      name,
      [&](BinFile& src, BinFile& dst, uint64_t& parseLimit) {
        const uint64_t length = src.length();
        if (atStart > length || atSize > length - atStart) return false;
        src.seek_set(0);
        if (!copyExactly(src, dst, atStart)) return false;
        if (!replace) {
          if (!copyExactly(src, dst, atSize)) return false;
        } else {
          src.seek_set(atStart + atSize);
        }
        parseLimit = dst.tell();
        if (!writeNew(dst)) return false;
        return copyExactly(src, dst, length - atStart - atSize);
      },
      fixBefore, fixAfter);
}

bool Container::modifyBoxSize(BinFile& f, BOX& box, int64_t delta) {
  // Up the parent chain to the movie box, whose parent is empty; the root
  // (depth -1) is never written.
  for (BOX* b = &box; b != nullptr && b->depth >= 0; b = b->parent) b->writeSize(f, b->size + delta);
  return true;
}

bool Container::modifySTCOIndex(BinFile& f, int64_t delta) {
  return modifySTCOIndexImpl("moov.trak.mdia.minf.stbl", f, delta);
}

bool Container::modifySpatialTrakSTCOIndex(BinFile& f, int64_t delta) {
  return modifySTCOIndexImpl("uuid.KATR.mdia.minf.stbl", f, delta);
}

bool Container::modifySTCOIndexImpl(const std::string& prefix, BinFile& f, int64_t delta) {
  bool found = false;
  bool ok = true;
  find((prefix + ".stco").c_str(), [&](BOX& box) {
    found = true;
    if (auto* table = dynamic_cast<STCO*>(&box)) ok = modifyIndex<STCO, uint32_t>(f, *table, delta) && ok;
    return true;
  });
  find((prefix + ".co64").c_str(), [&](BOX& box) {
    found = true;
    if (auto* table = dynamic_cast<CO64*>(&box)) ok = modifyIndex<CO64, uint64_t>(f, *table, delta) && ok;
    return true;
  });
  return found && ok;
}

namespace {

// The avcC box (header and record) that gives the video track's record
// constrained_set1_flag 1 and the requested full-range flag, in newBox.
// Returns the old box, or null when there is none or nothing to change.
// With several video tracks the last one visited decides.
AVCC* rewrittenAvcc(const Container& movie, bool fullRange, ByteArray& newBox) {
  AVCC* avcc = nullptr;
  movie.find("moov.trak.mdia.minf.stbl.stsd.avc1.avcC", [&](BOX& box) {
    avcc = dynamic_cast<AVCC*>(&box);
    newBox.clear();
    if (avcc == nullptr) return false;
    ByteArray record;
    bool wasFullRange = false;
    bool wasConstrainedSet1 = false;
    bool assigned = false;
    try {
      assigned = avcc->assign_fullRange_and_constrained_set1_flag(record, fullRange, wasFullRange, wasConstrainedSet1);
    } catch (const std::out_of_range&) {
      assigned = false;  // a record without any SPS: nothing to rewrite
    }
    if (assigned) {
      GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %d - %d, constrained_set1_flag:  %d - 1\n",
                         wasFullRange, fullRange, wasConstrainedSet1);
      if (wasFullRange != fullRange || !wasConstrainedSet1) {
        uint8_t header[8];
        GLTK::storeBE(header, record.size() + 8, 4);
        std::memcpy(header + 4, "avcC", 4);
        newBox.assign(header, 8);
        newBox.append(record);
      }
    }
    // Ends the walk within this sample description only.
    return false;
  });
  return newBox.empty() ? nullptr : avcc;
}

int64_t growth(const BOX& avcc, const ByteArray& newBox) {
  return static_cast<int64_t>(newBox.size()) - static_cast<int64_t>(avcc.size);
}

// The new box has the old one's length: written over it.
bool rewriteInPlace(Container& movie, const BOX& avcc, const ByteArray& newBox) {
  return movie.modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_EnoughSpaces", [&](BinFile& f) {
    f.seek_set(avcc.start);
    f.write(newBox.data(), newBox.size());
    return true;
  });
}

// A movie box appended at the end can take the old one's place only when
// the top-level boxes, read straight from the file, tile it exactly (every
// size real, none running "to the end of the file", the last box ending
// where the file ends), the movie box is the only one and holds the record,
// and the movie has no fragments.
bool canAppendMovie(const Container& movie, const BOX& avcc) {
  bool tiles = false;
  movie.open([&](GLTK::FileIO& file) {
    BinFile f(file);
    const uint64_t length = f.length();
    int movies = 0;
    for (uint64_t at = 0; at < length;) {
      uint8_t header[16];
      const uint64_t want = std::min<uint64_t>(sizeof header, length - at);
      if (want < 8 || !f.seek_set(at) || f.read(header, want) != want) return;
      uint64_t size = GLTK::loadBE(header, 4);
      uint64_t headerSize = 8;
      if (size == 1 && want == 16) {
        size = GLTK::loadBE(header + 8, 8);
        headerSize = 16;
      }
      if (size < headerSize || size > length - at || std::memcmp(header + 4, "moof", 4) == 0) return;
      movies += std::memcmp(header + 4, "moov", 4) == 0 ? 1 : 0;
      at += size;
    }
    tiles = movies == 1;
  });
  bool fragmented = false;
  movie.find("moov.mvex", [&](BOX&) {
    fragmented = true;
    return false;
  });
  return tiles && !fragmented && movie.moov != nullptr && avcc.end() <= movie.moov->end();
}

// Append and retire: the movie box with the new record (and every size
// above the record fixed) is written after the file's last box and flushed
// to disk; only then does the old movie box turn into free space, by one
// 4-byte write of its type. The media data stays where it is, so no chunk
// offset changes, and at every moment the first movie box in the file is
// complete. An append that fails or stops short is cut off again, leaving
// the file as it was.
bool appendMovie(Container& movie, const BOX& avcc, const ByteArray& newBox) {
  const BOX& moov = *movie.moov;
  const int64_t delta = growth(avcc, newBox);
  return movie.modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_AppendMovie", [&](BinFile& f) {
    std::vector<uint8_t> box(static_cast<size_t>(moov.size));
    if (!f.seek_set(moov.start) || f.read(box.data(), box.size()) != box.size()) return false;
    for (const BOX* b = avcc.parent; b != nullptr && b->depth >= 0; b = b->parent) {
      uint8_t* header = &box[static_cast<size_t>(b->start - moov.start)];
      if (b->largeSize) {
        GLTK::storeBE(header + 8, b->size + delta, 8);
      } else {
        GLTK::storeBE(header, b->size + delta, 4);
      }
    }
    const auto old = box.erase(box.begin() + static_cast<ptrdiff_t>(avcc.start - moov.start),
                               box.begin() + static_cast<ptrdiff_t>(avcc.end() - moov.start));
    box.insert(old, newBox.data(), newBox.data() + newBox.size());

    const uint64_t length = f.length();
    const uint8_t retired[4] = {'f', 'r', 'e', 'e'};
    if (!f.seek_set(length) || !writeAll(f, box.data(), box.size()) || !f.sync() || !f.seek_set(moov.start + 4) ||
        !writeAll(f, retired, sizeof retired)) {
      // The old movie box is still the one in use: the appended bytes go.
      if (ftruncate(f.fd(), static_cast<off_t>(length)) == 0) f.sync();
      return false;
    }
    // Both movie boxes are whole now: whichever of the two states reaches
    // the disk, a reader meets a complete movie box first.
    return f.sync();
  });
}

// Calls visit(type, start, size) for each box from start to end, reading
// their headers from the file; a box that does not fit ends the walk.
void eachBox(BinFile& f, uint64_t start, uint64_t end,
             const std::function<void(const std::string&, uint64_t, uint64_t)>& visit) {
  for (uint64_t at = start; at < end && end - at >= 8;) {
    uint8_t header[8];
    if (!f.seek_set(at) || f.read(header, 8) != 8) return;
    const uint64_t size = GLTK::loadBE(header, 4);
    if (size < 8 || size > end - at) return;
    visit(std::string(reinterpret_cast<const char*>(header + 4), 4), at, size);
    at += size;
  }
}

// Movie fragments hold absolute file offsets of their own: the base data
// offset a track fragment header may carry, and the fragment offsets of the
// random-access index. Those at or behind from move by delta.
bool shiftFragmentOffsets(const Container& rebuilt, BinFile& f, uint64_t from, int64_t delta) {
  bool ok = true;
  auto shift = [&](uint64_t at, uint64_t width) {
    uint8_t bytes[8];
    if (!f.seek_set(at) || f.read(bytes, width) != width) {
      ok = false;
      return;
    }
    const uint64_t offset = GLTK::loadBE(bytes, static_cast<int>(width));
    if (offset < from) return;
    GLTK::storeBE(bytes, offset + static_cast<uint64_t>(delta), static_cast<int>(width));
    ok = f.seek_set(at) && writeAll(f, bytes, width) && ok;
  };
  for (const BOX* top : rebuilt.root->children) {
    const uint64_t payload = top->start + (top->largeSize ? 16 : 8);
    if (top->type == code("moof")) {
      eachBox(f, payload, top->end(), [&](const std::string& type, uint64_t traf, uint64_t size) {
        if (type != "traf") return;
        eachBox(f, traf + 8, traf + size, [&](const std::string& type, uint64_t tfhd, uint64_t size) {
          uint8_t flags[4];
          if (type == "tfhd" && size >= 24 && f.seek_set(tfhd + 8) && f.read(flags, 4) == 4 && (flags[3] & 1)) {
            shift(tfhd + 16, 8);
          }
        });
      });
    } else if (top->type == code("mfra")) {
      eachBox(f, payload, top->end(), [&](const std::string& type, uint64_t tfra, uint64_t size) {
        uint8_t head[16];
        if (type != "tfra" || size < 24 || !f.seek_set(tfra + 8) || f.read(head, 16) != 16) return;
        const uint64_t width = head[0] == 1 ? 8 : 4;
        const uint64_t entry = 2 * width + (head[11] >> 4 & 3) + (head[11] >> 2 & 3) + (head[11] & 3) + 3;
        const uint64_t count = std::min<uint64_t>(GLTK::loadBE(head + 12, 4), (size - 24) / entry);
        for (uint64_t i = 0; i < count; ++i) shift(tfra + 24 + i * entry + width, width);
      });
    }
  }
  return ok;
}

// The file is rebuilt through a temporary copy with the new box in place
// of the old; the sizes above it change by the difference, and so do the
// chunk offsets when the media data follows the movie box and the fragment
// offsets that point behind the old box.
bool rebuild(Container& movie, BOX& avcc, const ByteArray& newBox) {
  const int64_t delta = growth(avcc, newBox);
  const uint64_t from = avcc.end();
  const bool mediaFollows = movie.mdat != nullptr && movie.moov != nullptr && movie.mdat->start > movie.moov->start;
  return movie.insertBox(
      L"appendFullRangeAndConstrainedSet1Flag_NoSpaces", avcc, true,
      [&](BinFile& dst) { return writeAll(dst, newBox.data(), newBox.size()); },
      [&](Container&, BinFile& f) { return movie.modifyBoxSize(f, avcc, delta); },
      [&](Container& rebuilt, BinFile& f) {
        return (!mediaFollows || rebuilt.modifySTCOIndex(f, delta)) && shiftFragmentOffsets(rebuilt, f, from, delta);
      });
}

}  // namespace

bool Container::appendFullRangeAndConstrainedSet1Flag(bool fullRange) {
  ByteArray newBox;
  AVCC* avcc = rewrittenAvcc(*this, fullRange, newBox);
  if (avcc == nullptr) return true;
  if (growth(*avcc, newBox) == 0) return rewriteInPlace(*this, *avcc, newBox);
  if (canAppendMovie(*this, *avcc)) return appendMovie(*this, *avcc, newBox);
  return rebuild(*this, *avcc, newBox);
}

}  // namespace MP4
