// What the fuzz targets share: a private folder for the files they hand to
// the program (which opens files by path), quiet console output, a check
// that a run left no file descriptor open, and a strict check of JSON text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace sondex::fuzz {

// Sets the text locale as the program's main does and sends the console to
// the null device.
void initProgram();

// A fresh folder for this process's files (on a memory file system when
// there is one), removed with its content when the process exits.
const std::string& workDir();
// workDir()/name.
std::string workFile(const std::string& name);
std::wstring wide(const std::string& path);
// Replaces the file workDir()/name with the bytes; returns its wide path.
std::wstring writeInput(const std::string& name, const uint8_t* data, size_t size);

// Aborts when the lowest free descriptor differs from the one seen at
// construction: every file a run opens must be closed when it ends.
class DescriptorCheck {
 public:
  DescriptorCheck();
  ~DescriptorCheck();
  DescriptorCheck(const DescriptorCheck&) = delete;
  DescriptorCheck& operator=(const DescriptorCheck&) = delete;

 private:
  int lowestFree_;
};

// True when the text is one JSON value (objects, arrays, strings with their
// escapes, numbers, true, false, null; no NaN or Infinity) with nothing but
// white space around it.
bool isJson(std::string_view text);

// Prints the reason and aborts, so that the fuzzer keeps the input.
[[noreturn]] void fail(const char* what);

}  // namespace sondex::fuzz
