#include "Report.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>

#include "EventRow.h"
#include "OutputRecord.h"

namespace tarnel::analyser {

namespace {

constexpr double kInterruptionHysteresis = 2.0;  // % of nominal above the threshold to end an interruption

const char* rotationText(PhaseRotation rotation) {
    switch (rotation) {
        case PhaseRotation::Forward:
            return "L1-L2-L3";
        case PhaseRotation::Reverse:
            return "L1-L3-L2 (reverse)";
        case PhaseRotation::Unknown:
            break;
    }
    return "unknown";
}

}  // namespace

void Statistic::add(double value) {
    if (count == 0 || value < min) min = value;
    if (count == 0 || value > max) max = value;
    sum += value;
    ++count;
}

EventCollector::EventCollector(double nominalVoltage, std::vector<std::string> phaseNames, double interruptionThreshold,
                               unsigned rvcWindow)
    : nominal(nominalVoltage),
      names(std::move(phaseNames)),
      interruptionLevel(0.01 * interruptionThreshold * nominalVoltage),
      interruptionEndLevel(0.01 * (interruptionThreshold + kInterruptionHysteresis) * nominalVoltage),
      window(rvcWindow) {}

void EventCollector::open(Tracked& tracked, const char* kind, double start, double extreme) {
    tracked.open = true;
    tracked.event = PowerQualityEvent{};
    tracked.event.kind = kind;
    tracked.event.start = start;
    tracked.event.voltage = extreme;
}

void EventCollector::include(Tracked& tracked, int phase, double value, bool lowest) {
    PowerQualityEvent& e = tracked.event;
    e.voltage = lowest ? std::min(e.voltage, value) : std::max(e.voltage, value);
    if (std::find(e.phaseNumbers.begin(), e.phaseNumbers.end(), phase) == e.phaseNumbers.end()) {
        e.phaseNumbers.insert(std::upper_bound(e.phaseNumbers.begin(), e.phaseNumbers.end(), phase), phase);
    }
}

void EventCollector::close(Tracked& tracked, double end) {
    tracked.open = false;
    tracked.event.duration = end - tracked.event.start;
    finished.push_back(tracked.event);
}

void EventCollector::add(const PowerResultsPeriod* records, int phases) {
    if (phases < 1) return;
    inDip.resize(static_cast<size_t>(phases), false);
    inSwell.resize(static_cast<size_t>(phases), false);
    // Events start and end at the times the detectors stamp: the end of the
    // period value that crosses the threshold.
    const double valueTime = records[1].time;
    bool allBelow = true, anyAbove = false;
    for (int p = 1; p <= phases; ++p) {
        const PowerResultsPeriod& r = records[p];
        const size_t k = static_cast<size_t>(p - 1);
        if (r.dip.eventStarted) inDip[k] = true;
        if (r.dip.eventEnded) inDip[k] = false;
        if (r.swell.eventStarted) inSwell[k] = true;
        if (r.swell.eventEnded) inSwell[k] = false;
        allBelow = allBelow && r.rmsU < interruptionLevel;
        anyAbove = anyAbove || r.rmsU >= interruptionEndLevel;
        addRvc(r, p);
    }
    if (!interruption.open && allBelow) open(interruption, "interruption", valueTime, nominal);
    if (interruption.open && anyAbove) close(interruption, valueTime);
    const bool dipActive = !interruption.open && std::find(inDip.begin(), inDip.end(), true) != inDip.end();
    const bool swellActive = std::find(inSwell.begin(), inSwell.end(), true) != inSwell.end();
    if (dip.open && !dipActive) close(dip, valueTime);
    if (swell.open && !swellActive) close(swell, valueTime);
    if (!dip.open && dipActive) open(dip, "dip", valueTime, std::numeric_limits<double>::infinity());
    if (!swell.open && swellActive) open(swell, "swell", valueTime, -std::numeric_limits<double>::infinity());
    for (int p = 1; p <= phases; ++p) {
        const size_t k = static_cast<size_t>(p - 1);
        const double u = records[p].rmsU;
        if (interruption.open) include(interruption, p, u, true);
        if (dip.open && inDip[k]) include(dip, p, u, true);
        if (swell.open && inSwell[k]) include(swell, p, u, false);
    }
}

void EventCollector::addRvc(const PowerResultsPeriod& r, int phase) {
    if (!r.rvc.eventDetected) return;
    const double period = r.frequency > 0.0 ? 1.0 / r.frequency : 0.0;
    PowerQualityEvent e;
    e.kind = "rvc";
    e.phaseNumbers = {phase};
    e.start = r.rvc.time - window * period - r.rvc.duration;
    e.duration = r.rvc.duration;
    e.voltage = r.rvc.deltaUss;
    e.depth = 100.0 * r.rvc.deltaUmax / nominal;
    rvcPerPhase.push_back(e);
}

std::vector<PowerQualityEvent> EventCollector::events(double recordingEnd) const {
    std::vector<PowerQualityEvent> list = finished;
    for (const Tracked* t : {&dip, &swell, &interruption}) {
        if (!t->open) continue;
        PowerQualityEvent e = t->event;
        e.ongoing = true;
        e.duration = recordingEnd - e.start;
        list.push_back(e);
    }
    // The same rapid change seen on several phases within a period is one event.
    std::vector<PowerQualityEvent> rvc = rvcPerPhase;
    std::stable_sort(rvc.begin(), rvc.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
    std::vector<PowerQualityEvent> merged;
    for (const PowerQualityEvent& e : rvc) {
        auto same = std::find_if(merged.begin(), merged.end(), [&](const PowerQualityEvent& m) {
            return std::fabs(m.start - e.start) < 0.021 &&
                   std::find(m.phaseNumbers.begin(), m.phaseNumbers.end(), e.phaseNumbers[0]) == m.phaseNumbers.end();
        });
        if (same == merged.end()) {
            merged.push_back(e);
            continue;
        }
        same->phaseNumbers.push_back(e.phaseNumbers[0]);
        std::sort(same->phaseNumbers.begin(), same->phaseNumbers.end());
        same->duration = std::max(same->duration, e.duration);
        same->voltage = std::max(same->voltage, e.voltage);
        same->depth = std::max(same->depth, e.depth);
    }
    list.insert(list.end(), merged.begin(), merged.end());
    for (PowerQualityEvent& e : list) {
        const bool below = e.kind == "dip" || e.kind == "interruption";
        if (e.kind != "rvc") e.depth = 100.0 * (below ? nominal - e.voltage : e.voltage - nominal) / nominal;
        e.phases.clear();
        for (int p : e.phaseNumbers) {
            const size_t k = static_cast<size_t>(p - 1);
            e.phases += (e.phases.empty() ? "" : " ") + (k < names.size() ? names[k] : "L" + std::to_string(p));
        }
    }
    std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
    return list;
}

namespace {

std::vector<std::string> channelNames(const std::vector<SourceChannel>& channels) {
    std::vector<std::string> names;
    for (const SourceChannel& c : channels) names.push_back(c.name);
    return names;
}

}  // namespace

Report::Report(const SourceInfo& sourceInfo, const ReportSettings& reportSettings)
    : info(sourceInfo),
      settings(reportSettings),
      voltages(sourceInfo.voltages.size()),
      currents(sourceInfo.currents.size()),
      eventCollector(sourceInfo.nominalVoltage, channelNames(sourceInfo.voltages),
                     reportSettings.interruptionThreshold) {
    const size_t phases = std::max(sourceInfo.voltages.size(), size_t{1});
    for (auto* series : {&activePower, &reactivePower, &apparentPower, &displacement}) series->resize(phases + 1);
}

double Report::recordingSeconds() const { return static_cast<double>(info.totalSamples) / info.sampleRate; }

void Report::addChannel(ChannelStats& stats, double rms, const PowerResultsThd& thd, const float* harmonics,
                        unsigned count) {
    stats.rms.add(rms);
    stats.thd.add(thd.thd);
    if (harmonics == nullptr || count < 2 || harmonics[1] <= 0.0f) return;
    stats.harmonicShares.resize(std::max<size_t>(stats.harmonicShares.size(), count), 0.0);
    for (unsigned h = 2; h < count; ++h) stats.harmonicShares[h] += 100.0 * harmonics[h] / harmonics[1];
}

// The library relates the sequence components to the L1-L2-L3 rotation. With
// the reverse rotation the system's own (rotating) component is the one
// called negative there, so the ratios are taken against it instead.
void Report::addUnbalance(const PowerResultsGeneral& r) {
    const double zero = r.symmetricalComponents[0].voltageMagnitude;
    const double positive = r.symmetricalComponents[1].voltageMagnitude;
    const double negative = r.symmetricalComponents[2].voltageMagnitude;
    if (!(positive > 0.0 || negative > 0.0)) return;
    ++blockVotes.blocks;
    if (negative > positive) ++blockVotes.reverse;
    if (positive > 0.0) {
        forward.u2.add(100.0 * negative / positive);
        forward.u0.add(100.0 * zero / positive);
    }
    if (negative > 0.0) {
        reverse.u2.add(100.0 * positive / negative);
        reverse.u0.add(100.0 * zero / negative);
    }
}

PhaseRotation Report::rotation() const {
    if (settings.phaseOrder) return *settings.phaseOrder;
    const RotationVotes& votes = steadyPeriodVotes.blocks > 0       ? steadyPeriodVotes
                                 : steadyUnmeasuredVotes.blocks > 0 ? steadyUnmeasuredVotes
                                                                    : blockVotes;
    if (votes.blocks == 0) return PhaseRotation::Unknown;
    return 2 * votes.reverse > votes.blocks ? PhaseRotation::Reverse : PhaseRotation::Forward;
}

void Report::onBlock(const PowerResultsGeneral& r) {
    ++blockCount;
    blocksEnd = r.endTime;
    const unsigned phases = r.phasesCount;
    for (unsigned p = 0; p < phases && p < voltages.size(); ++p)
        addChannel(voltages[p], r.phases[p].rmsU, r.phases[p].thdU, r.phases[p].harmonicsU, r.harmonicLength);
    for (unsigned p = 0; p < phases && p < currents.size(); ++p)
        addChannel(currents[p], r.phases[p].rmsI, r.phases[p].thdI, r.phases[p].harmonicsI, r.harmonicLength);
    if (phases == 3) addUnbalance(r);
    if (currents.empty()) return;
    // S is U x I of the time-domain RMS values, like P's time-domain mean, so
    // that P <= S and PF = P / S hold in every row.
    const unsigned rows = phases >= 2 ? phases + 1 : 1;
    double totalS = 0.0;
    for (unsigned b = 0; b < rows; ++b) {
        const PowerResultsPhase& ph = r.phases[b];
        const double s = b < phases ? ph.rmsU * ph.rmsI : totalS;
        if (b < phases) totalS += s;
        activePower[b].add(ph.activePower);
        reactivePower[b].add(b < phases ? ph.fundamentalReactivePower : ph.fundamentalReactivePowerSum);
        apparentPower[b].add(s);
        displacement[b].add(ph.displacementPowerFactor);
    }
}

void Report::onPeriodValue(const PowerResultsPeriod* records, int phases) {
    const PowerResultsPeriod& first = records[1];
    ++periodCount;
    const double start = first.frequency > 0.0 ? first.time - 1.0 / first.frequency : first.time;
    if (firstPeriodStart < 0.0) firstPeriodStart = start;
    lastPeriodEnd = first.time;
    if (first.valid) {
        ++validPeriods;
        periodFrequency.add(first.frequency);
    }
    if (phases == 3) voteRotation(records, first.valid ? steadyPeriodVotes : steadyUnmeasuredVotes);
    eventCollector.add(records, phases);
}

// The rotation is judged on period values with every phase near nominal,
// valid ones where there are any: faults can swap the sizes of the sequence
// components, and a block may hold both. A short fault record may have no
// valid period at all (periods next to a disturbance are not valid), yet its
// pre-fault periods, though not confirmed, still show the rotation.
void Report::voteRotation(const PowerResultsPeriod* records, RotationVotes& votes) {
    for (int p = 1; p <= 3; ++p)
        if (std::fabs(records[p].rmsU - info.nominalVoltage) > 0.1 * info.nominalVoltage) return;
    ++votes.blocks;
    if (records[2].symmetricalComponent.voltageMagnitude > records[1].symmetricalComponent.voltageMagnitude)
        ++votes.reverse;
}

AnalysisSummary Report::summary() const {
    AnalysisSummary s;
    s.recordingSeconds = recordingSeconds();
    s.firstPeriodStart = std::max(0.0, firstPeriodStart);
    s.lastPeriodEnd = lastPeriodEnd;
    s.blocksEnd = blocksEnd;
    s.periodValues = periodCount;
    s.validPeriodValues = validPeriods;
    s.blocks = blockCount;
    s.nominalVoltage = info.nominalVoltage;
    s.nominalVoltageSource = info.nominalVoltageSource;
    s.nominalFrequency = info.nominalFrequency;
    s.nominalFrequencySource = info.nominalFrequencySource;
    s.measuredFrequency = periodFrequency.mean();
    s.rotation = rotation();
    s.rotationGiven = settings.phaseOrder.has_value();
    if (s.rotation != PhaseRotation::Unknown) {
        const Unbalance& u = s.rotation == PhaseRotation::Reverse ? reverse : forward;
        s.unbalanceU2Mean = u.u2.mean();
        s.unbalanceU2Max = u.u2.max;
        s.unbalanceU0Mean = u.u0.mean();
        s.unbalanceU0Max = u.u0.max;
    }
    s.resampling = info.resampling;
    return s;
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

void Report::printSummary(std::FILE* out, const AnalysisSummary& s, unsigned periodsPerBlock) const {
    std::fprintf(out, "  nominal %.6g V (%s), %.6g Hz (%s); %u-period blocks\n", s.nominalVoltage,
                 nominalSourceName(s.nominalVoltageSource), s.nominalFrequency,
                 nominalSourceName(s.nominalFrequencySource), periodsPerBlock);
    if (!s.resampling.empty()) std::fprintf(out, "  %s\n", s.resampling.c_str());
    std::fprintf(out, "  covered: blocks 0.000 to %.4f s (%zu); ", s.blocksEnd, s.blocks);
    if (s.periodValues == 0) {
        std::fprintf(out, "no period values\n");
    } else {
        std::fprintf(out, "period values %.4f to %.4f s (%zu, %zu valid)\n", s.firstPeriodStart, s.lastPeriodEnd,
                     s.periodValues, s.validPeriodValues);
    }
    if (s.validPeriodValues == 0)
        std::fprintf(out,
                     "  warning: no valid period was found: the frequency was not measured and the "
                     "period values rest on assumed period boundaries\n");
}

void Report::printChannels(std::FILE* out, const AnalysisSummary& s, unsigned periodsPerBlock) const {
    std::fprintf(out, "\nChannels (over %zu blocks of up to %u periods)\n", blockCount, periodsPerBlock);
    int width = 8;
    for (const auto* list : {&info.voltages, &info.currents})
        for (const SourceChannel& c : *list)
            width = std::max(width, static_cast<int>(c.name.size() + c.unit.size() + 3));
    std::fprintf(out, "  %-*s %10s %10s %10s %8s %8s  %s\n", width, "channel", "rms min", "rms mean", "rms max",
                 "THD %", "THD max", "worst harmonics (% of fundamental)");
    auto line = [&](const SourceChannel& channel, const ChannelStats& c) {
        const std::string name = channel.name + " [" + channel.unit + "]";
        std::fprintf(out, "  %-*s %10.6g %10.6g %10.6g %8.2f %8.2f  %s\n", width, name.c_str(), c.rms.min, c.rms.mean(),
                     c.rms.max, c.thd.mean(), c.thd.max, worstHarmonics(c.harmonicShares, blockCount, 3).c_str());
    };
    for (size_t c = 0; c < voltages.size(); ++c) line(info.voltages[c], voltages[c]);
    for (size_t c = 0; c < currents.size(); ++c) line(info.currents[c], currents[c]);
    if (periodFrequency.count)
        std::fprintf(out, "  frequency %.4f Hz (min %.4f, max %.4f) over %zu valid periods\n", s.measuredFrequency,
                     periodFrequency.min, periodFrequency.max, periodFrequency.count);
    else
        std::fprintf(out, "  frequency not measured (no valid period)\n");
    if (s.rotation == PhaseRotation::Unknown) return;
    std::fprintf(out, "  phase rotation %s, %s\n", rotationText(s.rotation), s.rotationGiven ? "given" : "detected");
    std::fprintf(out, "  unbalance u2 %.3f %% (max %.3f %%), u0 %.3f %% (max %.3f %%), for that rotation\n",
                 s.unbalanceU2Mean, s.unbalanceU2Max, s.unbalanceU0Mean, s.unbalanceU0Max);
}

void Report::printPowers(std::FILE* out) const {
    if (currents.empty() || activePower.empty() || activePower[0].count == 0) return;
    std::fprintf(out, "\nPowers (means over the blocks; S = Urms x Irms, PF = P / S)\n");
    int width = 6;
    for (const SourceChannel& c : info.voltages) width = std::max(width, static_cast<int>(c.name.size()));
    std::fprintf(out, "  %-*s %12s %12s %12s %8s %8s\n", width, "phase", "P [W]", "Q1 [var]", "S [VA]", "PF", "DPF");
    for (size_t b = 0; b < activePower.size(); ++b) {
        if (activePower[b].count == 0) continue;
        const std::string name = b < voltages.size() ? info.voltages[b].name : "total";
        const double p = activePower[b].mean(), s = apparentPower[b].mean();
        std::fprintf(out, "  %-*s %12.6g %12.6g %12.6g %8.4f %8.4f\n", width, name.c_str(), p, reactivePower[b].mean(),
                     s, s > 0.0 ? p / s : 0.0, displacement[b].mean());
    }
}

void Report::printEvents(std::FILE* out) const {
    const std::vector<PowerQualityEvent> list = events();
    std::fprintf(out, "\nEvents (%zu; %% of nominal)\n", list.size());
    if (list.empty()) return;
    std::vector<EventRow> rows;
    std::vector<std::string> phases;
    int width = 9;
    for (const PowerQualityEvent& event : list) {
        rows.push_back(describeEvent(event, info.nominalVoltage, info.voltages));
        phases.push_back(joinedList(rows.back().phases));
        width = std::max(width, static_cast<int>(phases.back().size()));
    }
    // The columns of the events in the output files, in their order; "-" where they are null.
    std::fprintf(out, "  %-12s %-*s %9s %9s %9s %10s %7s %10s %7s %7s %9s %7s\n", "kind", width, "phases", "start [s]",
                 "end [s]", "dur. [s]", "extreme[V]", "extr.%", "resid.[V]", "resid.%", "depth%", "step [V]", "step %");
    auto value = [](std::optional<double> v, const char* format) {
        char text[32] = "-";
        if (v) std::snprintf(text, sizeof text, format, *v);
        return std::string(text);
    };
    for (size_t k = 0; k < rows.size(); ++k) {
        const EventRow& e = rows[k];
        std::fprintf(out, "  %-12s %-*s %9.4f %9s %9s %10.2f %7.2f %10s %7s %7s %9s %7s%s\n", e.kind.c_str(), width,
                     phases[k].c_str(), e.start, value(e.end, "%.4f").c_str(), value(e.duration, "%.4f").c_str(),
                     e.extreme, e.extremePercent, value(e.residual, "%.2f").c_str(),
                     value(e.residualPercent, "%.2f").c_str(), value(e.depthPercent, "%.2f").c_str(),
                     value(e.step, "%.2f").c_str(), value(e.stepPercent, "%.2f").c_str(),
                     e.ongoing ? "  ongoing at end of recording" : "");
    }
}

void Report::print(std::FILE* out, const char* backend, unsigned periodsPerBlock) const {
    const AnalysisSummary s = summary();
    std::fprintf(out, "Recording: %s\n", info.description.c_str());
    std::fprintf(out, "  channels %zu voltage, %zu current; rate %.6g Hz; duration %.4f s; grid type %d; backend %s\n",
                 info.voltages.size(), info.currents.size(), info.sampleRate, s.recordingSeconds, info.gridType,
                 backend);
    printSummary(out, s, periodsPerBlock);
    printChannels(out, s, periodsPerBlock);
    printPowers(out);
    printEvents(out);
}

}  // namespace tarnel::analyser
