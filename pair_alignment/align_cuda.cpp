#include "pair_alignment/align_cuda.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <stdexcept>

#include "common/cuda_common.h"
#include "common/kernel_images.h"
#include "common/logger.h"
#include "pair_alignment/cuda/align_thread.h"
#include "pair_alignment/device_array.h"
#include "pair_alignment/score_matrix.h"

// Every driver result is checked; the error names this file and the line.
#define VB_CHECK(call) ::Common::CheckCuda((call), "pair_alignment/align_cuda", __LINE__)

// How a call runs: the query characters go up, SeqToInts turns them into codes
// through the lookup table, Align runs one thread per staged reference over its
// own slices of the work areas, and the three result arrays (scores, path
// blocks, path lengths) come back. Everything is queued on the aligner's own
// stream; only the final synchronisation blocks. All memory is allocated in the
// constructor, sized for kMaxReferences threads and the two maximum lengths:
// inputs and results have page-locked host twins for asynchronous copies, the
// work areas (score rows, match row, band offsets and lengths, trace) live on
// the device only.

namespace PairAlignment {
namespace {

const Common::Logger& Log() {
    static const Common::Logger logger("fast_align_gpu");
    return logger;
}

// Sequences are bounded so that every slice offset the kernel computes fits
// its integer arithmetic with room to spare.
constexpr unsigned long kMaxSequenceLength = 100000;

// The device arrays of one aligner: constant inputs, references (staged by
// SetReferences), the query (per call), work areas, results.
enum Slot {
    kMatrix,
    kGaps,
    kConfig,
    kLookup,
    kReferences,
    kReferenceLengths,
    kQueryChars,
    kQueryCodes,
    kQueryLength,
    kRowA,
    kRowB,
    kRowC,
    kMatch,
    kBandOffsets,
    kBandLengths,
    kTrace,
    kScores,
    kPaths,
    kPathLengths,
    kSlotCount
};

}  // namespace

struct FastAlignGPU::Buffers {
    std::array<DeviceArray, kSlotCount> arrays;
    size_t total_bytes = 0;

