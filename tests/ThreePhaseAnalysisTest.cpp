// Symmetrical components and Clarke/Park transforms of block calculations,
// checked against sequence decompositions and transforms computed here from
// the phasors of closed-form sine signals.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <stdexcept>
#include <vector>

#include "TestSignals.h"

using namespace tarnel;

using namespace testsignals;

namespace {

using Complex = std::complex<double>;
using Phasors = std::array<Complex, 3>;

constexpr unsigned kBlock = 1280;  // ten periods of 50 Hz at 6400 Hz
constexpr double kOmega = 2 * kPi * 50.0 / 6400.0;

// RMS magnitude and angle in degrees.
Complex polar(double rms, double degrees) { return std::polar(rms, degrees * kPi / 180.0); }

// Sequence operator a = e^(j120deg).
const Complex kA = polar(1.0, 120.0);

// Zero, positive and negative sequence of three phasors.
Phasors fortescue(const Phasors& v) {
    return {(v[0] + v[1] + v[2]) / 3.0, (v[0] + kA * v[1] + kA * kA * v[2]) / 3.0,
            (v[0] + kA * kA * v[1] + kA * v[2]) / 3.0};
}

// Phase phasors of the given zero, positive and negative sequence parts.
Phasors fromSequences(Complex zero, Complex positive, Complex negative) {
    return {zero + positive + negative, zero + kA * kA * positive + kA * negative,
            zero + kA * positive + kA * kA * negative};
}

// Three equal phasors `step` degrees apart: a positive (-120), negative (120) or zero (0) sequence set.
Phasors balanced(double rms, double degrees, double step = -120.0) {
    return {polar(rms, degrees), polar(rms, degrees + step), polar(rms, degrees - step)};
}

// The electrical angle wt - 90 degrees of a single pole pair turning with the voltages.
double synchronousAngle(unsigned k) { return std::remainder(kOmega * k - kPi / 2, 2 * kPi); }

// The module measures all angles from the fundamental of the first voltage.
Phasors relativeTo(const Phasors& v, Complex reference) {
    const Complex turn = std::polar(1.0, -std::arg(reference));
    return {v[0] * turn, v[1] * turn, v[2] * turn};
}

// The sines whose phasors (RMS, angle at sample 0) are given.
std::vector<Waveform> sines(const Phasors& p) {
    std::vector<Waveform> w;
    for (const Complex& c : p) w.push_back(Waveform{{{1, std::sqrt(2.0) * std::abs(c), std::arg(c) * 180.0 / kPi}}});
    return w;
}

// A module of `grid` at 6400 Hz; `extra` turns on what a test looks at.
struct Module : Fixture {
    explicit Module(const std::function<void(PowerModule&)>& extra,
                    PowerGridConfigType grid = ThreePhaseStarThreeCurrents)
        : Fixture(ModuleSettings{grid}, BackendKind::Cpu, extra) {}

    // The mechanical angle, if used, must be written before the phases.
    void writeMechanicalAngle(const std::function<double(unsigned)>& angle) const {
        float* m = nullptr;
        module.getWaveformBufferMechAngles(&m);
        ASSERT_NE(m, nullptr);
        for (unsigned k = 0; k < kBlock; ++k) m[k] = static_cast<float>(angle(k));
    }

