#pragma once
// Kernel images carried inside the executable. They are compiled by nvcc when
// the program is built and embedded as byte arrays, so nothing is read from
// disk at run time. A build made without nvcc carries none.

#include <cstddef>
#include <string>

namespace Common {

struct KernelImage {
    const unsigned char* data;
    size_t size;
};

// The image with this file name (e.g. "fastalign.fatbin"), or nullptr when this
// build does not carry it.
const KernelImage* FindKernelImage(const std::string& name);

}  // namespace Common
