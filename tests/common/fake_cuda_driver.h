#pragma once
// A stand-in for libcuda.so.1 so that the GPU host code runs where there is no
// GPU: device memory is host memory (every copy is checked against the
// allocation it lands in), copies and launches run at once, and a launch calls
// the kernel registered under the function's name, typically an emulated
// kernel run thread by thread. Installed for the lifetime of a FakeCudaDriver.

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/cuda_driver.h"

namespace FakeCuda {

// Whether text is prefix + a line number + suffix (driver errors name the
// source line, which moves with every edit).
inline bool MatchesWithLine(const std::string& text, const std::string& prefix, const std::string& suffix) {
    if (text.size() <= prefix.size() + suffix.size()) return false;
    if (text.compare(0, prefix.size(), prefix) != 0) return false;
    if (text.compare(text.size() - suffix.size(), suffix.size(), suffix) != 0) return false;
    const std::string line = text.substr(prefix.size(), text.size() - prefix.size() - suffix.size());
    return line.find_first_not_of("0123456789") == std::string::npos;
}

using Common::CUcontext;
using Common::CUdevice;
using Common::CUdeviceptr;
using Common::CUfunction;
using Common::CUmodule;
using Common::CUresult;
using Common::CUstream;

constexpr CUresult kInvalidValue = 1;
constexpr CUresult kOutOfMemory = 2;
constexpr CUresult kInvalidDevice = 101;
constexpr CUresult kNoBinaryForGpu = 209;
constexpr CUresult kNotFound = 500;

struct Launch {
    unsigned grid[3];
    unsigned block[3];
    std::string kernel;
};

// grid, block, parameter pointers as cuLaunchKernel passes them.
using Kernel = std::function<void(const unsigned* grid, const unsigned* block, void** parameters)>;

struct State {
    std::vector<size_t> free_memory{size_t{1} << 30};  // per device; its size is the device count
    size_t total_memory = size_t{2} << 30;
    CUresult module_load_result = Common::CUDA_SUCCESS;
    CUresult context_create_result = Common::CUDA_SUCCESS;
    int fail_allocation_after = -1;  // cuMemAlloc_v2 calls that succeed before OUT_OF_MEMORY; -1 never
    std::map<std::string, Kernel> kernels;

    std::map<CUdeviceptr, size_t> device_blocks;  // live allocations
    std::map<const void*, size_t> host_blocks;
    std::vector<int> contexts_created;  // device index of each context
    int live_contexts = 0, live_streams = 0, live_modules = 0;
    int allocations = 0;
    std::vector<Launch> launches;
};

inline State& Get() {
    static State state;
    return state;
}

inline thread_local std::vector<CUcontext> current_contexts;

// A range must lie inside one live allocation.
template <typename Key>
bool Covered(const std::map<Key, size_t>& blocks, const void* begin, size_t bytes) {
    const auto* address = static_cast<const unsigned char*>(begin);
    for (const auto& [start, size] : blocks) {
        const auto* base = reinterpret_cast<const unsigned char*>(start);
        if (address >= base && address + bytes <= base + size) return true;
    }
    return false;
}

inline void* Pointer(CUdeviceptr p) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(p));
}

