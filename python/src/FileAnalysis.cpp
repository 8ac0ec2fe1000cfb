#include "FileAnalysis.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "AnalyserOptions.h"
#include "Analysis.h"
#include "ArraySource.h"
#include "EventRow.h"
#include "OutputRecords.h"
#include "RecordColumns.h"
#include "RecordCopies.h"
#include "RecordingSource.h"
#include "Report.h"

namespace nb = nanobind;

namespace tarnel::bindings {

namespace {

using namespace tarnel::analyser;

// Keeps every block result and period value of the run: the records as the
// library wrote them, and the rows of the output files' block and period tables.
class TableSink final : public ResultSink {
  public:
    explicit TableSink(const SourceInfo& sourceInfo) : info(sourceInfo) {}
    void onBlock(const PowerResultsGeneral& r) override {
        rawBlocks.add(r);
        const Record block = blockRecord(info, r, coverage.blocks);
        for (unsigned p = 0; p < r.phasesCount; ++p)
            blocks.add(Record(block).append(blockPhaseRecord(info, r, p, true)));
        coverage.addBlock(r, info.sampleRate);
    }
    void onPeriodValue(const PowerResultsPeriod* records, int phases) override {
        rawPeriods.add(records, phases);
        const Record period = periodRecord(info, records, phases, coverage.periods);
        for (int p = 1; p <= phases; ++p)
            periods.add(Record(period).append(periodPhaseRecord(info, records[p], p - 1)));
        ++coverage.periods;
    }

    const SourceInfo& info;
    Coverage coverage;
    BlockTable rawBlocks;
    PeriodTable rawPeriods;
    ColumnTable blocks, periods;
};

template <typename T>
void take(const nb::dict& options, const char* name, T& target) {
    if (options.contains(name)) target = nb::cast<T>(options[name]);
}

AnalyserOptions analyserOptions(const nb::dict& options) {
    AnalyserOptions o;
    int backend = 0, phaseOrder = 0;
    take(options, "backend", backend);
    o.backend = static_cast<BackendKind>(backend);
    take(options, "grid", o.gridType);
    take(options, "voltages", o.voltageColumns);
    take(options, "currents", o.currentColumns);
    take(options, "delta", o.delta);
    take(options, "nominal_voltage", o.nominalVoltage);
    take(options, "nominal_frequency", o.nominalFrequency);
    take(options, "sample_rate", o.sampleRate);
    take(options, "secondary", o.secondary);
    take(options, "section", o.section);
    take(options, "dip_threshold", o.dipThreshold);
    take(options, "swell_threshold", o.swellThreshold);
    take(options, "interruption_threshold", o.interruptionThreshold);
    take(options, "phase_order", phaseOrder);
    if (phaseOrder == 1) o.phaseOrder = PhaseRotation::Forward;
    if (phaseOrder == 2) o.phaseOrder = PhaseRotation::Reverse;
    return o;
}

// The report exactly as the command line prints it.
std::string reportText(const Report& report, const char* backend, unsigned periodsPerBlock) {
    char* text = nullptr;
    size_t size = 0;
    std::FILE* out = open_memstream(&text, &size);
    if (out == nullptr) throw std::runtime_error("cannot buffer the report");
    report.print(out, backend, periodsPerBlock);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

// The run as tarnel-analyse makes it: the same settings for the analysis and
// the report, the same records for the tables as for its output files.
nb::dict run(SignalSource& source, const AnalyserOptions& options) {
    const SourceInfo& info = source.info();
    ReportSettings reportSettings;
    reportSettings.interruptionThreshold = options.interruptionThreshold;
    reportSettings.phaseOrder = options.phaseOrder;
    Report report(info, reportSettings);
    TableSink tables(info);
    AnalysisSettings settings;
    settings.backend = options.backend;
    settings.dipThreshold = options.dipThreshold;
    settings.swellThreshold = options.swellThreshold;
    Analysis analysis(source, settings, {&report, &tables});
    size_t blocks = 0;
    double seconds = 0.0;
    {
        nb::gil_scoped_release unlocked;
        const auto start = std::chrono::steady_clock::now();
        blocks = analysis.run();
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    if (blocks == 0) throw std::runtime_error(info.description + ": no block could be analysed");
    const RunFacts facts{analysis.backendName(), analysis.periodsPerBlock(), report.summary(), report.events()};
    ColumnTable events;
    for (size_t k = 0; k < facts.events.size(); ++k)
        events.add(eventRecord(info, describeEvent(facts.events[k], info.nominalVoltage, info.voltages), k));
    nb::dict out;
    out["header"] = recordDict(headerRecord(info, facts, tables.coverage));
    out["description"] = info.description;
    out["block_records"] = tables.rawBlocks.toPython()["records"];
    out["period_records"] = tables.rawPeriods.toPython();
    out["blocks"] = tables.blocks.toPython();
    out["periods"] = tables.periods.toPython();
    out["events"] = events.toPython();
    nb::dict prototypes;
    prototypes["period"] = recordDict(periodPrototype(info));
    prototypes["event"] = recordDict(eventPrototype(info));
    out["prototypes"] = prototypes;
    out["report"] = reportText(report, analysis.backendName(), analysis.periodsPerBlock());
    out["run_seconds"] = seconds;
    return out;
}

std::vector<std::vector<float>> channels(const SampleArray<float>& samples) {
    std::vector<std::vector<float>> out(samples.shape(0));
    const size_t n = samples.shape(1);
    for (size_t c = 0; c < out.size(); ++c) out[c].assign(samples.data() + c * n, samples.data() + (c + 1) * n);
    return out;
}

}  // namespace

nb::dict analyseFile(const std::string& path, const nb::dict& options) {
    AnalyserOptions o = analyserOptions(options);
    o.input = path;
    std::unique_ptr<SignalSource> source = openRecordingSource(o);
    return run(*source, o);
}

nb::dict analyseArrays(SampleArray<float> voltages, SampleArray<float> currents, const nb::dict& options) {
    const AnalyserOptions o = analyserOptions(options);
    if (!o.sampleRate) throw std::invalid_argument("analysing arrays needs sample_rate");
    if (!o.gridType) throw std::invalid_argument("analysing arrays needs grid");
    SourceInfo info;
    info.description = "arrays";
    info.format = "arrays";
    info.sampleRate = *o.sampleRate;
    info.gridType = *o.gridType;
    if (options.contains("start_utc_ns")) info.startUtcNanoseconds = nb::cast<int64_t>(options["start_utc_ns"]);
    info.startTimeZoneStated = info.startUtcNanoseconds.has_value();
    for (size_t c = 0; c < voltages.shape(0); ++c) info.voltages.push_back({"U" + std::to_string(c + 1), "V"});
    for (size_t c = 0; c < currents.shape(0); ++c) info.currents.push_back({"I" + std::to_string(c + 1), "A"});
    ArraySource source(info, channels(voltages), channels(currents), o.nominalVoltage, o.nominalFrequency);
    return run(source, o);
}

}  // namespace tarnel::bindings
