#include "tarnel/ZeroCrossingDetector.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <stdexcept>
#include <utility>

#include "ZeroCrossingFilter.h"

namespace tarnel {

namespace {

// `p` moved forward by `samples` (>= 0), fraction kept in [0, 1).
PreciseFraction advanced(PreciseFraction p, double samples) {
    const double x = p.fraction + samples;
    const double whole = std::floor(x);
    p.index += static_cast<uint64_t>(whole);
    p.fraction = x - whole;
    return p;
}

// Signed distance to - from in samples, without forming a negative unsigned difference.
double distance(PreciseFraction to, PreciseFraction from) {
    const double f = to.fraction - from.fraction;
    if (to.index >= from.index) return static_cast<double>(to.index - from.index) + f;
    return f - static_cast<double>(from.index - to.index);
}

// Root in [0, 1] of the cubic through (-1, z[0]), (0, z[1]), (1, z[2]), (2, z[3]),
// given z[1] < 0 <= z[2]. Newton's method, falling back to bisection whenever a
// step would leave the bracket.
double cubicCrossing(const double z[4]) {
    const double c0 = z[1];
    const double c1 = -z[0] / 3.0 - z[1] / 2.0 + z[2] - z[3] / 6.0;
    const double c2 = z[0] / 2.0 - z[1] + z[2] / 2.0;
    const double c3 = -z[0] / 6.0 + z[1] / 2.0 - z[2] / 2.0 + z[3] / 6.0;
    if (z[2] == 0.0) return 1.0;

    double lo = 0.0;
    double hi = 1.0;
    double t = z[1] / (z[1] - z[2]);  // the linear estimate
    for (int i = 0; i < 100; ++i) {
        const double value = ((c3 * t + c2) * t + c1) * t + c0;
        if (value == 0.0) return t;
        if (value < 0.0) {
            lo = t;
        } else {
            hi = t;
        }
        const double slope = (3.0 * c3 * t + 2.0 * c2) * t + c1;
        double next = 0.5 * (lo + hi);
        if (slope > 0.0) {
            const double newton = t - value / slope;
            if (newton > lo && newton < hi) next = newton;
        }
        if (std::fabs(next - t) < 1e-15) return next;
        t = next;
    }
    return t;
}

// Largest relative difference between the filtered fundamental and the
// signal's in-phase component over a valid period.
const double maximumInPhaseDeviation = 0.01;
// Largest component of the signal in quadrature to the filtered fundamental over a valid period,
// relative to the fundamental: the sine of the largest phase offset accepted (about 0.6 degrees).
const double maximumQuadratureShare = 0.01;

// Periods on either side of an invalid period that are invalid as well: the filter's response to an
// abrupt change displaces crossings by more than 0.01 samples for up to three periods around it.
const size_t disturbanceGuardPeriods = 3;

ZeroCrossingDetector::Settings completed(ZeroCrossingDetector::Settings s, double sampleRate, double nominalFrequency) {
    if (!(sampleRate > 0.0) || !(nominalFrequency > 0.0) || !std::isfinite(sampleRate) ||
        !(sampleRate >= 10.0 * nominalFrequency)) {
        throw std::invalid_argument("zero-crossing detector: sample rate below 10 times the nominal frequency");
    }
    if (s.minimumFrequency == 0.0) s.minimumFrequency = 0.85 * nominalFrequency;
    if (s.maximumFrequency == 0.0) s.maximumFrequency = 1.15 * nominalFrequency;
    if (!(s.minimumFrequency >= 0.5 * nominalFrequency && s.minimumFrequency < nominalFrequency &&
          s.maximumFrequency > nominalFrequency && s.maximumFrequency <= 2.0 * nominalFrequency)) {
        throw std::invalid_argument("zero-crossing detector: frequency range not within 0.5 to 2 times nominal");
    }
    if (!(s.minimumAmplitude >= 0.0) || !(s.minimumFundamentalShare >= 0.0 && s.minimumFundamentalShare <= 1.0) ||
        s.historyLength == 0) {
        throw std::invalid_argument("zero-crossing detector: settings out of range");
    }
    return s;
}

// The flat passband reaches a little beyond the plausible range; each
// transition band is 0.4 times the nominal frequency wide (narrower only for a
// minimum frequency close to half the nominal one).
FundamentalFilter makeFilter(double sampleRate, double nominalFrequency, const ZeroCrossingDetector::Settings& s) {
    const double passLow = 0.97 * s.minimumFrequency;
    const double passHigh = 1.03 * s.maximumFrequency;
    const double transition = std::min(0.4 * nominalFrequency, 0.8 * passLow);
    return FundamentalFilter(sampleRate, nominalFrequency, passLow, passHigh, transition);
}

}  // namespace

class ZeroCrossingDetector::Impl {
  public:
    Impl(double sampleRate, double nominalFrequency, uint64_t firstSampleIndex, const Settings& s)
        : rate(sampleRate),
          nominal(nominalFrequency),
          config(completed(s, sampleRate, nominalFrequency)),
          nominalPeriod(sampleRate / nominalFrequency),
          filter(makeFilter(sampleRate, nominalFrequency, config)) {
        reset(firstSampleIndex);
    }

