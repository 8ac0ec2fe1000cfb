#include "backends/cpu/FftwPlan.h"

#include <fftw3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

#include "backends/cpu/CpuKernelRunner.h"
#include "backends/cpu/CpuStream.h"

namespace tarnel {

namespace {

// FFTW's planner is not thread-safe; executing a plan is.
std::mutex& plannerMutex() {
    static std::mutex mutex;
    return mutex;
}

constexpr int kFftAlloc = 2;  // "Alloc failed"
constexpr int kFftInvalidValue = 4;
constexpr int kFftSetupFailed = 7;

// A plan may run on other arrays only when their SIMD alignment matches that
// of the arrays it was made with, which come from fftwf_malloc (alignment 0).
bool isAligned(const void* p) { return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(p))) == 0; }

// A part of a batch: channels first .. first + count - 1, with its own plan.
struct BatchPart {
    fftwf_plan plan;
    int first;
};

class FftwPlan final : public FftPlan {
  public:
    FftwPlan(fftwf_plan plan_, std::vector<BatchPart> parts_, int length_, int batch_, float* inScratch,
             fftwf_complex* outScratch, std::function<std::shared_ptr<CpuStream>(DeviceStream)> streamOf_)
        : plan(plan_),
          parts(std::move(parts_)),
          length(length_),
          batch(batch_),
          inputScratch(inScratch),
          outputScratch(outScratch),
          streamOf(std::move(streamOf_)) {}
    ~FftwPlan() override { destroy(); }

    int execute(const float* input, float2* output, DeviceStream stream) override {
        if (plan == nullptr) return 1;  // "Invalid plan"
        auto cpuStream = streamOf(stream);
        if (cpuStream == nullptr) return kFftInvalidValue;
        cpuStream->enqueue([this, input, output] { transform(input, output); });
        return 0;
    }

    int destroy() override {
        std::lock_guard<std::mutex> lock(plannerMutex());
        if (plan != nullptr) fftwf_destroy_plan(plan);
        for (const BatchPart& part : parts) fftwf_destroy_plan(part.plan);
        parts.clear();
        fftwf_free(inputScratch);
        fftwf_free(outputScratch);
        plan = nullptr;
        inputScratch = nullptr;
        outputScratch = nullptr;
        return 0;
    }

  private:
    // Blocks of a spectrum ring need not be aligned like the plan's arrays;
    // those go through the scratch arrays.
    void transform(const float* input, float2* output) {
        const size_t inFloats = static_cast<size_t>(length) * batch;
        const size_t outBins = static_cast<size_t>(length / 2 + 1) * batch;
        float* in = const_cast<float*>(input);
        auto* out = reinterpret_cast<fftwf_complex*>(output);
        const bool inAligned = isAligned(input);
        const bool outAligned = isAligned(output);
        if (!inAligned) in = static_cast<float*>(std::memcpy(inputScratch, input, inFloats * sizeof(float)));
        execute(in, outAligned ? out : outputScratch);
        if (!outAligned) std::memcpy(static_cast<void*>(output), outputScratch, outBins * sizeof(fftwf_complex));
    }

    // The whole batch: split over the CPU kernel pool's threads when the plan
    // has parts and the pool is free, in one call otherwise. Both arrays have
    // the alignment of the scratch arrays the plans were made with, and so
    // have the parts' offsets.
    void execute(float* in, fftwf_complex* out) {
        const size_t bins = static_cast<size_t>(length / 2 + 1);
        if (!parts.empty()) {
            const std::function<void(int)> run = [&](int p) {
                for (size_t k = static_cast<size_t>(p); k < parts.size(); k += static_cast<size_t>(poolParts)) {
                    const BatchPart& part = parts[k];
                    fftwf_execute_dft_r2c(part.plan, in + static_cast<size_t>(part.first) * length,
                                          out + static_cast<size_t>(part.first) * bins);
                }
            };
            if (CpuKernelPool::instance().run(run)) return;
        }
        fftwf_execute_dft_r2c(plan, in, out);
    }

    fftwf_plan plan;
    std::vector<BatchPart> parts;
    const int poolParts = CpuKernelPool::instance().parts();
    int length;
    int batch;
    float* inputScratch;
    fftwf_complex* outputScratch;
    std::function<std::shared_ptr<CpuStream>(DeviceStream)> streamOf;
};

}  // namespace

int createFftwPlan(std::unique_ptr<FftPlan>* result, int length, int batch, bool measure,
                   const std::function<std::shared_ptr<CpuStream>(DeviceStream)>& streamOf) {
    if (length < 1 || batch < 1) return kFftInvalidValue;
    const int bins = length / 2 + 1;
    auto* in = static_cast<float*>(fftwf_malloc(sizeof(float) * static_cast<size_t>(length) * batch));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(bins) * batch));
    if (in == nullptr || out == nullptr) {
        fftwf_free(in);
        fftwf_free(out);
        return kFftAlloc;
    }
    fftwf_plan plan = nullptr;
    {
        std::lock_guard<std::mutex> lock(plannerMutex());
        const int n[1] = {length};
        plan = fftwf_plan_many_dft_r2c(1, n, batch, in, nullptr, 1, length, out, nullptr, 1, bins,
                                       measure ? FFTW_MEASURE : FFTW_ESTIMATE);
    }
    if (plan == nullptr) {
        fftwf_free(in);
        fftwf_free(out);
        return kFftSetupFailed;
    }
    // Batches of several large transforms are also planned in parts, one per
    // thread of the CPU kernel pool, so that a block's transforms share its cores.
    std::vector<BatchPart> parts;
    const int partCount = std::min(CpuKernelPool::instance().parts(), batch);
    if (partCount > 1 && static_cast<long>(length) * batch >= kCpuSharedLaunchWork) {
        std::lock_guard<std::mutex> lock(plannerMutex());
        for (int p = 0; p < partCount; ++p) {
            const int first = partStart(batch, p, partCount), count = partStart(batch, p + 1, partCount) - first;
            const int n[1] = {length};
            fftwf_plan part = fftwf_plan_many_dft_r2c(1, n, count, in + static_cast<size_t>(first) * length, nullptr, 1,
                                                      length, out + static_cast<size_t>(first) * bins, nullptr, 1, bins,
                                                      measure ? FFTW_MEASURE : FFTW_ESTIMATE);
            if (part == nullptr) {
                for (const BatchPart& made : parts) fftwf_destroy_plan(made.plan);
                parts.clear();
                break;
            }
            parts.push_back(BatchPart{part, first});
        }
    }
    *result = std::make_unique<FftwPlan>(plan, std::move(parts), length, batch, in, out, streamOf);
    return 0;
}

}  // namespace tarnel
