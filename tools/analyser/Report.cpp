#include "Report.h"

#include <algorithm>
#include <cmath>
#include <optional>

#include "EventRow.h"

namespace tarnel::analyser {

void Statistic::add(double value) {
    if (count == 0 || value < min) min = value;
    if (count == 0 || value > max) max = value;
    sum += value;
    ++count;
}

void EventCollector::add(const PowerResultsPeriod* records, int phases) {
    for (int p = 1; p <= phases; ++p) {
        const PowerResultsPeriod& r = records[p];
        const std::string phase = "L" + std::to_string(p);
        const double period = r.frequency > 0.0 ? 1.0 / r.frequency : 0.0;
        // Detector times are the ends of period values; events start one value earlier.
        if (r.dip.eventEnded)
            perPhase.push_back(
                {"dip", phase, r.dip.time - period, r.dip.duration, r.dip.residualVoltage, r.dip.depthInPercent});
        if (r.swell.eventEnded)
            perPhase.push_back({"swell", phase, r.swell.time - period, r.swell.duration, r.swell.maximumVoltage,
                                100.0 * (r.swell.maximumVoltage - nominal) / nominal});
        if (r.rvc.eventDetected)
            perPhase.push_back({"rvc", phase, r.rvc.time - window * period - r.rvc.duration, r.rvc.duration,
                                r.rvc.deltaUss, 100.0 * r.rvc.deltaUmax / nominal});
    }
}

std::vector<PowerQualityEvent> EventCollector::events() const {
    std::vector<PowerQualityEvent> sorted = perPhase;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const PowerQualityEvent& a, const PowerQualityEvent& b) { return a.start < b.start; });
    std::vector<PowerQualityEvent> merged;
    for (const PowerQualityEvent& e : sorted) {
        // The same change seen on several phases within a period is one event.
        auto same = std::find_if(merged.begin(), merged.end(), [&](const PowerQualityEvent& m) {
            return m.kind == e.kind && std::fabs(m.start - e.start) < 0.021 &&
                   m.phases.find(e.phases) == std::string::npos;
        });
        if (same == merged.end()) {
            merged.push_back(e);
            continue;
        }
        same->phases += " " + e.phases;
        same->duration = std::max(same->duration, e.duration);
        if (e.kind == "dip") same->voltage = std::min(same->voltage, e.voltage);
        if (e.kind != "dip") same->voltage = std::max(same->voltage, e.voltage);
        same->depth = std::max(same->depth, e.depth);
    }
    return merged;
}

Report::Report(const SourceInfo& sourceInfo)
    : info(sourceInfo),
      voltages(sourceInfo.voltages.size()),
      currents(sourceInfo.currents.size()),
      eventCollector(sourceInfo.nominalVoltage) {
    const size_t phases = std::max(sourceInfo.voltages.size(), size_t{1});
    for (auto* series : {&activePower, &reactivePower, &apparentPower, &powerFactor, &displacement})
        series->resize(phases + 1);
}

void Report::addChannel(ChannelStats& stats, double rms, const PowerResultsThd& thd, const float* harmonics,
                        unsigned count) {
    stats.rms.add(rms);
    stats.thd.add(thd.thd);
    if (harmonics == nullptr || count < 2 || harmonics[1] <= 0.0f) return;
    stats.harmonicShares.resize(std::max<size_t>(stats.harmonicShares.size(), count), 0.0);
    for (unsigned h = 2; h < count; ++h) stats.harmonicShares[h] += 100.0 * harmonics[h] / harmonics[1];
}

void Report::onBlock(const PowerResultsGeneral& r) {
    ++blockCount;
    endTime = r.endTime;
    frequency.add(r.frequency);
    const unsigned phases = r.phasesCount;
    for (unsigned p = 0; p < phases && p < voltages.size(); ++p)
        addChannel(voltages[p], r.phases[p].rmsU, r.phases[p].thdU, r.phases[p].harmonicsU, r.harmonicLength);
    for (unsigned p = 0; p < phases && p < currents.size(); ++p)
        addChannel(currents[p], r.phases[p].rmsI, r.phases[p].thdI, r.phases[p].harmonicsI, r.harmonicLength);
    if (phases == 3) {
        u2.add(r.symmetricalComponents[2].voltageRatio);
        u0.add(r.symmetricalComponents[0].voltageRatio);
    }
    if (currents.empty()) return;
    const unsigned blocks = phases >= 2 ? phases + 1 : 1;
    for (unsigned b = 0; b < blocks; ++b) {
        const PowerResultsPhase& ph = r.phases[b];
        activePower[b].add(ph.activePower);
        reactivePower[b].add(b < phases ? ph.fundamentalReactivePower : ph.fundamentalReactivePowerSum);
        apparentPower[b].add(ph.apparentPower);
        powerFactor[b].add(ph.powerFactor);
        displacement[b].add(ph.displacementPowerFactor);
    }
}

void Report::onPeriodValue(const PowerResultsPeriod* records, int phases) {
    ++periodCount;
    eventCollector.add(records, phases);
}

