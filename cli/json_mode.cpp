#include "cli/json_mode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli/process_file.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "report/json_object.h"
#include "report/json_writer.h"
#include "report/meta_reader.h"

namespace {

namespace fs = std::filesystem;

const char kHelp[] =
    "usage: sondex --json [-r] [-q] [--dumps DIR] FILE...\n"
    "       sondex [-h] [-set1] [-dump] [-kdtd:FILE] [-kdtb:FILE] [-kdtc:FILE] SOURCE\n"
    "       sondex < REQUESTS\n"
    "\n"
    "--json: one JSON object per FILE on standard output, one per line, in the\n"
    "order given; the reader's messages go to standard error.\n"
    "  -r           read the movies and stills in folders and their subfolders,\n"
    "               in the order of their paths\n"
    "  -q           no messages on standard error\n"
    "  --dumps DIR  write each movie's gravity, gyro and compass samples into DIR\n"
    "               as NAME.gravity.json, NAME.gyro.json and NAME.compass.json\n"
    "  --help       print this text\n"
    "  --version    print the program's name and version\n"
    "  Exit status: 0 when every file was read, 1 when some failed, 2 for a\n"
    "  usage error.\n"
    "\n"
    "Camera protocol, one file: its messages and one \"result: \" line.\n"
    "  SOURCE       a movie, or a still ending in .jpg, .jpeg or .dng\n"
    "  -kdtd:FILE   write the gravity samples, with the yaw, to FILE\n"
    "  -kdtb:FILE   write the gyro samples to FILE\n"
    "  -kdtc:FILE   write the e-compass samples to FILE\n"
    "  -set1        set constrained_set1_flag in a Baseline H.264 movie\n"
    "  -dump        also print the maker note, the spherical XML and the XMP\n"
    "  -h           print the usage text when no SOURCE is given\n"
    "\n"
    "Camera protocol, request stream (no arguments): each line of standard\n"
    "input is SOURCE, then optionally the three dump files, separated by\n"
    "tabs; each is answered as one file is.\n";

struct Options {
  bool help = false;
  bool version = false;
  bool recursive = false;
  bool quiet = false;
  std::string dumps;  // folder for the sensor dump files, or empty
  std::vector<std::string> files;
};

int usageError(const std::string& message) {
  std::fprintf(stderr, "sondex: %s\nTry 'sondex --help'.\n", message.c_str());
  return 2;
}

// The system's text for an error number, as a user reads it in a message:
// "permission denied", "no such file or directory".
std::string systemError(int number) {
  std::string text = std::strerror(number);
  if (!text.empty()) text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// The still reader's failure in words a user acts on.
std::string stillError(const std::string& failure, bool isDNG) {
  if (failure == "SOI(0xFFD8) not found.") return "not a JPEG file";
  if (failure == "Invalid TIFF-ID(0x002A).") return isDNG ? "not a TIFF file" : "damaged Exif data (not TIFF)";
  if (failure == "Not a KORVU image." || failure == "Only KORVU Meta") return "no camera maker note";
  if (failure == "Invalid position") return "damaged or cut short: Exif data past the end";
  if (failure == "cannot be opened" || failure == "cannot be read" || failure == "empty file") return failure;
  return "damaged Exif data (" + failure + ")";
}

bool readable(const fs::path& path) {
  std::string ending = path.extension().string();
  std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) { return std::tolower(c); });
  for (const char* known : {".mp4", ".mov", ".m4v", ".jpg", ".jpeg", ".dng"}) {
    if (ending == known) return true;
  }
  return false;
}

// The files an argument names: itself, or with -r the movies and stills in
// the folder and its subfolders, sorted by path (links to folders are not
// followed, so a loop cannot form).
void collect(const std::string& argument, bool recursive, std::vector<std::string>& files) {
  std::error_code error;
  if (!recursive || !fs::is_directory(argument, error)) {
    files.push_back(argument);
    return;
  }
  std::vector<std::string> found;
  fs::recursive_directory_iterator walk(argument, fs::directory_options::skip_permission_denied, error);
  if (error) {
    files.push_back(argument);  // answered with the reason it cannot be read
    return;
  }
  for (; walk != fs::recursive_directory_iterator(); walk.increment(error)) {
    if (error) break;
    if (walk->is_regular_file(error) && readable(walk->path())) found.push_back(walk->path().string());
  }
  std::sort(found.begin(), found.end());
  files.insert(files.end(), found.begin(), found.end());
}

// What the path names, from its ending alone (so that a name that is not
// valid UTF-8 still gets its kind).
Kind kindOfName(const std::string& path) {
  const std::string tail = path.substr(path.size() > 6 ? path.size() - 6 : 0);
  std::wstring wide;
  for (unsigned char c : tail) wide += static_cast<wchar_t>(c < 0x80 ? c : '?');
  return kindOf(wide.c_str());
}

// Why the file cannot be read at all, or empty. The file is opened without
// blocking, so that a FIFO answers instead of waiting for a writer.
std::string accessError(const std::string& path, const std::wstring& wide) {
  if (std::string(GLTK::wchar::wcs2mbs(wide).c_str()) != path) {
    return GLTK::wchar::mbs2wcs(path).size() < 2048 ? "file name is not valid UTF-8"
                                                    : "file name longer than 2048 characters";
  }
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return systemError(errno);
  struct stat st;
  const int statted = ::fstat(fd, &st);
  const int number = errno;
  ::close(fd);
  if (statted != 0) return systemError(number);
  if (S_ISDIR(st.st_mode)) return "is a directory";
  if (!S_ISREG(st.st_mode)) return "not a regular file";
  return "";
}

