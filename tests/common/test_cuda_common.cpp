// Device strings, devices and kernel loading of Common::CUDADevice, against
// the stand-in driver.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>

#include "common/cuda_common.h"
#include "common/kernel_images.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/support/error_of.h"

namespace {

using Common::CUDADevice;
using TestSupport::ErrorOf;

// "device/percent/bytes" per request.
std::string Parsed(const std::string& text) {
    std::ostringstream out;
    for (const auto& r : CUDADevice::ParseDeviceString(text))
        out << r.device << "/" << r.memory_percent << "/" << r.memory_bytes << " ";
    return out.str();
}

// Only "cuda:all" asks the driver; without one, it and Acquire say so.
TEST(CudaDeviceString, AcceptedAndMalformedForms) {
    if (void* driver = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL)) {
        dlclose(driver);
    } else {
        const std::string none =
            "No CUDA driver found (libcuda.so.1 could not be loaded): --device needs an NVIDIA GPU and driver.";
        EXPECT_EQ(ErrorOf([] { CUDADevice::ParseDeviceString("cuda:all"); }), none);
        EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({0, 0, 0}); }), none);
        EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0}); }), none);
        EXPECT_EQ(Parsed("cuda:0,1"), "0/0/0 1/0/0 ");
    }
    FakeCuda::FakeCudaDriver fake;
    fake.state().free_memory.assign(3, size_t{1} << 30);
    const std::pair<std::string, std::string> accepted[] = {
        {"auto", std::to_string(CUDADevice::kAutoDevice) + "/0/0 "},
        {"cuda:0", "0/0/0 "},
        {"cuda:12,3,7", "12/0/0 3/0/0 7/0/0 "},
        {"cuda:0:50%", "0/50/0 "},
        {"cuda:0:2g", "0/0/2147483648 "},
        {"cuda:1,2:512m", "1/0/536870912 2/0/536870912 "},
        {"cuda:0:1.5g", "0/0/1610612736 "},
        {"cuda:3:1000", "3/0/1000 "},
        {"cuda:all", "0/0/0 1/0/0 2/0/0 "},
        {"cuda:all:25%", "0/25/0 1/25/0 2/25/0 "},
    };
    for (const auto& [text, requests] : accepted)
        EXPECT_EQ(Parsed(text), requests) << text;
    for (const std::string text :
         {"",          "autox",      "cuda",       "Auto",     "gpu:0",    "cuda:",   "cuda:x",
          "cuda:0,",   "cuda:,1",    "cuda:0,,1",  "cuda: 0",  "cuda:-1",  "cuda:0:", "cuda:0:-1",
          "cuda:0:5k", "cuda:0:5%%", "cuda:0:2gb", "cuda:0:x", "cuda:0;1", "cuda:al", "cudax0"})
        EXPECT_EQ(ErrorOf([&] { CUDADevice::ParseDeviceString(text); }), "Malformed device string: " + text);
}

// Devices shared per index and released with their last user, "auto" on the
// one with the most free memory for good; each kernel image loaded once per
// device and unloaded with it; failures named.
TEST(CudaDevice, SharedDevicesAndTheirKernels) {
    FakeCuda::FakeCudaDriver fake;
    fake.state().free_memory = {size_t{1} << 30, size_t{3} << 30, size_t{2} << 30};
    fake.state().kernels["Align"] = [](const unsigned*, const unsigned*, void**) {};
    {
        auto first = CUDADevice::Acquire({0, 0, 0});
        EXPECT_EQ(CUDADevice::Acquire({0, 0, 0}).get(), first.get());
        auto automatic = CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0});
        EXPECT_EQ(automatic->Index(), 1);
        fake.state().free_memory = {size_t{5} << 30, size_t{1} << 30, size_t{1} << 30};
        EXPECT_EQ(CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0}).get(), automatic.get());
        EXPECT_EQ(fake.state().live_contexts, 2);
    }
    EXPECT_EQ(fake.state().live_contexts, 0);
    EXPECT_EQ(CUDADevice::Acquire({0, 50, 0})->MemoryLimit(), fake.state().total_memory / 2);
    EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({7, 0, 0}); }), "CUDA device 7 requested, but 3 device(s) found.");
    fake.state().context_create_result = FakeCuda::kOutOfMemory;
    const std::string failure = ErrorOf([] { CUDADevice::Acquire({0, 0, 0}); });
    EXPECT_TRUE(FakeCuda::MatchesWithLine(failure, "CUDA error at common/cuda_common:", ": CUDA_ERROR_OUT_OF_MEMORY"))
        << failure;
    fake.state().context_create_result = Common::CUDA_SUCCESS;
    auto device = CUDADevice::Acquire({0, 0, 0});
    EXPECT_EQ(ErrorOf([&] { device->LoadKernels("nosuch.fatbin", {"Align"}); }),
              "Failed to load nosuch.fatbin (not embedded in this build) from fatbin");
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr) return;  // built without nvcc
    EXPECT_EQ(device->LoadKernels("fastalign.fatbin", {"Align"}).size(), 1u);
    EXPECT_EQ(device->LoadKernels("fastalign.fatbin", {"Align", "Align"}).size(), 2u);
    EXPECT_EQ(fake.state().live_modules, 1);
    EXPECT_EQ(ErrorOf([&] { device->LoadKernels("fastalign.fatbin", {"SeqToInts"}); }),
              "Failed to create CUDA kernel for SeqToInts");
    device.reset();
    EXPECT_EQ(fake.state().live_modules, 0);
    fake.state().module_load_result = FakeCuda::kNoBinaryForGpu;
    device = CUDADevice::Acquire({0, 0, 0});
    EXPECT_EQ(ErrorOf([&] { device->LoadKernels("fastalign.fatbin", {"Align"}); }),
              "Failed to load fastalign.fatbin (CUDA_ERROR_NO_BINARY_FOR_GPU) from fatbin");
}

}  // namespace
