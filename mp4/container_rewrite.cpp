// Rewriting a movie file: in place when the new bytes fit, otherwise through
// a temporary copy that replaces the source in one atomic rename once it is
// safely on disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"
#include "mp4/container.h"

namespace MP4 {

namespace {

constexpr uint64_t kCopyBlock = 1 << 20;

void putBE(uint8_t* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
}

uint64_t getBE(const uint8_t* in, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = value << 8 | in[i];
  return value;
}

bool writeAll(BinFile& f, const uint8_t* data, uint64_t n) { return n == 0 || f.write(data, n) == n; }

bool writeZeros(BinFile& f, uint64_t n) {
  const std::vector<uint8_t> zeros(static_cast<size_t>(std::min(n, kCopyBlock)), 0);
  for (; n > 0; n -= std::min<uint64_t>(n, zeros.size())) {
    if (!writeAll(f, zeros.data(), std::min<uint64_t>(n, zeros.size()))) return false;
  }
  return true;
}

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
  const uint64_t end = std::min(table.start + table.size, f.length());
  if (table.entryOffset >= end) return true;
  const uint64_t count = std::min<uint64_t>(table.entryCount, (end - table.entryOffset) / kWidth);
  std::vector<uint8_t> bytes(static_cast<size_t>(count * kWidth));
  f.seek_set(table.entryOffset);
  if (f.read(bytes.data(), bytes.size()) != bytes.size()) return false;
  for (uint64_t i = 0; i < count; ++i) {
    uint8_t* at = &bytes[static_cast<size_t>(i * kWidth)];
    const Entry shifted = static_cast<Entry>(static_cast<Entry>(getBE(at, kWidth)) + static_cast<Entry>(delta));
    putBE(at, shifted, kWidth);
  }
  f.seek_set(table.entryOffset);
  return writeAll(f, bytes.data(), bytes.size());
}

// The first sequence parameter set of an avcC record, or an empty span.
std::pair<const uint8_t*, size_t> firstSps(const uint8_t* record, uint64_t n) {
  if (n < 8 || (record[5] & 31) == 0) return {nullptr, 0};
  const size_t length = static_cast<size_t>(record[6]) << 8 | record[7];
  if (length > n - 8) return {nullptr, 0};
  return {record + 8, length};
}

// True when the bytes hold 00 00 0x (x <= 3): an emulation-prevention byte
// on reading, or a sequence that would need one on writing.
bool needsEscaping(std::pair<const uint8_t*, size_t> bytes) {
  const auto [p, n] = bytes;
  for (size_t i = 0; i + 2 < n; ++i) {
    if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] <= 3) return true;
  }
  return false;
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

  GLTK::FileIO::open(path, [&](GLTK::FileIO& source) {
    struct stat st;
    if (fstat(source.fd(), &st) == 0) mode = st.st_mode & 07777;
    GLTK::FileIO::open_w(temporary, [&](GLTK::FileIO& target) {
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
    GLTK::Console::out(L"Container::modifyContainer::%ls(%ls to %ls) failed.\n", name, path.c_str(),
                       temporary.c_str());
    GLTK::FileIO::unlink(temporary);
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

bool Container::appendFullRangeAndConstrainedSet1Flag(bool fullRange) {
  ByteArray newBox;
  AVCC* avcc = nullptr;
  bool unsafe = false;
  find("moov.trak.mdia.minf.stbl.stsd.avc1.avcC", [&](BOX& box) {
    avcc = dynamic_cast<AVCC*>(&box);
    newBox.clear();
    unsafe = false;
    if (avcc == nullptr) return false;
    ByteArray record;
    bool wasFullRange = false;
    bool wasConstrainedSet1 = false;
    bool assigned = false;
    try {
      assigned =
          avcc->assign_fullRange_and_constrained_set1_flag(record, fullRange, wasFullRange, wasConstrainedSet1);
    } catch (const std::out_of_range&) {
      assigned = false;  // a record without any SPS: nothing to rewrite
    }
    if (assigned) {
      GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: %d - %d, constrained_set1_flag:  %d - 1\n",
                         wasFullRange, fullRange, wasConstrainedSet1);
      // The SPS is rewritten bit for bit as it stands in the record, with
      // no emulation-prevention bytes taken out or put in; where the old or
      // the new SPS holds such a sequence, the new record would not decode
      // as intended, so the movie is left as it is.
      unsafe = needsEscaping(firstSps(avcc->payload.data(), avcc->payload.size())) ||
               needsEscaping(firstSps(record.data(), record.size()));
      if (!unsafe && (wasFullRange != fullRange || !wasConstrainedSet1)) {
        uint8_t header[8];
        putBE(header, record.size() + 8, 4);
        std::memcpy(header + 4, "avcC", 4);
        newBox.assign(header, 8);
        newBox.append(record);
      }
    }
    // Ends the walk within this sample description only: with several
    // video tracks the last one visited decides.
    return false;
  });
  if (unsafe) {
    GLTK::Console::out(L"Container::appendFullRangeAndConstrainedSet1Flag: emulation prevention in SPS, not rewritten.\n");
    return false;
  }
  if (newBox.empty() || avcc == nullptr) return true;

  BOX& record = *avcc;
  const int64_t delta = static_cast<int64_t>(newBox.size()) - static_cast<int64_t>(record.size);
  if (delta == 0) {
    return modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_EnoughSpaces", [&](BinFile& f) {
      f.seek_set(record.start);
      f.write(newBox.data(), newBox.size());
      return true;
    });
  }

  BOX* udta = nullptr;
  find("moov.udta", [&](BOX& box) {
    udta = &box;
    return false;
  });
  // The user data can give up its space when it follows the record, lies
  // in the file (the free box that replaces it is written out whole, so a
  // size claiming more than the file would grow the file by the claim) and
  // leaves room for that box's 8-byte header.
  const uint64_t fileLength = root != nullptr ? root->size : 0;
  if (udta != nullptr && record.start < udta->start && record.end() <= udta->start &&
      udta->start <= fileLength && udta->size <= fileLength - udta->start &&
      (delta < 0 || udta->size >= static_cast<uint64_t>(delta)) &&
      static_cast<int64_t>(udta->size) - delta >= 8) {
    BOX& userData = *udta;
    return modifyContainer(L"appendFullRangeAndConstrainedSet1Flag_ReuseUdta", [&](BinFile& f) {
      // The user data (maker note, sensor logs) is given up for a free box
      // so that the file keeps its length and no chunk offset moves.
      const uint64_t fillerSize = userData.size - static_cast<uint64_t>(delta);
      std::vector<uint8_t> between(static_cast<size_t>(userData.start - record.end()));
      f.seek_set(record.end());
      if (f.read(between.data(), between.size()) != between.size()) return false;
      uint8_t freeHeader[8];
      putBE(freeHeader, fillerSize, 4);
      std::memcpy(freeHeader + 4, "free", 4);
      f.seek_set(record.start);
      if (!writeAll(f, newBox.data(), newBox.size()) || !writeAll(f, between.data(), between.size()) ||
          !writeAll(f, freeHeader, sizeof freeHeader) || !writeZeros(f, fillerSize - sizeof freeHeader)) {
        return false;
      }
      BOX* top = nullptr;
      for (BOX* b = record.parent; b != nullptr && b->depth >= 0; b = b->parent) {
        b->writeSize(f, b->size + delta);
        top = b;
      }
      // The movie box keeps its length: the free box absorbed the change.
      if (top != nullptr) top->writeSize(f, top->size);
      return true;
    });
  }

  return insertBox(
      L"appendFullRangeAndConstrainedSet1Flag_NoSpaces", record, true,
      [&](BinFile& dst) { return writeAll(dst, newBox.data(), newBox.size()); },
      [&](Container&, BinFile& f) { return modifyBoxSize(f, record, delta); },
      [&](Container& rebuilt, BinFile& f) {
        if (mdat == nullptr || moov == nullptr || mdat->start <= moov->start) return true;
        return rebuilt.modifySTCOIndex(f, delta);
      });
}

}  // namespace MP4