class JsonMode {
 public:
  explicit JsonMode(const Options& options) : options_(options) {}

  // Prints the object of one file; false when it failed.
  bool answer(const std::string& path) {
    JsonWriter out;
    out.beginObject().member("path", path);
    const Kind kind = kindOfName(path);
    out.member("kind", kind == Kind::Movie ? "movie" : "still");
    const std::wstring wide = GLTK::wchar::mbs2wcs(path);
    auto reader = std::make_unique<MetaReader>();
    std::string error = accessError(path, wide);
    if (error.empty()) error = kind == Kind::Movie ? readMovie(*reader, wide) : readStill(*reader, wide, kind);
    if (error.empty()) {
      out.member("status", "ok");
      if (kind == Kind::Movie) {
        movieMembers(out, *reader);
        if (!dumpFiles_.empty()) {
          out.key("dumps").beginObject().member("gravity", dumpFiles_[0]).member("gyro", dumpFiles_[1]);
          out.member("compass", dumpFiles_[2]).endObject();
        }
      } else {
        stillMembers(out, *reader, kind == Kind::Dng);
      }
    } else {
      out.member("status", "failed").member("error", error);
    }
    out.endObject();
    std::string line = out.text() + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    return error.empty();
  }

 private:
  std::string readMovie(MetaReader& reader, const std::wstring& path) {
    dumpFiles_.clear();
    if (!reader.parse(path.c_str(), true)) {
      return reader.hasMovieBox ? "cannot be read" : "not an MP4 file (no movie box)";
    }
    if (!reader.hasVideoTrack) return "no video track";
    if (options_.dumps.empty()) return "";
    // Named after the movie; a name met before in this run gets a number.
    std::string name = fs::path(std::string(GLTK::wchar::wcs2mbs(path).c_str())).stem().string();
    const int seen = ++dumpNames_[name];
    if (seen > 1) name += "-" + std::to_string(seen);
    std::wstring wide[3];
    int i = 0;
    for (const char* what : {".gravity.json", ".gyro.json", ".compass.json"}) {
      dumpFiles_.push_back((fs::path(options_.dumps) / (name + what)).string());
      wide[i++] = GLTK::wchar::mbs2wcs(dumpFiles_.back());
    }
    if (!dumpsSpareTheSource(path.c_str(), {wide[0].c_str(), wide[1].c_str(), wide[2].c_str()})) {
      dumpFiles_.clear();
      return "a dump file would replace the movie";
    }
    if (!writeDumps(reader, wide[0].c_str(), wide[1].c_str(), wide[2].c_str())) {
      dumpFiles_.clear();
      return "cannot write the sensor dump files into " + options_.dumps;
    }
    return "";
  }

  std::string readStill(MetaReader& reader, const std::wstring& path, Kind kind) {
    const bool isDNG = kind == Kind::Dng;
    if (isDNG ? reader.parse_DNG(path.c_str(), false) : reader.parse_JPEG(path.c_str(), false)) return "";
    return stillError(reader.stillFailure, isDNG);
  }

  const Options& options_;
  std::map<std::string, int> dumpNames_;
  std::vector<std::string> dumpFiles_;  // of the movie just read
};

}  // namespace

namespace cli {

bool wantsLongOptions(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    for (const char* option : {"--json", "--help", "--version"}) {
      if (std::strcmp(argv[i], option) == 0) return true;
    }
  }
  return false;
}

int longOptions(int argc, char** argv) {
  Options options;
  std::string problem;  // the first usage error; --help and --version still answer
  bool optionsEnd = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (optionsEnd || arg.size() < 2 || arg[0] != '-') {
      options.files.push_back(arg);
    } else if (arg == "--") {
      optionsEnd = true;
    } else if (arg == "--json") {
      // The interface itself: nothing more to note.
    } else if (arg == "--help") {
      options.help = true;
    } else if (arg == "--version") {
      options.version = true;
    } else if (arg == "-r") {
      options.recursive = true;
    } else if (arg == "-q") {
      options.quiet = true;
    } else if (arg == "--dumps" || arg.starts_with("--dumps=")) {
      options.dumps = arg != "--dumps" ? arg.substr(8) : i + 1 < argc ? argv[++i] : "";
      if (options.dumps.empty() && problem.empty()) problem = "--dumps needs a folder";
    } else if (problem.empty()) {
      problem = "unknown option '" + arg + "'";
    }
  }
  if (options.help) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (options.version) {
    std::printf("sondex %s\n", SONDEX_VERSION);
    return 0;
  }
  if (!problem.empty()) return usageError(problem);
  if (options.files.empty()) return usageError("no FILE given");
  std::error_code error;
  if (!options.dumps.empty() && !fs::is_directory(options.dumps, error)) {
    return usageError("--dumps: " + options.dumps + " is not a folder");
  }

  // Standard output carries the objects alone. The null device is opened
  // once for the process, however often this runs.
  static FILE* const nowhere = std::fopen("/dev/null", "w");
  GLTK::Console::set_sink(options.quiet && nowhere != nullptr ? nowhere : stderr);
  std::vector<std::string> files;
  for (const std::string& argument : options.files) collect(argument, options.recursive, files);
  JsonMode mode(options);
  bool allRead = true;
  for (const std::string& file : files) allRead = mode.answer(file) && allRead;
  return allRead ? 0 : 1;
}

}  // namespace cli
