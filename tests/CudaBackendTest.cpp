// Two backends given the same configuration and samples must give the same
// records within rounding: CUDA against CPU where a device is present, and
// everywhere CPU with measured FFT plans (other rounding) against estimated.
// Tolerance: 1e-4 of each value plus 1e-4 of its quantity's natural scale
// (channel RMS, U × I, 10 % for percentages); values formed as sqrt(a² − b²)
// get that allowance multiplied by a / sqrt(a² − b²).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "TestSignals.h"
#include "tarnel/CudaErrorHandling.h"
#if defined(TARNEL_WITH_CUDA)
#include "backends/cuda/CufftLibrary.h"
#endif

using namespace testsignals;

namespace {

// The natural scale of a quantity; indexes the scales array of expectPhasesAgree.
enum class Scale { U, I, UL, Power, PowerCancel, Ratio, Impedance };

struct Field {
    const char* name;
    double PowerResultsPhase::*member;
};

#define F(name) \
    Field { #name, &PowerResultsPhase::name }
const std::pair<Scale, std::vector<Field>> kPhaseFields[] = {
    {Scale::U, {F(rectifiedMeanU), F(rmsU), F(spectralRmsU), F(fundamentalU)}},
    {Scale::I, {F(rectifiedMeanI), F(rmsI), F(spectralRmsI), F(fundamentalI), F(currentHarmonicContent)}},
    {Scale::UL, {F(rectifiedMeanUL), F(rmsUL), F(spectralRmsUL), F(fundamentalUL)}},
    {Scale::Power,
     {F(activePower), F(spectralActivePower), F(apparentPower), F(budeanuReactivePower), F(fundamentalActivePower),
      F(fundamentalApparentPower), F(fundamentalReactivePowerSum)}},
    {Scale::PowerCancel,
     {F(nonActivePower), F(distortionPower), F(budeanuDistortionPower), F(fundamentalReactivePower)}},
    {Scale::Ratio, {F(powerFactor), F(displacementPowerFactor)}},
    {Scale::Impedance, {F(impedance), F(fundamentalImpedance)}}};
#undef F

bool near(double a, double b, double scale, double relative) {
    return std::fabs(a - b) <= 1e-4 * std::max(std::fabs(a), std::fabs(b)) + relative * scale;
}

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
    const double u = std::max(a.rmsU, 1e-9), i = std::max(a.rmsI, 1e-9), ul = std::max(a.rmsUL, 1e-9);
    const double scales[] = {u, i, ul, u * i, u * i, 1.0, u / i};
    for (const auto& [kind, fields] : kPhaseFields) {
        const double scale = scales[static_cast<int>(kind)];
        for (const Field& f : fields) {
            const double value = a.*f.member;
            // sqrt(a² − b²) amplifies the error of a and b by a / sqrt(a² − b²).
            const double relative =
                kind == Scale::PowerCancel ? 1e-4 * scale / std::max(std::fabs(value), 1e-2 * scale) : 1e-4;
            EXPECT_PRED4(near, value, b.*f.member, scale, relative) << f.name;
        }
    }
    expectThdAgree(a.thdU, b.thdU, u, "thdU");
    expectThdAgree(a.thdI, b.thdI, i, "thdI");
    expectThdAgree(a.thdUL, b.thdUL, ul, "thdUL");
    expectThdAgree(a.interharmonicDistortionU, b.interharmonicDistortionU, u, "interharmonicDistortionU");
    expectThdAgree(a.interharmonicDistortionI, b.interharmonicDistortionI, i, "interharmonicDistortionI");
    expectThdAgree(a.interharmonicDistortionUL, b.interharmonicDistortionUL, ul, "interharmonicDistortionUL");

    expectArraysAgree(a.harmonicsU, b.harmonicsU, H, u, "harmonicsU");
    expectArraysAgree(a.harmonicsI, b.harmonicsI, H, i, "harmonicsI");
    expectArraysAgree(a.harmonicsUL, b.harmonicsUL, H, ul, "harmonicsUL");
    expectArraysAgree(a.interharmonicsU, b.interharmonicsU, H, u, "interharmonicsU");
    expectArraysAgree(a.interharmonicsI, b.interharmonicsI, H, i, "interharmonicsI");
    expectArraysAgree(a.interharmonicsUL, b.interharmonicsUL, H, ul, "interharmonicsUL");
    expectArraysAgree(a.harmonicActivePowers, b.harmonicActivePowers, H, u * i, "harmonicActivePowers");
    expectArraysAgree(a.harmonicReactivePowers, b.harmonicReactivePowers, H, u * i, "harmonicReactivePowers");
    expectArraysAgree(a.harmonicApparentPowers, b.harmonicApparentPowers, H, u * i, "harmonicApparentPowers");
    ASSERT_EQ(a.harmonicImpedances == nullptr, b.harmonicImpedances == nullptr);
    if (a.harmonicImpedances != nullptr) {
        // U_h / I_h carries the relative errors of both group values.
        for (size_t h = 0; h < H; ++h) {
            if (std::fabs(a.harmonicsI[h] - 0.001) < 1e-4) continue;  // either side of the threshold
            const double z = a.harmonicImpedances[h];
            const double spread =
                1e-5 * std::fabs(z) *
                (u / std::max<double>(a.harmonicsU[h], 1e-9) + i / std::max<double>(a.harmonicsI[h], 1e-9));
            EXPECT_NEAR(z, b.harmonicImpedances[h], 1e-4 * std::fabs(z) + spread) << "harmonicImpedances order " << h;
        }
    }
    // Angles only where the order carries at least 1 % of the fundamental.
    for (const auto& [x, y, magnitude, name] :
         {std::tuple{a.harmonicAnglesU, b.harmonicAnglesU, a.harmonicsU, "angle U"},
          std::tuple{a.harmonicAnglesI, b.harmonicAnglesI, a.harmonicsI, "angle I"}}) {
        ASSERT_EQ(x == nullptr, y == nullptr);
        if (x == nullptr) continue;
        for (size_t h = 1; h < H; ++h) {
            if (magnitude[h] < 0.01 * magnitude[1]) continue;
            EXPECT_NEAR(wrapDegrees(x[h] - y[h]), 0.0, 0.05) << name << " order " << h;
        }
    }
    const std::pair<const tarnel::float2*, const tarnel::float2*> spectra[3] = {
        {a.fftU, b.fftU}, {a.fftI, b.fftI}, {a.fftUL, b.fftUL}};
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
    auto header = [](const PowerResultsGeneral& r) {
        return std::tie(r.firstSampleIndex, r.length, r.fftOutputLength, r.harmonicLength, r.phasesCount, r.endTime,
                        r.frequency, r.dFrequency, r.referenceAngle);
    };
    EXPECT_EQ(header(a), header(b));
    for (int p = 0; p < 4; ++p) {
        SCOPED_TRACE("block " + std::to_string(p));
        expectPhasesAgree(a.phases[p], b.phases[p], a.harmonicLength, a.fftOutputLength);
    }
    const double u = std::max(a.phases[0].rmsU, 1e-9), i = std::max(a.phases[0].rmsI, 1e-9);
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE("sequence " + std::to_string(k));
        const PowerResultsSymmetricalComponent &x = a.symmetricalComponents[k], &y = b.symmetricalComponents[k];
        auto fields = [](const PowerResultsSymmetricalComponent& c) {
            return std::array<double, 21>{
                c.voltage.x,        c.voltage.y,           c.lineToLineVoltage.x, c.lineToLineVoltage.y,
                c.current.x,        c.current.y,           c.voltageMagnitude,    c.lineToLineVoltageMagnitude,
                c.currentMagnitude, c.activePower,         c.reactivePower,       c.apparentPower,
                c.activeCurrent,    c.reactiveCurrent,     c.powerFactor,         c.voltageAllBins,
                c.currentAllBins,   c.voltageAllBinsRatio, c.currentAllBinsRatio, c.voltageRatio,
                c.currentRatio};
        };
        const std::array<double, 21> values[2] = {fields(x), fields(y)};
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
        const MeasuredSignals signals = randomSignals(s.grid, 77u + static_cast<unsigned>(type));
        const double frequency = 50.7;
        const unsigned n = 1262;
        for (PowerModule* m : {&a, &b}) {
            configure(*m, s, [](PowerModule& x) {
                x.setSymmetricalComponentsEnabled(true);
                x.setClarkeTransformEnabled(true);
                x.setParkTransformEnabled(true);
                x.setClarkeOrParkVoltagesEnabled(true);
                x.setClarkeOrParkCurrentsEnabled(true);
            });
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
                float *x = nullptr, *y = nullptr;
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

// Where the CUDA backend cannot run (not built in, no device, or no cuFFT to
// load), Auto computes on the CPU and an explicit Cuda is refused with a
// GpuException that says why.
TEST(CudaBackendTest, WithoutAUsableDeviceAutoTakesTheCpuAndCudaIsRefused) {
    if (tarnel::isCudaDeviceAvailable()) GTEST_SKIP() << "a usable CUDA device is present";
    EXPECT_EQ(PowerModule().getBackendKind(), BackendKind::Cpu);
    EXPECT_STREQ(tarnel::backendName(BackendKind::Auto), "cpu");
    try {
        PowerModule module(BackendKind::Cuda);
        ADD_FAILURE() << "a CUDA module was made without a usable device";
    } catch (const GpuException& e) {
        EXPECT_NE(std::string(e.what()).find("CUDA"), std::string::npos) << e.what();
    }
}

#if defined(TARNEL_WITH_CUDA)
// cuFFT is loaded at run time; a missing or foreign library is reported by
// name with the reason, never at program start.
TEST(CufftLibraryTest, AMissingOrForeignLibraryIsNamedWithTheReason) {
    std::string error;
    EXPECT_EQ(tarnel::loadCufftFrom("libcufft-absent.so.0", &error), nullptr);
    EXPECT_NE(error.find("cannot load the cuFFT library libcufft-absent.so.0: "), std::string::npos) << error;
    EXPECT_NE(error.find("cannot open shared object file"), std::string::npos) << error;
    EXPECT_EQ(tarnel::loadCufftFrom("libm.so.6", &error), nullptr);
    EXPECT_NE(error.find("libm.so.6: it has no function cufftCreate"), std::string::npos) << error;
    EXPECT_EQ(std::string(tarnel::cufftLibraryName()).rfind("libcufft.so.", 0), 0u);
}
#endif

using namespace tarnel;
