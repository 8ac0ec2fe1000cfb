#include "SyntheticRecording.h"

#include <cmath>
#include <stdexcept>

namespace tarnel::analyser {

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kFrequency = 50.0;
constexpr double kNominal = 230.0;
// Slight unbalance: L2 at 99 %, L3 at 101.5 % of nominal.
constexpr double kPhaseScale[3] = {1.0, 0.99, 1.015};
// Harmonic mix of the voltages: order, share of the fundamental.
constexpr double kHarmonics[][2] = {{3, 0.02}, {5, 0.03}, {7, 0.015}};
constexpr double kInterharmonicFrequency = 175.0;
constexpr double kInterharmonicShare = 0.005;
constexpr double kCurrentRms = 10.0;
constexpr double kCurrentLagDegrees = 25.0;

bool inside(double t, double start, double duration) { return t >= start && t < start + duration; }

// True when a scripted event starts or ends within [from, to].
bool hasEventBetween(double from, double to) {
    const SyntheticEvents& e = SyntheticRecording::events();
    for (double edge :
         {e.dipStart, e.dipStart + e.dipDuration, e.swellStart, e.swellStart + e.swellDuration, e.stepTime})
        if (edge >= from && edge <= to) return true;
    return false;
}

}  // namespace

SyntheticRecording::SyntheticRecording(double sampleRate, double seconds) {
    if (!(sampleRate >= 1000.0) || !(seconds > 0.0))
        throw std::invalid_argument("the synthetic recording needs a sample rate of at least 1 kHz and a duration");
    sourceInfo.description = "built-in synthetic recording";
    sourceInfo.sampleRate = sampleRate;
    sourceInfo.totalSamples = static_cast<uint64_t>(std::llround(seconds * sampleRate));
    sourceInfo.gridType = 1;  // three phases, star voltages, three currents
    sourceInfo.nominalVoltage = kNominal;
    sourceInfo.nominalFrequency = kFrequency;
    for (const char* name : {"U1", "U2", "U3"}) sourceInfo.voltages.push_back({name, "V"});
    for (const char* name : {"I1", "I2", "I3"}) sourceInfo.currents.push_back({name, "A"});
}

const SyntheticEvents& SyntheticRecording::events() {
    static const SyntheticEvents scripted;
    return scripted;
}

double SyntheticRecording::envelope(int phase, double t) const {
    const SyntheticEvents& e = events();
    double level = kPhaseScale[phase];
    if (t >= e.stepTime) level *= e.stepLevel;
    if (phase == 0 && inside(t, e.dipStart, e.dipDuration)) level *= e.dipLevel;
    if (phase == 2 && inside(t, e.swellStart, e.swellDuration)) level *= e.swellLevel;
    return level;
}

void SyntheticRecording::buildWaveTables() {
    // The waveform repeats after 0.04 s: 2 periods of 50 Hz and 7 of the interharmonic.
    tableLength = static_cast<size_t>(std::llround(0.04 * sourceInfo.sampleRate));
    voltageTable.assign(3, std::vector<float>(tableLength));
    currentTable.assign(3, std::vector<float>(tableLength));
    const double peak = kNominal * std::sqrt(2.0), currentPeak = kCurrentRms * std::sqrt(2.0);
    for (size_t k = 0; k < tableLength; ++k) {
        const double t = static_cast<double>(k) / sourceInfo.sampleRate;
        for (int p = 0; p < 3; ++p) {
            const double shift = -p * 2.0 * kPi / 3.0;
            const double w = 2.0 * kPi * kFrequency * t + shift;
            double u = std::sin(w);
            for (const auto& h : kHarmonics) u += h[1] * std::sin(h[0] * w);
            u += kInterharmonicShare * std::sin(2.0 * kPi * kInterharmonicFrequency * t + shift);
            voltageTable[p][k] = static_cast<float>(peak * u);
            const double i = std::sin(w - kCurrentLagDegrees * kPi / 180.0) + 0.1 * std::sin(5.0 * w);
            currentTable[p][k] = static_cast<float>(currentPeak * i);
        }
    }
}

size_t SyntheticRecording::read(std::vector<std::vector<float>>& voltages, std::vector<std::vector<float>>& currents,
                                size_t count) {
    if (tableLength == 0) buildWaveTables();
    const uint64_t left = sourceInfo.totalSamples - position;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(count, left));
    voltages.resize(3);
    currents.resize(3);
    const double startTime = static_cast<double>(position) / sourceInfo.sampleRate;
    const double endTime = static_cast<double>(position + n) / sourceInfo.sampleRate;
    for (int p = 0; p < 3; ++p) {
        voltages[p].resize(n);
        currents[p].resize(n);
        // The envelope changes only at the scripted events; most chunks have one level.
        const bool constant = envelope(p, startTime) == envelope(p, endTime) && !hasEventBetween(startTime, endTime);
        const double level = envelope(p, startTime);
        for (size_t k = 0; k < n; ++k) {
            const uint64_t s = position + k;
            const double gain = constant ? level : envelope(p, static_cast<double>(s) / sourceInfo.sampleRate);
            voltages[p][k] = static_cast<float>(gain * voltageTable[p][s % tableLength]);
            currents[p][k] = currentTable[p][s % tableLength];
        }
    }
    position += n;
    return n;
}

}  // namespace tarnel::analyser
