// The box tree of a movie file: the parse with every typed box, the dump,
// the payload reads the program makes, a parse cut short (as a rebuilt
// file is parsed before it is fixed up) and the -set1 rewrite of the file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "mp4/container.h"

using namespace sondex::fuzz;

namespace {

// Containers nested deeper than 64 levels are kept as plain boxes, so that
// no walk over the tree recurses further.
int depthBelow(const MP4::BOX& box) {
  if (!box.hasChild()) return 0;
  int deepest = 0;
  for (const MP4::BOX* child : static_cast<const MP4::NestedBox&>(box).children) {
    if (child->hasChild()) deepest = std::max(deepest, 1 + depthBelow(*child));
  }
  return deepest;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  initProgram();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  DescriptorCheck descriptors;
  const std::wstring path = writeInput("movie.mp4", data, size);
  MP4::Container movie;
  if (!movie.attach(path, ~0ULL)) fail("cannot attach the input");
  movie.dump();
  if (depthBelow(*movie.root) > 65) fail("containers nested deeper than 65 levels");
  for (const char* boxPath : {"moov.udta.@mod", "moov.udta.KMKN", "moov.udta.@xyz"}) {
    movie.find(boxPath, [&movie](MP4::BOX& box) {
      std::string payload;
      movie.readPayload(box, payload);
      return true;
    });
  }
  movie.attach(path, size / 2);
  movie.dump();
  movie.attach(path, ~0ULL);
  movie.appendFullRangeAndConstrainedSet1Flag(true);
  movie.dump();
  return 0;
}
