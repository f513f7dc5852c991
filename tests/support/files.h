// Temporary files and console capture for tests.
#pragma once

#include <cstdio>
#include <string>

#include "tests/support/bytes.h"

namespace sondex::test {

// A fresh temporary directory, removed with its content at destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::wstring wfile(const std::string& name) const;
  std::string write(const std::string& name, const Bytes& bytes) const;  // returns the full path

 private:
  std::string path_;
};

Bytes readFile(const std::string& path);
std::string readText(const std::string& path);
void writeFile(const std::string& path, const Bytes& bytes);
std::wstring widen(const std::string& utf8);

// Captures everything GLTK::Console writes while it lives.
class ConsoleCapture {
 public:
  ConsoleCapture();
  ~ConsoleCapture();
  ConsoleCapture(const ConsoleCapture&) = delete;
  ConsoleCapture& operator=(const ConsoleCapture&) = delete;

  std::string text() const;  // the bytes written so far (UTF-8)

 private:
  FILE* file_;
  FILE* previous_;
};

// A file of the source tree (SONDEX_SOURCE_DIR, or the working directory).
std::string sourcePath(const std::string& relative);
// The text of a golden file of the source tree; SONDEX_UPDATE_GOLDEN=1 first rewrites it with produced.
std::string golden(const std::string& relative, const std::string& produced);

// Runs a shell command; returns its standard output, or throws when it fails.
std::string run(const std::string& command);
bool haveProgram(const std::string& name);

}  // namespace sondex::test
