#include "cli/process.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cwchar>

#include "cli/process_file.h"
#include "gltk/console.h"
#include "gltk/wchar.h"

namespace {

constexpr int kArgumentSlots = 10;
constexpr int kLineBuffer = 4096;

bool startsWith(const wchar_t* text, const wchar_t* prefix) {
  return std::wcsncmp(text, prefix, std::wcslen(prefix)) == 0;
}

enum class LineRead { kLine, kInvalid, kEnd };

// Reads the next request line from standard input as the C library's wide
// line reader would: at most size - 1 characters, up to and including the
// line feed, so that a longer line arrives in pieces. A line that is not
// valid text in the locale is read to its end and reported as invalid, where
// the library's reader would fail and end the stream.
LineRead readLine(wchar_t* line, int size) {
  static char bytes[65536];
  static size_t have = 0, at = 0;
  auto nextByte = [](char& c) {
    if (at == have) {
      ssize_t n;
      do {
        n = ::read(0, bytes, sizeof bytes);
      } while (n < 0 && errno == EINTR);
      if (n <= 0) return false;
      have = static_cast<size_t>(n);
      at = 0;
    }
    c = bytes[at++];
    return true;
  };

  std::mbstate_t state{};
  int n = 0;
  bool pending = false;  // inside a multibyte character
  char c;
  while (n < size - 1) {
    if (!nextByte(c)) {
      if (pending) return LineRead::kInvalid;
      break;
    }
    wchar_t wc = 0;
    const size_t used = std::mbrtowc(&wc, &c, 1, &state);
    if (used == static_cast<size_t>(-2)) {
      pending = true;
      continue;
    }
    if (used == static_cast<size_t>(-1)) {
      while (c != '\n' && nextByte(c)) {
      }
      return LineRead::kInvalid;
    }
    pending = false;
    line[n++] = wc;
    if (wc == L'\n') break;
  }
  if (n == 0) return LineRead::kEnd;
  line[n] = L'\0';
  return LineRead::kLine;
}

// Answers request lines until standard input ends. A line is a source path
// and up to three dump paths (gravity, gyro, compass), separated by tabs;
// consecutive tabs count as one, so an empty field cannot be expressed.
int requestStream() {
  static wchar_t line[kLineBuffer] = {};
  for (;;) {
    const LineRead read = readLine(line, kLineBuffer);
    if (read == LineRead::kEnd) return 0;
    if (read == LineRead::kInvalid) {
      GLTK::Console::out(L"result: {\"status\":\"failed\"}\n");
      continue;
    }
    if (wchar_t* cr = std::wcschr(line, L'\r')) *cr = L'\0';
    if (wchar_t* lf = std::wcschr(line, L'\n')) *lf = L'\0';
    wchar_t* state = nullptr;
    if (std::wcstok(line, L"\t", &state) == nullptr) continue;
    const wchar_t* dumps[3] = {nullptr, nullptr, nullptr};
    for (const wchar_t*& dump : dumps) {
      dump = std::wcstok(nullptr, L"\t", &state);
      if (dump == nullptr) break;
    }
    // The path is the buffer from its start, so a line that begins with a
    // tab passes a path beginning with that tab.
    if (!processFile(line, dumps[0], dumps[1], dumps[2], false, false)) {
      GLTK::Console::out(L"result: {\"status\":\"failed\"}\n");
    }
  }
}

}  // namespace

namespace cli {

void usage() {
  GLTK::Console::out(
      L"\n"
      L"Sondex %ls\n"
      L"usage: %ls [options] <source.mp4>\n"
      L"  source.mp4      : input file.\n"
      L"  -kdtd:kdtd.json : dump KDTD data\n"
      L"  -set1           : overwrite constrained_set1_flag to 1, if H.264 and profile_idc is 66.\n"
      L"\n",
      GLTK::wchar::mbs2wcs("2.8.3.2019.07.25").c_str(), GLTK::wchar::mbs2wcs("Sondex.osx").c_str());
}

int process(int argc, wchar_t** argv) {
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  std::setvbuf(stderr, nullptr, _IONBF, 0);
  if (argc < 2) return requestStream();

  const wchar_t* source = nullptr;
  const wchar_t* kdtd = nullptr;
  const wchar_t* kdtb = nullptr;
  const wchar_t* kdtc = nullptr;
  bool set1 = false;
  bool dump = false;
  bool quiet = true;
  // Only the first ten entries were converted; later ones are ignored.
  const int last = argc < kArgumentSlots ? argc : kArgumentSlots;
  for (int i = 1; i < last; ++i) {
    const wchar_t* arg = argv[i];
    if (arg == nullptr) continue;
    if (std::wcscmp(arg, L"-h") == 0) {
      quiet = false;
    } else if (startsWith(arg, L"-kdtd:")) {
      kdtd = arg + 6;
    } else if (startsWith(arg, L"-kdtb:")) {
      kdtb = arg + 6;
    } else if (startsWith(arg, L"-kdtc:")) {
      kdtc = arg + 6;
    } else if (std::wcscmp(arg, L"-set1") == 0) {
      set1 = true;
    } else if (std::wcscmp(arg, L"-dump") == 0) {
      dump = true;
    } else if (source == nullptr) {
      source = arg;
    }
  }
  if (source == nullptr) {
    if (quiet) return 0;
    usage();
    return 1;
  }
  if (processFile(source, kdtd, kdtb, kdtc, set1, dump)) return 0;
  usage();
  return 1;
}

}  // namespace cli
