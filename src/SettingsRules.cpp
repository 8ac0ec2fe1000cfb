#include "SettingsRules.h"

#include <cmath>
#include <sstream>
#include <stdexcept>

namespace tarnel {

void require(bool condition, const char* reason) {
    if (!condition) throw std::invalid_argument(reason);
}

void requirePositiveFinite(double value, const char* what) {
    if (!(std::isfinite(value) && value > 0.0))
        throw std::invalid_argument(std::string(what) + " must be positive and finite");
}

void requireNonNegativeFinite(double value, const char* what) {
    if (!(std::isfinite(value) && value >= 0.0))
        throw std::invalid_argument(std::string(what) + " must be finite and not negative");
}

void requireFinite(double value, const char* what) {
    if (!std::isfinite(value)) throw std::invalid_argument(std::string(what) + " must be finite");
}

void requireNonNegative(int value, const char* what) {
    if (value < 0) throw std::invalid_argument(std::string(what) + " must not be negative");
}

namespace {

std::string number(double value) {
    std::ostringstream text;
    text.precision(17);
    text << value;
    return text.str();
}

// The sizes that settings lead to, in double so that nonsense cannot overflow.
std::string findOversizedBuffers(const ModuleSettingsState& s) {
    const PowerConfig& c = s.config;
    const double periods = static_cast<double>(c.periodCount);
    if (!(std::isfinite(s.bufferDuration) && s.bufferDuration > 0.0))
        return "the sample ring of " + std::to_string(s.bufferLength) + " samples at " + number(c.sampleRate) +
               " Hz has no usable duration";
    const double longest = periods * c.sampleRate / c.minFrequency;
    if (!(longest <= static_cast<double>(kMaxFftLength)))
        return "a block of " + std::to_string(c.periodCount) + " periods at " + number(c.minFrequency) + " Hz spans " +
               number(longest) + " samples, more than the largest FFT of " + std::to_string(kMaxFftLength);
    if (c.getMinFftLength() < kMinFftLength)
        return "a block of " + std::to_string(c.periodCount) + " periods at " + number(c.maxFrequency) +
               " Hz spans fewer than " + std::to_string(kMinFftLength) + " samples at " + number(c.sampleRate) + " Hz";
    const unsigned long long bins = c.getMaxFftLength() / 2 + 1;
    if (c.getRequiredHarmonicsCount() > bins)
        return "harmonic order " + std::to_string(c.getRequiredHarmonicsCount() - 1) + " lies beyond the " +
               std::to_string(bins) + " frequency bins of the longest FFT";
    const double rows = std::ceil(s.bufferDuration * c.maxFrequency / periods);
    if (!(rows <= static_cast<double>(kMaxResultRows)))
        return "a ring of " + number(s.bufferDuration) + " s would keep " + number(rows) +
               " block results, more than " + std::to_string(kMaxResultRows);
    if (c.areAnyPeriodValuesEnabled()) {
        const double values = std::ceil(s.bufferDuration * c.maxFrequency / c.getPeriodCountAdvanceBy());
        if (!(values <= static_cast<double>(kMaxPeriodRows)))
            return "a ring of " + number(s.bufferDuration) + " s would keep " + number(values) +
                   " period values, more than " + std::to_string(kMaxPeriodRows);
    }
    return {};
}

}  // namespace

std::string findUnbuildableSettings(const ModuleSettingsState& s) {
    const PowerConfig& c = s.config;
    if (!(std::isfinite(c.sampleRate) && c.sampleRate > 0.0)) return "the sample rate must be positive and finite";
    if (c.sampleRateDivider < 1) return "the sample rate divider must be at least 1";
    if (!(std::isfinite(c.minFrequency) && c.minFrequency > 0.0))
        return "the minimum frequency must be positive and finite";
    if (!(std::isfinite(c.maxFrequency) && c.maxFrequency >= c.minFrequency))
        return "the minimum frequency must not lie above the maximum frequency";
    if (c.periodCount == 0) return "the period count must be at least 1";
    if (s.bufferLength > kMaxBufferLength)
        return "the buffer length must be at most " + std::to_string(kMaxBufferLength) + " samples";
    if (c.highestRequestedHarmonic < 0) return "the highest requested harmonic must not be negative";
    if (c.thdHighestHarmonic < 0) return "the highest THD harmonic must not be negative";
    return s.isBuildable() ? findOversizedBuffers(s) : std::string();
}

std::string describeCall(const char* name, double value) { return std::string(name) + "(" + number(value) + ")"; }

std::string describeCall(const char* name, double first, double second) {
    return std::string(name) + "(" + number(first) + ", " + number(second) + ")";
}

std::string describeCall(const char* name, long long value) {
    return std::string(name) + "(" + std::to_string(value) + ")";
}

std::string describeCall(const char* name, unsigned long long value) {
    return std::string(name) + "(" + std::to_string(value) + ")";
}

std::string describeCall(const char* name, bool value) {
    return std::string(name) + "(" + (value ? "true" : "false") + ")";
}

}  // namespace tarnel
