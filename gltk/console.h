// GLTK::Console: the program's one output channel. Every message and every
// report line is a wide printf-style format written to standard output and
// flushed at once, so that a process reading our output sees each line as
// soon as it is written.
#pragma once

#include <cstdio>

namespace GLTK {

class Console {
 public:
  static void out(const wchar_t* format, ...);
  // Prints the label (used as the format), " %02X" per byte, then a newline.
  static void dump(const wchar_t* label, const unsigned char* bytes, unsigned long n);
  // Sets LC_CTYPE to "C.UTF-8" so that UTF-8 paths and texts convert.
  static void init_locale();

  // Scope guard kept for the places that format numbers; the numeric locale
  // is never changed, so it has nothing to do.
  class LocaleC {
   public:
    LocaleC() {}
    ~LocaleC() {}
    LocaleC(const LocaleC&) = delete;
    LocaleC& operator=(const LocaleC&) = delete;
  };

  // Where out() writes; standard output unless a test points it elsewhere.
  static FILE* sink();
  static void set_sink(FILE* stream);
};

}  // namespace GLTK
