// The same configurations and samples on two backends must give the same
// records within rounding: the CUDA backend against the CPU backend where a
// device is present, and, everywhere, the CPU backend with measured FFT plans
// (another transform algorithm, so other rounding) against estimated ones.
//
// Tolerance: 1e-4 of each value plus 1e-4 of its quantity's natural scale
// (the channel's RMS, the phase's U × I, 10 % for percentages), so values that
// are tiny next to their channel are compared absolutely. Values formed as
// sqrt(a² − b²) get that allowance multiplied by a / sqrt(a² − b²).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "TestSignals.h"

using namespace testsignals;

namespace {

enum class Scale { U, I, UL, Power, PowerCancel, Ratio, Percent, Impedance };

struct Field {
    const char* name;
    size_t offset;
    Scale scale;
};

#define TARNEL_FIELD(name, scale) \
    Field { #name, offsetof(PowerResultsPhase, name), Scale::scale }
const Field kPhaseFields[] = {TARNEL_FIELD(rectifiedMeanU, U),
                              TARNEL_FIELD(rectifiedMeanI, I),
                              TARNEL_FIELD(rectifiedMeanUL, UL),
                              TARNEL_FIELD(rmsU, U),
                              TARNEL_FIELD(rmsI, I),
                              TARNEL_FIELD(rmsUL, UL),
                              TARNEL_FIELD(activePower, Power),
                              TARNEL_FIELD(spectralRmsU, U),
                              TARNEL_FIELD(spectralRmsI, I),
                              TARNEL_FIELD(spectralRmsUL, UL),
                              TARNEL_FIELD(fundamentalU, U),
                              TARNEL_FIELD(fundamentalI, I),
                              TARNEL_FIELD(fundamentalUL, UL),
                              TARNEL_FIELD(spectralActivePower, Power),
                              TARNEL_FIELD(nonActivePower, PowerCancel),
                              TARNEL_FIELD(apparentPower, Power),
                              TARNEL_FIELD(powerFactor, Ratio),
                              TARNEL_FIELD(distortionPower, PowerCancel),
                              TARNEL_FIELD(budeanuReactivePower, Power),
                              TARNEL_FIELD(budeanuDistortionPower, PowerCancel),
                              TARNEL_FIELD(fundamentalActivePower, Power),
                              TARNEL_FIELD(fundamentalReactivePower, PowerCancel),
                              TARNEL_FIELD(fundamentalApparentPower, Power),
                              TARNEL_FIELD(displacementPowerFactor, Ratio),
                              TARNEL_FIELD(fundamentalReactivePowerSum, Power),
                              TARNEL_FIELD(impedance, Impedance),
                              TARNEL_FIELD(fundamentalImpedance, Impedance),
                              TARNEL_FIELD(currentHarmonicContent, I)};
#undef TARNEL_FIELD

double fieldOf(const PowerResultsPhase& b, size_t offset) {
    double v;
    std::memcpy(&v, reinterpret_cast<const char*>(&b) + offset, sizeof(v));
    return v;
}

bool near(double a, double b, double scale, double relative) {
    return std::fabs(a - b) <= 1e-4 * std::max(std::fabs(a), std::fabs(b)) + relative * scale;
}

double wrapDegrees(double x) {
    x = std::fmod(x, 360.0);
    if (x <= -180.0) x += 360.0;
    if (x > 180.0) x -= 360.0;
    return x;
}

struct Scales {
    double u, i, ul;
    double of(Scale s) const {
        switch (s) {
            case Scale::U:
                return u;
            case Scale::I:
                return i;
            case Scale::UL:
                return ul;
            case Scale::Power:
            case Scale::PowerCancel:
                return u * i;
            case Scale::Ratio:
                return 1.0;
            case Scale::Percent:
                return 10.0;
            case Scale::Impedance:
                return i > 0.0 ? u / i : 0.0;
        }
        return 0.0;
    }
};

void expectThdAgree(const PowerResultsThd& a, const PowerResultsThd& b, double channel, const char* name) {
    const double values[2][9] = {{a.thd, a.thdEven, a.thdOdd, a.thdOddTriplen, a.thdOddNonTriplen, a.thdOfRms,
                                  a.harmonicContent, a.distortionContent, a.totalDistortion},
                                 {b.thd, b.thdEven, b.thdOdd, b.thdOddTriplen, b.thdOddNonTriplen, b.thdOfRms,
                                  b.harmonicContent, b.distortionContent, b.totalDistortion}};
    for (int k = 0; k < 9; ++k) {
        const bool content = k == 6 || k == 7;
        EXPECT_PRED4(near, values[0][k], values[1][k], content ? channel : 10.0, k >= 7 ? 1e-3 : 1e-4)
            << name << " field " << k;
    }
}

// Per-order arrays: both absent, or equal within the scale.
void expectArraysAgree(const float* a, const float* b, size_t count, double scale, const char* name) {
    ASSERT_EQ(a == nullptr, b == nullptr) << name;
    if (a == nullptr) return;
    for (size_t h = 0; h < count; ++h) EXPECT_PRED4(near, a[h], b[h], scale, 1e-4) << name << " order " << h;
}

void expectPhasesAgree(const PowerResultsPhase& a, const PowerResultsPhase& b, size_t H, size_t bins) {
    const Scales s{std::max(a.rmsU, 1e-9), std::max(a.rmsI, 1e-9), std::max(a.rmsUL, 1e-9)};
    for (const Field& f : kPhaseFields) {
        const double value = fieldOf(a, f.offset), scale = s.of(f.scale);
        // sqrt(a² − b²) amplifies the error of a and b by a / sqrt(a² − b²).
        const double relative =
            f.scale == Scale::PowerCancel ? 1e-4 * scale / std::max(std::fabs(value), 1e-2 * scale) : 1e-4;
        EXPECT_PRED4(near, value, fieldOf(b, f.offset), scale, relative) << f.name;
    }
    expectThdAgree(a.thdU, b.thdU, s.u, "thdU");
    expectThdAgree(a.thdI, b.thdI, s.i, "thdI");
    expectThdAgree(a.thdUL, b.thdUL, s.ul, "thdUL");
    expectThdAgree(a.interharmonicDistortionU, b.interharmonicDistortionU, s.u, "interharmonicDistortionU");
    expectThdAgree(a.interharmonicDistortionI, b.interharmonicDistortionI, s.i, "interharmonicDistortionI");
    expectThdAgree(a.interharmonicDistortionUL, b.interharmonicDistortionUL, s.ul, "interharmonicDistortionUL");

    expectArraysAgree(a.harmonicsU, b.harmonicsU, H, s.u, "harmonicsU");
    expectArraysAgree(a.harmonicsI, b.harmonicsI, H, s.i, "harmonicsI");
    expectArraysAgree(a.harmonicsUL, b.harmonicsUL, H, s.ul, "harmonicsUL");
    expectArraysAgree(a.interharmonicsU, b.interharmonicsU, H, s.u, "interharmonicsU");
    expectArraysAgree(a.interharmonicsI, b.interharmonicsI, H, s.i, "interharmonicsI");
    expectArraysAgree(a.interharmonicsUL, b.interharmonicsUL, H, s.ul, "interharmonicsUL");
    expectArraysAgree(a.harmonicActivePowers, b.harmonicActivePowers, H, s.u * s.i, "harmonicActivePowers");
    expectArraysAgree(a.harmonicReactivePowers, b.harmonicReactivePowers, H, s.u * s.i, "harmonicReactivePowers");
    expectArraysAgree(a.harmonicApparentPowers, b.harmonicApparentPowers, H, s.u * s.i, "harmonicApparentPowers");
    ASSERT_EQ(a.harmonicImpedances == nullptr, b.harmonicImpedances == nullptr);
    if (a.harmonicImpedances != nullptr) {
        // U_h / I_h carries the relative errors of both group values.
        for (size_t h = 0; h < H; ++h) {
            if (std::fabs(a.harmonicsI[h] - 0.001) < 1e-4) continue;  // either side of the threshold
            const double z = a.harmonicImpedances[h];
            const double spread =
                1e-5 * std::fabs(z) *
                (s.u / std::max<double>(a.harmonicsU[h], 1e-9) + s.i / std::max<double>(a.harmonicsI[h], 1e-9));
            EXPECT_NEAR(z, b.harmonicImpedances[h], 1e-4 * std::fabs(z) + spread) << "harmonicImpedances order " << h;
        }
    }
    // Angles only where the order carries at least 1 % of the fundamental.
    const std::pair<const float*, const float*> angles[2] = {{a.harmonicAnglesU, b.harmonicAnglesU},
                                                             {a.harmonicAnglesI, b.harmonicAnglesI}};
    const float* magnitudes[2] = {a.harmonicsU, a.harmonicsI};
    for (int k = 0; k < 2; ++k) {
        ASSERT_EQ(angles[k].first == nullptr, angles[k].second == nullptr);
        if (angles[k].first == nullptr) continue;
        for (size_t h = 1; h < H; ++h) {
            if (magnitudes[k][h] < 0.01 * magnitudes[k][1]) continue;
            EXPECT_NEAR(wrapDegrees(angles[k].first[h] - angles[k].second[h]), 0.0, 0.05)
                << (k == 0 ? "angle U" : "angle I") << " order " << h;
        }
    }
    const std::pair<const float2*, const float2*> spectra[3] = {{a.fftU, b.fftU}, {a.fftI, b.fftI}, {a.fftUL, b.fftUL}};
    for (const auto& [x, y] : spectra) {
        ASSERT_EQ(x == nullptr, y == nullptr);
        if (x == nullptr) continue;
        double largest = 0.0;
        for (size_t k = 0; k < bins; ++k) largest = std::max<double>(largest, std::hypot(x[k].x, x[k].y));
        for (size_t k = 0; k < bins; ++k)
            ASSERT_LE(std::hypot(x[k].x - y[k].x, x[k].y - y[k].y), 1e-4 * largest) << "bin " << k;
    }
}

void expectRecordsAgree(const PowerResultsGeneral& a, const PowerResultsGeneral& b) {
    EXPECT_EQ(a.firstSampleIndex, b.firstSampleIndex);
    EXPECT_EQ(a.length, b.length);
    EXPECT_EQ(a.fftOutputLength, b.fftOutputLength);
    EXPECT_EQ(a.harmonicLength, b.harmonicLength);
    EXPECT_EQ(a.phasesCount, b.phasesCount);
    EXPECT_EQ(a.endTime, b.endTime);
    EXPECT_EQ(a.frequency, b.frequency);
    EXPECT_EQ(a.dFrequency, b.dFrequency);
    EXPECT_EQ(a.referenceAngle, b.referenceAngle);
    for (int p = 0; p < 4; ++p) {
        SCOPED_TRACE("block " + std::to_string(p));
        expectPhasesAgree(a.phases[p], b.phases[p], a.harmonicLength, a.fftOutputLength);
    }
    const double u = std::max(a.phases[0].rmsU, 1e-9), i = std::max(a.phases[0].rmsI, 1e-9);
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE("sequence " + std::to_string(k));
        const PowerResultsSymmetricalComponent &x = a.symmetricalComponents[k], &y = b.symmetricalComponents[k];
        const double values[2][21] = {
            {x.voltage.x,        x.voltage.y,           x.lineToLineVoltage.x, x.lineToLineVoltage.y,
             x.current.x,        x.current.y,           x.voltageMagnitude,    x.lineToLineVoltageMagnitude,
             x.currentMagnitude, x.activePower,         x.reactivePower,       x.apparentPower,
             x.activeCurrent,    x.reactiveCurrent,     x.powerFactor,         x.voltageAllBins,
             x.currentAllBins,   x.voltageAllBinsRatio, x.currentAllBinsRatio, x.voltageRatio,
             x.currentRatio},
            {y.voltage.x,        y.voltage.y,           y.lineToLineVoltage.x, y.lineToLineVoltage.y,
             y.current.x,        y.current.y,           y.voltageMagnitude,    y.lineToLineVoltageMagnitude,
             y.currentMagnitude, y.activePower,         y.reactivePower,       y.apparentPower,
             y.activeCurrent,    y.reactiveCurrent,     y.powerFactor,         y.voltageAllBins,
             y.currentAllBins,   y.voltageAllBinsRatio, y.currentAllBinsRatio, y.voltageRatio,
             y.currentRatio}};
        const double scales[21] = {u,         u, 2 * u, 2 * u, i, i, u,    2 * u, i,    3 * u * i, 3 * u * i,
                                   3 * u * i, i, i,     1.0,   u, i, 10.0, 10.0,  10.0, 10.0};
        // A sequence whose voltage or current vanishes (zero sequence of a delta
        // or three-wire grid) has no defined direction: skip its currents and factor.
        const bool vanishing = x.voltageMagnitude < 1e-3 * u || x.currentMagnitude < 1e-3 * i;
        for (int f = 0; f < 21; ++f) {
            if (vanishing && f >= 12 && f <= 14) continue;
            EXPECT_PRED4(near, values[0][f], values[1][f], scales[f], 1e-4) << "field " << f;
        }
    }
    for (int k = 0; k < 3; ++k) {
        EXPECT_PRED4(near, a.clarkeU[k].x, b.clarkeU[k].x, u, 1e-4) << "clarkeU " << k;
        EXPECT_PRED4(near, a.clarkeU[k].y, b.clarkeU[k].y, u, 1e-4) << "clarkeU " << k;
        EXPECT_PRED4(near, a.clarkeI[k].x, b.clarkeI[k].x, i, 1e-4) << "clarkeI " << k;
        EXPECT_PRED4(near, a.clarkeI[k].y, b.clarkeI[k].y, i, 1e-4) << "clarkeI " << k;
        EXPECT_PRED4(near, a.parkU[k], b.parkU[k], u, 1e-4) << "parkU " << k;
        EXPECT_PRED4(near, a.parkI[k], b.parkI[k], i, 1e-4) << "parkI " << k;
    }
}

// One module per backend, the same settings and samples; derived waveforms compared too.
void expectBackendsAgree(const BackendOptions& first, const BackendOptions& second) {
    for (int type = 0; type < 8; ++type) {
        SCOPED_TRACE("grid type " + std::to_string(type));
        ModuleSettings s;
        s.grid = static_cast<PowerGridConfigType>(type);
        s.waveforms = true;
        TestModule a(first), b(second);
        std::mt19937 random(77u + static_cast<unsigned>(type));
        MeasuredSignals signals;
        const PowerGridConfig grid = PowerGridConfig::forType(s.grid);
        for (int c = 0; c < grid.voltagesCount; ++c) signals.voltages.push_back(randomWaveform(random, 325.0, 15));
        for (int c = 0; c < grid.currentsCount; ++c) signals.currents.push_back(randomWaveform(random, 10.0, 15));
        const double frequency = 50.7;
        const unsigned n = 1262;
        for (PowerModule* m : {&a, &b}) {
            configure(*m, s);
            m->beginUpdate();
            m->setSymmetricalComponentsEnabled(true);
            m->setClarkeTransformEnabled(true);
            m->setParkTransformEnabled(true);
            m->setClarkeOrParkVoltagesEnabled(true);
            m->setClarkeOrParkCurrentsEnabled(true);
            m->endUpdate();
            m->reset(0);
            writeMeasured(*m, signals, 0, 3 * n, frequency);
            for (unsigned k = 0; k < 3; ++k) m->scheduleForCalculation(k * n, static_cast<int>(n), frequency);
            m->sync();
        }
        const auto ra = a.getResults(0), rb = b.getResults(0);
        ASSERT_EQ(ra.size(), 3u);
        ASSERT_EQ(rb.size(), 3u);
        for (size_t k = 0; k < 3; ++k) {
            SCOPED_TRACE("calculation " + std::to_string(k));
            expectRecordsAgree(ra[k], rb[k]);
        }
        const size_t ring = a.getBufferLength();
        for (unsigned char c = 0; c < 3; ++c) {
            for (auto getter : {&PowerModule::getWaveformBufferUStar, &PowerModule::getWaveformBufferUDelta,
                                &PowerModule::getWaveformBufferI}) {
                float* x = nullptr;
                float* y = nullptr;
                (a.*getter)(c, &x);
                (b.*getter)(c, &y);
                ASSERT_EQ(x == nullptr, y == nullptr);
                if (x == nullptr) continue;
                for (size_t k = 0; k < 3 * n; ++k)
                    ASSERT_NEAR(x[k % ring], y[k % ring], 1e-3) << "channel " << int(c) << " sample " << k;
            }
        }
    }
}

}  // namespace

TEST(CudaBackendTest, CudaAndCpuGiveTheSameRecords) {
    if (!tarnel::isCudaDeviceAvailable()) GTEST_SKIP() << "no CUDA device: the CUDA backend cannot be compared here";
    expectBackendsAgree(BackendOptions{BackendKind::Cuda, 0, false}, BackendOptions{BackendKind::Cpu, 0, false});
}

TEST(CudaBackendTest, MeasuredAndEstimatedFftPlansGiveTheSameRecords) {
    expectBackendsAgree(BackendOptions{BackendKind::Cpu, 0, true}, BackendOptions{BackendKind::Cpu, 0, false});
}