    void reset(uint64_t firstSampleIndex) {
        filter.clear();
        firstIndex = firstSampleIndex;
        nextIndex = firstSampleIndex;
        filteredCount = 0;
        std::fill(std::begin(fundamental), std::end(fundamental), 0.0);
        std::fill(std::begin(wideband), std::end(wideband), 0.0);
        // The stream's start is the first boundary; no crossing is known there.
        boundary = PreciseFraction{firstSampleIndex, 0.0};
        boundaryIsCrossing = false;
        clearLevels();
        pending.clear();
        held.clear();
        invalidAhead = 0;
        history.clear();
        latestValidFrequency = nominal;
    }

    void addSamples(const float* samples, size_t count) {
        FundamentalFilter::Output out;
        for (size_t i = 0; i < count; ++i) {
            if (filter.push(samples[i], out)) onFiltered(out);
        }
        nextIndex += count;
    }

    std::vector<ZeroCrossingInterval> takeIntervals() {
        std::vector<ZeroCrossingInterval> taken;
        taken.swap(pending);
        return taken;
    }

    RangeFrequency frequencyForRange(uint64_t firstSample, uint64_t sampleCount) const {
        if (sampleCount == 0) throw std::invalid_argument("frequency of an empty sample range");
        RangeFrequency result;
        const PreciseFraction a{firstSample, 0.0};
        const PreciseFraction b{firstSample + sampleCount, 0.0};
        if (firstSample < firstIndex || (!history.empty() && distance(a, history.front().start) < 0.0)) {
            result.status = RangeStatus::Expired;
            return result;
        }
        if (history.empty() || distance(b, history.back().end) > 0.0) {
            result.status = RangeStatus::Pending;
            return result;
        }
        // Each interval is one period: the share of it inside the range counts
        // as that share of a period.
        const double span = static_cast<double>(sampleCount);
        double periods = 0.0;
        bool valid = true;
        for (auto it = history.rbegin(); it != history.rend(); ++it) {
            const double end = distance(it->end, a);
            if (end <= 0.0) break;
            const double start = distance(it->start, a);
            const double overlap = std::min(end, span) - std::max(start, 0.0);
            if (overlap <= 0.0) continue;
            periods += overlap / (end - start);
            valid = valid && it->valid;
        }
        result.status = RangeStatus::Ready;
        result.frequency = periods * rate / span;
        result.valid = valid;
        return result;
    }

    double latestFrequency() const { return latestValidFrequency; }
    uint64_t nextSampleIndex() const { return nextIndex; }
    // Besides the filter, the guard periods held back, each at most two nominal periods long.
    uint64_t latency() const {
        const auto guard = static_cast<uint64_t>(std::ceil(2.0 * nominalPeriod * disturbanceGuardPeriods));
        return filter.delay() + 2 * static_cast<uint64_t>(filter.decimation()) - 1 + guard;
    }
    double sampleRate() const { return rate; }
    double nominalFrequency() const { return nominal; }
    const Settings& settings() const { return config; }

