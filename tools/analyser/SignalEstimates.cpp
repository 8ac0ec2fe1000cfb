#include "SignalEstimates.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace tarnel::analyser {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kLowestFrequency = 15.0, kHighestFrequency = 500.0;
// At most one second, and at most this many samples of it, enter the
// spectrum; longer stretches are thinned (to no less than 4 kHz).
constexpr double kSpectrumSeconds = 1.0;
constexpr size_t kSpectrumSamples = 4096;
constexpr double kLevelTolerance = 0.05;

struct Thinned {
    std::vector<double> values;  // Hann-windowed, mean removed
    double rate = 0.0;
};

Thinned thin(const float* samples, size_t count, size_t stride, double sampleRate) {
    const size_t step = std::max<size_t>(1, (count + kSpectrumSamples - 1) / kSpectrumSamples);
    Thinned t;
    t.rate = sampleRate / static_cast<double>(step);
    for (size_t k = 0; k < count; k += step) t.values.push_back(samples[k * stride]);
    double mean = 0.0;
    for (double v : t.values) mean += v;
    mean /= static_cast<double>(t.values.size());
    const double n = static_cast<double>(t.values.size());
    for (size_t k = 0; k < t.values.size(); ++k)
        t.values[k] = (t.values[k] - mean) * (0.5 - 0.5 * std::cos(2.0 * kPi * static_cast<double>(k) / n));
    return t;
}

double magnitudeAt(const Thinned& t, double frequency) {
    const std::complex<double> step = std::polar(1.0, -2.0 * kPi * frequency / t.rate);
    std::complex<double> phasor = 1.0, sum = 0.0;
    for (size_t k = 0; k < t.values.size(); ++k) {
        sum += t.values[k] * phasor;
        phasor *= step;
        if ((k & 1023) == 1023) phasor /= std::abs(phasor);  // keep the rotation on the unit circle
    }
    return std::abs(sum);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

}  // namespace

double estimateFundamentalFrequency(const float* samples, size_t count, size_t stride, double sampleRate) {
    if (count < 16 || !(sampleRate > 0.0)) return 0.0;
    count = std::min(count, static_cast<size_t>(std::ceil(kSpectrumSeconds * sampleRate)));
    const Thinned t = thin(samples, count, stride, sampleRate);
    const double duration = static_cast<double>(t.values.size()) / t.rate;
    const double highest = std::min(kHighestFrequency, 0.4 * t.rate);
    // Steps of a quarter of the spectral resolution cannot miss the Hann main lobe.
    const double step = 0.25 / duration;
    double best = 0.0, bestMagnitude = 0.0;
    for (double f = kLowestFrequency; f <= highest; f += step) {
        const double m = magnitudeAt(t, f);
        if (m > bestMagnitude) best = f, bestMagnitude = m;
    }
    if (best == 0.0) return 0.0;
    for (double f = best - step; f <= best + step; f += step / 32.0) {
        const double m = magnitudeAt(t, f);
        if (m > bestMagnitude) best = f, bestMagnitude = m;
    }
    // A sine of amplitude A gives A * n / 4 under the Hann window; the
    // fundamental must carry at least half the signal's RMS.
    double energy = 0.0;
    for (double v : t.values) energy += v * v;
    const double windowedRms = std::sqrt(energy / static_cast<double>(t.values.size()));
    const double amplitude = 4.0 * bestMagnitude / static_cast<double>(t.values.size());
    // The Hann window's RMS is sqrt(3/8) of the signal's.
    const double signalRms = windowedRms / std::sqrt(3.0 / 8.0);
    return amplitude / std::sqrt(2.0) >= 0.5 * signalRms ? best : 0.0;
}

double nominalFrequencyFor(double measured) {
    for (double standard : {50.0 / 3.0, 25.0, 50.0, 60.0, 400.0})
        if (std::fabs(measured - standard) <= 0.05 * standard) return standard;
    return std::round(measured * 10.0) / 10.0;
}

std::vector<std::vector<double>> cycleRms(const std::vector<std::vector<float>>& channels, double samplesPerCycle) {
    std::vector<std::vector<double>> result(channels.size());
    if (!(samplesPerCycle >= 1.0)) return result;
    for (size_t c = 0; c < channels.size(); ++c) {
        const size_t n = channels[c].size();
        for (size_t cycle = 0;; ++cycle) {
            const auto begin = static_cast<size_t>(std::llround(static_cast<double>(cycle) * samplesPerCycle));
            const auto end = static_cast<size_t>(std::llround(static_cast<double>(cycle + 1) * samplesPerCycle));
            if (end > n || end <= begin) break;
            double sum = 0.0;
            for (size_t k = begin; k < end; ++k) sum += double(channels[c][k]) * channels[c][k];
            result[c].push_back(std::sqrt(sum / static_cast<double>(end - begin)));
        }
    }
    return result;
}

double preDisturbanceLevel(const std::vector<std::vector<double>>& rmsPerChannel) {
    size_t cycles = rmsPerChannel.empty() ? 0 : rmsPerChannel.front().size();
    for (const auto& channel : rmsPerChannel) cycles = std::min(cycles, channel.size());
    if (cycles == 0) return 0.0;
    size_t quiet = 1;
    for (; quiet < cycles; ++quiet) {
        const bool disturbed = std::any_of(rmsPerChannel.begin(), rmsPerChannel.end(), [&](const auto& channel) {
            return std::fabs(channel[quiet] - channel[0]) > kLevelTolerance * channel[0];
        });
        if (disturbed) break;
    }
    std::vector<double> levels;
    for (const auto& channel : rmsPerChannel) {
        double sum = 0.0;
        for (size_t k = 0; k < quiet; ++k) sum += channel[k];
        levels.push_back(sum / static_cast<double>(quiet));
    }
    return median(levels);
}

double FundamentalFit::at(double k) const {
    return cosine * std::cos(radiansPerSample * k) + sine * std::sin(radiansPerSample * k) + offset;
}

FundamentalFit fitFundamental(const float* samples, size_t count, double samplesPerCycle) {
    FundamentalFit fit;
    fit.radiansPerSample = 2.0 * kPi / samplesPerCycle;
    // Normal equations of the three basis functions cos, sin, 1.
    double m[3][4] = {};
    for (size_t k = 0; k < count; ++k) {
        const double basis[3] = {std::cos(fit.radiansPerSample * static_cast<double>(k)),
                                 std::sin(fit.radiansPerSample * static_cast<double>(k)), 1.0};
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) m[r][c] += basis[r] * basis[c];
            m[r][3] += basis[r] * samples[k];
        }
    }
    // Gaussian elimination with partial pivoting; a singular system (too
    // few samples) leaves the fit at zero.
    for (int col = 0; col < 3; ++col) {
        int pivot = col;
        for (int r = col + 1; r < 3; ++r)
            if (std::fabs(m[r][col]) > std::fabs(m[pivot][col])) pivot = r;
        if (std::fabs(m[pivot][col]) < 1e-9) return fit;
        std::swap(m[col], m[pivot]);
        for (int r = 0; r < 3; ++r) {
            if (r == col) continue;
            const double factor = m[r][col] / m[col][col];
            for (int c = col; c < 4; ++c) m[r][c] -= factor * m[col][c];
        }
    }
    fit.cosine = m[0][3] / m[0][0];
    fit.sine = m[1][3] / m[1][1];
    fit.offset = m[2][3] / m[2][2];
    return fit;
}

}  // namespace tarnel::analyser
