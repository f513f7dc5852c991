// ByteArray: the owned, growable byte buffer in which box payloads,
// parameter sets and Exif blocks travel through the program.
#pragma once

#include <cstddef>
#include <cstdint>

class ByteArray {
 public:
  ByteArray() = default;
  ByteArray(const void* bytes, uint64_t n);
  ByteArray(const ByteArray& other);
  ByteArray(ByteArray&& other) noexcept;
  ByteArray& operator=(const ByteArray& other);
  ByteArray& operator=(ByteArray&& other) noexcept;
  virtual ~ByteArray();

  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  uint64_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  uint8_t& operator[](uint64_t i) { return data_[i]; }
  const uint8_t& operator[](uint64_t i) const { return data_[i]; }

  // Grows or shrinks to n bytes; new bytes are zero.
  void resize(uint64_t n);
  void clear();
  void append(const void* bytes, uint64_t n);
  void append(const ByteArray& other) { append(other.data_, other.size_); }
  void push_back(uint8_t byte) { append(&byte, 1); }
  // Replaces the content with n bytes.
  void assign(const void* bytes, uint64_t n);
  // Drops the first n bytes (or everything when n exceeds the size).
  void erase_front(uint64_t n);

  bool operator==(const ByteArray& other) const;
  bool operator!=(const ByteArray& other) const { return !(*this == other); }

 private:
  void reserve(uint64_t n);

  uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
  uint64_t capacity_ = 0;
};
