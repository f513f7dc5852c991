// Parsing built bytes through a real file, the way the program sees movies.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mp4/container.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"

namespace sondex::test {

// Writes bytes to dir/name and attaches a container to it.
std::unique_ptr<MP4::Container> attachBytes(const TempDir& dir, const Bytes& bytes,
                                            const std::string& name = "movie.mp4");

// Every box matching path, in visiting order; the first one; the first one as T.
std::vector<MP4::BOX*> findAll(const MP4::Container& movie, const char* path);
MP4::BOX* findFirst(const MP4::Container& movie, const char* path);
template <class T>
T* findTyped(const MP4::Container& movie, const char* path) {
  return dynamic_cast<T*>(findFirst(movie, path));
}

}  // namespace sondex::test
