// The whole program on one file. The input's first byte chooses how the
// file is asked for, the rest is the file:
//   bit 0     request stream (else argument mode)
//   bits 1-2  the name: in.mp4, in.jpg, in.dng, in.JPEG
//   bit 3     -set1        bit 4  -dump    (argument mode only)
//   bit 5     the three sensor dump files
//   bit 6     the gravity dump in a folder that does not exist
// Every run must answer as the program promises: in argument mode exactly
// one result line and status 0, or the usage text alone and status 1; in
// the request stream one answer per request line; every result line a JSON
// object and every dump file a JSON array; no exception out of any reading.
// Then the same file is read with --json (and --dumps with bit 5): exactly
// one line holding one JSON object, "ok" with status 0 or "failed" with
// status 1.
//
// Built twice. As cli_process_file_fuzzer, the platform's movie
// description (FFmpeg) is replaced by a fake that describes a movie from a
// few of its bytes (see describeMovie below), so that every run is quick and
// the coverage is the program's own. As cli_described_fuzzer
// (SONDEX_FUZZ_REAL_DESCRIPTION) the program runs with FFmpeg's description
// in its describer process and the two-second deadline, as it ships.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/json_mode.h"
#include "cli/process.h"
#include "fuzz/fuzz_support.h"
#include "gltk/console.h"
#include "gltk/wchar.h"
#include "report/describer_process.h"
#include "report/movie_description.h"

using namespace sondex::fuzz;

namespace {

// The file's bytes; false when it cannot be opened.
bool readWhole(const std::string& path, std::string& bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char block[65536];
  for (ssize_t n; (n = read(fd, block, sizeof block)) > 0;) bytes.append(block, static_cast<size_t>(n));
  close(fd);
  return true;
}

}  // namespace

#ifndef SONDEX_FUZZ_REAL_DESCRIPTION
namespace {

uint32_t be32At(const std::string& bytes, size_t at) {
  if (at > bytes.size() || bytes.size() - at < 4) return 0;
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data() + at);
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// A field at a fixed distance behind the first occurrence of a box code.
uint32_t fieldAfter(const std::string& bytes, const char* code, size_t distance) {
  const size_t at = bytes.find(code);
  return at == std::string::npos ? 0 : be32At(bytes, at + distance);
}

}  // namespace

// Stands in for report/movie_description.cpp (FFmpeg): with this definition
// in the target, the linker takes nothing from that file. The description
// runs in the describer process, where nothing may print, so the fake looks
// at the file's bytes instead of parsing its boxes: a movie is described
// when its first track header (version 0) has a size; the frame rate is the
// first media header's time scale over the first sample duration. Decoding is what it leaves out.
bool describeMovie(const std::wstring& path, MovieDescription& out) {
  std::string bytes;
  if (!readWhole(GLTK::wchar::wcs2mbs(path), bytes)) return false;
  const uint32_t width = fieldAfter(bytes, "tkhd", 80) >> 16, height = fieldAfter(bytes, "tkhd", 84) >> 16;
  const uint32_t timeScale = fieldAfter(bytes, "mdhd", 16), delta = fieldAfter(bytes, "stts", 16);
  if (width == 0 || height == 0) return false;
  out.width = width;
  out.height = height;
  out.frameRate = delta != 0 ? static_cast<float>(timeScale) / static_cast<float>(delta) : 0.0f;
  out.duration = 0;
  return true;
}
#endif

namespace {

// Everything the program prints goes to an in-memory file; take() hands
// over what a run printed.
class Output {
 public:
  Output() {
    const int fd = memfd_create("sondex-output", MFD_CLOEXEC);
    if (fd < 0 || (sink_ = fdopen(fd, "w")) == nullptr) fail("cannot make the output file");
  }

  FILE* sink() const { return sink_; }

