#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <stdexcept>
#include <vector>

#include "tarnel/PowerSymmetricalComponents.h"

using namespace tarnel;

namespace {

using Complex = std::complex<double>;
using Phasors = std::vector<Complex>;

const double pi = 3.14159265358979323846;

Complex polarDeg(double magnitude, double degrees) { return std::polar(magnitude, degrees * pi / 180.0); }

// Phase phasors synthesised from given sequence components (the inverse
// Fortescue matrix): L1 = V0 + V+ + V-, L2 = V0 + a^2 V+ + a V-, L3 = V0 + a V+ + a^2 V-.
Phasors synthesise(Complex v0, Complex vp, Complex vn) {
    const Complex a = std::exp(Complex(0.0, 2.0 * pi / 3.0));
    return {v0 + vp + vn, v0 + a * a * vp + a * vn, v0 + a * vp + a * a * vn};
}

void expectNear(Complex actual, Complex expected, double tolerance = 1e-9) {
    EXPECT_NEAR(actual.real(), expected.real(), tolerance);
    EXPECT_NEAR(actual.imag(), expected.imag(), tolerance);
}

// Records zero, positive, negative from phase voltages, with currents off.
void fillRecords(const Phasors& v, PowerResultsSymmetricalComponent r[3]) {
    const Phasors s = PowerSymmetricalComponents::transform(v);
    for (int k = 0; k < 3; ++k) {
        r[k] = PowerResultsSymmetricalComponent{};
        r[k].voltage = {s[k].real(), s[k].imag()};
        PowerSymmetricalComponents::calculate(r[k], false);
    }
    PowerSymmetricalComponents::calculateRatios(r, false);
}

// Negative-sequence unbalance from the three line-to-line magnitudes alone.
double unbalanceFromLineMagnitudes(const Phasors& v) {
    const double u12 = std::abs(v[0] - v[1]), u23 = std::abs(v[1] - v[2]), u31 = std::abs(v[2] - v[0]);
    const double sq = u12 * u12 + u23 * u23 + u31 * u31;
    const double beta = (std::pow(u12, 4) + std::pow(u23, 4) + std::pow(u31, 4)) / (sq * sq);
    const double root = std::sqrt(3.0 - 6.0 * beta);
    return 100.0 * std::sqrt((1.0 - root) / (1.0 + root));
}

}  // namespace

TEST(PowerSymmetricalComponents, TransformRecoversSynthesisedComponents) {
    const Complex v0 = polarDeg(12.0, 75.0), vp = polarDeg(229.0, -8.0), vn = polarDeg(7.5, 160.0);
    Phasors v = synthesise(v0, vp, vn);
    v.push_back(Complex(1e6, 1e6));  // elements beyond the third are ignored
    const Phasors s = PowerSymmetricalComponents::transform(v);
    ASSERT_EQ(s.size(), 3u);
    expectNear(s[0], v0);
    expectNear(s[1], vp);
    expectNear(s[2], vn);
    EXPECT_THROW(PowerSymmetricalComponents::transform({Complex(1, 0), Complex(0, 1)}), std::invalid_argument);
}

// Three equal phasors form only a zero sequence; with no positive sequence every ratio is 0.
TEST(PowerSymmetricalComponents, ZeroPositiveSequenceGivesZeroRatios) {
    PowerResultsSymmetricalComponent r[3];
    fillRecords({polarDeg(100, 30), polarDeg(100, 30), polarDeg(100, 30)}, r);
    expectNear({r[0].voltage.x, r[0].voltage.y}, polarDeg(100, 30));
    EXPECT_NEAR(r[1].voltageMagnitude, 0.0, 1e-12);
    r[1] = PowerResultsSymmetricalComponent{};
    PowerSymmetricalComponents::calculate(r[1], false);
    r[0].voltageAllBins = 50.0;
    PowerSymmetricalComponents::calculateRatios(r, false);
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(r[k].voltageRatio, 0.0);
        EXPECT_EQ(r[k].voltageAllBinsRatio, 0.0);
    }
}

