// GLTK::FileIO: an open file with 64-bit positions, plus the few path
// operations the program needs. Every failure to open prints one message;
// the other operations fail quietly and leave reporting to their callers.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace GLTK {

class FileIO {
 public:
  // mode 'r' reads, 'w' creates or truncates for writing, 'x' creates a
  // new file for writing (never an existing file or a link), 'a' opens an
  // existing file for reading and writing in place. permissions are those
  // of a created file.
  FileIO(const std::wstring& path, int mode, unsigned permissions = 0644);
  virtual ~FileIO();
  FileIO(const FileIO&) = delete;
  FileIO& operator=(const FileIO&) = delete;

  bool is_open() const { return descriptor != 0; }
  int fd() const { return descriptor; }
  uint64_t tell() const { return position; }
  const std::wstring& file_path() const { return path; }

  // Size of the file (0 when not open).
  uint64_t length() const;
  // One system call each; the result is the call's (all ones on error).
  virtual uint64_t read(unsigned char* buffer, uint64_t n);
  // One positioned read at offset; the file position does not move.
  uint64_t read_at(unsigned char* buffer, uint64_t n, uint64_t offset) const;
  virtual uint64_t write(const unsigned char* buffer, uint64_t n);
  virtual bool seek_set(uint64_t offset);
  virtual bool seek_cur(int64_t offset);
  // Copies n bytes from here to destination in 64 KiB chunks; returns the
  // number of bytes written.
  uint64_t copyTo(FileIO& destination, uint64_t n);
  // Forces written data to the disk.
  bool sync();

  static bool open(const std::wstring& path, const std::function<void(FileIO&)>& callback);
  static bool open_w(const std::wstring& path, const std::function<void(FileIO&)>& callback);
  static bool open_a(const std::wstring& path, const std::function<void(FileIO&)>& callback);
  static bool open_x(const std::wstring& path, unsigned permissions, const std::function<void(FileIO&)>& callback);
  static bool exist(const std::wstring& path);
  static bool rename(const std::wstring& from, const std::wstring& to);
  static bool unlink(const std::wstring& path);

 protected:
  // Shares another file's open descriptor without owning it.
  struct Borrow {};
  FileIO(FileIO& other, Borrow);

  int descriptor = 0;
  std::wstring path;  // kept by value so a temporary name cannot dangle
  int mode;
  uint64_t position = 0;

 private:
  bool owns_ = true;
};

// When true, the open family prints "processing <path> ..." first.
extern bool FileIO_show_process_file_name;

}  // namespace GLTK
