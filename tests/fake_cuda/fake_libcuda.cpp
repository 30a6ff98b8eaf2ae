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

#define VB_EXPORT extern "C" __attribute__((visibility("default"))) CUresult

VB_EXPORT cuInit(unsigned f) {
    return Call(&CudaDriver::cuInit, f);
}
VB_EXPORT cuDeviceGetCount(int* n) {
    return Call(&CudaDriver::cuDeviceGetCount, n);
}
VB_EXPORT cuDeviceGet(CUdevice* d, int i) {
    return Call(&CudaDriver::cuDeviceGet, d, i);
}
VB_EXPORT cuDeviceGetAttribute(int* v, int a, CUdevice d) {
    return Call(&CudaDriver::cuDeviceGetAttribute, v, a, d);
}
VB_EXPORT cuCtxCreate_v2(CUcontext* c, unsigned f, CUdevice d) {
    return Call(&CudaDriver::cuCtxCreate_v2, c, f, d);
}
VB_EXPORT cuCtxDestroy_v2(CUcontext c) {
    return Call(&CudaDriver::cuCtxDestroy_v2, c);
}
VB_EXPORT cuCtxPushCurrent_v2(CUcontext c) {
    return Call(&CudaDriver::cuCtxPushCurrent_v2, c);
}
VB_EXPORT cuCtxPopCurrent_v2(CUcontext* c) {
    return Call(&CudaDriver::cuCtxPopCurrent_v2, c);
}
VB_EXPORT cuStreamCreate(CUstream* s, unsigned f) {
    return Call(&CudaDriver::cuStreamCreate, s, f);
}
VB_EXPORT cuStreamDestroy_v2(CUstream s) {
    return Call(&CudaDriver::cuStreamDestroy_v2, s);
}
VB_EXPORT cuStreamSynchronize(CUstream s) {
    return Call(&CudaDriver::cuStreamSynchronize, s);
}
VB_EXPORT cuStreamWaitEvent(CUstream s, CUevent e, unsigned f) {
    return Call(&CudaDriver::cuStreamWaitEvent, s, e, f);
}
VB_EXPORT cuEventCreate(CUevent* e, unsigned f) {
    return Call(&CudaDriver::cuEventCreate, e, f);
}
VB_EXPORT cuEventRecord(CUevent e, CUstream s) {
    return Call(&CudaDriver::cuEventRecord, e, s);
}
VB_EXPORT cuEventQuery(CUevent e) {
    return Call(&CudaDriver::cuEventQuery, e);
}
VB_EXPORT cuEventDestroy_v2(CUevent e) {
    return Call(&CudaDriver::cuEventDestroy_v2, e);
}
VB_EXPORT cuMemGetInfo_v2(size_t* f, size_t* t) {
    return Call(&CudaDriver::cuMemGetInfo_v2, f, t);
}
VB_EXPORT cuMemAlloc_v2(CUdeviceptr* p, size_t b) {
    return Call(&CudaDriver::cuMemAlloc_v2, p, b);
}
VB_EXPORT cuMemAllocHost_v2(void** p, size_t b) {
    return Call(&CudaDriver::cuMemAllocHost_v2, p, b);
}
VB_EXPORT cuMemAllocManaged(CUdeviceptr* p, size_t b, unsigned f) {
    return Call(&CudaDriver::cuMemAllocManaged, p, b, f);
}
VB_EXPORT cuMemFree_v2(CUdeviceptr p) {
    return Call(&CudaDriver::cuMemFree_v2, p);
}
VB_EXPORT cuMemFreeHost(void* p) {
    return Call(&CudaDriver::cuMemFreeHost, p);
}
VB_EXPORT cuMemcpyHtoDAsync_v2(CUdeviceptr d, const void* s, size_t b, CUstream st) {
    return Call(&CudaDriver::cuMemcpyHtoDAsync_v2, d, s, b, st);
}
VB_EXPORT cuMemcpyDtoHAsync_v2(void* d, CUdeviceptr s, size_t b, CUstream st) {
    return Call(&CudaDriver::cuMemcpyDtoHAsync_v2, d, s, b, st);
}
VB_EXPORT cuModuleLoadData(CUmodule* m, const void* image) {
    return Call(&CudaDriver::cuModuleLoadData, m, image);
}
VB_EXPORT cuModuleGetFunction(CUfunction* f, CUmodule m, const char* name) {
    return Call(&CudaDriver::cuModuleGetFunction, f, m, name);
}
VB_EXPORT cuModuleUnload(CUmodule m) {
    return Call(&CudaDriver::cuModuleUnload, m);
}
VB_EXPORT cuLaunchKernel(CUfunction f, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by, unsigned bz,
                         unsigned shared, CUstream s, void** parameters, void** extra) {
    return Call(&CudaDriver::cuLaunchKernel, f, gx, gy, gz, bx, by, bz, shared, s, parameters, extra);
}
VB_EXPORT cuGetErrorName(CUresult r, const char** name) {
    return Call(&CudaDriver::cuGetErrorName, r, name);
}
