// Block calculations against a double-precision direct DFT of the windowed
// block on random multi-harmonic signals for every grid type, and against
// closed-form signals. The library transforms in float32 (bin error about
// 1e-7 × log2(N) of the spectral norm): group values get 1e-4 of the channel's
// RMS, angles of bins above 1 % of the fundamental 0.02°, and time-domain sums
// (accumulated in double) 1e-6 relative.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "PowerModuleImpl.h"
#include "TestSignals.h"

using namespace tarnel;

using namespace testsignals;

namespace {

using Complex = std::complex<double>;
constexpr double kDegrees = 180.0 / kPi;

unsigned long long pow2(double x) {
    unsigned long long p = 1;
    while (static_cast<double>(p) < x) p *= 2;
    return p;
}

// The sizes of one block calculation.
struct Geometry {
    double sampleRate = 0.0, frequency = 0.0;
    size_t length = 0, fftLength = 0, harmonics = 0;
    int thdHighest = 0;

    double dF() const { return sampleRate / static_cast<double>(fftLength); }
    int bins() const { return static_cast<int>(fftLength / 2 + 1); }
    double ratio() const { return frequency / dF(); }
    int halfWidth() const { return static_cast<int>(std::round(0.3 * frequency / dF())); }
    int centre(int h) const { return static_cast<int>(std::lround(h * ratio())); }
    double offset(int h) const { return h * ratio() - centre(h); }
    int low(int h) const { return std::max(0, centre(h) - halfWidth()); }
    int high(int h) const { return std::min(bins() - 1, centre(h) + halfWidth()); }
};

Geometry geometryFor(const ModuleSettings& s, size_t length, double frequency) {
    Geometry g{s.sampleRate, frequency, length, 0, 0, s.thdHighestHarmonic};
    const double periods = s.periodCount * s.sampleRate;
    g.fftLength = s.variableFrequency ? pow2(periods / std::max(s.minFrequency, frequency))
                                      : pow2(periods / (s.frequency * (1.0 - s.tolerance)));
    const int required =
        (s.thd ? std::max(s.highestHarmonic, s.thdHighestHarmonic) : std::max(s.highestHarmonic, 1)) + 1;
    const auto nyquist = static_cast<size_t>(std::ceil(static_cast<double>(g.fftLength / 2) * g.dF() / frequency)) + 1;
    g.harmonics = std::min(nyquist, static_cast<size_t>(required));
    return g;
}

// Bins 0 … N/2 of the block multiplied by the Blackman window over the block
// and by the scale that makes the one-sided spectrum's energy the mean square.
std::vector<Complex> spectrum(const std::vector<double>& x, size_t fftLength) {
    const size_t n = x.size();
    const double scale = static_cast<float>(1.811903476715088 / std::sqrt(0.5 * static_cast<double>(n) * fftLength));
    std::vector<double> windowed(n);
    for (size_t i = 0; i < n; ++i) {
        const double a = 2.0 * kPi * static_cast<double>(i) / static_cast<double>(n);
        windowed[i] = scale * x[i] * (0.42 - 0.5 * std::cos(a) + 0.08 * std::cos(2.0 * a));
    }
    std::vector<Complex> twiddle(fftLength), bins(fftLength / 2 + 1);
    for (size_t m = 0; m < fftLength; ++m)
        twiddle[m] = std::polar(1.0, -2.0 * kPi * static_cast<double>(m) / static_cast<double>(fftLength));
    for (size_t k = 0; k < bins.size(); ++k) {
        for (size_t i = 0, m = 0; i < n; ++i, m = (m + k) % fftLength) bins[k] += windowed[i] * twiddle[m];
    }
    return bins;
}

double binsEnergy(const std::vector<Complex>& x, int first, int last) {
    double sum = 0.0;
    for (int k = first; k <= last; ++k) sum += std::norm(x[static_cast<size_t>(k)]);
    return sum;
}

// Everything the reference knows about one channel of the block.
struct Channel {
    std::vector<double> x;
    std::vector<Complex> X;
    double rms = 0.0, rectifiedMean = 0.0, spectralSquare = 0.0;
    std::vector<double> groups, inter, rawAngles;  // rawAngles: NaN where the library leaves 0
};

Channel analyse(std::vector<double> x, const Geometry& g) {
    Channel ch;
    ch.x = std::move(x);
    const double n = static_cast<double>(ch.x.size());
    for (double v : ch.x) {
        ch.rms += v * v;
        ch.rectifiedMean += std::fabs(v);
    }
    ch.rms = std::sqrt(ch.rms / n);
    ch.rectifiedMean /= n;
    ch.X = spectrum(ch.x, g.fftLength);
    const int last = g.bins() - 1;
    for (int k = 0; k <= last; ++k) ch.spectralSquare += (k == 0 || k == last ? 0.5 : 1.0) * std::norm(ch.X[k]);
    const int H = static_cast<int>(g.harmonics), w = g.halfWidth();
    ch.groups.assign(H, 0.0);
    ch.inter.assign(H, 0.0);
    ch.rawAngles.assign(H, std::nan(""));
    for (int h = 0; h < H; ++h) {
        if (h == 0) {
            ch.groups[0] =
                std::sqrt(0.5 * std::norm(ch.X[0]) + (g.high(0) >= 1 ? binsEnergy(ch.X, 1, g.high(0)) : 0.0));
        } else {
            if (g.high(h) >= g.low(h)) ch.groups[h] = std::sqrt(binsEnergy(ch.X, g.low(h), g.high(h)));
            if (g.centre(h) <= last) {
                const Complex b = ch.X[g.centre(h)];
                ch.rawAngles[h] = std::atan2(-b.real(), -b.imag()) * kDegrees +
                                  g.offset(h) * 180.0 * static_cast<double>(g.length) / g.fftLength;
            }
        }
        const int interLow = g.high(h) + 1, interHigh = std::min(last, g.centre(h + 1) - w - 1);
        if (interHigh >= interLow) ch.inter[h] = std::sqrt(binsEnergy(ch.X, interLow, interHigh));
    }
    return ch;
}

// Significant: the centre bin of order h carries at least 1 % of the fundamental's.
bool significant(const Channel& ch, const Geometry& g, int h) {
    return g.centre(h) < g.bins() && std::abs(ch.X[g.centre(h)]) >= 0.01 * std::abs(ch.X[g.centre(1)]);
}

PowerResultsThd thdOf(const std::vector<double>& a, double fundamental, double rms, const Geometry& g) {
    double even = 0.0, triplen = 0.0, nonTriplen = 0.0;
    for (int h = 2; h <= g.thdHighest && h < static_cast<int>(g.harmonics); ++h) {
        (h % 2 == 0 ? even : h % 3 == 0 ? triplen : nonTriplen) += a[h] * a[h];
    }
    const double kF = fundamental > 0 ? 100.0 / fundamental : 0.0, kR = rms > 0 ? 100.0 / rms : 0.0;
    PowerResultsThd t{};
    t.harmonicContent = std::sqrt(even + triplen + nonTriplen);
    t.thd = t.harmonicContent * kF;
    t.thdEven = std::sqrt(even) * kF;
    t.thdOdd = std::sqrt(triplen + nonTriplen) * kF;
    t.thdOddTriplen = std::sqrt(triplen) * kF;
    t.thdOddNonTriplen = std::sqrt(nonTriplen) * kF;
    t.thdOfRms = t.harmonicContent * kR;
    t.distortionContent = std::sqrt(std::max(rms * rms - fundamental * fundamental, 0.0));
    t.totalDistortion = t.distortionContent * kF;
    return t;
}

// The reference analysis of one block of a module: measured channels read back
// from the module's host rings, derived channels formed as the wiring defines.
struct Reference {
    Geometry g;
    std::vector<Channel> u, i, ul;
    double referenceAngle = 0.0;

