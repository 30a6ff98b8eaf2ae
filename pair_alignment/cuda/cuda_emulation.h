#pragma once
// Lets host code compile and run kernel entry points written for nvcc: the
// CUDA qualifiers expand to nothing and the thread/block indices become
// thread-local variables that Launch() sets before calling the kernel once per
// emulated thread. Only valid for kernels whose threads never synchronise or
// share memory, which holds for every kernel run this way.

#ifndef __CUDACC__

#define __global__
#define __device__
#define __host__
#define __forceinline__ inline

namespace CudaEmulation {

struct Dim3 {
    unsigned x = 1, y = 1, z = 1;
};

}  // namespace CudaEmulation

inline thread_local CudaEmulation::Dim3 threadIdx{0, 0, 0};
inline thread_local CudaEmulation::Dim3 blockIdx{0, 0, 0};
inline thread_local CudaEmulation::Dim3 blockDim;
inline thread_local CudaEmulation::Dim3 gridDim;

namespace CudaEmulation {

// Runs kernel() once per thread of the grid, in index order.
template <typename Kernel>
void Launch(Dim3 grid, Dim3 block, Kernel&& kernel) {
    gridDim = grid;
    blockDim = block;
    for (blockIdx.z = 0; blockIdx.z < grid.z; ++blockIdx.z)
        for (blockIdx.y = 0; blockIdx.y < grid.y; ++blockIdx.y)
            for (blockIdx.x = 0; blockIdx.x < grid.x; ++blockIdx.x)
                for (threadIdx.z = 0; threadIdx.z < block.z; ++threadIdx.z)
                    for (threadIdx.y = 0; threadIdx.y < block.y; ++threadIdx.y)
                        for (threadIdx.x = 0; threadIdx.x < block.x; ++threadIdx.x)
                            kernel();
}

}  // namespace CudaEmulation

#endif  // __CUDACC__
