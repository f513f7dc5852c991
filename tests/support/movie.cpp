#include "tests/support/movie.h"

#include <stdexcept>

namespace sondex::test {

std::unique_ptr<MP4::Container> attachBytes(const TempDir& dir, const Bytes& bytes, const std::string& name) {
  dir.write(name, bytes);
  auto movie = std::make_unique<MP4::Container>();
  if (!movie->attach(dir.wfile(name), ~0ULL)) throw std::runtime_error("attach failed");
  return movie;
}

std::vector<MP4::BOX*> findAll(const MP4::Container& movie, const char* path) {
  std::vector<MP4::BOX*> found;
  movie.find(path, [&found](MP4::BOX& box) { return found.push_back(&box), true; });
  return found;
}

MP4::BOX* findFirst(const MP4::Container& movie, const char* path) {
  const std::vector<MP4::BOX*> found = findAll(movie, path);
  return found.empty() ? nullptr : found.front();
}

}  // namespace sondex::test
