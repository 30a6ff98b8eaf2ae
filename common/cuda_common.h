#pragma once
// Common::CUDADevice: the program's handle on one NVIDIA GPU through the CUDA
// driver (reached at run time, see cuda_driver.h). It parses device strings,
// owns the device's context, streams and the kernel modules loaded from the
// images embedded in the program.
//
// Devices are shared: every aligner asking for the same GPU gets the same
// CUDADevice (and so the same context), each with its own stream.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/cuda_driver.h"

namespace Common {

// One requested device. A limit of 0 means none; ChargeMemory enforces it.
struct CUDADeviceRequest {
    int device;             // index, or CUDADevice::kAutoDevice
    float memory_percent;   // limit as a percentage of the device's memory
    uint64_t memory_bytes;  // limit in bytes
};

class CUDADevice {
public:
    static constexpr int kAutoDevice = -1;  // "auto": the device with the most free memory

    // Parses "auto", "cuda:<i>[,<j>...][:<limit>[%|m|g]]" and "cuda:all[:<limit>]".
    // Throws std::runtime_error("Malformed device string: " + text). Only
    // "cuda:all" touches the driver (to count the devices).
    static std::vector<CUDADeviceRequest> ParseDeviceString(const std::string& text);

    // The process-wide device for a request, created on first use (thread-safe)
    // and kept while anyone holds it. "auto" is settled once per process.
    // Throws when no driver is found or the device does not exist.
    static std::shared_ptr<CUDADevice> Acquire(const CUDADeviceRequest& request);

    ~CUDADevice();
    CUDADevice(const CUDADevice&) = delete;
    CUDADevice& operator=(const CUDADevice&) = delete;

    int Index() const { return index_; }
    CUcontext Context() const { return context_; }
    // Bytes this program may hold on the device (the device string's limit,
    // counted by ChargeMemory); 0 = as much as it gives.
    uint64_t MemoryLimit() const { return memory_limit_; }
    // Counts memory that its owner allocates directly against the limit:
    // throws std::runtime_error, charging nothing, when bytes more would
    // exceed it. A negative count gives bytes back.
    void ChargeMemory(int64_t bytes);

    // Makes the device's context current on this thread for its lifetime.
    class ScopedContext {
    public:
        explicit ScopedContext(const CUDADevice& device);
        ~ScopedContext();
        ScopedContext(const ScopedContext&) = delete;
        ScopedContext& operator=(const ScopedContext&) = delete;

    private:
        const CudaDriver& driver_;
    };

    CUstream CreateStream();

    // The named kernels of an embedded image ("fastalign.fatbin"). The image is
    // loaded once per device; the handles live as long as the device.
    std::vector<CUfunction> LoadKernels(const std::string& image, const std::vector<std::string>& names);

private:
    CUDADevice(int index, const CUDADeviceRequest& request);

    const CudaDriver& driver_;
    int index_;
    CUcontext context_ = nullptr;
    uint64_t memory_limit_ = 0;
    std::mutex mutex_;  // guards everything below
    uint64_t charged_bytes_ = 0;
    std::map<std::string, CUmodule> modules_;
};

}  // namespace Common