    // Writes and calculates one block of the given phasors.
    PowerResultsGeneral calculate(const Phasors& u, const Phasors& i) {
        writeMeasured(module, MeasuredSignals{sines(u), sines(i)}, 0, kBlock, 50.0);
        module.scheduleForCalculation(0, kBlock, 50.0);
        const std::vector<PowerResultsGeneral> results = collect();
        EXPECT_EQ(results.size(), 1u);
        return results.empty() ? PowerResultsGeneral{} : results[0];
    }
};

void enableSymmetricalComponents(PowerModule& m) { m.setSymmetricalComponentsEnabled(true); }
void enablePark(PowerModule& m) {
    m.setParkTransformEnabled(true);
    m.setClarkeOrParkVoltagesEnabled(true);
}

void expectPhasor(const ComplexDouble& actual, Complex expected, double tolerance, const char* what) {
    EXPECT_NEAR(actual.x, expected.real(), tolerance) << what;
    EXPECT_NEAR(actual.y, expected.imag(), tolerance) << what;
}

// Clarke alpha, beta, zero of three phasors, and the Park values derived from them.
Phasors clarkeOf(const Phasors& v) {
    return {(2.0 * v[0] - v[1] - v[2]) / 3.0, (v[1] - v[2]) / std::sqrt(3.0), (v[0] + v[1] + v[2]) / 3.0};
}
std::array<double, 3> parkOf(const Phasors& c) {
    return {(c[0].imag() + c[1].real()) / std::sqrt(2.0), (c[1].imag() - c[0].real()) / std::sqrt(2.0),
            (c[2].real() + c[2].imag()) / std::sqrt(2.0)};
}

}  // namespace

// A pure positive, negative or zero sequence set lands in its own component only.
TEST(ThreePhaseSymmetricalComponentsTest, PureSequenceSetsFillOnlyTheirComponent) {
    const double steps[] = {0.0, -120.0, 120.0};  // phase steps of a zero, positive and negative sequence set
    for (int component = 0; component < 3; ++component) {
        SCOPED_TRACE(component);
        Module m(enableSymmetricalComponents);
        const PowerResultsGeneral r = m.calculate(balanced(230.0, 0.0, steps[component]), balanced(10.0, -30.0));
        for (int k = 0; k < 3; ++k) {
            const PowerResultsSymmetricalComponent& s = r.symmetricalComponents[k];
            if (k == component) {
                // Phase L1 is the angle reference, so the only component is 230 + 0j.
                expectPhasor(s.voltage, Complex(230.0, 0.0), 0.05, "voltage");
                EXPECT_NEAR(s.voltageMagnitude, 230.0, 0.05);
                EXPECT_NEAR(s.lineToLineVoltageMagnitude, 230.0 * std::sqrt(3.0), 0.1);
                // A pure fundamental has all of its spectral energy in the fundamental.
                EXPECT_NEAR(s.voltageAllBins, s.voltageMagnitude, 1e-3 * s.voltageMagnitude);
            } else {
                EXPECT_LT(s.voltageMagnitude, 0.01) << "component " << k;
                // The window's leakage from the negative frequency mirrors the
                // sequence, so the wide-band sums keep about 1e-4 of it.
                EXPECT_LT(s.voltageAllBins, 1e-3 * 230.0) << "component " << k;
            }
        }
        if (component == 1) {
            EXPECT_DOUBLE_EQ(r.symmetricalComponents[1].voltageRatio, 100.0);
            EXPECT_DOUBLE_EQ(r.symmetricalComponents[1].voltageAllBinsRatio, 100.0);
            EXPECT_LT(r.symmetricalComponents[0].voltageRatio, 1e-3);
            EXPECT_LT(r.symmetricalComponents[2].voltageRatio, 1e-3);
        }
    }
}

