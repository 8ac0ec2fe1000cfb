#include "EventRow.h"

namespace tarnel::analyser {

EventRow describeEvent(const PowerQualityEvent& e, double nominal, const std::vector<SourceChannel>& voltages) {
    EventRow row;
    row.kind = e.kind;
    for (int p : e.phaseNumbers) {
        const auto k = static_cast<size_t>(p - 1);
        row.phases.push_back(k < voltages.size() ? voltages[k].name : "L" + std::to_string(p));
    }
    row.ongoing = e.ongoing;
    row.start = e.start;
    // While ongoing the end is not known; the collector's duration runs to the end of the recording.
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
