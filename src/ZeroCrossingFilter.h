// Linear-phase filtering that isolates the fundamental for ZeroCrossingDetector.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarnel {

// A streaming FIR filter with symmetric taps: its delay is exactly half its
// length at every frequency. Input samples are kept twice in a buffer of twice
// the filter length, so that the newest `length` samples are always contiguous.
class SymmetricFir {
  public:
    explicit SymmetricFir(std::vector<double> taps);

    // Stores one sample; the filter output over the newest samples is then
    // available from output() once `length()` samples have been pushed.
    void push(double x) {
        position = position + 1 == taps.size() ? 0 : position + 1;
        history[position] = x;
        history[position + taps.size()] = x;
    }
    // Filtered value at the centre of the newest `length()` samples.
    double output() const;
    // The sample at the centre of the newest `length()` samples, unfiltered.
    double centreSample() const { return history[position + 1 + delay()]; }

    size_t length() const { return taps.size(); }
    size_t delay() const { return (taps.size() - 1) / 2; }
    const std::vector<double>& coefficients() const { return taps; }
    void clear();

  private:
    std::vector<double> taps;
    std::vector<double> history;
    size_t position;
};

// Low-pass decimation followed by a flat-topped band-pass around the nominal
// frequency. The cascade is linear-phase, so the output is the fundamental
// delayed by a whole number of input samples; the flat passband keeps even a
// drifting fundamental's phase unbiased. Output number m (from 0 after a
// clear) is centred on input sample firstSample + delay() + m * decimation().
class FundamentalFilter {
  public:
    struct Output {
        double fundamental;  // band-passed signal
        double wideband;     // low-passed signal at the same instant, for level comparisons
    };

    // Passes [passLow, passHigh] Hz flat (ripple 1e-4), stops below
    // passLow - transition and above passHigh + transition by 80 dB.
    FundamentalFilter(double sampleRate, double nominalFrequency, double passLow, double passHigh, double transition);

    // Feeds one input sample; returns true and fills `out` when it completes an output.
    bool push(float x, Output& out) {
        decimator.push(x);
        if (--untilDecimatedOutput != 0) return false;
        untilDecimatedOutput = decimationFactor;
        bandPass.push(decimator.output());
        if (decimatedCount < bandPass.length() && ++decimatedCount < bandPass.length()) return false;
        out.fundamental = bandPass.output();
        out.wideband = bandPass.centreSample();
        return true;
    }

    void clear();
    unsigned decimation() const { return decimationFactor; }
    // Input samples from the first sample to the centre of the first output.
    uint64_t delay() const { return decimator.delay() + bandPass.delay() * static_cast<uint64_t>(decimationFactor); }

  private:
    unsigned decimationFactor;
    SymmetricFir decimator;
    SymmetricFir bandPass;
    unsigned untilDecimatedOutput;
    size_t decimatedCount;
};

}  // namespace tarnel
