// The fields of one power-quality event as the report's event table and the
// output files show them, derived once so that both say the same.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Analysis.h"

namespace tarnel::analyser {

struct EventRow {
    std::string kind;                 // "dip", "swell", "interruption" or "rvc"
    std::vector<std::string> phases;  // names of the voltage channels involved, in phase order
    bool ongoing = false;
    double start = 0.0;                   // s from the first sample
    std::optional<double> end, duration;  // s; empty while ongoing
    double extreme = 0.0;                 // V: lowest (dip, interruption), highest (swell), largest deviation (rvc)
    double extremePercent = 0.0;          // of the nominal voltage
    std::optional<double> residual, residualPercent, depthPercent;  // dips and interruptions
    std::optional<double> step, stepPercent;                        // rvc: change of the steady level
};

// `voltages` names the channels of the phases (1-based phase p is voltages[p - 1]).
EventRow describeEvent(const PowerQualityEvent& event, double nominalVoltage,
                       const std::vector<SourceChannel>& voltages);

}  // namespace tarnel::analyser
