#include "gltk/console.h"

#include <unistd.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cwchar>
#include <string>

namespace GLTK {

namespace {

FILE* g_sink = nullptr;

void writeAll(int fd, const char* data, size_t n) {
  while (n > 0) {
    const ssize_t put = ::write(fd, data, n);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return;
    data += put;
    n -= static_cast<size_t>(put);
  }
}

}  // namespace

FILE* Console::sink() { return g_sink != nullptr ? g_sink : stdout; }

void Console::set_sink(FILE* stream) { g_sink = stream; }

// An unbuffered wide stream writes one byte per system call. Each call is
// therefore formatted into a wide memory stream (a conversion that fails
// midway leaves what came before it, as on the console), converted to the
// locale's multibyte text and written in one go.
void Console::out(const wchar_t* format, ...) {
  wchar_t* wide = nullptr;
  size_t length = 0;
  FILE* memory = open_wmemstream(&wide, &length);
  if (memory == nullptr) return;
  va_list args;
  va_start(args, format);
  vfwprintf(memory, format, args);
  va_end(args);
  fclose(memory);

  std::string text;
  text.reserve(length + length / 4);
  std::mbstate_t state{};
  char one[MB_LEN_MAX];
  for (size_t i = 0; i < length; ++i) {
    const size_t n = std::wcrtomb(one, wide[i], &state);
    if (n == static_cast<size_t>(-1)) break;  // the console would stop here too
    text.append(one, n);
  }
  std::free(wide);
  FILE* stream = sink();
  fflush(stream);
  writeAll(fileno(stream), text.data(), text.size());
}

void Console::dump(const wchar_t* label, const unsigned char* bytes, unsigned long n) {
  out(label);
  for (unsigned long i = 0; i < n; ++i) out(L" %02X", bytes[i]);
  out(L"\n");
}

void Console::init_locale() { setlocale(LC_CTYPE, "C.UTF-8"); }

}  // namespace GLTK