    double angle(const Channel& ch, int h) const {
        return std::isnan(ch.rawAngles[h]) ? 0.0 : wrapDegrees(ch.rawAngles[h] - h * referenceAngle);
    }
};

Reference referenceFor(PowerModule& module, const ModuleSettings& s, uint64_t first, size_t length, double f) {
    const Wiring wiring = kWiring[s.grid];
    const size_t ring = module.getBufferLength();
    auto measured = [&](bool voltage, int c) {
        const auto getter = voltage ? &PowerModule::getWaveformBufferUInput : &PowerModule::getWaveformBufferI;
        return readRing(waveformBuffer(module, getter, static_cast<unsigned char>(c)), ring, first, length);
    };
    const int P = wiring.phases;
    std::vector<std::vector<double>> u(P), i, ul;
    auto addMissingThird = [&](std::vector<std::vector<double>>& v) {  // the third of a three-wire set
        if (static_cast<int>(v.size()) == P) return;
        v.emplace_back(length);
        for (size_t k = 0; k < length; ++k) v[2][k] = -(v[0][k] + v[1][k]);
    };
    if (!wiring.delta) {
        for (int p = 0; p < P; ++p) u[p] = measured(true, p);
        if (s.lineToLine) {
            for (int y = 0; y < P * (P - 1) / 2; ++y) {
                std::vector<double> d(length);
                for (size_t k = 0; k < length; ++k) d[k] = u[y][k] - u[(y + 1) % P][k];
                ul.push_back(d);
            }
        }
    } else {
        std::vector<std::vector<double>> d;
        for (int c = 0; c < wiring.voltages; ++c) d.push_back(measured(true, c));
        addMissingThird(d);
        for (int y = 0; y < P; ++y) {
            u[y].resize(length);
            for (size_t k = 0; k < length; ++k) u[y][k] = (2.0 * d[y][k] + d[(y + 1) % P][k]) / 3.0;
        }
        if (s.lineToLine) ul = d;
    }
    if (s.currents) {
        for (int c = 0; c < wiring.currents; ++c) i.push_back(measured(false, c));
        addMissingThird(i);
    }
    Reference ref;
    ref.g = geometryFor(s, length, f);
    for (auto& x : u) ref.u.push_back(analyse(x, ref.g));
    for (auto& x : i) ref.i.push_back(analyse(x, ref.g));
    for (auto& x : ul) ref.ul.push_back(analyse(x, ref.g));
    ref.referenceAngle = wrapDegrees(ref.u[0].rawAngles[1]);
    return ref;
}

// THD records: `scale` is the channel's RMS. Percentages carry the relative
// error of the group values (1e-4 of the RMS) divided by the fundamental.
void expectThdNear(const PowerResultsThd& actual, const PowerResultsThd& expected, double fundamental, double scale,
                   const char* name) {
    SCOPED_TRACE(name);
    const double content = 1e-4 * scale;
    auto percent = [&](double value) { return 1e-3 + 1e-4 * std::fabs(value) * scale / fundamental; };
    EXPECT_NEAR(actual.thd, expected.thd, percent(expected.thd));
    EXPECT_NEAR(actual.thdEven, expected.thdEven, percent(expected.thdEven));
    EXPECT_NEAR(actual.thdOdd, expected.thdOdd, percent(expected.thdOdd));
    EXPECT_NEAR(actual.thdOddTriplen, expected.thdOddTriplen, percent(expected.thdOddTriplen));
    EXPECT_NEAR(actual.thdOddNonTriplen, expected.thdOddNonTriplen, percent(expected.thdOddNonTriplen));
    EXPECT_NEAR(actual.thdOfRms, expected.thdOfRms, 1e-3 + 1e-4 * std::fabs(expected.thdOfRms));
    EXPECT_NEAR(actual.harmonicContent, expected.harmonicContent, content);
    // sqrt(rms² − fundamental²) amplifies the fundamental's error by fundamental / distortion.
    const double amplification = scale / std::max(expected.distortionContent, 1e-2 * scale);
    EXPECT_NEAR(actual.distortionContent, expected.distortionContent, content * amplification);
    EXPECT_NEAR(actual.totalDistortion, expected.totalDistortion, percent(expected.totalDistortion) * amplification);
}

void expectSpectrumNear(const float2* actual, const Channel& ch, const char* name) {
    ASSERT_NE(actual, nullptr) << name;
    double largest = 0.0, worst = 0.0;
    for (const Complex& b : ch.X) largest = std::max(largest, std::abs(b));
    for (size_t k = 0; k < ch.X.size(); ++k)
        worst = std::max(worst, std::abs(Complex(actual[k].x, actual[k].y) - ch.X[k]));
    EXPECT_LE(worst, 1e-5 * largest) << name;
}

// Per-order arrays of one channel against the reference; `scale` is the channel's RMS.
void expectOrdersNear(const float* actual, const std::vector<double>& expected, double scale, size_t H,
                      const char* name) {
    ASSERT_NE(actual, nullptr) << name;
    for (size_t h = 0; h < H; ++h) EXPECT_NEAR(actual[h], expected[h], 1e-4 * scale) << name << " order " << h;
}

// The fields that voltage, line-to-line and current channels all have;
// TARNEL_CHANNEL(b, UL) gathers those of the line-to-line channel of b.
struct ChannelFields {
    double rms, rectifiedMean, spectralRms, fundamental;
    const float *harmonics, *interharmonics;
    const float2* fft;
    const PowerResultsThd &thd, &interharmonicDistortion;
};
#define TARNEL_CHANNEL(b, X)                                                                                   \
    ChannelFields {                                                                                            \
        b.rms##X, b.rectifiedMean##X, b.spectralRms##X, b.fundamental##X, b.harmonics##X, b.interharmonics##X, \
            b.fft##X, b.thd##X, b.interharmonicDistortion##X                                                   \
    }

void expectChannelNear(const ChannelFields& f, const Channel& c, const Geometry& g, const ModuleSettings& s,
                       const char* name) {
    SCOPED_TRACE(name);
    EXPECT_NEAR(f.rms, c.rms, 1e-6 * c.rms);
    EXPECT_NEAR(f.rectifiedMean, c.rectifiedMean, 1e-6 * c.rms);
    EXPECT_NEAR(f.spectralRms, std::sqrt(c.spectralSquare), 1e-5 * c.rms);
    EXPECT_NEAR(f.fundamental, c.groups[1], 1e-4 * c.rms);
    expectOrdersNear(f.harmonics, c.groups, c.rms, g.harmonics, "harmonics");
    if (s.interharmonics) expectOrdersNear(f.interharmonics, c.inter, c.rms, g.harmonics, "interharmonics");
    if (s.fullFft) expectSpectrumNear(f.fft, c, "fft");
    if (!s.thd) return;
    expectThdNear(f.thd, thdOf(c.groups, c.groups[1], c.rms, g), c.groups[1], c.rms, "thd");
    if (s.interharmonics)
        expectThdNear(f.interharmonicDistortion, thdOf(c.inter, c.groups[1], c.rms, g), c.groups[1], c.rms,
                      "interharmonic distortion");
}

// Compares every computed field of the record with the reference.
void expectMatchesReference(const PowerResultsGeneral& r, const Reference& ref, const ModuleSettings& s,
                            uint64_t first) {
    const Geometry& g = ref.g;
    const int P = kWiring[s.grid].phases, H = static_cast<int>(g.harmonics);
    const int lineToLine = static_cast<int>(ref.ul.size());
    EXPECT_EQ(r.firstSampleIndex, first);
    EXPECT_EQ(r.length, g.length);
    EXPECT_DOUBLE_EQ(r.endTime, static_cast<double>(first + g.length) / s.sampleRate);
    EXPECT_DOUBLE_EQ(r.frequency, g.frequency);
    EXPECT_DOUBLE_EQ(r.dFrequency, g.dF());
    EXPECT_EQ(r.fftOutputLength, static_cast<uint32_t>(g.bins()));
    EXPECT_EQ(r.harmonicLength, g.harmonics);
    EXPECT_EQ(r.phasesCount, P);
    EXPECT_EQ(r.referenceAngle, 0.0);

    // Sums over the phases for the totals.
    double active = 0.0, p1Sum = 0.0, s1Sum = 0.0, q1Sum = 0.0, apparent = 0.0, spectralActive = 0.0;
    for (int p = 0; p < P; ++p) {
        SCOPED_TRACE("phase " + std::to_string(p));
        const PowerResultsPhase& b = r.phases[p];
        const Channel& u = ref.u[p];
        expectChannelNear(TARNEL_CHANNEL(b, U), u, g, s, "U");
        ASSERT_NE(b.harmonicAnglesU, nullptr);
        for (int h = 1; h < H; ++h) {
            if (significant(u, g, h)) {
                EXPECT_NEAR(wrapDegrees(b.harmonicAnglesU[h] - ref.angle(u, h)), 0.0, 0.02) << "angle U order " << h;
            }
        }
        EXPECT_EQ(b.harmonicAnglesU[0], 0.0f);

        if (p < lineToLine) {
            expectChannelNear(TARNEL_CHANNEL(b, UL), ref.ul[p], g, s, "UL");
        } else {
            EXPECT_EQ(b.rmsUL, 0.0);
            EXPECT_EQ(b.fundamentalUL, 0.0);
            EXPECT_EQ(b.harmonicsUL, nullptr);
            EXPECT_EQ(b.interharmonicsUL, nullptr);
            EXPECT_EQ(b.fftUL, nullptr);
        }

        if (!s.currents) {
            EXPECT_EQ(b.rmsI, 0.0);
            EXPECT_EQ(b.activePower, 0.0);
            EXPECT_EQ(b.harmonicsI, nullptr);
            EXPECT_EQ(b.harmonicActivePowers, nullptr);
            continue;
        }
        const Channel& c = ref.i[p];
        expectChannelNear(TARNEL_CHANNEL(b, I), c, g, s, "I");
        const double S = std::sqrt(u.spectralSquare * c.spectralSquare);
        const double ui = std::inner_product(u.x.begin(), u.x.end(), c.x.begin(), 0.0);
        EXPECT_NEAR(b.activePower, ui / static_cast<double>(g.length), 1e-6 * u.rms * c.rms);
        active += ui / static_cast<double>(g.length);
        apparent += S;
        spectralActive += b.spectralActivePower;
        EXPECT_NEAR(b.impedance, u.rms / c.rms, 1e-6 * u.rms / c.rms);
        Complex cross = 0.0;
        const int last = g.bins() - 1;
        for (int k = 0; k <= last; ++k) cross += (k == 0 || k == last ? 0.5 : 1.0) * u.X[k] * std::conj(c.X[k]);
        EXPECT_NEAR(b.spectralActivePower, cross.real(), 1e-5 * S);
        EXPECT_NEAR(b.budeanuReactivePower, cross.imag(), 1e-5 * S);
        EXPECT_NEAR(b.apparentPower, S, 1e-5 * S);
        EXPECT_NEAR(b.powerFactor, cross.real() / S, 1e-5);
        const double nonActive = std::sqrt(std::max(S * S - cross.real() * cross.real(), 0.0));
        EXPECT_NEAR(b.nonActivePower, nonActive, 1e-3 * S);
        for (const float* array : {b.harmonicAnglesI, b.harmonicActivePowers, b.harmonicReactivePowers,
                                   b.harmonicApparentPowers, b.harmonicImpedances})
            ASSERT_NE(array, nullptr);
        const double powerScale = u.groups[1] * c.groups[1];
        for (int h = 0; h < H; ++h) {
            const double phi = (ref.angle(c, h) - ref.angle(u, h)) / kDegrees;
            const double uh = u.groups[h], ih = c.groups[h];
            if (h >= 1 && significant(c, g, h)) {
                EXPECT_NEAR(wrapDegrees(b.harmonicAnglesI[h] - ref.angle(c, h)), 0.0, 0.02) << "angle I order " << h;
            }
            if (h == 0 || (significant(u, g, h) && significant(c, g, h))) {
                EXPECT_NEAR(b.harmonicActivePowers[h], uh * ih * std::cos(phi), 1e-4 * powerScale) << "P order " << h;
                EXPECT_NEAR(b.harmonicReactivePowers[h], uh * ih * std::sin(phi), 1e-4 * powerScale) << "Q order " << h;
            }
            EXPECT_NEAR(b.harmonicApparentPowers[h], uh * ih, 1e-4 * powerScale) << "S order " << h;
            if (ih > 0.002) {
                EXPECT_NEAR(b.harmonicImpedances[h], uh / ih, 3e-3 * uh / ih + 1e-4 * u.rms / c.rms) << "Z order " << h;
            } else if (ih < 0.0005) {
                EXPECT_EQ(b.harmonicImpedances[h], 0.0f) << "Z order " << h;
            }
        }
        const double phi1 = (ref.angle(c, 1) - ref.angle(u, 1)) / kDegrees;
        const double p1 = u.groups[1] * c.groups[1] * std::cos(phi1), q1 = u.groups[1] * c.groups[1] * std::sin(phi1);
        p1Sum += p1;
        q1Sum += q1;
        s1Sum += powerScale;
        EXPECT_NEAR(b.fundamentalActivePower, p1, 1e-4 * powerScale);
        EXPECT_NEAR(b.fundamentalReactivePower, q1, 1e-4 * powerScale);
        EXPECT_NEAR(b.fundamentalApparentPower, powerScale, 1e-4 * powerScale);
        if (c.groups[1] > 0.002) {
            EXPECT_NEAR(b.fundamentalImpedance, u.groups[1] / c.groups[1], 1e-4 * u.groups[1] / c.groups[1]);
        }
        EXPECT_NEAR(b.displacementPowerFactor, std::cos(phi1), 1e-5);
        EXPECT_NEAR(b.distortionPower, std::sqrt(std::max(nonActive * nonActive - q1 * q1, 0.0)), 1e-3 * S);
        EXPECT_NEAR(b.budeanuDistortionPower,
                    std::sqrt(std::max(nonActive * nonActive - cross.imag() * cross.imag(), 0.0)), 1e-3 * S);
        if (s.thd) {
            const double content = thdOf(c.groups, c.groups[1], c.rms, g).harmonicContent;
            EXPECT_NEAR(b.currentHarmonicContent, content, 1e-4 * c.groups[1]);
        }
    }

    if (P == 1) {
        const PowerResultsPhase zero{};
        EXPECT_EQ(std::memcmp(&r.phases[1], &zero, sizeof(zero)), 0) << "a single phase has no totals";
        return;
    }
    SCOPED_TRACE("totals");
    const PowerResultsPhase& t = r.phases[P];
    double rmsU = 0.0, rmsUL = 0.0;
    for (int p = 0; p < P; ++p) rmsU += ref.u[p].rms / P;
    for (int y = 0; y < lineToLine; ++y) rmsUL += ref.ul[y].rms / lineToLine;
    EXPECT_NEAR(t.rmsU, rmsU, 1e-6 * rmsU);
    EXPECT_NEAR(t.rmsUL, rmsUL, 1e-6 * rmsU);
    EXPECT_EQ(t.harmonicsU, nullptr);
    EXPECT_EQ(t.thdU.thd, 0.0);
    if (!s.currents) return;
    EXPECT_NEAR(t.activePower, active, 1e-6 * apparent);
    EXPECT_NEAR(t.apparentPower, apparent, 1e-5 * apparent);
    EXPECT_NEAR(t.spectralActivePower, spectralActive, 1e-9 * apparent);
    EXPECT_NEAR(t.powerFactor, spectralActive / t.apparentPower, 1e-9);
    EXPECT_NEAR(t.fundamentalActivePower, p1Sum, 1e-4 * s1Sum);
    EXPECT_NEAR(t.fundamentalApparentPower, s1Sum, 1e-4 * s1Sum);
    EXPECT_NEAR(t.fundamentalReactivePowerSum, q1Sum, 1e-4 * s1Sum);
    EXPECT_NEAR(t.fundamentalReactivePower, std::sqrt(std::max(s1Sum * s1Sum - p1Sum * p1Sum, 0.0)), 1e-3 * s1Sum);
    EXPECT_NEAR(t.displacementPowerFactor, p1Sum / s1Sum, 1e-4);
}

std::vector<BackendKind> availableBackends() {
    std::vector<BackendKind> kinds{BackendKind::Cpu};
    if (tarnel::isCudaDeviceAvailable()) kinds.push_back(BackendKind::Cuda);
    return kinds;
}

// A module without currents.
ModuleSettings voltagesOnly() {
    ModuleSettings s;
    s.currents = false;
    return s;
}

// Writes, calculates and collects one block of 1280 samples at 50 Hz.
PowerResultsGeneral oneBlock(Fixture& f, const MeasuredSignals& m) {
    writeMeasured(f.module, m, 0, 1280, 50.0);
    f.module.scheduleForCalculation(0, 1280, 50.0);
    const auto results = f.collect();
    EXPECT_EQ(results.size(), 1u);
    return results.empty() ? PowerResultsGeneral{} : results[0];
}

}  // namespace

