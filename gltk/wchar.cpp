#include "gltk/wchar.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace GLTK {
namespace wchar {

namespace {
constexpr size_t kMaxUnits = 2048;
}

std::wstring mbs2wcs(const std::string& text) {
  const size_t limit = std::min(2 * text.size(), kMaxUnits);
  std::wstring out(limit, L'\0');
  if (limit > 0) {
    // Converted one character at a time so that an invalid sequence keeps
    // everything before it, whatever the C library does with the rest.
    std::mbstate_t state{};
    const char* src = text.c_str();
    size_t left = text.size();
    for (size_t n = 0; n < limit && left > 0; ++n) {
      wchar_t wc = 0;
      const size_t used = std::mbrtowc(&wc, src, left, &state);
      if (used == 0 || used == static_cast<size_t>(-1) || used == static_cast<size_t>(-2)) break;
      out[n] = wc;
      src += used;
      left -= used;
    }
  }
  const size_t zero = out.find(L'\0');
  if (zero != std::wstring::npos) out.resize(zero);
  return out;
}

std::string wcs2mbs(const std::wstring& text) {
  const size_t limit = std::min(6 * text.size(), kMaxUnits);
  std::string out(limit, '\0');
  if (limit > 0) std::wcstombs(out.data(), text.c_str(), limit);
  return out;
}

}  // namespace wchar
}  // namespace GLTK
