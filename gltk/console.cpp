#include "gltk/console.h"

#include <clocale>
#include <cstdarg>
#include <cwchar>

namespace GLTK {

namespace {
FILE* g_sink = nullptr;
}

FILE* Console::sink() { return g_sink != nullptr ? g_sink : stdout; }

void Console::set_sink(FILE* stream) { g_sink = stream; }

void Console::out(const wchar_t* format, ...) {
  FILE* stream = sink();
  va_list args;
  va_start(args, format);
  vfwprintf(stream, format, args);
  va_end(args);
  fflush(stream);
}

void Console::dump(const wchar_t* label, const unsigned char* bytes, unsigned long n) {
  out(label);
  for (unsigned long i = 0; i < n; ++i) out(L" %02X", bytes[i]);
  out(L"\n");
}

void Console::init_locale() { setlocale(LC_CTYPE, "C.UTF-8"); }

}  // namespace GLTK