// Every grid type with every result on; two consecutive blocks (other streams and
// rows) at a frequency off the bin grid, so that the bin-offset correction matters.
TEST(BlockReferenceTest, EveryGridTypeMatchesTheReference) {
    for (BackendKind kind : availableBackends()) {
        for (int type = 0; type < 8; ++type) {
            SCOPED_TRACE(std::string(tarnel::backendName(kind)) + " grid type " + std::to_string(type));
            ModuleSettings s;
            s.grid = static_cast<PowerGridConfigType>(type);
            Fixture f(s, kind);
            const double frequency = 49.0 + 0.45 * type;
            const auto n = static_cast<size_t>(std::lround(s.periodCount * s.sampleRate / frequency));
            writeMeasured(f.module, randomSignals(s.grid, 1234u + static_cast<unsigned>(type)), 0, 2 * n, frequency);
            f.module.scheduleForCalculation(0, static_cast<int>(n), frequency);
            f.module.scheduleForCalculation(n, static_cast<int>(n), frequency);
            const auto results = f.collect();
            ASSERT_EQ(results.size(), 2u);
            for (size_t b = 0; b < 2; ++b) {
                SCOPED_TRACE("block " + std::to_string(b));
                expectMatchesReference(results[b], referenceFor(f.module, s, b * n, n, frequency), s, b * n);
            }
        }
    }
}

