// Narrow/wide text conversion in the current LC_CTYPE, each direction capped
// at 2048 output units. Neither reports errors: an unconvertible sequence
// ends the text converted so far.
#pragma once

#include <string>

namespace GLTK {
namespace wchar {

// At most min(2 x bytes, 2048) wide characters, cut at the first zero.
std::wstring mbs2wcs(const std::string& text);
// A buffer of min(6 x characters, 2048) bytes holding the converted text and
// zero padding; users take it as a zero-terminated C string.
std::string wcs2mbs(const std::wstring& text);

}  // namespace wchar
}  // namespace GLTK