  std::string take() {
    const int fd = fileno(sink_);
    const off_t end = lseek(fd, 0, SEEK_CUR);
    std::string text(static_cast<size_t>(end), '\0');
    if (pread(fd, text.data(), text.size(), 0) != end) fail("cannot read the output file");
    if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) fail("cannot empty the output file");
    return text;
  }

 private:
  FILE* sink_ = nullptr;
};

Output* g_output = nullptr;
std::string g_usage;

const char* const kNames[4] = {"in.mp4", "in.jpg", "in.dng", "in.JPEG"};
const std::string kResult = "result: ";
const std::string kFailed = "result: {\"status\":\"failed\"}";
const char* const kDumpNames[3] = {"kdtd.json", "kdtb.json", "kdtc.json"};

// The lines that begin with "result: ", in order.
std::vector<std::string> resultLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    if (text.compare(at, kResult.size(), kResult) == 0) lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// Runs the request stream on the lines, with standard input a pipe.
int requestStream(const std::string& lines) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) fail("pipe");
  if (write(pipeFds[1], lines.data(), lines.size()) != static_cast<ssize_t>(lines.size())) fail("write");
  close(pipeFds[1]);
  const int savedInput = dup(0);
  dup2(pipeFds[0], 0);
  close(pipeFds[0]);
  wchar_t name[] = L"sondex";
  wchar_t* argv[10] = {name};
  int status = -1;
  try {
    status = cli::process(1, argv);
  } catch (...) {
    dup2(savedInput, 0);
    close(savedInput);
    throw;
  }
  dup2(savedInput, 0);
  close(savedInput);
  return status;
}

int argumentMode(const std::vector<std::wstring>& args) {
  std::vector<std::wstring> all = {L"sondex"};
  all.insert(all.end(), args.begin(), args.end());
  wchar_t* argv[10] = {};
  for (size_t i = 0; i < all.size() && i < 10; ++i) argv[i] = all[i].data();
  return cli::process(static_cast<int>(all.size()), argv);
}

void checkArgumentMode(int status, const std::string& text) {
  const size_t results = resultLines(text).size();
  const size_t usages = occurrences(text, g_usage);
  if (status == 0 && (results != 1 || usages != 0)) fail("status 0 without exactly one result line");
  if (status == 1 && (results != 0 || usages != 1 || !text.ends_with(g_usage))) {
    fail("status 1 without the usage text alone at the end");
  }
  if (status != 0 && status != 1) fail("a status other than 0 or 1");
}

void checkRequestStream(int status, const std::string& text) {
  const std::vector<std::string> answers = resultLines(text);
  if (status != 0) fail("the request stream ended with a status other than 0");
  if (occurrences(text, g_usage) != 0) fail("the usage text in the request stream");
  if (answers.size() != 2) fail("not one answer per request line");
  if (answers[0] != kFailed) fail("a missing file was not answered with the failed line");
}

// Runs --json -q on the file, with standard output in an in-memory file;
// returns the exit status and what it printed.
int jsonMode(const std::string& path, bool withDumps, std::string& printed) {
  std::vector<std::string> args = {"sondex", "--json", "-q"};
  if (withDumps) args.insert(args.end(), {"--dumps", workDir()});
  args.push_back(path);
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  std::fflush(stdout);
  const int saved = dup(1), memory = memfd_create("sondex-json", MFD_CLOEXEC);
  if (saved < 0 || memory < 0 || dup2(memory, 1) < 0) fail("cannot redirect standard output");
  const int status = cli::longOptions(static_cast<int>(argv.size()), argv.data());
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  printed.assign(static_cast<size_t>(lseek(memory, 0, SEEK_END)), '\0');
  if (pread(memory, printed.data(), printed.size(), 0) != static_cast<ssize_t>(printed.size())) fail("pread");
  close(memory);
  GLTK::Console::set_sink(g_output->sink());
  return status;
}