// A block that crosses the end of the ring, and blocks shorter than a warp.
TEST(BlockReferenceTest, WrappedAndShortBlocksMatchTheReference) {
    ModuleSettings s;
    s.grid = ThreePhaseStarTwoCurrents;
    s.fullFft = false;
    const double frequency = 50.0;
    const MeasuredSignals signals = randomSignals(s.grid, 99);
    for (BackendKind kind : availableBackends()) {
        SCOPED_TRACE(tarnel::backendName(kind));
        Fixture f(s, kind);
        writeMeasured(f.module, signals, 0, 3500, frequency);
        writeMeasured(f.module, signals, 3500, 1280, frequency);
        for (auto [first, length] : {std::pair<uint64_t, size_t>{3500, 1280}, {4000, 7}, {4000, 20}, {4000, 31}}) {
            SCOPED_TRACE("length " + std::to_string(length));
            f.module.scheduleForCalculation(first, static_cast<int>(length), frequency);
            const auto results = f.collect();
            ASSERT_EQ(results.size(), 1u);
            expectMatchesReference(results[0], referenceFor(f.module, s, first, length, frequency), s, first);
        }
    }
}

TEST(BlockReferenceTest, HarmonicMixGivesKnownThd) {
    Fixture f(voltagesOnly(), BackendKind::Cpu);
    const double a = 230.0 * std::sqrt(2.0);
    const Waveform u{{{1, a, 0.0}, {3, 0.05 * a, 20.0}, {5, 0.06 * a, -70.0}, {7, 0.05 * a, 135.0}}};
    const PowerResultsGeneral r = oneBlock(f, MeasuredSignals{{u}, {}});
    const PowerResultsPhase& b = r.phases[0];
    const double rms = 230.0 * std::sqrt(1.0 + 0.0086);
    EXPECT_NEAR(b.rmsU, rms, 1e-6 * rms);
    EXPECT_NEAR(b.fundamentalU, 230.0, 1e-3);
    // The window's sidelobes carry about 3e-4 of the fundamental into the
    // even groups, which bounds how closely the percentages meet the mix.
    const PowerResultsThd& t = b.thdU;
    EXPECT_NEAR(t.thd, std::sqrt(86.0), 5e-3);
    EXPECT_NEAR(t.thdOdd, std::sqrt(86.0), 5e-3);
    EXPECT_NEAR(t.thdEven, 0.0, 0.05);
    EXPECT_NEAR(t.thdOddTriplen, 5.0, 5e-3);
    EXPECT_NEAR(t.thdOddNonTriplen, std::sqrt(61.0), 5e-3);
    EXPECT_NEAR(t.harmonicContent, 2.3 * std::sqrt(86.0), 1e-2);
    EXPECT_NEAR(t.thdOfRms, 100.0 * std::sqrt(0.0086 / 1.0086), 5e-3);
    EXPECT_NEAR(t.distortionContent, 2.3 * std::sqrt(86.0), 1e-2);
    EXPECT_NEAR(t.totalDistortion, std::sqrt(86.0), 5e-3);
    // Angles relative to the fundamental: a sine of phase φ reads −φ.
    EXPECT_NEAR(b.harmonicAnglesU[1], 0.0, 1e-3);
    for (auto [h, share, angle] :
         {std::tuple{3, 0.05, -20.0}, std::tuple{5, 0.06, 70.0}, std::tuple{7, 0.05, -135.0}}) {
        EXPECT_NEAR(b.harmonicsU[h], share * 230.0, 1e-3) << "order " << h;
        EXPECT_NEAR(b.harmonicAnglesU[h], angle, 0.01) << "order " << h;
    }
}

