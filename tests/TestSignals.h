// Helpers shared by the module tests: closed-form signals, module set-up and
// the writing of samples into the module's sample rings.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "tarnel/PowerModule.h"

namespace testsignals {

using namespace tarnel;

constexpr double kPi = 3.141592653589793;

// One component of a waveform: a sine of `order` times the fundamental with
// peak `amplitude` and phase `phaseDegrees` (sin(order w t + phase)); order 0
// is a constant of value `amplitude`. Orders need not be whole numbers.
struct Tone {
    double order;
    double amplitude;
    double phaseDegrees;
};

struct Waveform {
    std::vector<Tone> tones;

    double at(double time, double fundamental) const {
        double value = 0.0;
        for (const Tone& t : tones) {
            if (t.order == 0.0) {
                value += t.amplitude;
            } else {
                value +=
                    t.amplitude * std::sin(2.0 * kPi * t.order * fundamental * time + t.phaseDegrees * kPi / 180.0);
            }
        }
        return value;
    }
};

// A fundamental of `amplitude` plus random harmonics (orders 2 … highestOrder,
// each present with probability one half at 1 % to 10 % of the fundamental),
// a small DC offset and one interharmonic tone between two orders.
inline Waveform randomWaveform(std::mt19937& random, double amplitude, int highestOrder) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::uniform_real_distribution<double> phase(-180.0, 180.0);
    Waveform w;
    w.tones.push_back({1.0, amplitude, phase(random)});
    w.tones.push_back({0.0, amplitude * 0.02 * (unit(random) - 0.5), 0.0});
    for (int h = 2; h <= highestOrder; ++h) {
        if (unit(random) < 0.5)
            w.tones.push_back({static_cast<double>(h), amplitude * (0.01 + 0.09 * unit(random)), phase(random)});
    }
    const int below = 1 + static_cast<int>(unit(random) * (highestOrder - 2));
    w.tones.push_back({below + 0.5, amplitude * (0.005 + 0.02 * unit(random)), phase(random)});
    return w;
}

// The channels a module's grid expects from the caller: measured voltages in
// their measured form (phase-to-neutral for star grids, line-to-line for delta
// grids) and measured currents.
struct MeasuredSignals {
    std::vector<Waveform> voltages;
    std::vector<Waveform> currents;
};

// The wiring of each grid type, written out here so that tests do not read the
// library's own table.
struct Wiring {
    int phases, voltages, currents, lineToLine;
    bool delta, missingCurrent;
};
constexpr Wiring kWiring[8] = {{1, 1, 1, 0, false, false}, {3, 3, 3, 3, false, false}, {3, 3, 2, 3, false, true},
                               {3, 3, 3, 3, true, false},  {3, 3, 2, 3, true, true},   {2, 2, 2, 1, false, false},
                               {3, 2, 2, 3, true, true},   {1, 1, 1, 0, false, false}};

// Random measured channels (see randomWaveform) for every input of `grid`.
inline MeasuredSignals randomSignals(PowerGridConfigType grid, unsigned seed) {
    std::mt19937 random(seed);
    MeasuredSignals m;
    for (int c = 0; c < kWiring[grid].voltages; ++c) m.voltages.push_back(randomWaveform(random, 325.0, 15));
    for (int c = 0; c < kWiring[grid].currents; ++c) m.currents.push_back(randomWaveform(random, 10.0, 15));
    return m;
}

// Settings of a test module; configure() applies them in one update.
struct ModuleSettings {
    PowerGridConfigType grid = SinglePhase;
    double sampleRate = 6400.0;
    unsigned long long bufferLength = 4096;
    bool variableFrequency = false;
    double frequency = 50.0;     // static frequency: nominal value
    double tolerance = 0.1;      // static frequency: relative range
    double minFrequency = 45.0;  // variable frequency range
    double maxFrequency = 65.0;
    unsigned short periodCount = 10;
    int highestHarmonic = 15;
    int thdHighestHarmonic = 12;
    bool currents = true;
    bool lineToLine = true;
    bool interharmonics = true;
    bool thd = true;
    bool fullFft = true;
    bool waveforms = false;
};

// A module that waits for its queued device work before it is destroyed, so
// that a test's end does not race with the work it enqueued last.
class TestModule : public PowerModule {
  public:
    using PowerModule::PowerModule;
    TestModule(const TestModule&) = delete;
    TestModule& operator=(const TestModule&) = delete;
    ~TestModule() {
        try {
            sync();
        } catch (...) {
        }
    }
};

