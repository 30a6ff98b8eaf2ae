// The "fastalign" kernel image: nvcc compiles this file into a fat binary that
// the build embeds in the executable (see cmake/cuda.cmake).
#include "pair_alignment/cuda/kernels.h"