TEST(BlockReferenceTest, PhaseShiftGivesKnownPowers) {
    for (double shift : {30.0, -30.0}) {
        SCOPED_TRACE(shift > 0 ? "current lags" : "current leads");
        ModuleSettings s;
        s.lineToLine = false;
        Fixture f(s, BackendKind::Cpu);
        // A fundamental phase of 40° moves the reference; angles are relative to it.
        // Both channels carry a DC offset (10 V, 2 A).
        const Waveform u{{{1, 325.0, 40.0}, {0, 10.0, 0.0}}}, i{{{1, 10.0, 40.0 - shift}, {0, 2.0, 0.0}}};
        const PowerResultsGeneral r = oneBlock(f, MeasuredSignals{{u}, {i}});
        const PowerResultsPhase& b = r.phases[0];
        const double s1 = 325.0 * 10.0 / 2.0, rad = shift * kPi / 180.0;
        EXPECT_NEAR(b.activePower, s1 * std::cos(rad) + 20.0, 1e-6 * s1);
        EXPECT_NEAR(b.fundamentalActivePower, s1 * std::cos(rad), 1e-4 * s1);
        EXPECT_NEAR(b.fundamentalReactivePower, s1 * std::sin(rad), 1e-4 * s1);
        EXPECT_NEAR(b.fundamentalApparentPower, s1, 1e-4 * s1);
        EXPECT_NEAR(b.displacementPowerFactor, std::cos(rad), 1e-5);
        EXPECT_NEAR(b.harmonicAnglesU[1], 0.0, 1e-3);
        EXPECT_NEAR(b.harmonicAnglesI[1], shift, 1e-3);
        EXPECT_NEAR(b.fundamentalImpedance, 32.5, 1e-4);
        EXPECT_NEAR(b.impedance, std::sqrt(325.0 * 325.0 / 2 + 100.0) / std::sqrt(50.0 + 4.0), 1e-6);
        // DC (order 0): the group value is the offset itself; its angles are 0,
        // so P0 = S0 = U0 × I0 and Q0 = 0.
        EXPECT_NEAR(b.harmonicsU[0], 10.0, 1e-3);
        EXPECT_NEAR(b.harmonicsI[0], 2.0, 1e-4);
        EXPECT_EQ(b.harmonicAnglesU[0], 0.0f);
        EXPECT_NEAR(b.harmonicActivePowers[0], 20.0, 1e-2);
        EXPECT_EQ(b.harmonicReactivePowers[0], 0.0f);
        EXPECT_NEAR(b.harmonicApparentPowers[0], 20.0, 1e-2);
    }
}

