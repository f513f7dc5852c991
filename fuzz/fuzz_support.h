// What the fuzz targets share: a private folder for the files they hand to
// the program (which opens files by path), quiet console output, a check
// that a run left no file descriptor open, and the recognition of the one
// input that is meant to end the program.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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

// True when the movie holds a "moov.udta.KDTG" box marked 0x3210 with at
// least one record: the loader has no byte-order fix-up for it, and the
// program ends there with std::bad_function_call, by design. Console output
// of the check goes to the null device.
bool endsOnBigEndianKdtg(const std::wstring& path);

// Prints the reason and aborts, so that the fuzzer keeps the input.
[[noreturn]] void fail(const char* what);

}  // namespace sondex::fuzz
