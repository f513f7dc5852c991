// The avcC box: its payload is read whole while the tree is built.
#include <algorithm>

#include "gltk/console.h"
#include "mp4/avcc.h"
#include "mp4/boxes.h"

namespace MP4 {

void AVCC::parseBox(BinFile& f, uint64_t limit) {
  enter(f, limit);
  payload.clear();
  if (size <= 8 || size > kPayloadLimit) return;
  // Limited to the box's end and to what the file holds; a box over
  // kPayloadLimit is left empty and reads as a record that cannot be parsed.
  const uint64_t wanted = size - 8;
  const uint64_t room = f.tell() <= f.limit ? f.limit - f.tell() : 0;
  const uint64_t inFile = f.length() > f.tell() ? f.length() - f.tell() : 0;
  payload.resize(std::min({wanted, room, inFile}));
  const uint64_t got = f.read(payload.data(), payload.size());
  payload.resize(got > payload.size() ? 0 : got);
}

void AVCC::dump() const { GLTK::Console::out(L"MP4: %ls<%ls >\n", indent().c_str(), basicTag().c_str()); }

}  // namespace MP4