// Voltages and currents with all three sequences: per-sequence magnitudes and
// unbalance ratios, and powers 3 V I*.
TEST(ThreePhaseSymmetricalComponentsTest, SequencePowersAndCurrents) {
    const Phasors vSeq = {polar(5.0, 40.0), polar(230.0, 0.0), polar(20.0, 10.0)};
    const Phasors iSeq = {polar(1.0, 20.0), polar(10.0, -30.0), polar(3.0, -50.0)};
    const Phasors v = fromSequences(vSeq[0], vSeq[1], vSeq[2]);
    const Phasors i = fromSequences(iSeq[0], iSeq[1], iSeq[2]);

    Module m(enableSymmetricalComponents);
    const PowerResultsGeneral r = m.calculate(v, i);

    // The module's phasors are turned so that phase L1's voltage lies at 0 degrees.
    const Phasors vExpected = fortescue(relativeTo(v, v[0]));
    const Phasors iExpected = fortescue(relativeTo(i, v[0]));
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        const PowerResultsSymmetricalComponent& s = r.symmetricalComponents[k];
        const Complex power = 3.0 * vSeq[k] * std::conj(iSeq[k]);
        const double tolerance = 2e-4 * std::abs(3.0 * 230.0 * 10.0);
        expectPhasor(s.voltage, vExpected[k], 0.02, "voltage");
        expectPhasor(s.current, iExpected[k], 2e-3, "current");
        EXPECT_NEAR(s.voltageMagnitude, std::abs(vSeq[k]), 1e-4 * 230.0);
        // The wide-band ratios agree for pure fundamentals.
        EXPECT_NEAR(s.voltageRatio, 100.0 * std::abs(vSeq[k]) / 230.0, 0.01);
        EXPECT_NEAR(s.voltageAllBinsRatio, 100.0 * std::abs(vSeq[k]) / 230.0, 0.01);
        EXPECT_NEAR(s.currentMagnitude, std::abs(iSeq[k]), 2e-3);
        EXPECT_NEAR(s.activePower, power.real(), tolerance);
        EXPECT_NEAR(s.reactivePower, power.imag(), tolerance);
        EXPECT_NEAR(s.apparentPower, std::abs(power), tolerance);
        EXPECT_NEAR(s.powerFactor, std::cos(std::arg(vSeq[k]) - std::arg(iSeq[k])), 1e-4);
        EXPECT_NEAR(s.activeCurrent, power.real() / (3.0 * std::abs(vSeq[k])), 2e-3);
        EXPECT_NEAR(s.reactiveCurrent, power.imag() / (3.0 * std::abs(vSeq[k])), 2e-3);
        EXPECT_NEAR(s.currentRatio, 100.0 * std::abs(iSeq[k]) / std::abs(iSeq[1]), 0.02);
        EXPECT_NEAR(s.currentAllBins, std::abs(iSeq[k]), 2e-3);
        EXPECT_NEAR(s.currentAllBinsRatio, 100.0 * std::abs(iSeq[k]) / std::abs(iSeq[1]), 0.02);
    }
}

// Clarke of the fundamental phasors and of the samples of a balanced set.
TEST(ThreePhaseClarkeParkTest, ClarkeOfBalancedSetPhasorsAndWaveforms) {
    const Phasors v = balanced(230.0, 0.0);
    const Phasors i = balanced(10.0, -30.0);
    Module m([](PowerModule& p) {
        p.setClarkeTransformEnabled(true);
        p.setClarkeOrParkVoltagesEnabled(true);
        p.setClarkeOrParkCurrentsEnabled(true);
        p.setClarkeOrParkWaveformsEnabled(true);
    });
    const PowerResultsGeneral r = m.calculate(v, i);

    const Phasors clarkeU = clarkeOf(v);
    const Phasors clarkeI = clarkeOf(i);
    // For a balanced set alpha is the L1 phasor and beta lags it by 90 degrees.
    ASSERT_NEAR(std::abs(clarkeU[0] - v[0]), 0.0, 1e-9);
    ASSERT_NEAR(std::abs(clarkeU[1] - Complex(0.0, -230.0)), 0.0, 1e-9);
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        expectPhasor(r.clarkeU[k], clarkeU[k], 0.05, "clarkeU");
        expectPhasor(r.clarkeI[k], clarkeI[k], 2e-3, "clarkeI");
        EXPECT_EQ(r.parkU[k], 0.0);  // Park is off
    }

    const float* u[3];
    for (unsigned char p = 0; p < 3; ++p) u[p] = waveformBuffer(m.module, &PowerModule::getWaveformBufferUInput, p);
    const float* alpha = waveformBuffer(m.module, &PowerModule::getWaveformBufferClarkeU, 0);
    const float* beta = waveformBuffer(m.module, &PowerModule::getWaveformBufferClarkeU, 1);
    const float* zero = waveformBuffer(m.module, &PowerModule::getWaveformBufferClarkeU, 2);
    const float* alphaI = waveformBuffer(m.module, &PowerModule::getWaveformBufferClarkeI, 0);
    const float* i0 = waveformBuffer(m.module, &PowerModule::getWaveformBufferI, 0);
    ASSERT_TRUE(alpha != nullptr && beta != nullptr && zero != nullptr && alphaI != nullptr && i0 != nullptr);
    int mismatches = 0;
    for (unsigned k = 0; k < kBlock; ++k) {
        const double b = (static_cast<double>(u[1][k]) - u[2][k]) / std::sqrt(3.0);
        if (std::fabs(alpha[k] - u[0][k]) > 1e-3 || std::fabs(beta[k] - b) > 1e-3 || std::fabs(zero[k]) > 1e-3 ||
            std::fabs(alphaI[k] - i0[k]) > 1e-5)
            ++mismatches;
    }
    EXPECT_EQ(mismatches, 0);
    // beta is the L1 wave delayed by a quarter period: -sqrt(2) 230 cos(wt).
    EXPECT_NEAR(beta[0], -230.0 * std::sqrt(2.0), 1e-3);
}

