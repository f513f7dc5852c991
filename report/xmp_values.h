// Values of an XMP packet by qualified name, and the packet of a JPEG.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The value of the property: the attribute name="..." (or '...') of an
// element, else the text of the element <name>...</name>; entities
// decoded, surrounding blanks removed. Empty when the packet has neither.
std::string xmpValue(std::string_view xmp, std::string_view name);

// The XMP packet of the APP1 segment that carries one, among the JPEG
// segments in bytes (from the SOI on, up to the first scan); "" when none.
std::string jpegXmp(const unsigned char* bytes, size_t size);