// `extra` may change further settings in the same update.
inline void configure(PowerModule& module, const ModuleSettings& s,
                      const std::function<void(PowerModule&)>& extra = {}) {
    module.beginUpdate();
    module.setGridConfigType(s.grid);
    module.setSampleRate(s.sampleRate, 1);
    module.setBufferLength(s.bufferLength);
    if (s.variableFrequency) {
        module.setVariableFrequency(s.minFrequency, s.maxFrequency);
    } else {
        module.setStaticFrequency(s.frequency, s.tolerance);
    }
    module.setPeriodCount(s.periodCount);
    module.setHighestRequestedHarmonic(s.highestHarmonic);
    module.setThdHighestHarmonic(s.thdHighestHarmonic);
    module.setCurrentEnabled(s.currents);
    module.setLineToLineResultsEnabled(s.lineToLine);
    module.setInterHarmonicsEnabled(s.interharmonics);
    module.setThdEnabled(s.thd);
    module.setFullFftEnabled(s.fullFft);
    module.setWaveformsEnabled(s.waveforms);
    if (extra) extra(module);
    module.endUpdate();
}

// A configured module, reset to sample 0.
struct Fixture {
    ModuleSettings settings;
    TestModule module;
    Fixture(const ModuleSettings& s, BackendKind kind, const std::function<void(PowerModule&)>& extra = {})
        : settings(s), module(kind) {
        configure(module, settings, extra);
        module.reset(0);
    }
    std::vector<PowerResultsGeneral> collect() {
        module.sync();
        return module.getResults(0);
    }
};

// The ring a waveform getter hands out for `slot`, or null.
inline float* waveformBuffer(const PowerModule& module, void (PowerModule::*getter)(unsigned char, float**) const,
                             unsigned char slot) {
    float* buffer = reinterpret_cast<float*>(1);  // a getter that writes nothing shows
    (module.*getter)(slot, &buffer);
    return buffer;
}

// Writes samples first … first + count − 1 of `signal` into a ring of
// `ringLength` floats at their ring positions (sample s at s mod ringLength).
inline void writeRing(float* ring, size_t ringLength, uint64_t first, size_t count, const Waveform& signal,
                      double fundamental, double sampleRate) {
    for (uint64_t s = first; s < first + count; ++s)
        ring[s % ringLength] = static_cast<float>(signal.at(static_cast<double>(s) / sampleRate, fundamental));
}

// Reads samples first … first + count − 1 back from a ring.
inline std::vector<double> readRing(const float* ring, size_t ringLength, uint64_t first, size_t count) {
    std::vector<double> block(count);
    for (size_t i = 0; i < count; ++i) block[i] = ring[(first + i) % ringLength];
    return block;
}

// Writes every measured channel for samples first … first + count − 1 into the
// module's input rings and reports them with writeSamples (count ≤ ring length).
// It first waits for the device, since earlier uploads may still read ring
// positions that these samples overwrite.
inline void writeMeasured(PowerModule& module, const MeasuredSignals& signals, uint64_t first, size_t count,
                          double fundamental) {
    module.sync();
    const size_t ring = module.getBufferLength();
    const double rate = module.getSampleRate();
    for (size_t c = 0; c < signals.voltages.size(); ++c) {
        float* buffer = nullptr;
        module.getWaveformBufferUInput(static_cast<unsigned char>(c), &buffer);
        if (buffer != nullptr) writeRing(buffer, ring, first, count, signals.voltages[c], fundamental, rate);
    }
    for (size_t c = 0; c < signals.currents.size(); ++c) {
        float* buffer = nullptr;
        module.getWaveformBufferI(static_cast<unsigned char>(c), &buffer);
        if (buffer != nullptr) writeRing(buffer, ring, first, count, signals.currents[c], fundamental, rate);
    }
    module.writeSamples(static_cast<unsigned int>(count));
}

// Balanced three-phase (or two-phase) set: phase p is the waveform delayed by
// p × 120° of the fundamental (each tone by order × p × 120°).
inline std::vector<Waveform> balancedPhases(const Waveform& w, int phases) {
    std::vector<Waveform> result;
    for (int p = 0; p < phases; ++p) {
        Waveform shifted = w;
        for (Tone& t : shifted.tones) t.phaseDegrees -= t.order * 120.0 * p;
        result.push_back(shifted);
    }
    return result;
}

// An angle in degrees brought into (−180°, 180°].
inline double wrapDegrees(double x) {
    x = std::fmod(x, 360.0);
    if (x <= -180.0) x += 360.0;
    if (x > 180.0) x -= 360.0;
    return x;
}

// The line-to-line waveform u_a − u_b of two phase waveforms.
inline Waveform difference(const Waveform& a, const Waveform& b) {
    Waveform d = a;
    for (Tone t : b.tones) {
        t.amplitude = -t.amplitude;
        d.tones.push_back(t);
    }
    return d;
}

}  // namespace testsignals