  private:
    // Position of filtered output k: the filter delays by a whole number of samples.
    PreciseFraction outputPosition(uint64_t k) const {
        return PreciseFraction{firstIndex + filter.delay() + k * filter.decimation(), 0.0};
    }

    void onFiltered(const FundamentalFilter::Output& out) {
        std::rotate(std::begin(fundamental), std::begin(fundamental) + 1, std::end(fundamental));
        std::rotate(std::begin(wideband), std::begin(wideband) + 1, std::end(wideband));
        fundamental[3] = out.fundamental;
        wideband[3] = out.wideband;
        if (++filteredCount < 4) return;

        // Output k sits at fundamental[1]; the cubic also uses one output on
        // each side of the pair (k, k + 1).
        const uint64_t k = filteredCount - 3;
        sumFundamental2 += fundamental[1] * fundamental[1];
        sumWideband2 += wideband[1] * wideband[1];
        sumProduct += fundamental[1] * wideband[1];
        // The central difference of the filtered fundamental is its quadrature (a quarter period
        // ahead), scaled by a constant that the normalisation in isPlausible removes.
        const double quadrature = fundamental[2] - fundamental[0];
        sumQuadrature2 += quadrature * quadrature;
        sumQuadratureProduct += quadrature * wideband[1];
        ++levelCount;

        if (fundamental[1] < 0.0 && fundamental[2] >= 0.0) {
            const double t = cubicCrossing(fundamental);
            closeInterval(advanced(outputPosition(k), t * filter.decimation()), true);
        }

        // All crossings up to output k + 1 are known now. Bridge long gaps
        // with boundaries one nominal period apart, so that intervals keep coming.
        const PreciseFraction settled = outputPosition(k + 1);
        while (distance(settled, boundary) > 2.0 * nominalPeriod) {
            closeInterval(advanced(boundary, nominalPeriod), false);
        }
    }

    void closeInterval(PreciseFraction end, bool endIsCrossing) {
        ZeroCrossingInterval interval;
        interval.start = boundary;
        interval.end = end;
        interval.frequency = rate / distance(end, boundary);
        interval.valid = boundaryIsCrossing && endIsCrossing && isPlausible(interval.frequency);

        boundary = end;
        boundaryIsCrossing = endIsCrossing;
        clearLevels();

        markDisturbedNeighbours(interval);
        held.push_back(interval);
        if (held.size() > disturbanceGuardPeriods) {
            emit(held.front());
            held.pop_front();
        }
    }

    // The filter blends the signal over several periods on both sides of an abrupt change, so the
    // crossings next to a period that failed the checks are displaced although their own periods
    // pass them: the guard periods before and after an invalid period are invalid as well. The
    // periods before are still held back for this; the ones after are marked as they close.
    void markDisturbedNeighbours(ZeroCrossingInterval& interval) {
        if (!interval.valid) {
            for (ZeroCrossingInterval& before : held) before.valid = false;
            invalidAhead = disturbanceGuardPeriods;
        } else if (invalidAhead > 0) {
            interval.valid = false;
            --invalidAhead;
        }
    }

    void emit(const ZeroCrossingInterval& interval) {
        pending.push_back(interval);
        history.push_back(interval);
        if (history.size() > config.historyLength) history.pop_front();
        if (interval.valid) latestValidFrequency = interval.frequency;
    }

    bool isPlausible(double frequency) const {
        if (frequency < config.minimumFrequency || frequency > config.maximumFrequency) return false;
        if (!(sumFundamental2 > 0.0)) return false;
        // The passband gain is 1, so the filtered RMS is the fundamental's RMS.
        const double fundamentalRms = std::sqrt(sumFundamental2 / static_cast<double>(levelCount));
        const double signalRms = std::sqrt(sumWideband2 / static_cast<double>(levelCount));
        // Over a steady period everything but the fundamental is orthogonal to
        // it, so the signal's component along the filtered fundamental equals
        // the filtered fundamental. It does not while the filter still rings
        // after the signal has stopped or changed, or has not caught up yet
        // after it started: crossings there are displaced.
        const double inPhaseGain = sumProduct / sumFundamental2;
        // Near an amplitude step or a phase jump the filtered fundamental blends the signal before
        // and after it: the signal then leads or lags the filtered fundamental, which shows as a
        // component in quadrature (its sine of the phase offset), while the in-phase gain, the
        // cosine, hardly moves. Such periods are displaced by degrees and are rejected.
        const double quadratureShare =
            sumQuadrature2 > 0.0 ? sumQuadratureProduct / std::sqrt(sumQuadrature2 * sumFundamental2) : 0.0;
        return std::sqrt(2.0) * fundamentalRms >= config.minimumAmplitude &&
               fundamentalRms >= config.minimumFundamentalShare * signalRms &&
               std::fabs(inPhaseGain - 1.0) <= maximumInPhaseDeviation &&
               std::fabs(quadratureShare) <= maximumQuadratureShare;
    }