// Without a mechanical angle the Park values come from the Clarke phasors;
// turning the angle on without a rebuild leaves no ring for it.
TEST(ThreePhaseClarkeParkTest, ParkFromPhasorsWithoutMechanicalAngle) {
    const Phasors unbalanced = {polar(230.0, 0.0), polar(200.0, -115.0), polar(240.0, 125.0)};
    for (const Phasors& u : {balanced(230.0, 0.0), balanced(230.0, 0.0, 120.0), unbalanced}) {
        Module m(enablePark);
        const PowerResultsGeneral r = m.calculate(u, balanced(10.0, 0.0));
        const std::array<double, 3> expected = parkOf(clarkeOf(u));
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(r.parkU[k], expected[k], 0.05) << k;
            EXPECT_EQ(r.clarkeU[k].x, 0.0);  // Clarke is off
        }
    }

    Module m(enablePark);
    writeMeasured(m.module, MeasuredSignals{sines(balanced(230.0, 0.0)), sines(balanced(10.0, 0.0))}, 0, kBlock, 50.0);
    m.module.setMechanicalAngleUsed(true);
    m.module.setPolePairs(1);
    EXPECT_THROW(m.module.scheduleForCalculation(0, kBlock, 50.0), std::logic_error);
    // A rebuild adds the ring and the same request is accepted.
    m.module.beginUpdate();
    m.module.endUpdate();
    m.module.reset(0);
    m.writeMechanicalAngle(synchronousAngle);
    const PowerResultsGeneral r = m.calculate(balanced(230.0, 0.0), balanced(10.0, 0.0));
    EXPECT_NEAR(r.parkU[0], 230.0 * std::sqrt(2.0), 2e-3);
}

