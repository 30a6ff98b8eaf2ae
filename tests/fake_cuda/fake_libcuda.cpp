// A test-only libcuda.so.1: the fake driver of tests/common/fake_cuda_driver.h
// with the fastalign kernels emulated on the CPU, exported under the driver's
// own entry-point names. Put on LD_LIBRARY_PATH, it lets the unmodified
// program run its whole --device path on a machine without a GPU; the
// end-to-end check compares that run with a CPU run. Calls are serialised,
// since the fake's bookkeeping is not thread-safe.

#include <mutex>

#include "tests/pair_alignment/emulated_fastalign_kernels.h"

using namespace Common;

namespace {

std::recursive_mutex g_mutex;

const CudaDriver& Fake() {
    static const bool ready = [] {
        auto& state = FakeCuda::Get();
        state.free_memory = {size_t{4} << 30, size_t{8} << 30};  // "auto" picks device 1
        state.total_memory = size_t{16} << 30;
        FakeCuda::RegisterEmulatedFastAlign(state);
        return true;
    }();
    (void)ready;
    return FakeCuda::Table();
}

// Runs one fake entry point under the lock.
template <typename Entry, typename... Args>
CUresult Call(Entry CudaDriver::*entry, Args... args) {
    std::lock_guard<std::recursive_mutex> lock(g_mutex);
    return (Fake().*entry)(args...);
}

}  // namespace

// Each entry point forwards its arguments to the fake under the lock.
#define VB_FORWARD(name, signature, ...)                                        \
    extern "C" __attribute__((visibility("default"))) CUresult name signature { \
        return Call(&CudaDriver::name, __VA_ARGS__);                            \
    }

VB_FORWARD(cuInit, (unsigned f), f)
VB_FORWARD(cuDeviceGetCount, (int* n), n)
VB_FORWARD(cuDeviceGet, (CUdevice * d, int i), d, i)
VB_FORWARD(cuDeviceGetAttribute, (int* v, int a, CUdevice d), v, a, d)
VB_FORWARD(cuCtxCreate_v2, (CUcontext * c, unsigned f, CUdevice d), c, f, d)
VB_FORWARD(cuCtxDestroy_v2, (CUcontext c), c)
VB_FORWARD(cuCtxPushCurrent_v2, (CUcontext c), c)
VB_FORWARD(cuCtxPopCurrent_v2, (CUcontext * c), c)
VB_FORWARD(cuStreamCreate, (CUstream * s, unsigned f), s, f)
VB_FORWARD(cuStreamDestroy_v2, (CUstream s), s)
VB_FORWARD(cuStreamSynchronize, (CUstream s), s)
VB_FORWARD(cuMemGetInfo_v2, (size_t * f, size_t* t), f, t)
VB_FORWARD(cuMemAlloc_v2, (CUdeviceptr * p, size_t b), p, b)
VB_FORWARD(cuMemAllocHost_v2, (void** p, size_t b), p, b)
VB_FORWARD(cuMemFree_v2, (CUdeviceptr p), p)
VB_FORWARD(cuMemFreeHost, (void* p), p)
VB_FORWARD(cuMemcpyHtoDAsync_v2, (CUdeviceptr d, const void* s, size_t b, CUstream st), d, s, b, st)
VB_FORWARD(cuMemcpyDtoHAsync_v2, (void* d, CUdeviceptr s, size_t b, CUstream st), d, s, b, st)
VB_FORWARD(cuModuleLoadData, (CUmodule * m, const void* image), m, image)
VB_FORWARD(cuModuleGetFunction, (CUfunction * f, CUmodule m, const char* name), f, m, name)
VB_FORWARD(cuModuleUnload, (CUmodule m), m)
VB_FORWARD(cuLaunchKernel,
           (CUfunction f, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by, unsigned bz, unsigned shared,
            CUstream s, void** parameters, void** extra),
           f, gx, gy, gz, bx, by, bz, shared, s, parameters, extra)
VB_FORWARD(cuGetErrorName, (CUresult r, const char** name), r, name)
