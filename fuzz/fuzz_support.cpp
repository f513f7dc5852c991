#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "gltk/console.h"
#include "gltk/wchar.h"
#include "mp4/container.h"
#include "sensor/accel_sensor_stream.h"

namespace sondex::fuzz {

namespace {

FILE* nullDevice() {
  static FILE* const device = std::fopen("/dev/null", "w");
  return device;
}

std::string makeWorkDir() {
  namespace fs = std::filesystem;
  std::error_code error;
  // Files are written and rewritten for every input: memory is the fast
  // place, unless TMPDIR names another.
  fs::path base = "/dev/shm";
  if (std::getenv("TMPDIR") != nullptr || !fs::is_directory(base, error) || access(base.c_str(), W_OK) != 0) {
    base = fs::temp_directory_path();
  }
  std::string pattern = (base / "sondex-fuzz-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) fail("cannot make a work folder");
  return pattern;
}

void removeWorkDir() {
  std::error_code ignored;
  std::filesystem::remove_all(workDir(), ignored);
}

}  // namespace

void initProgram() {
  GLTK::Console::init_locale();
  GLTK::Console::set_sink(nullDevice());
}

const std::string& workDir() {
  // Never destroyed: the exit handler that removes the folder needs it.
  static const std::string* const dir = [] {
    auto* made = new std::string(makeWorkDir());
    std::atexit(removeWorkDir);
    return made;
  }();
  return *dir;
}

std::string workFile(const std::string& name) { return workDir() + "/" + name; }

std::wstring wide(const std::string& path) { return GLTK::wchar::mbs2wcs(path); }

std::wstring writeInput(const std::string& name, const uint8_t* data, size_t size) {
  const std::string path = workFile(name);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) fail("cannot write the input file");
  for (size_t done = 0; done < size;) {
    const ssize_t put = ::write(fd, data + done, size - done);
    if (put <= 0) fail("cannot write the input file");
    done += static_cast<size_t>(put);
  }
  ::close(fd);
  return wide(path);
}

namespace {

int lowestFreeDescriptor() {
  const int fd = dup(0);
  if (fd >= 0) close(fd);
  return fd;
}

}  // namespace

DescriptorCheck::DescriptorCheck() : lowestFree_(lowestFreeDescriptor()) {}

DescriptorCheck::~DescriptorCheck() {
  if (lowestFreeDescriptor() != lowestFree_) fail("a file descriptor was left open");
}

bool endsOnBigEndianKdtg(const std::wstring& path) {
  FILE* const previous = GLTK::Console::sink();
  GLTK::Console::set_sink(nullDevice());
  bool swapped = false;
  MP4::Container movie;
  if (movie.attach(path, ~0ULL)) {
    std::vector<uint64_t> stamps;
    uint16_t rate = 0;
    // The loader with a fix-up that only notes that it was needed.
    AccelSensorStreamEmbed::loadGen2_KDTx<uint64_t>(movie, "KDTG", stamps, rate,
                                                    [&swapped](uint64_t&) { swapped = true; });
  }
  GLTK::Console::set_sink(previous);
  return swapped;
}

void fail(const char* what) {
  std::fprintf(stderr, "==sondex-fuzz== %s\n", what);
  std::abort();
}

}  // namespace sondex::fuzz
