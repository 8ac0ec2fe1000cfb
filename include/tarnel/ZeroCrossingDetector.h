// Zero crossings and frequency of the fundamental of a streamed voltage signal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tarnel/Export.h"
#include "tarnel/PreciseFraction.h"

namespace tarnel {

// Finds the rising zero crossings of the fundamental of one voltage channel at
// fractional sample positions and turns them into one ZeroCrossingInterval per
// period. This is the recommended way to obtain the intervals for
// PowerModule::scheduleForPeriodCalculationFromZeroCrossing and the block
// frequencies for PowerModule::scheduleForPeriodCalculation.
//
// The signal passes a linear-phase filter (decimating low-pass, then a
// band-pass that is flat over the plausible frequency range and stops DC,
// harmonics, distant interharmonics and most of the noise). Rising sign
// changes of the filtered signal are located by cubic interpolation and moved
// back by the filter's delay, which is a whole number of samples at every
// frequency. Positions therefore stay accurate while the frequency drifts.
//
// Streaming: samples are pushed in chunks of any size; the output does not
// depend on how the stream is cut. Sample indices are absolute, counted from
// the start index given at construction or reset(). Crossings become final
// at most latency() samples after the sample that carries them.
//
// Intervals cover the stream without gaps from the start index on: each
// interval's start equals the previous interval's end. A period is valid when
//  - both ends are crossings found in the signal,
//  - its frequency lies in [minimumFrequency, maximumFrequency],
//  - its fundamental's peak amplitude is at least minimumAmplitude,
//  - the fundamental carries at least minimumFundamentalShare of the signal's
//    RMS (rejects noise, whose filtered version also crosses zero near the
//    nominal rate), and
//  - the filtered fundamental matches the signal's in-phase content within 1 %
//    and the signal's content in quadrature to it stays within 1 % (a phase
//    offset of about 0.6 degrees), which rejects the periods where the filter
//    still rings after the signal stopped, has not caught up after it started,
//    or blends the signal before and after an amplitude step or phase jump, and
//  - no period within three periods before or after it is invalid: the
//    filter's response to an abrupt change displaces crossings by more than
//    0.01 samples for up to three periods on either side.
// Where no crossing shows up for two nominal periods (start-up while the filter
// fills, silence, interruptions) the detector inserts boundaries one nominal
// period apart; intervals that touch such a boundary are invalid.
//
// To decide the last rule, the newest three intervals are held back until three
// more have closed. Around an amplitude step or a phase jump the valid periods
// therefore stay as exact as in a steady signal (within 0.01 samples), while
// the seven or so periods around the change are invalid.
//
// Memory is constant: the filter state, the last `historyLength` intervals for
// frequency queries, the three held-back intervals, and the intervals not yet
// taken (take them regularly).
//
// Usage:
//
//     ZeroCrossingDetector detector(sampleRate, 50.0, firstSampleIndex);
//     for (;;) {
//         detector.addSamples(voltageL1, count);  // the caller's newest samples
//         std::vector<ZeroCrossingInterval> periods = detector.takeIntervals();
//         if (!periods.empty()) module.scheduleForPeriodCalculationFromZeroCrossing(periods);
//
//         // or, for block mode: the mean frequency of a block once it is known
//         ZeroCrossingDetector::RangeFrequency f = detector.frequencyForRange(blockStart, blockLength);
//         if (f.status == ZeroCrossingDetector::RangeStatus::Ready) { /* use f.frequency, f.valid */ }
//     }
class TARNEL_API ZeroCrossingDetector {
  public:
    struct Settings {
        // Plausible frequency range in Hz; 0 selects 0.85 and 1.15 times the
        // nominal frequency. The range must lie within 0.5 to 2 times nominal.
        double minimumFrequency = 0.0;
        double maximumFrequency = 0.0;
        // Smallest peak amplitude of the fundamental, in signal units, for a
        // valid period (e.g. 10 % of the nominal peak voltage); 0 disables it.
        double minimumAmplitude = 0.0;
        // Smallest ratio of the fundamental's RMS to the RMS of the signal
        // (its content up to at least 16 times nominal) for a valid period; rejects
        // crossings of noise or of a signal that is not a mains voltage.
        double minimumFundamentalShare = 0.5;
        // Intervals kept for frequencyForRange.
        size_t historyLength = 512;
    };

    enum class RangeStatus {
        Ready,    // the whole range is covered by emitted intervals
        Pending,  // its end is not covered yet: push more samples and ask again
        Expired,  // it starts before the kept history or before the start index
    };

    struct RangeFrequency {
        RangeStatus status = RangeStatus::Pending;
        // Mean fundamental frequency over the range, Hz (periods in the range
        // divided by its duration); set when Ready.
        double frequency = 0.0;
        // Every interval overlapping the range is valid; set when Ready.
        bool valid = false;
    };

    // Throws std::invalid_argument for a sample rate below 10 times the
    // nominal frequency, non-positive rates or inconsistent settings.
    ZeroCrossingDetector(double sampleRate, double nominalFrequency, uint64_t firstSampleIndex = 0);
    ZeroCrossingDetector(double sampleRate, double nominalFrequency, uint64_t firstSampleIndex,
                         const Settings& settings);
    ~ZeroCrossingDetector();
    ZeroCrossingDetector(ZeroCrossingDetector&&) noexcept;
    ZeroCrossingDetector& operator=(ZeroCrossingDetector&&) noexcept;
    ZeroCrossingDetector(const ZeroCrossingDetector&) = delete;
    ZeroCrossingDetector& operator=(const ZeroCrossingDetector&) = delete;

    // Forgets everything, untaken intervals included; the next sample pushed
    // has index firstSampleIndex.
    void reset(uint64_t firstSampleIndex);

    // Appends `count` consecutive samples.
    void addSamples(const float* samples, size_t count);

    // The intervals completed since the last call, in order.
    std::vector<ZeroCrossingInterval> takeIntervals();

    // Mean frequency over the samples [firstSample, firstSample + sampleCount).
    // Throws std::invalid_argument for an empty range.
    RangeFrequency frequencyForRange(uint64_t firstSample, uint64_t sampleCount) const;

    // Frequency of the newest valid period; the nominal frequency until there is one.
    double latestFrequency() const;

    // Index of the next sample to push.
    uint64_t nextSampleIndex() const;
    // At most this many samples separate the newest sample pushed from the
    // point up to which all intervals have been handed out (filter delay,
    // interpolation look-ahead and the three held-back periods): about 0.25 s.
    uint64_t latency() const;

    double sampleRate() const;
    double nominalFrequency() const;
    // The settings in use, with defaults filled in.
    const Settings& settings() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::ZeroCrossingDetector;
#endif