// Parseval: the weighted spectral sum is the windowed block's mean square over the
// window's, whatever the signal; white noise fills every bin, first and last too.
TEST(BlockReferenceTest, SpectralRmsOfWhiteNoiseFollowsParseval) {
    Fixture f(voltagesOnly(), BackendKind::Cpu);
    float* u = waveformBuffer(f.module, &PowerModule::getWaveformBufferUInput, 0);
    std::mt19937 random(3);
    std::uniform_real_distribution<float> noise(-100.0f, 100.0f);
    const size_t n = 1280;
    double windowedSquares = 0.0;
    for (size_t i = 0; i < n; ++i) {
        u[i] = noise(random);
        const double a = 2.0 * kPi * static_cast<double>(i) / n;
        const double w = 0.42 - 0.5 * std::cos(a) + 0.08 * std::cos(2.0 * a);
        windowedSquares += (u[i] * w) * (u[i] * w);
    }
    f.module.writeSamples(n);
    f.module.scheduleForCalculation(0, n, 50.0);
    const auto results = f.collect();
    ASSERT_EQ(results.size(), 1u);
    const double expected = std::sqrt(windowedSquares / (0.3046 * n));
    EXPECT_NEAR(results[0].phases[0].spectralRmsU, expected, 1e-5 * expected);
}

