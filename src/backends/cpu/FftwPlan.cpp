#include <fftw3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

#include "backends/cpu/CpuFftPlan.h"
#include "backends/cpu/CpuKernelRunner.h"

namespace tarnel {

namespace {

// FFTW's planner is not thread-safe; executing a plan is.
std::mutex& plannerMutex() {
    static std::mutex mutex;
    return mutex;
}

// The work of a transform per input sample, relative to one sample of a
// waveform kernel (as a CPU launch weighs it).
constexpr long kFftWorkPerSample = 4;

constexpr int kFftAlloc = 2;  // "Alloc failed"
constexpr int kFftInvalidValue = 4;
constexpr int kFftSetupFailed = 7;

// A plan may run on other arrays only when their SIMD alignment matches that
// of the arrays it was made with, which come from fftwf_malloc (alignment 0).
bool isAligned(const void* p) { return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(p))) == 0; }

class FftwPlan final : public FftPlan {
  public:
    FftwPlan(fftwf_plan plan_, std::vector<fftwf_plan> channelPlans_, int length_, int batch_, float* inScratch,
             fftwf_complex* outScratch, CpuEnqueue enqueue_)
        : plan(plan_),
          channelPlans(std::move(channelPlans_)),
          length(length_),
          batch(batch_),
          inputScratch(inScratch),
          outputScratch(outScratch),
          enqueue(std::move(enqueue_)) {}
    ~FftwPlan() override { destroy(); }

    int execute(const float* input, float2* output, DeviceStream stream) override {
        if (plan == nullptr && channelPlans.empty()) return 1;  // "Invalid plan"
        return enqueue(stream, [this, input, output] { transform(input, output); }) ? 0 : kFftInvalidValue;
    }

    int destroy() override {
        std::lock_guard<std::mutex> lock(plannerMutex());
        if (plan != nullptr) fftwf_destroy_plan(plan);
        for (fftwf_plan channelPlan : channelPlans) fftwf_destroy_plan(channelPlan);
        channelPlans.clear();
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

    // The whole batch: channel by channel, shared with the CPU workers that
    // join in, when the plan has a plan per channel; in one batched call otherwise.
    // Both arrays have the alignment of the scratch arrays the plans were made
    // with, and so have the channels' offsets.
    void execute(float* in, fftwf_complex* out) {
        const size_t bins = static_cast<size_t>(length / 2 + 1);
        if (channelPlans.empty()) {
            fftwf_execute_dft_r2c(plan, in, out);
            return;
        }
        CpuKernelPool::instance().run(batch, [&](int c) {
            const auto channel = static_cast<size_t>(c);
            fftwf_execute_dft_r2c(channelPlans[channel], in + channel * length, out + channel * bins);
        });
    }

    fftwf_plan plan;
    std::vector<fftwf_plan> channelPlans;
    int length;
    int batch;
    float* inputScratch;
    fftwf_complex* outputScratch;
    CpuEnqueue enqueue;
};

}  // namespace

int createCpuFftPlan(std::unique_ptr<FftPlan>* result, int length, int batch, bool measure, const CpuEnqueue& enqueue) {
    if (length < 1 || batch < 1) return kFftInvalidValue;
    const int bins = length / 2 + 1;
    auto* in = static_cast<float*>(fftwf_malloc(sizeof(float) * static_cast<size_t>(length) * batch));
    auto* out = static_cast<fftwf_complex*>(fftwf_malloc(sizeof(fftwf_complex) * static_cast<size_t>(bins) * batch));
    if (in == nullptr || out == nullptr) {
        fftwf_free(in);
        fftwf_free(out);
        return kFftAlloc;
    }
    const int n[1] = {length};
    const unsigned rigour = measure ? FFTW_MEASURE : FFTW_ESTIMATE;
    std::lock_guard<std::mutex> lock(plannerMutex());
    // Batches of several large transforms are planned channel by channel,
    // each at its own offset (which fixes its SIMD alignment), so that the
    // CPU workers can share a block's transforms; other
    // batches, or where a channel cannot be planned, as one batched plan.
    std::vector<fftwf_plan> channelPlans;
    if (batch > 1 && CpuKernelPool::instance().hasHelpers() &&
        static_cast<long>(length) * batch * kFftWorkPerSample >= kCpuSharedLaunchWork) {
        for (int c = 0; c < batch; ++c) {
            fftwf_plan channelPlan =
                fftwf_plan_many_dft_r2c(1, n, 1, in + static_cast<size_t>(c) * length, nullptr, 1, length,
                                        out + static_cast<size_t>(c) * bins, nullptr, 1, bins, rigour);
            if (channelPlan == nullptr) {
                for (fftwf_plan made : channelPlans) fftwf_destroy_plan(made);
                channelPlans.clear();
                break;
            }
            channelPlans.push_back(channelPlan);
        }
    }
    fftwf_plan plan = nullptr;
    if (channelPlans.empty()) {
        plan = fftwf_plan_many_dft_r2c(1, n, batch, in, nullptr, 1, length, out, nullptr, 1, bins, rigour);
        if (plan == nullptr) {
            fftwf_free(in);
            fftwf_free(out);
            return kFftSetupFailed;
        }
    }
    *result = std::make_unique<FftwPlan>(plan, std::move(channelPlans), length, batch, in, out, enqueue);
    return 0;
}

}  // namespace tarnel