inline const Common::CudaDriver& Table() {
    static const Common::CudaDriver table = [] {
        Common::CudaDriver d{};
        d.cuInit = [](unsigned) -> CUresult { return 0; };
        d.cuDeviceGetCount = [](int* count) -> CUresult {
            *count = static_cast<int>(Get().free_memory.size());
            return 0;
        };
        d.cuDeviceGet = [](CUdevice* device, int ordinal) -> CUresult {
            if (ordinal < 0 || ordinal >= static_cast<int>(Get().free_memory.size())) return kInvalidDevice;
            *device = ordinal;
            return 0;
        };
        d.cuDeviceGetAttribute = [](int* value, int, CUdevice) -> CUresult {
            *value = 8;
            return 0;
        };
        d.cuCtxCreate_v2 = [](CUcontext* context, unsigned, CUdevice device) -> CUresult {
            if (Get().context_create_result != 0) return Get().context_create_result;
            *context = reinterpret_cast<CUcontext>(new int(device));
            Get().contexts_created.push_back(device);
            ++Get().live_contexts;
            current_contexts.push_back(*context);
            return 0;
        };
        d.cuCtxDestroy_v2 = [](CUcontext context) -> CUresult {
            delete reinterpret_cast<int*>(context);
            --Get().live_contexts;
            return 0;
        };
        d.cuCtxPushCurrent_v2 = [](CUcontext context) -> CUresult {
            current_contexts.push_back(context);
            return 0;
        };
        d.cuCtxPopCurrent_v2 = [](CUcontext* context) -> CUresult {
            if (current_contexts.empty()) return kInvalidValue;
            *context = current_contexts.back();
            current_contexts.pop_back();
            return 0;
        };
        d.cuStreamCreate = [](CUstream* stream, unsigned) -> CUresult {
            *stream = reinterpret_cast<CUstream>(new int(0));
            ++Get().live_streams;
            return 0;
        };
        d.cuStreamDestroy_v2 = [](CUstream stream) -> CUresult {
            delete reinterpret_cast<int*>(stream);
            --Get().live_streams;
            return 0;
        };
        d.cuStreamSynchronize = [](CUstream) -> CUresult { return 0; };
        d.cuMemGetInfo_v2 = [](size_t* free, size_t* total) -> CUresult {
            if (current_contexts.empty()) return kInvalidValue;
            *free = Get().free_memory.at(static_cast<size_t>(*reinterpret_cast<int*>(current_contexts.back())));
            *total = Get().total_memory;
            return 0;
        };
        d.cuMemAlloc_v2 = [](CUdeviceptr* pointer, size_t bytes) -> CUresult {
            State& s = Get();
            if (bytes == 0) return kInvalidValue;
            if (s.fail_allocation_after >= 0 && s.allocations >= s.fail_allocation_after) return kOutOfMemory;
            ++s.allocations;
            *pointer = reinterpret_cast<uintptr_t>(std::malloc(bytes));
            std::memset(Pointer(*pointer), 0xA5, bytes);  // like device memory, never zeroed
            s.device_blocks[*pointer] = bytes;
            return 0;
        };
        d.cuMemAllocHost_v2 = [](void** pointer, size_t bytes) -> CUresult {
            if (bytes == 0) return kInvalidValue;
            *pointer = std::malloc(bytes);
            Get().host_blocks[*pointer] = bytes;
            return 0;
        };
        d.cuMemFree_v2 = [](CUdeviceptr pointer) -> CUresult {
            if (Get().device_blocks.erase(pointer) == 0) return kInvalidValue;
            std::free(Pointer(pointer));
            return 0;
        };
        d.cuMemFreeHost = [](void* pointer) -> CUresult {
            if (Get().host_blocks.erase(pointer) == 0) return kInvalidValue;
            std::free(pointer);
            return 0;
        };
        d.cuMemcpyHtoDAsync_v2 = [](CUdeviceptr destination, const void* source, size_t bytes, CUstream) -> CUresult {
            if (!Covered(Get().device_blocks, Pointer(destination), bytes) ||
                !Covered(Get().host_blocks, source, bytes))
                return kInvalidValue;
            std::memcpy(Pointer(destination), source, bytes);
            return 0;
        };
        d.cuMemcpyDtoHAsync_v2 = [](void* destination, CUdeviceptr source, size_t bytes, CUstream) -> CUresult {
            if (!Covered(Get().host_blocks, destination, bytes) ||
                !Covered(Get().device_blocks, Pointer(source), bytes))
                return kInvalidValue;
            std::memcpy(destination, Pointer(source), bytes);
            return 0;
        };
        d.cuModuleLoadData = [](CUmodule* module, const void* image) -> CUresult {
            if (image == nullptr) return kInvalidValue;
            if (Get().module_load_result != 0) return Get().module_load_result;
            *module = reinterpret_cast<CUmodule>(new int(0));
            ++Get().live_modules;
            return 0;
        };
        d.cuModuleGetFunction = [](CUfunction* function, CUmodule, const char* name) -> CUresult {
            auto found = Get().kernels.find(name);
            if (found == Get().kernels.end()) return kNotFound;
            *function = reinterpret_cast<CUfunction>(&*found);
            return 0;
        };
        d.cuModuleUnload = [](CUmodule module) -> CUresult {
            delete reinterpret_cast<int*>(module);
            --Get().live_modules;
            return 0;
        };
        d.cuLaunchKernel = [](CUfunction function, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by,
                              unsigned bz, unsigned, CUstream, void** parameters, void**) -> CUresult {
            if (bx * by * bz == 0 || bx * by * bz > 1024) return kInvalidValue;
            auto& entry = *reinterpret_cast<std::pair<const std::string, Kernel>*>(function);
            const unsigned grid[3] = {gx, gy, gz};
            const unsigned block[3] = {bx, by, bz};
            Get().launches.push_back({{gx, gy, gz}, {bx, by, bz}, entry.first});
            entry.second(grid, block, parameters);
            return 0;
        };
        d.cuGetErrorName = [](CUresult error, const char** name) -> CUresult {
            static const std::map<CUresult, const char*> names = {{0, "CUDA_SUCCESS"},
                                                                  {kInvalidValue, "CUDA_ERROR_INVALID_VALUE"},
                                                                  {kOutOfMemory, "CUDA_ERROR_OUT_OF_MEMORY"},
                                                                  {kInvalidDevice, "CUDA_ERROR_INVALID_DEVICE"},
                                                                  {kNoBinaryForGpu, "CUDA_ERROR_NO_BINARY_FOR_GPU"},
                                                                  {kNotFound, "CUDA_ERROR_NOT_FOUND"}};
            auto found = names.find(error);
            if (found == names.end()) return kInvalidValue;
            *name = found->second;
            return 0;
        };
        return d;
    }();
    return table;
}

// Installs a fresh fake for its lifetime.
class FakeCudaDriver {
public:
    FakeCudaDriver() {
        Get() = State{};
        Common::OverrideCudaDriver(&Table());
    }
    ~FakeCudaDriver() { Common::OverrideCudaDriver(nullptr); }
    FakeCudaDriver(const FakeCudaDriver&) = delete;
    FakeCudaDriver& operator=(const FakeCudaDriver&) = delete;
    State& state() { return Get(); }
};

}  // namespace FakeCuda
