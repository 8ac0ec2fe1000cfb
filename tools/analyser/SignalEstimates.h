// Estimates taken from a recording's first seconds when the user gives no
// nominal values: the fundamental frequency and the voltage level before the
// first disturbance.
#pragma once

#include <cstddef>
#include <vector>

namespace tarnel::analyser {

// Frequency of the strongest component between 15 and 500 Hz over the first
// second (Hann-windowed spectrum, refined to a small fraction of its
// resolution), in Hz; 0 when the signal has no clear fundamental there.
// `stride` steps over interleaved data.
double estimateFundamentalFrequency(const float* samples, size_t count, size_t stride, double sampleRate);

// The nominal frequency a measured fundamental belongs to: 16 2/3, 25, 50, 60
// or 400 Hz when within 5 % of one, otherwise the measured value to 0.1 Hz.
double nominalFrequencyFor(double measured);

// RMS of each whole cycle of each channel (channels[c][k]), cycle c spanning
// samples [round(c * period), round((c + 1) * period)).
std::vector<std::vector<double>> cycleRms(const std::vector<std::vector<float>>& channels, double samplesPerCycle);

// The level of the cycles before the first disturbance: the cycles from the
// start up to the first one in which a channel leaves +-5 % of its first
// cycle's level; the median over channels of each channel's mean over those
// cycles. 0 when there is no whole cycle.
double preDisturbanceLevel(const std::vector<std::vector<double>>& rmsPerChannel);

// A sine of known frequency fitted by least squares, with an offset:
// x(k) = cosine * cos(w k) + sine * sin(w k) + offset, k in samples from the
// first fitted sample. Used to continue a signal before its start or after
// its end.
struct FundamentalFit {
    double cosine = 0.0, sine = 0.0, offset = 0.0, radiansPerSample = 0.0;
    double at(double k) const;
};

FundamentalFit fitFundamental(const float* samples, size_t count, double samplesPerCycle);

}  // namespace tarnel::analyser