TEST(PowerSymmetricalComponents, OnePhaseLowGivesExpectedUnbalance) {
    // L2 at 90 %: removing 10 % of one phasor moves a third of it into each
    // sequence, so u2 = u0 = (0.1 / 3) / (1 - 0.1 / 3) = 1 / 29.
    const Phasors v = {polarDeg(230, 0), polarDeg(0.9 * 230, -120), polarDeg(230, 120)};
    PowerResultsSymmetricalComponent r[3];
    fillRecords(v, r);
    EXPECT_NEAR(r[2].voltageRatio, 100.0 / 29.0, 1e-9);
    EXPECT_NEAR(r[0].voltageRatio, 100.0 / 29.0, 1e-9);
    EXPECT_NEAR(r[2].voltageRatio, unbalanceFromLineMagnitudes(v), 1e-9);
    EXPECT_NEAR(r[1].voltageMagnitude, 230.0 * (1.0 - 0.1 / 3.0), 1e-9);

    // The all-bins ratios use the all-bins magnitudes, independently; so do the current ratios.
    r[0].voltageAllBins = 3.0;
    r[1].voltageAllBins = 200.0;
    r[2].voltageAllBins = 5.0;
    r[0].currentMagnitude = 10.0;
    r[1].currentMagnitude = 20.0;
    r[1].currentAllBins = 40.0;
    r[2].currentAllBins = 4.0;
    PowerSymmetricalComponents::calculateRatios(r, true);
    EXPECT_DOUBLE_EQ(r[0].voltageAllBinsRatio, 1.5);
    EXPECT_DOUBLE_EQ(r[1].voltageAllBinsRatio, 100.0);
    EXPECT_DOUBLE_EQ(r[2].voltageAllBinsRatio, 2.5);
    EXPECT_DOUBLE_EQ(r[0].currentRatio, 50.0);
    EXPECT_DOUBLE_EQ(r[2].currentAllBinsRatio, 10.0);
}

TEST(PowerSymmetricalComponents, SubtractReferenceRotatesToReferenceAngle) {
    Phasors v = {polarDeg(230, 37), polarDeg(10, -50), Complex(0, 0)};
    PowerSymmetricalComponents::subtractReference(v, polarDeg(5, 37));
    expectNear(v[0], 230.0);
    expectNear(v[1], polarDeg(10, -87));
    expectNear(v[2], 0.0);
    // A reference on the negative real axis turns by 180 degrees.
    v = {Complex(3, 4)};
    PowerSymmetricalComponents::subtractReference(v, Complex(-2, 0));
    expectNear(v[0], Complex(-3, -4));
}

TEST(PowerSymmetricalComponents, CurrentsOffAndZeroMagnitudes) {
    // Currents disabled: current kept, derived fields zero, current ratios untouched.
    PowerResultsSymmetricalComponent r[3] = {};
    for (auto& rec : r) {
        rec.voltage = {100.0, 50.0};
        rec.current = {7.0, -2.0};
        rec.activePower = rec.reactivePower = rec.apparentPower = rec.currentMagnitude = 99.0;
        rec.activeCurrent = rec.reactiveCurrent = rec.powerFactor = 99.0;
        rec.currentRatio = rec.currentAllBinsRatio = 42.0;
        PowerSymmetricalComponents::calculate(rec, false);
    }
    PowerSymmetricalComponents::calculateRatios(r, false);
    EXPECT_EQ(r[0].current.x, 7.0);
    EXPECT_EQ(r[0].current.y, -2.0);
    for (double field : {r[0].currentMagnitude, r[0].activePower, r[0].reactivePower, r[0].apparentPower,
                         r[0].activeCurrent, r[0].reactiveCurrent, r[0].powerFactor}) {
        EXPECT_EQ(field, 0.0);
    }
    EXPECT_EQ(r[2].currentRatio, 42.0);
    EXPECT_EQ(r[2].currentAllBinsRatio, 42.0);

    // No voltage but a current: no active/reactive current, and S = 0 gives PF 0.
    PowerResultsSymmetricalComponent z{};
    z.current = {5.0, 1.0};
    PowerSymmetricalComponents::calculate(z, true);
    EXPECT_EQ(z.voltageMagnitude, 0.0);
    EXPECT_EQ(z.currentMagnitude, std::hypot(5.0, 1.0));
    EXPECT_EQ(z.activeCurrent, 0.0);
    EXPECT_EQ(z.reactiveCurrent, 0.0);
    EXPECT_EQ(z.apparentPower, 0.0);
    EXPECT_EQ(z.powerFactor, 0.0);
}
