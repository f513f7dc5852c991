#include "gltk/byte_array.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

ByteArray::ByteArray(const void* bytes, uint64_t n) { assign(bytes, n); }

ByteArray::ByteArray(const ByteArray& other) { assign(other.data_, other.size_); }

ByteArray::ByteArray(ByteArray&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

ByteArray& ByteArray::operator=(const ByteArray& other) {
  if (this != &other) assign(other.data_, other.size_);
  return *this;
}

ByteArray& ByteArray::operator=(ByteArray&& other) noexcept {
  if (this != &other) {
    std::free(data_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

ByteArray::~ByteArray() { std::free(data_); }

void ByteArray::reserve(uint64_t n) {
  if (n <= capacity_) return;
  uint64_t grown = capacity_ < 64 ? 64 : capacity_ + capacity_ / 2;
  if (grown < n) grown = n;
  void* p = std::realloc(data_, grown);
  if (p == nullptr) throw std::bad_alloc();
  data_ = static_cast<uint8_t*>(p);
  capacity_ = grown;
}

void ByteArray::resize(uint64_t n) {
  if (n > size_) {
    reserve(n);
    std::memset(data_ + size_, 0, n - size_);
  }
  size_ = n;
}

void ByteArray::clear() { size_ = 0; }

void ByteArray::append(const void* bytes, uint64_t n) {
  if (n == 0) return;
  reserve(size_ + n);
  std::memcpy(data_ + size_, bytes, n);
  size_ += n;
}

void ByteArray::assign(const void* bytes, uint64_t n) {
  size_ = 0;
  append(bytes, n);
}

void ByteArray::erase_front(uint64_t n) {
  if (n >= size_) {
    size_ = 0;
    return;
  }
  std::memmove(data_, data_ + n, size_ - n);
  size_ -= n;
}

bool ByteArray::operator==(const ByteArray& other) const {
  return size_ == other.size_ && (size_ == 0 || std::memcmp(data_, other.data_, size_) == 0);
}
