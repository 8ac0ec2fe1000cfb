#include <kiss_fftr.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "backends/cpu/CpuFftPlan.h"
#include "backends/cpu/CpuKernelPool.h"
#include "backends/cpu/CpuKernelRunner.h"

namespace tarnel {

namespace {

// The work of a transform per input sample, relative to one sample of a
// waveform kernel (as a CPU launch weighs it).
constexpr long kFftWorkPerSample = 4;

constexpr int kFftAlloc = 2;  // "Alloc failed"
constexpr int kFftInvalidValue = 4;

static_assert(sizeof(kiss_fft_cpx) == sizeof(float2), "KissFFT's complex value must have the layout of float2");

// The transform of one channel. Even lengths use KissFFT's real transform;
// odd ones (which it does not take) a complex transform of the samples with
// zero imaginary parts, of which the first length / 2 + 1 bins are kept. A
// configuration holds the scratch array of its transform, so each channel has
// its own.
class ChannelTransform {
  public:
    explicit ChannelTransform(int length_) : length(length_) {
        if (length % 2 == 0) {
            real = kiss_fftr_alloc(length, 0, nullptr, nullptr);
        } else {
            complex = kiss_fft_alloc(length, 0, nullptr, nullptr);
            input.resize(static_cast<size_t>(length));
            output.resize(static_cast<size_t>(length));
        }
    }
    ~ChannelTransform() {
        kiss_fftr_free(real);
        kiss_fft_free(complex);
    }
    ChannelTransform(const ChannelTransform&) = delete;
    ChannelTransform& operator=(const ChannelTransform&) = delete;

    bool made() const { return real != nullptr || complex != nullptr; }

    void run(const float* samples, kiss_fft_cpx* bins) {
        if (real != nullptr) {
            kiss_fftr(real, samples, bins);
            return;
        }
        for (int k = 0; k < length; ++k) input[static_cast<size_t>(k)] = {samples[k], 0.0f};
        kiss_fft(complex, input.data(), output.data());
        std::copy(output.begin(), output.begin() + (length / 2 + 1), bins);
    }

  private:
    int length;
    kiss_fftr_cfg real = nullptr;
    kiss_fft_cfg complex = nullptr;
    std::vector<kiss_fft_cpx> input;
    std::vector<kiss_fft_cpx> output;
};

class KissFftPlan final : public FftPlan {
  public:
    KissFftPlan(std::vector<std::unique_ptr<ChannelTransform>> channels_, int length_, CpuEnqueue enqueue_)
        : channels(std::move(channels_)), length(length_), enqueue(std::move(enqueue_)) {}

    int execute(const float* input, float2* output, DeviceStream stream) override {
        if (channels.empty()) return 1;  // "Invalid plan"
        return enqueue(stream, [this, input, output] { transform(input, output); }) ? 0 : kFftInvalidValue;
    }

    int destroy() override {
        channels.clear();
        return 0;
    }

  private:
    // Channel by channel; large batches are shared with the CPU workers
    // that join in. A second transform of the same plan waits for the first, whose
    // scratch arrays it would share.
    void transform(const float* input, float2* output) {
        std::lock_guard<std::mutex> lock(running);
        const size_t bins = static_cast<size_t>(length / 2 + 1);
        auto* out = reinterpret_cast<kiss_fft_cpx*>(output);
        const int batch = static_cast<int>(channels.size());
        auto channel = [&](int c) {
            const auto index = static_cast<size_t>(c);
            channels[index]->run(input + index * length, out + index * bins);
        };
        if (static_cast<long>(length) * batch * kFftWorkPerSample >= kCpuSharedLaunchWork) {
            CpuKernelPool::instance().run(batch, channel);
        } else {
            for (int c = 0; c < batch; ++c) channel(c);
        }
    }

    std::vector<std::unique_ptr<ChannelTransform>> channels;
    int length;
    CpuEnqueue enqueue;
    std::mutex running;
};

}  // namespace

// KissFFT has no planner: `measure` changes nothing.
int createCpuFftPlan(std::unique_ptr<FftPlan>* result, int length, int batch, bool /*measure*/,
                     const CpuEnqueue& enqueue) {
    if (length < 1 || batch < 1) return kFftInvalidValue;
    std::vector<std::unique_ptr<ChannelTransform>> channels;
    for (int c = 0; c < batch; ++c) {
        channels.push_back(std::make_unique<ChannelTransform>(length));
        if (!channels.back()->made()) return kFftAlloc;
    }
    *result = std::make_unique<KissFftPlan>(std::move(channels), length, enqueue);
    return 0;
}

}  // namespace tarnel