TEST(BlockReferenceTest, InterharmonicToneLandsBetweenTwoOrders) {
    Fixture f(voltagesOnly(), BackendKind::Cpu);
    const Waveform u{{{1, 325.0, 0.0}, {2.5, 10.0, 30.0}}};
    const PowerResultsGeneral r = oneBlock(f, MeasuredSignals{{u}, {}});
    const PowerResultsPhase& b = r.phases[0];
    const double tone = 10.0 / std::sqrt(2.0);
    // The group between orders 2 and 3 holds most of the tone, its lobe spills into
    // the harmonic groups beside it; the fundamental's sidelobes (< −60 dB) reach its neighbours.
    EXPECT_GT(b.interharmonicsU[2], 0.8 * tone);
    const double together = std::hypot(b.interharmonicsU[2], std::hypot(b.harmonicsU[2], b.harmonicsU[3]));
    EXPECT_NEAR(together, tone, 1e-3 * tone);
    for (int h : {0, 1}) EXPECT_LT(b.interharmonicsU[h], 1e-3 * b.fundamentalU) << "interharmonic group " << h;
    for (int h : {3, 4, 5}) EXPECT_LT(b.interharmonicsU[h], 1e-3 * tone) << "interharmonic group " << h;
    EXPECT_NEAR(b.interharmonicDistortionU.thd, 100.0 * b.interharmonicsU[2] / b.fundamentalU, 1e-4);
}

// Delta grids derive the phase voltages as (2 UΔy + UΔy+1) / 3 (exact for three
// wires); with two measured line voltages the third is −(UΔ0 + UΔ1).
TEST(BlockReferenceTest, DeltaGridsReconstructPhaseVoltages) {
    const Waveform phase{{{1, 325.0, 10.0}, {5, 20.0, 60.0}}};
    const std::vector<Waveform> star = balancedPhases(phase, 3);
    for (PowerGridConfigType grid :
         {ThreePhaseDeltaThreeCurrents, ThreePhaseDeltaTwoCurrents, ThreePhaseTwoDeltaVoltagesTwoCurrents}) {
        SCOPED_TRACE("grid type " + std::to_string(grid));
        ModuleSettings s = voltagesOnly();
        s.grid = grid;
        s.waveforms = true;
        Fixture f(s, BackendKind::Cpu);
        MeasuredSignals m;
        for (int y = 0; y < kWiring[grid].voltages; ++y) m.voltages.push_back(difference(star[y], star[(y + 1) % 3]));
        const PowerResultsGeneral r = oneBlock(f, m);
        const double rms = std::sqrt((325.0 * 325.0 + 20.0 * 20.0) / 2.0);
        for (int p = 0; p < 3; ++p) {
            const PowerResultsPhase& b = r.phases[p];
            EXPECT_NEAR(b.rmsU, rms, 1e-5 * rms) << "phase " << p;
            EXPECT_NEAR(b.rmsUL, std::sqrt(3.0) * rms, 1e-5 * rms) << "phase " << p;
            EXPECT_NEAR(b.harmonicsU[5], 20.0 / std::sqrt(2.0), 1e-3) << "phase " << p;
            const auto slot = static_cast<unsigned char>(p);
            const float* derived = waveformBuffer(f.module, &PowerModule::getWaveformBufferUStar, slot);
            const float* lineToLine = waveformBuffer(f.module, &PowerModule::getWaveformBufferUDelta, slot);
            ASSERT_TRUE(derived != nullptr && lineToLine != nullptr);
            const Waveform expectedDelta = difference(star[p], star[(p + 1) % 3]);
            for (unsigned k = 0; k < 1280; k += 7) {
                EXPECT_NEAR(derived[k], star[p].at(k / s.sampleRate, 50.0), 1e-4) << "sample " << k;
                EXPECT_NEAR(lineToLine[k], expectedDelta.at(k / s.sampleRate, 50.0), 1e-3) << "sample " << k;
            }
        }
    }
}

// Balanced sines give their closed-form values; with two measured currents of
// three, the third is −(I0 + I1).
TEST(BlockReferenceTest, BalancedSinesAndTwoMeasuredCurrents) {
    ModuleSettings s;
    s.grid = ThreePhaseStarTwoCurrents;
    s.waveforms = true;
    Fixture f(s, BackendKind::Cpu);
    const std::vector<Waveform> u = balancedPhases(Waveform{{{1, 325.0, 0.0}}}, 3);
    const std::vector<Waveform> i = balancedPhases(Waveform{{{1, 10.0, -30.0}}}, 3);
    const PowerResultsGeneral r = oneBlock(f, MeasuredSignals{u, {i[0], i[1]}});
    const double rms = 325.0 / std::sqrt(2.0);
    for (int p = 0; p < 3; ++p) {
        const PowerResultsPhase& v = r.phases[p];
        EXPECT_NEAR(v.rmsU, rms, 1e-6 * rms) << p;
        // 128 samples a period move the mean magnitude by up to 2e-4 of it.
        EXPECT_NEAR(v.rectifiedMeanU, 2.0 * 325.0 / kPi, 5e-4 * rms) << p;
        EXPECT_NEAR(v.spectralRmsU, rms, 1e-4 * rms) << p;
        EXPECT_NEAR(v.fundamentalU, rms, 1e-4 * rms) << p;
        EXPECT_NEAR(v.rmsUL, std::sqrt(3.0) * rms, 1e-6 * rms) << p;
    }
    const PowerResultsPhase& b = r.phases[2];
    EXPECT_NEAR(b.rmsI, 10.0 / std::sqrt(2.0), 1e-5);
    EXPECT_NEAR(b.activePower, 1625.0 * std::cos(kPi / 6), 1e-3);
    EXPECT_NEAR(b.fundamentalReactivePower, 1625.0 * 0.5, 0.1);
    EXPECT_NEAR(r.phases[3].activePower, 3 * 1625.0 * std::cos(kPi / 6), 3e-3);
    const float* third = waveformBuffer(f.module, &PowerModule::getWaveformBufferI, 2);
    ASSERT_NE(third, nullptr);
    for (unsigned k = 0; k < 1280; k += 5) EXPECT_NEAR(third[k], i[2].at(k / s.sampleRate, 50.0), 1e-5) << k;
}

