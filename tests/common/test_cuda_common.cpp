// Device strings, the buffer pool and kernel loading of Common::CUDADevice.
// Everything but the no-driver checks runs against the fake driver, so no GPU
// is needed.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <functional>

#include "common/cuda_common.h"
#include "common/kernel_images.h"
#include "tests/common/fake_cuda_driver.h"
#include "tests/support/error_of.h"

namespace {

using Common::CUDADevice;
using Common::CUDADeviceRequest;

using TestSupport::ErrorOf;

bool HaveRealDriver() {
    void* library = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL);
    if (library != nullptr) dlclose(library);
    return library != nullptr;
}

TEST(CudaDeviceString, AcceptedForms) {
    struct Case {
        std::string text;
        std::vector<int> devices;
        float percent;
        uint64_t bytes;
    };
    const std::vector<Case> cases = {
        {"auto", {CUDADevice::kAutoDevice}, 0, 0},
        {"cuda:0", {0}, 0, 0},
        {"cuda:0,1", {0, 1}, 0, 0},
        {"cuda:12,3,7", {12, 3, 7}, 0, 0},
        {"cuda:0:50%", {0}, 50, 0},
        {"cuda:0:2g", {0}, 0, 2147483648ull},
        {"cuda:1,2:512m", {1, 2}, 0, 536870912ull},
        {"cuda:0:1.5g", {0}, 0, 1610612736ull},
        {"cuda:3:1000", {3}, 0, 1000},
    };
    for (const auto& c : cases) {
        const auto requests = CUDADevice::ParseDeviceString(c.text);
        ASSERT_EQ(requests.size(), c.devices.size()) << c.text;
        for (size_t k = 0; k < requests.size(); ++k) {
            EXPECT_EQ(requests[k].device, c.devices[k]) << c.text;
            EXPECT_FLOAT_EQ(requests[k].memory_percent, c.percent) << c.text;
            EXPECT_EQ(requests[k].memory_bytes, c.bytes) << c.text;
        }
    }
}

TEST(CudaDeviceString, MalformedFormsNameTheWholeString) {
    for (const std::string text :
         {"",          "autox",      "cuda",       "Auto",     "gpu:0",    "cuda:",   "cuda:x",
          "cuda:0,",   "cuda:,1",    "cuda:0,,1",  "cuda: 0",  "cuda:-1",  "cuda:0:", "cuda:0:-1",
          "cuda:0:5k", "cuda:0:5%%", "cuda:0:2gb", "cuda:0:x", "cuda:0;1", "cuda:al", "cudax0"}) {
        EXPECT_EQ(ErrorOf([&] { CUDADevice::ParseDeviceString(text); }), "Malformed device string: " + text) << text;
    }
}

TEST(CudaDeviceString, AllCountsTheDevices) {
    FakeCuda::FakeCudaDriver fake;
    fake.state().free_memory.assign(3, size_t{1} << 30);
    auto requests = CUDADevice::ParseDeviceString("cuda:all");
    ASSERT_EQ(requests.size(), 3u);
    for (int k = 0; k < 3; ++k)
        EXPECT_EQ(requests[static_cast<size_t>(k)].device, k);
    requests = CUDADevice::ParseDeviceString("cuda:all:25%");
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_FLOAT_EQ(requests[2].memory_percent, 25);
}

TEST(CudaDriverMissing, ErrorsSayNoDriverWasFound) {
    if (HaveRealDriver()) GTEST_SKIP() << "a CUDA driver is installed here";
    const std::string expected =
        "No CUDA driver found (libcuda.so.1 could not be loaded): --device needs an NVIDIA GPU and driver.";
    EXPECT_EQ(ErrorOf([] { CUDADevice::ParseDeviceString("cuda:all"); }), expected);
    EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({0, 0, 0}); }), expected);
    EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0}); }), expected);
    // Parsing itself never needs the driver.
    EXPECT_EQ(CUDADevice::ParseDeviceString("cuda:0,1").size(), 2u);
}

