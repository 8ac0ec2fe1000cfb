#include "tarnel/PowerSymmetricalComponents.h"

#include <cmath>
#include <stdexcept>

namespace tarnel {

namespace {

using Complex = std::complex<double>;

// a^0, a^1, a^2 with a = e^(j120deg); built once when the library loads and
// only read afterwards.
const Complex aPowers[3] = {std::polar(1.0, 0.0), std::polar(1.0, 2.0943951023931953),
                            std::polar(1.0, 4.1887902047863905)};

}  // namespace

std::vector<Complex> PowerSymmetricalComponents::transform(const std::vector<Complex>& v) {
    if (v.size() < 3) throw std::invalid_argument("symmetrical components need three phasors");
    const Complex& x = v[0];
    const Complex& y = v[1];
    const Complex& z = v[2];
    const Complex* a = aPowers;
    return {(x * a[0] + y * a[0] + z * a[0]) / 3.0,   // zero
            (x * a[0] + y * a[1] + z * a[2]) / 3.0,   // positive
            (x * a[0] + y * a[2] + z * a[1]) / 3.0};  // negative
}

void PowerSymmetricalComponents::subtractReference(std::vector<Complex>& v, Complex reference) {
    const double theta = -std::atan2(reference.imag(), reference.real());
    const double c = std::cos(theta);
    const double s = std::sin(theta);
    for (Complex& e : v) {
        e = Complex(e.real() * c - e.imag() * s, e.real() * s + e.imag() * c);
    }
}

void PowerSymmetricalComponents::calculate(PowerResultsSymmetricalComponent& r, bool currentEnabled) {
    const double sqrt3 = std::sqrt(3.0);
    r.lineToLineVoltage.x = r.voltage.x * sqrt3;
    r.lineToLineVoltage.y = r.voltage.y * sqrt3;
    r.voltageMagnitude = std::hypot(r.voltage.x, r.voltage.y);
    r.lineToLineVoltageMagnitude = std::hypot(r.lineToLineVoltage.x, r.lineToLineVoltage.y);

    if (!currentEnabled) {
        r.currentMagnitude = 0.0;
        r.activePower = 0.0;
        r.reactivePower = 0.0;
        r.apparentPower = 0.0;
        r.activeCurrent = 0.0;
        r.reactiveCurrent = 0.0;
        r.powerFactor = 0.0;
        return;
    }

    r.currentMagnitude = std::hypot(r.current.x, r.current.y);
    // Sequence power of the three phases: 3 V I*.
    const double wx = 3.0 * r.voltage.x;
    const double wy = 3.0 * r.voltage.y;
    const double p = wx * r.current.x + wy * r.current.y;
    const double q = wy * r.current.x - wx * r.current.y;
    const double s = std::hypot(p, q);
    r.activePower = p;
    r.reactivePower = q;
    r.apparentPower = s;

    const double k = r.voltageMagnitude > 0.0 ? 1.0 / (3.0 * r.voltageMagnitude) : 0.0;
    r.activeCurrent = p * k;
    r.reactiveCurrent = q * k;
    r.powerFactor = s > 0.0 ? p / s : 0.0;
}

void PowerSymmetricalComponents::calculateRatios(PowerResultsSymmetricalComponent* r, bool currentEnabled) {
    const PowerResultsSymmetricalComponent& positive = r[1];

    const double fU = positive.voltageAllBins > 0.0 ? 100.0 / positive.voltageAllBins : 0.0;
    const double gU = positive.voltageMagnitude > 0.0 ? 100.0 / positive.voltageMagnitude : 0.0;
    const double fI = positive.currentAllBins > 0.0 ? 100.0 / positive.currentAllBins : 0.0;
    const double gI = positive.currentMagnitude > 0.0 ? 100.0 / positive.currentMagnitude : 0.0;

    for (int k = 0; k < 3; ++k) {
        r[k].voltageAllBinsRatio = fU * r[k].voltageAllBins;
        r[k].voltageRatio = gU * r[k].voltageMagnitude;
        if (currentEnabled) {
            r[k].currentAllBinsRatio = fI * r[k].currentAllBins;
            r[k].currentRatio = gI * r[k].currentMagnitude;
        }
    }
}

}  // namespace tarnel
