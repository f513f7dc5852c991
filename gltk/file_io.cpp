#include "gltk/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "gltk/console.h"
#include "gltk/wchar.h"

namespace GLTK {

bool FileIO_show_process_file_name = false;

namespace {
constexpr uint64_t kFailed = ~0ULL;
constexpr uint64_t kCopyChunk = 65536;

// A failed open stores 0, so 0 is "not open"; a descriptor the system
// happens to hand out as 0 (standard input closed) is moved out of the way.
int keep_off_zero(int fd) {
  if (fd != 0) return fd < 0 ? 0 : fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
  ::close(fd);
  return moved < 0 ? 0 : moved;
}

bool run(const std::wstring& path, int mode, const std::function<void(FileIO&)>& callback,
         unsigned permissions = 0644) {
  FileIO file(path, mode, permissions);
  if (!file.is_open()) return false;
  if (FileIO_show_process_file_name) Console::out(L"processing %ls ...\n", path.c_str());
  callback(file);
  return true;
}
}  // namespace

FileIO::FileIO(const std::wstring& path_, int mode_, unsigned permissions) : path(path_), mode(mode_) {
  const std::string name = wchar::wcs2mbs(path_);
  int fd;
  if (mode_ == 'a') {
    fd = ::open(name.c_str(), O_RDWR | O_CLOEXEC);
  } else if (mode_ == 'w') {
    fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, permissions);
  } else if (mode_ == 'x') {
    fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, permissions);
  } else {
    fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  }
  descriptor = keep_off_zero(fd);
  if (descriptor == 0) Console::out(L"open(%ls, '%c') failed.\n", path_.c_str(), mode_);
}

FileIO::FileIO(FileIO& other, Borrow)
    : descriptor(other.descriptor), path(other.path), mode(other.mode), position(other.position), owns_(false) {}

FileIO::~FileIO() {
  if (owns_ && descriptor != 0) ::close(descriptor);
}

uint64_t FileIO::length() const {
  if (descriptor == 0) return 0;
  struct stat st;
  if (fstat(descriptor, &st) != 0) return 0;
  return static_cast<uint64_t>(st.st_size);
}

uint64_t FileIO::read(unsigned char* buffer, uint64_t n) {
  if (descriptor == 0) return kFailed;
  const ssize_t got = ::read(descriptor, buffer, n);
  if (got > 0) position += static_cast<uint64_t>(got);
  return static_cast<uint64_t>(got);
}

uint64_t FileIO::read_at(unsigned char* buffer, uint64_t n, uint64_t offset) const {
  if (descriptor == 0 || offset > static_cast<uint64_t>(INT64_MAX)) return kFailed;
  return static_cast<uint64_t>(::pread(descriptor, buffer, n, static_cast<off_t>(offset)));
}

uint64_t FileIO::write(const unsigned char* buffer, uint64_t n) {
  if (descriptor == 0) return kFailed;
  const ssize_t put = ::write(descriptor, buffer, n);
  if (put > 0) position += static_cast<uint64_t>(put);
  return static_cast<uint64_t>(put);
}

bool FileIO::seek_set(uint64_t offset) {
  if (descriptor == 0) return false;
  const off_t at = lseek(descriptor, static_cast<off_t>(offset), SEEK_SET);
  if (at < 0) {
    const int error = errno;
    Console::out(L"seek_set(%lld) failed - %ls(%d)\n", static_cast<long long>(offset),
                 wchar::mbs2wcs(std::strerror(error)).c_str(), error);
    return false;
  }
  position = static_cast<uint64_t>(at);
  return true;
}

bool FileIO::seek_cur(int64_t offset) {
  if (descriptor == 0) return false;
  const off_t at = lseek(descriptor, static_cast<off_t>(offset), SEEK_CUR);
  if (at < 0) {
    const int error = errno;
    Console::out(L"seek_cur(%lld) failed - %ls(%d)\n", static_cast<long long>(offset),
                 wchar::mbs2wcs(std::strerror(error)).c_str(), error);
    return false;
  }
  position = static_cast<uint64_t>(at);
  return true;
}

uint64_t FileIO::copyTo(FileIO& destination, uint64_t n) {
  if (n == 0) return 0;
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[kCopyChunk]());
  uint64_t written = 0;
  for (uint64_t done = 0; done < n;) {
    const uint64_t chunk = (n - done < kCopyChunk) ? n - done : kCopyChunk;
    read(buffer.get(), chunk);
    written += destination.write(buffer.get(), chunk);
    done += chunk;
  }
  return written;
}

bool FileIO::sync() { return descriptor != 0 && fsync(descriptor) == 0; }

bool FileIO::open(const std::wstring& path, const std::function<void(FileIO&)>& callback) {
  return run(path, 'r', callback);
}

bool FileIO::open_w(const std::wstring& path, const std::function<void(FileIO&)>& callback) {
  return run(path, 'w', callback);
}

bool FileIO::open_a(const std::wstring& path, const std::function<void(FileIO&)>& callback) {
  return run(path, 'a', callback);
}

bool FileIO::open_x(const std::wstring& path, unsigned permissions, const std::function<void(FileIO&)>& callback) {
  return run(path, 'x', callback, permissions);
}

bool FileIO::exist(const std::wstring& path) {
  return open(path, [](FileIO&) {});
}

bool FileIO::rename(const std::wstring& from, const std::wstring& to) {
  return std::rename(wchar::wcs2mbs(from).c_str(), wchar::wcs2mbs(to).c_str()) == 0;
}

bool FileIO::unlink(const std::wstring& path) { return ::unlink(wchar::wcs2mbs(path).c_str()) == 0; }

}  // namespace GLTK
