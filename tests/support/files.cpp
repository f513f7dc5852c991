#include "tests/support/files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "gltk/console.h"
#include "gltk/wchar.h"

namespace sondex::test {

TempDir::TempDir() : path_((std::filesystem::temp_directory_path() / "sondex-test-XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::permissions(path_, std::filesystem::perms::owner_all, ignored);
  std::filesystem::remove_all(path_, ignored);
}

std::wstring TempDir::wfile(const std::string& name) const { return widen(file(name)); }

std::string TempDir::write(const std::string& name, const Bytes& bytes) const {
  writeFile(file(name), bytes);
  return file(name);
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes readFile(const std::string& path) {
  const std::string text = readText(path);
  return Bytes(text.begin(), text.end());
}

void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::wstring widen(const std::string& utf8) { return GLTK::wchar::mbs2wcs(utf8); }

ConsoleCapture::ConsoleCapture() : file_(std::tmpfile()), previous_(GLTK::Console::sink()) {
  if (file_ == nullptr) throw std::runtime_error("tmpfile failed");
  GLTK::Console::set_sink(file_);
}

ConsoleCapture::~ConsoleCapture() {
  GLTK::Console::set_sink(previous_ == stdout ? nullptr : previous_);
  std::fclose(file_);
}

std::string ConsoleCapture::text() const {
  std::fflush(file_);
  return readText("/proc/self/fd/" + std::to_string(fileno(file_)));  // from the start, whatever the position
}

std::string sourcePath(const std::string& relative) {
  const char* root = std::getenv("SONDEX_SOURCE_DIR");
  return std::string(root != nullptr ? root : ".") + "/" + relative;
}

std::string golden(const std::string& relative, const std::string& produced) {
  if (std::getenv("SONDEX_UPDATE_GOLDEN") != nullptr)
    writeFile(sourcePath(relative), Bytes(produced.begin(), produced.end()));
  return readText(sourcePath(relative));
}

std::string run(const std::string& command) {
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw std::runtime_error("popen failed: " + command);
  std::string out;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  const int rc = pclose(pipe);
  if (rc != 0) throw std::runtime_error("command failed (" + std::to_string(rc) + "): " + command);
  return out;
}

bool haveProgram(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace sondex::test
