// Period values: the reference data and the queue of values built from the
// caller's blocks or zero crossings, and the host computation of each value
// with the power-quality detectors it feeds.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string>

#include "PowerModuleImpl.h"
#include "PowerQuantities.h"
#include "VectorLoops.h"
#include "tarnel/PowerSymmetricalComponents.h"

namespace tarnel {

namespace {

using tarnel::Double4;
using tarnel::load4;
using tarnel::sumOfLanes;

constexpr double kPi = 3.141592653589793;
constexpr double kTwoPi = 2.0 * kPi;
constexpr double kSqrt2 = 1.4142135623730951;
// Two caller positions closer than this are the same zero crossing.
constexpr double kBoundaryTolerance = 1e-6;

[[noreturn]] void refuse(const char* operation, const std::string& problem) {
    throw std::invalid_argument(std::string(operation) + ": " + problem);
}

// Whether sample a comes no later than sample b; indices wrap at 2^64, so the
// order is that of their difference.
bool notAfter(unsigned long long a, unsigned long long b) { return b - a < (1ULL << 63); }

std::string itemName(const char* kind, size_t index) { return std::string(kind) + " " + std::to_string(index); }

// The reference phase advances by frequency / fs per sample: a frequency that is not finite, not
// positive or at or above half the sample rate would end values without a successor or with less
// than one sample, so such a request is refused before anything changes.
void requireUsableFrequency(const char* operation, const std::string& name, double frequency, double sampleRate) {
    if (std::isfinite(frequency) && frequency > 0.0 && frequency < 0.5 * sampleRate) return;
    refuse(operation, name + " has frequency " + std::to_string(frequency) +
                          " Hz; it must be finite, above 0 and below half the sample rate (" +
                          std::to_string(0.5 * sampleRate) + " Hz)");
}

// True while no block has reached the value that reset created.
bool isUntouched(const PowerPeriodResultsQueueItem& item) {
    return item.getItemIndex() == 0 && item.getNextSampleIndexToProcess() == item.getFirstSampleIndex() &&
           !item.isLengthCalculated();
}

// The host rings of the reference data.
struct ReferenceRing {
    double* frequency;
    double* cosine;
    double* sine;
    double* validity;
    unsigned long long length;
};

ReferenceRing referenceRing(const GpuBuffer<double>& buffer) {
    return {buffer.getHostBuffer(0), buffer.getHostBuffer(1), buffer.getHostBuffer(2), buffer.getHostBuffer(3),
            buffer.getLength()};
}

// Writes the reference data of one module sample at reference phase `phase` (periods).
void writeReference(const ReferenceRing& ring, unsigned long long sample, double frequency, double phase,
                    double validity) {
    const unsigned long long k = sample % ring.length;
    ring.frequency[k] = frequency;
    ring.cosine[k] = std::cos(kTwoPi * phase);
    ring.sine[k] = std::sin(kTwoPi * phase);
    ring.validity[k] = validity;
}

// Writes `count` samples whose phase starts at `phase` and advances by `step`
// periods per sample. The phasor is turned by a fixed rotation from sample to
// sample and set exactly again every few hundred samples, which keeps it
// within a few units of the last place of the direct cosine and sine.
void writeReferenceRun(const ReferenceRing& ring, unsigned long long first, unsigned long long count, double frequency,
                       double phase, double step, double validity) {
    constexpr unsigned long long kExactEvery = 256;
    const double turnCos = std::cos(kTwoPi * step), turnSin = std::sin(kTwoPi * step);
    double c = 0.0, s = 0.0;
    unsigned long long k = first % ring.length;
    for (unsigned long long n = 0; n < count; ++n, k = k + 1 == ring.length ? 0 : k + 1) {
        if (n % kExactEvery == 0) {
            c = std::cos(kTwoPi * (phase + static_cast<double>(n) * step));
            s = std::sin(kTwoPi * (phase + static_cast<double>(n) * step));
        } else {
            const double turned = c * turnCos - s * turnSin;
            s = s * turnCos + c * turnSin;
            c = turned;
        }
        ring.frequency[k] = frequency;
        ring.cosine[k] = c;
        ring.sine[k] = s;
        ring.validity[k] = validity;
    }
}

// Feeds samples of the value in progress up to `lastSample` from the reference
// data; returns once the value has ended or the samples are used up.
void feedPeriodItem(PowerPeriodResultsQueueItem& item, unsigned long long lastSample, const ReferenceRing& reference,
                    double samplePeriod) {
    for (unsigned long long s = item.getNextSampleIndexToProcess();; ++s) {
        const unsigned long long k = s % reference.length;
        item.addSampleWithPhaseShift(s, reference.frequency[k] * samplePeriod, reference.validity[k] != 0.0);
        if (item.isLengthCalculated() || s == lastSample) return;
    }
}

// Weighted sums of one phase over one value; the fundamental's sums are
// weighted by the reference frequency so that they integrate over its phase.
struct PhaseSums {
    double weight = 0.0;
    double u2 = 0.0;
    std::complex<double> u1;
    double i2 = 0.0;
    double ui = 0.0;
    std::complex<double> i1;
    double ul2 = 0.0;
};

// The sample rings of one phase; absent channels are null.
struct PhaseChannels {
    const float* u;
    const float* i;
    const float* ul;
};

// Adds one sample at ring position k with weight w: the first and last
// sample of a value count with their fractions.
template <bool kCurrents, bool kLineToLine>
void addSample(PhaseSums& sums, const PhaseChannels& ch, const ReferenceRing& ref, unsigned long long k, double w) {
    const double fr = ref.frequency[k];
    const std::complex<double> rotation(fr * ref.cosine[k], -fr * ref.sine[k]);
    const double u = ch.u[k];
    sums.weight += w * fr;
    sums.u2 += w * u * u;
    sums.u1 += w * u * rotation;
    if constexpr (kCurrents) {
        const double i = ch.i[k];
        sums.i2 += w * i * i;
        sums.ui += w * u * i;
        sums.i1 += w * i * rotation;
    }
    if constexpr (kLineToLine) sums.ul2 += w * static_cast<double>(ch.ul[k]) * ch.ul[k];
}

// Adds the whole samples at ring positions begin .. end - 1. Consecutive
// samples go to consecutive lanes of partial sums, added in a fixed order at
// the end: the sums do not depend on the processor's vector width. Absent
// channels are not read.
template <bool kCurrents, bool kLineToLine>
TARNEL_CPU_LOOP void addStretch(PhaseSums& sums, const PhaseChannels& ch, const ReferenceRing& ref,
                                unsigned long long begin, unsigned long long end) {
    const double* frequency = ref.frequency + begin;
    const double* cosine = ref.cosine + begin;
    const double* sine = ref.sine + begin;
    const float* u = ch.u + begin;
    const float* i = kCurrents ? ch.i + begin : nullptr;
    const float* ul = kLineToLine ? ch.ul + begin : nullptr;
    Double4 weight{}, u2{}, u1Re{}, u1Im{}, i2{}, ui{}, i1Re{}, i1Im{}, ul2{}, fr, cos, sin, uk, ik, lk;
    const auto count = static_cast<long long>(end - begin);
    long long k = 0;
    for (; k + 4 <= count; k += 4) {
        load4(fr, frequency + k);
        load4(cos, cosine + k);
        load4(sin, sine + k);
        load4(uk, u + k);
        const Double4 re = fr * cos, im = -fr * sin;
        weight += fr;
        u2 += uk * uk;
        u1Re += uk * re;
        u1Im += uk * im;
        if constexpr (kCurrents) {
            load4(ik, i + k);
            i2 += ik * ik;
            ui += uk * ik;
            i1Re += ik * re;
            i1Im += ik * im;
        }
        if constexpr (kLineToLine) {
            load4(lk, ul + k);
            ul2 += lk * lk;
        }
    }
    sums.weight += sumOfLanes(weight);
    sums.u2 += sumOfLanes(u2);
    sums.u1 += std::complex<double>(sumOfLanes(u1Re), sumOfLanes(u1Im));
    sums.i2 += sumOfLanes(i2);
    sums.ui += sumOfLanes(ui);
    sums.i1 += std::complex<double>(sumOfLanes(i1Re), sumOfLanes(i1Im));
    sums.ul2 += sumOfLanes(ul2);
    for (unsigned long long n = begin + static_cast<unsigned long long>(k); n < end; ++n)
        addSample<kCurrents, kLineToLine>(sums, ch, ref, n, 1.0);
}

// Samples first .. last of one phase, for one combination of channels, so
// that the loops run without branches: the first and the last sample with
// their fractions, the samples between them in stretches of the ring.
template <bool kCurrents, bool kLineToLine>
PhaseSums sumChannels(const PhaseChannels& ch, const ReferenceRing& ref, unsigned long long first,
                      unsigned long long last, double firstFraction, double lastFraction) {
    PhaseSums sums;
    addSample<kCurrents, kLineToLine>(sums, ch, ref, first % ref.length, firstFraction);
    if (last == first) return sums;
    unsigned long long k = (first + 1) % ref.length;
    for (unsigned long long left = last - first - 1; left > 0; k = 0) {
        const unsigned long long end = std::min(ref.length, k + left);
        left -= end - k;
        addStretch<kCurrents, kLineToLine>(sums, ch, ref, k, end);
    }
    addSample<kCurrents, kLineToLine>(sums, ch, ref, last % ref.length, lastFraction);
    return sums;
}

PhaseSums sumPhase(const PhaseChannels& ch, const ReferenceRing& ref, unsigned long long first, unsigned long long last,
                   double firstFraction, double lastFraction) {
    if (!notAfter(first, last) || ch.u == nullptr) return PhaseSums{};
    const bool currents = ch.i != nullptr, lineToLine = ch.ul != nullptr;
    if (currents && lineToLine) return sumChannels<true, true>(ch, ref, first, last, firstFraction, lastFraction);
    if (currents) return sumChannels<true, false>(ch, ref, first, last, firstFraction, lastFraction);
    if (lineToLine) return sumChannels<false, true>(ch, ref, first, last, firstFraction, lastFraction);
    return sumChannels<false, false>(ch, ref, first, last, firstFraction, lastFraction);
}

// Angle by which the voltage leads the current, in degrees within (-180, 180].
double phaseAngle(std::complex<double> u1, std::complex<double> i1) {
    double angle = (std::arg(u1) - std::arg(i1)) * 180.0 / kPi;
    if (!(angle > -180.0 && angle <= 180.0)) angle -= 360.0 * std::ceil(angle / 360.0 - 0.5);
    return angle;
}

// Turns the sums of one phase into its record and hands back its U1 and I1.
void fillPhaseRecord(PowerResultsPeriod& r, const PhaseSums& sums, double totalLength, bool currents, bool lineToLine,
                     std::complex<double>& u1, std::complex<double>& i1) {
    const double scale = sums.weight > 0.0 ? kSqrt2 / sums.weight : 0.0;
    const double perSample = 1.0 / totalLength;
    u1 = scale * sums.u1;
    r.fundamentalU = std::hypot(u1.real(), u1.imag());
    r.rmsU = std::sqrt(perSample * sums.u2);
    if (currents) {
        i1 = scale * sums.i1;
        r.fundamentalI = std::hypot(i1.real(), i1.imag());
        r.fundamentalApparentPower = r.fundamentalI * r.fundamentalU;
        r.fundamentalActivePower = i1.real() * u1.real() + u1.imag() * i1.imag();
        r.fundamentalReactivePower = i1.real() * u1.imag() - u1.real() * i1.imag();
        r.fundamentalPhaseAngle = phaseAngle(u1, i1);
        r.rmsI = std::sqrt(perSample * sums.i2);
        r.apparentPower = r.rmsI * r.rmsU;
        r.activePower = perSample * sums.ui;
        r.nonActivePower = nonNegativeRoot(r.apparentPower, r.activePower);
        r.powerFactor = ratioOrZero(r.activePower, r.apparentPower);
    }
    if (lineToLine) r.rmsUL = std::sqrt(perSample * sums.ul2);
}

// Adds one phase record into the all-phases record: means for magnitudes, sums for powers.
void addToTotal(PowerResultsPeriod& total, const PowerResultsPeriod& r, double phases, bool currents, bool lineToLine) {
    total.rmsU += r.rmsU / phases;
    total.fundamentalU += r.fundamentalU / phases;
    if (lineToLine) total.rmsUL += r.rmsUL / phases;
    if (!currents) return;
    total.rmsI += r.rmsI / phases;
    total.fundamentalI += r.fundamentalI / phases;
    total.activePower += r.activePower;
    total.apparentPower += r.apparentPower;
    total.fundamentalActivePower += r.fundamentalActivePower;
    total.fundamentalApparentPower += r.fundamentalApparentPower;
    total.fundamentalReactivePowerSum += r.fundamentalReactivePower;
}

// Detectors see every n-th value, so that overlapping values still give them
// a sequence of values that do not overlap.
unsigned long long detectorStride(unsigned short overlapInPercent) {
    if (overlapInPercent >= 100) return 1;
    return static_cast<unsigned long long>(100 / (100 - overlapInPercent));
}

// Collects the ready values of one queue into the results ring, in order,
// stopping at the ring's end; returns the number computed.
template <typename Queue, typename Compute>
int collectPeriodValues(Queue& queue, unsigned long long processedSampleIndex, PowerResultsPeriod* ring,
                        size_t ringLength, size_t records, PowerResultsPeriod** results, bool* more, Compute compute) {
    if (queue.empty()) return 0;
    int count = 0;
    *results = ring + (queue.front()->getItemIndex() % ringLength) * records;
    PowerResultsPeriod* out = *results;
    while (!queue.empty()) {
        const auto& item = *queue.front();
        if (notAfter(processedSampleIndex, item.getLastRequiredSampleIndex())) break;
        if (item.getItemIndex() % ringLength == 0 && count > 0) {
            *more = true;
            break;
        }
        compute(item, out);
        count += 1;
        queue.pop_front();
        out += records;
    }
    return count;
}

}  // namespace

void PowerModule::PowerModuleImpl::requirePeriodValues(const char* operation) const {
    requireBuilt(operation);
    if (!config.areAnyPeriodValuesEnabled()) refuse(operation, "period values are not enabled");
    if (config.sampleRateDivider < 1) refuse(operation, "the sample rate divider must be at least 1");
    if (config.halfPeriodValuesCount < 1) refuse(operation, "a period value must span at least one half-period");
    if (config.periodValuesOverlapInPercent >= 100)
        refuse(operation, "the overlap of period values must stay below 100 %");
    if (currentPeriodItem == nullptr || buffers.getPeriodRecordsCount() == 0)
        refuse(operation, "call reset after enabling period values");
}

void PowerModule::PowerModuleImpl::validatePeriodBlocks(int count, const unsigned long long* firstSamples,
                                                        const int* lengths, const double* frequencies,
                                                        const bool* valid) const {
    const char* op = "scheduleForPeriodCalculation";
    requirePeriodValues(op);
    if (currentPeriodStart != nullptr)
        refuse(op, "period values follow zero crossings since the last reset; reset to switch to blocks");
    if (count < 0) refuse(op, "the block count must not be negative");
    if (count > 0 && (firstSamples == nullptr || lengths == nullptr || frequencies == nullptr || valid == nullptr))
        refuse(op, "the block arrays must not be null");
    const auto divider = static_cast<unsigned long long>(config.sampleRateDivider);
    bool first = isUntouched(*currentPeriodItem);
    unsigned long long expected = periodBlocksEnd;
    for (int b = 0; b < count; ++b) {
        if (lengths[b] < 1) continue;
        const unsigned long long a = firstSamples[b], last = a + static_cast<unsigned long long>(lengths[b] - 1);
        const std::string name = itemName("block", static_cast<size_t>(b));
        // Past 2^64 the ring positions run on only with a power-of-two ring and no divider.
        const unsigned long long ring = buffers.getBufferLength();
        if (last < a && (divider != 1 || (ring & (ring - 1)) != 0))
            refuse(op, name + " crosses sample index 2^64, which needs a power-of-two buffer length and divider 1");
        requireUsableFrequency(op, name, frequencies[b], config.sampleRate);
        if (first && a / divider != currentPeriodItem->getFirstSampleIndex())
            refuse(op, name + " starts at sample " + std::to_string(a) + ", but the first block after reset must " +
                           "start in module sample " + std::to_string(currentPeriodItem->getFirstSampleIndex()));
        if (!first && a != expected)
            refuse(op, name + " starts at sample " + std::to_string(a) + ", not where the previous block ended (" +
                           std::to_string(expected) + ")");
        if (last / divider - a / divider >= buffers.getBufferLength())
            refuse(op, name + " covers more module samples than the sample ring holds");
        first = false;
        expected = last + 1;
    }
}

void PowerModule::PowerModuleImpl::scheduleForPeriodCalculation(int count, unsigned long long* firstSamples,
                                                                int* lengths, double* frequencies, bool* valid) {
    validatePeriodBlocks(count, firstSamples, lengths, frequencies, valid);
    bool reached = false;
    unsigned long long lastSample = 0;
    for (int b = 0; b < count; ++b) {
        if (lengths[b] < 1) continue;
        lastSample = writeReferenceBlock(firstSamples[b], lengths[b], frequencies[b], valid[b]);
        periodBlocksEnd = firstSamples[b] + static_cast<unsigned long long>(lengths[b]);
        reached = true;
    }
    if (reached) advancePeriodItems(lastSample);
}

unsigned long long PowerModule::PowerModuleImpl::writeReferenceBlock(unsigned long long firstSample, int length,
                                                                     double frequency, bool valid) {
    const auto divider = static_cast<unsigned long long>(config.sampleRateDivider);
    const unsigned long long lastSample = firstSample + static_cast<unsigned long long>(length - 1);
    const unsigned long long q0 = firstSample / divider, q1 = lastSample / divider;
    const double step = frequency * (1.0 / config.sampleRate);
    // Shares of the first and last module samples that this block covers.
    const double w0 = 1.0 - static_cast<double>(firstSample % divider) / static_cast<double>(divider);
    const double w1 = static_cast<double>(lastSample % divider + 1) / static_cast<double>(divider);
    double whole = 0.0;
    periodPhase = std::modf(periodPhase + w0 * step, &whole);
    // A module sample shared with the previous block blends both blocks' frequencies.
    const bool firstValid = valid && (w0 > 0.9 || previousValid != 0.0);
    const ReferenceRing ring = referenceRing(buffers.periodReferenceBuffer);
    writeReference(ring, q0, (1.0 - w0) * previousFrequency + w0 * frequency, periodPhase, firstValid ? 1.0 : 0.0);
    if (q1 != q0) {
        // Whole steps up to the sample before the last, then the last sample's share.
        const unsigned long long middle = q1 - q0 - 1;
        writeReferenceRun(ring, q0 + 1, middle, frequency, periodPhase + step, step, valid ? 1.0 : 0.0);
        periodPhase = std::modf(periodPhase + static_cast<double>(middle) * step, &whole);
        periodPhase = std::modf(periodPhase + w1 * step, &whole);
        writeReference(ring, q1, frequency, periodPhase, valid ? 1.0 : 0.0);
    }
    previousFrequency = frequency;
    previousValid = valid ? 1.0 : 0.0;
    return q1;
}

void PowerModule::PowerModuleImpl::advancePeriodItems(unsigned long long lastSample) {
    const ReferenceRing reference = referenceRing(buffers.periodReferenceBuffer);
    const double samplePeriod = 1.0 / config.sampleRate;
    // A value that ends hands over to the next one, which starts again at its
    // own first sample: consecutive values share their boundary samples.
    while (currentPeriodItem != nullptr && notAfter(currentPeriodItem->getNextSampleIndexToProcess(), lastSample)) {
        feedPeriodItem(*currentPeriodItem, lastSample, reference, samplePeriod);
        if (!currentPeriodItem->isLengthCalculated()) return;
        periodResultsQueue.push_back(currentPeriodItem);
        currentPeriodItem = currentPeriodItem->getNextItem();
    }
}

void PowerModule::PowerModuleImpl::validateZeroCrossingIntervals(
    const std::vector<ZeroCrossingInterval>& intervals) const {
    const char* op = "scheduleForPeriodCalculationFromZeroCrossing";
    requirePeriodValues(op);
    if (!isUntouched(*currentPeriodItem))
        refuse(op, "period values follow blocks since the last reset; reset to switch to zero crossings");
    const int divider = config.sampleRateDivider;
    for (size_t n = 0; n < intervals.size(); ++n) {
        const ZeroCrossingInterval& z = intervals[n];
        const std::string name = itemName("interval", n);
        const double length = z.end.subtract(z.start);
        if (!(length > 0.0)) refuse(op, name + " does not end after it starts");
        requireUsableFrequency(op, name, z.frequency, config.sampleRate);
        if (length / divider >= static_cast<double>(buffers.getBufferLength()))
            refuse(op, name + " is longer than the sample ring");
        const PreciseFraction start = z.start.divideBy(divider);
        if (n > 0) {
            if (!(std::abs(z.start.subtract(intervals[n - 1].end)) <= kBoundaryTolerance))
                refuse(op, name + " does not start where the interval before it ends");
        } else if (currentPeriodStart != nullptr) {
            if (!(std::abs(start.subtract(currentPeriodStart->getFirstSample())) <= kBoundaryTolerance))
                refuse(op, name + " does not start where the last scheduled interval ended");
        } else if (start.round() < currentPeriodItem->getFirstSampleIndex()) {
            refuse(op, name + " starts before the first sample since reset");
        }
    }
}

void PowerModule::PowerModuleImpl::scheduleForPeriodCalculationFromZeroCrossing(
    const std::vector<ZeroCrossingInterval>& intervals) {
    validateZeroCrossingIntervals(intervals);
    for (const ZeroCrossingInterval& z : intervals) addZeroCrossingInterval(z);
}

void PowerModule::PowerModuleImpl::writeReferenceInterval(PreciseFraction start, PreciseFraction end, double frequency,
                                                          bool valid) {
    // The reference phase restarts at every zero crossing.
    const double step = frequency * (1.0 / config.sampleRate);
    const double validity = valid ? 1.0 : 0.0;
    const ReferenceRing ring = referenceRing(buffers.periodReferenceBuffer);
    // The first sample at or after the crossing lies (ceil - position) samples past it: a crossing
    // exactly on a sample gives that sample the phase 0.
    const double firstOffset = static_cast<double>(start.ceil() - start.index) - start.fraction;
    writeReferenceRun(ring, start.ceil(), end.ceil() - start.ceil(), frequency, step * firstOffset, step, validity);
    // Before the first crossing no interval has written the sample whose cell
    // holds it, yet the first value starts in that cell: that sample gets the
    // phase it has before the crossing (negative), so the first value's
    // fundamental integrates the same reference as every later one.
    if (currentPeriodStart == nullptr && start.round() != start.ceil())
        writeReference(ring, start.round(), frequency, -step * start.fraction, validity);
}

void PowerModule::PowerModuleImpl::addZeroCrossingInterval(const ZeroCrossingInterval& z) {
    const PreciseFraction start = z.start.divideBy(config.sampleRateDivider);
    const PreciseFraction end = z.end.divideBy(config.sampleRateDivider);
    writeReferenceInterval(start, end, z.frequency, z.valid);
    if (currentPeriodStart == nullptr) currentPeriodStart = std::make_shared<PowerPeriodStartQueueItem>(0, start);
    const auto ratio = config.getPeriodCountAdvanceByRatio();
    const unsigned short parts = ratio.second;
    const size_t span = static_cast<size_t>(config.halfPeriodValuesCount) * parts / 2;
    // The interval is cut into `parts` equal parts; a value spans `span` parts
    // and consecutive values start `ratio.first` parts apart.
    for (unsigned short j = 0; j < parts; ++j) {
        if (!z.valid) currentPeriodStart->setInvalid();
        periodStartQueue.push_back(currentPeriodStart);
        if (periodStartQueue.size() > span) queueZeroCrossingValue(ratio.first);
        currentPeriodStart =
            currentPeriodStart->createNext(start.findABetterNameForRationalCrossing(end, j + 1u, parts));
    }
}

void PowerModule::PowerModuleImpl::queueZeroCrossingValue(unsigned short advanceParts) {
    const PreciseFraction first = periodStartQueue.front()->getFirstSample();
    const PreciseFraction last = periodStartQueue.back()->getFirstSample();
    // A boundary carries the validity of the interval it was queued in, which is the interval of
    // the part that starts at it: the value's parts start at every boundary but the last.
    const bool valid = std::all_of(periodStartQueue.begin(), periodStartQueue.end() - 1,
                                   [](const auto& boundary) { return boundary->isValueValid(); });
    const size_t drop = std::min<size_t>(advanceParts, periodStartQueue.size());
    periodStartQueue.erase(periodStartQueue.begin(), periodStartQueue.begin() + static_cast<std::ptrdiff_t>(drop));
    lastPeriodItem2 = lastPeriodItem2 != nullptr ? lastPeriodItem2->createNext(first, last)
                                                 : std::make_shared<PowerPeriodResultsQueueItem2>(0, first, last);
    if (!valid) lastPeriodItem2->setInvalid();
    periodResultsQueue2.push_back(lastPeriodItem2);
}

void PowerModule::PowerModuleImpl::getPeriodResults(int* count, bool* more, PowerResultsPeriod** results) {
    *count = 0;
    *more = false;
    const size_t records = buffers.getPeriodRecordsCount();
    if (!config.areAnyPeriodValuesEnabled() || records == 0) return;
    PowerResultsPeriod* ring = buffers.periodResultsBuffer.getHostBuffer(0);
    const size_t ringLength = buffers.getPeriodResultsBufferLength();
    auto compute = [this](const auto& item, PowerResultsPeriod* out) {
        calculatePeriodValues(item.getFirstSampleIndex(), item.getLastRequiredSampleIndex(),
                              item.getFirstSampleFractionToUse(), item.getLastSampleFractionToUse(),
                              item.getTotalLength(), item.isValueValid(), out);
    };
    // Zero crossings, once scheduled, are the only source of values until the next reset.
    if (currentPeriodStart != nullptr) {
        *count = collectPeriodValues(periodResultsQueue2, processedSampleIndex, ring, ringLength, records, results,
                                     more, compute);
    } else {
        *count = collectPeriodValues(periodResultsQueue, processedSampleIndex, ring, ringLength, records, results, more,
                                     compute);
    }
}

void PowerModule::PowerModuleImpl::calculatePeriodValues(unsigned long long first, unsigned long long last,
                                                         double firstFraction, double lastFraction, double totalLength,
                                                         bool valid, PowerResultsPeriod* out) {
    const double fs = config.sampleRate;
    const double time = (static_cast<double>(last) + lastFraction) / fs;
    const double frequency = config.halfPeriodValuesCount * (fs * 0.5) / totalLength;
    const unsigned phases = config.getPhasesCount();
    const unsigned lineToLineCount = config.getLineToLineCount();
    const ReferenceRing reference = referenceRing(buffers.periodReferenceBuffer);
    std::vector<std::complex<double>> u1(phases), i1(phases);
    for (unsigned p = 0; p < phases; ++p) {
        PowerResultsPeriod& r = out[p + 1];
        r.time = time;
        r.frequency = frequency;
        r.valid = valid;
        const auto slot = static_cast<unsigned short>(p);
        const PhaseChannels channels{
            buffers.samplesBuffer.getHostBuffer(static_cast<unsigned short>(slots::kVoltages + slot)),
            config.currentEnabled
                ? buffers.samplesBuffer.getHostBuffer(static_cast<unsigned short>(slots::kCurrents + slot))
                : nullptr,
            p < lineToLineCount
                ? buffers.samplesBuffer.getHostBuffer(static_cast<unsigned short>(slots::kLineToLine + slot))
                : nullptr};
        const PhaseSums sums = sumPhase(channels, reference, first, last, firstFraction, lastFraction);
        fillPhaseRecord(r, sums, totalLength, channels.i != nullptr, config.lineToLineResultsEnabled, u1[p], i1[p]);
        feedDetectors(p, time, r);
    }
    fillPeriodTotals(out, time, frequency, valid);
    if (config.arePeriodSymmetricalComponentsEnabled()) fillPeriodSymmetricalComponents(out, u1, i1);
    periodValueCounter += 1;
}

void PowerModule::PowerModuleImpl::feedDetectors(unsigned p, double time, PowerResultsPeriod& record) {
    const bool fed = periodValueCounter % detectorStride(config.periodValuesOverlapInPercent) == 0;
    const bool lineToLine = config.lineToLineResultsEnabled && p < config.getLineToLineCount() &&
                            p < dipSwellLineToLineCalculation.getNumberOfPhases() &&
                            p < rvcLineToLineCalculation.getNumberOfPhases();
    if (config.dipSwellEnabled) {
        auto detect = [&](DipSwellPhaseCalculation& detector, double value, DipResult& dip, SwellResult& swell) {
            detector.clearResult();
            if (fed) detector.calculate(value, time);
            dip = detector.getDipResult();
            swell = detector.getSwellResult();
        };
        detect(dipSwellCalculation[p], record.rmsU, record.dip, record.swell);
        if (lineToLine) detect(dipSwellLineToLineCalculation[p], record.rmsUL, record.dipUL, record.swellUL);
    }
    if (config.rvcEnabled) {
        auto detect = [&](RvcPhaseCalculation& detector, const DipSwellPhaseCalculation& events, double value,
                          RvcResult& rvc) {
            detector.clearResult();
            if (fed) detector.calculate(value, time, events.getDipStartTime(), events.getSwellStartTime());
            rvc = detector.getCurrentResult();
        };
        detect(rvcCalculation[p], dipSwellCalculation[p], record.rmsU, record.rvc);
        if (lineToLine)
            detect(rvcLineToLineCalculation[p], dipSwellLineToLineCalculation[p], record.rmsUL, record.rvcUL);
    }
}

void PowerModule::PowerModuleImpl::fillPeriodTotals(PowerResultsPeriod* out, double time, double frequency,
                                                    bool valid) {
    const unsigned phases = config.getPhasesCount();
    PowerResultsPeriod& total = out[0];
    // A single phase is its own total, so record 0 can always be read.
    if (phases == 1) {
        total = out[1];
        return;
    }
    const size_t cleared = offsetof(PowerResultsPeriod, rmsU);
    std::memset(reinterpret_cast<char*>(&total) + cleared, 0, sizeof(PowerResultsPeriod) - cleared);
    total.time = time;
    total.frequency = frequency;
    total.valid = valid;
    const bool currents = config.currentEnabled, lineToLine = config.lineToLineResultsEnabled;
    for (unsigned p = 1; p <= phases; ++p) addToTotal(total, out[p], phases, currents, lineToLine);
    if (currents) {
        total.nonActivePower = nonNegativeRoot(total.apparentPower, total.activePower);
        total.powerFactor = ratioOrZero(total.activePower, total.apparentPower);
        total.fundamentalReactivePower = nonNegativeRoot(total.fundamentalApparentPower, total.fundamentalActivePower);
    }
    if (config.dipSwellEnabled) {
        total.dip = dipSwellCalculation.getDipTotalResult();
        total.swell = dipSwellCalculation.getSwellTotalResult();
        if (lineToLine) total.dipUL = dipSwellLineToLineCalculation.getDipTotalResult();
        if (lineToLine) total.swellUL = dipSwellLineToLineCalculation.getSwellTotalResult();
    }
    if (config.rvcEnabled) {
        total.rvc = rvcCalculation.getTotalResult();
        if (lineToLine) total.rvcUL = rvcLineToLineCalculation.getTotalResult();
    }
}

void PowerModule::PowerModuleImpl::fillPeriodSymmetricalComponents(PowerResultsPeriod* out,
                                                                   const std::vector<std::complex<double>>& u,
                                                                   const std::vector<std::complex<double>>& i) {
    if (u.size() < 3) return;
    // Angles are measured from the fundamental voltage of the first phase.
    std::vector<std::complex<double>> voltages = PowerSymmetricalComponents::transform(u);
    PowerSymmetricalComponents::subtractReference(voltages, u[0]);
    std::vector<std::complex<double>> currents;
    if (config.currentEnabled) {
        currents = PowerSymmetricalComponents::transform(i);
        PowerSymmetricalComponents::subtractReference(currents, u[0]);
    }
    for (size_t k = 0; k < 3; ++k) {
        PowerResultsSymmetricalComponent& component = out[k].symmetricalComponent;
        component.voltage = {voltages[k].real(), voltages[k].imag()};
        if (config.currentEnabled) component.current = {currents[k].real(), currents[k].imag()};
        PowerSymmetricalComponents::calculate(component, config.currentEnabled);
    }
}

}  // namespace tarnel
