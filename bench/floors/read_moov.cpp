// Floor: reading the movie box (which holds the user data and its sensor
// logs) and the top-level uuid boxes once, each with one read, after
// walking the top-level box headers.
//   read_moov <movie>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const int fd = open(argv[1], O_RDONLY);
  if (fd < 0) return 1;
  uint64_t at = 0, kept = 0;
  for (;;) {
    uint8_t header[16];
    if (pread(fd, header, sizeof header, static_cast<off_t>(at)) < 8) break;
    uint64_t size = static_cast<uint64_t>(header[0]) << 24 | header[1] << 16 | header[2] << 8 | header[3];
    if (size == 1) {
      size = 0;
      for (int i = 8; i < 16; ++i) size = size << 8 | header[i];
    }
    if (size < 8) break;
    if (std::memcmp(header + 4, "moov", 4) == 0 || std::memcmp(header + 4, "uuid", 4) == 0) {
      std::vector<uint8_t> payload(size);
      kept += static_cast<uint64_t>(pread(fd, payload.data(), size, static_cast<off_t>(at)));
    }
    at += size;
  }
  close(fd);
  return kept > 0 ? 0 : 1;
}