    DeviceArray& operator[](Slot slot) { return arrays[slot]; }
};

FastAlignGPU::FastAlignGPU(const brim::data_wrappers::MatView<int>& matrix, const std::vector<int>& gaps,
                           const std::vector<int>& lookup, unsigned long max_reference_length,
                           unsigned long max_query_length, std::string device, int band_width) {
    if (matrix.rows() != 4 || matrix.cols() != 4)
        throw std::runtime_error("FastAlignGPU only supports a 4 x 4 mismatch matrix!");
    for (size_t r = 0; r < 4; ++r)
        for (size_t c = 0; c < 4; ++c)
            matrix_.push_back(matrix(r, c));
    gap_costs_ = ConvertGapVector(gaps);
    if (lookup.size() != 256) throw std::runtime_error("FastAlignGPU needs a 256-entry base-code lookup table.");
    if (std::any_of(lookup.begin(), lookup.end(), [](int code) { return code < 0 || code > 3; }))
        throw std::runtime_error("FastAlignGPU base codes must be 0 to 3.");
    lookup_ = lookup;
    if (max_reference_length > kMaxSequenceLength || max_query_length > kMaxSequenceLength)
        throw std::runtime_error("FastAlignGPU supports sequences of at most " + std::to_string(kMaxSequenceLength) +
                                 " bases.");
    if (band_width < 0) throw std::runtime_error("FastAlignGPU needs a band width of at least 0.");
    max_reference_length_ = static_cast<int>(max_reference_length);
    max_query_length_ = static_cast<int>(max_query_length);
    band_width_ = band_width % 2 == 0 ? band_width + 1 : band_width;
    row_width_ = 1;
    for (int m = 1; m <= std::max(max_reference_length_, max_query_length_); ++m)
        row_width_ = std::max(row_width_, FastAlignKernels::BandRowWidth(m, band_width_));
    rows_ = max_reference_length_ + max_query_length_ + 1;

    const auto requests = Common::CUDADevice::ParseDeviceString(device);
    // Every worker builds aligners from the same string: one warning is enough.
    static std::atomic<bool> warned{false};
    if (requests.size() > 1 && !warned.exchange(true))
        VB_LOG(Log(), Common::Severity::warning)
            << "FastAlignGPU only supports one GPU currently!  Devices string passed was: " << device
            << ". Only the first device will be used.";
    if (Common::FindKernelImage("fastalign.fatbin") == nullptr)
        throw std::runtime_error(
            "This build of vorpa_barcoder has no GPU support (it was built without nvcc): run without --device.");
    device_ = Common::CUDADevice::Acquire(requests.front());
    const auto kernels = device_->LoadKernels("fastalign.fatbin", {"SeqToInts", "Align"});
    seq_to_ints_ = kernels[0];
    align_ = kernels[1];

    buffers_ = std::make_unique<Buffers>();
    try {
        stream_ = device_->CreateStream();
        Allocate();
    } catch (...) {
        Release();
        throw;
    }
    VB_LOG(Log(), Common::Severity::info) << "Total GPU memory allocated by FastAlignGPU is: " << buffers_->total_bytes;
}

FastAlignGPU::~FastAlignGPU() {
    Release();
}

void FastAlignGPU::Allocate() {
    const Common::CudaDriver& driver = Common::GetCudaDriver();
    Common::CUDADevice::ScopedContext current(*device_);
    Buffers& b = *buffers_;
    const size_t threads = kMaxReferences;
    const size_t width = static_cast<size_t>(row_width_);
    const size_t rows = static_cast<size_t>(rows_);
    const size_t path_ints = 2 * (rows - 1);
    // Sizes first: the whole set is charged against the device's memory limit
    // before anything is allocated. Staged arrays have page-locked host twins.
    const std::pair<Slot, std::pair<size_t, bool>> plan[] = {
        {kMatrix, {matrix_.size() * sizeof(int), true}},
        {kGaps, {gap_costs_.size() * sizeof(int), true}},
        {kConfig, {2 * sizeof(int), true}},
        {kLookup, {lookup_.size() * sizeof(int), true}},
        {kReferences, {threads * static_cast<size_t>(max_reference_length_) * sizeof(int), true}},
        {kReferenceLengths, {threads * sizeof(int), true}},
        {kQueryChars, {static_cast<size_t>(max_query_length_), true}},
        {kQueryCodes, {static_cast<size_t>(max_query_length_) * sizeof(int), false}},
        {kQueryLength, {sizeof(int), true}},
        {kRowA, {threads * width * sizeof(int), false}},
        {kRowB, {threads * width * sizeof(int), false}},
        {kRowC, {threads * width * sizeof(int), false}},
        {kMatch, {threads * width * sizeof(int), false}},
        {kBandOffsets, {threads * rows * sizeof(int), false}},
        {kBandLengths, {threads * rows * sizeof(int), false}},
        {kTrace, {threads * rows * width, false}},
        {kScores, {threads * sizeof(int), true}},
        {kPaths, {threads * path_ints * sizeof(int), true}},
        {kPathLengths, {threads * sizeof(int), true}},
    };
    size_t total = 0;
    for (const auto& [slot, size] : plan)
        total += std::max<size_t>(size.first, sizeof(int));
    device_->ChargeMemory(static_cast<int64_t>(total));
    b.total_bytes = total;
    for (const auto& [slot, size] : plan) {
        DeviceArray& array = b[slot];
        array.bytes = std::max<size_t>(size.first, sizeof(int));  // the driver refuses empty allocations
        VB_CHECK(driver.cuMemAlloc_v2(&array.device, array.bytes));
        if (size.second) VB_CHECK(driver.cuMemAllocHost_v2(&array.host, array.bytes));
    }

    std::copy(matrix_.begin(), matrix_.end(), b[kMatrix].Host<int>());
    std::copy(gap_costs_.begin(), gap_costs_.end(), b[kGaps].Host<int>());
    b[kConfig].Host<int>()[0] = band_width_;
    b[kConfig].Host<int>()[1] = max_reference_length_;
    std::copy(lookup_.begin(), lookup_.end(), b[kLookup].Host<int>());
    for (DeviceArray* array : {&b[kMatrix], &b[kGaps], &b[kConfig], &b[kLookup]})
        VB_CHECK(driver.cuMemcpyHtoDAsync_v2(array->device, array->host, array->bytes, stream_));
    VB_CHECK(driver.cuStreamSynchronize(stream_));
}

// Frees whatever was allocated; failures go to the log, never out of here.
void FastAlignGPU::Release() noexcept {
    if (!device_ || !buffers_) return;
    try {
        const Common::CudaDriver& driver = Common::GetCudaDriver();
        auto report = [](Common::CUresult result, int line) {
            if (result != Common::CUDA_SUCCESS)
                VB_LOG(Log(), Common::Severity::error)
                    << Common::CudaErrorText("pair_alignment/align_cuda", line, result);
        };
        Common::CUDADevice::ScopedContext current(*device_);
        if (stream_ != nullptr) report(driver.cuStreamSynchronize(stream_), __LINE__);
        for (DeviceArray& array : buffers_->arrays)
            FreeDeviceArray(driver, array, [&](Common::CUresult result) { report(result, __LINE__); });
        if (stream_ != nullptr) report(driver.cuStreamDestroy_v2(stream_), __LINE__);
        stream_ = nullptr;
        device_->ChargeMemory(-static_cast<int64_t>(buffers_->total_bytes));
        buffers_->total_bytes = 0;
    } catch (const std::exception& e) {
        VB_LOG(Log(), Common::Severity::error) << "FastAlignGPU clean-up failed: " << e.what();
    }
}

void FastAlignGPU::SetReferences(const std::vector<std::vector<int>>& references) {
    if (references.size() > kMaxReferences) throw std::runtime_error("Too many sequences for GPU threads to contain!");
    Buffers& b = *buffers_;
    for (size_t t = 0; t < references.size(); ++t) {
        const auto& reference = references[t];
        if (reference.size() > static_cast<size_t>(max_reference_length_))
            throw std::runtime_error("FastAlignGPU: a reference of length " + std::to_string(reference.size()) +
                                     " exceeds the maximum of " + std::to_string(max_reference_length_) + ".");
        if (std::any_of(reference.begin(), reference.end(), [](int code) { return code < 0 || code > 3; }))
            throw std::runtime_error("FastAlignGPU base codes must be 0 to 3.");
    }
    const Common::CudaDriver& driver = Common::GetCudaDriver();
    Common::CUDADevice::ScopedContext current(*device_);
    // The staging buffers may still feed a copy of the previous call.
    VB_CHECK(driver.cuStreamSynchronize(stream_));
    for (size_t t = 0; t < references.size(); ++t) {
        std::copy(references[t].begin(), references[t].end(), b[kReferences].Host<int>() + t * max_reference_length_);
        b[kReferenceLengths].Host<int>()[t] = static_cast<int>(references[t].size());
    }
    VB_CHECK(driver.cuMemcpyHtoDAsync_v2(b[kReferences].device, b[kReferences].host, b[kReferences].bytes, stream_));
    VB_CHECK(driver.cuMemcpyHtoDAsync_v2(b[kReferenceLengths].device, b[kReferenceLengths].host,
                                         b[kReferenceLengths].bytes, stream_));
    reference_count_ = references.size();
}

void FastAlignGPU::AlignAll(const std::string& query, std::vector<int>& scores, std::vector<Path>& paths) {
    if (query.size() > static_cast<size_t>(max_query_length_))
        throw std::runtime_error("FastAlignGPU: a query of length " + std::to_string(query.size()) +
                                 " exceeds the maximum of " + std::to_string(max_query_length_) + ".");
    const Common::CudaDriver& driver = Common::GetCudaDriver();
    Buffers& b = *buffers_;
    Common::CUDADevice::ScopedContext current(*device_);

    int count = static_cast<int>(query.size());
    std::memcpy(b[kQueryChars].host, query.data(), query.size());
    *b[kQueryLength].Host<int>() = count;
    if (count > 0)
        VB_CHECK(driver.cuMemcpyHtoDAsync_v2(b[kQueryChars].device, b[kQueryChars].host, query.size(), stream_));
    VB_CHECK(driver.cuMemcpyHtoDAsync_v2(b[kQueryLength].device, b[kQueryLength].host, sizeof(int), stream_));

    void* convert[] = {&b[kQueryChars].device, &b[kQueryCodes].device, &count, &b[kLookup].device};
    VB_CHECK(
        driver.cuLaunchKernel(seq_to_ints_, 1, 1, 1, FastAlignKernels::blockWidth, 1, 1, 0, stream_, convert, nullptr));

    if (reference_count_ > kMaxReferences) throw std::runtime_error("Too many sequences for GPU threads to contain!");
    const size_t references = reference_count_;
    scores.resize(references);
    paths.resize(references);
    if (references == 0) {
        VB_CHECK(driver.cuStreamSynchronize(stream_));
        return;
    }
    int width = row_width_;
    int rows = rows_;
    void* align[] = {&b[kMatrix].device,
                     &b[kGaps].device,
                     &b[kConfig].device,
                     &b[kReferences].device,
                     &b[kReferenceLengths].device,
                     &b[kQueryCodes].device,
                     &b[kQueryLength].device,
                     &b[kRowA].device,
                     &b[kRowB].device,
                     &b[kRowC].device,
                     &b[kMatch].device,
                     &b[kBandOffsets].device,
                     &b[kBandLengths].device,
                     &b[kTrace].device,
                     &b[kScores].device,
                     &b[kPaths].device,
                     &b[kPathLengths].device,
                     &width,
                     &rows};
    static_assert(sizeof(align) / sizeof(align[0]) == 19, "Align takes 19 parameters");
    VB_CHECK(
        driver.cuLaunchKernel(align_, 1, 1, 1, static_cast<unsigned>(references), 1, 1, 0, stream_, align, nullptr));

    const size_t path_ints = 2 * static_cast<size_t>(rows_ - 1);
    VB_CHECK(driver.cuMemcpyDtoHAsync_v2(b[kScores].host, b[kScores].device, references * sizeof(int), stream_));
    VB_CHECK(
        driver.cuMemcpyDtoHAsync_v2(b[kPaths].host, b[kPaths].device, references * path_ints * sizeof(int), stream_));
    VB_CHECK(
        driver.cuMemcpyDtoHAsync_v2(b[kPathLengths].host, b[kPathLengths].device, references * sizeof(int), stream_));
    VB_CHECK(driver.cuStreamSynchronize(stream_));

    for (size_t t = 0; t < references; ++t) {
        scores[t] = b[kScores].Host<int>()[t];
        PathFromBlock(b[kPaths].Host<int>() + t * path_ints, b[kPathLengths].Host<int>()[t], paths[t]);
    }
}

std::vector<int> FastAlignGPU::BaseCodeTable() {
    std::vector<int> table(256, 0);
    const char* bases[] = {"Aa", "Cc", "Gg", "TtUu"};
    for (int code = 0; code < 4; ++code)
        for (const char* c = bases[code]; *c != '\0'; ++c)
            table[static_cast<unsigned char>(*c)] = code;
    return table;
}

void PathFromBlock(const int* block, int path_length, Path& path) {
    path.resize(static_cast<size_t>(std::max(path_length, 0)));
    for (size_t k = 0; k < path.size(); ++k)
        path[k] = {block[2 * k], block[2 * k + 1]};
}

}  // namespace PairAlignment
