#include "OutputRecords.h"

#include <algorithm>
#include <cmath>

#include "tarnel/PowerGridConfig.h"

#ifndef TARNEL_ANALYSER_VERSION
#define TARNEL_ANALYSER_VERSION "unknown"
#endif

namespace tarnel::analyser {

namespace {

using Numbers = std::vector<std::optional<double>>;

std::string phaseName(unsigned zeroBased) { return "L" + std::to_string(zeroBased + 1); }

std::optional<std::string> nonEmpty(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional<std::string>(text);
}

std::optional<double> when(bool condition, double value) {
    return condition ? std::optional<double>(value) : std::nullopt;
}

std::optional<std::string> utcAt(const SourceInfo& info, std::optional<double> seconds) {
    if (!info.startUtcNanoseconds || !seconds) return std::nullopt;
    return formatUtc(*info.startUtcNanoseconds + std::llround(*seconds * 1e9));
}

bool hasCurrents(const SourceInfo& info) { return !info.currents.empty(); }

long long phaseCount(const SourceInfo& info) {
    return PowerGridConfig::forType(static_cast<PowerGridConfigType>(info.gridType)).phasesCount;
}

unsigned lineToLineCount(const SourceInfo& info) {
    const PowerGridConfig grid = PowerGridConfig::forType(static_cast<PowerGridConfigType>(info.gridType));
    return grid.phasesCount > 1 ? grid.lineToLineCount : 0;
}

// Percent of a sequence component relative to the positive sequence.
std::optional<double> ratio(double component, double positive) {
    return when(positive > 0.0, 100.0 * component / positive);
}

// A harmonic order is measured when its frequency lies below half the sample rate.
bool orderMeasured(double order, double frequency, double sampleRate) { return order * frequency < 0.5 * sampleRate; }

std::optional<Numbers> spectrum(const float* values, unsigned count, const PowerResultsGeneral& r, double fs,
                                double orderOffset) {
    if (values == nullptr) return std::nullopt;
    Numbers out(count);
    for (unsigned h = 0; h < count; ++h)
        if (orderMeasured(h + orderOffset, r.frequency, fs)) out[h] = shortestFromFloat(values[h]);
    return out;
}

// Where a nominal value came from, as one word.
const char* sourceToken(NominalSource source) {
    switch (source) {
        case NominalSource::Given:
            return "given";
        case NominalSource::Recording:
            return "recording";
        case NominalSource::Estimated:
            return "estimated";
        case NominalSource::Assumed:
            return "assumed";
    }
    return "";
}

// Neither given by the user nor stated by the recording.
bool derived(NominalSource source) { return source == NominalSource::Estimated || source == NominalSource::Assumed; }

std::optional<std::string> phaseOrder(PhaseRotation rotation) {
    switch (rotation) {
        case PhaseRotation::Forward:
            return "L1-L2-L3";
        case PhaseRotation::Reverse:
            return "L1-L3-L2";
        case PhaseRotation::Unknown:
            break;
    }
    return std::nullopt;
}

double blockStart(const PowerResultsGeneral& r, double fs) { return static_cast<double>(r.firstSampleIndex) / fs; }

}  // namespace

void Coverage::addBlock(const PowerResultsGeneral& r, double sampleRate) {
    ++blocks;
    if (!start) start = blockStart(r, sampleRate);
    end = r.endTime;
    if (r.harmonicLength > 0) highestHarmonic = std::max(highestHarmonic.value_or(0), r.harmonicLength - 1);
}

Record headerRecord(const SourceInfo& info, const RunFacts& facts, const Coverage& coverage) {
    const std::optional<double> duration =
        when(info.totalSamples > 0, static_cast<double>(info.totalSamples) / info.sampleRate);
    const std::optional<long long> samples =
        info.totalSamples > 0 ? std::optional<long long>(static_cast<long long>(info.totalSamples)) : std::nullopt;
    const bool started = info.startUtcNanoseconds.has_value();
    const AnalysisSummary& s = facts.summary;
    Record header;
    header.text("record", "header")
        .text("schema", kOutputSchema)
        .text("library_version", TARNEL_ANALYSER_VERSION)
        .text("source_file", nonEmpty(info.sourceFile))
        .text("source_format", nonEmpty(info.format))
        .text("backend", facts.backend)
        .text("start_time_utc", utcAt(info, 0.0))
        .boolean("start_time_zone_stated", started ? std::optional<bool>(info.startTimeZoneStated) : std::nullopt)
        .number("sample_rate_Hz", info.sampleRate)
        .integer("samples", samples)
        .number("duration_s", duration)
        .integer("grid_type", info.gridType)
        .integer("phase_count", phaseCount(info))
        .records("channels", channelRecords(info))
        .number("nominal_voltage_V", s.nominalVoltage)
        .boolean("nominal_voltage_estimated", derived(s.nominalVoltageSource))
        .text("nominal_voltage_source", sourceToken(s.nominalVoltageSource))
        .number("nominal_frequency_Hz", s.nominalFrequency)
        .boolean("nominal_frequency_estimated", derived(s.nominalFrequencySource))
        .text("nominal_frequency_source", sourceToken(s.nominalFrequencySource))
        .number("freq_measured_Hz", when(s.validPeriodValues > 0, s.measuredFrequency))
        .text("phase_order", phaseOrder(s.rotation))
        .boolean("phase_order_given", s.rotationGiven)
        .text("resampling", nonEmpty(s.resampling))
        .integer("periods_per_block", static_cast<long long>(facts.periodsPerBlock))
        .integer("harmonic_order_max",
                 coverage.highestHarmonic ? std::optional<long long>(*coverage.highestHarmonic) : std::nullopt)
        .number("covered_start_s", coverage.start)
        .number("covered_end_s", coverage.end)
        .number("periods_start_s", when(s.periodValues > 0, s.firstPeriodStart))
        .number("periods_end_s", when(s.periodValues > 0, s.lastPeriodEnd))
        .integer("block_count", static_cast<long long>(coverage.blocks))
        .integer("period_count", static_cast<long long>(coverage.periods))
        .integer("valid_period_count", static_cast<long long>(s.validPeriodValues))
        .integer("event_count", static_cast<long long>(facts.events.size()));
    return header;
}

std::vector<Record> channelRecords(const SourceInfo& info) {
    std::vector<Record> channels;
    auto add = [&](const std::vector<SourceChannel>& list, const char* quantity) {
        for (size_t c = 0; c < list.size(); ++c)
            channels.push_back(Record()
                                   .text("name", list[c].name)
                                   .text("quantity", quantity)
                                   .text("unit", list[c].unit)
                                   .text("phase", phaseName(static_cast<unsigned>(c))));
    };
    add(info.voltages, "voltage");
    add(info.currents, "current");
    return channels;
}

Record blockRecord(const SourceInfo& info, const PowerResultsGeneral& r, size_t index) {
    const double fs = info.sampleRate, start = blockStart(r, fs);
    const bool threePhase = r.phasesCount == 3, currents = hasCurrents(info);
    const bool totals = currents && r.phasesCount >= 2;
    const PowerResultsSymmetricalComponent* sc = r.symmetricalComponents;
    const PowerResultsPhase& total = r.phases[r.phasesCount < 4 ? r.phasesCount : 3];
    Record block;
    block.text("record", "block")
        .integer("index", static_cast<long long>(index))
        .integer("first_sample", static_cast<long long>(r.firstSampleIndex))
        .integer("samples", r.length)
        .number("t_start_s", start)
        .number("t_end_s", r.endTime)
        .text("t_start_utc", utcAt(info, start))
        .text("t_end_utc", utcAt(info, r.endTime))
        .number("freq_Hz", r.frequency)
        .number("u2_pct", threePhase ? ratio(sc[2].voltageMagnitude, sc[1].voltageMagnitude) : std::nullopt)
        .number("u0_pct", threePhase ? ratio(sc[0].voltageMagnitude, sc[1].voltageMagnitude) : std::nullopt)
        .number("i2_pct", threePhase && currents ? ratio(sc[2].currentMagnitude, sc[1].currentMagnitude) : std::nullopt)
        .number("i0_pct", threePhase && currents ? ratio(sc[0].currentMagnitude, sc[1].currentMagnitude) : std::nullopt)
        .number("p_total_W", when(totals, total.activePower))
        .number("q1_total_var", when(totals, total.fundamentalReactivePowerSum))
        .number("s_total_VA", when(totals, total.apparentPower))
        .number("pf_total", when(totals && total.apparentPower > 0.0, total.powerFactor))
        .number("dpf_total", when(totals && total.fundamentalApparentPower > 0.0, total.displacementPowerFactor));
    return block;
}

Record blockPhaseRecord(const SourceInfo& info, const PowerResultsGeneral& r, unsigned p, bool withSpectra) {
    const PowerResultsPhase& ph = r.phases[p];
    const bool currents = hasCurrents(info), lineToLine = p < lineToLineCount(info);
    const bool fundamentalU = ph.fundamentalU > 0.0, fundamentalI = currents && ph.fundamentalI > 0.0;
    Record phase;
    phase.text("phase", phaseName(p))
        .number("u_rms_V", ph.rmsU)
        .number("u_fund_V", ph.fundamentalU)
        .number("ul_rms_V", when(lineToLine, ph.rmsUL))
        .number("thd_u_pct", when(fundamentalU, ph.thdU.thd))
        .number("i_rms_A", when(currents, ph.rmsI))
        .number("i_fund_A", when(currents, ph.fundamentalI))
        .number("thd_i_pct", when(fundamentalI, ph.thdI.thd))
        .number("p_W", when(currents, ph.activePower))
        .number("q1_var", when(currents, ph.fundamentalReactivePower))
        .number("s_VA", when(currents, ph.apparentPower))
        .number("pf", when(currents && ph.apparentPower > 0.0, ph.powerFactor))
        .number("dpf", when(fundamentalU && fundamentalI, ph.displacementPowerFactor));
    if (!withSpectra) return phase;
    const double fs = info.sampleRate;
    const unsigned h = r.harmonicLength;
    phase.numbers("h_u_V", spectrum(ph.harmonicsU, h, r, fs, 0.0))
        .numbers("h_u_deg", spectrum(ph.harmonicAnglesU, h, r, fs, 0.0))
        .numbers("ih_u_V", spectrum(ph.interharmonicsU, h, r, fs, 1.0))
        .numbers("h_i_A", currents ? spectrum(ph.harmonicsI, h, r, fs, 0.0) : std::nullopt)
        .numbers("h_i_deg", currents ? spectrum(ph.harmonicAnglesI, h, r, fs, 0.0) : std::nullopt)
        .numbers("ih_i_A", currents ? spectrum(ph.interharmonicsI, h, r, fs, 1.0) : std::nullopt);
    return phase;
}

std::vector<Record> harmonicRecords(const SourceInfo& info, const PowerResultsGeneral& r, size_t index) {
    const double fs = info.sampleRate, start = blockStart(r, fs);
    const bool currents = hasCurrents(info);
    std::vector<Record> rows;
    for (unsigned p = 0; p < r.phasesCount; ++p) {
        const PowerResultsPhase& ph = r.phases[p];
        for (unsigned h = 0; h < r.harmonicLength; ++h) {
            const bool harmonic = orderMeasured(h, r.frequency, fs), inter = orderMeasured(h + 1.0, r.frequency, fs);
            auto value = [&](const float* values, bool measured) -> std::optional<double> {
                if (values == nullptr || !measured) return std::nullopt;
                return shortestFromFloat(values[h]);
            };
            rows.push_back(Record()
                               .integer("block_index", static_cast<long long>(index))
                               .number("t_start_s", start)
                               .number("t_end_s", r.endTime)
                               .text("phase", phaseName(p))
                               .integer("order", h)
                               .number("h_u_V", value(ph.harmonicsU, harmonic))
                               .number("h_u_deg", value(ph.harmonicAnglesU, harmonic))
                               .number("ih_u_V", value(ph.interharmonicsU, inter))
                               .number("h_i_A", value(currents ? ph.harmonicsI : nullptr, harmonic))
                               .number("h_i_deg", value(currents ? ph.harmonicAnglesI : nullptr, harmonic))
                               .number("ih_i_A", value(currents ? ph.interharmonicsI : nullptr, inter)));
        }
    }
    return rows;
}

Record periodRecord(const SourceInfo& info, const PowerResultsPeriod* records, int phases, size_t index) {
    const PowerResultsPeriod& first = records[1];
    // Period records carry the sequence phasors: record k holds component k.
    const bool threePhase = phases == 3;
    auto sequence = [&](int k) { return records[k].symmetricalComponent.voltageMagnitude; };
    Record period;
    period.text("record", "period")
        .integer("index", static_cast<long long>(index))
        .number("t_end_s", first.time)
        .text("t_end_utc", utcAt(info, first.time))
        .boolean("valid", first.valid)
        .number("freq_Hz", when(first.valid, first.frequency))
        .number("u2_pct", threePhase ? ratio(sequence(2), sequence(1)) : std::nullopt)
        .number("u0_pct", threePhase ? ratio(sequence(0), sequence(1)) : std::nullopt);
    return period;
}

Record periodPhaseRecord(const SourceInfo& info, const PowerResultsPeriod& r, int p) {
    const bool currents = hasCurrents(info);
    const bool lineToLine = static_cast<unsigned>(p) < lineToLineCount(info);
    const bool phasors = currents && r.fundamentalU > 0.0 && r.fundamentalI > 0.0;
    Record phase;
    phase.text("phase", phaseName(static_cast<unsigned>(p)))
        .number("u_rms_V", r.rmsU)
        .number("u_fund_V", r.fundamentalU)
        .number("ul_rms_V", when(lineToLine, r.rmsUL))
        .number("i_rms_A", when(currents, r.rmsI))
        .number("i_fund_A", when(currents, r.fundamentalI))
        .number("p_W", when(currents, r.activePower))
        .number("q1_var", when(currents, r.fundamentalReactivePower))
        .number("s_VA", when(currents, r.apparentPower))
        .number("pf", when(currents && r.apparentPower > 0.0, r.powerFactor))
        .number("angle_ui_deg", when(phasors, r.fundamentalPhaseAngle));
    return phase;
}

Record eventRecord(const SourceInfo& info, const EventRow& e, size_t index) {
    Record event;
    event.text("record", "event")
        .integer("index", static_cast<long long>(index))
        .text("kind", e.kind)
        .texts("phases", e.phases)
        .boolean("ongoing", e.ongoing)
        .number("t_start_s", e.start)
        .number("t_end_s", e.end)
        .text("t_start_utc", utcAt(info, e.start))
        .text("t_end_utc", utcAt(info, e.end))
        .number("duration_s", e.duration)
        .number("extreme_V", e.extreme)
        .number("extreme_pct", e.extremePercent)
        .number("residual_V", e.residual)
        .number("residual_pct", e.residualPercent)
        .number("depth_pct", e.depthPercent)
        .number("step_V", e.step)
        .number("step_pct", e.stepPercent);
    return event;
}

namespace {

PowerResultsGeneral emptyBlock() {
    PowerResultsGeneral r{};
    r.phasesCount = 1;
    return r;
}

}  // namespace

Record blockPrototype(const SourceInfo& info) {
    const PowerResultsGeneral r = emptyBlock();
    return blockRecord(info, r, 0).append(blockPhaseRecord(info, r, 0, false));
}

Record periodPrototype(const SourceInfo& info) {
    PowerResultsPeriod records[2]{};
    return periodRecord(info, records, 1, 0).append(periodPhaseRecord(info, records[1], 0));
}

Record harmonicPrototype(const SourceInfo& info) {
    PowerResultsGeneral r = emptyBlock();
    r.harmonicLength = 1;
    return harmonicRecords(info, r, 0).front();
}

Record eventPrototype(const SourceInfo& info) { return eventRecord(info, EventRow{}, 0); }

}  // namespace tarnel::analyser
