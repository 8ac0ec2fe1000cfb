// Power-quality event records carried inside period results.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarnel {

// Result of one rapid-voltage-change detector (40 bytes).
struct RvcResult {
    bool stateChanged = false;
    bool firstValue = false;
    int32_t state = -1;  // -1 before the first value, 0 steady, 1 event in progress
    bool eventDetected = false;
    uint32_t eventCount = 0;
    float deltaUss = 0.0f;
    float deltaUmax = 0.0f;
    double duration = 0.0;
    double time = 0.0;
};

enum DipSwellState : int32_t { NoEvent = 0, InEvent = 1 };

// Result of one dip detector (48 bytes).
struct DipResult {
    bool firstValue = false;
    bool eventEnded = false;
    bool eventStarted = false;
    uint32_t eventCount = 0;
    double depthInPercent = 0.0;
    double residualVoltage = 0.0;
    double duration = 0.0;
    double timeBelowThreshold = 0.0;
    double time = 0.0;
};

// Result of one swell detector (40 bytes).
struct SwellResult {
    bool firstValue = false;
    bool eventEnded = false;
    bool eventStarted = false;
    uint32_t eventCount = 0;
    double maximumVoltage = 0.0;
    double duration = 0.0;
    double timeAboveThreshold = 0.0;
    double time = 0.0;
};

static_assert(sizeof(RvcResult) == 40, "RvcResult layout");
static_assert(offsetof(RvcResult, state) == 4 && offsetof(RvcResult, eventDetected) == 8, "RvcResult layout");
static_assert(offsetof(RvcResult, eventCount) == 12 && offsetof(RvcResult, deltaUss) == 16, "RvcResult layout");
static_assert(offsetof(RvcResult, deltaUmax) == 20 && offsetof(RvcResult, duration) == 24, "RvcResult layout");
static_assert(offsetof(RvcResult, time) == 32, "RvcResult layout");
static_assert(sizeof(DipResult) == 48, "DipResult layout");
static_assert(offsetof(DipResult, eventCount) == 4 && offsetof(DipResult, depthInPercent) == 8, "DipResult layout");
static_assert(offsetof(DipResult, residualVoltage) == 16 && offsetof(DipResult, duration) == 24, "DipResult layout");
static_assert(offsetof(DipResult, timeBelowThreshold) == 32 && offsetof(DipResult, time) == 40, "DipResult layout");
static_assert(sizeof(SwellResult) == 40, "SwellResult layout");
static_assert(offsetof(SwellResult, eventCount) == 4 && offsetof(SwellResult, maximumVoltage) == 8,
              "SwellResult layout");
static_assert(offsetof(SwellResult, duration) == 16 && offsetof(SwellResult, timeAboveThreshold) == 24,
              "SwellResult layout");
static_assert(offsetof(SwellResult, time) == 32, "SwellResult layout");

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::DipResult;
using tarnel::DipSwellState;
using tarnel::InEvent;
using tarnel::NoEvent;
using tarnel::RvcResult;
using tarnel::SwellResult;
#endif
