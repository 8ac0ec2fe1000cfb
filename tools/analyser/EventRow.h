// The fields of one power-quality event as the report's event table and the
// output files show them, derived once so that both say the same.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Report.h"

namespace tarnel::analyser {

struct EventRow {
    std::string kind;                 // "dip", "swell", "interruption" or "rvc"
    std::vector<std::string> phases;  // e.g. {"L1", "L3"}
    bool ongoing = false;
    double start = 0.0;                   // s from the first sample
    std::optional<double> end, duration;  // s; empty while ongoing
    double extreme = 0.0;                 // V: lowest (dip, interruption), highest (swell), largest deviation (rvc)
    double extremePercent = 0.0;          // of the nominal voltage
    std::optional<double> residual, residualPercent, depthPercent;  // dips and interruptions
    std::optional<double> step, stepPercent;                        // rvc: change of the steady level
};

EventRow describeEvent(const PowerQualityEvent& event, double nominalVoltage);

}  // namespace tarnel::analyser
