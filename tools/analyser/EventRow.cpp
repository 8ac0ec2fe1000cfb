#include "EventRow.h"

#include <sstream>

namespace tarnel::analyser {

namespace {

std::vector<std::string> phaseList(const std::string& phases) {
    std::istringstream words(phases);
    std::vector<std::string> list;
    for (std::string phase; words >> phase;) list.push_back(phase);
    return list;
}

}  // namespace

EventRow describeEvent(const PowerQualityEvent& e, double nominal) {
    EventRow row;
    row.kind = e.kind;
    row.phases = phaseList(e.phases);
    row.ongoing = e.ongoing;
    row.start = e.start;
    if (!e.ongoing) row.end = e.start + e.duration, row.duration = e.duration;
    auto percent = [&](double volts) { return 100.0 * volts / nominal; };
    if (e.kind == "rvc") {
        // The collector keeps the steady change in volts and the largest deviation in percent.
        row.extremePercent = e.depth;
        row.extreme = e.depth * nominal / 100.0;
        row.step = e.voltage;
        row.stepPercent = percent(e.voltage);
    } else {
        row.extreme = e.voltage;
        row.extremePercent = percent(e.voltage);
    }
    if (e.kind == "dip" || e.kind == "interruption") {
        row.residual = e.voltage;
        row.residualPercent = percent(e.voltage);
        row.depthPercent = 100.0 - *row.residualPercent;
    }
    return row;
}

}  // namespace tarnel::analyser
