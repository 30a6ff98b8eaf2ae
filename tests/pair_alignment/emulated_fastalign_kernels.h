#pragma once
// Registers the fastalign kernels with the fake CUDA driver as emulated
// launches: the entry points nvcc compiles into the image, run on the CPU with
// each GPU thread one loop iteration.

#include <cstdint>

#include "pair_alignment/cuda/kernels.h"
#include "tests/common/fake_cuda_driver.h"

namespace FakeCuda {

template <typename T>
T Arg(void** parameters, int k) {
    return *static_cast<T*>(parameters[k]);
}

// A device-pointer parameter; the fake's device memory is host memory.
template <typename T>
T* DeviceArg(void** parameters, int k) {
    return reinterpret_cast<T*>(static_cast<uintptr_t>(Arg<CUdeviceptr>(parameters, k)));
}

inline CudaEmulation::Dim3 Dim(const unsigned* d) {
    return {d[0], d[1], d[2]};
}

inline void RegisterEmulatedFastAlign(State& state) {
    state.kernels["SeqToInts"] = [](const unsigned* grid, const unsigned* block, void** p) {
        CudaEmulation::Launch(Dim(grid), Dim(block), [&] {
            FastAlignKernels::SeqToInts(DeviceArg<const char>(p, 0), DeviceArg<int>(p, 1), Arg<int>(p, 2),
                                        DeviceArg<const int>(p, 3));
        });
    };
    state.kernels["Align"] = [](const unsigned* grid, const unsigned* block, void** p) {
        CudaEmulation::Launch(Dim(grid), Dim(block), [&] {
            FastAlignKernels::Align(DeviceArg<const int>(p, 0), DeviceArg<const int>(p, 1), DeviceArg<const int>(p, 2),
                                    DeviceArg<const int>(p, 3), DeviceArg<const int>(p, 4), DeviceArg<const int>(p, 5),
                                    DeviceArg<const int>(p, 6), DeviceArg<int>(p, 7), DeviceArg<int>(p, 8),
                                    DeviceArg<int>(p, 9), DeviceArg<int>(p, 10), DeviceArg<int>(p, 11),
                                    DeviceArg<int>(p, 12), DeviceArg<unsigned char>(p, 13), DeviceArg<int>(p, 14),
                                    DeviceArg<int>(p, 15), DeviceArg<int>(p, 16), Arg<int>(p, 17), Arg<int>(p, 18));
        });
    };
    state.kernels["ScoreBatch"] = [](const unsigned* grid, const unsigned* block, void** p) {
        CudaEmulation::Launch(Dim(grid), Dim(block), [&] {
            FastAlignKernels::ScoreBatch(DeviceArg<const int>(p, 0), DeviceArg<const int>(p, 1),
                                         DeviceArg<const int>(p, 2), DeviceArg<const unsigned char>(p, 3),
                                         DeviceArg<const int>(p, 4), DeviceArg<const unsigned char>(p, 5),
                                         DeviceArg<const int>(p, 6), DeviceArg<int>(p, 7));
        });
    };
}

}  // namespace FakeCuda
