#include "common/cuda_common.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

#include "common/kernel_images.h"
#include "common/logger.h"

// Every driver result is checked; the error names this file and the line.
#define VB_CUDA_CHECK(call) ::Common::CheckCuda((call), "common/cuda_common", __LINE__)

namespace Common {
namespace {

const Logger& Log() {
    static const Logger logger("cuda");
    return logger;
}

[[noreturn]] void Malformed(const std::string& text) {
    throw std::runtime_error("Malformed device string: " + text);
}

// Reads a run of decimal digits starting at pos into value; false when there is
// none or it does not fit an int.
bool ReadIndex(const std::string& text, size_t& pos, int& value) {
    const size_t begin = pos;
    long long parsed = 0;
    while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
        parsed = parsed * 10 + (text[pos] - '0');
        if (parsed > 1000000) return false;
        ++pos;
    }
    value = static_cast<int>(parsed);
    return pos > begin;
}

// The limit after the device list: a non-negative decimal number and an
// optional unit, "%", "m" (MiB) or "g" (GiB), ending the string.
void ReadLimit(const std::string& text, size_t pos, std::vector<CUDADeviceRequest>& requests) {
    const std::string limit = text.substr(pos);
    if (limit.empty() || !(std::isdigit(static_cast<unsigned char>(limit[0])) || limit[0] == '.')) Malformed(text);
    char* end = nullptr;
    const double value = std::strtod(limit.c_str(), &end);
    const std::string unit(end);
    if (end == limit.c_str() || value < 0 || unit.size() > 1) Malformed(text);
    float percent = 0;
    double bytes = value;
    if (unit == "%")
        percent = static_cast<float>(value);
    else if (unit == "m")
        bytes = value * 1048576.0;
    else if (unit == "g")
        bytes = value * 1073741824.0;
    else if (!unit.empty())
        Malformed(text);
    if (bytes > 1.8e19) Malformed(text);
    for (auto& request : requests) {
        request.memory_percent = percent;
        request.memory_bytes = unit == "%" ? 0 : static_cast<uint64_t>(bytes);
    }
}

int DeviceCount(const CudaDriver& driver) {
    VB_CUDA_CHECK(driver.cuInit(0));
    int count = 0;
    VB_CUDA_CHECK(driver.cuDeviceGetCount(&count));
    return count;
}

// "auto": the device with the most free memory, asked through a short-lived
// context on each (the driver reports free memory per context only).
int PickAutoDevice(const CudaDriver& driver) {
    const int count = DeviceCount(driver);
    if (count == 0) throw std::runtime_error("No CUDA device found for device string auto.");
    int best = 0;
    size_t best_free = 0;
    for (int index = 0; index < count; ++index) {
        CUdevice device = 0;
        VB_CUDA_CHECK(driver.cuDeviceGet(&device, index));
        CUcontext context = nullptr;
        VB_CUDA_CHECK(driver.cuCtxCreate_v2(&context, 0, device));
        size_t free = 0, total = 0;
        const CUresult info = driver.cuMemGetInfo_v2(&free, &total);
        driver.cuCtxDestroy_v2(context);
        VB_CUDA_CHECK(info);
        if (free > best_free) {
            best = index;
            best_free = free;
        }
    }
    return best;
}

}  // namespace

std::vector<CUDADeviceRequest> CUDADevice::ParseDeviceString(const std::string& text) {
    if (text.size() < 6) {
        if (text != "auto") Malformed(text);
        return {{kAutoDevice, 0.0f, 0}};
    }
    if (text.compare(0, 5, "cuda:") != 0) Malformed(text);

    std::vector<CUDADeviceRequest> requests;
    size_t pos = 5;
    if (text.size() > 7 && text.compare(5, 3, "all") == 0) {
        const int count = DeviceCount(GetCudaDriver());
        for (int index = 0; index < count; ++index)
            requests.push_back({index, 0.0f, 0});
        pos = 8;
    } else {
        while (true) {
            int index = 0;
            if (!ReadIndex(text, pos, index)) Malformed(text);
            requests.push_back({index, 0.0f, 0});
            if (pos == text.size() || text[pos] != ',') break;
            ++pos;
        }
    }
    if (pos == text.size()) return requests;
    if (text[pos] != ':') Malformed(text);
    ReadLimit(text, pos + 1, requests);
    return requests;
}

std::shared_ptr<CUDADevice> CUDADevice::Acquire(const CUDADeviceRequest& request) {
    static std::mutex registry_mutex;
    static std::map<int, std::weak_ptr<CUDADevice>> registry;
    static int auto_choice = -1;

    std::lock_guard<std::mutex> lock(registry_mutex);
    const CudaDriver& driver = GetCudaDriver();
    int index = request.device;
    if (index == kAutoDevice) {
        // Settled once: later workers must land on the same GPU even though
        // the first one's allocations changed the free memory.
        if (auto_choice < 0) {
            auto_choice = PickAutoDevice(driver);
            VB_LOG(Log(), Severity::info)
                << "Device string auto: using CUDA device " << auto_choice << ", the one with the most free memory";
        }
        index = auto_choice;
    }
    if (auto existing = registry[index].lock()) return existing;

    const int count = DeviceCount(driver);
    if (index < 0 || index >= count)
        throw std::runtime_error("CUDA device " + std::to_string(index) + " requested, but " + std::to_string(count) +
                                 " device(s) found.");
    std::shared_ptr<CUDADevice> device(new CUDADevice(index, request));
    registry[index] = device;
    return device;
}

