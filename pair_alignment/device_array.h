#pragma once
// The buffers of the GPU aligners: a device array and, for those that are
// copied, its page-locked host twin.

#include <cstddef>

#include "common/cuda_driver.h"

namespace PairAlignment {

struct DeviceArray {
    Common::CUdeviceptr device = 0;
    void* host = nullptr;
    size_t bytes = 0;

    template <typename T>
    T* Host() const {
        return static_cast<T*>(host);
    }
};

// Frees both halves of an array, handing the result of each free to report
// (clean-up goes on after a failure), and leaves the array empty.
template <typename Report>
void FreeDeviceArray(const Common::CudaDriver& driver, DeviceArray& array, Report&& report) {
    if (array.device != 0) report(driver.cuMemFree_v2(array.device));
    if (array.host != nullptr) report(driver.cuMemFreeHost(array.host));
    array = DeviceArray{};
}

}  // namespace PairAlignment
