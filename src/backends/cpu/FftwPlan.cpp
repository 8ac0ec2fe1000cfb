#include "backends/cpu/FftwPlan.h"

#include <fftw3.h>

#include <cstring>
#include <functional>
#include <mutex>

#include "backends/cpu/CpuStream.h"

namespace tarnel {

namespace {

// FFTW's planner is not thread-safe; executing a plan is.
std::mutex& plannerMutex() {
    static std::mutex mutex;
    return mutex;
}

constexpr int kFftAlloc = 2;      // "Alloc failed"
constexpr int kFftInvalidValue = 4;
constexpr int kFftSetupFailed = 7;

// A plan may run on other arrays only when their SIMD alignment matches that
// of the arrays it was made with, which come from fftwf_malloc (alignment 0).
bool isAligned(const void* p) { return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(p))) == 0; }

class FftwPlan final : public FftPlan {
  public:
    FftwPlan(fftwf_plan plan_, int length_, int batch_, float* inScratch, fftwf_complex* outScratch,
             std::function<std::shared_ptr<CpuStream>(DeviceStream)> streamOf_)
        : plan(plan_),
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
        fftwf_execute_dft_r2c(plan, in, outAligned ? out : outputScratch);
        if (!outAligned) std::memcpy(static_cast<void*>(output), outputScratch, outBins * sizeof(fftwf_complex));
    }

    fftwf_plan plan;
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
    *result = std::make_unique<FftwPlan>(plan, length, batch, in, out, streamOf);
    return 0;
}

}  // namespace tarnel
