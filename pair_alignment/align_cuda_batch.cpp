#include "pair_alignment/align_cuda_batch.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "common/cuda_common.h"
#include "common/kernel_images.h"
#include "common/logger.h"
#include "pair_alignment/cuda/align_thread.h"
#include "pair_alignment/device_array.h"
#include "pair_alignment/score_matrix.h"

#define VB_CHECK(call) ::Common::CheckCuda((call), "pair_alignment/align_cuda_batch", __LINE__)

namespace PairAlignment {
namespace {

const Common::Logger& Log() {
    static const Common::Logger logger("fast_align_gpu");
    return logger;
}

// One of the two launch slots: its stream, its inputs and scores, and which
// windows its launch in flight holds (count 0: none).
struct Slot {
    Common::CUstream stream = nullptr;
    DeviceArray config, windows, offsets, scores;
    size_t first = 0, count = 0;
};

}  // namespace

struct FastAlignGpuBatch::Buffers {
    DeviceArray matrix, gaps, references, lengths;
    Slot slots[2];
    size_t total_bytes = 0;

    template <typename F>
    void ForEachArray(F&& f) {
        for (DeviceArray* a : {&matrix, &gaps, &references, &lengths})
            f(*a);
        for (Slot& s : slots)
            for (DeviceArray* a : {&s.config, &s.windows, &s.offsets, &s.scores})
                f(*a);
    }
};

bool FastAlignGpuBatch::Fits(int band_width, size_t max_reference_length, size_t max_window_length) {
    const size_t longest = std::max(max_reference_length, max_window_length);
    if (longest > 100000) return false;
    const int odd_band = band_width % 2 == 0 ? band_width + 1 : band_width;
    int widest = 1;
    for (int m = 1; m <= static_cast<int>(longest); ++m)
        widest = std::max(widest, FastAlignKernels::BandRowWidth(m, odd_band));
    return band_width >= 0 && widest <= FastAlignKernels::maxBatchRowWidth;
}

FastAlignGpuBatch::FastAlignGpuBatch(const brim::data_wrappers::MatView<int>& matrix, const std::vector<int>& gaps,
                                     int band_width, const std::vector<std::vector<int>>& references,
                                     const std::string& device, size_t max_window_length, size_t windows_per_launch)
    : reference_count_(references.size()),
      max_window_length_(max_window_length),
      windows_per_launch_(std::max<size_t>(windows_per_launch, 1)) {
    if (matrix.rows() != 4 || matrix.cols() != 4)
        throw std::runtime_error("FastAlignGPU only supports a 4 x 4 mismatch matrix!");
    size_t stride = 1;
    for (const auto& reference : references) {
        stride = std::max(stride, reference.size());
        if (std::any_of(reference.begin(), reference.end(), [](int code) { return code < 0 || code > 3; }))
            throw std::runtime_error("FastAlignGPU base codes must be 0 to 3.");
    }
    if (!Fits(band_width, stride, max_window_length))
        throw std::runtime_error("FastAlignGPU: windows of " + std::to_string(max_window_length) +
                                 " bases with band width " + std::to_string(band_width) +
                                 " are too wide for the batch kernel.");
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr)
        throw std::runtime_error(
            "This build of vorpa_barcoder has no GPU support (it was built without nvcc): run without --device.");
    device_ = Common::CUDADevice::Acquire(Common::CUDADevice::ParseDeviceString(device).front());
    kernel_ = device_->LoadKernels("fastalign.fatbin", {"ScoreBatch"})[0];

    buffers_ = std::make_unique<Buffers>();
    Buffers& b = *buffers_;
    const size_t count = std::max<size_t>(reference_count_, 1);
    const size_t windows = windows_per_launch_;
    b.matrix.bytes = 16 * sizeof(int);
    b.gaps.bytes = 6 * sizeof(int);
    b.references.bytes = count * stride;
    b.lengths.bytes = count * sizeof(int);
    for (Slot& s : b.slots) {
        s.config.bytes = 4 * sizeof(int);
        s.windows.bytes = std::max<size_t>(windows * max_window_length, 1);
        s.offsets.bytes = (windows + 1) * sizeof(int);
        s.scores.bytes = windows * count * sizeof(int);
    }
    b.ForEachArray([&](DeviceArray& a) { b.total_bytes += a.bytes; });
    // Charged before anything is allocated, so that a limit refuses it whole.
    device_->ChargeMemory(static_cast<int64_t>(b.total_bytes));
    const Common::CudaDriver& driver = Common::GetCudaDriver();
    try {
        Common::CUDADevice::ScopedContext current(*device_);
        b.ForEachArray([&](DeviceArray& a) {
            VB_CHECK(driver.cuMemAlloc_v2(&a.device, a.bytes));
            VB_CHECK(driver.cuMemAllocHost_v2(&a.host, a.bytes));
        });
        for (Slot& s : b.slots)
            s.stream = device_->CreateStream();

        for (size_t r = 0; r < 4; ++r)
            for (size_t c = 0; c < 4; ++c)
                b.matrix.Host<int>()[4 * r + c] = matrix(r, c);
        const std::vector<int> costs = ConvertGapVector(gaps);
        std::copy(costs.begin(), costs.begin() + 6, b.gaps.Host<int>());
        for (size_t k = 0; k < references.size(); ++k) {
            std::copy(references[k].begin(), references[k].end(), b.references.Host<unsigned char>() + k * stride);
            b.lengths.Host<int>()[k] = static_cast<int>(references[k].size());
        }
        for (Slot& s : b.slots) {
            s.config.Host<int>()[0] = band_width % 2 == 0 ? band_width + 1 : band_width;
            s.config.Host<int>()[1] = static_cast<int>(stride);
            s.config.Host<int>()[2] = static_cast<int>(reference_count_);
        }
        Common::CUstream stream = b.slots[0].stream;
        for (DeviceArray* a : {&b.matrix, &b.gaps, &b.references, &b.lengths})
            VB_CHECK(driver.cuMemcpyHtoDAsync_v2(a->device, a->host, a->bytes, stream));
        VB_CHECK(driver.cuStreamSynchronize(stream));
    } catch (...) {
        Release();
        throw;
    }
    VB_LOG(Log(), Common::Severity::info) << "Total GPU memory allocated by FastAlignGPU is: " << b.total_bytes;
}

