#pragma once
// The slice of the CUDA driver interface this program uses, declared here and
// resolved at run time from libcuda.so.1. Nothing links against CUDA, so the
// same binary starts on machines without a GPU or driver; the library is only
// opened when a device is actually asked for.

#include <cstddef>
#include <stdexcept>
#include <string>

namespace Common {

using CUresult = int;
using CUdevice = int;
using CUdeviceptr = unsigned long long;
using CUcontext = struct CUctx_st*;
using CUstream = struct CUstream_st*;
using CUmodule = struct CUmod_st*;
using CUfunction = struct CUfunc_st*;

constexpr CUresult CUDA_SUCCESS = 0;
constexpr int CU_DEVICE_ATTRIBUTE_MULTIPROCESSOR_COUNT = 16;
constexpr unsigned CU_CTX_SCHED_BLOCKING_SYNC = 0x04;
constexpr int CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR = 75;
constexpr int CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR = 76;
constexpr unsigned CU_STREAM_NON_BLOCKING = 1;

// Entry points, named after the exported symbols they are resolved from.
struct CudaDriver {
    CUresult (*cuInit)(unsigned flags);
    CUresult (*cuDeviceGetCount)(int* count);
    CUresult (*cuDeviceGet)(CUdevice* device, int ordinal);
    CUresult (*cuDeviceGetAttribute)(int* value, int attribute, CUdevice device);
    CUresult (*cuCtxCreate_v2)(CUcontext* context, unsigned flags, CUdevice device);
    CUresult (*cuCtxDestroy_v2)(CUcontext context);
    CUresult (*cuCtxPushCurrent_v2)(CUcontext context);
    CUresult (*cuCtxPopCurrent_v2)(CUcontext* context);
    CUresult (*cuStreamCreate)(CUstream* stream, unsigned flags);
    CUresult (*cuStreamDestroy_v2)(CUstream stream);
    CUresult (*cuStreamSynchronize)(CUstream stream);
    CUresult (*cuMemGetInfo_v2)(size_t* free, size_t* total);
    CUresult (*cuMemAlloc_v2)(CUdeviceptr* pointer, size_t bytes);
    CUresult (*cuMemAllocHost_v2)(void** pointer, size_t bytes);
    CUresult (*cuMemFree_v2)(CUdeviceptr pointer);
    CUresult (*cuMemFreeHost)(void* pointer);
    CUresult (*cuMemcpyHtoDAsync_v2)(CUdeviceptr destination, const void* source, size_t bytes, CUstream stream);
    CUresult (*cuMemcpyDtoHAsync_v2)(void* destination, CUdeviceptr source, size_t bytes, CUstream stream);
    CUresult (*cuModuleLoadData)(CUmodule* module, const void* image);
    CUresult (*cuModuleGetFunction)(CUfunction* function, CUmodule module, const char* name);
    CUresult (*cuModuleUnload)(CUmodule module);
    CUresult (*cuLaunchKernel)(CUfunction function, unsigned grid_x, unsigned grid_y, unsigned grid_z, unsigned block_x,
                               unsigned block_y, unsigned block_z, unsigned shared_bytes, CUstream stream,
                               void** parameters, void** extra);
    CUresult (*cuGetErrorName)(CUresult error, const char** name);
};

// The process's driver, loaded on first use (thread-safe). Throws
// std::runtime_error when libcuda.so.1 cannot be loaded or lacks an entry point.
const CudaDriver& GetCudaDriver();

// Replaces the driver for the rest of the process (tests drive the GPU code
// against a fake); nullptr returns to libcuda.so.1. Not for concurrent use.
void OverrideCudaDriver(const CudaDriver* driver);

// "CUDA error at " + source + ":" + line + ": " + the driver's name of result.
std::string CudaErrorText(const char* source, int line, CUresult result);

// Throws std::runtime_error(CudaErrorText(...)) unless result is CUDA_SUCCESS.
inline void CheckCuda(CUresult result, const char* source, int line) {
    if (result != CUDA_SUCCESS) throw std::runtime_error(CudaErrorText(source, line, result));
}

}  // namespace Common