TEST(CudaDevice, SharedPerIndexAndReleasedWithTheLastUser) {
    FakeCuda::FakeCudaDriver fake;
    fake.state().free_memory = {size_t{1} << 30, size_t{3} << 30, size_t{2} << 30};
    {
        auto first = CUDADevice::Acquire({0, 0, 0});
        auto again = CUDADevice::Acquire({0, 0, 0});
        EXPECT_EQ(first.get(), again.get());
        // "auto" settles on the device with the most free memory, and stays there.
        auto automatic = CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0});
        EXPECT_EQ(automatic->Index(), 1);
        fake.state().free_memory = {size_t{5} << 30, size_t{1} << 30, size_t{1} << 30};
        EXPECT_EQ(CUDADevice::Acquire({CUDADevice::kAutoDevice, 0, 0}).get(), automatic.get());
        EXPECT_EQ(fake.state().live_contexts, 2);
        EXPECT_TRUE(fake.state().device_blocks.empty());
    }
    EXPECT_EQ(fake.state().live_contexts, 0);
    EXPECT_EQ(ErrorOf([] { CUDADevice::Acquire({7, 0, 0}); }), "CUDA device 7 requested, but 3 device(s) found.");

    fake.state().context_create_result = FakeCuda::kOutOfMemory;
    const std::string failure = ErrorOf([] { CUDADevice::Acquire({0, 0, 0}); });
    EXPECT_TRUE(FakeCuda::MatchesWithLine(failure, "CUDA error at common/cuda_common:", ": CUDA_ERROR_OUT_OF_MEMORY"))
        << failure;
}

TEST(CudaDevice, BufferPool) {
    FakeCuda::FakeCudaDriver fake;
    {
        auto device = CUDADevice::Acquire({0, 0, 1000});
        EXPECT_EQ(device->MemoryLimit(), 1000u);
        Common::CUstream stream = device->CreateStream();
        const auto a = device->ReserveBuffer(400, stream);
        const auto b = device->ReserveBuffer(100, stream);
        EXPECT_NE(a, b);
        device->ReleaseBufferAsync(a, stream);
        device->ReleaseBufferAsync(b, stream);
        // Best fit among the released buffers, no new allocation.
        EXPECT_EQ(device->ReserveBuffer(90, stream), b);
        EXPECT_EQ(device->ReserveBuffer(90, stream), a);
        EXPECT_EQ(fake.state().device_blocks.size(), 2u);
        EXPECT_EQ(ErrorOf([&] { device->ReserveBuffer(600, stream); }),
                  "Could not allocate shared buffer for CUDA basecaller.");
        const auto c = device->ReserveBuffer(500, stream);
        EXPECT_EQ(ErrorOf([&] { device->ReleaseBufferAsync(c + 8, stream); }),
                  "ReleaseBufferAsync: unknown buffer address.");
        device->ReleaseBufferAsync(c, stream);
        EXPECT_EQ(ErrorOf([&] { device->ReleaseBufferAsync(c, stream); }), "ReleaseBufferAsync: Buffer not reserved.");
        Common::GetCudaDriver().cuStreamDestroy_v2(stream);
    }
    EXPECT_TRUE(fake.state().device_blocks.empty());
    EXPECT_EQ(fake.state().live_events, 0);
    {
        fake.state().fail_allocation_after = 0;
        auto device = CUDADevice::Acquire({0, 50, 0});
        EXPECT_EQ(device->MemoryLimit(), fake.state().total_memory / 2);
        EXPECT_EQ(ErrorOf([&] { device->ReserveBuffer(16, nullptr); }),
                  "Could not allocate shared buffer for CUDA basecaller.");
    }
}

TEST(CudaDevice, KernelLoading) {
    FakeCuda::FakeCudaDriver fake;
    fake.state().kernels["Align"] = [](const unsigned*, const unsigned*, void**) {};
    auto device = CUDADevice::Acquire({0, 0, 0});
    EXPECT_EQ(ErrorOf([&] { device->LoadKernels("nosuch.fatbin", {"Align"}); }),
              "Failed to load nosuch.fatbin (not embedded in this build) from fatbin");
    EXPECT_EQ(ErrorOf([&] { device->CompileKernels("", {"Align"}, {"-DBUF_TYPE_HALF"}); }),
              "CUDA runtime compilation not supported in this build.");
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr) return;  // built without nvcc

    EXPECT_EQ(device->LoadKernels("fastalign.fatbin", {"Align"}).size(), 1u);
    EXPECT_EQ(device->LoadKernels("fastalign.fatbin", {"Align", "Align"}).size(), 2u);
    EXPECT_EQ(fake.state().live_modules, 1);  // loaded once per device
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
