#include "cli/process_file.h"

#include <sys/stat.h>

#include <cmath>
#include <cwchar>
#include <exception>
#include <initializer_list>
#include <memory>
#include <string>

#include "exif/exif_parser.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/container.h"
#include "report/meta_reader.h"

namespace {

bool endsWith(const wchar_t* path, size_t n, const wchar_t* suffix) {
  const size_t k = std::wcslen(suffix);
  return wcscasecmp(path + n - k, suffix) == 0;
}

bool processStill(const wchar_t* path, bool isDNG, bool dump) {
  auto reader = std::make_unique<MetaReader>();
  const bool ok = isDNG ? reader->parse_DNG(path, dump) : reader->parse_JPEG(path, dump);
  if (!ok) return false;
  reader->dumpToJSON_still(isDNG);
  return true;
}

// The constrained-set1 rule for an H.264 movie: Baseline movies whose flag
// is 0 are rewritten and then read again by a fresh reader, so that the
// report comes from the rewritten file alone; the others are reported as
// they are.
void applySet1(std::unique_ptr<MetaReader>& reader, const wchar_t* path, bool& ok) {
  const bool flag = reader->constrainedSet1Flag;
  const unsigned profile = reader->profileIdc;
  if (profile == 66 && !flag) {
    MP4::Container movie;
    if (movie.attach(path, ~0ULL) && movie.appendFullRangeAndConstrainedSet1Flag(reader->fullRange)) {
      GLTK::Console::out(L"set constrained_set1_flag to 1.\n");
      reader = std::make_unique<MetaReader>();
      ok = reader->parse(path);
    }
    return;
  }
  if (flag) {
    GLTK::Console::out(L"constrained_set1_flag = %d, not 0.\n", 1);
    if (profile != 66) GLTK::Console::out(L"profile_idc = %u, not 66.\n", profile);
  } else {
    GLTK::Console::out(L"profile_idc = %u, not 66.\n", profile);
  }
}

void dumpMakerNotes(const MetaReader& reader, const wchar_t* path) {
  MP4::Container movie;
  if (movie.attach(path, ~0ULL)) {
    movie.find("moov.udta.KMKN", [&](MP4::BOX& box) {
      if (box.size < 9) return true;
      std::string payload;
      if (!movie.readPayload(box, payload)) return true;  // over the size limit: said so already
      try {
        ExifParser parser;
        parser.attachKMKN(reinterpret_cast<const unsigned char*>(payload.data()), payload.size());
        parser.dumpKMKN();
        GLTK::Console::out(L"\n");
      } catch (const char* message) {
        GLTK::Console::out(L"EXIF can't read - %ls\n", GLTK::wchar::mbs2wcs(message).c_str());
      } catch (...) {
        GLTK::Console::out(L"EXIF can't read.\n");
      }
      return true;
    });
  }
  GLTK::Console::out(L"%ls\n", GLTK::wchar::mbs2wcs(reader.probe.sphericalXML).c_str());
  GLTK::Console::out(L"%ls\n", GLTK::wchar::mbs2wcs(reader.probe.xmpPacket).c_str());
}

}  // namespace

// A dump path that names the source file itself, by any spelling or link,
// would replace the movie with samples: all of them are checked before any
// file is opened for writing.
bool dumpsSpareTheSource(const wchar_t* path, std::initializer_list<const wchar_t*> dumps) {
  struct stat source;
  if (::stat(GLTK::wchar::wcs2mbs(path).c_str(), &source) != 0) return true;  // reading it will fail and say so
  bool spared = true;
  for (const wchar_t* dump : dumps) {
    struct stat target;
    if (dump == nullptr || ::stat(GLTK::wchar::wcs2mbs(dump).c_str(), &target) != 0) continue;
    if (target.st_dev == source.st_dev && target.st_ino == source.st_ino) {
      GLTK::Console::out(L"dump file %ls is the source file, not written.\n", dump);
      spared = false;
    }
  }
  return spared;
}

namespace {}  // namespace

Kind kindOf(const wchar_t* path) {
  const size_t n = std::wcslen(path);
  if (n >= 5 && endsWith(path, n, L".DNG")) return Kind::Dng;
  if (n >= 5 && endsWith(path, n, L".JPG")) return Kind::Jpeg;
  if (n >= 6 && endsWith(path, n, L".JPEG")) return Kind::Jpeg;
  return Kind::Movie;
}

bool writeDumps(MetaReader& reader, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath) {
  bool ok = true;
  if (kdtdPath != nullptr) {
    size_t next = 0;
    const std::vector<float>& yaw = reader.yawStabilizer.table();
    ok = reader.dumpXYZT(reader.gravitySamples(), kdtdPath, [&](std::ostream& out) {
      if (next >= yaw.size()) return;
      const float value = yaw[next++];
      out << ",\"yaw\":";
      if (std::isfinite(value)) {
        out << value;
      } else {
        out << "null";
      }
    });
  }
  if (kdtbPath != nullptr && ok) ok = reader.dumpXYZT(reader.gyroSamples(), kdtbPath, [](std::ostream&) {});
  if (kdtcPath != nullptr && ok) ok = reader.dumpXYZT(reader.compassSamples(), kdtcPath, [](std::ostream&) {});
  return ok;
}

namespace {

bool readAndReport(const wchar_t* path, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath,
                   bool set1, bool dump) {
  const Kind kind = kindOf(path);
  if (kind != Kind::Movie) return processStill(path, kind == Kind::Dng, dump);
  if (!dumpsSpareTheSource(path, {kdtdPath, kdtbPath, kdtcPath})) return false;

  auto reader = std::make_unique<MetaReader>();
  bool ok = reader->parse(path);

  if (set1 && ok && reader->probe.codec == 1) applySet1(reader, path, ok);

  if (ok) ok = writeDumps(*reader, kdtdPath, kdtbPath, kdtcPath);
  if (!ok) return false;

  reader->dumpToJSON();
  if (dump) dumpMakerNotes(*reader, path);
  return true;
}

}  // namespace

bool guardedRequest(const wchar_t* path, const std::function<bool()>& request) {
  std::wstring failure;
  try {
    return request();
  } catch (const std::exception& e) {
    failure = GLTK::wchar::mbs2wcs(e.what());
  } catch (const char* text) {
    failure = GLTK::wchar::mbs2wcs(text);
  } catch (...) {
    failure = L"unknown exception";
  }
  GLTK::Console::out(L"processFile(%ls) failed: %ls.\n", path, failure.c_str());
  return false;
}

bool processFile(const wchar_t* path, const wchar_t* kdtdPath, const wchar_t* kdtbPath, const wchar_t* kdtcPath,
                 bool set1, bool dump) {
  return guardedRequest(path, [&] { return readAndReport(path, kdtdPath, kdtbPath, kdtcPath, set1, dump); });
}
