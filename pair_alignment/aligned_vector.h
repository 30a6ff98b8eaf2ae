#pragma once
// A std::vector whose storage starts on a 64-byte boundary: one cache line and
// one 512-bit register. The batch kernels' lane profiles and score rows use it
// so that a lane block never straddles a cache line.

#include <cstddef>
#include <new>
#include <vector>

namespace PairAlignment {

constexpr size_t kVectorAlignment = 64;

template <typename T>
struct AlignedAllocator {
    using value_type = T;
    AlignedAllocator() = default;
    template <typename U>
    AlignedAllocator(const AlignedAllocator<U>&) noexcept {}
    T* allocate(size_t count) {
        return static_cast<T*>(::operator new (count * sizeof(T), std::align_val_t{kVectorAlignment}));
    }
    void deallocate(T* p, size_t) noexcept { ::operator delete (p, std::align_val_t{kVectorAlignment}); }
    template <typename U>
    bool operator==(const AlignedAllocator<U>&) const noexcept {
        return true;
    }
};

template <typename T>
using AlignedVector = std::vector<T, AlignedAllocator<T>>;

}  // namespace PairAlignment