void checkJsonMode(const std::string& path, bool withDumps) {
  std::string printed;
  const int status = jsonMode(path, withDumps, printed);
  if (printed.empty() || printed.find('\n') != printed.size() - 1) fail("--json printed other than one line");
  const std::string_view object = std::string_view(printed).substr(0, printed.size() - 1);
  if (!object.starts_with('{') || !isJson(object)) fail("a --json line that is not a JSON object");
  const bool ok = object.find(",\"status\":\"ok\"") != std::string_view::npos;
  if (status != (ok ? 0 : 1)) fail("a --json status that does not match its object");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  initProgram();
  // The describer process and its socket last as long as the program:
  // started here, they are there before the first count of open files.
  MovieDescription none;
  describer().describe(L"", none);
  g_output = new Output;
  GLTK::Console::set_sink(g_output->sink());
  cli::usage();
  g_usage = g_output->take();
  // The first --json run opens what it keeps for the process.
  std::string printed;
  jsonMode(workFile("none.mp4"), false, printed);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t control = data[0];
  const bool stream = (control & 1) != 0;
  const int kind = (control >> 1) & 3;
  const bool set1 = (control & 8) != 0, dump = (control & 16) != 0;
  const bool sensorDumps = (control & 32) != 0, badDumpFolder = (control & 64) != 0;

  DescriptorCheck descriptors;
  const std::wstring file = writeInput(kNames[kind], data + 1, size - 1);
  std::vector<std::wstring> dumps;
  if (badDumpFolder) dumps.push_back(wide(workFile("missing/kdtd.json")));
  if (sensorDumps) {
    for (const char* name : kDumpNames) dumps.push_back(wide(workFile(name)));
  }
  // Dump files of an earlier input must not pass for this one's.
  for (const char* name : kDumpNames) std::remove(workFile(name).c_str());
  int status = -1;
  if (stream) {
    std::wstring request = file;
    for (const std::wstring& dump : dumps) request += L"\t" + dump;
    const std::string lines = workFile("missing.mp4") + "\n" + GLTK::wchar::wcs2mbs(request).c_str() + "\n";
    status = requestStream(lines);
  } else {
    std::vector<std::wstring> args;
    const wchar_t* const options[3] = {L"-kdtd:", L"-kdtb:", L"-kdtc:"};
    for (size_t i = 0; i < dumps.size() && i < 3; ++i) args.push_back(options[i] + dumps[i]);
    if (set1) args.push_back(L"-set1");
    if (dump) args.push_back(L"-dump");
    args.push_back(file);
    status = argumentMode(args);
  }
  // A description given up at its deadline ends the describer process and
  // the next description starts another: start it now, so that the count of
  // open files compares like with like.
  MovieDescription none;
  describer().describe(L"", none);
  const std::string text = g_output->take();
  // What reading a file throws is answered as a failed request; for the
  // fuzzer it is a finding all the same.
  if (text.find("processFile(" + GLTK::wchar::wcs2mbs(file) + ") failed: ") != std::string::npos) {
    fail("an exception escaped the reading of a file");
  }
  for (const char* name : kDumpNames) {
    std::string json;
    if (readWhole(workFile(name), json) && (!json.starts_with('[') || !isJson(json))) {
      fail("a dump file that is not a JSON array");
    }
  }
  // In JSON every text is escaped: its line is checked whatever the file holds.
  checkJsonMode(GLTK::wchar::wcs2mbs(file).c_str(), sensorDumps);
  // Texts from the file are printed as they stand (a model name in a
  // message, the XML that -dump prints), so a file holding "result: " can
  // print a line that looks like an answer; the lines are not checked then.
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (bytes.find(kResult) != std::string_view::npos) return 0;
  for (const std::string& line : resultLines(text)) {
    const std::string_view object = std::string_view(line).substr(kResult.size());
    if (!object.starts_with('{') || !isJson(object)) fail("a result line that is not a JSON object");
  }
  if (stream) {
    checkRequestStream(status, text);
  } else {
    checkArgumentMode(status, text);
  }
  return 0;
}