std::string worstHarmonics(const std::vector<double>& sharesSum, size_t blocks, int count) {
    std::vector<std::pair<double, size_t>> orders;
    for (size_t h = 2; h < sharesSum.size(); ++h) orders.push_back({sharesSum[h] / static_cast<double>(blocks), h});
    std::sort(orders.rbegin(), orders.rend());
    std::string text;
    for (int k = 0; k < count && k < static_cast<int>(orders.size()); ++k) {
        char item[48];
        std::snprintf(item, sizeof item, "%sH%zu %.2f%%", k ? ", " : "", orders[k].second, orders[k].first);
        text += item;
    }
    return text.empty() ? "-" : text;
}

void Report::printChannels(std::FILE* out, unsigned periodsPerBlock) const {
    std::fprintf(out, "\nChannels (over %zu blocks of %u periods)\n", blockCount, periodsPerBlock);
    std::fprintf(out, "  %-8s %10s %10s %10s %8s %8s  %s\n", "channel", "rms min", "rms mean", "rms max", "THD %",
                 "THD max", "worst harmonics (% of fundamental)");
    auto line = [&](const SourceChannel& channel, const ChannelStats& s) {
        const std::string name = channel.name + " [" + channel.unit + "]";
        std::fprintf(out, "  %-8s %10.3f %10.3f %10.3f %8.2f %8.2f  %s\n", name.c_str(), s.rms.min, s.rms.mean(),
                     s.rms.max, s.thd.mean(), s.thd.max, worstHarmonics(s.harmonicShares, blockCount, 3).c_str());
    };
    for (size_t c = 0; c < voltages.size(); ++c) line(info.voltages[c], voltages[c]);
    for (size_t c = 0; c < currents.size(); ++c) line(info.currents[c], currents[c]);
    std::fprintf(out, "  frequency %.4f Hz (min %.4f, max %.4f)\n", frequency.mean(), frequency.min, frequency.max);
    if (u2.count)
        std::fprintf(out, "  unbalance u2 %.3f %% (max %.3f %%), u0 %.3f %% (max %.3f %%)\n", u2.mean(), u2.max,
                     u0.mean(), u0.max);
}

void Report::printPowers(std::FILE* out) const {
    if (currents.empty() || activePower.empty() || activePower[0].count == 0) return;
    std::fprintf(out, "\nPowers (means over the blocks)\n");
    std::fprintf(out, "  %-6s %12s %12s %12s %8s %8s\n", "phase", "P [W]", "Q1 [var]", "S [VA]", "PF", "DPF");
    for (size_t b = 0; b < activePower.size(); ++b) {
        if (activePower[b].count == 0) continue;
        const std::string name = b < voltages.size() ? "L" + std::to_string(b + 1) : "total";
        std::fprintf(out, "  %-6s %12.2f %12.2f %12.2f %8.4f %8.4f\n", name.c_str(), activePower[b].mean(),
                     reactivePower[b].mean(), apparentPower[b].mean(), powerFactor[b].mean(), displacement[b].mean());
    }
}

void Report::printEvents(std::FILE* out) const {
    const std::vector<PowerQualityEvent> list = eventCollector.events();
    std::fprintf(out, "\nEvents (%zu; %% of nominal)\n", list.size());
    if (list.empty()) return;
    // The columns of the events in the output files, in their order.
    std::fprintf(out, "  %-12s %-9s %9s %9s %9s %10s %7s %10s %7s %7s %9s %7s\n", "kind", "phases", "start [s]",
                 "end [s]", "dur. [s]", "extreme[V]", "extr.%", "resid.[V]", "resid.%", "depth%", "step [V]", "step %");
    auto value = [](std::optional<double> v, const char* format) {
        char text[32] = "-";
        if (v) std::snprintf(text, sizeof text, format, *v);
        return std::string(text);
    };
    for (const PowerQualityEvent& event : list) {
        const EventRow e = describeEvent(event, info.nominalVoltage);
        std::string phases;
        for (const std::string& p : e.phases) phases += (phases.empty() ? "" : " ") + p;
        std::fprintf(out, "  %-12s %-9s %9.4f %9s %9s %10.2f %7.2f %10s %7s %7s %9s %7s\n", e.kind.c_str(),
                     phases.c_str(), e.start, e.ongoing ? "ongoing" : value(e.end, "%.4f").c_str(),
                     value(e.duration, "%.4f").c_str(), e.extreme, e.extremePercent, value(e.residual, "%.2f").c_str(),
                     value(e.residualPercent, "%.2f").c_str(), value(e.depthPercent, "%.2f").c_str(),
                     value(e.step, "%.2f").c_str(), value(e.stepPercent, "%.2f").c_str());
    }
}

void Report::print(std::FILE* out, const char* backend, unsigned periodsPerBlock) const {
    std::fprintf(out, "Recording: %s\n", info.description.c_str());
    std::fprintf(out, "  channels %zu voltage, %zu current; rate %.3f Hz; duration %.3f s; grid type %d; backend %s\n",
                 info.voltages.size(), info.currents.size(), info.sampleRate,
                 static_cast<double>(info.totalSamples) / info.sampleRate, info.gridType, backend);
    std::fprintf(out, "  nominal %.1f V, %.1f Hz; %u-period blocks; %zu period values\n", info.nominalVoltage,
                 info.nominalFrequency, periodsPerBlock, periodCount);
    printChannels(out, periodsPerBlock);
    printPowers(out);
    printEvents(out);
}

}  // namespace tarnel::analyser