FastAlignGpuBatch::~FastAlignGpuBatch() {
    Release();
}

// Frees whatever was allocated; failures go to the log, never out of here.
void FastAlignGpuBatch::Release() noexcept {
    if (!device_ || !buffers_) return;
    try {
        const Common::CudaDriver& driver = Common::GetCudaDriver();
        auto report = [](Common::CUresult result, int line) {
            if (result != Common::CUDA_SUCCESS)
                VB_LOG(Log(), Common::Severity::error)
                    << Common::CudaErrorText("pair_alignment/align_cuda_batch", line, result);
        };
        Common::CUDADevice::ScopedContext current(*device_);
        for (Slot& s : buffers_->slots)
            if (s.stream != nullptr) report(driver.cuStreamSynchronize(s.stream), __LINE__);
        buffers_->ForEachArray([&](DeviceArray& a) {
            FreeDeviceArray(driver, a, [&](Common::CUresult result) { report(result, __LINE__); });
        });
        for (Slot& s : buffers_->slots) {
            if (s.stream != nullptr) report(driver.cuStreamDestroy_v2(s.stream), __LINE__);
            s.stream = nullptr;
        }
        device_->ChargeMemory(-static_cast<int64_t>(buffers_->total_bytes));
        buffers_->total_bytes = 0;
    } catch (const std::exception& e) {
        VB_LOG(Log(), Common::Severity::error) << "FastAlignGPU clean-up failed: " << e.what();
    }
    buffers_.reset();
}

void FastAlignGpuBatch::ScoreWindows(const std::vector<std::vector<int>>& windows, std::vector<int>& scores) {
    for (const auto& window : windows) {
        if (window.size() > max_window_length_)
            throw std::runtime_error("FastAlignGPU: a window of length " + std::to_string(window.size()) +
                                     " exceeds the maximum of " + std::to_string(max_window_length_) + ".");
        if (std::any_of(window.begin(), window.end(), [](int code) { return code < 0 || code > 3; }))
            throw std::runtime_error("FastAlignGPU base codes must be 0 to 3.");
    }
    const size_t references = reference_count_;
    scores.assign(windows.size() * references, 0);
    if (references == 0 || windows.empty()) return;
    const Common::CudaDriver& driver = Common::GetCudaDriver();
    Common::CUDADevice::ScopedContext current(*device_);
    Buffers& b = *buffers_;

    // Waits for a slot's launch and copies its scores out.
    auto collect = [&](Slot& s) {
        if (s.count == 0) return;
        VB_CHECK(driver.cuStreamSynchronize(s.stream));
        std::memcpy(scores.data() + s.first * references, s.scores.host, s.count * references * sizeof(int));
        s.count = 0;
    };
    try {
        size_t launch = 0;
        for (size_t first = 0; first < windows.size(); first += windows_per_launch_, ++launch) {
            Slot& s = b.slots[launch % 2];
            collect(s);  // its previous launch, two launches back
            s.first = first;
            s.count = std::min(windows_per_launch_, windows.size() - first);
            int* offsets = s.offsets.Host<int>();
            auto* bases = s.windows.Host<unsigned char>();
            offsets[0] = 0;
            for (size_t w = 0; w < s.count; ++w) {
                const auto& window = windows[first + w];
                std::copy(window.begin(), window.end(), bases + offsets[w]);
                offsets[w + 1] = offsets[w] + static_cast<int>(window.size());
            }
            s.config.Host<int>()[3] = static_cast<int>(s.count);
            const size_t bytes = static_cast<size_t>(std::max(offsets[s.count], 1));
            VB_CHECK(driver.cuMemcpyHtoDAsync_v2(s.config.device, s.config.host, s.config.bytes, s.stream));
            VB_CHECK(driver.cuMemcpyHtoDAsync_v2(s.windows.device, s.windows.host, bytes, s.stream));
            VB_CHECK(
                driver.cuMemcpyHtoDAsync_v2(s.offsets.device, s.offsets.host, (s.count + 1) * sizeof(int), s.stream));
            void* parameters[] = {&b.matrix.device,  &b.gaps.device,    &s.config.device,  &b.references.device,
                                  &b.lengths.device, &s.windows.device, &s.offsets.device, &s.scores.device};
            const size_t threads = s.count * references;
            const auto blocks =
                static_cast<unsigned>((threads + FastAlignKernels::batchThreads - 1) / FastAlignKernels::batchThreads);
            VB_CHECK(driver.cuLaunchKernel(kernel_, blocks, 1, 1, FastAlignKernels::batchThreads, 1, 1, 0, s.stream,
                                           parameters, nullptr));
            VB_CHECK(driver.cuMemcpyDtoHAsync_v2(s.scores.host, s.scores.device, threads * sizeof(int), s.stream));
        }
        for (Slot& s : b.slots)
            collect(s);
    } catch (...) {
        // A later call must not collect a failed launch's slots.
        for (Slot& s : b.slots) {
            driver.cuStreamSynchronize(s.stream);
            s.count = 0;
        }
        throw;
    }
}

}  // namespace PairAlignment