CUDADevice::CUDADevice(int index, const CUDADeviceRequest& request) : driver_(GetCudaDriver()), index_(index) {
    CUdevice device = 0;
    VB_CUDA_CHECK(driver_.cuDeviceGet(&device, index));
    int major = 0, minor = 0, processors = 0;
    VB_CUDA_CHECK(driver_.cuDeviceGetAttribute(&major, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR, device));
    VB_CUDA_CHECK(driver_.cuDeviceGetAttribute(&minor, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR, device));
    VB_CUDA_CHECK(driver_.cuDeviceGetAttribute(&processors, CU_DEVICE_ATTRIBUTE_MULTIPROCESSOR_COUNT, device));
    // The new context is current on this thread; users push it when they need it.
    // A worker waiting for the device sleeps instead of spinning (the
    // driver's default with one context): spinning workers took the cores
    // the reader, the writer and the other workers need.
    VB_CUDA_CHECK(driver_.cuCtxCreate_v2(&context_, CU_CTX_SCHED_BLOCKING_SYNC, device));
    size_t free = 0, total = 0;
    const CUresult info = driver_.cuMemGetInfo_v2(&free, &total);
    CUcontext popped = nullptr;
    driver_.cuCtxPopCurrent_v2(&popped);
    if (info != CUDA_SUCCESS) {
        driver_.cuCtxDestroy_v2(context_);
        VB_CUDA_CHECK(info);
    }
    if (request.memory_percent > 0)
        memory_limit_ = static_cast<uint64_t>(static_cast<double>(total) * request.memory_percent / 100.0);
    else
        memory_limit_ = request.memory_bytes;
    VB_LOG(Log(), Severity::info) << "Using CUDA device " << index << ": compute capability " << major << "." << minor
                                  << ", " << processors << " multiprocessors, " << free << " of " << total
                                  << " bytes free" << (memory_limit_ ? ", memory limit " : "")
                                  << (memory_limit_ ? std::to_string(memory_limit_) + " bytes" : "");
}

CUDADevice::~CUDADevice() {
    // Nothing may throw here: failures are logged and the rest is still freed.
    auto report = [](CUresult result, int line) {
        if (result != CUDA_SUCCESS) VB_LOG(Log(), Severity::error) << CudaErrorText("common/cuda_common", line, result);
    };
    report(driver_.cuCtxPushCurrent_v2(context_), __LINE__);
    for (auto& [name, module] : modules_)
        report(driver_.cuModuleUnload(module), __LINE__);
    CUcontext popped = nullptr;
    report(driver_.cuCtxPopCurrent_v2(&popped), __LINE__);
    report(driver_.cuCtxDestroy_v2(context_), __LINE__);
}

CUDADevice::ScopedContext::ScopedContext(const CUDADevice& device) : driver_(device.driver_) {
    VB_CUDA_CHECK(driver_.cuCtxPushCurrent_v2(device.context_));
}

CUDADevice::ScopedContext::~ScopedContext() {
    CUcontext popped = nullptr;
    const CUresult result = driver_.cuCtxPopCurrent_v2(&popped);
    if (result != CUDA_SUCCESS) VB_LOG(Log(), Severity::error) << CudaErrorText("common/cuda_common", __LINE__, result);
}

CUstream CUDADevice::CreateStream() {
    ScopedContext current(*this);
    CUstream stream = nullptr;
    VB_CUDA_CHECK(driver_.cuStreamCreate(&stream, CU_STREAM_NON_BLOCKING));
    return stream;
}

void CUDADevice::ChargeMemory(int64_t bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (bytes < 0) {
        charged_bytes_ -= std::min(charged_bytes_, static_cast<uint64_t>(-bytes));
        return;
    }
    const uint64_t wanted = static_cast<uint64_t>(bytes);
    if (memory_limit_ != 0 && charged_bytes_ + wanted > memory_limit_)
        throw std::runtime_error("GPU memory limit of " + std::to_string(memory_limit_) +
                                 " bytes reached on CUDA device " + std::to_string(index_) + ": " +
                                 std::to_string(wanted) +
                                 " more bytes needed (raise the limit in the device string or use fewer workers).");
    charged_bytes_ += wanted;
}

std::vector<CUfunction> CUDADevice::LoadKernels(const std::string& image, const std::vector<std::string>& names) {
    std::lock_guard<std::mutex> lock(mutex_);
    ScopedContext current(*this);
    auto loaded = modules_.find(image);
    if (loaded == modules_.end()) {
        VB_LOG(Log(), Severity::info) << "Loading fatbin file " << image;
        const KernelImage* bytes = FindKernelImage(image);
        if (bytes == nullptr)
            throw std::runtime_error("Failed to load " + image + " (not embedded in this build) from fatbin");
        CUmodule module = nullptr;
        const CUresult result = driver_.cuModuleLoadData(&module, bytes->data);
        if (result != CUDA_SUCCESS) {
            const char* reason = nullptr;
            if (driver_.cuGetErrorName(result, &reason) != CUDA_SUCCESS || reason == nullptr) reason = "unknown error";
            throw std::runtime_error("Failed to load " + image + " (" + reason + ") from fatbin");
        }
        loaded = modules_.emplace(image, module).first;
    }
    std::vector<CUfunction> kernels;
    for (const auto& name : names) {
        CUfunction function = nullptr;
        if (driver_.cuModuleGetFunction(&function, loaded->second, name.c_str()) != CUDA_SUCCESS)
            throw std::runtime_error("Failed to create CUDA kernel for " + name);
        kernels.push_back(function);
    }
    return kernels;
}

}  // namespace Common
