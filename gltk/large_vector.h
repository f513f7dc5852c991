// LargeVector: a std::vector for the sample arrays of long recordings (an
// hour of gyro samples is tens of megabytes). Blocks of 2 MiB and more are
// mapped on their own, aligned to 2 MiB and offered to the kernel for huge
// pages, so that filling them takes a few page faults instead of one per
// 4 KiB; smaller blocks come from the heap as usual.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

namespace GLTK {

template <class T>
struct LargeBlockAllocator {
  using value_type = T;

  LargeBlockAllocator() = default;
  template <class U>
  LargeBlockAllocator(const LargeBlockAllocator<U>&) noexcept {}

  T* allocate(size_t n) {
    if (n > (SIZE_MAX - 2 * kHuge) / sizeof(T)) throw std::bad_array_new_length();
    const size_t bytes = n * sizeof(T);
    if (bytes < kHuge) return static_cast<T*>(::operator new(bytes));
    // Map one huge page more than needed and cut the ends off, so that the
    // block starts on a huge-page boundary.
    const size_t length = roundUp(bytes);
    void* mapped = ::mmap(nullptr, length + kHuge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    const auto at = reinterpret_cast<uintptr_t>(mapped);
    const uintptr_t aligned = (at + kHuge - 1) & ~uintptr_t{kHuge - 1};
    if (aligned > at) ::munmap(mapped, aligned - at);
    if (aligned + length < at + length + kHuge) {
      ::munmap(reinterpret_cast<void*>(aligned + length), at + kHuge - aligned);
    }
    ::madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);  // a hint: fine when refused
    return reinterpret_cast<T*>(aligned);
  }

  void deallocate(T* p, size_t n) noexcept {
    const size_t bytes = n * sizeof(T);
    if (bytes < kHuge) {
      ::operator delete(p);
    } else {
      ::munmap(p, roundUp(bytes));
    }
  }

  template <class U>
  bool operator==(const LargeBlockAllocator<U>&) const noexcept {
    return true;
  }

 private:
  static constexpr size_t kHuge = size_t{2} << 20;
  static size_t roundUp(size_t bytes) { return (bytes + kHuge - 1) & ~(kHuge - 1); }
};

template <class T>
using LargeVector = std::vector<T, LargeBlockAllocator<T>>;

}  // namespace GLTK