// A measured angle turning with the voltages freezes them into constant d, q.
TEST(ThreePhaseClarkeParkTest, ParkWithSynchronousMechanicalAngle) {
    struct Case {
        const char* name;
        int polePairs;
        double offsetDegrees;
        std::function<double(unsigned)> angle;
        bool voltages;
    };
    // Both give the electrical angle theta = wt - 90 degrees, for which the
    // sine set of phasor A e^(j psi) has d + jq = sqrt(2) A e^(j psi).
    const Case cases[] = {
        {"one pole pair", 1, 0.0, synchronousAngle, true},
        {"two pole pairs and offset", 2, 90.0, [](unsigned k) { return std::remainder(kOmega * k, 4 * kPi) / 2; },
         true},
        {"currents only", 1, 0.0, synchronousAngle, false},
    };
    const Phasors v = balanced(230.0, 0.0);
    const Phasors i = balanced(10.0, -30.0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Module m([&](PowerModule& p) {
            p.setMechanicalAngleUsed(true);
            p.setParkTransformEnabled(true);
            p.setClarkeOrParkVoltagesEnabled(c.voltages);
            p.setClarkeOrParkCurrentsEnabled(true);
            p.setClarkeOrParkWaveformsEnabled(true);
            p.setPolePairs(c.polePairs);
            p.setMechAngleOffset(c.offsetDegrees);
        });
        m.writeMechanicalAngle(c.angle);
        const PowerResultsGeneral r = m.calculate(v, i);

        const double dU = 230.0 * std::sqrt(2.0);
        const Complex dqI = std::sqrt(2.0) * i[0];
        EXPECT_NEAR(r.parkI[0], dqI.real(), 1e-4);
        EXPECT_NEAR(r.parkI[1], dqI.imag(), 1e-4);
        EXPECT_EQ(r.parkI[2], 0.0);
        if (!c.voltages) {
            // The current means keep their own slots; the voltage slots stay empty.
            for (double p : r.parkU) EXPECT_EQ(p, 0.0);
            continue;
        }
        EXPECT_NEAR(r.parkU[0], dU, 2e-3);
        EXPECT_NEAR(r.parkU[1], 0.0, 2e-3);
        EXPECT_EQ(r.parkU[2], 0.0);

        const float* d = waveformBuffer(m.module, &PowerModule::getWaveformBufferParkU, 0);
        const float* q = waveformBuffer(m.module, &PowerModule::getWaveformBufferParkU, 1);
        const float* third = waveformBuffer(m.module, &PowerModule::getWaveformBufferParkU, 2);
        const float* dI = waveformBuffer(m.module, &PowerModule::getWaveformBufferParkI, 0);
        ASSERT_TRUE(d != nullptr && q != nullptr && third != nullptr && dI != nullptr);
        double dSum = 0.0, qSum = 0.0;
        int outliers = 0;
        for (unsigned k = 0; k < kBlock; ++k) {
            dSum += d[k];
            qSum += q[k];
            if (std::fabs(d[k] - dU) > 5e-3 || std::fabs(q[k]) > 5e-3 || third[k] != 0.0f ||
                std::fabs(dI[k] - dqI.real()) > 5e-4)
                ++outliers;
        }
        EXPECT_EQ(outliers, 0);
        // The block means are the means of the sample-by-sample values.
        EXPECT_NEAR(r.parkU[0], dSum / kBlock, 1e-4);
        EXPECT_NEAR(r.parkU[1], qSum / kBlock, 1e-4);
    }
}

// Clarke and Park settings need three phases; a single phase yields none.
TEST(ThreePhaseClarkeParkTest, SinglePhaseGridYieldsNoTransforms) {
    const auto enableAll = [](PowerModule& p) {
        p.setMechanicalAngleUsed(true);
        p.setClarkeTransformEnabled(true);
        p.setParkTransformEnabled(true);
        p.setClarkeOrParkVoltagesEnabled(true);
        p.setClarkeOrParkCurrentsEnabled(true);
        p.setClarkeOrParkWaveformsEnabled(true);
        p.setSymmetricalComponentsEnabled(true);
    };
    Module m(enableAll, SinglePhase);
    PowerResultsGeneral r{};
    ASSERT_NO_THROW(r = m.calculate(balanced(230.0, 0.0), balanced(10.0, 0.0)));
    EXPECT_NEAR(r.phases[0].rmsU, 230.0, 1e-2);  // the block itself was computed
    for (int k = 0; k < 3; ++k) {
        expectPhasor(r.clarkeU[k], 0.0, 0.0, "clarkeU");
        expectPhasor(r.clarkeI[k], 0.0, 0.0, "clarkeI");
        EXPECT_EQ(r.parkU[k], 0.0);
        EXPECT_EQ(r.parkI[k], 0.0);
        EXPECT_EQ(r.symmetricalComponents[k].voltageMagnitude, 0.0);
    }
}
