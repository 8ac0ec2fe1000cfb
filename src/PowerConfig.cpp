#include "tarnel/PowerConfig.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tarnel {

PowerGridConfig PowerConfig::getGridConfig() const { return PowerGridConfig::forType(gridConfigType); }

unsigned char PowerConfig::getPhasesCount() const { return getGridConfig().phasesCount; }

unsigned char PowerConfig::getVoltagesCount() const { return getGridConfig().voltagesCount; }

unsigned char PowerConfig::getCurrentsCount() const { return currentEnabled ? getGridConfig().currentsCount : 0; }

unsigned char PowerConfig::getLineToLineCount() const {
    const int n = getPhasesCount();
    return lineToLineResultsEnabled ? static_cast<unsigned char>(n * (n - 1) / 2) : 0;
}

unsigned char PowerConfig::getDeltaWaveformsCount() const {
    const int n = getPhasesCount();
    return (lineToLineResultsEnabled || waveformsEnabled) ? static_cast<unsigned char>(n * (n - 1) / 2) : 0;
}

static bool isThreePhase(const PowerConfig& c) { return c.getPhasesCount() == 3; }

bool PowerConfig::areAnyPeriodValuesEnabled() const {
    return periodValuesEnabled || fundamentalPeriodValuesEnabled || arePeriodSymmetricalComponentsEnabled();
}

bool PowerConfig::areSymmetricalComponentsEnabled() const {
    return symmetricalComponentsEnabled && isThreePhase(*this);
}

bool PowerConfig::arePeriodSymmetricalComponentsEnabled() const {
    return periodSymmetricalComponentsEnabled && isThreePhase(*this);
}

bool PowerConfig::areClarkeVoltagesEnabled() const {
    return clarkeTransformEnabled && clarkeOrParkVoltagesEnabled && isThreePhase(*this);
}

bool PowerConfig::areClarkeCurrentsEnabled() const {
    return clarkeTransformEnabled && clarkeOrParkCurrentsEnabled && isThreePhase(*this) && currentEnabled;
}

bool PowerConfig::areParkVoltagesEnabled() const {
    return parkTransformEnabled && clarkeOrParkVoltagesEnabled && isThreePhase(*this);
}

bool PowerConfig::areParkCurrentsEnabled() const {
    return parkTransformEnabled && clarkeOrParkCurrentsEnabled && isThreePhase(*this) && currentEnabled;
}

bool PowerConfig::areClarkeWaveformsRequired() const {
    return clarkeOrParkWaveformsEnabled && (areClarkeVoltagesEnabled() || areClarkeCurrentsEnabled());
}

bool PowerConfig::areParkWaveformsRequired() const {
    return clarkeOrParkWaveformsEnabled && (areParkVoltagesEnabled() || areParkCurrentsEnabled()) &&
           mechanicalAngleUsed;
}

unsigned long long PowerConfig::getPow2Length(double x) {
    // Below one sample (or for nonsense input) the smallest valid length is 1,
    // instead of a shift by a negative exponent taken modulo 64.
    if (!(x > 1.0)) return 1;
    const double e = std::ceil(std::log2(x));
    if (e >= 63.0) return 1ULL << 63;
    return 1ULL << static_cast<unsigned long long>(e);
}

unsigned long long PowerConfig::getFftLengthX(double frequency) const {
    return getPow2Length(static_cast<double>(periodCount) * sampleRate / frequency);
}

unsigned long long PowerConfig::getMaxFftLength() const { return getFftLengthX(minFrequency); }

unsigned long long PowerConfig::getMinFftLength() const {
    return variableFrequency ? getFftLengthX(maxFrequency) : getMaxFftLength();
}

unsigned long long PowerConfig::getFftLength(unsigned long long length, double frequency) const {
    if (!variableFrequency) return getMaxFftLength();
    const double g = minFrequency > frequency ? minFrequency : frequency;
    const double samples = static_cast<double>(periodCount) * sampleRate / g;
    const unsigned long long n = samples > 0.0 ? static_cast<unsigned long long>(samples) : 0ULL;
    return getPow2Length(static_cast<double>(std::max(length, n)));
}

unsigned long long PowerConfig::getRequiredHarmonicsCount() const {
    const auto requested = static_cast<uint32_t>(highestRequestedHarmonic);
    if (thdEnabled)
        return static_cast<unsigned long long>(std::max(requested, static_cast<uint32_t>(thdHighestHarmonic))) + 1;
    return static_cast<unsigned long long>(std::max(requested, 1u)) + 1;
}

double PowerConfig::getPeriodCountForPeriodValues() const { return halfPeriodValuesCount * 0.5; }

double PowerConfig::getPeriodCountAdvanceBy() const {
    return (1.0 - periodValuesOverlapInPercent * 0.01) * (halfPeriodValuesCount * 0.5);
}

std::pair<unsigned short, unsigned short> PowerConfig::getPeriodCountAdvanceByRatio() const {
    const auto notOverlapped = static_cast<unsigned short>(100 - periodValuesOverlapInPercent);
    const auto n = static_cast<unsigned short>(notOverlapped * halfPeriodValuesCount);
    const unsigned short g = n == 0 ? 200 : static_cast<unsigned short>(std::gcd(static_cast<unsigned>(n), 200u));
    return {static_cast<unsigned short>(n / g), static_cast<unsigned short>(200 / g)};
}

}  // namespace tarnel
