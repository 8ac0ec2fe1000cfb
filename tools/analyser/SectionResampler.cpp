#include "SectionResampler.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace tarnel::analyser {

namespace {

using tarnel::recordings::SampleSection;

constexpr double kPi = 3.141592653589793;
constexpr int kHalfWidth = 16;  // input samples on each side of the output instant
constexpr double kKaiserBeta = 8.0;

double besselI0(double x) {
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
    }
    return sum;
}

// The interpolation kernel at a distance of d input samples.
double kernel(double d) {
    if (std::fabs(d) >= kHalfWidth) return 0.0;
    const double sinc = d == 0.0 ? 1.0 : std::sin(kPi * d) / (kPi * d);
    const double r = d / kHalfWidth;
    return sinc * besselI0(kKaiserBeta * std::sqrt(1.0 - r * r)) / besselI0(kKaiserBeta);
}

}  // namespace

double uniformRateFor(const std::vector<SampleSection>& sections) {
    double rate = 0.0;
    for (const SampleSection& s : sections) rate = std::max(rate, s.sampleRate);
    return rate;
}

std::vector<float> resampleSections(const std::vector<float>& interleaved, size_t channels,
                                    const std::vector<SampleSection>& sections, double rate) {
    if (channels == 0 || sections.empty() || !(rate > 0.0)) throw std::invalid_argument("nothing to resample");
    // Start time of each section, and the time just after the last sample.
    std::vector<double> sectionStart;
    double t = 0.0;
    for (const SampleSection& s : sections) {
        if (!(s.sampleRate > 0.0)) throw std::invalid_argument("a sample-rate section without a rate");
        sectionStart.push_back(t);
        t += static_cast<double>(s.sampleCount) / s.sampleRate;
    }
    const size_t inputCount = interleaved.size() / channels;
    const double lastTime = t - 1.0 / sections.back().sampleRate;
    const auto outputCount = static_cast<size_t>(std::floor(lastTime * rate + 1e-9)) + 1;
    std::vector<float> out(outputCount * channels);
    std::vector<double> sums(channels);
    size_t section = 0;
    for (size_t m = 0; m < outputCount; ++m) {
        const double time = static_cast<double>(m) / rate;
        while (section + 1 < sections.size() && time >= sectionStart[section + 1]) ++section;
        // Position on the input's sample axis, fractional.
        const SampleSection& s = sections[section];
        const double position = static_cast<double>(s.firstSample) + (time - sectionStart[section]) * s.sampleRate;
        const auto centre = static_cast<long long>(std::floor(position));
        const long long first = std::max<long long>(0, centre - kHalfWidth + 1);
        const long long last = std::min<long long>(static_cast<long long>(inputCount) - 1, centre + kHalfWidth);
        std::fill(sums.begin(), sums.end(), 0.0);
        double weights = 0.0;
        for (long long k = first; k <= last; ++k) {
            const double w = kernel(position - static_cast<double>(k));
            weights += w;
            const float* sample = &interleaved[static_cast<size_t>(k) * channels];
            for (size_t c = 0; c < channels; ++c) sums[c] += w * sample[c];
        }
        // Inside the stretch the weights sum to 1 within the kernel's ripple;
        // near its ends the missing neighbours are made up for.
        for (size_t c = 0; c < channels; ++c) out[m * channels + c] = static_cast<float>(sums[c] / weights);
    }
    return out;
}

}  // namespace tarnel::analyser
