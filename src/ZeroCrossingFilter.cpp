#include "ZeroCrossingFilter.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tarnel {

namespace {

const double pi = 3.14159265358979323846;

// Stopband attenuation of both stages, dB; the passband ripple is the same 1e-4.
const double attenuationDb = 80.0;

// Modified Bessel function of the first kind, order 0 (power series).
double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    const double q = 0.25 * x * x;
    for (int k = 1; k < 500; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < 1e-17 * sum) break;
    }
    return sum;
}

// Odd Kaiser-window length and shape for the given transition width
// (a fraction of the sample rate) and attenuation (Kaiser's design formulas).
std::vector<double> kaiserWindow(double transition) {
    const double beta = 0.1102 * (attenuationDb - 8.7);
    size_t n = static_cast<size_t>(std::ceil((attenuationDb - 7.95) / (14.357 * transition))) + 1;
    if (n % 2 == 0) ++n;
    std::vector<double> w(n);
    const double centre = 0.5 * static_cast<double>(n - 1);
    const double norm = besselI0(beta);
    for (size_t k = 0; k < n; ++k) {
        const double r = (static_cast<double>(k) - centre) / centre;
        w[k] = besselI0(beta * std::sqrt(std::max(0.0, 1.0 - r * r))) / norm;
    }
    return w;
}

// Ideal low-pass impulse response with cutoff `fc` (fraction of the sample
// rate) at offset k from the centre.
double idealLowPass(double fc, double k) {
    if (k == 0.0) return 2.0 * fc;
    return std::sin(2.0 * pi * fc * k) / (pi * k);
}

// Zero-phase response of symmetric taps at `f` (fraction of the sample rate).
double zeroPhaseResponse(const std::vector<double>& taps, double f) {
    const double centre = 0.5 * static_cast<double>(taps.size() - 1);
    double sum = 0.0;
    for (size_t k = 0; k < taps.size(); ++k) {
        sum += taps[k] * std::cos(2.0 * pi * f * (static_cast<double>(k) - centre));
    }
    return sum;
}

std::vector<double> designLowPass(double cutoff, double transition) {
    std::vector<double> taps = kaiserWindow(transition);
    const double centre = 0.5 * static_cast<double>(taps.size() - 1);
    double sum = 0.0;
    for (size_t k = 0; k < taps.size(); ++k) {
        taps[k] *= idealLowPass(cutoff, static_cast<double>(k) - centre);
        sum += taps[k];
    }
    for (double& t : taps) t /= sum;  // unit gain at DC
    return taps;
}

std::vector<double> designBandPass(double low, double high, double transition, double centreFrequency) {
    std::vector<double> taps = kaiserWindow(transition);
    const double centre = 0.5 * static_cast<double>(taps.size() - 1);
    for (size_t k = 0; k < taps.size(); ++k) {
        const double offset = static_cast<double>(k) - centre;
        taps[k] *= idealLowPass(high, offset) - idealLowPass(low, offset);
    }
    const double g = zeroPhaseResponse(taps, centreFrequency);
    for (double& t : taps) t /= g;  // unit gain at the nominal frequency
    return taps;
}

}  // namespace

SymmetricFir::SymmetricFir(std::vector<double> taps_)
    : taps(std::move(taps_)), history(2 * taps.size(), 0.0), position(taps.size() - 1) {}

double SymmetricFir::output() const {
    // Pair the taps from both ends: they are equal, so one multiply serves two samples.
    const double* x = &history[position + 1];
    const size_t n = taps.size();
    const size_t half = n / 2;
    double sum = taps[half] * x[half];
    for (size_t k = 0; k < half; ++k) sum += taps[k] * (x[k] + x[n - 1 - k]);
    return sum;
}

void SymmetricFir::clear() {
    std::fill(history.begin(), history.end(), 0.0);
    position = taps.size() - 1;
}

namespace {

// The decimated rate stays at 32 to 64 samples per nominal period: enough for
// cubic interpolation of the crossings, few enough for a short band-pass.
unsigned decimationFor(double sampleRate, double nominalFrequency) {
    return static_cast<unsigned>(std::max(1.0, std::floor(sampleRate / (32.0 * nominalFrequency))));
}

std::vector<double> decimatorTaps(double sampleRate, unsigned factor, double passEdge) {
    if (factor == 1) return {1.0};
    // Everything that would fold onto [0, passEdge] at the decimated rate is stopped.
    const double decimatedRate = sampleRate / factor;
    const double stopEdge = decimatedRate - passEdge;
    return designLowPass(0.5 * (passEdge + stopEdge) / sampleRate, (stopEdge - passEdge) / sampleRate);
}

}  // namespace

FundamentalFilter::FundamentalFilter(double sampleRate, double nominalFrequency, double passLow, double passHigh,
                                     double transition)
    : decimationFactor(decimationFor(sampleRate, nominalFrequency)),
      decimator(decimatorTaps(sampleRate, decimationFactor, passHigh + transition)),
      bandPass(designBandPass((passLow - 0.5 * transition) * decimationFactor / sampleRate,
                              (passHigh + 0.5 * transition) * decimationFactor / sampleRate,
                              transition * decimationFactor / sampleRate,
                              nominalFrequency * decimationFactor / sampleRate)),
      untilDecimatedOutput(static_cast<unsigned>(decimator.length())),
      decimatedCount(0) {}

void FundamentalFilter::clear() {
    decimator.clear();
    bandPass.clear();
    untilDecimatedOutput = static_cast<unsigned>(decimator.length());
    decimatedCount = 0;
}

}  // namespace tarnel
