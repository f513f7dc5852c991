#include "fuzz/fuzz_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "gltk/console.h"
#include "gltk/wchar.h"

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

namespace {

class JsonCheck {
 public:
  explicit JsonCheck(std::string_view text) : text_(text) {}
  bool whole() {
    if (!value(0)) return false;
    space();
    return at_ == text_.size();
  }

 private:
  bool more() const { return at_ < text_.size(); }
  char next() const { return more() ? text_[at_] : '\0'; }  // no caller looks for '\0'
  void space() {
    while (more() && std::string_view(" \t\n\r").find(text_[at_]) != std::string_view::npos) ++at_;
  }
  bool take(char c) {
    space();
    if (next() != c) return false;
    ++at_;
    return true;
  }
  bool digits() {
    const size_t start = at_;
    while (more() && std::isdigit(static_cast<unsigned char>(text_[at_]))) ++at_;
    return at_ > start;
  }
  bool number() {
    if (next() == '-') ++at_;
    if (next() == '0') {
      ++at_;
    } else if (!digits()) {
      return false;
    }
    if (next() == '.') {
      ++at_;
      if (!digits()) return false;
    }
    if (next() == 'e' || next() == 'E') {
      ++at_;
      if (next() == '+' || next() == '-') ++at_;
      if (!digits()) return false;
    }
    return true;
  }
  // From just behind the opening quote to just behind the closing one.
  bool string() {
    while (more()) {
      const unsigned char c = static_cast<unsigned char>(text_[at_++]);
      if (c == '"') return true;
      if (c < 0x20 || (c == '\\' && !escape())) return false;
    }
    return false;
  }
  bool escape() {
    if (!more()) return false;
    const char e = text_[at_++];
    if (e != 'u') return e != '\0' && std::string_view("\"\\/bfnrt").find(e) != std::string_view::npos;
    for (int i = 0; i < 4; ++i, ++at_) {
      if (!more() || !std::isxdigit(static_cast<unsigned char>(text_[at_]))) return false;
    }
    return true;
  }
  bool word(std::string_view w) {
    if (text_.substr(at_, w.size()) != w) return false;
    at_ += w.size();
    return true;
  }
  bool value(int depth) {
    space();
    if (depth > 256 || !more()) return false;
    const char c = text_[at_];
    if (c == '{') {
      ++at_;
      if (take('}')) return true;
      do {
        if (!take('"') || !string() || !take(':') || !value(depth + 1)) return false;
      } while (take(','));
      return take('}');
    }
    if (c == '[') {
      ++at_;
      if (take(']')) return true;
      do {
        if (!value(depth + 1)) return false;
      } while (take(','));
      return take(']');
    }
    if (c == '"') {
      ++at_;
      return string();
    }
    if (c == '-' || std::isdigit(static_cast<unsigned char>(c))) return number();
    return word("true") || word("false") || word("null");
  }

  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace

bool isJson(std::string_view text) { return JsonCheck(text).whole(); }

void fail(const char* what) {
  std::fprintf(stderr, "==sondex-fuzz== %s\n", what);
  std::abort();
}

}  // namespace sondex::fuzz
