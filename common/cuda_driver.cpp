#include "common/cuda_driver.h"

#include <dlfcn.h>

#include <atomic>

namespace Common {
namespace {

// The handle is never closed: the driver keeps threads and state alive for the
// rest of the process, and unloading it under live contexts is not supported.
struct LoadedDriver {
    CudaDriver table{};
    std::string error;  // non-empty when loading failed; repeated on every use
};

template <typename T>
bool Resolve(void* library, const char* name, T& entry, std::string& error) {
    entry = reinterpret_cast<T>(dlsym(library, name));
    if (entry == nullptr && error.empty())
        error = std::string("The CUDA driver libcuda.so.1 lacks the entry point ") + name +
                ": --device needs a newer NVIDIA driver.";
    return entry != nullptr;
}

LoadedDriver LoadLibcuda() {
    LoadedDriver loaded;
    void* library = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        loaded.error =
            "No CUDA driver found (libcuda.so.1 could not be loaded): --device needs an NVIDIA GPU and driver.";
        return loaded;
    }
    CudaDriver& d = loaded.table;
    std::string& e = loaded.error;
#define VB_RESOLVE(name) Resolve(library, #name, d.name, e)
    VB_RESOLVE(cuInit);
    VB_RESOLVE(cuDeviceGetCount);
    VB_RESOLVE(cuDeviceGet);
    VB_RESOLVE(cuDeviceGetAttribute);
    VB_RESOLVE(cuCtxCreate_v2);
    VB_RESOLVE(cuCtxDestroy_v2);
    VB_RESOLVE(cuCtxPushCurrent_v2);
    VB_RESOLVE(cuCtxPopCurrent_v2);
    VB_RESOLVE(cuStreamCreate);
    VB_RESOLVE(cuStreamDestroy_v2);
    VB_RESOLVE(cuStreamSynchronize);
    VB_RESOLVE(cuMemGetInfo_v2);
    VB_RESOLVE(cuMemAlloc_v2);
    VB_RESOLVE(cuMemAllocHost_v2);
    VB_RESOLVE(cuMemFree_v2);
    VB_RESOLVE(cuMemFreeHost);
    VB_RESOLVE(cuMemcpyHtoDAsync_v2);
    VB_RESOLVE(cuMemcpyDtoHAsync_v2);
    VB_RESOLVE(cuModuleLoadData);
    VB_RESOLVE(cuModuleGetFunction);
    VB_RESOLVE(cuModuleUnload);
    VB_RESOLVE(cuLaunchKernel);
    VB_RESOLVE(cuGetErrorName);
#undef VB_RESOLVE
    return loaded;
}

std::atomic<const CudaDriver*> g_override{nullptr};

}  // namespace

const CudaDriver& GetCudaDriver() {
    if (const CudaDriver* fake = g_override.load(std::memory_order_acquire)) return *fake;
    static const LoadedDriver loaded = LoadLibcuda();
    if (!loaded.error.empty()) throw std::runtime_error(loaded.error);
    return loaded.table;
}

void OverrideCudaDriver(const CudaDriver* driver) {
    g_override.store(driver, std::memory_order_release);
}

std::string CudaErrorText(const char* source, int line, CUresult result) {
    const char* name = nullptr;
    try {
        if (GetCudaDriver().cuGetErrorName(result, &name) != CUDA_SUCCESS) name = nullptr;
    } catch (const std::exception&) {
        name = nullptr;
    }
    std::string text = "CUDA error at " + std::string(source) + ":" + std::to_string(line) + ": ";
    return text + (name != nullptr ? std::string(name) : "CUDA error " + std::to_string(result));
}

}  // namespace Common