// With variable frequency each block gets the FFT length (512, 1024 or 2048 here)
// and plan of its frequency; the lengths go up and down again, so that padding
// follows samples an earlier block wrote under another layout.
TEST(BlockReferenceTest, VariableFrequencyUsesThePlanOfEachLength) {
    ModuleSettings s = voltagesOnly();
    s.variableFrequency = true;
    s.minFrequency = 40.0;
    s.maxFrequency = 200.0;
    s.bufferLength = 8192;
    Fixture f(s, BackendKind::Cpu);
    ASSERT_EQ(f.module.implementation()->getFftPlansCount(), 3u);
    uint64_t first = 0;
    for (double frequency : {150.0, 90.0, 41.0, 90.0, 150.0}) {
        const auto n = static_cast<size_t>(std::lround(s.periodCount * s.sampleRate / frequency));
        writeMeasured(f.module, MeasuredSignals{{Waveform{{{1, 100.0, 0.0}, {3, 5.0, 0.0}}}}, {}}, first, n, frequency);
        f.module.scheduleForCalculation(first, static_cast<int>(n), frequency);
        const auto results = f.collect();
        ASSERT_EQ(results.size(), 1u);
        const PowerResultsGeneral& r = results[0];
        const Geometry g = geometryFor(s, n, frequency);
        EXPECT_DOUBLE_EQ(r.dFrequency, s.sampleRate / static_cast<double>(g.fftLength)) << frequency;
        EXPECT_NEAR(r.phases[0].fundamentalU, 100.0 / std::sqrt(2.0), 1e-3) << frequency;
        EXPECT_NEAR(r.phases[0].harmonicsU[3], 5.0 / std::sqrt(2.0), 1e-3) << frequency;
        EXPECT_EQ(r.phases[0].fftU, nullptr) << "no full spectra with variable frequency";
        first += n;
    }
}

// Results come out in scheduling order, each from its own rows.
TEST(BlockReferenceTest, ResultsComeInSchedulingOrder) {
    ModuleSettings s = voltagesOnly();
    s.bufferLength = 16384;
    Fixture f(s, BackendKind::Cpu);
    EXPECT_FALSE(f.module.isAnyResultReady());
    EXPECT_TRUE(f.module.getResults(0).empty());
    for (unsigned k = 0; k < 5; ++k) {
        writeMeasured(f.module, MeasuredSignals{{Waveform{{{1, 100.0 * (k + 1), 0.0}}}}, {}}, k * 1280, 1280, 50.0);
        f.module.scheduleForCalculation(k * 1280, 1280, 50.0);
    }
    f.module.sync();
    EXPECT_TRUE(f.module.isAnyResultReady());
    std::vector<PowerResultsGeneral> all = f.module.getResults(2);
    const auto rest = f.module.getResults(0);
    ASSERT_EQ(all.size(), 2u);
    ASSERT_EQ(rest.size(), 3u);
    all.insert(all.end(), rest.begin(), rest.end());
    for (unsigned k = 0; k < 5; ++k) {
        EXPECT_EQ(all[k].firstSampleIndex, k * 1280u);
        EXPECT_NEAR(all[k].phases[0].rmsU, 100.0 * (k + 1) / std::sqrt(2.0), 1e-4 * (k + 1)) << k;
        EXPECT_NEAR(all[k].phases[0].harmonicsU[1], 100.0 * (k + 1) / std::sqrt(2.0), 1e-3 * (k + 1)) << k;
    }
    EXPECT_FALSE(f.module.isAnyResultReady());
    EXPECT_EQ(f.module.implementation()->getProcessedSampleIndex(), 5 * 1280u);
}

// Requests that cannot be calculated are refused before anything is enqueued.
TEST(BlockReferenceTest, SchedulingRefusesImpossibleBlocks) {
    Fixture f(voltagesOnly(), BackendKind::Cpu);  // ring 4096, FFT length 2048
    PowerModule::PowerModuleImpl& impl = *f.module.implementation();
    const MeasuredSignals sine{{Waveform{{{1, 100.0, 0.0}}}}, {}};
    writeMeasured(f.module, sine, 0, 3000, 50.0);
    const size_t queued = impl.getQueuedCalculationsCount();
    auto expectRefused = [&](uint64_t first, int length, double frequency, const char* why) {
        EXPECT_THROW(f.module.scheduleForCalculation(first, length, frequency), std::invalid_argument) << why;
        EXPECT_EQ(impl.getQueuedCalculationsCount(), queued) << why;
        EXPECT_EQ(impl.getScheduledSampleIndex(), 0u) << why;
    };
    expectRefused(0, 0, 50.0, "length 0");
    expectRefused(0, 4097, 50.0, "longer than the ring");
    expectRefused(0, 2049, 50.0, "longer than the FFT");
    expectRefused(0, 1280, std::nan(""), "NaN frequency");
    expectRefused(0, 1280, INFINITY, "infinite frequency");
    expectRefused(0, 1280, 0.0, "zero frequency");
    expectRefused(2000, 1280, 50.0, "samples not written yet");
    writeMeasured(f.module, sine, 3000, 2000, 50.0);
    expectRefused(0, 1280, 50.0, "samples overwritten");
    f.module.scheduleForCalculation(1000, 1280, 50.0);  // the oldest block still in the ring
    EXPECT_EQ(impl.getQueuedCalculationsCount(), queued + 1);
    EXPECT_EQ(f.collect().size(), 1u);

    f.module.reset(1000);
    writeMeasured(f.module, sine, 1000, 2000, 50.0);
    EXPECT_THROW(f.module.scheduleForCalculation(500, 1280, 50.0), std::invalid_argument) << "before the reset";
}