    void clearLevels() {
        sumProduct = 0.0;
        sumFundamental2 = 0.0;
        sumWideband2 = 0.0;
        sumQuadrature2 = 0.0;
        sumQuadratureProduct = 0.0;
        levelCount = 0;
    }

    const double rate;
    const double nominal;
    const Settings config;
    const double nominalPeriod;  // samples
    FundamentalFilter filter;

    uint64_t firstIndex = 0;
    uint64_t nextIndex = 0;
    uint64_t filteredCount = 0;
    double fundamental[4] = {};  // newest filtered outputs, oldest first
    double wideband[4] = {};     // low-passed signal at the same instants

    PreciseFraction boundary;  // start of the interval in progress
    bool boundaryIsCrossing = false;
    double sumFundamental2 = 0.0;  // levels over the interval in progress
    double sumWideband2 = 0.0;
    double sumProduct = 0.0;  // filtered times wideband
    double sumQuadrature2 = 0.0;
    double sumQuadratureProduct = 0.0;  // quadrature of the filtered times wideband
    uint64_t levelCount = 0;

    std::vector<ZeroCrossingInterval> pending;
    std::deque<ZeroCrossingInterval> held;  // closed, validity not final yet
    size_t invalidAhead = 0;                // periods still to mark invalid after a disturbed one
    std::deque<ZeroCrossingInterval> history;
    double latestValidFrequency = 0.0;
};

ZeroCrossingDetector::ZeroCrossingDetector(double sampleRate, double nominalFrequency, uint64_t firstSampleIndex)
    : ZeroCrossingDetector(sampleRate, nominalFrequency, firstSampleIndex, Settings()) {}

ZeroCrossingDetector::ZeroCrossingDetector(double sampleRate, double nominalFrequency, uint64_t firstSampleIndex,
                                           const Settings& settings)
    : impl(std::make_unique<Impl>(sampleRate, nominalFrequency, firstSampleIndex, settings)) {}

ZeroCrossingDetector::~ZeroCrossingDetector() = default;
ZeroCrossingDetector::ZeroCrossingDetector(ZeroCrossingDetector&&) noexcept = default;
ZeroCrossingDetector& ZeroCrossingDetector::operator=(ZeroCrossingDetector&&) noexcept = default;

void ZeroCrossingDetector::reset(uint64_t firstSampleIndex) { impl->reset(firstSampleIndex); }

void ZeroCrossingDetector::addSamples(const float* samples, size_t count) { impl->addSamples(samples, count); }

std::vector<ZeroCrossingInterval> ZeroCrossingDetector::takeIntervals() { return impl->takeIntervals(); }

ZeroCrossingDetector::RangeFrequency ZeroCrossingDetector::frequencyForRange(uint64_t firstSample,
                                                                             uint64_t sampleCount) const {
    return impl->frequencyForRange(firstSample, sampleCount);
}

double ZeroCrossingDetector::latestFrequency() const { return impl->latestFrequency(); }
uint64_t ZeroCrossingDetector::nextSampleIndex() const { return impl->nextSampleIndex(); }
uint64_t ZeroCrossingDetector::latency() const { return impl->latency(); }
double ZeroCrossingDetector::sampleRate() const { return impl->sampleRate(); }
double ZeroCrossingDetector::nominalFrequency() const { return impl->nominalFrequency(); }
const ZeroCrossingDetector::Settings& ZeroCrossingDetector::settings() const { return impl->settings(); }

}  // namespace tarnel
