// The rules a module's settings must keep: each setter's own value, and the
// sizes a complete set of settings leads to. A refused change names its
// reason; the module keeps the settings it had.
#pragma once

#include <string>

#include "tarnel/PowerConfig.h"

namespace tarnel {

// Every setting of a module: the configuration record plus the sample ring.
struct ModuleSettingsState {
    PowerConfig config;
    unsigned long long bufferLength = 0;
    double bufferDuration = 1.0;
    // The 1 Hz default rate is a placeholder: nothing is sized by it.
    bool sampleRateSet = false;
    // Buffers are built once the rate and the ring length are known.
    bool isBuildable() const { return sampleRateSet && bufferLength > 0; }
};

// The largest sample ring: kernels address ring positions as 32-bit integers.
constexpr unsigned long long kMaxBufferLength = 0x7fffffffULL;
// The largest FFT length a block may need (ten periods of 1 Hz at 1.6 MHz).
constexpr unsigned long long kMaxFftLength = 1ULL << 24;
// The shortest FFT that still resolves a fundamental and its second harmonic.
constexpr unsigned long long kMinFftLength = 8;
// Upper bounds of the result rings; a sane duration stays far below them.
constexpr unsigned long long kMaxResultRows = 1ULL << 22;
constexpr unsigned long long kMaxPeriodRows = 1ULL << 26;

// Throws std::invalid_argument with `reason` unless `condition` holds.
void require(bool condition, const char* reason);

// Checks of one value, each throwing std::invalid_argument with the reason.
void requirePositiveFinite(double value, const char* what);
void requireNonNegativeFinite(double value, const char* what);
void requireFinite(double value, const char* what);
void requireNonNegative(int value, const char* what);

// Names the first problem of a complete set of settings, or returns an empty
// string when they can be built (and, where buildable, sized).
std::string findUnbuildableSettings(const ModuleSettingsState& settings);

// "name(a, b)" with every value written so that it reads back the same.
std::string describeCall(const char* name, double value);
std::string describeCall(const char* name, double first, double second);
std::string describeCall(const char* name, long long value);
std::string describeCall(const char* name, unsigned long long value);
std::string describeCall(const char* name, bool value);

}  // namespace tarnel
